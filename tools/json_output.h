// Standard output of a command run with --json: exactly one JSON document.
// While a JsonOutput with json on lives, everything else written to
// std::cout (the command's own lines and the library's console texts such
// as "Starting t = ..." or "Circles 3") goes to standard error instead, and
// print() writes the document to the real standard output. Without --json
// nothing is redirected and print() writes nothing.
#pragma once

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace Tool {

class JsonOutput {
 public:
  explicit JsonOutput(bool json);
  ~JsonOutput();
  JsonOutput(const JsonOutput&) = delete;
  JsonOutput& operator=(const JsonOutput&) = delete;

  bool json() const { return json_; }
  // The document, on one line, on the real standard output (json only).
  void print(const nlohmann::json& document);
  // The same through the JsonOutput that lives now (nothing when none does
  // or it is not json), for code the command's entry calls.
  static void printActive(const nlohmann::json& document);

  // Runs `work` and returns the lines it wrote to std::cout; they are also
  // passed on where std::cout goes now (standard error with --json), so the
  // library's console texts are never lost, and the command can carry
  // information from them into its document.
  static std::vector<std::string> lines(const std::function<void()>& work);

 private:
  bool json_;
  std::streambuf* standardOutput_ = nullptr;
  JsonOutput* previous_ = nullptr;
  static JsonOutput* active_;
};

}  // namespace Tool

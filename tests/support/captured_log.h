// What one named spdlog logger writes while a test runs: the logger is
// replaced by one that writes into a string (level trace) and dropped again
// at the end, so the library's own log texts can be checked.
#pragma once

#include <memory>
#include <sstream>
#include <string>

namespace spdlog {
class logger;
}

namespace Testing {

class CapturedLog {
 public:
  explicit CapturedLog(const std::string& name);
  ~CapturedLog();
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  std::string text() const { return text_.str(); }

 private:
  std::string name_;
  std::ostringstream text_;
  std::shared_ptr<spdlog::logger> logger_;
};

}  // namespace Testing

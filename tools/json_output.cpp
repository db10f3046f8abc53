// One JSON document on standard output; see json_output.h.
#include "json_output.h"

#include <iostream>
#include <sstream>

namespace Tool {

JsonOutput* JsonOutput::active_ = nullptr;

JsonOutput::JsonOutput(bool json) : json_(json), previous_(active_) {
  active_ = this;
  if (!json_) return;
  std::cout.flush();
  standardOutput_ = std::cout.rdbuf(std::cerr.rdbuf());
}

JsonOutput::~JsonOutput() {
  active_ = previous_;
  if (!json_) return;
  std::cout.flush();
  std::cout.rdbuf(standardOutput_);
}

void JsonOutput::print(const nlohmann::json& document) {
  if (!json_) return;
  std::cerr.flush();
  std::ostream out(standardOutput_);
  out << document.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
}

void JsonOutput::printActive(const nlohmann::json& document) {
  if (active_ != nullptr) active_->print(document);
}

std::vector<std::string> JsonOutput::lines(const std::function<void()>& work) {
  std::ostringstream captured;
  std::streambuf* before = std::cout.rdbuf(captured.rdbuf());
  try {
    work();
  } catch (...) {
    std::cout.rdbuf(before);
    std::cout << captured.str() << std::flush;
    throw;
  }
  std::cout.rdbuf(before);
  std::cout << captured.str() << std::flush;
  std::vector<std::string> out;
  std::istringstream text(captured.str());
  for (std::string line; std::getline(text, line);) out.push_back(line);
  return out;
}

}  // namespace Tool

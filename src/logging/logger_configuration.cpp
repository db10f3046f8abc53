// The logger configuration file and the loggers it switches on.
#include "orbivane/logging/logger_configuration.h"

#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include "logging/logger_setup.h"

namespace Utils {
namespace {

// Strips every character of code 32 or less from both ends, then the
// surrounding double quotes.
std::string cleanToken(const std::string& s) {
  std::size_t begin = 0;
  std::size_t end = s.size();
  while (begin < end && static_cast<unsigned char>(s[begin]) <= 32) ++begin;
  while (end > begin && static_cast<unsigned char>(s[end - 1]) <= 32) --end;
  if (begin < end && s[begin] == '"') ++begin;
  if (end > begin && s[end - 1] == '"') --end;
  return s.substr(begin, end - begin);
}

// Position of the bracket that closes the one at `open`, counting nesting.
std::size_t matchingClose(const std::string& text, std::size_t open, char opening, char closing) {
  int depth = 0;
  for (std::size_t i = open; i < text.size(); ++i) {
    if (text[i] == opening) ++depth;
    if (text[i] == closing && --depth == 0) return i;
  }
  return std::string::npos;
}

}  // namespace

const char* const kLoggerConfigurationFile = "OrbivaneCalibration.cfg";

std::vector<std::string> defaultLoggerNames() { return {"MatrixBasedMatchToBackground", "FisheyeCalibration"}; }

std::string defaultLoggerConfiguration(const std::vector<std::string>& names) {
  std::string text = "{\n\t\"Logger\" :\n\t[\n";
  for (const std::string& name : names) {
    text += "\t\t\t{\n";
    text += "\t\t\t\"Name\" : \"" + name + "\",\n";
    text += "\t\t\t\"Active\" : false,\n";
    text += "\t\t\t\"File\" : \"common.log\",\n";
    text += "\t\t\t\"LogLevel\" : \"info\",\n";
    text += "\t\t\t},\n";
  }
  text += "\t]\n}";
  return text;
}

std::vector<LoggerEntry> parseLoggerConfiguration(const std::string& text) {
  std::vector<LoggerEntry> entries;
  const std::size_t key = text.find("\"Logger\"");
  if (key == std::string::npos) return entries;
  const std::size_t open = text.find('[', key);
  if (open == std::string::npos) return entries;
  std::size_t close = matchingClose(text, open, '[', ']');
  if (close == std::string::npos) close = text.size();
  std::size_t pos = open + 1;
  while (true) {
    const std::size_t brace = text.find('{', pos);
    if (brace == std::string::npos || brace >= close) break;
    const std::size_t end = matchingClose(text, brace, '{', '}');
    if (end == std::string::npos || end > close) break;
    LoggerEntry entry;
    std::stringstream pieces(text.substr(brace + 1, end - brace - 1));
    std::string piece;
    while (std::getline(pieces, piece, ',')) {
      const std::size_t colon = piece.find(':');
      if (colon == std::string::npos) continue;
      const std::string k = cleanToken(piece.substr(0, colon));
      const std::string v = cleanToken(piece.substr(colon + 1));
      if (k == "Name") {
        entry.name = v;
      } else if (k == "Active") {
        entry.active = v;
      } else if (k == "File") {
        entry.file = v;
      } else if (k == "LogLevel") {
        entry.level = v;
      }
    }
    entries.push_back(entry);
    pos = end + 1;
  }
  return entries;
}

spdlog::level::level_enum levelFromText(const std::string& text) {
  static const char* const kNames[] = {"trace", "debug", "info", "warning", "error", "critical", "off"};
  for (int i = 0; i < 7; ++i) {
    if (text == kNames[i]) return static_cast<spdlog::level::level_enum>(i);
  }
  return spdlog::level::off;
}

void ensureLoggerConfiguration(const std::string& path, const std::vector<std::string>& names) {
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  if (!file.is_open()) return;
  std::stringstream content;
  content << file.rdbuf();
  if (content.str().empty()) {
    file.clear();
    file.seekp(0);
    file << defaultLoggerConfiguration(names);
  }
}

std::vector<std::string> createConfiguredLoggers(const std::string& path) {
  std::vector<std::string> problems;
  std::ifstream in(path, std::ios::binary);
  if (!in) return problems;
  std::stringstream content;
  content << in.rdbuf();
  for (const LoggerEntry& entry : parseLoggerConfiguration(content.str())) {
    if (entry.active != "true") continue;
    if (auto existing = spdlog::get(entry.name)) {
      existing->error("Tried to recreate a logger with the same name!");
      continue;
    }
    try {
      auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(entry.file, false);
      auto logger = std::make_shared<spdlog::logger>(entry.name, std::move(sink));
      spdlog::register_logger(logger);
      logger->set_level(levelFromText(entry.level));
    } catch (const std::exception& e) {
      problems.push_back(e.what());
    }
  }
  return problems;
}

std::shared_ptr<spdlog::logger> calibratorLogger(const std::string& name) {
  if (auto registered = spdlog::get(name)) return registered;
  return std::make_shared<spdlog::logger>(name, std::make_shared<spdlog::sinks::null_sink_mt>());
}

namespace {

// Runs once when the library is loaded into a process.
struct LoadTimeConfiguration {
  LoadTimeConfiguration() {
    try {
      ensureLoggerConfiguration(kLoggerConfigurationFile, defaultLoggerNames());
      for (const std::string& problem : createConfiguredLoggers(kLoggerConfigurationFile)) {
        std::fprintf(stderr, "OrbivaneCalibration: %s\n", problem.c_str());
      }
    } catch (...) {
      // Loading the library must never fail because of its log configuration.
    }
  }
};

const LoadTimeConfiguration loadTimeConfiguration;

}  // namespace

}  // namespace Utils

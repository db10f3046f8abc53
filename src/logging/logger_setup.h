// Inside of the logger configuration: parsing the file, creating the
// configured loggers in spdlog's registry, and the loggers calibrators hold.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <spdlog/logger.h>

namespace Utils {

struct LoggerEntry {
  std::string name;
  std::string active;          // the logger is created only when this is exactly "true"
  std::string file;            // log file the logger appends to
  std::string level = "Info";  // before any "LogLevel" key: "Info", which maps to off
};

// The entries of the "Logger" list of a configuration text.
std::vector<LoggerEntry> parseLoggerConfiguration(const std::string& text);

// spdlog level of a level text: "trace" .. "off" exactly, anything else off.
spdlog::level::level_enum levelFromText(const std::string& text);

// Opens the file for reading and writing; when it opened and is empty, writes
// the default text for `names` into it. A missing file is left missing.
void ensureLoggerConfiguration(const std::string& path, const std::vector<std::string>& names);

// Creates and registers the loggers of the active entries of the file.
// Problems (an unreadable file, a log file that cannot be opened) are
// returned as messages; nothing throws.
std::vector<std::string> createConfiguredLoggers(const std::string& path);

// The registered logger of that name, or an unregistered logger of that name
// that discards everything.
std::shared_ptr<spdlog::logger> calibratorLogger(const std::string& name);

}  // namespace Utils

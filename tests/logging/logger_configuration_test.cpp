// The logger configuration file: its default text byte for byte, parsing,
// levels, duplicates, and what the library does at load time.
#include <fstream>

#include <gtest/gtest.h>
#include <spdlog/spdlog.h>

#include "logging/logger_setup.h"
#include "orbivane/logging/logger_configuration.h"
#include "synthetic/sample_data.h"

namespace {

using Synthetic::readText;
using Synthetic::TemporaryDirectory;
using Synthetic::writeText;

const char kDefaultText[] =
    "{\n\t\"Logger\" :\n\t[\n"
    "\t\t\t{\n\t\t\t\"Name\" : \"MatrixBasedMatchToBackground\",\n\t\t\t\"Active\" : false,\n"
    "\t\t\t\"File\" : \"common.log\",\n\t\t\t\"LogLevel\" : \"info\",\n\t\t\t},\n"
    "\t\t\t{\n\t\t\t\"Name\" : \"FisheyeCalibration\",\n\t\t\t\"Active\" : false,\n"
    "\t\t\t\"File\" : \"common.log\",\n\t\t\t\"LogLevel\" : \"info\",\n\t\t\t},\n"
    "\t]\n}";

std::string entry(const std::string& name, const std::string& active, const std::string& file,
                  const std::string& level) {
  std::string text = "{ \"Name\" : \"" + name + "\", \"Active\" : " + active + ", \"File\" : \"" + file + "\"";
  if (!level.empty()) text += ", \"LogLevel\" : \"" + level + "\"";
  return text + " },";
}

// Loggers created by a test are removed again so that tests stay independent.
struct DropLoggers {
  std::vector<std::string> names;
  ~DropLoggers() {
    for (const auto& n : names) spdlog::drop(n);
  }
};

TEST(LoggerConfiguration, EmptyFileIsFilledWithTheDefaultTextByteForByte) {
  TemporaryDirectory dir;
  const std::string cfg = dir.file("OrbivaneCalibration.cfg");
  writeText(cfg, "");
  Utils::ensureLoggerConfiguration(cfg, Utils::defaultLoggerNames());
  EXPECT_EQ(readText(cfg), kDefaultText);
  EXPECT_EQ(Utils::defaultLoggerConfiguration(Utils::defaultLoggerNames()), kDefaultText);

  // Both default entries are inactive: reading the file creates no logger.
  EXPECT_TRUE(Utils::createConfiguredLoggers(cfg).empty());
  EXPECT_EQ(spdlog::get("MatrixBasedMatchToBackground"), nullptr);
  EXPECT_EQ(spdlog::get("FisheyeCalibration"), nullptr);
}

TEST(LoggerConfiguration, NonEmptyOrMissingFilesAreNeverWritten) {
  TemporaryDirectory dir;
  const std::string broken = dir.file("broken.cfg");
  writeText(broken, "not a configuration at all {");
  Utils::ensureLoggerConfiguration(broken, Utils::defaultLoggerNames());
  EXPECT_EQ(readText(broken), "not a configuration at all {");

  const std::string missing = dir.file("missing.cfg");
  Utils::ensureLoggerConfiguration(missing, Utils::defaultLoggerNames());
  EXPECT_FALSE(std::ifstream(missing).good());
  EXPECT_TRUE(Utils::createConfiguredLoggers(missing).empty());
}

TEST(LoggerConfiguration, ParsingTakesKeysExactlyAndKeepsTheLastValue) {
  const std::string text =
      "{ \"Logger\" : [ { \"Name\" : \"A\", \"Active\" : true, \"File\" : \"a.log\", \"LogLevel\" : \"debug\","
      " \"LogLevel\" : \"error\", \"name\" : \"ignored\", nocolon, \"Extra\" : 1 },"
      " { \"Name\" : \"B\" } ] }";
  const auto entries = Utils::parseLoggerConfiguration(text);
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].name, "A");
  EXPECT_EQ(entries[0].active, "true");
  EXPECT_EQ(entries[0].file, "a.log");
  EXPECT_EQ(entries[0].level, "error");
  // An entry without "LogLevel" keeps the built-in "Info" (which maps to off).
  EXPECT_EQ(entries[1].level, "Info");
  EXPECT_EQ(entries[1].active, "");

  // The default text parses back into its two inactive entries.
  const auto defaults = Utils::parseLoggerConfiguration(kDefaultText);
  ASSERT_EQ(defaults.size(), 2u);
  EXPECT_EQ(defaults[1].name, "FisheyeCalibration");
  EXPECT_EQ(defaults[1].active, "false");
  EXPECT_EQ(defaults[1].file, "common.log");
  EXPECT_EQ(defaults[1].level, "info");

  // Nested brackets inside the list are counted; text after the list is not read.
  const auto nested = Utils::parseLoggerConfiguration(
      "\"Logger\" : [ { \"Name\" : \"N[1]\" } ] { \"Name\" : \"outside\" }");
  ASSERT_EQ(nested.size(), 1u);
  EXPECT_EQ(nested[0].name, "N[1]");
}

TEST(LoggerConfiguration, LevelNamesAreExactAndLowerCase) {
  EXPECT_EQ(Utils::levelFromText("trace"), spdlog::level::trace);
  EXPECT_EQ(Utils::levelFromText("debug"), spdlog::level::debug);
  EXPECT_EQ(Utils::levelFromText("info"), spdlog::level::info);
  EXPECT_EQ(Utils::levelFromText("warning"), spdlog::level::warn);
  EXPECT_EQ(Utils::levelFromText("error"), spdlog::level::err);
  EXPECT_EQ(Utils::levelFromText("critical"), spdlog::level::critical);
  EXPECT_EQ(Utils::levelFromText("off"), spdlog::level::off);
  EXPECT_EQ(Utils::levelFromText("Info"), spdlog::level::off);
  EXPECT_EQ(Utils::levelFromText("warn"), spdlog::level::off);
  EXPECT_EQ(Utils::levelFromText(""), spdlog::level::off);
}

TEST(LoggerConfiguration, OnlyExactlyTrueSwitchesALoggerOn) {
  TemporaryDirectory dir;
  DropLoggers drop{{"T.On", "T.Upper", "T.Quoted", "T.Extra"}};
  const std::string cfg = dir.file("c.cfg");
  writeText(cfg, "{ \"Logger\" : [" + entry("T.On", "true", dir.file("x.log"), "info") +
                     entry("T.Upper", "True", dir.file("x.log"), "info") +
                     entry("T.Quoted", "\"true\"", dir.file("x.log"), "info") +
                     entry("T.Extra", "truee", dir.file("x.log"), "info") + "] }");
  EXPECT_TRUE(Utils::createConfiguredLoggers(cfg).empty());
  EXPECT_NE(spdlog::get("T.On"), nullptr);
  // Surrounding quotes are stripped, so "true" in quotes counts as true.
  EXPECT_NE(spdlog::get("T.Quoted"), nullptr);
  EXPECT_EQ(spdlog::get("T.Upper"), nullptr);
  EXPECT_EQ(spdlog::get("T.Extra"), nullptr);
}

TEST(LoggerConfiguration, LevelsDecideWhatReachesTheFile) {
  TemporaryDirectory dir;
  DropLoggers drop{{"T.Warn", "T.CapitalInfo", "T.NoLevel"}};
  const std::string cfg = dir.file("c.cfg");
  const std::string warnLog = dir.file("warn.log");
  const std::string offLog = dir.file("off.log");
  writeText(cfg, "{ \"Logger\" : [" + entry("T.Warn", "true", warnLog, "warning") +
                     entry("T.CapitalInfo", "true", offLog, "Info") + entry("T.NoLevel", "true", offLog, "") + "] }");
  ASSERT_TRUE(Utils::createConfiguredLoggers(cfg).empty());

  auto warn = spdlog::get("T.Warn");
  ASSERT_NE(warn, nullptr);
  warn->info("quiet info");
  warn->warn("loud warning");
  warn->error("loud error");
  warn->critical("loud critical");
  warn->flush();
  const std::string written = readText(warnLog);
  EXPECT_EQ(written.find("quiet info"), std::string::npos);
  EXPECT_NE(written.find("loud warning"), std::string::npos);
  EXPECT_NE(written.find("loud error"), std::string::npos);
  EXPECT_NE(written.find("loud critical"), std::string::npos);

  // "Info" with a capital letter and a missing level both give a registered
  // logger that writes nothing.
  for (const char* name : {"T.CapitalInfo", "T.NoLevel"}) {
    auto logger = spdlog::get(name);
    ASSERT_NE(logger, nullptr) << name;
    EXPECT_EQ(logger->level(), spdlog::level::off) << name;
    logger->critical("must not appear");
    logger->flush();
  }
  EXPECT_EQ(readText(offLog).find("must not appear"), std::string::npos);
}

TEST(LoggerConfiguration, ASecondEntryOfOneNameReportsOnTheFirstLogger) {
  TemporaryDirectory dir;
  DropLoggers drop{{"T.Twice"}};
  const std::string cfg = dir.file("c.cfg");
  const std::string first = dir.file("first.log");
  const std::string second = dir.file("second.log");
  writeText(cfg, "{ \"Logger\" : [" + entry("T.Twice", "true", first, "trace") +
                     entry("T.Twice", "true", second, "trace") + "] }");
  ASSERT_TRUE(Utils::createConfiguredLoggers(cfg).empty());
  spdlog::get("T.Twice")->flush();
  EXPECT_NE(readText(first).find("Tried to recreate a logger with the same name!"), std::string::npos);
  EXPECT_FALSE(std::ifstream(second).good()) << "the second entry must not open its own file";
}

TEST(LoggerConfiguration, AnUnopenableLogFileIsReportedNotThrown) {
  TemporaryDirectory dir;
  const std::string cfg = dir.file("c.cfg");
  writeText(cfg, "{ \"Logger\" : [" + entry("T.Unopenable", "true", dir.path(), "info") + "] }");
  std::vector<std::string> problems;
  EXPECT_NO_THROW(problems = Utils::createConfiguredLoggers(cfg));
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_NE(problems[0].find("Failed opening file"), std::string::npos) << problems[0];
  EXPECT_EQ(spdlog::get("T.Unopenable"), nullptr);
}

TEST(LoggerConfiguration, CalibratorsWithoutAConfiguredLoggerGetADiscardingOne) {
  auto logger = Utils::calibratorLogger("ResolutionCalibration");
  ASSERT_NE(logger, nullptr);
  EXPECT_EQ(logger->name(), "ResolutionCalibration");
  EXPECT_EQ(spdlog::get("ResolutionCalibration"), nullptr) << "the discarding logger is not registered";
  EXPECT_NO_THROW(logger->error("goes nowhere"));

  TemporaryDirectory dir;
  DropLoggers drop{{"T.Registered"}};
  const std::string cfg = dir.file("c.cfg");
  writeText(cfg, "{ \"Logger\" : [" + entry("T.Registered", "true", dir.file("r.log"), "info") + "] }");
  Utils::createConfiguredLoggers(cfg);
  EXPECT_EQ(Utils::calibratorLogger("T.Registered"), spdlog::get("T.Registered"));
}

}  // namespace

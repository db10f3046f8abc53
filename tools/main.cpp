// orbivane-calibrate: runs the library's calibrators on real files.
#include <cstdlib>
#include <iostream>
#include <string>

#include <unistd.h>

#include <opencv2/core/utility.hpp>
#include <opencv2/core/utils/logger.hpp>

#include "command_line.h"

namespace {

// Shader files are looked up, among others, in %ProgramData%\Hollbrink\Shaders\.
// Point ProgramData at the shaders that come with this program, unless the
// user has set it.
void pointAtBundledShaders(const char* argv0) {
  if (std::getenv("ProgramData") != nullptr) return;
  std::string self;
  char buffer[4096];
  const ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  if (n > 0) {
    buffer[n] = '\0';
    self = buffer;
  } else {
    self = argv0;
  }
  const std::size_t slash = self.find_last_of('/');
  const std::string beside = (slash == std::string::npos ? std::string(".") : self.substr(0, slash)) + "/../share/orbivane";
  const std::string chosen = ::access((beside + "/Hollbrink/Shaders").c_str(), R_OK) == 0
                                 ? beside
                                 : std::string(ORBIVANE_INSTALL_DATADIR) + "/orbivane";
  ::setenv("ProgramData", chosen.c_str(), 0);
}

}  // namespace

int main(int argc, char** argv) {
  pointAtBundledShaders(argv[0]);
  // Errors reach the user as one clear line; OpenCV's own warnings, and the
  // video decoder's complaints about a damaged file (which is then reported
  // as such), would only repeat them.
  cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_ERROR);
  ::setenv("OPENCV_FFMPEG_LOGLEVEL", "-8", 0);

  CLI::App app{"orbivane-calibrate: calibrates multi-sensor panoramic cameras from real pictures"};
  app.set_version_flag("--version", std::string("orbivane-calibrate ") + ORBIVANE_VERSION);
  app.require_subcommand(1);
  Tool::addCameraCommands(app);
  Tool::addBlurCommand(app);
  Tool::addFisheyeCommand(app);
  Tool::addResolutionCommand(app);
  Tool::addSensorCommand(app);
  Tool::addNeighbourCommand(app);
  Tool::addAutoclipCommand(app);
  Tool::addShaderSearchCommands(app);
  Tool::addMatchToTargetCommand(app);
  Tool::addFindFramesCommand(app);
  Tool::addPanoramaCommand(app);
  Tool::addDemoCommand(app);
  Tool::addCalibrateCommand(app);

  // A misspelt command is named as such (the parser would only say that a
  // command is required).
  if (argc > 1 && argv[1][0] != '-') {
    bool known = false;
    std::string names;
    for (const CLI::App* sub : app.get_subcommands({})) {
      known = known || sub->check_name(argv[1]);  // its name or an alias
      names += (names.empty() ? "" : ", ") + sub->get_name();
    }
    if (!known) {
      std::cerr << "orbivane-calibrate: unknown command '" << argv[1] << "'; the commands are " << names << std::endl;
      return Tool::kExitUsage;
    }
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // --help and --version end well; every misuse of the command line
    // (unknown option, missing or malformed value) exits with one status.
    return app.exit(e) == 0 ? 0 : Tool::kExitUsage;
  } catch (const Tool::CommandError& e) {
    std::cerr << "orbivane-calibrate: " << e.what() << std::endl;
    // A command stopped by Ctrl-C before it had anything to write still
    // says it was interrupted.
    return Tool::exitStatus() == Tool::kExitInterrupted ? Tool::kExitInterrupted : 1;
  } catch (const std::exception& e) {
    std::cerr << "orbivane-calibrate: " << e.what() << std::endl;
    return 1;
  }
  return Tool::exitStatus();
}

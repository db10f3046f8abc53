// Pieces the commands of orbivane-calibrate share.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "orbivane/utils/size.h"

namespace CameraDescription {
class Orbivane;
}

namespace Tool {

// A failure the user must see: printed as one line on standard error, and
// the program exits with status 1.
struct CommandError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Exit statuses: 0 all done, 1 error, 3 finished but some listed module or
// pair could not be calibrated, 130 interrupted (Ctrl-C). A command that
// finishes sets its status here; main returns it.
constexpr int kExitUsage = 2;  // the command line itself is wrong (the parser's message says how)
constexpr int kExitFailedModules = 3;
constexpr int kExitInterrupted = 130;
int& exitStatus();

void addCameraCommands(CLI::App& app);
void addCalibrateCommand(CLI::App& app);
void addBlurCommand(CLI::App& app);
void addFisheyeCommand(CLI::App& app);
void addResolutionCommand(CLI::App& app);
void addSensorCommand(CLI::App& app);
void addNeighbourCommand(CLI::App& app);
void addAutoclipCommand(CLI::App& app);
void addShaderSearchCommands(CLI::App& app);
void addMatchToTargetCommand(CLI::App& app);
void addFindFramesCommand(CLI::App& app);
void addPanoramaCommand(CLI::App& app);
void addDemoCommand(CLI::App& app);

// Writes text beside the file, then renames it over it (the old file stays
// whole until the new one is complete).
void writeTextAtomically(const std::string& path, const std::string& text);

// Refuses (CommandError) an output path that names the input file, so no
// command writes over what it reads.
void refuseOverwritingInput(const std::string& output, const std::string& input, const char* option);

// The camera file and every picture file its modules name: what a command
// that reads the camera must not write over.
std::vector<std::string> cameraInputs(const CameraDescription::Orbivane& camera, const std::string& cameraPath);

// Checks an output file before any work starts: not one of `inputs`, not a
// folder, in a folder that exists and can be written to, and not a file that
// cannot be written over. A CommandError names `option` and the problem.
void checkOutputFile(const std::string& output, const std::vector<std::string>& inputs, const char* option);
// The same for an output folder that may not exist yet (it is made later):
// not a file, and its nearest existing ancestor can be written to.
void checkOutputFolder(const std::string& folder, const char* option);

// A time option's value: ISO-8601 UTC text or milliseconds since the epoch
// (ms since the epoch); anything else is a CommandError naming `option`.
std::int64_t parseTimeOption(const std::string& text, const char* option);

// "1920x600" -> {1920, 600}; anything else is a CommandError.
Utils::Size parsePictureSize(const std::string& text);

}  // namespace Tool

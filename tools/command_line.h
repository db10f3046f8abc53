// Pieces the commands of orbivane-calibrate share.
#pragma once

#include <stdexcept>
#include <string>

#include <CLI/CLI.hpp>

namespace Tool {

// A failure the user must see: printed as one line on standard error, and
// the program exits with status 1.
struct CommandError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

void addCameraCommands(CLI::App& app);
void addBlurCommand(CLI::App& app);
void addFisheyeCommand(CLI::App& app);
void addResolutionCommand(CLI::App& app);
void addSensorCommand(CLI::App& app);
void addNeighbourCommand(CLI::App& app);
void addAutoclipCommand(CLI::App& app);
void addShaderSearchCommands(CLI::App& app);
void addMatchToTargetCommand(CLI::App& app);

}  // namespace Tool

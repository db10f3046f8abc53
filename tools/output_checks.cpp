// The checks made on a command's output paths before any work starts: an
// output is never one of the command's inputs (the camera file, the
// pictures it names), never a folder where a file is meant, and lies in a
// folder that exists and can be written to.
#include <filesystem>

#include <unistd.h>

#include "command_line.h"
#include "orbivane/camera/orbivane.h"

namespace Tool {

void refuseOverwritingInput(const std::string& output, const std::string& input, const char* option) {
  namespace fs = std::filesystem;
  std::error_code ec;
  const bool same = fs::exists(output, ec) && fs::exists(input, ec) && fs::equivalent(output, input, ec);
  if (same || (!ec && fs::weakly_canonical(output, ec) == fs::weakly_canonical(input, ec) && !ec)) {
    throw CommandError(std::string(option) + " " + output + " is one of the command's inputs (" + input +
                       "); write the result elsewhere");
  }
}

void checkOutputFile(const std::string& output, const std::vector<std::string>& inputs, const char* option) {
  namespace fs = std::filesystem;
  if (output.empty()) throw CommandError(std::string(option) + " needs a file name");
  for (const auto& input : inputs) {
    if (!input.empty()) refuseOverwritingInput(output, input, option);
  }
  std::error_code ec;
  if (fs::is_directory(output, ec)) {
    throw CommandError(std::string(option) + " " + output + " is a folder; give a file name");
  }
  const fs::path folder = fs::absolute(output).parent_path();
  if (!fs::is_directory(folder, ec)) {
    throw CommandError(std::string(option) + " " + output + ": the folder " + folder.string() + " does not exist");
  }
  if (::access(folder.c_str(), W_OK) != 0) {
    throw CommandError(std::string(option) + " " + output + ": the folder " + folder.string() + " cannot be written to");
  }
  if (fs::exists(output, ec) && ::access(output.c_str(), W_OK) != 0) {
    throw CommandError(std::string(option) + " " + output + " exists and cannot be written over");
  }
}

void checkOutputFolder(const std::string& folder, const char* option) {
  namespace fs = std::filesystem;
  if (folder.empty()) throw CommandError(std::string(option) + " needs a folder name");
  std::error_code ec;
  if (fs::exists(folder, ec) && !fs::is_directory(folder, ec)) {
    throw CommandError(std::string(option) + " " + folder + " is a file, not a folder");
  }
  fs::path existing = fs::absolute(folder);
  while (!fs::exists(existing, ec) && existing.has_parent_path() && existing != existing.parent_path()) {
    existing = existing.parent_path();
  }
  if (!fs::is_directory(existing, ec) || ::access(existing.c_str(), W_OK) != 0) {
    throw CommandError(std::string(option) + " " + folder + ": " + existing.string() + " cannot be written to");
  }
}

std::vector<std::string> cameraInputs(const CameraDescription::Orbivane& camera, const std::string& cameraPath) {
  std::vector<std::string> inputs{cameraPath};
  for (const auto& module : camera.modules()) {
    if (!module) continue;
    if (!module->imagePath().empty()) inputs.push_back(module->imagePath());
    if (module->image() && !module->image()->sourcePath().empty()) inputs.push_back(module->image()->sourcePath());
  }
  return inputs;
}

}  // namespace Tool

// Atomic text output of the command-line host.
#include <filesystem>
#include <fstream>

#include "command_line.h"

namespace Tool {

int& exitStatus() {
  static int status = 0;
  return status;
}

void writeTextAtomically(const std::string& path, const std::string& text) {
  const std::string temporary = path + ".tmp";
  {
    std::ofstream f(temporary, std::ios::binary | std::ios::trunc);
    f << text;
    if (!f.flush()) throw CommandError("cannot write '" + temporary + "'");
  }
  std::error_code ec;
  std::filesystem::rename(temporary, path, ec);
  if (ec) {
    std::filesystem::remove(temporary, ec);
    throw CommandError("cannot write '" + path + "'");
  }
}

void refuseOverwritingInput(const std::string& output, const std::string& input, const char* option) {
  namespace fs = std::filesystem;
  std::error_code ec;
  const bool same = fs::exists(output, ec) && fs::exists(input, ec) && fs::equivalent(output, input, ec);
  if (same || (!ec && fs::weakly_canonical(output, ec) == fs::weakly_canonical(input, ec) && !ec)) {
    throw CommandError(std::string(option) + " " + output + " is one of the command's inputs (" + input +
                       "); write the result elsewhere");
  }
}

}  // namespace Tool

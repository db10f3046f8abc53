// Atomic text output of the command-line host, and its exit status.
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

}  // namespace Tool

// Atomic text output of the command-line host, and its exit status.

#include "command_line.h"
#include "orbivane/utils/atomic_file.h"

namespace Tool {

int& exitStatus() {
  static int status = 0;
  return status;
}

void writeTextAtomically(const std::string& path, const std::string& text) {
  const auto written = Utils::writeFileAtomically(path, text);
  if (!written) throw CommandError(written.error());
}

}  // namespace Tool

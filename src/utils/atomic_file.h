// Writes a file so that it appears whole or not at all: the bytes go to a
// temporary file beside the target, are flushed to disk, and the temporary is
// renamed over the target. An existing target stays untouched on failure.
#pragma once

#include <string>

#include "orbivane/utils/return_state.h"

namespace Utils {

ReturnState<bool, std::string> writeFileAtomically(const std::string& path, const std::string& bytes);

// Reads a whole file; the error names the file.
ReturnState<std::string, std::string> readWholeFile(const std::string& path);

}  // namespace Utils

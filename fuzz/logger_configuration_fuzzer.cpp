// The logger configuration text: any text gives a list of entries (unknown
// pieces are ignored), and every entry's level maps to a level.
#include <cstdint>
#include <string>

#include "logging/logger_setup.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  for (const auto& entry : Utils::parseLoggerConfiguration(text)) {
    (void)Utils::levelFromText(entry.level);
  }
  return 0;
}

// Recordings indexes: any text loads or is refused with a message.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "orbivane/recordings/recordings_index.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto index = Quarn::parseRecordingsIndex(text, "/nonexistent", "fuzz");
  if (!index && index.error().empty()) std::abort();
  return 0;
}

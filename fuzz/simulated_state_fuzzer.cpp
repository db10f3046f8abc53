// The simulated camera's state file: read or refused with a message; what
// is read is written and read back the same.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "orbivane/simulated/simulated_camera.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto modules = Quarn::SimulatedCamera::fromJson(text);
  if (!modules) {
    if (modules.error().empty()) std::abort();
    return 0;
  }
  const std::string written = Quarn::SimulatedCamera::toJson(modules.value());
  const auto again = Quarn::SimulatedCamera::fromJson(written);
  if (!again || Quarn::SimulatedCamera::toJson(again.value()) != written) std::abort();
  return 0;
}

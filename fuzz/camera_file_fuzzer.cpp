// Camera files: any text loads or is refused with a message, never crashes;
// what loads is written again, and what we wrote loads back and writes the
// same bytes (the round trip the file format promises).
#include <cstdint>
#include <cstdlib>
#include <string>

#include "orbivane/camera/camera_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  CameraDescription::CameraFileOptions options;
  options.loadImages = false;  // picture paths stay names
  const auto camera = CameraDescription::parseCameraJson(text, "/nonexistent", "fuzz", options);
  if (!camera) {
    if (camera.error().empty()) std::abort();
    return 0;
  }
  std::string written;
  try {
    written = CameraDescription::cameraToJson(camera.value(), "/nonexistent");
  } catch (const std::invalid_argument&) {
    return 0;  // what cannot be read back is refused at writing
  }
  const auto again = CameraDescription::parseCameraJson(written, "/nonexistent", "fuzz", options);
  if (!again) std::abort();  // we wrote something we cannot read
  if (CameraDescription::cameraToJson(again.value(), "/nonexistent") != written) std::abort();
  return 0;
}

// Registers the "recordings" backend.
#include "recordings/recordings_backend.h"

namespace Quarn {
namespace {

const bool registered = [] {
  registerCameraBackend("recordings", [] { return std::unique_ptr<CameraBackend>(new RecordingsBackend()); });
  return true;
}();

}  // namespace
}  // namespace Quarn

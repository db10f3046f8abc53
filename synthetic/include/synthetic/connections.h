// Module connections as tests, benchmarks and the demo make them: to the
// simulated camera (sensor windows over rendered scenes) or to a recordings
// index played back.
#pragma once

#include <string>

#include "orbivane/camera/quarn_connection.h"

namespace Synthetic {

// `address`: the simulated camera's state file, or "memory:NAME" for one
// that lives in this process; `device`: the module's id on it.
inline Quarn::QuarnConnection simulatedConnection(const std::string& address, const std::string& device) {
  Quarn::QuarnConnection c;
  c.backend = "simulated";
  c.address = address;
  c.device = device;
  return c;
}

// `index`: the path of a recordings index; `device`: the module's id in it.
inline Quarn::QuarnConnection recordingsConnection(const std::string& index, const std::string& device) {
  Quarn::QuarnConnection c;
  c.backend = "recordings";
  c.address = index;
  c.device = device;
  return c;
}

}  // namespace Synthetic

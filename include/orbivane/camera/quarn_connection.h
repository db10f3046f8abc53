// What the session library needs to reach the recording system that serves a
// module. The library only stores it per module and hands it to the session.
//   backend  "quarn" for a real recording system, "recordings" for a
//            recordings index played back, "simulated" for our simulated
//            camera (a test double of a device with sensor windows)
//   address  host name of the recording system; the recordings index's path;
//            or the simulated camera's state file ("memory:NAME" in memory)
//   port     TCP port, 0 for the backend's default
//   user, password  credentials, may be empty
//   device   the module's sensor on that system (camera or channel id)
#pragma once

#include <cstdint>
#include <string>

namespace Quarn {

struct QuarnConnection {
  std::string backend = "quarn";
  std::string address;
  std::uint16_t port = 0;
  std::string user;
  std::string password;
  std::string device;

  friend bool operator==(const QuarnConnection& a, const QuarnConnection& b) {
    return a.backend == b.backend && a.address == b.address && a.port == b.port && a.user == b.user &&
           a.password == b.password && a.device == b.device;
  }
};

}  // namespace Quarn

namespace CameraDescription {
using QuarnConnection = Quarn::QuarnConnection;
}  // namespace CameraDescription

// Opening a session to a module's recording system, shared by the sensor
// calibrators.
#pragma once

#include <memory>
#include <string>

#include "orbivane/camera/orbivane_module.h"
#include "orbivane/session/quarn_session.h"
#include "orbivane/utils/return_state.h"

namespace SensorCalibration {

// A fresh session connected with the module's connection (the player manager
// passed as null); the session library's error when it fails. The module
// must have connection information.
inline Utils::ReturnState<std::shared_ptr<Quarn::QuarnSession>, std::string> connectModule(
    const CameraDescription::OrbivaneModule& module) {
  if (!module.connection()) return Utils::failure("the module has no connection information");
  auto session = std::make_shared<Quarn::QuarnSession>();
  const Quarn::QuarnConnection connection = *module.connection();
  auto connected = session->Connect(connection, nullptr);
  if (!connected) return Utils::failure(connected.error());
  return session;
}

}  // namespace SensorCalibration

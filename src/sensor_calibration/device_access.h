// Opening a session to a module's recording system, and taking a module over
// from a new camera description: what the sensor calibrators share.
#pragma once

#include <memory>
#include <string>

#include <spdlog/logger.h>

#include "orbivane/camera/orbivane.h"
#include "orbivane/camera/orbivane_module.h"
#include "orbivane/session/quarn_session.h"
#include "orbivane/utils/return_state.h"
#include "orbivane/utils/wide_text.h"

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

// A calibrator's updateOrbivane: `module` becomes the module of the same name
// in `camera`; a module the new camera does not have is kept as it was, and
// the logger says so.
inline void takeModuleFrom(const CameraDescription::Orbivane& camera, CameraDescription::OrbivaneModule& module,
                           spdlog::logger& logger) {
  const auto found = camera.findModule(module.name());
  if (!found) {
    logger.warn("Module {} is not in the new camera description; keeping the module as it was",
                Utils::toUtf8(module.name()));
    return;
  }
  module = *found;
}

}  // namespace SensorCalibration

// The device side behind a Quarn::QuarnSession. A backend reaches one module's
// sensor on some recording system; sessions pick the backend by the
// connection's `backend` name through a process-wide registry, so that a
// vendor backend can be plugged in beside the library's own: "recordings"
// (recorded video played from a recordings index, the production path of
// frame finding) and "simulated" (the simulated camera, a test double of a
// device).
//
// Backend operations run on a session's worker thread and may block; they
// return errors as English text and never throw.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/core/mat.hpp>

#include "orbivane/camera/quarn_connection.h"
#include "orbivane/export.h"
#include "orbivane/session/quarn_records.h"
#include "orbivane/utils/return_state.h"

namespace Quarn {

class ORBIVANE_EXPORT CameraBackend {
 public:
  virtual ~CameraBackend();

  // Opens the connection to the module named by `connection.device`.
  virtual Utils::ReturnState<bool, std::string> connect(const QuarnConnection& connection) = 0;
  // The sensor window and its limits (sensor pixels).
  virtual Utils::ReturnState<CamerasensorInfoData, std::string> readSensorWindow() = 0;
  // Moves the sensor window to (x, y); the device checks limits and steps.
  virtual Utils::ReturnState<EmptyReturn, std::string> writeSensorWindow(int x, int y) = 0;
  // One picture of the module as it sees it now (BGR, 8 bits).
  virtual Utils::ReturnState<cv::Mat, std::string> capture() = 0;
  // Recordings of the device; backends without recordings say so.
  virtual Utils::ReturnState<std::vector<SearchInfo>, std::string> search(const SearchCriteria& criteria);
  // Shows a recorded track in the viewing client.
  virtual Utils::ReturnState<EmptyReturn, std::string> showTrack(const SearchInfo& track);

  // The backend's name, as used in connections.
  virtual std::string name() const = 0;
};

using CameraBackendFactory = std::function<std::unique_ptr<CameraBackend>()>;

// Registers (or replaces) the factory of a backend name.
ORBIVANE_EXPORT void registerCameraBackend(const std::string& name, CameraBackendFactory factory);
// A new backend of that name; the error names the known backends.
ORBIVANE_EXPORT Utils::ReturnState<std::shared_ptr<CameraBackend>, std::string> createCameraBackend(
    const std::string& name);
// The names registered, in order.
ORBIVANE_EXPORT std::vector<std::string> cameraBackendNames();

}  // namespace Quarn

// Sensor shift: each module reads out a window of a larger image sensor, and
// the window's position (the sensor shift) can be moved through the recording
// system's session library. SensorShifter reads and writes that window, keeps
// the last window decided for each module in a process-wide store, and
// carries the process-wide switch for the virtual sensor shift, in which the
// displayed picture follows the window through the module's matrix.
//
// Positions, limits and steps are sensor pixels. The store and the switches
// carry no lock: use them from one thread.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "orbivane/camera/orbivane_module.h"
#include "orbivane/export.h"
#include "orbivane/utils/surface_quad.h"

namespace SensorCalibration {

class ORBIVANE_EXPORT SensorShifter {
 public:
  // One module's sensor window with its limits and steps (sensor pixels).
  struct SensorInfo {
    std::wstring moduleName;
    std::int32_t x = 0;  // current horizontal position
    std::int32_t xMax = 0;
    std::int32_t xMin = 0;
    std::int32_t xStep = 0;  // a written x is a multiple of it
    std::int32_t y = 0;
    std::int32_t yMax = 0;
    std::int32_t yMin = 0;
    std::int32_t yStep = 0;
    bool virtualShift = false;  // limits were widened/narrowed for the virtual shift
    std::int32_t deviceXMax = 0;  // limits as the device reported them
    std::int32_t deviceXMin = 0;
    std::int32_t deviceYMax = 0;
    std::int32_t deviceYMin = 0;
  };

  // Reads with the process-wide virtual-shift switch and buffer.
  static bool readSensorShift(std::shared_ptr<CameraDescription::OrbivaneModule> module, SensorInfo& info);
  // Reads the module's window from the device into `info`; false on every
  // failure (no connection info, connect failed, sensor info empty or failed).
  // With `virtualShift` the limits are adjusted by the room the picture
  // offers (see getUnclippedRect and the notes in the source), keeping
  // `buffer` (0..1) of that room unused.
  static bool readSensorShift(std::shared_ptr<CameraDescription::OrbivaneModule> module, SensorInfo& info,
                              const bool& virtualShift, const float& buffer);
  // Sends info.x, info.y, clamped to the device's own limits and rounded
  // toward zero to its steps. A refused write is reported on standard error
  // only. For a virtual shift the module's matrix then follows the window.
  // A successful write is kept in the store.
  static void writeSensorShift(std::shared_ptr<CameraDescription::OrbivaneModule> module, const SensorInfo& info);

  // Switches the virtual shift; the buffer is taken only when switching on.
  static void enableVirtualSensorShift(const bool& enable, const float& buffer);
  static bool virtualSensorShiftEnabled() { return enableVirtualSensorShift_; }
  static float virtualSensorShiftBuffer() { return virtualSensorShiftBuffer_; }

  // The store: the entry of the name, inserting a default one when missing.
  static SensorInfo lastChangedSensorInfo(const std::wstring& moduleName);
  static void updatelastChangedSensorInfo(const SensorInfo& info, const std::wstring& moduleName);

  // The module's unclipped picture area for the window `info`, in the texture
  // coordinates of the module's current picture (the unit square is the
  // picture as it is now; the module's matrix takes these coordinates onto
  // the surface). The current picture is taken to show the window last
  // written for the module (its store entry) or, before any write, the window
  // in the middle of the device range; one sensor pixel is one pixel of the
  // module's picture. So a window moved by (dx, dy) sensor pixels is the unit
  // square moved by (dx / width, dy / height). Corners: top-left, top-right,
  // bottom-right, bottom-left. A module without a picture gets the unit
  // square.
  static Utils::SurfaceQuad getUnclippedRect(std::shared_ptr<CameraDescription::OrbivaneModule> module,
                                             const SensorInfo& info);

 private:
  static std::map<std::wstring, SensorInfo> staticSensorInfo_;
  static bool enableVirtualSensorShift_;
  static float virtualSensorShiftBuffer_;
};

}  // namespace SensorCalibration

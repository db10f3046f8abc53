// Sensor shift: each module reads out a window of a larger image sensor, and
// the window's position (the sensor shift) can be moved through the recording
// system's session library. SensorShifter reads and writes that window, keeps
// the last window decided for each module in a process-wide store, and
// carries the process-wide switch for the virtual sensor shift, in which the
// displayed picture follows the window through the module's matrix.
//
// On top of that access it carries the sensor-shift calibration: moving a
// module's window by a displacement given on the panorama surface
// (cvtToPixelSensorShift turns it into sensor pixels through the module's
// final matrix and picture size), and the overlap calibration, which measures
// on two neighbouring modules' current pictures how many columns they share
// and moves their windows until that overlap is the wanted one (overlapImg
// shows the overlap for inspection).
//
// Positions, limits and steps are sensor pixels; one sensor pixel is one
// pixel of the module's picture. The store and the switches carry no lock:
// use them from one thread.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "orbivane/camera/orbivane_module.h"
#include "orbivane/export.h"
#include "orbivane/image/universal_image_interface.h"
#include "orbivane/utils/return_state.h"
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
  // only. For a virtual shift the module's matrix then follows the window,
  // refused or not. The store keeps the window the picture now shows: a
  // successful write, and a refused one of a virtual shift (so a retry at the
  // same position moves the picture no further).
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
  // written for the module (its store entry) or, without one, the window the
  // device was at when this process first read or wrote it (a picture loaded
  // with its camera shows the window the device is at); only a module never
  // read is taken to show the middle of the device range. One sensor pixel
  // is one pixel of the module's picture. So a window moved by (dx, dy)
  // sensor pixels is the unit square moved by (dx / width, dy / height).
  // Corners: top-left, top-right, bottom-right, bottom-left. A module without
  // a picture gets the unit square.
  static Utils::SurfaceQuad getUnclippedRect(std::shared_ptr<CameraDescription::OrbivaneModule> module,
                                             const SensorInfo& info);

  // A window move in sensor pixels, not yet rounded to the steps; positive x
  // moves the window right (the scene then moves left in the picture).
  struct PixelShift {
    double x = 0.0;
    double y = 0.0;
  };

  // The window move that moves the module's view by (surfaceDx, surfaceDy)
  // normalised surface units (the part of the scene the module shows slides
  // by that much across the surface, in the window's direction). Taken
  // through the local scale of the module's final matrix at the middle of
  // its picture. Fails without a matrix geometry, a picture, or for a matrix
  // that is singular there, and for values that are not finite.
  static Utils::ReturnState<PixelShift, std::string> cvtToPixelSensorShift(
      std::shared_ptr<CameraDescription::OrbivaneModule> module, double surfaceDx, double surfaceDy);

  // Moves the module's window by a surface displacement (cvtToPixelSensorShift):
  // reads the window, adds the move rounded to the nearest step, clamps to
  // the device's limits, writes it (writeSensorShift), checks that the device
  // took it and keeps it in the store (updateSettings). Returns the window
  // now set; the device's error or a refused write as failure, the window
  // then unchanged.
  static Utils::ReturnState<SensorInfo, std::string> sensorshiftCalibration(
      std::shared_ptr<CameraDescription::OrbivaneModule> module, double surfaceDx, double surfaceDy);

  // Reads the module's window from the device (device limits, no virtual
  // narrowing) and keeps it in the store as the module's window; false when
  // it cannot be read. For windows moved by other means (fisheye centring).
  static bool updateSettings(std::shared_ptr<CameraDescription::OrbivaneModule> module);

  // How the pictures of two neighbouring modules overlap: the right
  // picture's pixel (0, 0) shows what the left picture shows at (x, y).
  struct OverlapMeasurement {
    double overlap = 0.0;  // columns of the left picture that the right one repeats: left width - x (pixels)
    double x = 0.0;        // pixels of the left picture
    double y = 0.0;        // vertical offset, pixels of the left picture
    double score = 0.0;    // normalised correlation of the match, -1..1
  };

  // Measures it: the right picture's left strip is searched for in the right
  // `searchShare` (0..1) of the left picture, gain and offset free, to a
  // tenth of a pixel or so. Fails for missing or unreadable pictures, a strip
  // without structure, or a best match scoring below `minScore`.
  static Utils::ReturnState<OverlapMeasurement, std::string> measureOverlap(
      std::shared_ptr<Image::UniversalImageInterface> left, std::shared_ptr<Image::UniversalImageInterface> right,
      double searchShare = 0.5, double minScore = 0.8);

  struct OverlapOptions {
    // The overlap to reach in pixels of the left picture; negative: the
    // linkage's overlap share (left module's, else right module's) of the
    // left picture's width.
    double wantedPixels = -1.0;
    int maxIterations = 3;  // window moves at most; each is checked on fresh pictures
    double searchShare = 0.5;
    double minScore = 0.8;
  };

  struct OverlapResult {
    std::wstring left;
    std::wstring right;
    double wanted = 0.0;            // pixels of the left picture
    OverlapMeasurement before;      // on the pictures before any move
    OverlapMeasurement after;       // on the pictures after the last move
    SensorInfo leftWindow;          // the windows now set
    SensorInfo rightWindow;
    int moves = 0;                  // window moves made
    bool reached = false;           // |after.overlap - wanted| is at most one window step
  };

  // Balances the overlap of two neighbouring modules (left's right edge
  // against right's left edge): captures both pictures through the session
  // library, measures the overlap, and moves the right module's window by
  // the surplus (more overlap: the window moves right), taken from the left
  // picture's pixels onto the surface and into the right module's sensor
  // pixels through their final matrices (1:1 when a module has no matrix
  // geometry). What the right window's limits do not allow moves the left
  // window the other way. Repeats on fresh pictures until the overlap is
  // within half a step or `maxIterations` moves are made. Both modules'
  // pictures are then their last captures and their windows are in the
  // store. Fails (windows left as the last good move set them) for a missing
  // connection, a device error, a refused write, or pictures that do not
  // overlap.
  static Utils::ReturnState<OverlapResult, std::string> overlapCalibration(
      std::shared_ptr<CameraDescription::OrbivaneModule> left, std::shared_ptr<CameraDescription::OrbivaneModule> right,
      const OverlapOptions& options);

  // The overlap of the two modules' current pictures for inspection: on top
  // the left picture's right strip and the right picture's left strip side
  // by side (a line marks where the other picture begins or ends); below,
  // the overlap with the right picture laid onto the left one (left in red,
  // right in cyan: aligned content is grey, a misfit shows coloured
  // fringes); the measured overlap (and `wantedPixels` when not negative)
  // written in. Null when the pictures are missing or do not overlap.
  static std::shared_ptr<Image::UniversalImageInterface> overlapImg(
      std::shared_ptr<CameraDescription::OrbivaneModule> left, std::shared_ptr<CameraDescription::OrbivaneModule> right,
      double wantedPixels = -1.0);

 private:
  static std::map<std::wstring, SensorInfo> staticSensorInfo_;
  static bool enableVirtualSensorShift_;
  static float virtualSensorShiftBuffer_;
};

}  // namespace SensorCalibration

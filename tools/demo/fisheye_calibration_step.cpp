// The fisheye step: lens circles centred by moving the simulated camera's
// sensor windows, the centre found against where the window put it.
#include "demo_steps.h"

#include <cmath>

#include <opencv2/imgproc.hpp>

#include "command_line.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/sensor_calibration/fisheye_calibration.h"
#include "orbivane/simulated/simulated_camera.h"
#include "orbivane/utils/wide_text.h"
#include "progress.h"

namespace Tool {
namespace Demo {

Section runFisheyeCentring(const StepContext& c) {
  const std::string address = "memory:orbivane-demo-fisheye";
  auto opened = Quarn::SimulatedCamera::open(address);
  if (!opened) throw CommandError(opened.error());
  auto simulated = opened.value();
  Quarn::SimulatedModule m;
  m.id = "fisheye";
  m.scene.kind = "fisheye";
  const double scale = c.quick ? 0.5 : 1.0;
  m.scene.width = int(1600 * scale);
  m.scene.height = int(1200 * scale);
  m.scene.centreX = m.scene.width / 2.0 + 57.4 * scale;
  m.scene.centreY = m.scene.height / 2.0 - 38.2 * scale;
  m.scene.radius = 400 * scale;
  auto added = simulated->addModule(m);
  if (!added) throw CommandError(added.error());
  const cv::Size frame(m.scene.width, m.scene.height);

  CameraDescription::OrbivaneModule module(L"fisheye");
  module.setFisheye(true);
  module.setConnection(Synthetic::simulatedConnection(address, m.id));

  Progress progress("fisheye centring");
  progress.update(1, 3, "finding the lens circle");
  const Stopwatch watch;
  auto before = simulated->capture(m.id);
  if (!before) throw CommandError(before.error());
  const Quarn::SimulatedModule startState = simulated->module(m.id).value();
  SensorCalibration::FisheyeCalibration calibration(module, 97);
  const auto first = calibration.calculateCalibration(Image::fromMat(before.value()));
  if (first.radius < 0) throw CommandError("fisheye centring found no lens circle");
  progress.update(2, 3, "moving the sensor window");
  const auto applied = calibration.apply(0, 0);
  if (!applied) throw CommandError("fisheye centring could not move the window: " + applied.error());
  progress.update(3, 3, "checking");
  auto after = simulated->capture(m.id);
  if (!after) throw CommandError(after.error());
  const auto second = calibration.calculateCalibration(Image::fromMat(after.value()));
  Section section;
  section.seconds = watch.seconds();
  progress.finish();
  const Quarn::SimulatedModule endState = simulated->module(m.id).value();

  writePicture(Image::toMat(*first.image), c.dir + "/fisheye-before.png");
  if (second.image) writePicture(Image::toMat(*second.image), c.dir + "/fisheye-after.png");
  // Where the circle truly is in each window, and where the window's middle is.
  const cv::Point2d centre(m.scene.centreX, m.scene.centreY);
  const cv::Point2d truthBefore = centre - cv::Point2d(windowCorner(startState, frame));
  const cv::Point2d truthAfter = centre - cv::Point2d(windowCorner(endState, frame));
  const cv::Point2d middle(endState.window.width / 2, endState.window.height / 2);
  const cv::Point2d residual = truthAfter - middle;

  section.id = "fisheye";
  section.title = "Fisheye centring";
  section.what = "A simulated fisheye module whose lens circle sits off the middle of its sensor window. The "
                 "calibrator finds the circle, moves the sensor window through the session library, and the module "
                 "is captured again (closed loop).";
  section.table.push_back({"", "Found (px)", "True (px)", "Window position"});
  section.table.push_back({"before", number(first.x, 2) + ", " + number(first.y, 2),
                           number(truthBefore.x, 2) + ", " + number(truthBefore.y, 2),
                           std::to_string(startState.window.x) + ", " + std::to_string(startState.window.y)});
  section.table.push_back({"after", number(second.x, 2) + ", " + number(second.y, 2),
                           number(truthAfter.x, 2) + ", " + number(truthAfter.y, 2),
                           std::to_string(endState.window.x) + ", " + std::to_string(endState.window.y)});
  section.table.push_back({"window middle", "", number(middle.x, 1) + ", " + number(middle.y, 1), ""});
  section.table.push_back({"radius", number(second.radius, 2), number(m.scene.radius, 2), ""});
  section.figures.push_back({"fisheye-before.png", "Before: the circle found in the first capture"});
  section.figures.push_back({"fisheye-after.png", "After moving the window: the circle found again"});
  section.passed = std::fabs(residual.x) <= kFisheyeTolerancePx && std::fabs(residual.y) <= kFisheyeTolerancePx;
  section.result = "window moved by " + std::to_string(endState.window.x - startState.window.x) + ", " +
                   std::to_string(endState.window.y - startState.window.y) + " px";
  section.truthError = "circle " + number(std::hypot(residual.x, residual.y), 2) + " px from the middle";
  return section;
}

}  // namespace Demo
}  // namespace Tool

// The resolution step: the three-mark target seen by simulated modules at
// known distances, the measured resolution against the truth.
#include "demo_steps.h"

#include <cmath>

#include <opencv2/imgproc.hpp>

#include "command_line.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/sensor_calibration/resolution_calibration.h"
#include "orbivane/simulated/simulated_camera.h"
#include "orbivane/utils/wide_text.h"
#include "progress.h"

namespace Tool {
namespace Demo {

Section runResolution(const StepContext& c) {
  const std::string address = "memory:orbivane-demo-target";
  auto opened = Quarn::SimulatedCamera::open(address);
  if (!opened) throw CommandError(opened.error());
  auto simulated = opened.value();
  const double scale = c.quick ? 0.5 : 1.0;
  Quarn::SimulatedModule m;
  m.id = "target";
  m.scene.kind = "target";
  m.scene.width = int(1600 * scale);
  m.scene.height = int(1200 * scale);
  m.scene.cornerX = 320 * scale;
  m.scene.cornerY = 260 * scale;
  m.scene.spacingX = 900 * scale;
  m.scene.spacingY = 600 * scale;
  m.scene.markRadius = 28 * scale;
  auto added = simulated->addModule(m);
  if (!added) throw CommandError(added.error());
  // The target's sides: 0.9 m by 0.6 m, so the truth is 1 mm (quick: 2 mm) per pixel.
  const double realX = 0.9, realY = 0.6;
  const double truthMm = realX * 1000.0 / m.scene.spacingX;

  CameraDescription::OrbivaneModule module(L"target");
  module.setConnection(Synthetic::simulatedConnection(address, m.id));
  Progress progress("resolution");
  progress.update(1, 1, "measuring the three-circle target");
  const Stopwatch watch;
  auto picture = simulated->capture(m.id);
  if (!picture) throw CommandError(picture.error());
  SensorCalibration::ResolutionCalibration calibration(module, float(realX), float(realY),
                                                       int(200 * scale * scale));
  const auto annotated = calibration.calculateCalibration(Image::fromMat(picture.value()));
  Section section;
  section.seconds = watch.seconds();
  progress.finish();
  if (annotated) writePicture(Image::toMat(*annotated), c.dir + "/resolution.png");

  const double mmX = calibration.metresPerPixelX() * 1000.0, mmY = calibration.metresPerPixelY() * 1000.0;
  const double worst = std::max(std::fabs(mmX - truthMm), std::fabs(mmY - truthMm)) / truthMm;
  section.id = "resolution";
  section.title = "Resolution";
  section.what = "A simulated module looks at a target of three round marks at the corners of a right angle, 0.9 m "
                 "by 0.6 m. The calibrator finds the marks, measures the two sides in pixels and divides.";
  section.table.push_back({"", "Measured", "True"});
  section.table.push_back({"marks found", std::to_string(calibration.circleCount()), "3"});
  section.table.push_back({"horizontal side (px)", std::to_string(calibration.horizontalSpacing()),
                           number(m.scene.spacingX, 0)});
  section.table.push_back({"vertical side (px)", std::to_string(calibration.verticalSpacing()),
                           number(m.scene.spacingY, 0)});
  section.table.push_back({"mm per pixel, x", number(mmX, 4), number(truthMm, 4)});
  section.table.push_back({"mm per pixel, y", number(mmY, 4), number(truthMm, 4)});
  if (annotated) section.figures.push_back({"resolution.png", "The marks found and the measurement"});
  section.passed = calibration.circleCount() == 3 && worst <= kResolutionTolerance;
  section.result = number(1000.0 / mmX, 1) + " px/m";
  section.truthError = number(worst * 100.0, 2) + " % off";
  return section;
}

}  // namespace Demo
}  // namespace Tool

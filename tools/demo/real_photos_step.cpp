// The real-photographs step: five neighbouring photographs of a hand-held
// wide-angle camera (data/durlach), calibrated as a user's first calibration
// runs it (camera init's rig estimate, then calibrate's neighbour and clip
// steps), with no truth to compare with. The seams are measured twice: as
// the pipeline reports them, and independently (each photograph drawn alone
// on the panorama, SIFT matches between every two drawings), beside the same
// independent measurement of OpenCV's detail pipeline on the same photographs.
#include "demo_steps.h"

#include <algorithm>
#include <iostream>

#include "command_line.h"
#include "orbivane/camera/camera_file.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry_calibration/calibration_pipeline.h"
#include "orbivane/geometry_calibration/rig_estimator.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/rendering/panorama_renderer.h"
#include "orbivane/utils/wide_text.h"
#include "progress.h"
#include "synthetic/peer_stitchers.h"
#include "synthetic/sample_data.h"

namespace Tool {
namespace Demo {
namespace {

const std::vector<std::string> kPhotographs = {"P1060382", "P1060383", "P1060384", "P1060385", "P1060386"};

void writeRealPanorama(const CameraDescription::Orbivane& camera, bool grid, const std::string& path) {
  OrbivaneRendering::PanoramaOptions o;
  o.overlay = grid;
  auto panorama = OrbivaneRendering::renderPanorama(camera, o);
  if (!panorama) throw CommandError(panorama.error());
  writePicture(panorama.value().picture, path);
}

std::string seamText(const Synthetic::LayerSeams& s) {
  return number(s.medianPx, 2) + " / " + number(s.p90Px, 2) + " / " + number(s.worstPairMedianPx, 2) + " px";
}

}  // namespace

Section runRealPhotographs(const StepContext& context) {
  Section section;
  section.id = "real";
  section.title = "Real photographs";
  section.what =
      "Five neighbouring photographs of a hand-held wide-angle camera turning on the spot (data/durlach, " +
      kPhotographs.front() + " to " + kPhotographs.back() +
      ", 1280x960, barrel distortion, automatic exposure) calibrated as camera init and calibrate do it without "
      "options: the rig estimated from the pictures, then neighbour stitching and clipping. There is no truth; the "
      "seams are measured independently of the pipeline (each photograph drawn alone on the panorama, SIFT matches "
      "between every two drawings, distances in photograph pixels), and OpenCV's detail pipeline is measured the "
      "same way on the same photographs.";

  std::vector<cv::Mat> photos;
  CameraDescription::Orbivane camera;
  try {
    for (const auto& name : kPhotographs) {
      photos.push_back(Synthetic::loadRealPhoto(name + ".jpg"));
      CameraDescription::OrbivaneModule module(Utils::fromUtf8(name));
      module.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>());
      module.setImage(Image::fromMat(photos.back()));
      module.setImagePath(Synthetic::realPhotoPath(name + ".jpg"));
      camera.addModule(module);
    }
  } catch (const std::exception& e) {
    throw CommandError(e.what());
  }

  const Stopwatch watch;
  GeometryCalibration::RigEstimator rig(camera, {});
  Progress rigProgress("rig estimate (real photographs)");
  rig.registerStatusCallback(rigProgress.callback());
  auto estimated = rig.estimate();
  rigProgress.finish();
  if (!estimated) throw CommandError("the real photographs: " + estimated.error());
  GeometryCalibration::CalibrationPipeline::Images images;
  for (const auto& module : estimated.value().modules()) images[module->name()] = module->image();
  GeometryCalibration::CalibrationPipeline pipeline(estimated.value(), images);
  GeometryCalibration::PipelineOptions options;
  options.steps = {"neighbour", "clip"};
  Progress pipelineProgress("calibration pipeline (real photographs)");
  pipeline.registerStatusCallback(pipelineProgress.callback());
  const CameraDescription::Orbivane calibrated = pipeline.run(options);
  pipelineProgress.finish();
  section.seconds = watch.seconds();

  std::cout << "Measuring the seams independently, and OpenCV's detail pipeline on the same photographs ..."
            << std::endl;
  int failed = 0;
  for (const auto& [name, m] : rig.report().modules) failed += m.placed ? 0 : 1;
  for (const auto& [name, v] : pipeline.verdicts()) failed += v.status == GeometryCalibration::ModuleStatus::failed;
  const auto& steps = pipeline.steps();
  const CameraDescription::Orbivane& unclipped = steps.front().camera;
  const Synthetic::PeerResult drawn = Synthetic::cameraLayers(unclipped, kPhotographs, steps.back().clipping);
  const Synthetic::LayerSeams ours = Synthetic::measureLayerSeams(drawn.layers, photos, kPhotographs);
  const double kept = Synthetic::keptShare(drawn.layers, drawn.panorama, drawn.crop);
  const GeometryCalibration::SeamSummary reported = GeometryCalibration::summariseSeams(steps.back().seams);
  const Synthetic::PeerResult opencv = Synthetic::openCvDetailStitch(photos);
  const Synthetic::LayerSeams theirs =
      opencv.ok ? Synthetic::measureLayerSeams(opencv.layers, photos, kPhotographs) : Synthetic::LayerSeams();

  section.table = {{"", "seams median / 90 % / worst pair", "exposure (worst overlap)", "kept by the clip", "time"},
                   {"ours, as the pipeline reports", number(reported.medianPx, 2) + " / " + number(reported.p90Px, 2) +
                                                         " / " + number(reported.worstPx, 2) + " px",
                    number(reported.worstExposureEv, 3) + " EV", "", ""},
                   {"ours, measured independently", seamText(ours), number(ours.worstExposureEv, 3) + " EV",
                    number(100 * kept, 0) + " %", number(section.seconds, 2) + " s"},
                   {"OpenCV's detail pipeline", opencv.ok ? seamText(theirs) : "failed: " + opencv.error,
                    opencv.ok ? number(theirs.worstExposureEv, 3) + " EV" : "", "",
                    number(opencv.seconds, 2) + " s"}};
  for (const auto& line : ours.lines) section.table.push_back({"  " + line, "", "", "", ""});
  section.result = "seams " + number(ours.medianPx, 2) + " px median, " + number(ours.p90Px, 2) + " px 90 % (" +
                   std::to_string(failed) + " modules failed)";
  section.truthError = "OpenCV: " + (opencv.ok ? number(theirs.medianPx, 2) + " px median" : std::string("failed"));
  section.passed = failed == 0 && ours.medianPx <= 1.0 && ours.p90Px <= 3.0;

  auto saved = CameraDescription::saveCameraFile(calibrated, context.dir + "/camera-real.json");
  if (!saved) throw CommandError(saved.error());
  writeRealPanorama(calibrated, false, context.dir + "/panorama-real.png");
  writeRealPanorama(unclipped, true, context.dir + "/panorama-real-grid.png");
  section.figures = {{"panorama-real.png", "The real photographs calibrated and clipped, as a viewer draws them"},
                     {"panorama-real-grid.png", "Before the clip, with module outlines, names and seams"}};
  return section;
}

}  // namespace Demo
}  // namespace Tool

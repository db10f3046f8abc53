// The whole calibration of real photographs (a hand-held wide-angle camera
// turning on the spot, data/durlach) beside the tools people stitch such
// photographs with: ours (camera init's rig estimate, then calibrate's
// neighbour and clip steps, in this process), OpenCV's detail pipeline and,
// where installed, Hugin's command-line chain, each on the same photographs.
// All three are measured the same way (synthetic/peer_stitchers.h): each
// photograph drawn alone on the tool's panorama, SIFT matches between every
// two overlapping drawings, the distances in photograph pixels.
//
// Prints per set of photographs a table (seam median and 90th percentile
// over all matches, worst pair, worst exposure difference, share of the
// pictures' panorama the crop keeps, time) and judges ours:
//   no module failed; seam median <= 1.0 px, 90th percentile <= 3.0 px;
//   exposure difference in the overlaps <= 0.06 EV; the clip keeps >= 85 %
//   with no holes; init and calibrate take at most OpenCV's time (ratio of
//   the two, measured in this process).
// A set marked ground-facing (the lower ring: near cobblestones and bollards
// at the bottom of the pictures) is measured without the lowest third of
// each overlap, where near objects show parallax no stitcher can remove;
// the output says so.
//
// Synthetic rigs with known truth (synthetic/sphere_rig.h: five turned
// wide-angle modules with their own focal length, lens distortion and
// exposure photographing a real equirectangular panorama) are run the same
// way, and ours is also measured against the truth: how far apart two
// modules draw the same world point (Hugin is not run on them: the pictures
// carry no lens data for it). A synthetic rig with parallax (lenses 8 cm
// ahead of the turning point, the ground 1.5 m below) has no such truth on
// the ground, where the modules see one point from different places: it is
// judged by the independent seams alone.
//
// Usage: rig_calibration_benchmark [--check] [--smoke] [--no-hugin] [SET...]
// where a SET is photograph numbers joined by commas, e.g. 84,85,86,78,79
// (P10603NN.jpg), optionally ending in "+ground", or sphere:PITCH:SEED for
// a synthetic ring turned up by PITCH degrees (sphere:PITCH:SEED:parallax
// with parallax). Default: three sets of the upper and lower rings and three
// synthetic rings, one of them with parallax. --smoke runs ours and
// OpenCV on one set, without Hugin, and judges the correctness goals only.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "bench_support.h"
#include "orbivane/geometry_calibration/calibration_pipeline.h"
#include "orbivane/geometry_calibration/rig_estimator.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/rendering/module_drawing.h"
#include "orbivane/utils/wide_text.h"
#include "synthetic/peer_stitchers.h"
#include "synthetic/sample_data.h"
#include "synthetic/sphere_rig.h"

namespace {

struct PhotoSet {
  std::vector<std::string> names;  // "P1060384"
  bool groundFacing = false;
  bool synthetic = false;          // a sphere rig: `pitch` (degrees) and `seed`
  double pitch = 0.0;
  unsigned seed = 1;
  bool parallax = false;           // lenses ahead of the turning point, ground below
};

PhotoSet parseSet(const std::string& text) {
  PhotoSet set;
  if (text.rfind("sphere:", 0) == 0) {
    set.synthetic = true;
    const std::size_t colon = text.find(':', 7);
    set.pitch = std::atof(text.substr(7, colon - 7).c_str());
    if (colon != std::string::npos) set.seed = unsigned(std::atoi(text.substr(colon + 1).c_str()));
    const std::string parallax = ":parallax";
    set.parallax = text.size() > parallax.size() &&
                   text.compare(text.size() - parallax.size(), parallax.size(), parallax) == 0;
    return set;
  }
  std::string body = text;
  const std::string ground = "+ground";
  if (body.size() > ground.size() && body.compare(body.size() - ground.size(), ground.size(), ground) == 0) {
    set.groundFacing = true;
    body.resize(body.size() - ground.size());
  }
  std::size_t from = 0;
  while (from <= body.size()) {
    const std::size_t comma = body.find(',', from);
    const std::string number = body.substr(from, comma == std::string::npos ? std::string::npos : comma - from);
    if (!number.empty()) set.names.push_back("P10603" + number);
    if (comma == std::string::npos) break;
    from = comma + 1;
  }
  return set;
}

// The lowest third of the panorama rows each layer draws, masked out
// (a ground-facing set's near objects).
void leaveOutLowestThird(std::vector<Synthetic::PeerLayer>& layers) {
  for (auto& layer : layers) {
    if (layer.mask.empty()) continue;
    const cv::Rect rows = cv::boundingRect(layer.mask);
    const int cut = rows.y + rows.height - rows.height / 3;
    if (cut < layer.mask.rows) layer.mask.rowRange(cut, layer.mask.rows).setTo(0);
  }
}

struct Ours {
  bool ok = false;
  std::string error;
  int failed = 0;
  double seconds = 0.0;
  std::vector<Synthetic::PeerLayer> layers;
  cv::Size panorama;
  cv::Rect crop;
  CameraDescription::Orbivane camera;  // as calibrated
};

Ours runOurs(const PhotoSet& set, const std::vector<cv::Mat>& photos) {
  Ours out;
  const auto started = std::chrono::steady_clock::now();
  CameraDescription::Orbivane camera;
  for (std::size_t i = 0; i < set.names.size(); ++i) {
    CameraDescription::OrbivaneModule module(Utils::fromUtf8(set.names[i]));
    module.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>());
    module.setImage(Image::fromMat(photos[i]));
    camera.addModule(module);
  }
  GeometryCalibration::RigEstimator rig(camera, {});
  auto estimated = rig.estimate();
  if (!estimated) {
    out.error = estimated.error();
    return out;
  }
  for (const auto& [name, m] : rig.report().modules) out.failed += m.placed ? 0 : 1;
  GeometryCalibration::CalibrationPipeline::Images images;
  for (const auto& module : estimated.value().modules()) images[module->name()] = module->image();
  GeometryCalibration::CalibrationPipeline pipeline(estimated.value(), images);
  GeometryCalibration::PipelineOptions options;
  options.steps = {"neighbour", "clip"};
  out.camera = pipeline.run(options);
  out.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  for (const auto& [name, v] : pipeline.verdicts()) {
    if (v.status == GeometryCalibration::ModuleStatus::failed) ++out.failed;
  }
  // The layers on the panorama before the clip (the clip moves every module
  // alike), and the clip as a rectangle of it.
  const auto& steps = pipeline.steps();
  const CameraDescription::Orbivane& placed = steps.size() >= 2 ? steps[0].camera : estimated.value();
  const std::vector<float> clipping = steps.size() >= 2 ? steps[1].clipping : std::vector<float>();
  const Synthetic::PeerResult drawn = Synthetic::cameraLayers(placed, set.names, clipping);
  out.panorama = drawn.panorama;
  out.layers = drawn.layers;
  out.crop = drawn.crop;
  out.ok = true;
  return out;
}

Synthetic::SphereRigOptions sphereOptions(const PhotoSet& set) {
  Synthetic::SphereRigOptions o;
  o.pitch = set.pitch;
  o.seed = set.seed;
  if (set.parallax) {
    o.nodalOffset = 0.08;
    o.groundBelow = 1.5;
  }
  return o;
}

void printRow(const char* tool, const Synthetic::LayerSeams& s, double kept, double seconds) {
  std::printf("  %-8s seams median %5.2f px, 90 %% %5.2f px, worst pair %5.2f px, exposure %5.3f EV, kept %s, "
              "%6.2f s\n",
              tool, s.medianPx, s.p90Px, s.worstPairMedianPx, s.worstExposureEv,
              kept > 0 ? (std::to_string(int(std::lround(100 * kept))) + " %").c_str() : "  -  ", seconds);
}

// The sets named on the command line, or the default ones (only the first in a smoke run).
std::vector<PhotoSet> chosenSets(const Bench::Options& options) {
  std::vector<PhotoSet> sets;
  for (const auto& p : options.positional) sets.push_back(parseSet(p));
  if (sets.empty()) {
    sets = {parseSet("84,85,86,78,79"), parseSet("82,83,84,85,86"), parseSet("87,88,89,90,91+ground"),
            parseSet("sphere:0:1"), parseSet("sphere:30:2"), parseSet("sphere:-30:6:parallax")};
    if (options.smoke) sets.resize(1);
  }
  return sets;
}

// A set's label and photographs, with their files (real sets) or the rig that made them (synthetic sets).
struct LoadedSet {
  std::string label;
  std::vector<cv::Mat> photos;
  std::vector<std::string> files;
  Synthetic::SphereRig rig;
};

// Makes a synthetic set's rig (naming its modules in `set`) or loads a real set's photographs; prints the set's line.
LoadedSet loadSet(PhotoSet& set, const cv::Mat& world) {
  LoadedSet loaded;
  if (set.synthetic) {
    loaded.rig = Synthetic::makeSphereRig(world, sphereOptions(set));
    loaded.photos = loaded.rig.pictures;
    for (const auto& m : loaded.rig.modules) set.names.push_back(m.name);
    char text[96];
    std::snprintf(text, sizeof text, "sphere rig, pitch %.0f deg, seed %u%s", set.pitch, set.seed,
                  set.parallax ? ", parallax (lenses 8 cm ahead, ground 1.5 m below)" : "");
    loaded.label = text;
    std::printf("%s (five modules 40 degrees apart, 1280x960, focal 900 px +-2 %%, k1 0.03 +-0.01)\n", text);
  } else {
    std::string& label = loaded.label;
    for (const auto& n : set.names) label += (label.empty() ? "" : ",") + n.substr(6);
    std::printf("photographs %s%s\n", label.c_str(),
                set.groundFacing ? " (ground-facing: the lowest third of each overlap is left out)" : "");
    for (const auto& n : set.names) {
      loaded.photos.push_back(Synthetic::loadRealPhoto(n + ".jpg"));
      loaded.files.push_back(Synthetic::realPhotoPath(n + ".jpg"));
    }
  }
  return loaded;
}

// The peers' stitching of a set and their seams: OpenCV's detail pipeline, and Hugin's chain when it runs.
struct Peers {
  Synthetic::PeerResult opencv;
  Synthetic::LayerSeams opencvSeams;
  bool huginRun = false;
  Synthetic::PeerResult hugin;
  Synthetic::LayerSeams huginSeams;
  double huginKept = 0.0;
};

// Stitches the set with OpenCV and, when `hugin` and the set is real, with Hugin; measures their seams.
Peers runPeers(const PhotoSet& set, const LoadedSet& loaded, bool hugin) {
  Peers peers;
  peers.opencv = Synthetic::openCvDetailStitch(loaded.photos);
  if (peers.opencv.ok) {
    std::vector<Synthetic::PeerLayer> layers = peers.opencv.layers;
    if (set.groundFacing) leaveOutLowestThird(layers);
    peers.opencvSeams = Synthetic::measureLayerSeams(layers, loaded.photos, set.names);
  }
  peers.huginRun = hugin && !set.synthetic;
  if (peers.huginRun) {
    Synthetic::TemporaryDirectory folder;
    peers.hugin = Synthetic::huginStitch(loaded.files, folder.path());
    if (peers.hugin.ok) {
      peers.huginKept = Synthetic::keptShare(peers.hugin.layers, peers.hugin.panorama, peers.hugin.crop);
      if (set.groundFacing) leaveOutLowestThird(peers.hugin.layers);
      peers.huginSeams = Synthetic::measureLayerSeams(peers.hugin.layers, loaded.photos, set.names);
    }
  }
  return peers;
}

// The table of the set: a row per tool (or why it failed), then ours pair by pair.
void printTable(const Ours& ours, const Synthetic::LayerSeams& oursSeams, double oursKept, const Peers& peers) {
  printRow("ours", oursSeams, oursKept, ours.seconds);
  if (peers.opencv.ok) {
    printRow("opencv", peers.opencvSeams, 0.0, peers.opencv.seconds);
  } else {
    std::printf("  opencv   failed: %s\n", peers.opencv.error.c_str());
  }
  if (peers.huginRun) {
    if (peers.hugin.ok) {
      printRow("hugin", peers.huginSeams, peers.huginKept, peers.hugin.seconds);
    } else {
      std::printf("  hugin    failed: %s\n", peers.hugin.error.c_str());
    }
  }
  for (const auto& line : oursSeams.lines) std::printf("    ours %s\n", line.c_str());
}

// Ours against the synthetic rig's truth: printed and judged.
void judgeTruth(const LoadedSet& loaded, const Ours& ours, Bench::Goals& goals) {
  const Synthetic::TruthSeams truth = Synthetic::truthSeams(loaded.rig, ours.camera);
  std::printf("  ours against the truth: seams median %.3f px, 90 %% %.3f px, worst %.3f px over %d pairs\n",
              truth.medianPx, truth.p90Px, truth.worstPx, truth.pairs);
  goals.correctness(truth.p90Px <= 0.5, "%s: seams against the truth, 90 %% %.3f px <= 0.5 px", loaded.label.c_str(),
                    truth.p90Px);
}

// Ours judged by the goals: no failed module, the seams, the exposure, the clip and the time against OpenCV's.
void judgeOurs(const std::string& label, const Ours& ours, const Synthetic::LayerSeams& oursSeams, double oursKept,
               const Synthetic::PeerResult& opencv, Bench::Goals& goals) {
  goals.correctness(ours.failed == 0, "%s: no module failed (%d failed)", label.c_str(), ours.failed);
  goals.correctness(oursSeams.medianPx <= 1.0, "%s: seam median %.2f px <= 1.0 px", label.c_str(), oursSeams.medianPx);
  goals.correctness(oursSeams.p90Px <= 3.0, "%s: seam 90th percentile %.2f px <= 3.0 px", label.c_str(),
                    oursSeams.p90Px);
  goals.correctness(oursSeams.worstExposureEv <= 0.06, "%s: exposure difference %.3f EV <= 0.06 EV", label.c_str(),
                    oursSeams.worstExposureEv);
  goals.correctness(oursKept >= 0.85, "%s: the clip keeps %.0f %% >= 85 %% of the pictures", label.c_str(),
                    100 * oursKept);
  if (opencv.ok) {
    goals.speed(ours.seconds <= opencv.seconds,
                "%s: init and calibrate %.2f s <= OpenCV's detail pipeline %.2f s (ratio %.2f)", label.c_str(),
                ours.seconds, opencv.seconds, opencv.seconds / std::max(1e-9, ours.seconds));
  }
}

// One set: ours and the peers calibrate it, the table is printed and ours is judged.
void benchSet(PhotoSet& set, const cv::Mat& world, bool hugin, Bench::Goals& goals) {
  const LoadedSet loaded = loadSet(set, world);
  Ours ours = runOurs(set, loaded.photos);
  if (!ours.ok) {
    goals.correctness(false, "ours calibrates %s (%s)", loaded.label.c_str(), ours.error.c_str());
    return;
  }
  const double oursKept = Synthetic::keptShare(ours.layers, ours.panorama, ours.crop);
  if (set.groundFacing) leaveOutLowestThird(ours.layers);
  const Synthetic::LayerSeams oursSeams = Synthetic::measureLayerSeams(ours.layers, loaded.photos, set.names);
  const Peers peers = runPeers(set, loaded, hugin);

  printTable(ours, oursSeams, oursKept, peers);
  if (set.synthetic && !set.parallax) judgeTruth(loaded, ours, goals);
  judgeOurs(loaded.label, ours, oursSeams, oursKept, peers.opencv, goals);
}

}  // namespace

int main(int argc, char** argv) {
  const Bench::Options options = Bench::parsePlainOptions(argc, argv, "[--no-hugin] [SET...]", 16, {"--no-hugin"});
  std::vector<PhotoSet> sets = chosenSets(options);
  const bool hugin = !options.smoke && !options.has("--no-hugin") && Synthetic::huginAvailable();
  Bench::Goals goals(options);
  const cv::Mat world = Synthetic::loadRealPhoto("hugin-equirectangular.jpg");
  for (auto& set : sets) benchSet(set, world, hugin, goals);
  return goals.finish();
}

// "demo [--out DIR] [--quick]": the whole library on real pictures, with
// nothing to prepare. It builds a virtual five-module camera from opencv-doc
// photographs with known misalignments and a simulated camera for the sensor
// side, runs every calibrator against that known truth, and writes the
// camera files, panoramas, annotated pictures and report.html into DIR.
// --quick runs the same on a smaller scene and a slice of the shader grid
// (for CI).
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <thread>

#include "command_line.h"
#include "demo_report.h"
#include "synthetic/rig.h"
#include "demo_steps.h"
#include "staged_folder.h"
#include "orbivane/camera/camera_file.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/rendering/panorama_renderer.h"
#include "orbivane/utils/wide_text.h"

namespace Tool {
namespace {

namespace fs = std::filesystem;
using Demo::Section;

struct DemoOptions {
  std::string out = "orbivane-demo";
  std::string data = "/usr/share/doc/opencv-doc/examples/data";
  bool quick = false;
};

DemoOptions& options() {
  static DemoOptions o;
  return o;
}

// Where the demo writes; a folder that holds anything but what an earlier
// demo wrote there is refused, so nothing of the user's is overwritten.
void prepareFolder(const std::string& dir) {
  checkOutputFolder(dir, "--out");
  StagedFolder::checkOwned(dir, "demo", "--out");
}

void writePanorama(const CameraDescription::Orbivane& camera, bool grid, const std::string& path) {
  OrbivaneRendering::PanoramaOptions o;
  o.overlay = grid;
  auto panorama = OrbivaneRendering::renderPanorama(camera, o);
  if (!panorama) throw CommandError(panorama.error());
  Demo::writePicture(panorama.value().picture, path);
}

void saveCamera(const CameraDescription::Orbivane& camera, const std::string& path) {
  auto saved = CameraDescription::saveCameraFile(camera, path);
  if (!saved) throw CommandError(saved.error());
}

std::string today() {
  const std::time_t now = std::time(nullptr);
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M UTC", std::gmtime(&now));
  return text;
}

void runDemo() {
  const DemoOptions& o = options();
  const Demo::Stopwatch total;
  prepareFolder(o.out);
  // Everything is written beside the folder and put in place at the end, so
  // an earlier demo is replaced whole or, when this run fails, not at all.
  StagedFolder staged(o.out, false);
  const std::string dir = staged.path();
  std::error_code made;
  fs::create_directories(fs::path(dir) / "pictures", made);
  std::cout << "Building the virtual camera from opencv-doc photographs (" << (o.quick ? "quick" : "full")
            << " size) ..." << std::endl;
  Synthetic::Rig scene;
  try {
    scene = Synthetic::makeRig(o.data, o.quick);
  } catch (const std::exception& e) {
    throw CommandError(e.what());
  }
  // The module pictures beside the camera files, so the files can be opened again.
  for (auto& module : scene.camera.modules()) {
    const std::string file = "pictures/" + Utils::toUtf8(module->name()) + ".png";
    Demo::writePicture(Image::toMat(*module->image()), dir + "/" + file);
    module->setImagePath(dir + "/" + file);
  }
  Demo::writePicture(scene.picture, dir + "/pictures/scene.png");
  const CameraDescription::Orbivane truthCamera = Synthetic::withMatrices(scene.camera, scene.truth);
  saveCamera(scene.camera, dir + "/camera-before.json");
  saveCamera(truthCamera, dir + "/camera-truth.json");
  writePanorama(scene.camera, false, dir + "/panorama-before.png");
  writePanorama(scene.camera, true, dir + "/panorama-before-grid.png");

  Demo::StepContext context{scene, truthCamera, dir, o.data, o.quick};
  std::vector<Section> sections;
  Demo::GeometryOutcome calibrated = Demo::runGeometryPipeline(context);
  sections.insert(sections.end(), calibrated.sections.begin(), calibrated.sections.end());
  sections.push_back(Demo::runRealPhotographs(context));
  sections.push_back(Demo::runShaderSearch(context));
  sections.push_back(Demo::runBlurScores(context));
  sections.push_back(Demo::runFisheyeCentring(context));
  sections.push_back(Demo::runResolution(context));
  sections.push_back(Demo::runFrameFinding(context));

  saveCamera(calibrated.camera, dir + "/camera-after.json");
  writePanorama(calibrated.stitched, false, dir + "/panorama-after.png");
  writePanorama(calibrated.stitched, true, dir + "/panorama-after-grid.png");
  writePanorama(calibrated.camera, false, dir + "/panorama-clipped.png");
  Section& first = sections.front();
  first.figures.insert(first.figures.begin(),
                       {{"panorama-before-grid.png", "Before: the camera as assembled (outlines, names and seams drawn)"},
                        {"panorama-after-grid.png",
                         "After target matching and neighbour stitching (outlines, names and seams drawn)"},
                        {"panorama-after.png", "After target matching and neighbour stitching, blended"}});
  for (Section& section : sections) {
    if (section.id != "clipping") continue;
    section.figures.push_back({"clipping.png", "Coverage (grey), badly covered parts (red) and the rectangle (green)"});
    section.figures.push_back({"panorama-clipped.png", "The calibrated camera with the clipping applied, as a viewer "
                                                       "draws it (camera-after.json)"});
  }

  const double seconds = total.seconds();
  std::vector<std::string> facts = {
      "Made " + today() + " by orbivane-calibrate demo" + (o.quick ? " --quick" : "") + ", in " +
          Demo::number(seconds, 1) + " s on " + std::to_string(std::thread::hardware_concurrency()) + " cores.",
      "Scene: " + std::to_string(scene.panorama.width) + "x" + std::to_string(scene.panorama.height) +
          " pixels put together from the opencv-doc photographs building.jpg, graf1.png, leuvenA.jpg and aloeL.jpg; "
          "five modules of " + std::to_string(scene.modulePicture.width) + "x" +
          std::to_string(scene.modulePicture.height) + " pixels see it through known homographies.",
      "Real photographs: five of data/durlach (a hand-held wide-angle camera), calibrated without a truth; their "
      "camera is camera-real.json.",
      "Files: camera-before.json (as assembled), camera-after.json (calibrated), camera-truth.json, "
      "camera-real.json, panorama-*.png, pictures/."};
  const std::string html = Demo::reportHtml("Orbivane calibration demo", facts, sections);
  writeTextAtomically(dir + "/report.html", html);

  std::cout << "\nSummary\n";
  bool allPassed = true;
  for (const auto& s : sections) {
    std::printf("  %-24s %-40s %-40s %7.2f s  %s\n", s.title.c_str(), s.result.c_str(), s.truthError.c_str(),
                s.seconds, s.passed ? "ok" : "OUTSIDE TOLERANCE");
    allPassed = allPassed && s.passed;
  }
  StagedFolder::checkOwned(o.out, "demo", "--out");  // nothing of the user's came in meanwhile
  staged.commit();
  std::cout << "Demo finished in " << Demo::number(seconds, 1) << " s. Report: "
            << fs::absolute(fs::path(o.out) / "report.html").string() << std::endl;
  if (!allPassed) throw CommandError("a calibrator missed its tolerance (see the report)");
}

}  // namespace

void addDemoCommand(CLI::App& app) {
  CLI::App* demo = app.add_subcommand(
      "demo", "Run every calibrator on a virtual camera built from real photographs and write a report");
  demo->add_option("--out", options().out, "Folder for the report, camera files and pictures")->capture_default_str();
  demo->add_option("--data", options().data, "Folder of the opencv-doc sample pictures and videos")
      ->capture_default_str();
  demo->add_flag("--quick", options().quick, "A smaller scene and a slice of the shader grid (about a minute)");
  demo->callback(runDemo);
}

}  // namespace Tool

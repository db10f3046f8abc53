// "calibrate CAMERA.json --target NAME --out OUT.json [--modules A,B,...]
// [--steps match,neighbour,clip,shader] [--reference NAME] [--report DIR]
// [--json]": the whole geometry calibration of one camera, each step on the
// previous step's result (GeometryCalibration::CalibrationPipeline), with a
// verdict per module, the seams measured after every step and, with
// --report, an HTML page with the panorama before and after each step.
#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iomanip>
#include <list>
#include <iostream>
#include <memory>
#include <sstream>

#include <nlohmann/json.hpp>

#include "command_line.h"
#include "staged_folder.h"
#include "json_output.h"
#include "demo/demo_report.h"
#include "interrupt_watch.h"
#include "orbivane/camera/camera_file.h"
#include "orbivane/geometry_calibration/calibration_pipeline.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/rendering/panorama_renderer.h"
#include "orbivane/utils/atomic_file.h"
#include "orbivane/utils/wide_text.h"
#include "progress.h"
#include "report_json.h"

namespace Tool {
namespace {

namespace fs = std::filesystem;
using GeometryCalibration::CalibrationPipeline;
using GeometryCalibration::ModuleStatus;

// A calibration whose worst seam (a pair's median) is wider than this
// (pixels) has not lined the modules up: it says so and exits with status 3.
constexpr double kWidestAcceptedSeamPx = 1.0;

struct CalibrateOptions {
  std::string camera, target, out, reference, report;
  std::vector<std::string> modules;
  std::vector<std::string> steps;  // empty: match (with a target), neighbour, clip
  int mode = 0;
  bool allowHoles = false;
  bool json = false;
};

std::string fixed(double value, int decimals) {
  if (!std::isfinite(value)) return "-";
  std::ostringstream s;
  s << std::fixed << std::setprecision(decimals) << value;
  return s.str();
}

// The panorama of the calibrated modules (not the target) at most 1600 pixels
// wide, with outlines and seams.
void drawPanorama(const CameraDescription::Orbivane& camera, const std::list<std::wstring>& modules,
                  const std::string& path) {
  OrbivaneRendering::PanoramaOptions options;
  options.overlay = true;
  for (const auto& name : modules)
    if (camera.findModule(name)) options.modules.push_back(name);
  const Utils::Size size = camera.panoramaSize();
  if (size.width > 0 && size.height > 0) {
    const double scale = std::min(1.0, 1600.0 / size.width);
    options.size = Utils::Size{std::max(1, int(size.width * scale)), std::max(1, int(size.height * scale))};
  }
  auto panorama = OrbivaneRendering::renderPanorama(camera, options);
  if (!panorama) throw CommandError("cannot draw the panorama for the report: " + panorama.error());
  auto saved = Image::saveMat(panorama.value().picture, path);
  if (!saved) throw CommandError(saved.error());
}

std::string seamRows(const std::vector<GeometryCalibration::SeamResidual>& seams) {
  std::ostringstream html;
  for (const auto& s : seams) {
    html << "<tr><td>" << Demo::escapeHtml(Utils::toUtf8(s.first) + " / " + Utils::toUtf8(s.second)) << "</td><td>"
         << (s.measured ? fixed(s.px, 3) + " px (" + fixed(s.dx, 3) + ", " + fixed(s.dy, 3) + ")"
                        : "not measured: " + Demo::escapeHtml(s.reason))
         << "</td></tr>\n";
  }
  return html.str();
}

// A report folder is new, empty or holds only what an earlier report wrote:
// nothing of the user's is written over.
void checkReportFolder(const std::string& dir) {
  checkOutputFolder(dir, "--report");
  StagedFolder::checkOwned(dir, "report", "--report");
}

// Writes the report into `dir` (the staging folder of the report's).
void writeReport(const std::string& dir, const CalibrateOptions& options, const CameraDescription::Orbivane& before,
                 const CalibrationPipeline& pipeline) {
  const std::list<std::wstring> listed = pipeline.listedModules();
  drawPanorama(before, listed, (fs::path(dir) / "panorama-before.png").string());
  std::ostringstream html;
  html << "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n<title>Calibration of "
       << Demo::escapeHtml(options.camera)
       << "</title>\n<style>body{font-family:sans-serif;margin:2em;max-width:1700px}table{border-collapse:collapse}"
          "td,th{border:1px solid #bbb;padding:3px 8px;text-align:left}.failed{color:#b00}.skipped{color:#a60}"
          "img{max-width:100%;border:1px solid #ccc}</style>\n</head>\n<body>\n<h1>Calibration of "
       << Demo::escapeHtml(options.camera) << "</h1>\n";

  html << "<h2>Verdicts</h2>\n<table><tr><th>module</th><th>status</th><th>reason</th><th>residual (px)</th>"
          "<th>correlation</th></tr>\n";
  for (const auto& [name, v] : pipeline.verdicts()) {
    const char* status = GeometryCalibration::statusName(v.status);
    html << "<tr class=\"" << status << "\"><td>" << Demo::escapeHtml(Utils::toUtf8(name)) << "</td><td>" << status
         << "</td><td>" << Demo::escapeHtml(v.reason) << "</td><td>" << fixed(v.residualPx, 3) << "</td><td>"
         << fixed(v.correlation, 3) << "</td></tr>\n";
  }
  html << "</table>\n<h2>Steps</h2>\n<table><tr><th>step</th><th>time (s)</th><th>worst seam after (px)</th></tr>\n";
  for (const auto& step : pipeline.steps()) {
    double worst = 0;
    for (const auto& s : step.seams)
      if (s.measured) worst = std::max(worst, s.px);
    html << "<tr><td><a href=\"#" << step.step << "\">" << step.step << "</a></td><td>" << fixed(step.seconds, 2)
         << "</td><td>" << fixed(worst, 3) << "</td></tr>\n";
  }
  html << "</table>\n<h2>Before</h2>\n<p><img src=\"panorama-before.png\" alt=\"panorama before\"></p>\n"
       << "<table><tr><th>seam</th><th>residual (measured on the panorama)</th></tr>\n"
       << seamRows(pipeline.seamsBefore()) << "</table>\n";

  for (const auto& step : pipeline.steps()) {
    const std::string picture = "panorama-after-" + step.step + ".png";
    drawPanorama(step.camera, listed, (fs::path(dir) / picture).string());
    html << "<h2 id=\"" << step.step << "\">After " << step.step << " (" << fixed(step.seconds, 2) << " s)</h2>\n"
         << "<p><img src=\"" << picture << "\" alt=\"panorama after " << step.step << "\"></p>\n";
    html << "<table><tr><th>module</th><th>status</th><th>reason</th><th>residual (px)</th><th>moved (px)</th></tr>\n";
    for (const auto& [name, v] : step.modules) {
      const char* status = GeometryCalibration::statusName(v.status);
      html << "<tr class=\"" << status << "\"><td>" << Demo::escapeHtml(Utils::toUtf8(name)) << "</td><td>" << status
           << "</td><td>" << Demo::escapeHtml(v.reason) << "</td><td>" << fixed(v.residualPx, 3) << "</td><td>"
           << fixed(v.movedPx, 3) << "</td></tr>\n";
    }
    html << "</table>\n";
    if (!step.clipping.empty()) {
      const Utils::Size size = step.camera.panoramaSize();
      html << "<p>Clipping applied (left, top, right, bottom, share of the panorama before): "
           << fixed(step.clipping[0], 4) << ", " << fixed(step.clipping[1], 4) << ", " << fixed(step.clipping[2], 4)
           << ", " << fixed(step.clipping[3], 4) << "; the panorama is now " << size.width << "x" << size.height
           << " pixels</p>\n";
      if (!step.clippingPicture.empty()) {
        auto saved = Image::saveMat(step.clippingPicture, (fs::path(dir) / "clipping.png").string());
        if (!saved) throw CommandError(saved.error());
        html << "<p><img src=\"clipping.png\" alt=\"coverage and clipping rectangle\"> Coverage (grey), badly "
                "covered parts (red) and the rectangle (green)</p>\n";
      }
    }
    html << "<table><tr><th>seam</th><th>residual (measured on the panorama)</th></tr>\n" << seamRows(step.seams)
         << "</table>\n";
  }
  html << "</body>\n</html>\n";
  writeTextAtomically((fs::path(dir) / "report.html").string(), html.str());
}

// The pipeline's options from the command line, checked against the camera.
GeometryCalibration::PipelineOptions pipelineOptionsFor(const CalibrateOptions& options,
                                                        const CameraDescription::Orbivane& camera) {
  GeometryCalibration::PipelineOptions pipelineOptions;
  pipelineOptions.target = Utils::fromUtf8(options.target);
  pipelineOptions.steps = options.steps;
  if (pipelineOptions.steps.empty()) {
    pipelineOptions.steps = options.target.empty() ? std::vector<std::string>{"neighbour", "clip"}
                                                   : std::vector<std::string>{"match", "neighbour", "clip"};
  }
  pipelineOptions.reference = Utils::fromUtf8(options.reference);
  pipelineOptions.match.mode = options.mode;
  pipelineOptions.clip.noHoles = !options.allowHoles;
  for (const auto& name : options.modules) {
    if (!camera.findModule(Utils::fromUtf8(name))) {
      throw CommandError("unknown module '" + name + "' in " + options.camera + " (--modules)");
    }
    pipelineOptions.modules.push_back(Utils::fromUtf8(name));
  }
  if (const auto valid = pipelineOptions.validate(); !valid) throw CommandError(valid.error());
  if (!pipelineOptions.target.empty() && !camera.findModule(pipelineOptions.target)) {
    throw CommandError("unknown target module '" + options.target + "' in " + options.camera);
  }
  if (!options.reference.empty() && !camera.findModule(pipelineOptions.reference)) {
    throw CommandError("unknown reference module '" + options.reference + "' in " + options.camera);
  }

  return pipelineOptions;
}

// Each step's time and worst seam, printed; the steps as JSON.
nlohmann::json printSteps(const CalibrationPipeline& pipeline) {
  nlohmann::json steps = nlohmann::json::array();
  for (const auto& step : pipeline.steps()) {
    nlohmann::json modules = nlohmann::json::object(), pairs = nlohmann::json::array(),
                   seams = nlohmann::json::array();
    for (const auto& [name, v] : step.modules) modules[Utils::toUtf8(name)] = moduleReportJson(v);
    for (const auto& p : step.pairs) pairs.push_back(pairReportJson(p));
    for (const auto& s : step.seams) seams.push_back(seamJson(s));
    double worst = 0;
    int measured = 0;
    for (const auto& s : step.seams)
      if (s.measured) {
        worst = std::max(worst, s.px);
        ++measured;
      }
    std::cout << step.step << ": " << fixed(step.seconds, 2) << " s, "
              << (measured > 0 ? "worst seam " + fixed(worst, 3) + " px" : std::string("no seam measured")) << "\n";
    nlohmann::json entry = {{"step", step.step}, {"seconds", step.seconds}, {"modules", modules}, {"seams", seams}};
    if (step.step == "neighbour") entry["pairs"] = pairs;
    if (!step.clipping.empty()) {
      entry["clipping"] = step.clipping;
      entry["panoramaSize"] = {step.camera.panoramaSize().width, step.camera.panoramaSize().height};
    }
    steps.push_back(entry);
  }
  return steps;
}

// Each module's verdict, printed (a module that did not come through also on
// standard error, counted in `notAligned`); the verdicts as JSON.
nlohmann::json printVerdicts(const CalibrationPipeline& pipeline, int& notAligned) {
  nlohmann::json verdicts = nlohmann::json::object();
  for (const auto& [name, v] : pipeline.verdicts()) {
    const std::string text = Utils::toUtf8(name);
    verdicts[text] = moduleReportJson(v);
    std::cout << text << ": " << GeometryCalibration::statusName(v.status);
    if (std::isfinite(v.residualPx)) std::cout << ", residual " << fixed(v.residualPx, 3) << " px";
    if (!v.reason.empty()) std::cout << " (" << v.reason << ")";
    std::cout << "\n";
    if (v.status != ModuleStatus::aligned && v.status != ModuleStatus::kept && v.status != ModuleStatus::aborted) {
      ++notAligned;
      std::cerr << "orbivane-calibrate: module " << text << " " << GeometryCalibration::statusName(v.status) << ": "
                << v.reason << "\n";
    }
  }
  return verdicts;
}

// What the calibrated camera's seams say about the run.
struct SeamVerdict {
  GeometryCalibration::SeamSummary summary;
  bool tooWide = false;     // the worst seam is visible
  bool unmeasured = false;  // placed modules, but no seam could be measured
};

// The seams, printed, and their verdict (said on standard error when bad).
SeamVerdict printSeams(const std::vector<GeometryCalibration::SeamResidual>& finalSeams,
                       const CalibrationPipeline& pipeline, bool interrupted) {
  SeamVerdict verdict;
  verdict.summary = GeometryCalibration::summariseSeams(finalSeams);
  const GeometryCalibration::SeamSummary& summary = verdict.summary;
  for (const auto& s : finalSeams) {
    std::cout << "seam " << Utils::toUtf8(s.first) << " / " << Utils::toUtf8(s.second) << ": ";
    if (s.measured) {
      std::cout << s.matches << " matches, median " << fixed(s.px, 2) << " px, 90 % " << fixed(s.p90Px, 2)
                << " px, exposure differs by " << fixed(s.exposureEv, 3) << " EV\n";
    } else {
      std::cout << "not measured: " << s.reason << "\n";
    }
  }
  if (summary.measured == 0) {
    std::cout << "seams: none measured\n";
  } else {
    std::cout << "seams: " << summary.measured << " measured (" << summary.matches << " matched features), median "
              << fixed(summary.medianPx, 2) << " px, 90 % " << fixed(summary.p90Px, 2) << " px, worst pair "
              << fixed(summary.worstPx, 2) << " px; exposure differs by at most "
              << fixed(summary.worstExposureEv, 3) << " EV\n";
  }
  verdict.tooWide = summary.worstPx > kWidestAcceptedSeamPx;
  if (verdict.tooWide) {
    std::cerr << "orbivane-calibrate: the worst seam is " << fixed(summary.worstPx, 2) << " px, above "
              << fixed(kWidestAcceptedSeamPx, 1) << " px\n";
  }
  // Modules placed side by side whose seams nothing could measure are not
  // shown to line up: the run says so rather than pass on no evidence.
  int placed = 0;
  for (const auto& [name, v] : pipeline.verdicts()) placed += v.status == ModuleStatus::aligned || v.status == ModuleStatus::kept;
  verdict.unmeasured = summary.measured == 0 && placed >= 2 && !interrupted;
  if (verdict.unmeasured) {
    std::cerr << "orbivane-calibrate: no seam between the modules could be measured (no overlap with detail enough to "
                 "match), so nothing shows that they line up\n";
  }
  return verdict;
}

// The report folder and the camera file, put in place together.
void writeOutputs(const CalibrateOptions& options, const CameraDescription::Orbivane& camera,
                  const CameraDescription::Orbivane& result, const CalibrationPipeline& pipeline) {
  // The report and the camera file are written whole beside their places
  // first; then both are put in place by two renames one right after the
  // other, so an interrupted, failed or killed run leaves the outputs of the
  // earlier one (only a kill between the two renames could part them).
  std::unique_ptr<StagedFolder> report;
  if (!options.report.empty()) {
    checkReportFolder(options.report);
    report = std::make_unique<StagedFolder>(options.report, false);
    writeReport(report->path(), options, camera, pipeline);
    report->prepare();
  }
  StagedFolder::removeStale(options.out);
  const std::string staged = StagedFolder::stagedFile(options.out);
  const auto saved = CameraDescription::saveCameraFile(result, staged);
  if (!saved) {
    std::error_code ec;
    fs::remove(staged, ec);
    throw CommandError(saved.error());
  }
  if (std::rename(staged.c_str(), options.out.c_str()) != 0) {
    const std::string why = std::strerror(errno);
    std::error_code ec;
    fs::remove(staged, ec);
    throw CommandError("cannot put '" + options.out + "' in place: " + why);
  }
  if (report) {
    report->commit();
    std::cout << "report: " << (fs::path(options.report) / "report.html").string() << "\n";
  }
}

void runCalibrate(const CalibrateOptions& options) {
  // Ctrl-C stops the steps; the camera file and the report are still put in
  // place together (one right after the other).
  const InterruptWatch finishing([] {});
  JsonOutput output(options.json);
  auto loaded = CameraDescription::loadCameraFile(options.camera);
  if (!loaded) throw CommandError(loaded.error());
  const CameraDescription::Orbivane camera = loaded.value();
  // Where the results go is checked before any work starts.
  checkOutputFile(options.out, cameraInputs(camera, options.camera), "--out");
  if (!options.report.empty()) checkReportFolder(options.report);
  const GeometryCalibration::PipelineOptions pipelineOptions = pipelineOptionsFor(options, camera);

  // Runs writing the same camera file take turns, so one run's camera never
  // ends beside another's report.
  const Utils::FileLock outputLock(options.out);
  if (!outputLock.held()) throw CommandError(outputLock.error());

  CalibrationPipeline::Images images;
  for (const auto& module : camera.modules())
    if (module->image()) images[module->name()] = module->image();
  CalibrationPipeline pipeline(camera, images);
  Progress progress("calibration");
  pipeline.registerStatusCallback(progress.callback());
  CameraDescription::Orbivane result;
  bool interrupted = false;
  {
    const InterruptWatch watch([&pipeline] { pipeline.abort(); });
    result = pipeline.run(pipelineOptions);
    interrupted = watch.interrupted();
  }
  progress.finish(!interrupted);

  const nlohmann::json steps = printSteps(pipeline);
  int notAligned = 0;
  const nlohmann::json verdicts = printVerdicts(pipeline, notAligned);
  nlohmann::json before = nlohmann::json::array();
  for (const auto& s : pipeline.seamsBefore()) before.push_back(seamJson(s));
  // The seams as the calibrated camera draws them.
  const std::vector<GeometryCalibration::SeamResidual>& finalSeams =
      pipeline.steps().empty() ? pipeline.seamsBefore() : pipeline.steps().back().seams;
  const SeamVerdict seamVerdict = printSeams(finalSeams, pipeline, interrupted);
  const GeometryCalibration::SeamSummary& summary = seamVerdict.summary;
  writeOutputs(options, camera, result, pipeline);
  if (interrupted) std::cout << "interrupted: wrote the steps done so far\n";
  std::cout << "wrote " << options.out << std::endl;
  nlohmann::json seams = nlohmann::json::array();
  for (const auto& s : finalSeams) seams.push_back(seamJson(s));
  output.print({{"interrupted", interrupted},
                {"modules", verdicts},
                {"steps", steps},
                {"seamsBefore", before},
                {"seams", seams},
                {"seamSummary",
                 {{"medianPx", summary.medianPx},
                  {"p90Px", summary.p90Px},
                  {"worstPx", summary.worstPx},
                  {"worstExposureEv", summary.worstExposureEv},
                  {"measured", summary.measured},
                  {"notMeasured", summary.notMeasured},
                  {"matches", summary.matches}}}});
  if (interrupted || finishing.interrupted()) {
    exitStatus() = kExitInterrupted;
  } else if (notAligned > 0 || seamVerdict.tooWide || seamVerdict.unmeasured) {
    exitStatus() = kExitFailedModules;
  }
}

}  // namespace

void addCalibrateCommand(CLI::App& app) {
  CLI::App* command = app.add_subcommand(
      "calibrate", "Run the whole geometry calibration of a camera (match, neighbour, clip, shader) step by step");
  static CalibrateOptions options;
  command->add_option("CAMERA", options.camera, "Camera file (JSON) with the modules' pictures")->required();
  command->add_option("--target", options.target,
                      "The module whose picture the others are matched to (adds the match step)");
  command->add_option("--out", options.out, "Where to write the calibrated camera file")->required();
  command->add_option("--modules", options.modules,
                      "Modules to calibrate, left to right, separated by commas (default: all but the target)")
      ->delimiter(',');
  command->add_option("--steps", options.steps,
                      "Steps in order: match, neighbour, clip, shader (default: match with a target, neighbour, clip)")
      ->delimiter(',');
  command->add_option("--reference", options.reference,
                      "Module neighbour stitching keeps in place (default: the middle one)");
  command->add_option("--mode", options.mode, "Target matching mode (0..3)")->check(CLI::Range(0, 3))->capture_default_str();
  command->add_flag("--allow-holes", options.allowHoles,
                    "Clipping may keep a few badly covered elements where that buys a much larger rectangle "
                    "(autoclip's default search); without it the clipping has no holes");
  command->add_option("--report", options.report, "Folder for an HTML report with the panorama after each step");
  command->add_flag("--json", options.json, "Print the verdicts, steps and seams as one JSON object on the last line");
  command->callback([] { runCalibrate(options); });
}

}  // namespace Tool

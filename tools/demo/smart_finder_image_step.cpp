// The demo's frame finding: two module views cut from opencv-doc's vtest.avi
// (pedestrians), recorded as video files with a recordings index that the
// simulated camera serves. For a stretch of a few seconds the people are
// painted out with the scene's background (the temporal median of the
// video), so an empty moment exists at a known time. The finder must pick,
// for each module, a moment that shows nobody.
#include <algorithm>
#include <cmath>
#include <filesystem>

#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "command_line.h"
#include "demo_steps.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/image_selection/smart_finder_image.h"
#include "orbivane/recordings/recordings_index.h"
#include "orbivane/utils/wide_text.h"
#include "progress.h"

namespace Tool {
namespace Demo {
namespace {

constexpr double kFps = 10.0;
constexpr const char* kStart = "2026-11-22T10:00:00Z";
// A pixel differing from the background by more than this (grey levels) is
// foreground; a blob of at least kPersonArea such pixels is a person.
constexpr int kForegroundLevel = 40;
constexpr int kPersonArea = 600;

struct ModuleView {
  std::string name;
  cv::Rect crop;  // of the 768x576 video frame
};

// Per-pixel median of the frames.
cv::Mat temporalMedian(const std::vector<cv::Mat>& frames) {
  cv::Mat out(frames.front().size(), CV_8UC3);
  std::vector<std::uint8_t> values(frames.size());
  const std::size_t mid = frames.size() / 2;
  for (int y = 0; y < out.rows; ++y) {
    for (int x = 0; x < out.cols; ++x) {
      for (int c = 0; c < 3; ++c) {
        for (std::size_t i = 0; i < frames.size(); ++i) values[i] = frames[i].at<cv::Vec3b>(y, x)[c];
        std::nth_element(values.begin(), values.begin() + long(mid), values.end());
        out.at<cv::Vec3b>(y, x)[c] = values[mid];
      }
    }
  }
  return out;
}

// Person-sized foreground blobs of a picture against the background.
int foregroundPersons(const cv::Mat& picture, const cv::Mat& background) {
  cv::Mat difference, grey, mask;
  cv::absdiff(picture, background, difference);
  cv::cvtColor(difference, grey, cv::COLOR_BGR2GRAY);
  cv::threshold(grey, mask, kForegroundLevel, 255, cv::THRESH_BINARY);
  cv::morphologyEx(mask, mask, cv::MORPH_OPEN, cv::Mat::ones(3, 3, CV_8U));
  cv::morphologyEx(mask, mask, cv::MORPH_CLOSE, cv::Mat::ones(9, 9, CV_8U));
  cv::Mat labels, stats, centroids;
  const int count = cv::connectedComponentsWithStats(mask, labels, stats, centroids);
  int persons = 0;
  for (int i = 1; i < count; ++i) persons += stats.at<int>(i, cv::CC_STAT_AREA) >= kPersonArea ? 1 : 0;
  return persons;
}

void writeVideo(const std::vector<cv::Mat>& frames, const cv::Rect& crop, const std::string& path) {
  cv::VideoWriter writer(path, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), kFps, crop.size());
  if (!writer.isOpened()) throw CommandError("cannot write the video '" + path + "'");
  for (const auto& frame : frames) writer.write(frame(crop));
}

// The frames the modules record, with the stretch painted empty, and the scene's background.
struct RecordedScene {
  std::vector<cv::Mat> frames;
  cv::Mat background;
};

// Reads the video, takes the background from it and paints the people out from `emptyFrom` to `emptyTo`.
RecordedScene readScene(cv::VideoCapture& capture, const std::string& video, int frameCount, int emptyFrom,
                        int emptyTo) {
  // The background comes from 30 s of the video even when fewer frames are
  // recorded: over a short span people who linger would stay in the median.
  const int backgroundSpan = 300;
  RecordedScene scene;
  std::vector<cv::Mat>& frames = scene.frames;
  for (cv::Mat frame; int(frames.size()) < backgroundSpan && capture.read(frame);) frames.push_back(frame.clone());
  if (int(frames.size()) < backgroundSpan) throw CommandError("'" + video + "' holds fewer frames than the demo needs");
  std::vector<cv::Mat> spread;
  for (std::size_t i = 0; i < frames.size(); i += frames.size() / 40) spread.push_back(frames[i]);
  scene.background = temporalMedian(spread);
  frames.resize(std::size_t(frameCount));
  for (int i = emptyFrom; i < emptyTo; ++i) frames[std::size_t(i)] = scene.background.clone();
  return scene;
}

// Writes each view's video and the recordings index that lists them; returns the index's path.
std::string writeRecordings(const std::vector<cv::Mat>& frames, const std::vector<ModuleView>& views,
                            const std::string& folder, std::int64_t start, Progress& preparing) {
  std::filesystem::create_directories(folder);
  Quarn::RecordingsIndex index;
  for (std::size_t i = 0; i < views.size(); ++i) {
    preparing.update(int(i) + 1, int(views.size()), views[i].name);
    writeVideo(frames, views[i].crop, folder + "/" + views[i].name + ".avi");
    index.recordings.push_back({views[i].name, folder + "/" + views[i].name + ".avi", start, kFps});
  }
  preparing.finish();
  const std::string indexPath = folder + "/recordings.json";
  auto saved = Quarn::saveRecordingsIndex(index, indexPath);
  if (!saved) throw CommandError(saved.error());
  return indexPath;
}

// A camera of one module per view, each served from the recordings index.
CameraDescription::Orbivane recordedCamera(const std::vector<ModuleView>& views, const std::string& indexPath) {
  CameraDescription::Orbivane camera;
  for (const auto& view : views) {
    CameraDescription::OrbivaneModule module(Utils::fromUtf8(view.name));
    module.setConnection(Synthetic::recordingsConnection(indexPath, view.name));
    camera.addModule(module);
  }
  return camera;
}

// The section's title, what it shows, and its table's header.
void describeFrameFinding(Section& section, int emptyFrom, int emptyTo, const std::string& detector) {
  section.id = "frame-finding";
  section.title = "Frame finding";
  section.what = "Two module views (left and right, 448x576, overlapping by 128 pixels) cut from opencv-doc's "
                 "vtest.avi, recorded at 10 frames per second and served by the simulated camera from a recordings "
                 "index. Pedestrians walk through all the time, except from " +
                 number(emptyFrom / kFps, 1) + " s to " + number(emptyTo / kFps, 1) +
                 " s, where they were painted out with the scene's background. The finder samples one frame a "
                 "second, runs the person detector (" + detector +
                 "), measures motion against the frame 0.3 s later and the blur and exposure scores, and picks the "
                 "best still frame without persons. The truth: "
                 "person-sized differences from the background in the chosen frame.";
  section.table.push_back({"Module", "Chosen (s)", "Frame", "Persons detected", "Moving pixels (%)", "Blur",
                           "Sampled frames with persons", "People in the chosen frame (truth)"});
}

// How many of a module's sampled frames showed persons, as "busy of sampled".
std::string busyOfSampled(const std::map<std::wstring, std::vector<OrbivaneCalibration::SmartFinderFrame>>& samples,
                          const std::wstring& name) {
  int busy = 0, sampled = 0;
  if (samples.count(name) != 0) {
    for (const auto& s : samples.at(name)) {
      ++sampled;
      busy += s.persons > 0 ? 1 : 0;
    }
  }
  return std::to_string(busy) + " of " + std::to_string(sampled);
}

// Writes a module's chosen frame and adds its figure and table row; returns the people in it by the truth.
int addChosenFrame(Section& section, const ModuleView& view, const OrbivaneCalibration::SmartFinderFrame& best,
                   const cv::Mat& background, std::int64_t start, const std::string& busy, const std::string& dir) {
  const cv::Mat picture = Image::toMat(*best.picture);
  const int truthPersons = foregroundPersons(picture, background(view.crop));
  writePicture(picture, dir + "/frames-" + view.name + ".png");
  section.figures.push_back({"frames-" + view.name + ".png",
                             "Module " + view.name + " at " + number((best.timeMs - start) / 1000.0, 1) + " s" +
                                 (best.builtBackground ? " (a background built from several frames)" : "")});
  section.table.push_back({view.name, number((best.timeMs - start) / 1000.0, 1),
                           best.builtBackground ? "built" : std::to_string(best.frame), std::to_string(best.persons),
                           number(best.motion * 100.0, 3), number(best.blur, 0), busy, std::to_string(truthPersons)});
  return truthPersons;
}

// A busy moment with the detections drawn in, to show what the detector sees.
void addBusyFigure(Section& section, const cv::Mat& frame, const OrbivaneCalibration::SmartFinderOptions& options,
                   int busyFrame, const std::string& dir) {
  cv::Mat busy = frame.clone();
  auto detector = OrbivaneCalibration::PersonDetector::create(options.detector);
  if (detector) {
    for (const auto& d : detector.value()->detect(busy)) cv::rectangle(busy, d.box, cv::Scalar(0, 0, 255), 2);
    writePicture(busy, dir + "/frames-busy.png");
    section.figures.push_back({"frames-busy.png", "A busy moment of module left (" + number(busyFrame / kFps, 1) +
                                                      " s) with the persons the detector found"});
  }
}

}  // namespace

Section runFrameFinding(const StepContext& c) {
  const std::string video = c.data + "/vtest.avi";
  cv::VideoCapture capture(video);
  if (!capture.isOpened()) throw CommandError("cannot read the sample video '" + video + "' (opencv-doc installed?)");
  const int frameCount = c.quick ? 120 : 300;
  // The stretch painted empty, in frames.
  const int emptyFrom = c.quick ? 70 : 180, emptyTo = c.quick ? 90 : 210;
  Progress preparing("recording the module videos");
  const RecordedScene scene = readScene(capture, video, frameCount, emptyFrom, emptyTo);
  const std::vector<ModuleView> views = {{"left", cv::Rect(0, 0, 448, 576)}, {"right", cv::Rect(320, 0, 448, 576)}};
  const std::int64_t start = Quarn::parseTimestamp(kStart).value();
  const std::string indexPath = writeRecordings(scene.frames, views, c.dir + "/recordings", start, preparing);
  const CameraDescription::Orbivane camera = recordedCamera(views, indexPath);

  OrbivaneCalibration::SmartFinderImage finder(camera);
  OrbivaneCalibration::SmartFinderOptions options;
  options.stepSeconds = 1.0;
  finder.setOptions(options);
  Progress progress("frame finding");
  finder.registerStatusCallback(progress.callback());
  const Stopwatch watch;
  auto found = finder.find();
  Section section;
  section.seconds = watch.seconds();
  progress.finish();
  if (!found) throw CommandError("frame finding failed: " + found.error());

  describeFrameFinding(section, emptyFrom, emptyTo, finder.detectorDescription());
  bool allEmpty = true;
  int chosen = 0;
  const auto samples = finder.samples();
  for (const auto& view : views) {
    const std::wstring name = Utils::fromUtf8(view.name);
    const auto result = found.value().find(name);
    const std::string busy = busyOfSampled(samples, name);
    if (result == found.value().end() || result->second.empty()) {
      allEmpty = false;
      const auto errors = finder.errors();
      section.table.push_back(
          {view.name, "-", "-", "-", "-", "-", busy, errors.count(name) ? errors.at(name) : "no result"});
      continue;
    }
    const auto& best = result->second.front();
    const int truthPersons = addChosenFrame(section, view, best, scene.background, start, busy, c.dir);
    allEmpty = allEmpty && truthPersons == 0 && best.persons == 0;
    ++chosen;
  }
  const int busyFrame = c.quick ? 30 : 60;
  addBusyFigure(section, scene.frames[std::size_t(busyFrame)](views[0].crop), options, busyFrame, c.dir);
  section.passed = allEmpty && chosen == int(views.size());
  section.result = std::to_string(chosen) + " of " + std::to_string(views.size()) + " modules have an empty frame";
  section.truthError = allEmpty ? "no person in the chosen frames" : "a chosen frame shows people";
  return section;
}

}  // namespace Demo
}  // namespace Tool

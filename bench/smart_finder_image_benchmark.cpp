// Finding person-free frames in recordings of real pedestrians: vtest.avi
// (768 x 576, 10 fps) cut into three module views of 288 x 432, 30 s each.
// In each clip one stretch of 3 s is truly empty (the people painted out by
// the scene's background, the temporal median of the whole video), and a
// stretch of 4 s before it is just as empty but for one person that the
// detectors find hard:
//   left:   a person standing still, cut by the left border;
//   middle: a small person (45 px) far away, walking slowly;
//   right:  a person standing still, cut by the right border (the parked van
//           at the top stays in view all the time).
// Every other frame is the real video.
//
// Accuracy: 10 s windows every 2.5 s, one sample a second. Truth per frame:
// free in the painted stretch, not free where a person was put in, and for
// the real video free when its foreground against the scene's background
// (synthetic/walking_video.h, 20 grey levels) has no blob of more than 100 px in
// the view. For
// every window that samples a free frame the chosen frame must be free (goal:
// every one); a window without one should end in a built background.
// Compared with the finder that judges by the detector and the motion check
// only (the HOG detector at 750 rows, as the finder worked before the
// background model), run on the same windows.
// `--keep DIR` only writes the recordings and their index into DIR.
//
// Timing: time per sampled frame of both finders on the same window (8
// samples, every 2.5 s over 20 s), run alternately in this process; medians
// of wall and process CPU time and their ratio.
//
// Goals (--check exits with 1 when one is missed): the chosen frame is free
// in every window that samples a free frame; ours at most 1.5x the time per
// sampled frame of the finder by detector and motion only, in wall and in
// CPU time (ratios of the medians). --smoke takes a window every 10 s instead
// of every 2.5 s and one timed run, and judges the accuracy only.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <map>
#include <set>

#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/objdetect.hpp>
#include <opencv2/videoio.hpp>

#include "image_selection/person_detector_support.h"
#include "synthetic/walking_video.h"
#include "image_selection/smart_finder_scoring.h"
#include "orbivane/blur_detection/estimate_blur.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/image_selection/smart_finder_image.h"
#include "orbivane/recordings/recording_image_source.h"
#include "orbivane/recordings/recordings_index.h"
#include "orbivane/utils/wide_text.h"
#include "synthetic/connections.h"
#include "synthetic/sample_data.h"
#include "bench_support.h"

namespace {

using OrbivaneCalibration::SmartFinderFrame;
using OrbivaneCalibration::SmartFinderOptions;

constexpr int kClipFrames = 300;  // 30 s at 10 fps
constexpr double kFps = 10.0;
constexpr std::int64_t kStart = 1795341600000LL;  // 2026-11-22T10:00:00Z
constexpr int kTruthBlobArea = 100;               // px: a foreground blob larger than this is someone
const cv::Size kView(288, 432);
std::int64_t windowStep = 2500;  // ms between the accuracy windows (a smoke run: 10000)
int timedRuns = 7;               // alternating runs of each finder (a smoke run: 1)

enum class Kind { Video, Empty, Pasted };

struct ModuleClip {
  std::string name;
  cv::Rect crop;
  int emptyFrom, emptyTo;    // painted, truly empty frames
  int pastedFrom, pastedTo;  // painted frames with one hard person put in
  std::string video;
  std::vector<bool> free;    // truth per frame
  std::vector<Kind> kinds;
};

struct Rig {
  Synthetic::TemporaryDirectory dir;
  std::vector<ModuleClip> modules{{"left", {0, 72, kView.width, kView.height}, 60, 90, 20, 60, "", {}, {}},
                                  {"middle", {240, 72, kView.width, kView.height}, 150, 180, 110, 150, "", {}, {}},
                                  {"right", {480, 0, kView.width, kView.height}, 240, 270, 200, 240, "", {}, {}}};
  std::string index;
  CameraDescription::Orbivane camera;

  Rig() {
    const Synthetic::WalkingClip clip = Synthetic::readWalkingClip(0, kClipFrames, 10);
    // The person put in: the tallest clear walker of frame 60 (about 120 px).
    const Synthetic::PersonCutout walker = Synthetic::cutOutWalker(clip.frames[60], clip.background, 100);
    const Synthetic::PersonCutout small = Synthetic::scaledCutout(walker, 45);
    Quarn::RecordingsIndex recordings;
    for (auto& m : modules) {
      m.video = dir.file(m.name + ".avi");
      cv::VideoWriter writer(m.video, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), kFps, kView);
      for (int i = 0; i < kClipFrames; ++i) {
        const bool empty = i >= m.emptyFrom && i < m.emptyTo;
        const bool pasted = i >= m.pastedFrom && i < m.pastedTo;
        cv::Mat frame;
        if (empty || pasted) {
          frame = Synthetic::emptyScene(clip.frames[i], clip.background)(m.crop).clone();
        } else {
          frame = clip.frames[i](m.crop).clone();
        }
        if (pasted && m.name == "left") {
          // Standing still, 40 % of its width beyond the left border.
          Synthetic::pastePerson(frame, walker, {-static_cast<int>(0.4 * walker.picture.cols), 200});
        } else if (pasted && m.name == "middle") {
          // Far away on the path at the top, half a pixel a frame.
          Synthetic::pastePerson(frame, small, {60 + (i - m.pastedFrom) / 2, 40});
        } else if (pasted) {
          // Standing still, 40 % of its width beyond the right border.
          Synthetic::pastePerson(frame, walker, {kView.width - static_cast<int>(0.6 * walker.picture.cols), 230});
        }
        m.kinds.push_back(empty ? Kind::Empty : pasted ? Kind::Pasted : Kind::Video);
        m.free.push_back(empty ||
                         (!pasted && Synthetic::noPersonIn(clip.frames[i], clip.background, m.crop, kTruthBlobArea)));
        writer.write(frame);
      }
      recordings.recordings.push_back({m.name, m.video, kStart, 0.0});
    }
    index = dir.file("rec.json");
    if (!Quarn::saveRecordingsIndex(recordings, index)) throw std::runtime_error("cannot write the index");
    for (const auto& m : modules) {
      CameraDescription::OrbivaneModule module(Utils::fromUtf8(m.name));
      module.setConnection(Synthetic::recordingsConnection(index, m.name));
      camera.addModule(module);
    }
  }
};

Rig& rig() {
  static Rig r;
  return r;
}

// ------------------------------------------------------------------ the finder by detector and motion only

// The HOG search of the detector-and-motion finder: grey picture brought to
// 750 rows (never shrunk, at most 3x), window stride 8, padding 8, pyramid
// step 1.1, groups of 2, overlapping boxes merged.
class PlainHog {
 public:
  PlainHog() { hog_.setSVMDetector(cv::HOGDescriptor::getDefaultPeopleDetector()); }
  int persons(const cv::Mat& bgr) {
    cv::Mat grey, work;
    cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
    const double scale = std::clamp(750.0 / grey.rows, 1.0, 3.0);
    cv::resize(grey, work, cv::Size(), scale, scale, cv::INTER_LINEAR);
    std::vector<cv::Rect> boxes;
    std::vector<double> weights;
    hog_.detectMultiScale(work, boxes, weights, 0.0, {8, 8}, {8, 8}, 1.1, 2);
    std::vector<OrbivaneCalibration::PersonDetection> found;
    for (const cv::Rect& b : boxes) {
      OrbivaneCalibration::PersonDetection d;
      const auto back = [scale](int v) { return static_cast<int>(std::lround(v / scale)); };
      d.box = cv::Rect(cv::Point(back(b.x), back(b.y)), cv::Point(back(b.x + b.width), back(b.y + b.height)));
      d.confidence = 1;
      found.push_back(d);
    }
    return static_cast<int>(OrbivaneCalibration::finishPersonDetections(
                                OrbivaneCalibration::suppressOverlappingPersons(found, 0.45, 0.7), bgr.size(), 0)
                                .size());
  }

 private:
  cv::HOGDescriptor hog_;
};

// The chosen frame (-1: none free, a background is built) of the finder that
// judges frames by the detector and the motion check alone.
int detectorAndMotionFinder(const std::string& module, std::int64_t from, std::int64_t to, double stepSeconds,
                            PlainHog& hog) {
  ImageSource::RecordingImageSource source;
  source.setIgnoreGeometryGrid(true);
  CameraDescription::OrbivaneModule m = *rig().camera.findModule(Utils::fromUtf8(module));
  if (!source.init({m})) throw std::runtime_error("cannot open the recording of " + module);
  const std::wstring name = m.name();
  const SmartFinderOptions defaults;
  std::vector<SmartFinderFrame> samples;
  std::vector<cv::Mat> kept;
  std::set<int> seen;
  for (std::int64_t t = from; t < to; t += static_cast<std::int64_t>(stepSeconds * 1000)) {
    if (!source.seekToAbsolutePosition(t)) break;
    const auto position = source.position(name).value();
    if (!seen.insert(position.frame).second) continue;
    const auto picture = source.getImages().value().at(name);
    const cv::Mat frame = Image::toMat(picture);
    SmartFinderFrame s;
    s.frame = position.frame;
    s.timeMs = position.frameStartMs;
    s.persons = hog.persons(frame);
    s.blur = BlurDetection::estimateBlur(picture, 0);
    const auto exposure = OrbivaneCalibration::measureExposure(frame);
    s.exposure = exposure.exposure;
    const std::int64_t later = position.frameStartMs + 300;
    if (source.seekToAbsolutePosition(later) || source.seekToAbsolutePosition(position.frameStartMs - 300)) {
      s.motion = OrbivaneCalibration::measureMotion(frame, Image::toMat(source.getImages().value().at(name)));
    }
    if (s.persons > 0 || s.motion > defaults.maxMotion) kept.push_back(frame.clone());
    samples.push_back(s);
  }
  // No foreground: every frame counts as measured-free only by detector and motion.
  const auto picked = OrbivaneCalibration::pickMoments(samples, defaults);
  if (picked.empty()) {
    if (kept.size() >= 3) OrbivaneCalibration::temporalMedian(kept);
    return -1;
  }
  // The chosen frame is read again for its picture.
  const SmartFinderFrame& best = samples[picked.front()];
  if (source.seekToAbsolutePosition(best.timeMs)) source.getImages();
  return best.frame;
}

SmartFinderOptions ourOptions(std::int64_t from, std::int64_t to, double stepSeconds) {
  SmartFinderOptions o;
  o.detector.kind = OrbivaneCalibration::PersonDetectorKind::Hog;
  o.fromMs = from;
  o.toMs = to;
  o.stepSeconds = stepSeconds;
  return o;
}

// ------------------------------------------------------------------ accuracy

struct Tally {
  int windows = 0, withFree = 0, chosenFree = 0, inEmptyStretch = 0, withoutFree = 0, built = 0, chosenBusy = 0;
};

void count(Tally& t, const ModuleClip& m, bool anyFree, int chosen) {
  ++t.windows;
  if (anyFree) {
    ++t.withFree;
    if (chosen >= 0 && m.free[static_cast<std::size_t>(chosen)]) ++t.chosenFree;
    if (chosen >= m.emptyFrom && chosen < m.emptyTo) ++t.inEmptyStretch;
  } else {
    ++t.withoutFree;
    if (chosen < 0) ++t.built;
  }
  if (chosen >= 0 && !m.free[static_cast<std::size_t>(chosen)]) ++t.chosenBusy;
}

const char* kindName(const ModuleClip& m, int frame) {
  if (frame < 0) return "built background";
  switch (m.kinds[static_cast<std::size_t>(frame)]) {
    case Kind::Empty:
      return "painted empty";
    case Kind::Pasted:
      return "hard person put in";
    case Kind::Video:
      return m.free[static_cast<std::size_t>(frame)] ? "video, nobody" : "video, people";
  }
  return "";
}

void printTally(const char* who, const Tally& t) {
  std::printf("  %-34s windows with a free sampled frame %2d: chosen frame free %2d (%3.0f %%), in the painted stretch "
              "%2d; windows without one %2d: built background %2d; chosen frames showing someone %d\n",
              who, t.withFree, t.chosenFree, t.withFree ? 100.0 * t.chosenFree / t.withFree : 0.0, t.inEmptyStretch,
              t.withoutFree, t.built, t.chosenBusy);
}

// Returns whether the chosen frame was free in every window that samples a free frame.
bool accuracy() {
  Tally ours, plain;
  PlainHog hog;
  for (std::int64_t from = 0; from + 10000 <= kClipFrames * 100; from += windowStep) {
    OrbivaneCalibration::SmartFinderImage finder(rig().camera);
    finder.setOptions(ourOptions(kStart + from, kStart + from + 10000, 1.0));
    const auto found = finder.find();
    if (!found) throw std::runtime_error("finder failed: " + found.error());
    for (const auto& m : rig().modules) {
      const std::wstring name = Utils::fromUtf8(m.name);
      const auto samples = finder.samples().at(name);
      bool anyFree = false;
      for (const auto& s : samples) anyFree = anyFree || m.free[static_cast<std::size_t>(s.frame)];
      const SmartFinderFrame& best = found.value().at(name).front();
      const int chosen = best.builtBackground ? -1 : best.frame;
      const int plainChosen = detectorAndMotionFinder(m.name, kStart + from, kStart + from + 10000, 1.0, hog);
      count(ours, m, anyFree, chosen);
      count(plain, m, anyFree, plainChosen);
      std::printf("  %-6s window %2lld-%2lld s: %s; ours: %s (%s, foreground %.4f, blob %.0f px), detector and motion "
                  "only: %s (%s)\n",
                  m.name.c_str(), static_cast<long long>(from / 1000), static_cast<long long>(from / 1000 + 10),
                  anyFree ? "samples a free frame" : "no free frame sampled",
                  chosen < 0 ? "-" : std::to_string(chosen).c_str(), kindName(m, chosen), best.foreground,
                  best.foregroundBlob, plainChosen < 0 ? "-" : std::to_string(plainChosen).c_str(),
                  kindName(m, plainChosen));
    }
  }
  std::printf("accuracy over %d module windows (10 s, one sample a second):\n", ours.windows);
  printTally("ours (background model):", ours);
  printTally("detector and motion only:", plain);
  const bool met = ours.chosenFree == ours.withFree;
  std::printf("goal the chosen frame is free in every window that samples a free frame, %d of %d: %s\n",
              ours.chosenFree, ours.withFree, met ? "met" : "MISSED");
  std::fflush(stdout);
  return met;
}

// ------------------------------------------------------------------ time per sampled frame

double processSeconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + t.tv_nsec * 1e-9;
}

double median(std::vector<double> v) {
  std::nth_element(v.begin(), v.begin() + static_cast<long>(v.size() / 2), v.end());
  return v[v.size() / 2];
}

// Returns the ratios ours / detector and motion only of the medians, wall and CPU.
std::pair<double, double> timing() {
  constexpr int kSamples = 8;  // every 2.5 s over the first 20 s
  const std::int64_t from = kStart, to = kStart + 20000;
  PlainHog hog;
  OrbivaneCalibration::SmartFinderImage finder(rig().camera);
  finder.setOptions(ourOptions(from, to, 2.5));
  std::vector<double> plainWall, plainCpu, ourWall, ourCpu;
  for (int run = 0; run < timedRuns; ++run) {
    double wall = cv::getTickCount(), cpu = processSeconds();
    detectorAndMotionFinder("middle", from, to, 2.5, hog);
    plainWall.push_back((cv::getTickCount() - wall) / cv::getTickFrequency() * 1000 / kSamples);
    plainCpu.push_back((processSeconds() - cpu) * 1000 / kSamples);
    wall = cv::getTickCount();
    cpu = processSeconds();
    const auto found = finder.find({L"middle"});
    ourWall.push_back((cv::getTickCount() - wall) / cv::getTickFrequency() * 1000 / kSamples);
    ourCpu.push_back((processSeconds() - cpu) * 1000 / kSamples);
    if (!found || finder.samples().at(L"middle").size() != kSamples) throw std::runtime_error("timed run failed");
  }
  const double pw = median(plainWall), pc = median(plainCpu), ow = median(ourWall), oc = median(ourCpu);
  std::printf("time per sampled frame (%d samples, 288x432, single-threaded, median of %d alternating runs):\n",
              kSamples, timedRuns);
  std::printf("  detector and motion only: %.1f ms wall, %.1f ms CPU\n", pw, pc);
  std::printf("  ours (background model):  %.1f ms wall, %.1f ms CPU\n", ow, oc);
  std::fflush(stdout);
  return {ow / pw, oc / pc};
}

}  // namespace

int main(int argc, char** argv) {
  const Bench::Options options = Bench::parsePlainOptions(argc, argv, "| --keep DIR", 1, {"--keep"});
  const bool check = options.check, smoke = options.smoke;
  if (options.has("--keep") != (options.positional.size() == 1)) {
    std::fprintf(stderr, "usage: %s [--check] [--smoke] | --keep DIR\n", argv[0]);
    return 2;
  }
  const std::string keep = options.has("--keep") ? options.positional.front() : std::string();
  if (smoke) {
    windowStep = 10000;
    timedRuns = 1;
  }
  cv::setNumThreads(1);
  rig();
  if (!keep.empty()) {
    // The recordings and their index, for a look with find-frames.
    std::filesystem::create_directories(keep);
    for (const auto& m : rig().modules) {
      std::filesystem::copy_file(m.video, keep + "/" + m.name + ".avi",
                                 std::filesystem::copy_options::overwrite_existing);
    }
    std::filesystem::copy_file(rig().index, keep + "/rec.json", std::filesystem::copy_options::overwrite_existing);
    std::printf("recordings written to %s\n", keep.c_str());
    return 0;
  }
  for (const auto& m : rig().modules) {
    const int free = static_cast<int>(std::count(m.free.begin(), m.free.end(), true));
    std::printf("%s: %d of %d frames free by the truth; painted empty %d-%d, hard person %d-%d\n", m.name.c_str(), free,
                kClipFrames, m.emptyFrom, m.emptyTo - 1, m.pastedFrom, m.pastedTo - 1);
  }
  const bool accurate = accuracy();
  const auto [wall, cpu] = timing();
  constexpr double kRatioGoal = 1.5;
  const auto speed = [smoke](bool met) { return smoke ? "not judged (smoke run)" : met ? "met" : "MISSED"; };
  std::printf("goal time per sampled frame, ours / detector and motion only %.2fx wall, at most %.1fx: %s\n", wall,
              kRatioGoal, speed(wall <= kRatioGoal));
  std::printf("goal time per sampled frame, ours / detector and motion only %.2fx CPU, at most %.1fx: %s\n", cpu,
              kRatioGoal, speed(cpu <= kRatioGoal));
  const bool ok = accurate && (smoke || (wall <= kRatioGoal && cpu <= kRatioGoal));
  std::printf("%s\n", ok ? "goals met" : "GOAL MISSED");
  return (check || smoke) && !ok ? 1 : 0;
}

// Finding person-free frames in recordings of real pedestrians: vtest.avi
// (768 x 576, 10 fps) cut into three module views, with a stretch of each
// clip where the people are painted out by a background model (the temporal
// median of the whole clip), so person-free moments exist at known times.
//
// Accuracy: over several time windows, how often the chosen frame lies in the
// painted (truly empty) stretch when the window samples it, and that a
// chosen frame never shows a detected person when a free one was sampled.
// Timing: a finder run over 8 sampled frames against a plain OpenCV loop on
// the same frames (VideoCapture seek + read, HOG detectMultiScale, Laplacian
// variance), once with HOG on the frame as it is and once on the frame
// enlarged to 750 rows as our detector does.
#include <cstdio>
#include <filesystem>
#include <map>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/objdetect.hpp>
#include <opencv2/videoio.hpp>

#include "bench_support.h"
#include "image_selection/smart_finder_scoring.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/image_selection/smart_finder_image.h"
#include "orbivane/platform/recordings_index.h"
#include "orbivane/utils/wide_text.h"
#include "support/sample_data.h"

namespace {

constexpr int kClipFrames = 300;  // 30 s at 10 fps
constexpr double kFps = 10.0;
constexpr std::int64_t kStart = 1795341600000LL;  // 2026-11-22T10:00:00Z
const cv::Size kCrop(288, 432);

struct ModuleClip {
  std::string name;
  cv::Rect crop;
  int paintedFrom;  // painted (person-free) frames [from, to)
  int paintedTo;
  std::string video;
};

struct Rig {
  Testing::TemporaryDirectory dir;
  std::vector<ModuleClip> modules{{"left", {0, 72, kCrop.width, kCrop.height}, 60, 90, ""},
                                  {"middle", {240, 72, kCrop.width, kCrop.height}, 150, 180, ""},
                                  {"right", {480, 72, kCrop.width, kCrop.height}, 240, 270, ""}};
  std::string index;
  CameraDescription::Orbivane camera;

  Rig() {
    cv::VideoCapture video(Testing::samplePath("vtest.avi"));
    std::vector<cv::Mat> frames;
    for (int i = 0; i < kClipFrames; ++i) {
      cv::Mat f;
      if (!video.read(f)) throw std::runtime_error("vtest.avi is shorter than expected");
      frames.push_back(f);
    }
    std::vector<cv::Mat> spread;
    for (int i = 0; i < kClipFrames; i += 10) spread.push_back(frames[i]);
    const cv::Mat background = OrbivaneCalibration::temporalMedian(spread);
    Quarn::RecordingsIndex recordings;
    for (auto& m : modules) {
      m.video = dir.file(m.name + ".avi");
      cv::VideoWriter writer(m.video, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), kFps, kCrop);
      for (int i = 0; i < kClipFrames; ++i) {
        const cv::Mat& source = i >= m.paintedFrom && i < m.paintedTo ? background : frames[i];
        writer.write(source(m.crop));
      }
      recordings.recordings.push_back({m.name, m.video, kStart, 0.0});
    }
    index = dir.file("rec.json");
    if (!Quarn::saveRecordingsIndex(recordings, index)) throw std::runtime_error("cannot write the index");
    for (const auto& m : modules) {
      CameraDescription::OrbivaneModule module(Utils::fromUtf8(m.name));
      Quarn::QuarnConnection c;
      c.backend = "simulated";
      c.address = index;
      c.device = m.name;
      module.setConnection(c);
      camera.addModule(module);
    }
  }
};

Rig& rig() {
  static Rig r;
  return r;
}

// The frames the timing runs sample: every 2.5 s over the first 20 s.
constexpr int kTimedFrames = 8;
OrbivaneCalibration::SmartFinderOptions timedOptions() {
  OrbivaneCalibration::SmartFinderOptions o;
  o.detector.kind = OrbivaneCalibration::PersonDetectorKind::Hog;
  o.fromMs = kStart;
  o.toMs = kStart + 20000;
  o.stepSeconds = 2.5;
  return o;
}

double laplacianVariance(const cv::Mat& bgr) {
  cv::Mat grey, lap;
  cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
  cv::Laplacian(grey, lap, CV_64F);
  cv::Scalar mean, sd;
  cv::meanStdDev(lap, mean, sd);
  return sd[0] * sd[0];
}

void referenceLoop(benchmark::State& state, bool enlarge) {
  const ModuleClip& clip = rig().modules[0];
  cv::HOGDescriptor hog;
  hog.setSVMDetector(cv::HOGDescriptor::getDefaultPeopleDetector());
  for (auto _ : state) {
    cv::VideoCapture video(clip.video);
    int found = 0;
    double sharpness = 0;
    for (int i = 0; i < kTimedFrames; ++i) {
      video.set(cv::CAP_PROP_POS_FRAMES, i * 25);
      cv::Mat frame;
      video.read(frame);
      cv::Mat work = frame;
      if (enlarge) cv::resize(frame, work, {}, 750.0 / frame.rows, 750.0 / frame.rows, cv::INTER_LINEAR);
      std::vector<cv::Rect> people;
      hog.detectMultiScale(work, people);
      found += static_cast<int>(people.size());
      sharpness += laplacianVariance(frame);
    }
    benchmark::DoNotOptimize(found);
    benchmark::DoNotOptimize(sharpness);
  }
}

void ReferenceLoop(benchmark::State& state) { referenceLoop(state, false); }
void ReferenceLoopEnlarged(benchmark::State& state) { referenceLoop(state, true); }

void SmartFinder(benchmark::State& state) {
  OrbivaneCalibration::SmartFinderImage finder(rig().camera);
  finder.setOptions(timedOptions());
  for (auto _ : state) {
    auto found = finder.find({L"left"});
    if (!found || finder.samples().at(L"left").size() != kTimedFrames) state.SkipWithError("finder run failed");
    benchmark::DoNotOptimize(found);
  }
}

BENCHMARK(ReferenceLoop)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(ReferenceLoopEnlarged)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK(SmartFinder)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(5)->ReportAggregatesOnly(true);

cv::HOGDescriptor& sensitiveHog() {
  static cv::HOGDescriptor hog = [] {
    cv::HOGDescriptor h;
    h.setSVMDetector(cv::HOGDescriptor::getDefaultPeopleDetector());
    return h;
  }();
  return hog;
}

// Windows of 10 s every 5 s over the 30 s clip, one sample a second.
void accuracy(OrbivaneCalibration::PersonDetectorKind kind) {
  int withFree = 0, chosenPainted = 0, chosenDetectedFree = 0, chosenWithPerson = 0, withoutFree = 0,
      backgrounds = 0, trials = 0;
  std::string description;
  for (std::int64_t from = 0; from + 10000 <= kClipFrames * 100; from += 5000) {
    OrbivaneCalibration::SmartFinderOptions o;
    o.detector.kind = kind;
    o.fromMs = kStart + from;
    o.toMs = kStart + from + 10000;
    o.stepSeconds = 1.0;
    OrbivaneCalibration::SmartFinderImage finder(rig().camera);
    finder.setOptions(o);
    const auto found = finder.find();
    if (!found) {
      std::printf("finder failed: %s\n", found.error().c_str());
      return;
    }
    description = finder.detectorDescription();
    for (const auto& m : rig().modules) {
      const std::wstring name = Utils::fromUtf8(m.name);
      ++trials;
      const auto samples = finder.samples().at(name);
      bool paintedSampled = false, anyDetectedFree = false;
      for (const auto& s : samples) {
        paintedSampled |= s.frame >= m.paintedFrom && s.frame < m.paintedTo;
        anyDetectedFree |= s.persons == 0;
      }
      const auto& best = found.value().at(name).front();
      if (best.builtBackground) ++backgrounds;
      if (paintedSampled) {
        ++withFree;
        if (!best.builtBackground && best.frame >= m.paintedFrom && best.frame < m.paintedTo) {
          ++chosenPainted;
        } else if (!best.builtBackground) {
          // A real frame where the detector saw nobody won on sharpness (the
          // painted frames are a median, a little softer). Check it with a
          // more sensitive plain HOG at twice the size.
          const cv::Mat picture = Image::toMat(best.picture);
          cv::Mat big;
          cv::resize(picture, big, {}, 2.0, 2.0, cv::INTER_LINEAR);
          std::vector<cv::Rect> people;
          sensitiveHog().detectMultiScale(big, people, -0.3);
          std::printf("  %s, window from %lld s: chose frame %d outside the painted %d-%d (blur %.0f); sensitive "
                      "plain HOG finds %zu persons in it\n",
                      m.name.c_str(), static_cast<long long>(from / 1000), best.frame, m.paintedFrom, m.paintedTo - 1,
                      best.blur, people.size());
        }
      } else {
        ++withoutFree;
      }
      if (anyDetectedFree) {
        if (best.persons == 0 && !best.builtBackground) ++chosenDetectedFree;
        if (best.persons > 0) ++chosenWithPerson;
      }
    }
  }
  std::printf("accuracy (%s): %d module windows\n", description.c_str(), trials);
  std::printf("  windows sampling the painted empty stretch: %d; chosen frame inside it: %d (%.0f %%)\n", withFree,
              chosenPainted, withFree ? 100.0 * chosenPainted / withFree : 0.0);
  std::printf("  chosen frame shows a detected person although a free one was sampled: %d (goal 0)\n",
              chosenWithPerson);
  std::printf("  windows without the stretch: %d; built backgrounds: %d\n", withoutFree, backgrounds);
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  cv::setNumThreads(1);
  rig();
  accuracy(OrbivaneCalibration::PersonDetectorKind::Auto);
  Bench::runAndCompare(argc, argv,
                       {{"8 sampled frames, plain loop (HOG at frame size) vs finder", "ReferenceLoop", "SmartFinder"},
                        {"8 sampled frames, plain loop (HOG at 750 rows) vs finder", "ReferenceLoopEnlarged",
                         "SmartFinder"}});
  return 0;
}

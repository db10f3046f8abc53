// The frame finder's driver: searches each module's recordings, samples
// frames, measures them and picks the moments (see smart_finder_image.h).
#include "orbivane/image_selection/smart_finder_image.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <mutex>
#include <set>

#include <opencv2/core.hpp>

#include "image_selection/smart_finder_scoring.h"
#include "logging/logger_setup.h"
#include "orbivane/blur_detection/estimate_blur.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/platform/recording_image_source.h"
#include "orbivane/platform/recordings_index.h"
#include "orbivane/utils/wide_text.h"

namespace OrbivaneCalibration {

namespace {

constexpr int kMostSamples = 10000;
const char* const kLoggerName = "SmartFinderImage";

// What one module's search needs between planning and sampling.
struct ModulePlan {
  std::wstring name;
  std::shared_ptr<const CameraDescription::OrbivaneModule> module;
  std::unique_ptr<ImageSource::RecordingImageSource> source;
  std::vector<std::int64_t> times;
};

}  // namespace

Utils::ReturnState<bool, std::string> SmartFinderOptions::validate() const {
  if (fromMs && toMs && *toMs <= *fromMs) return Utils::failure("the time window ends before it starts");
  if (!std::isfinite(stepSeconds) || stepSeconds < 0) {
    return Utils::failure("the sampling step must be 0 or more seconds");
  }
  if (stepSeconds == 0 && (samples < 1 || samples > kMostSamples)) {
    return Utils::failure("the number of samples must be from 1 to " + std::to_string(kMostSamples));
  }
  if (!std::isfinite(blurWeight) || !std::isfinite(exposureWeight) || blurWeight < 0 || exposureWeight < 0 ||
      blurWeight + exposureWeight <= 0) {
    return Utils::failure("the blur and exposure weights must be 0 or more, and not both 0");
  }
  if (momentsPerModule < 1 || momentsPerModule > 100) return Utils::failure("moments per module must be from 1 to 100");
  if (!std::isfinite(minimumSpacingSeconds) || minimumSpacingSeconds < 0) {
    return Utils::failure("the spacing between moments must be 0 or more seconds");
  }
  if (backgroundFrames < 3 || backgroundFrames > 200) {
    return Utils::failure("the background must be built from 3 to 200 frames");
  }
  if (!std::isfinite(motionGapSeconds) || motionGapSeconds <= 0 || motionGapSeconds > 60) {
    return Utils::failure("the motion gap must be above 0 and at most 60 seconds");
  }
  if (!std::isfinite(maxMotion) || maxMotion < 0 || maxMotion > 1) {
    return Utils::failure("the largest motion share must lie in 0..1");
  }
  return true;
}

class SmartFinderImageState {
 public:
  explicit SmartFinderImageState(const CameraDescription::Orbivane& c)
      : camera(c), logger(Utils::calibratorLogger(kLoggerName)) {}

  std::atomic<bool> abortFlag{false};
  CameraDescription::Orbivane camera;
  SmartFinderOptions options;
  GeometryCalibration::StatusCallback callback;
  std::shared_ptr<spdlog::logger> logger;
  mutable std::mutex mutex;  // guards the results below against readers on other threads
  std::map<std::wstring, std::vector<SmartFinderFrame>> results;
  std::map<std::wstring, std::vector<SmartFinderFrame>> samples;
  std::map<std::wstring, std::string> errors;
  std::string detectorDescription;
};

SmartFinderImage::SmartFinderImage(const CameraDescription::Orbivane& camera)
    : state_(std::make_unique<SmartFinderImageState>(camera)) {}
SmartFinderImage::~SmartFinderImage() = default;

void SmartFinderImage::setOptions(const SmartFinderOptions& options) { state_->options = options; }
SmartFinderOptions SmartFinderImage::options() const { return state_->options; }
void SmartFinderImage::registerStatusCallback(GeometryCalibration::StatusCallback callback) {
  state_->callback = std::move(callback);
}
void SmartFinderImage::abort() { state_->abortFlag = true; }
bool SmartFinderImage::aborted() const { return state_->abortFlag; }

namespace {

// Sample times over [from, to) that a recording covers.
std::vector<std::int64_t> sampleTimes(const SmartFinderOptions& o, std::int64_t from, std::int64_t to,
                                      const std::vector<Quarn::SearchInfo>& recordings, std::string& error) {
  std::vector<std::int64_t> times;
  const auto covered = [&](std::int64_t t) {
    return std::any_of(recordings.begin(), recordings.end(),
                       [t](const Quarn::SearchInfo& r) { return r.startMs <= t && t < r.endMs; });
  };
  if (o.stepSeconds > 0) {
    const double stepMs = o.stepSeconds * 1000.0;
    if (static_cast<double>(to - from) / stepMs > kMostSamples) {
      error = "the sampling step of " + std::to_string(o.stepSeconds) + " s gives more than " +
              std::to_string(kMostSamples) + " samples in the window";
      return {};
    }
    for (int i = 0;; ++i) {
      const std::int64_t t = from + static_cast<std::int64_t>(std::llround(i * stepMs));
      if (t >= to) break;
      if (covered(t)) times.push_back(t);
    }
  } else {
    const double part = static_cast<double>(to - from) / o.samples;
    for (int i = 0; i < o.samples; ++i) {
      const std::int64_t t = from + static_cast<std::int64_t>(std::floor((i + 0.5) * part));
      if (covered(t) && (times.empty() || times.back() != t)) times.push_back(t);
    }
  }
  return times;
}

}  // namespace

Utils::ReturnState<std::map<std::wstring, std::vector<SmartFinderFrame>>, std::string> SmartFinderImage::find(
    std::list<std::wstring> modules) {
  SmartFinderImageState& s = *state_;
  const SmartFinderOptions options = s.options;
  auto valid = options.validate();
  if (!valid) return Utils::failure(valid.error());
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    s.results.clear();
    s.samples.clear();
    s.errors.clear();
  }
  if (modules.empty()) {
    for (const auto& m : s.camera.modules()) {
      if (m && m->connection()) modules.push_back(m->name());
    }
    if (modules.empty()) return Utils::failure("no module of the camera has a connection to recordings");
  }
  for (const auto& name : modules) {
    if (!s.camera.findModule(name)) return Utils::failure("the camera has no module '" + Utils::toUtf8(name) + "'");
  }
  auto made = PersonDetector::create(options.detector);
  if (!made) return Utils::failure("person detector: " + made.error());
  std::unique_ptr<PersonDetector> detector = std::move(made.value());
  s.detectorDescription = detector->description();
  s.logger->info("Person detector: {}", s.detectorDescription);

  const auto fail = [&s](const std::wstring& name, const std::string& why) {
    s.logger->error("Module {}: {}", Utils::toUtf8(name), why);
    std::lock_guard<std::mutex> lock(s.mutex);
    s.errors[name] = why;
  };

  // Plan: each module's recordings in the window and its sample times.
  std::vector<ModulePlan> plans;
  std::set<std::wstring> seen;
  for (const auto& name : modules) {
    if (!seen.insert(name).second) continue;
    ModulePlan plan;
    plan.name = name;
    plan.module = s.camera.findModule(name);
    if (!plan.module->connection()) {
      fail(name, "has no connection to a recording system");
      continue;
    }
    plan.source = std::make_unique<ImageSource::RecordingImageSource>();
    plan.source->setIgnoreGeometryGrid(true);
    auto ready = plan.source->init({*plan.module});
    if (!ready) {
      fail(name, ready.error());
      continue;
    }
    const std::int64_t from = options.fromMs ? *options.fromMs : 0;
    const std::int64_t to = options.toMs ? *options.toMs : std::numeric_limits<std::int64_t>::max();
    auto recordings = plan.source->recordings(name, from, to);
    if (!recordings) {
      fail(name, recordings.error());
      continue;
    }
    if (recordings.value().empty()) {
      fail(name, "has no recording in the time window");
      continue;
    }
    std::int64_t first = std::numeric_limits<std::int64_t>::max(), last = std::numeric_limits<std::int64_t>::min();
    for (const auto& r : recordings.value()) {
      first = std::min(first, r.startMs);
      last = std::max(last, r.endMs);
    }
    std::string error;
    plan.times = sampleTimes(options, options.fromMs ? *options.fromMs : first, options.toMs ? *options.toMs : last,
                             recordings.value(), error);
    if (!error.empty()) return Utils::failure(error);
    if (plan.times.empty()) {
      fail(name, "no sample time of the window falls on one of its recordings");
      continue;
    }
    plans.push_back(std::move(plan));
  }

  int total = 0;
  for (const auto& plan : plans) total += static_cast<int>(plan.times.size());
  int step = 0;

  for (auto& plan : plans) {
    if (s.abortFlag) break;
    const std::string name = Utils::toUtf8(plan.name);
    const int rotation = plan.module->rotation();
    std::vector<SmartFinderFrame> samples;
    // Frames kept for a clean background, evenly over the samples, dropped
    // once a frame without persons turns up.
    const std::size_t keepEvery =
        std::max<std::size_t>(1, (plan.times.size() + options.backgroundFrames - 1) / options.backgroundFrames);
    std::vector<cv::Mat> kept;
    std::vector<std::int64_t> keptTimes;
    bool anyFree = false;
    std::set<std::pair<std::string, int>> frames;
    std::string moduleError;
    for (std::size_t i = 0; i < plan.times.size(); ++i) {
      if (s.abortFlag) break;
      const std::int64_t t = plan.times[i];
      ++step;
      if (s.callback) {
        s.callback(step, total, "Sampling Module " + name + " at " + Quarn::formatTimestamp(t),
                   GeometryCalibration::AdvStepInfo());
      }
      auto sought = plan.source->seekToAbsolutePosition(t);
      if (!sought) {
        moduleError = sought.error();
        break;
      }
      const auto position = plan.source->position(plan.name).value();
      if (!frames.insert({position.recording.track, position.frame}).second) continue;  // same frame again
      auto images = plan.source->getImages();
      if (!images) {
        moduleError = images.error();
        break;
      }
      const auto picture = images.value().at(plan.name);
      const cv::Mat frame = Image::toMat(picture);
      SmartFinderFrame sample;
      sample.module = plan.name;
      sample.timeMs = position.frameStartMs;
      sample.track = position.recording.track;
      sample.frame = position.frame;
      try {
        const auto persons = detector->detect(frame);
        sample.persons = static_cast<int>(persons.size());
        for (const auto& p : persons) sample.personBoxes.push_back(p.box);
        sample.blur = BlurDetection::estimateBlur(picture, rotation);
      } catch (const std::exception& e) {
        moduleError = std::string("measuring the frame at ") + Quarn::formatTimestamp(t) + " failed: " + e.what();
        break;
      }
      const ExposureMeasure exposure = measureExposure(frame);
      sample.brightness = exposure.brightness;
      sample.clipped = exposure.clipped;
      sample.exposure = exposure.exposure;
      // Motion against a frame a little later (earlier at a recording's end).
      const std::int64_t gapMs = static_cast<std::int64_t>(std::llround(options.motionGapSeconds * 1000.0));
      for (const std::int64_t other : {position.frameStartMs + gapMs, position.frameStartMs - gapMs}) {
        auto moved = plan.source->seekToAbsolutePosition(other);
        if (!moved) continue;
        const auto otherPosition = plan.source->position(plan.name).value();
        if (otherPosition.frame == position.frame && otherPosition.recording.track == position.recording.track) {
          continue;
        }
        auto otherImages = plan.source->getImages();
        if (!otherImages) continue;
        sample.motion = measureMotion(frame, Image::toMat(otherImages.value().at(plan.name)));
        break;
      }
      s.logger->debug("Module {} at {}: {} persons, blur {}, brightness {:.1f}, motion {:.5f}", name,
                      Quarn::formatTimestamp(t), sample.persons, sample.blur, sample.brightness, sample.motion);
      if (sample.persons == 0 && sample.motion <= options.maxMotion) {
        anyFree = true;
        kept.clear();
        keptTimes.clear();
      } else if (!anyFree && i % keepEvery == 0) {
        kept.push_back(frame);
        keptTimes.push_back(sample.timeMs);
      }
      samples.push_back(std::move(sample));
    }
    if (!moduleError.empty() && samples.empty()) {
      fail(plan.name, moduleError);
      continue;
    }
    if (!moduleError.empty()) s.logger->warn("Module {}: {}; picking among the frames read so far", name, moduleError);

    std::vector<SmartFinderFrame> chosen;
    const auto picked = pickMoments(samples, options);
    for (std::size_t index : picked) {
      SmartFinderFrame moment = samples[index];
      auto sought = plan.source->seekToAbsolutePosition(moment.timeMs);
      auto images = sought ? plan.source->getImages()
                           : Utils::ReturnState<std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>>,
                                                std::string>(Utils::failure(sought.error()));
      if (!images) {
        s.logger->error("Module {}: cannot read the chosen frame again: {}", name, images.error());
        continue;
      }
      moment.picture = images.value().at(plan.name);
      chosen.push_back(std::move(moment));
    }
    if (picked.empty() && kept.size() >= 3) {
      // No frame without persons: build the background behind them.
      SmartFinderFrame background;
      background.module = plan.name;
      background.builtBackground = true;
      background.framesUsed = static_cast<int>(kept.size());
      background.timeMs = keptTimes[keptTimes.size() / 2];
      background.track = samples.empty() ? std::string() : samples[samples.size() / 2].track;
      const cv::Mat median = temporalMedian(kept);
      background.picture = Image::fromMat(median);
      try {
        const auto persons = detector->detect(median);
        background.persons = static_cast<int>(persons.size());
        for (const auto& p : persons) background.personBoxes.push_back(p.box);
        background.blur = BlurDetection::estimateBlur(background.picture, rotation);
      } catch (const std::exception& e) {
        s.logger->error("Module {}: measuring the built background failed: {}", name, e.what());
      }
      const ExposureMeasure exposure = measureExposure(median);
      background.brightness = exposure.brightness;
      background.clipped = exposure.clipped;
      background.exposure = exposure.exposure;
      double largestBlur = background.blur;
      for (const auto& sample : samples) largestBlur = std::max(largestBlur, sample.blur);
      background.score = options.blurWeight * (largestBlur > 0 ? background.blur / largestBlur : 0.0) +
                         options.exposureWeight * background.exposure;
      const std::string line = "Module " + name + " has no frame without persons; built a background from " +
                               std::to_string(kept.size()) + " frames";
      s.logger->warn("{}", line);
      if (s.callback) s.callback(step, total, line, GeometryCalibration::AdvStepInfo());
      chosen.push_back(std::move(background));
    } else if (picked.empty()) {
      fail(plan.name, "every sampled frame shows persons and too few frames were sampled to build a background");
    }
    for (auto& sample : samples) sample.picture.reset();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.samples[plan.name] = std::move(samples);
    if (!chosen.empty()) s.results[plan.name] = std::move(chosen);
  }
  if (s.abortFlag) s.logger->info("Search aborted; returning the moments found so far");
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.results;
}

std::map<std::wstring, std::vector<SmartFinderFrame>> SmartFinderImage::results() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->results;
}

std::map<std::wstring, std::string> SmartFinderImage::errors() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->errors;
}

std::map<std::wstring, std::vector<SmartFinderFrame>> SmartFinderImage::samples() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->samples;
}

std::string SmartFinderImage::detectorDescription() const { return state_->detectorDescription; }

std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> SmartFinderImage::images() const {
  std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images;
  std::lock_guard<std::mutex> lock(state_->mutex);
  for (const auto& [name, moments] : state_->results) {
    if (!moments.empty() && moments.front().picture) images[name] = moments.front().picture;
  }
  return images;
}

CameraDescription::Orbivane SmartFinderImage::cameraWithPictures() const {
  CameraDescription::Orbivane copy = state_->camera;
  for (const auto& [name, picture] : images()) {
    const auto module = copy.findModule(name);
    if (!module) continue;
    module->setImage(picture);
    module->setImagePath(std::string());
  }
  return copy;
}

}  // namespace OrbivaneCalibration

// The frame finder's driver: searches each module's recordings, samples
// frames, measures them and picks the moments (see smart_finder_image.h).
#include "orbivane/image_selection/smart_finder_image.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <mutex>
#include <set>

#include <opencv2/core.hpp>
#include <spdlog/logger.h>

#include "image_selection/background_model.h"
#include "image_selection/smart_finder_scoring.h"
#include "logging/logger_setup.h"
#include "orbivane/blur_detection/estimate_blur.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/recordings/recording_image_source.h"
#include "orbivane/recordings/recordings_index.h"
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
  std::vector<std::int64_t> times;       // the samples
  std::vector<std::int64_t> modelTimes;  // further frames read for the background model only
};

class ModuleSearch;

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
  if (!std::isfinite(maxForeground) || maxForeground < 0 || maxForeground > 1) {
    return Utils::failure("the largest foreground share must lie in 0..1");
  }
  if (smallestPersonHeight < 8 || smallestPersonHeight > 2000) {
    return Utils::failure("the smallest person height must be from 8 to 2000 pixels");
  }
  return true;
}

struct SmartFinderImage::Impl {
 public:
  explicit Impl(const CameraDescription::Orbivane& c)
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

  // Logs a module's failure and keeps it.
  void fail(const std::wstring& name, const std::string& why);
  // The steps of a search (see find()): each module's recordings in the
  // window and its sample times (modules that cannot be searched fail; a
  // window that cannot be sampled fails the search); a module's samples
  // read, measured and its frames chosen (or its background built).
  Utils::ReturnState<bool, std::string> planModules(const std::list<std::wstring>& modules,
                                                    const SmartFinderOptions& settings, std::vector<ModulePlan>& plans);
  void searchModule(ModulePlan& plan, const SmartFinderOptions& settings, PersonDetector& detector, int& step,
                    int total);
  std::vector<SmartFinderFrame> chosenFrames(ModulePlan& plan, ModuleSearch& search,
                                             std::vector<SmartFinderFrame>& taken, const SmartFinderOptions& settings,
                                             int step, int total);
};

SmartFinderImage::SmartFinderImage(const CameraDescription::Orbivane& camera)
    : impl_(std::make_unique<SmartFinderImage::Impl>(camera)) {}
SmartFinderImage::~SmartFinderImage() = default;

void SmartFinderImage::setOptions(const SmartFinderOptions& options) { impl_->options = options; }
SmartFinderOptions SmartFinderImage::options() const { return impl_->options; }
void SmartFinderImage::registerStatusCallback(GeometryCalibration::StatusCallback callback) {
  impl_->callback = std::move(callback);
}
void SmartFinderImage::abort() { impl_->abortFlag = true; }
bool SmartFinderImage::aborted() const { return impl_->abortFlag; }

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

// `count` indices spread evenly over [0, size) (all of them when size <= count).
std::vector<std::size_t> spreadIndices(std::size_t size, std::size_t count) {
  std::vector<std::size_t> indices;
  if (size <= count) {
    for (std::size_t i = 0; i < size; ++i) indices.push_back(i);
    return indices;
  }
  for (std::size_t i = 0; i < count; ++i) indices.push_back((2 * i + 1) * size / (2 * count));
  return indices;
}

// Times for the background model besides the samples: while there are
// fewer than backgroundFrames, the middles of the longest gaps between the
// times so far and the window's ends [from, to) are added (of several equal
// gaps, an even spread of them), kept when a recording covers them, so the
// model's frames spread over the whole window.
std::vector<std::int64_t> modelTimes(const SmartFinderOptions& o, std::int64_t from, std::int64_t to,
                                     const std::vector<Quarn::SearchInfo>& recordings,
                                     const std::vector<std::int64_t>& samples) {
  std::vector<std::int64_t> points{from};
  for (const std::int64_t t : samples) {
    if (t > from && t < to) points.push_back(t);
  }
  points.push_back(to);
  std::sort(points.begin(), points.end());
  std::vector<std::int64_t> extra;
  std::size_t missing =
      samples.size() < static_cast<std::size_t>(o.backgroundFrames) ? o.backgroundFrames - samples.size() : 0;
  while (missing > 0) {
    std::int64_t widest = 0;
    for (std::size_t i = 0; i + 1 < points.size(); ++i) widest = std::max(widest, points[i + 1] - points[i]);
    if (widest < 2) break;
    std::vector<std::size_t> gaps;  // those as wide as the widest
    for (std::size_t i = 0; i + 1 < points.size(); ++i) {
      if (points[i + 1] - points[i] == widest) gaps.push_back(i);
    }
    std::vector<std::int64_t> middles;
    for (std::size_t k : spreadIndices(gaps.size(), missing)) middles.push_back(points[gaps[k]] + widest / 2);
    missing -= middles.size();
    for (const std::int64_t middle : middles) {
      const bool covered = std::any_of(recordings.begin(), recordings.end(), [middle](const Quarn::SearchInfo& r) {
        return r.startMs <= middle && middle < r.endMs;
      });
      if (covered) extra.push_back(middle);
    }
    points.insert(points.end(), middles.begin(), middles.end());
    std::sort(points.begin(), points.end());
  }
  return extra;
}

// One frame of a module's recordings.
struct ReadFrame {
  ImageSource::RecordingImageSource::Position position;
  std::shared_ptr<Image::UniversalImageInterface> picture;
  cv::Mat mat;  // BGR, sharing the picture's pixels
};

Utils::ReturnState<ReadFrame, std::string> readFrame(ImageSource::RecordingImageSource& source,
                                                     const std::wstring& module, std::int64_t timeMs) {
  auto sought = source.seekToAbsolutePosition(timeMs);
  if (!sought) return Utils::failure(sought.error());
  auto position = source.position(module);
  if (!position) return Utils::failure(position.error());
  auto images = source.getImages();
  if (!images) return Utils::failure(images.error());
  ReadFrame frame;
  frame.position = position.value();
  frame.picture = images.value().at(module);
  frame.mat = Image::toMat(frame.picture);
  return frame;
}

// Reads and measures one module's frames, and keeps what the background
// model and a built background need.
class ModuleSearch {
 public:
  ModuleSearch(ModulePlan& plan, const SmartFinderOptions& options, PersonDetector& detector, spdlog::logger& logger)
      : plan_(plan), options_(options), detector_(detector), logger_(logger), name_(Utils::toUtf8(plan.name)) {}

  // Reads and measures the sampled frame at `t`. An error text when the
  // recording cannot be read or measuring fails; a frame read before is skipped.
  std::string sample(std::int64_t t) {
    auto read = readFrame(*plan_.source, plan_.name, t);
    if (!read) return read.error();
    const ReadFrame& frame = read.value();
    const FrameKey key{frame.position.recording.track, frame.position.frame};
    if (sampled_.count(key) != 0) return {};  // the same frame again
    sampled_.insert(key);
    const auto asModelFrame = modelFrames_.find(key);
    if (asModelFrame != modelFrames_.end()) {
      // Read before for the model only: it takes part as this sample now.
      modelThumbnails_[asModelFrame->second].release();
      modelFrames_.erase(asModelFrame);
    } else {
      noteRead(frame);
    }
    SmartFinderFrame sample;
    sample.module = plan_.name;
    sample.timeMs = frame.position.frameStartMs;
    sample.track = frame.position.recording.track;
    sample.frame = frame.position.frame;
    try {
      const auto persons = detector_.detect(frame.mat);
      sample.persons = static_cast<int>(persons.size());
      for (const auto& p : persons) sample.personBoxes.push_back(p.box);
      sample.blur = BlurDetection::estimateBlur(frame.picture, plan_.module->rotation());
    } catch (const std::exception& e) {
      return std::string("measuring the frame at ") + Quarn::formatTimestamp(t) + " failed: " + e.what();
    }
    const ExposureMeasure exposure = measureExposure(frame.mat);
    sample.brightness = exposure.brightness;
    sample.clipped = exposure.clipped;
    sample.exposure = exposure.exposure;
    sampleThumbnails_.push_back(BackgroundModel::thumbnail(frame.mat, factor_));
    sample.motion = motionAround(frame);
    samples_.push_back(std::move(sample));
    return {};
  }

  // Reads the frame at `t` for the background model only; a frame that
  // cannot be read is left out.
  std::string readForModel(std::int64_t t) {
    auto read = readFrame(*plan_.source, plan_.name, t);
    if (!read) {
      logger_.debug("Module {}: no model frame at {}: {}", name_, Quarn::formatTimestamp(t), read.error());
      return {};
    }
    const ReadFrame& frame = read.value();
    const FrameKey key{frame.position.recording.track, frame.position.frame};
    if (sampled_.count(key) != 0 || modelFrames_.count(key) != 0) return {};
    noteRead(frame);
    modelFrames_[key] = modelThumbnails_.size();
    modelThumbnails_.push_back(BackgroundModel::thumbnail(frame.mat, factor_));
    return {};
  }

  // Builds the background model from the frames read and measures every
  // sample's foreground against it.
  void measureForeground() {
    std::vector<cv::Mat> frames;
    const std::size_t wanted = static_cast<std::size_t>(options_.backgroundFrames);
    if (sampleThumbnails_.size() >= wanted) {
      for (std::size_t i : spreadIndices(sampleThumbnails_.size(), wanted)) frames.push_back(sampleThumbnails_[i]);
    } else {
      frames = sampleThumbnails_;
      frames.insert(frames.end(), modelThumbnails_.begin(), modelThumbnails_.end());
    }
    // Frames of another size than the first (or left to a sample) take no part.
    const cv::Size size = thumbnailSize();
    frames.erase(std::remove_if(frames.begin(), frames.end(), [&](const cv::Mat& f) { return f.size() != size; }),
                 frames.end());
    if (frames.size() < 3) {
      logger_.info("Module {}: {} frames are too few for a background model; the foreground is not measured", name_,
                   frames.size());
    } else {
      try {
        model_ = std::make_unique<BackgroundModel>(frames, factor_, pictureSize_);
        usualPlaces_ = usualPersonPlaces();
        logger_.info("Module {}: background model from {} frames, reduced by {}; people stand in {:.1f} % of the "
                     "picture in most samples",
                     name_, frames.size(), factor_, 100.0 * cv::countNonZero(usualPlaces_) / usualPlaces_.total());
      } catch (const std::exception& e) {
        logger_.error("Module {}: no background model: {}; the foreground is not measured", name_, e.what());
        model_.reset();
      }
    }
    for (std::size_t i = 0; i < samples_.size(); ++i) {
      applyForeground(samples_[i], sampleThumbnails_[i]);
      const SmartFinderFrame& f = samples_[i];
      logger_.debug("Module {} at {}: {} persons, blur {}, brightness {:.1f}, motion {:.5f}, foreground {:.5f}, "
                    "largest blob {} px",
                    name_, Quarn::formatTimestamp(f.timeMs), f.persons, f.blur, f.brightness, f.motion, f.foreground,
                    f.foregroundBlob);
    }
  }

  std::vector<SmartFinderFrame> takeSamples() { return std::move(samples_); }

  // A clean background: the temporal median of up to backgroundFrames of
  // the frames read, spread evenly and read again at full size.
  Utils::ReturnState<SmartFinderFrame, std::string> buildBackground(const std::vector<SmartFinderFrame>& samples) {
    std::vector<cv::Mat> frames;
    std::vector<std::int64_t> times;
    std::string track;
    std::sort(readTimes_.begin(), readTimes_.end());
    const auto indices = spreadIndices(readTimes_.size(), static_cast<std::size_t>(options_.backgroundFrames));
    for (std::size_t k = 0; k < indices.size(); ++k) {
      auto read = readFrame(*plan_.source, plan_.name, readTimes_[indices[k]]);
      if (!read || read.value().mat.size() != pictureSize_) continue;
      frames.push_back(read.value().mat.clone());
      times.push_back(read.value().position.frameStartMs);
      if (k == indices.size() / 2 || track.empty()) track = read.value().position.recording.track;
    }
    if (frames.size() < 3) {
      return Utils::failure(std::string(
          "every sampled frame shows persons and too few frames were read to build a background"));
    }
    SmartFinderFrame background;
    background.module = plan_.name;
    background.builtBackground = true;
    background.framesUsed = static_cast<int>(frames.size());
    background.timeMs = times[times.size() / 2];
    background.track = track;
    const cv::Mat median = temporalMedian(frames);
    background.picture = Image::fromMat(median);
    try {
      const auto persons = detector_.detect(median);
      background.persons = static_cast<int>(persons.size());
      for (const auto& p : persons) background.personBoxes.push_back(p.box);
      background.blur = BlurDetection::estimateBlur(background.picture, plan_.module->rotation());
    } catch (const std::exception& e) {
      logger_.error("Module {}: measuring the built background failed: {}", name_, e.what());
    }
    const ExposureMeasure exposure = measureExposure(median);
    background.brightness = exposure.brightness;
    background.clipped = exposure.clipped;
    background.exposure = exposure.exposure;
    applyForeground(background, BackgroundModel::thumbnail(median, factor_));
    double largestBlur = background.blur;
    for (const auto& sample : samples) largestBlur = std::max(largestBlur, sample.blur);
    background.score = options_.blurWeight * (largestBlur > 0 ? background.blur / largestBlur : 0.0) +
                       options_.exposureWeight * background.exposure;
    background.isFree = frameIsFree(background, options_);
    return background;
  }

 private:
  using FrameKey = std::pair<std::string, int>;  // track, frame index

  // Notes a frame read for the first time. The first frame fixes the
  // thumbnails' reduction.
  void noteRead(const ReadFrame& frame) {
    if (factor_ == 0) {
      pictureSize_ = frame.mat.size();
      factor_ = BackgroundModel::thumbnailFactor(pictureSize_, options_.smallestPersonHeight,
                                                 plan_.times.size() + plan_.modelTimes.size());
    }
    readTimes_.push_back(frame.position.frameStartMs);
  }

  cv::Size thumbnailSize() const {
    return BackgroundModel::thumbnail(cv::Mat(pictureSize_, CV_8UC3, cv::Scalar::all(0)), factor_).size();
  }

  // Motion against a frame a little later (earlier at a recording's end).
  double motionAround(const ReadFrame& frame) {
    const std::int64_t gapMs = static_cast<std::int64_t>(std::llround(options_.motionGapSeconds * 1000.0));
    for (const std::int64_t other : {frame.position.frameStartMs + gapMs, frame.position.frameStartMs - gapMs}) {
      auto read = readFrame(*plan_.source, plan_.name, other);
      if (!read) continue;
      const auto& p = read.value().position;
      if (p.frame == frame.position.frame && p.recording.track == frame.position.recording.track) continue;
      return measureMotion(frame.mat, read.value().mat);
    }
    return 0.0;
  }

  // Where the detector finds someone in at least half of the samples (and
  // in two at least): people who stay there most of the time, so the median
  // shows them and a frame without them differs there. Such places (boxes
  // grown by a quarter, on the thumbnail) are judged by the detector alone.
  cv::Mat usualPersonPlaces() const {
    const cv::Size size = model_->model().size();
    cv::Mat count(size, CV_16UC1, cv::Scalar(0));
    for (const auto& sample : samples_) {
      cv::Mat covered(size, CV_8UC1, cv::Scalar(0));
      for (const cv::Rect& b : sample.personBoxes) {
        const cv::Rect grown(b.x - b.width / 4, b.y - b.height / 4, b.width + b.width / 2, b.height + b.height / 2);
        const cv::Rect onThumbnail(cv::Point(grown.x / factor_, grown.y / factor_),
                                   cv::Point((grown.x + grown.width + factor_ - 1) / factor_,
                                             (grown.y + grown.height + factor_ - 1) / factor_));
        covered(onThumbnail & cv::Rect(0, 0, size.width, size.height)).setTo(1);
      }
      cv::add(count, covered, count, cv::noArray(), CV_16U);
    }
    const double most = std::max(2.0, std::ceil(0.5 * static_cast<double>(samples_.size())));
    return count >= most;
  }

  void applyForeground(SmartFinderFrame& frame, const cv::Mat& thumbnail) const {
    if (!model_) return;
    // Persons the detector is told to ignore are not looked for in the foreground either.
    const int height = std::max(options_.smallestPersonHeight, options_.detector.minPersonHeight);
    const ForegroundMeasure m = model_->measure(thumbnail, height, usualPlaces_);
    frame.foregroundMeasured = m.measured;
    frame.foreground = m.share;
    frame.foregroundBlob = m.largestBlob;
    frame.foregroundBox = m.largestBlobBox;
    frame.foregroundPersons = m.personBlobs;
    frame.noiseLevel = m.noiseLevel;
  }

  ModulePlan& plan_;
  const SmartFinderOptions& options_;
  PersonDetector& detector_;
  spdlog::logger& logger_;
  std::string name_;
  std::set<FrameKey> sampled_;                     // frames measured as samples
  std::map<FrameKey, std::size_t> modelFrames_;    // frames read for the model only: their thumbnail
  std::vector<SmartFinderFrame> samples_;
  std::vector<cv::Mat> sampleThumbnails_;  // one per sample
  std::vector<cv::Mat> modelThumbnails_;   // of the frames read for the model only (empty: became a sample)
  std::vector<std::int64_t> readTimes_;    // start of every frame read
  int factor_ = 0;                         // thumbnail reduction, fixed by the first frame
  cv::Size pictureSize_;
  std::unique_ptr<BackgroundModel> model_;
  cv::Mat usualPlaces_;  // thumbnail pixels where the detector finds someone in most samples
};

}  // namespace

void SmartFinderImage::Impl::fail(const std::wstring& name, const std::string& why) {
  logger->error("Module {}: {}", Utils::toUtf8(name), why);
  std::lock_guard<std::mutex> lock(mutex);
  errors[name] = why;
}

Utils::ReturnState<bool, std::string> SmartFinderImage::Impl::planModules(const std::list<std::wstring>& modules,
                                                                          const SmartFinderOptions& settings,
                                                                          std::vector<ModulePlan>& plans) {
  std::set<std::wstring> seen;
  for (const auto& name : modules) {
    if (!seen.insert(name).second) continue;
    ModulePlan plan;
    plan.name = name;
    plan.module = camera.findModule(name);
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
    const std::int64_t from = settings.fromMs ? *settings.fromMs : 0;
    const std::int64_t to = settings.toMs ? *settings.toMs : std::numeric_limits<std::int64_t>::max();
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
    const std::int64_t windowFrom = settings.fromMs ? *settings.fromMs : first;
    const std::int64_t windowTo = settings.toMs ? *settings.toMs : last;
    std::string error;
    plan.times = sampleTimes(settings, windowFrom, windowTo, recordings.value(), error);
    if (!error.empty()) return Utils::failure(error);
    if (plan.times.empty()) {
      fail(name, "no sample time of the window falls on one of its recordings");
      continue;
    }
    plan.modelTimes = modelTimes(settings, windowFrom, windowTo, recordings.value(), plan.times);
    plans.push_back(std::move(plan));
  }
  return true;
}

std::vector<SmartFinderFrame> SmartFinderImage::Impl::chosenFrames(ModulePlan& plan, ModuleSearch& search,
                                                                   std::vector<SmartFinderFrame>& taken,
                                                                   const SmartFinderOptions& settings, int step,
                                                                   int total) {
  const std::string name = Utils::toUtf8(plan.name);
  std::vector<SmartFinderFrame> chosen;
  const auto picked = pickMoments(taken, settings);
  for (std::size_t index : picked) {
    SmartFinderFrame moment = taken[index];
    auto frame = readFrame(*plan.source, plan.name, moment.timeMs);
    if (!frame) {
      logger->error("Module {}: cannot read the chosen frame again: {}", name, frame.error());
      continue;
    }
    moment.picture = frame.value().picture;
    chosen.push_back(std::move(moment));
  }
  if (picked.empty() && abortFlag) {
    fail(plan.name, "the search was stopped before a frame without persons was found");
  } else if (picked.empty()) {
    // No free frame: build the background behind the people.
    auto background = search.buildBackground(taken);
    if (background) {
      const std::string line = "Module " + name + " has no frame without persons; built a background from " +
                               std::to_string(background.value().framesUsed) + " frames";
      logger->warn("{}", line);
      if (callback) callback(step, total, line, GeometryCalibration::AdvStepInfo());
      chosen.push_back(std::move(background).value());
    } else {
      fail(plan.name, background.error());
    }
  }
  return chosen;
}

void SmartFinderImage::Impl::searchModule(ModulePlan& plan, const SmartFinderOptions& settings,
                                          PersonDetector& detector, int& step, int total) {
  const std::string name = Utils::toUtf8(plan.name);
  ModuleSearch search(plan, settings, detector, *logger);
  // Samples and model frames in time order, so that the recording is read forwards.
  std::vector<std::pair<std::int64_t, bool>> schedule;  // time, is a sample
  for (const std::int64_t t : plan.times) schedule.emplace_back(t, true);
  for (const std::int64_t t : plan.modelTimes) schedule.emplace_back(t, false);
  std::stable_sort(schedule.begin(), schedule.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  std::string moduleError;
  for (const auto& [t, isSample] : schedule) {
    if (abortFlag) break;
    if (isSample) {
      ++step;
      if (callback) {
        callback(step, total, "Sampling Module " + name + " at " + Quarn::formatTimestamp(t),
                 GeometryCalibration::AdvStepInfo());
      }
    }
    moduleError = isSample ? search.sample(t) : search.readForModel(t);
    if (!moduleError.empty()) break;
  }
  search.measureForeground();
  std::vector<SmartFinderFrame> taken = search.takeSamples();
  if (!moduleError.empty() && taken.empty()) {
    fail(plan.name, moduleError);
    return;
  }
  if (!moduleError.empty()) logger->warn("Module {}: {}; picking among the frames read so far", name, moduleError);
  std::vector<SmartFinderFrame> chosen = chosenFrames(plan, search, taken, settings, step, total);
  for (auto& sample : taken) sample.picture.reset();
  std::lock_guard<std::mutex> lock(mutex);
  samples[plan.name] = std::move(taken);
  if (!chosen.empty()) results[plan.name] = std::move(chosen);
}

Utils::ReturnState<std::map<std::wstring, std::vector<SmartFinderFrame>>, std::string> SmartFinderImage::find(
    std::list<std::wstring> modules) {
  SmartFinderImage::Impl& s = *impl_;
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

  // Plan: each module's recordings in the window and its sample times.
  std::vector<ModulePlan> plans;
  if (auto planned = s.planModules(modules, options, plans); !planned) return Utils::failure(planned.error());
  int total = 0;
  for (const auto& plan : plans) total += static_cast<int>(plan.times.size());
  // Search: sample each module's recordings, then choose its frames.
  int step = 0;
  for (auto& plan : plans) {
    if (s.abortFlag) break;
    s.searchModule(plan, options, *detector, step, total);
  }
  if (s.abortFlag) s.logger->info("Search aborted; returning the moments found so far");
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.results;
}

std::map<std::wstring, std::vector<SmartFinderFrame>> SmartFinderImage::results() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->results;
}

std::map<std::wstring, std::string> SmartFinderImage::errors() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->errors;
}

std::map<std::wstring, std::vector<SmartFinderFrame>> SmartFinderImage::samples() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->samples;
}

std::string SmartFinderImage::detectorDescription() const { return impl_->detectorDescription; }

std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> SmartFinderImage::images() const {
  std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images;
  std::lock_guard<std::mutex> lock(impl_->mutex);
  for (const auto& [name, moments] : impl_->results) {
    if (!moments.empty() && moments.front().picture) images[name] = moments.front().picture;
  }
  return images;
}

CameraDescription::Orbivane SmartFinderImage::cameraWithPictures() const {
  CameraDescription::Orbivane copy = impl_->camera;
  for (const auto& [name, picture] : images()) {
    const auto module = copy.findModule(name);
    if (!module) continue;
    module->setImage(picture);
    module->setImagePath(std::string());
  }
  return copy;
}

}  // namespace OrbivaneCalibration

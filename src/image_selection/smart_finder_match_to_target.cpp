// Target matching on pictures found in recordings (see
// smart_finder_match_to_target.h).
#include "orbivane/image_selection/smart_finder_match_to_target.h"

#include <limits>
#include <mutex>
#include <set>

#include "logging/logger_setup.h"
#include "orbivane/utils/wide_text.h"

namespace OrbivaneCalibration {

using GeometryCalibration::MatrixBased::MatchToTarget;

struct SmartFinderMatchToTarget::Impl {
 public:
  Impl(const CameraDescription::Orbivane& c,
                                std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> i)
      : camera(c), images(std::move(i)), logger(Utils::calibratorLogger("SmartFinderMatchToTarget")) {}

  std::atomic<bool> abortFlag{false};
  CameraDescription::Orbivane camera;
  std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images;
  std::shared_ptr<spdlog::logger> logger;
  SmartFinderOptions finderOptions;
  SmartFinderMatchToTarget::CalibrateMode mode = MatchToTarget::kFeatureMatching;
  bool gridEnabled = false;
  std::map<std::wstring, std::pair<int, int>> gridSizes;  // module -> columns, rows
  std::uint64_t m2n = 1;
  std::uint64_t m2b = 5;
  float scale = 0.0f;
  GeometryCalibration::StatusCallback callback;

  mutable std::mutex mutex;  // guards the running stages and the results below
  SmartFinderImage* runningFinder = nullptr;
  MatchToTarget* runningMatcher = nullptr;
  std::unique_ptr<MatchToTarget> lastMatcher;
  std::map<std::wstring, std::vector<SmartFinderFrame>> frames;
  std::map<std::wstring, std::string> finderErrors;

  // The modules whose pictures come from their recordings: the target
  // unless its own picture is given, and each module that has a connection.
  std::list<std::wstring> modulesToFind(const std::list<std::wstring>& modules, const std::wstring& target,
                                        bool targetGiven) const;
  // The modules' picked frames (errors logged and kept); `finderSteps` is
  // how many progress steps the search took.
  std::map<std::wstring, std::vector<SmartFinderFrame>> findFrames(const std::list<std::wstring>& wanted,
                                                                   int& finderSteps);
  // Target matching from `start` on `pictures`; its progress follows the search's.
  CameraDescription::Orbivane match(const CameraDescription::Orbivane& start,
                                    const std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>>& pictures,
                                    const std::list<std::wstring>& modules, const std::wstring& target,
                                    int finderSteps);
};

SmartFinderMatchToTarget::SmartFinderMatchToTarget(
    const CameraDescription::Orbivane& camera,
    std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images)
    : impl_(std::make_unique<SmartFinderMatchToTarget::Impl>(camera, std::move(images))) {}

SmartFinderMatchToTarget::~SmartFinderMatchToTarget() = default;

namespace {

using Pictures = std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>>;
using Frames = std::map<std::wstring, std::vector<SmartFinderFrame>>;

}  // namespace

std::list<std::wstring> SmartFinderMatchToTarget::Impl::modulesToFind(const std::list<std::wstring>& modules,
                                                                      const std::wstring& target,
                                                                      bool targetGiven) const {
  const Impl& s = *this;
  std::list<std::wstring> wanted;
  std::set<std::wstring> seen;
  if (!targetGiven) {
    wanted.push_back(target);
    seen.insert(target);
  }
  for (const auto& name : modules) {
    const auto module = s.camera.findModule(name);
    if (!module) continue;  // the matcher logs it
    if (!module->connection()) {
      s.logger->error("Module {} has no connection to recordings.. Skipping pmodule", Utils::toUtf8(name));
      continue;
    }
    if (seen.insert(name).second) wanted.push_back(name);
  }
  if (!targetGiven && (!s.camera.findModule(target) || !s.camera.findModule(target)->connection())) {
    s.logger->error("Target module {} has neither a picture nor recordings", Utils::toUtf8(target));
    wanted.remove(target);
  }
  return wanted;
}

namespace {

// The camera the matcher starts from: it carries the pictures it works on.
CameraDescription::Orbivane cameraWithFrames(const CameraDescription::Orbivane& camera, const Frames& found) {
  CameraDescription::Orbivane start = camera;
  for (const auto& [name, moments] : found) {
    const auto module = start.findModule(name);
    if (module && !moments.empty() && moments.front().picture) {
      module->setImage(moments.front().picture);
      module->setImagePath(std::string());
    }
  }
  return start;
}

}  // namespace

Frames SmartFinderMatchToTarget::Impl::findFrames(const std::list<std::wstring>& wanted, int& finderSteps) {
  Frames found;
  std::map<std::wstring, std::string> errors;
  if (!wanted.empty()) {
    SmartFinderImage finder(camera);
    finder.setOptions(finderOptions);
    finder.registerStatusCallback([this, &finderSteps](int step, int total, std::string text,
                                                       GeometryCalibration::AdvStepInfo info) {
      finderSteps = total;
      if (callback) callback(step, total, std::move(text), std::move(info));
    });
    {
      std::lock_guard<std::mutex> lock(mutex);
      runningFinder = &finder;
      if (abortFlag) finder.abort();
    }
    auto result = finder.find(wanted);
    {
      std::lock_guard<std::mutex> lock(mutex);
      runningFinder = nullptr;
    }
    if (!result) {
      logger->error("Finding pictures in the recordings failed: {}", result.error());
      for (const auto& name : wanted) errors[name] = result.error();
    } else {
      found = result.value();
      errors = finder.errors();
    }
  }
  {
    std::lock_guard<std::mutex> lock(mutex);
    frames = found;
    finderErrors = errors;
  }
  for (const auto& [name, why] : errors) {
    logger->error("Module {} has no picture from its recordings: {}", Utils::toUtf8(name), why);
  }
  return found;
}

CameraDescription::Orbivane SmartFinderMatchToTarget::Impl::match(const CameraDescription::Orbivane& start,
                                                                  const Pictures& pictures,
                                                                  const std::list<std::wstring>& modules,
                                                                  const std::wstring& target, int finderSteps) {
  auto matcher = std::make_unique<MatchToTarget>(start, pictures);
  matcher->setCalibrationMode(mode);
  matcher->setM2bMaxIteration(m2b);
  matcher->setM2nMaxIteration(m2n);
  matcher->allowScale(scale);
  matcher->setGridEnabled(gridEnabled);
  for (const auto& [name, size] : gridSizes) matcher->initGrid(size.first, size.second, name);
  matcher->registerStatusCallback([this, finderSteps](int step, int total, std::string text,
                                                      GeometryCalibration::AdvStepInfo info) {
    if (callback) callback(finderSteps + step, finderSteps + total, std::move(text), std::move(info));
  });
  {
    std::lock_guard<std::mutex> lock(mutex);
    runningMatcher = matcher.get();
    if (abortFlag) matcher->abort();
  }
  CameraDescription::Orbivane result = matcher->calibrate(modules, target);
  {
    std::lock_guard<std::mutex> lock(mutex);
    runningMatcher = nullptr;
    lastMatcher = std::move(matcher);
  }
  return result;
}

CameraDescription::Orbivane SmartFinderMatchToTarget::calibrate(std::list<std::wstring> modules, std::wstring target) {
  SmartFinderMatchToTarget::Impl& s = *impl_;
  if (s.abortFlag) return s.camera;

  // 1. Pictures: the target's own (given) picture, else its picked frame;
  //    the modules' picked frames.
  const bool targetGiven = s.images.count(target) != 0 && s.images.at(target) != nullptr;
  int finderSteps = 0;
  const Frames found = s.findFrames(s.modulesToFind(modules, target, targetGiven), finderSteps);
  Pictures pictures;
  if (targetGiven) pictures[target] = s.images.at(target);
  for (const auto& [name, moments] : found) {
    if (moments.empty() || !moments.front().picture) continue;
    if (name == target && targetGiven) continue;
    pictures[name] = moments.front().picture;
  }
  const CameraDescription::Orbivane start = cameraWithFrames(s.camera, found);
  if (s.abortFlag) {
    s.camera = start;
    return start;
  }

  // 2. Target matching on those pictures.
  s.camera = s.match(start, pictures, modules, target, finderSteps);
  return s.camera;
}

void SmartFinderMatchToTarget::setFinderOptions(const SmartFinderOptions& options) { impl_->finderOptions = options; }
SmartFinderOptions SmartFinderMatchToTarget::finderOptions() const { return impl_->finderOptions; }
void SmartFinderMatchToTarget::setCalibrationMode(const CalibrateMode& mode) { impl_->mode = mode; }
SmartFinderMatchToTarget::CalibrateMode SmartFinderMatchToTarget::calibrationMode() const { return impl_->mode; }
void SmartFinderMatchToTarget::setGridEnabled(const bool& enabled) { impl_->gridEnabled = enabled; }
void SmartFinderMatchToTarget::initGrid(const int& columns, const int& rows, const std::wstring& module) {
  impl_->gridSizes[module] = {columns, rows};
}
Utils::UVGrid SmartFinderMatchToTarget::getGrid(const std::wstring& module) const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  if (impl_->lastMatcher) return impl_->lastMatcher->getGrid(module);
  const auto it = impl_->gridSizes.find(module);
  return it == impl_->gridSizes.end() ? Utils::UVGrid() : Utils::UVGrid(it->second.first, it->second.second);
}
void SmartFinderMatchToTarget::setM2nMaxIteration(const std::uint64_t& limit) { impl_->m2n = limit; }
std::uint64_t SmartFinderMatchToTarget::m2nMaxIteration() const { return impl_->m2n; }
void SmartFinderMatchToTarget::setM2bMaxIteration(const std::uint64_t& limit) { impl_->m2b = limit; }
std::uint64_t SmartFinderMatchToTarget::m2bMaxIteration() const { return impl_->m2b; }
void SmartFinderMatchToTarget::allowScale(const float& scale) { impl_->scale = scale; }
void SmartFinderMatchToTarget::registerStatusCallback(GeometryCalibration::StatusCallback callback) {
  impl_->callback = std::move(callback);
}

void SmartFinderMatchToTarget::abort() {
  impl_->abortFlag = true;
  std::lock_guard<std::mutex> lock(impl_->mutex);
  if (impl_->runningFinder) impl_->runningFinder->abort();
  if (impl_->runningMatcher) impl_->runningMatcher->abort();
}

std::map<std::wstring, float> SmartFinderMatchToTarget::error() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->lastMatcher ? impl_->lastMatcher->error() : std::map<std::wstring, float>{};
}

std::map<std::wstring, GeometryCalibration::ModuleReport> SmartFinderMatchToTarget::moduleReports() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->lastMatcher ? impl_->lastMatcher->moduleReports()
                             : std::map<std::wstring, GeometryCalibration::ModuleReport>{};
}

float SmartFinderMatchToTarget::error(const std::wstring& module) const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->lastMatcher ? impl_->lastMatcher->error(module) : std::numeric_limits<float>::max();
}

std::map<std::wstring, std::vector<SmartFinderFrame>> SmartFinderMatchToTarget::frames() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->frames;
}

std::map<std::wstring, std::string> SmartFinderMatchToTarget::finderErrors() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->finderErrors;
}

}  // namespace OrbivaneCalibration

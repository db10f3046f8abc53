// Module pictures from recordings at absolute times (see
// recording_image_source.h).
#include "orbivane/recordings/recording_image_source.h"

#include <algorithm>
#include <cmath>
#include <set>

#include "orbivane/geometry/clip_matrix.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/shading/image_shading.h"
#include "orbivane/session/quarn_session.h"
#include "orbivane/recordings/recordings_index.h"
#include "orbivane/utils/wide_text.h"
#include "recordings/video_frame_reader.h"

namespace ImageSource {

namespace {

// Readers kept open per module (recordings it moves between).
constexpr std::size_t kOpenReaders = 2;

// A recording's frames and rate, as the image source needs them.
struct TrackTiming {
  Quarn::RecordingSpan span;
  double fileFps = 0.0;
};

}  // namespace

struct RecordingModuleSource {
  CameraDescription::OrbivaneModule module;
  std::string name;  // UTF-8, for messages
  std::shared_ptr<Quarn::QuarnSession> session;
  std::vector<Quarn::SearchInfo> known;  // recordings found so far
  std::map<std::string, TrackTiming> timings;
  std::list<std::unique_ptr<VideoFrameReader>> readers;  // most recently used first
  RecordingImageSource::Position position;
  bool positioned = false;
  std::string shownTrack;
  std::unique_ptr<ImageShading> shading;
};

struct RecordingImageSource::Impl {
 public:
  std::vector<std::unique_ptr<RecordingModuleSource>> modules;
  bool ignoreGrid = false;
};

namespace {

Utils::ReturnState<TrackTiming, std::string> timingOf(RecordingModuleSource& source,
                                                     const Quarn::SearchInfo& recording) {
  const auto found = source.timings.find(recording.track);
  if (found != source.timings.end()) return found->second;
  auto info = Quarn::probeVideo(recording.track);
  if (!info) return Utils::failure(info.error());
  TrackTiming timing;
  timing.fileFps = info.value().fps;
  Quarn::RecordingSpan& span = timing.span;
  span.recording.module = recording.device;
  span.recording.video = recording.track;
  span.recording.startMs = recording.startMs;
  span.frames = info.value().frames;
  span.startMs = recording.startMs;
  span.endMs = recording.endMs;
  // The rate: a recordings index behind the connection names it exactly;
  // otherwise the file's own when it agrees with the span, else the span's.
  const auto& connection = source.module.connection();
  if (connection && Quarn::isRecordingsIndexFile(connection->address)) {
    auto index = Quarn::loadRecordingsIndex(connection->address);
    if (index) {
      for (const auto& r : index.value().recordings) {
        if (r.module == recording.device && r.video == recording.track && r.startMs == recording.startMs) {
          span.fps = r.fps > 0 ? r.fps : info.value().fps;
        }
      }
    }
  }
  const double spanMs = static_cast<double>(recording.endMs - recording.startMs);
  if (span.fps <= 0 && info.value().fps > 0 && std::abs(span.frames * 1000.0 / info.value().fps - spanMs) <= 1.0) {
    span.fps = info.value().fps;
  }
  if (span.fps <= 0 && spanMs > 0) span.fps = span.frames * 1000.0 / spanMs;
  if (span.fps <= 0) return Utils::failure("recording '" + recording.track + "' has an empty time span");
  source.timings[recording.track] = timing;
  return timing;
}

VideoFrameReader& readerFor(RecordingModuleSource& source, const TrackTiming& timing) {
  const std::string& path = timing.span.recording.video;
  for (auto it = source.readers.begin(); it != source.readers.end(); ++it) {
    if ((*it)->path() == path) {
      source.readers.splice(source.readers.begin(), source.readers, it);
      return *source.readers.front();
    }
  }
  source.readers.push_front(std::make_unique<VideoFrameReader>(path, timing.span.frames, timing.fileFps));
  while (source.readers.size() > kOpenReaders) source.readers.pop_back();
  return *source.readers.front();
}

const Quarn::SearchInfo* holding(const std::vector<Quarn::SearchInfo>& list, std::int64_t timeMs) {
  for (const auto& r : list) {
    if (r.startMs <= timeMs && timeMs < r.endMs) return &r;
  }
  return nullptr;
}

}  // namespace

RecordingImageSource::RecordingImageSource() : impl_(std::make_unique<RecordingImageSource::Impl>()) {}
RecordingImageSource::~RecordingImageSource() = default;

Utils::ReturnState<bool, std::string> RecordingImageSource::init(std::list<CameraDescription::OrbivaneModule> modules) {
  std::vector<std::unique_ptr<RecordingModuleSource>> sources;
  std::set<std::wstring> names;
  for (auto& module : modules) {
    const std::string name = Utils::toUtf8(module.name());
    if (module.name().empty()) return Utils::failure("a module without a name cannot play recordings");
    if (!names.insert(module.name()).second) return Utils::failure("module '" + name + "' is listed twice");
    if (!module.connection()) {
      return Utils::failure("module '" + name + "' has no connection to a recording system");
    }
    auto session = Quarn::QuarnSession::getSharedConnection(*module.connection(), true, Quarn::SessionOptions{});
    if (!session) return Utils::failure("module '" + name + "': " + session.error());
    auto source = std::make_unique<RecordingModuleSource>();
    source->module = std::move(module);
    source->name = name;
    source->session = session.value();
    sources.push_back(std::move(source));
  }
  impl_->modules = std::move(sources);
  return true;
}

Utils::ReturnState<bool, std::string> RecordingImageSource::seekToAbsolutePosition(std::int64_t timeMs) {
  if (impl_->modules.empty()) return Utils::failure("the recording image source has no modules (call init first)");
  std::vector<std::pair<RecordingModuleSource*, Position>> moves;
  for (auto& source : impl_->modules) {
    const Quarn::SearchInfo* recording = holding(source->known, timeMs);
    if (recording == nullptr) {
      Quarn::SearchCriteria criteria;
      criteria.device = source->module.connection()->device;
      criteria.fromMs = timeMs;
      criteria.toMs = timeMs;
      auto found = source->session->Search(criteria, {}).get();
      if (!found) return Utils::failure("module '" + source->name + "': " + found.error());
      for (const auto& r : found.value()) {
        const bool seen = std::any_of(source->known.begin(), source->known.end(), [&](const Quarn::SearchInfo& k) {
          return k.track == r.track && k.startMs == r.startMs;
        });
        if (!seen) source->known.push_back(r);
      }
      recording = holding(source->known, timeMs);
    }
    if (recording == nullptr) {
      return Utils::failure("module '" + source->name + "' has no recording at " + Quarn::formatTimestamp(timeMs));
    }
    auto timing = timingOf(*source, *recording);
    if (!timing) return Utils::failure("module '" + source->name + "': " + timing.error());
    Position p;
    p.recording = *recording;
    p.frame = timing.value().span.frameAt(timeMs);
    if (p.frame < 0) {
      return Utils::failure("module '" + source->name + "' has no frame at " + Quarn::formatTimestamp(timeMs));
    }
    p.frameStartMs = timing.value().span.frameStartMs(p.frame);
    moves.emplace_back(source.get(), p);
  }
  for (auto& [source, p] : moves) {
    if (source->shownTrack != p.recording.track) {
      auto shown = source->session->ShowTrack(p.recording, {}).get();
      if (!shown) return Utils::failure("module '" + source->name + "': " + shown.error());
      source->shownTrack = p.recording.track;
    }
  }
  for (auto& [source, p] : moves) {
    source->position = p;
    source->positioned = true;
  }
  return true;
}

void RecordingImageSource::setIgnoreGeometryGrid(bool ignore) { impl_->ignoreGrid = ignore; }
bool RecordingImageSource::ignoreGeometryGrid() const { return impl_->ignoreGrid; }

Utils::ReturnState<std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>>, std::string>
RecordingImageSource::getImages() {
  std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images;
  for (auto& source : impl_->modules) {
    if (!source->positioned) {
      return Utils::failure("module '" + source->name + "' has no position yet (call seekToAbsolutePosition first)");
    }
    auto timing = timingOf(*source, source->position.recording);
    if (!timing) return Utils::failure("module '" + source->name + "': " + timing.error());
    auto frame = readerFor(*source, timing.value()).frame(source->position.frame);
    if (!frame) return Utils::failure("module '" + source->name + "': " + frame.error());
    std::shared_ptr<Image::UniversalImageInterface> picture = Image::fromMat(frame.value().clone());
    if (!impl_->ignoreGrid) {
      const auto* geometry = source->module.matrixGeometry();
      std::list<OrbivaneGeometry::Shader> shaders;
      for (const auto& shader : source->module.shaders()) {
        if (shader.uid() != OrbivaneGeometry::kClipMatrixShaderUid) shaders.push_back(shader);
      }
      const bool hasGrid = geometry != nullptr && geometry->uvGrid().has_value();
      if (hasGrid || !shaders.empty()) {
        try {
          if (!source->shading) source->shading = std::make_unique<ImageShading>();
          source->shading->SetShader(shaders);
          source->shading->SetUVGrid(hasGrid ? *geometry->uvGrid() : Utils::UVGrid());
          picture = source->shading->Apply(picture);
        } catch (const std::exception& e) {
          return Utils::failure("module '" + source->name + "': cannot draw the frame through its grid: " + e.what());
        }
      }
    }
    images[source->module.name()] = picture;
  }
  return images;
}

Utils::ReturnState<RecordingImageSource::Position, std::string> RecordingImageSource::position(
    const std::wstring& module) const {
  for (const auto& source : impl_->modules) {
    if (source->module.name() != module) continue;
    if (!source->positioned) return Utils::failure("module '" + source->name + "' has no position yet");
    return source->position;
  }
  return Utils::failure("the recording image source has no module '" + Utils::toUtf8(module) + "'");
}

Utils::ReturnState<std::vector<Quarn::SearchInfo>, std::string> RecordingImageSource::recordings(
    const std::wstring& module, std::int64_t fromMs, std::int64_t toMs) const {
  for (const auto& source : impl_->modules) {
    if (source->module.name() != module) continue;
    Quarn::SearchCriteria criteria;
    criteria.device = source->module.connection()->device;
    criteria.fromMs = fromMs;
    criteria.toMs = toMs;
    auto found = source->session->Search(criteria, {}).get();
    if (!found) return Utils::failure("module '" + source->name + "': " + found.error());
    return found.value();
  }
  return Utils::failure("the recording image source has no module '" + Utils::toUtf8(module) + "'");
}

std::vector<std::wstring> RecordingImageSource::modules() const {
  std::vector<std::wstring> names;
  for (const auto& source : impl_->modules) names.push_back(source->module.name());
  return names;
}

}  // namespace ImageSource

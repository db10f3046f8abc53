// Reading and writing recordings index files, timestamps, and what a video
// file holds.
#include "orbivane/recordings/recordings_index.h"

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <tuple>

#include <nlohmann/json.hpp>
#include <opencv2/videoio.hpp>

#include "recordings/video_frame_reader.h"
#include "orbivane/utils/atomic_file.h"
#include "utils/json_path.h"

namespace Quarn {

const char* const kRecordingsIndexFormat = "orbivane-recordings";

namespace {

using nlohmann::json;
namespace fs = std::filesystem;

constexpr int kVersion = 1;
// Frame rates outside this range are taken for broken metadata.
constexpr double kLowestFps = 0.01;
constexpr double kHighestFps = 1000.0;

struct IndexError : std::runtime_error {
  IndexError(const std::string& where, const std::string& what) : std::runtime_error("at " + where + ": " + what) {}
};

void allowOnly(const json& object, const std::string& where, std::initializer_list<const char*> keys) {
  if (!object.is_object()) throw IndexError(where, std::string("expected an object, got ") + object.type_name());
  const std::set<std::string> allowed(keys.begin(), keys.end());
  for (const auto& item : object.items()) {
    if (allowed.count(item.key()) == 0) throw IndexError(where, "unknown key '" + item.key() + "'");
  }
}

const json& requiredKey(const json& object, const std::string& where, const char* key) {
  const auto it = object.find(key);
  if (it == object.end()) throw IndexError(where, std::string("missing key '") + key + "'");
  return *it;
}

std::string asText(const json& j, const std::string& where) {
  if (!j.is_string()) throw IndexError(where, std::string("expected a string, got ") + j.type_name());
  const std::string text = j.get<std::string>();
  if (text.empty()) throw IndexError(where, "expected a non-empty string");
  return text;
}

std::int64_t parseStart(const json& j, const std::string& where) {
  if (j.is_string()) {
    auto t = parseTimestamp(j.get<std::string>());
    if (!t) throw IndexError(where, t.error());
    return t.value();
  }
  if (j.is_number()) {
    const double v = j.get<double>();
    // Years 1970 to 9999.
    if (!std::isfinite(v) || v < 0 || v > 253402300799999.0) {
      throw IndexError(where, "expected milliseconds since the Unix epoch (0 to 253402300799999)");
    }
    return static_cast<std::int64_t>(std::llround(v));
  }
  throw IndexError(where, std::string("expected ISO-8601 UTC text or milliseconds since the epoch, got ") +
                              j.type_name());
}

RecordingsIndex parseIndex(const json& root, const std::string& baseDirectory) {
  allowOnly(root, "/", {"format", "version", "recordings"});
  const json& format = requiredKey(root, "/", "format");
  if (!format.is_string() || format.get<std::string>() != kRecordingsIndexFormat) {
    throw IndexError("/format", std::string("expected \"") + kRecordingsIndexFormat + "\"");
  }
  const json& version = requiredKey(root, "/", "version");
  if (!version.is_number_integer() || version.get<long long>() != kVersion) {
    throw IndexError("/version", "expected " + std::to_string(kVersion));
  }
  const json& list = requiredKey(root, "/", "recordings");
  if (!list.is_array()) throw IndexError("/recordings", std::string("expected an array, got ") + list.type_name());
  RecordingsIndex index;
  for (std::size_t i = 0; i < list.size(); ++i) {
    const std::string where = "/recordings/" + std::to_string(i);
    const json& r = list[i];
    allowOnly(r, where, {"module", "video", "start", "fps"});
    Recording recording;
    recording.module = asText(requiredKey(r, where, "module"), where + "/module");
    const std::string video = asText(requiredKey(r, where, "video"), where + "/video");
    const fs::path videoPath(video);
    recording.video = videoPath.is_absolute() || baseDirectory.empty() ? video
                                                                      : (fs::path(baseDirectory) / videoPath).string();
    recording.startMs = parseStart(requiredKey(r, where, "start"), where + "/start");
    if (const auto fps = r.find("fps"); fps != r.end()) {
      if (!fps->is_number() || !std::isfinite(fps->get<double>()) || fps->get<double>() < kLowestFps ||
          fps->get<double>() > kHighestFps) {
        throw IndexError(where + "/fps", "expected frames per second from 0.01 to 1000");
      }
      recording.fps = fps->get<double>();
    }
    index.recordings.push_back(std::move(recording));
  }
  return index;
}

// Days since 1970-01-01 of a civil date (proleptic Gregorian).
std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

void civilFromDays(std::int64_t z, int& y, unsigned& m, unsigned& d) {
  z += 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  d = doy - (153 * mp + 2) / 5 + 1;
  m = mp < 10 ? mp + 3 : mp - 9;
  y = static_cast<int>(static_cast<std::int64_t>(yoe) + era * 400 + (m <= 2));
}

bool isLeap(int y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

}  // namespace

int RecordingSpan::frameAt(std::int64_t timeMs) const {
  if (timeMs < startMs || timeMs >= endMs || fps <= 0 || frames <= 0) return -1;
  // The tiny lift keeps a time exactly on a frame's start in that frame.
  const double k = std::floor(static_cast<double>(timeMs - startMs) * fps / 1000.0 + 1e-9);
  const int frame = static_cast<int>(k);
  return frame < 0 ? -1 : (frame >= frames ? frames - 1 : frame);
}

std::int64_t RecordingSpan::frameStartMs(int frame) const {
  return startMs + static_cast<std::int64_t>(std::ceil(static_cast<double>(frame) * 1000.0 / fps - 1e-9));
}

Utils::ReturnState<std::int64_t, std::string> parseTimestamp(const std::string& text) {
  const std::string bad = "'" + text + "' is not an ISO-8601 UTC time like 2026-11-22T10:00:00Z";
  int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
  char t = 0;
  int used = 0;
  if (std::sscanf(text.c_str(), "%4d-%2d-%2d%c%2d:%2d:%2d%n", &y, &mo, &d, &t, &h, &mi, &s, &used) != 7 ||
      (t != 'T' && t != 't' && t != ' ') || used != 19) {
    return Utils::failure(bad);
  }
  std::size_t pos = 19;
  int millis = 0;
  if (pos < text.size() && text[pos] == '.') {
    ++pos;
    int digits = 0;
    double fraction = 0.0, scale = 0.1;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
      fraction += (text[pos] - '0') * scale;
      scale /= 10;
      ++pos;
      ++digits;
    }
    if (digits == 0) return Utils::failure(bad);
    millis = static_cast<int>(std::floor(fraction * 1000.0 + 1e-6));
  }
  const std::string zone = text.substr(pos);
  if (zone != "Z" && zone != "z" && zone != "+00:00" && zone != "+0000") {
    return Utils::failure(bad + " (the time zone must be Z or +00:00)");
  }
  static const int monthDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (y < 1970 || mo < 1 || mo > 12 || d < 1 || d > monthDays[mo - 1] + (mo == 2 && isLeap(y) ? 1 : 0) || h > 23 ||
      mi > 59 || s > 59 || h < 0 || mi < 0 || s < 0) {
    return Utils::failure(bad + " (a field is out of range)");
  }
  const std::int64_t days = daysFromCivil(y, static_cast<unsigned>(mo), static_cast<unsigned>(d));
  return ((days * 24 + h) * 60 + mi) * 60000 + s * 1000 + millis;
}

std::string formatTimestamp(std::int64_t timeMs) {
  std::int64_t days = timeMs / 86400000;
  std::int64_t rest = timeMs % 86400000;
  if (rest < 0) {
    rest += 86400000;
    --days;
  }
  int y = 0;
  unsigned m = 0, d = 0;
  civilFromDays(days, y, m, d);
  const int h = static_cast<int>(rest / 3600000), mi = static_cast<int>(rest / 60000 % 60),
            s = static_cast<int>(rest / 1000 % 60), ms = static_cast<int>(rest % 1000);
  char buffer[64];
  if (ms != 0) {
    std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", y, m, d, h, mi, s, ms);
  } else {
    std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02uT%02d:%02d:%02dZ", y, m, d, h, mi, s);
  }
  return buffer;
}

Utils::ReturnState<RecordingsIndex, std::string> parseRecordingsIndex(const std::string& text,
                                                                     const std::string& baseDirectory,
                                                                     const std::string& source) {
  auto parsed = Utils::parseJsonText(text, "recordings index '" + source + "'");
  if (!parsed) return Utils::failure(parsed.error());
  const json& root = parsed.value();
  try {
    RecordingsIndex index = parseIndex(root, baseDirectory);
    index.path = source;
    return index;
  } catch (const std::exception& e) {
    return Utils::failure("recordings index '" + source + "': " + e.what());
  }
}

Utils::ReturnState<RecordingsIndex, std::string> loadRecordingsIndex(const std::string& path) {
  auto text = Utils::readWholeFile(path);
  if (!text) return Utils::failure("recordings index '" + path + "': " + text.error());
  return parseRecordingsIndex(text.value(), fs::path(path).parent_path().string(), path);
}

std::string recordingsIndexToJson(const RecordingsIndex& index, const std::string& baseDirectory) {
  json list = json::array();
  const fs::path base = fs::absolute(baseDirectory.empty() ? fs::path(".") : fs::path(baseDirectory));
  for (const auto& r : index.recordings) {
    const fs::path video = fs::absolute(r.video);
    const fs::path relative = video.lexically_relative(base);
    const bool below = !relative.empty() && relative.begin()->string() != "..";
    json entry = {{"module", r.module}, {"video", below ? relative.string() : video.string()},
                  {"start", formatTimestamp(r.startMs)}};
    if (r.fps > 0) entry["fps"] = r.fps;
    list.push_back(entry);
  }
  return json{{"format", kRecordingsIndexFormat}, {"version", kVersion}, {"recordings", list}}.dump(2) + "\n";
}

Utils::ReturnState<bool, std::string> saveRecordingsIndex(const RecordingsIndex& index, const std::string& path) {
  return Utils::writeFileAtomically(path, recordingsIndexToJson(index, fs::path(path).parent_path().string()));
}

bool isRecordingsIndexFile(const std::string& path) {
  std::error_code ec;
  if (path.empty() || !fs::is_regular_file(path, ec)) return false;
  auto text = Utils::readWholeFile(path);
  if (!text) return false;
  const json root = json::parse(text.value(), nullptr, false);
  if (!root.is_object()) return false;
  const auto format = root.find("format");
  return format != root.end() && format->is_string() && format->get<std::string>() == kRecordingsIndexFormat;
}

Utils::ReturnState<VideoInfo, std::string> probeVideo(const std::string& path) {
  std::error_code ec;
  if (fs::is_directory(path, ec)) return Utils::failure("video '" + path + "' is a folder, not a video file");
  if (!fs::exists(path, ec)) return Utils::failure("video '" + path + "': no such file");
  if (!fs::is_regular_file(path, ec)) return Utils::failure("video '" + path + "' is not a regular file");
  const auto size = fs::file_size(path, ec);
  const auto time = fs::last_write_time(path, ec).time_since_epoch().count();
  using Key = std::tuple<std::string, std::uintmax_t, long long>;
  static std::mutex mutex;
  static std::map<Key, VideoInfo> cache;
  const Key key{fs::absolute(path).string(), size, static_cast<long long>(time)};
  {
    std::lock_guard<std::mutex> lock(mutex);
    const auto it = cache.find(key);
    if (it != cache.end()) return it->second;
  }
  cv::VideoCapture capture;
  if (!ImageSource::openVideoFile(capture, path)) {
    return Utils::failure("video '" + path + "': cannot be opened as a video");
  }
  VideoInfo info;
  info.fps = capture.get(cv::CAP_PROP_FPS);
  info.width = static_cast<int>(capture.get(cv::CAP_PROP_FRAME_WIDTH));
  info.height = static_cast<int>(capture.get(cv::CAP_PROP_FRAME_HEIGHT));
  const double count = capture.get(cv::CAP_PROP_FRAME_COUNT);
  if (std::isfinite(count) && count > 0 && count < 1e8) {
    info.frames = static_cast<int>(count);
    // A file cut short still names its full length in its header: the last
    // frame it names must be there, or the video is reported, not read as if
    // whole.
    cv::Mat last;
    if (!capture.set(cv::CAP_PROP_POS_FRAMES, double(info.frames - 1)) || !capture.read(last) || last.empty()) {
      int readable = 0;
      cv::VideoCapture again;
      if (ImageSource::openVideoFile(again, path)) {
        while (again.grab()) ++readable;
      }
      return Utils::failure("video '" + path + "' is truncated: it names " + std::to_string(info.frames) +
                            " frames, but only " + std::to_string(readable) + " can be read");
    }
  } else {
    while (capture.grab()) ++info.frames;
  }
  if (info.frames <= 0) return Utils::failure("video '" + path + "': holds no frames");
  if (!std::isfinite(info.fps) || info.fps < kLowestFps || info.fps > kHighestFps) info.fps = 0.0;
  std::lock_guard<std::mutex> lock(mutex);
  cache[key] = info;
  return info;
}

Utils::ReturnState<RecordingSpan, std::string> recordingSpan(const Recording& recording) {
  auto info = probeVideo(recording.video);
  if (!info) return Utils::failure(info.error());
  RecordingSpan span;
  span.recording = recording;
  span.fps = recording.fps > 0 ? recording.fps : info.value().fps;
  if (span.fps <= 0) {
    return Utils::failure("video '" + recording.video +
                          "': the file gives no frame rate; set \"fps\" for it in the recordings index");
  }
  span.frames = info.value().frames;
  span.startMs = recording.startMs;
  span.endMs = recording.startMs + static_cast<std::int64_t>(std::ceil(span.frames * 1000.0 / span.fps - 1e-9));
  return span;
}

}  // namespace Quarn

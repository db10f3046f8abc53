// Recordings index: a small JSON file that lists the video recordings of a
// camera's modules, so that the simulated camera can serve them through the
// session library (Search / ShowTrack) and the image source can read frames
// at absolute times.
//
//   {"format": "orbivane-recordings", "version": 1,
//    "recordings": [
//      {"module": "left", "video": "videos/left.avi",
//       "start": "2026-11-22T10:00:00Z", "fps": 25},
//      {"module": "left", "video": "videos/left-2.avi", "start": 1795341600000}]}
//
// - "module": the module (the connection's device) the recording belongs to;
//   a module may have several recordings.
// - "video": an ordinary video file that cv::VideoCapture reads; a relative
//   path is relative to the index file.
// - "start": when the first frame was taken: ISO-8601 UTC text
//   ("2026-11-22T10:00:00Z", "2026-11-22T10:00:00.250Z", "+00:00" also
//   accepted) or a number of milliseconds since the Unix epoch.
// - "fps" (optional): frames per second; without it the file's own rate.
//
// Times are milliseconds since the Unix epoch (UTC). Frame k of a recording
// covers the half-open span [start + k * 1000 / fps, start + (k + 1) * 1000 /
// fps); the recording ends (exclusive) at start + frames * 1000 / fps.
// Unknown keys are errors; errors name the file, the JSON path and the problem.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "orbivane/export.h"
#include "orbivane/utils/return_state.h"

namespace Quarn {

ORBIVANE_EXPORT extern const char* const kRecordingsIndexFormat;  // "orbivane-recordings"

struct Recording {
  std::string module;
  std::string video;         // as resolved: relative paths joined to the index's folder
  std::int64_t startMs = 0;  // milliseconds since the Unix epoch
  double fps = 0.0;          // frames per second; 0: the file's own rate
};

struct RecordingsIndex {
  std::string path;  // the index file (empty when made in memory)
  std::vector<Recording> recordings;
};

// What a video file holds, as OpenCV reads it.
struct VideoInfo {
  int frames = 0;
  double fps = 0.0;  // the file's own rate
  int width = 0;
  int height = 0;
};

// A recording with the facts of its file filled in: the rate used (the
// index's, else the file's) and the time span it covers.
struct ORBIVANE_EXPORT RecordingSpan {
  Recording recording;
  double fps = 0.0;
  int frames = 0;
  std::int64_t startMs = 0;
  std::int64_t endMs = 0;  // exclusive

  // The frame whose span holds `timeMs`, or -1 outside the recording.
  int frameAt(std::int64_t timeMs) const;
  // When frame k starts (milliseconds since the epoch, rounded down).
  std::int64_t frameStartMs(int frame) const;
};

ORBIVANE_EXPORT Utils::ReturnState<RecordingsIndex, std::string> loadRecordingsIndex(const std::string& path);
// `baseDirectory` resolves relative video paths; `source` names the text in errors.
ORBIVANE_EXPORT Utils::ReturnState<RecordingsIndex, std::string> parseRecordingsIndex(const std::string& text,
                                                                                     const std::string& baseDirectory,
                                                                                     const std::string& source);
// The index as JSON; video paths are written relative to `baseDirectory`
// when they lie below it, and start times as ISO-8601 UTC text.
ORBIVANE_EXPORT std::string recordingsIndexToJson(const RecordingsIndex& index, const std::string& baseDirectory);
// Writes the index file atomically.
ORBIVANE_EXPORT Utils::ReturnState<bool, std::string> saveRecordingsIndex(const RecordingsIndex& index,
                                                                          const std::string& path);
// Whether the file is a recordings index (readable JSON whose "format" says so).
ORBIVANE_EXPORT bool isRecordingsIndexFile(const std::string& path);

// Milliseconds since the Unix epoch from ISO-8601 UTC text
// (YYYY-MM-DDTHH:MM:SS[.fff](Z|+00:00); a space may stand for the T).
ORBIVANE_EXPORT Utils::ReturnState<std::int64_t, std::string> parseTimestamp(const std::string& text);
// ISO-8601 UTC text of a time: "2026-11-22T10:00:00Z", with ".fff" when the
// milliseconds are not zero.
ORBIVANE_EXPORT std::string formatTimestamp(std::int64_t timeMs);

// Opens the video and reads its frame count, rate and size. A file whose
// container gives no frame count is counted by reading it through. Results
// are kept per file (path, size and modification time) for the process.
ORBIVANE_EXPORT Utils::ReturnState<VideoInfo, std::string> probeVideo(const std::string& path);
// The recording's span (probes its file).
ORBIVANE_EXPORT Utils::ReturnState<RecordingSpan, std::string> recordingSpan(const Recording& recording);

}  // namespace Quarn

// Recordings index files: times, paths, spans and every kind of malformed
// file (the error names the file, the JSON path and the problem).
#include "orbivane/recordings/recordings_index.h"

#include <gtest/gtest.h>

#include "synthetic/recording_videos.h"
#include "synthetic/sample_data.h"

namespace {

using Quarn::parseRecordingsIndex;

TEST(RecordingsIndexTest, TimestampsParseAndFormatBothWays) {
  // 2026-11-22T10:00:00Z: 20779 days after 1970-01-01, plus ten hours.
  const std::int64_t expected = (20779LL * 86400 + 10 * 3600) * 1000;
  EXPECT_EQ(Quarn::parseTimestamp("2026-11-22T10:00:00Z").value(), expected);
  EXPECT_EQ(Quarn::parseTimestamp("2026-11-22 10:00:00+00:00").value(), expected);
  EXPECT_EQ(Quarn::parseTimestamp("2026-11-22T10:00:00.25Z").value(), expected + 250);
  EXPECT_EQ(Quarn::parseTimestamp("1970-01-01T00:00:00Z").value(), 0);
  EXPECT_EQ(Quarn::parseTimestamp("2024-02-29T23:59:59.999Z").value(), 1709251199999LL);
  EXPECT_EQ(Quarn::formatTimestamp(expected), "2026-11-22T10:00:00Z");
  EXPECT_EQ(Quarn::formatTimestamp(expected + 40), "2026-11-22T10:00:00.040Z");
  EXPECT_EQ(Quarn::formatTimestamp(1709251199999LL), "2024-02-29T23:59:59.999Z");
  for (const char* bad : {"2026-11-22", "2026-11-22T10:00:00", "2026-11-22T10:00:00+01:00", "2026-02-30T10:00:00Z",
                          "2023-02-29T00:00:00Z", "2026-11-22T24:00:00Z", "yesterday", "2026-11-22T10:00:00.Z"}) {
    EXPECT_FALSE(Quarn::parseTimestamp(bad)) << bad;
  }
}

TEST(RecordingsIndexTest, ParsesRecordingsAndResolvesPathsBesideTheIndex) {
  const auto index = parseRecordingsIndex(R"({"format": "orbivane-recordings", "version": 1, "recordings": [
      {"module": "left", "video": "videos/left.avi", "start": "2026-11-22T10:00:00Z", "fps": 25},
      {"module": "right", "video": "/data/right.avi", "start": 1795341600000}]})",
                                          "/base", "index.json");
  ASSERT_TRUE(index) << index.error();
  ASSERT_EQ(index.value().recordings.size(), 2u);
  const auto& left = index.value().recordings[0];
  EXPECT_EQ(left.module, "left");
  EXPECT_EQ(left.video, "/base/videos/left.avi");
  EXPECT_EQ(left.startMs, Quarn::parseTimestamp("2026-11-22T10:00:00Z").value());
  EXPECT_DOUBLE_EQ(left.fps, 25.0);
  EXPECT_EQ(index.value().recordings[1].video, "/data/right.avi");
  EXPECT_EQ(index.value().recordings[1].startMs, 1795341600000LL);
  EXPECT_DOUBLE_EQ(index.value().recordings[1].fps, 0.0);
}

TEST(RecordingsIndexTest, MalformedFilesNameTheFileThePathAndTheProblem) {
  const auto errorOf = [](const std::string& text) {
    const auto r = parseRecordingsIndex(text, "/base", "rec.json");
    EXPECT_FALSE(r) << text;
    return r ? std::string() : r.error();
  };
  const std::string head = R"({"format": "orbivane-recordings", "version": 1, "recordings": )";
  EXPECT_NE(errorOf("{").find("rec.json': not valid JSON"), std::string::npos);
  EXPECT_NE(errorOf(R"({"format": "orbivane-camera", "version": 1, "recordings": []})").find("at /format"),
            std::string::npos);
  EXPECT_NE(errorOf(R"({"format": "orbivane-recordings", "version": 2, "recordings": []})").find("at /version"),
            std::string::npos);
  EXPECT_NE(errorOf(R"({"format": "orbivane-recordings", "version": 1})").find("missing key 'recordings'"),
            std::string::npos);
  EXPECT_NE(errorOf(head + R"([{"module": "a", "video": "a.avi", "start": 0, "fsp": 25}]})")
                .find("at /recordings/0: unknown key 'fsp'"),
            std::string::npos);
  EXPECT_NE(errorOf(head + R"([{"module": "a", "video": "a.avi", "start": 0}, {"video": "b.avi", "start": 0}]})")
                .find("at /recordings/1: missing key 'module'"),
            std::string::npos);
  EXPECT_NE(errorOf(head + R"([{"module": "a", "video": "a.avi", "start": "10:00"}]})").find("at /recordings/0/start"),
            std::string::npos);
  EXPECT_NE(errorOf(head + R"([{"module": "a", "video": "a.avi", "start": -5}]})").find("at /recordings/0/start"),
            std::string::npos);
  EXPECT_NE(errorOf(head + R"([{"module": "a", "video": "a.avi", "start": 0, "fps": 0}]})")
                .find("at /recordings/0/fps"),
            std::string::npos);
  EXPECT_NE(errorOf(head + R"([{"module": "a", "video": "", "start": 0}]})").find("at /recordings/0/video"),
            std::string::npos);
  EXPECT_NE(errorOf(head + R"({"module": "a"}})").find("at /recordings: expected an array"), std::string::npos);
  EXPECT_NE(errorOf(R"({"format": "orbivane-recordings", "version": 1, "recordings": [], "extra": 1})")
                .find("unknown key 'extra'"),
            std::string::npos);

  const auto missing = Quarn::loadRecordingsIndex("/nonexistent/rec.json");
  ASSERT_FALSE(missing);
  EXPECT_NE(missing.error().find("/nonexistent/rec.json"), std::string::npos);
}

TEST(RecordingsIndexTest, SavedIndexReadsBackAndSpansComeFromTheFile) {
  Synthetic::TemporaryDirectory dir;
  Synthetic::writeNumberedVideo(dir.file("clip.avi"), 30, 10.0);
  const std::int64_t start = Quarn::parseTimestamp("2026-11-22T10:00:00Z").value();
  Synthetic::writeIndex(dir.file("rec.json"), {{"front", dir.file("clip.avi"), start, 0.0},
                                             {"back", dir.file("clip.avi"), start + 500, 25.0}});
  EXPECT_TRUE(Quarn::isRecordingsIndexFile(dir.file("rec.json")));
  EXPECT_FALSE(Quarn::isRecordingsIndexFile(dir.file("clip.avi")));
  // Written relative to the index, read back absolute.
  EXPECT_NE(Synthetic::readText(dir.file("rec.json")).find("\"video\": \"clip.avi\""), std::string::npos);
  const auto index = Quarn::loadRecordingsIndex(dir.file("rec.json"));
  ASSERT_TRUE(index) << index.error();
  EXPECT_EQ(index.value().recordings[0].video, dir.path() + "/clip.avi");

  const auto info = Quarn::probeVideo(dir.file("clip.avi"));
  ASSERT_TRUE(info) << info.error();
  EXPECT_EQ(info.value().frames, 30);
  EXPECT_NEAR(info.value().fps, 10.0, 1e-6);
  EXPECT_EQ(info.value().width, 192);

  const auto own = Quarn::recordingSpan(index.value().recordings[0]).value();  // the file's 10 fps
  EXPECT_EQ(own.endMs, start + 3000);
  EXPECT_EQ(own.frameAt(start), 0);
  EXPECT_EQ(own.frameAt(start + 99), 0);
  EXPECT_EQ(own.frameAt(start + 100), 1);
  EXPECT_EQ(own.frameAt(start + 2999), 29);
  EXPECT_EQ(own.frameAt(start + 3000), -1);
  EXPECT_EQ(own.frameAt(start - 1), -1);
  const auto fast = Quarn::recordingSpan(index.value().recordings[1]).value();  // the index's 25 fps
  EXPECT_EQ(fast.endMs, start + 500 + 1200);
  EXPECT_EQ(fast.frameAt(start + 500 + 40), 1);
  EXPECT_EQ(fast.frameStartMs(7), start + 500 + 280);

  EXPECT_FALSE(Quarn::probeVideo(dir.file("missing.avi")));
  Synthetic::writeText(dir.file("broken.avi"), "not a video at all");
  const auto broken = Quarn::probeVideo(dir.file("broken.avi"));
  ASSERT_FALSE(broken);
  EXPECT_NE(broken.error().find("broken.avi"), std::string::npos);
}

}  // namespace

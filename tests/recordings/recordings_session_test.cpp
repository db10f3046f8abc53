// The simulated camera opened on a recordings index: Search and ShowTrack
// through sessions, and what such a camera refuses.
#include <gtest/gtest.h>

#include "orbivane/session/quarn_session.h"
#include "orbivane/recordings/recording_player.h"
#include "orbivane/simulated/simulated_camera.h"
#include "synthetic/recording_videos.h"
#include "synthetic/sample_data.h"

namespace {

using Quarn::QuarnConnection;
using Quarn::QuarnSession;

QuarnConnection toIndex(const std::string& index, const std::string& device, const char* backend = "recordings") {
  QuarnConnection c;
  c.backend = backend;
  c.address = index;
  c.device = device;
  return c;
}

struct TwoClips {
  Synthetic::TemporaryDirectory dir;
  std::int64_t start = Quarn::parseTimestamp("2026-11-22T10:00:00Z").value();
  std::string index = dir.file("rec.json");
  TwoClips() {
    Synthetic::writeNumberedVideo(dir.file("a1.avi"), 20, 10.0);  // 2 s
    Synthetic::writeNumberedVideo(dir.file("a2.avi"), 10, 10.0);  // 1 s
    // Module a: 10:00:00-10:00:02 and 10:00:05-10:00:06; module b: 10:00:00-10:00:02.
    Synthetic::writeIndex(index, {{"a", dir.file("a2.avi"), start + 5000, 0.0},
                                {"a", dir.file("a1.avi"), start, 0.0},
                                {"b", dir.file("a1.avi"), start, 0.0}});
  }
};

TEST(RecordingsSessionTest, SearchFindsTheDevicesRecordingsOverlappingTheRange) {
  TwoClips clips;
  QuarnSession session;
  ASSERT_TRUE(session.Connect(toIndex(clips.index, "a"), nullptr));

  int calls = 0;
  auto all = session.Search({"a", clips.start - 60000, clips.start + 60000},
                            [&](const QuarnSession::SearchResult& r) { calls += r ? 1 : 0; })
                 .get();
  ASSERT_TRUE(all) << all.error();
  EXPECT_EQ(calls, 1);
  ASSERT_EQ(all.value().size(), 2u);
  EXPECT_EQ(all.value()[0].device, "a");
  EXPECT_EQ(all.value()[0].startMs, clips.start);  // ordered by start
  EXPECT_EQ(all.value()[0].endMs, clips.start + 2000);
  EXPECT_EQ(all.value()[0].track, clips.dir.file("a1.avi"));
  EXPECT_EQ(all.value()[1].startMs, clips.start + 5000);
  EXPECT_EQ(all.value()[1].endMs, clips.start + 6000);

  // Overlap, not containment; the end is exclusive.
  auto some = session.Search({"", clips.start + 1500, clips.start + 5000}, {}).get();
  ASSERT_TRUE(some);
  EXPECT_EQ(some.value().size(), 2u);
  auto gap = session.Search({"a", clips.start + 2000, clips.start + 4999}, {}).get();
  ASSERT_TRUE(gap);
  EXPECT_TRUE(gap.value().empty());
  auto instant = session.Search({"a", clips.start + 5999, clips.start + 5999}, {}).get();
  ASSERT_TRUE(instant);
  ASSERT_EQ(instant.value().size(), 1u);

  // Another device is not this session's.
  EXPECT_FALSE(session.Search({"b", clips.start, clips.start + 1}, {}).get());
}

TEST(RecordingsSessionTest, ShowTrackChecksTheTrackAndCaptureShowsIt) {
  TwoClips clips;
  QuarnSession session;
  ASSERT_TRUE(session.Connect(toIndex(clips.index, "a"), nullptr));
  EXPECT_FALSE(session.CaptureImage({}).get());  // nothing shown yet

  auto found = session.Search({"a", clips.start + 5000, clips.start + 5000}, {}).get();
  ASSERT_TRUE(found);
  ASSERT_EQ(found.value().size(), 1u);
  ASSERT_TRUE(session.ShowTrack(found.value()[0], {}).get());
  auto picture = session.CaptureImage({}).get();
  ASSERT_TRUE(picture) << picture.error();
  EXPECT_EQ(picture.value().size(), cv::Size(192, 128));
  EXPECT_EQ(Synthetic::readFrameNumber(picture.value()), 0);

  Quarn::SearchInfo stranger = found.value()[0];
  stranger.track = clips.dir.file("elsewhere.avi");
  const auto refused = session.ShowTrack(stranger, {}).get();
  ASSERT_FALSE(refused);
  EXPECT_NE(refused.error().find("has no recording"), std::string::npos);
  Quarn::SearchInfo otherDevice = found.value()[0];
  otherDevice.device = "b";
  EXPECT_FALSE(session.ShowTrack(otherDevice, {}).get());
}

TEST(RecordingsSessionTest, RecordedModulesHaveNoSensorWindowAndUnknownOnesDoNotConnect) {
  TwoClips clips;
  QuarnSession session;
  ASSERT_TRUE(session.Connect(toIndex(clips.index, "b"), nullptr));
  const auto info = session.GetCamerasensorInfo({}).get();
  ASSERT_FALSE(info);
  EXPECT_NE(info.error().find("no sensor window"), std::string::npos);
  EXPECT_FALSE(session.SetCamerasensor(0, 0, {}).get());

  QuarnSession nobody;
  const auto refused = nobody.Connect(toIndex(clips.index, "c"), nullptr);
  ASSERT_FALSE(refused);
  EXPECT_NE(refused.error().find("no recordings of module 'c'"), std::string::npos);

  // Connections written before the recordings backend existed name the
  // simulated one; they play the same recordings.
  QuarnSession old;
  ASSERT_TRUE(old.Connect(toIndex(clips.index, "a", "simulated"), nullptr));
  const auto oldSearch = old.Search({"a", clips.start, clips.start + 60000}, {}).get();
  ASSERT_TRUE(oldSearch) << oldSearch.error();
  EXPECT_FALSE(oldSearch.value().empty());

  // The recordings are played by their own backend; the simulated camera
  // (a test double of a device) refuses the index and keeps none.
  auto player = Quarn::RecordingPlayer::open(clips.index);
  ASSERT_TRUE(player);
  EXPECT_EQ(player.value()->moduleIds(), (std::vector<std::string>{"a", "b"}));
  const auto simulated = Quarn::SimulatedCamera::open(clips.index);
  ASSERT_FALSE(simulated);
  EXPECT_NE(simulated.error().find("is a recordings index"), std::string::npos);
}

TEST(RecordingsSessionTest, MalformedIndexAndMissingVideosAreClearErrors) {
  Synthetic::TemporaryDirectory dir;
  Synthetic::writeText(dir.file("bad.json"),
                     R"({"format": "orbivane-recordings", "version": 1, "recordings": [{"module": "a"}]})");
  QuarnSession session;
  const auto bad = session.Connect(toIndex(dir.file("bad.json"), "a"), nullptr);
  ASSERT_FALSE(bad);
  EXPECT_NE(bad.error().find("bad.json"), std::string::npos);
  EXPECT_NE(bad.error().find("at /recordings/0: missing key 'video'"), std::string::npos);

  Synthetic::writeIndex(dir.file("rec.json"), {{"a", dir.file("gone.avi"), 0, 0.0}});
  ASSERT_TRUE(session.Connect(toIndex(dir.file("rec.json"), "a"), nullptr));
  const auto search = session.Search({"a", 0, 1000}, {}).get();
  ASSERT_FALSE(search);
  EXPECT_NE(search.error().find("gone.avi"), std::string::npos);
}

TEST(RecordingsSessionTest, CamerasWithoutAnIndexStillDoNotSearch) {
  Synthetic::TemporaryDirectory dir;
  auto camera = Quarn::SimulatedCamera::open(dir.file("state.json")).value();
  Quarn::SimulatedModule m;
  m.id = "front";
  m.scene.width = 64;
  m.scene.height = 48;
  ASSERT_TRUE(camera->addModule(m));
  QuarnSession session;
  ASSERT_TRUE(session.Connect(toIndex(dir.file("state.json"), "front", "simulated"), nullptr));
  const auto search = session.Search({"front", 0, 1}, {}).get();
  ASSERT_FALSE(search);
  EXPECT_NE(search.error().find("not supported by this backend"), std::string::npos);
  EXPECT_TRUE(session.GetCamerasensorInfo({}).get());
}

}  // namespace

// RecordingImageSource: exact seeking by absolute time (frame numbers drawn
// into MJPG frames, and vtest.avi against reading it front to back), the
// geometry grid switch, and clear errors.
#include "orbivane/recordings/recording_image_source.h"

#include <random>

#include <gtest/gtest.h>

#include "orbivane/image/image_conversion.h"
#include "orbivane/shading/image_shading.h"
#include "orbivane/utils/wide_text.h"
#include "synthetic/recording_videos.h"
#include "recordings/video_frame_reader.h"
#include "synthetic/sample_data.h"
#include "synthetic/connections.h"

namespace {

using ImageSource::RecordingImageSource;

CameraDescription::OrbivaneModule recordedModule(const std::string& name, const std::string& index) {
  CameraDescription::OrbivaneModule module(Utils::fromUtf8(name));
  const Quarn::QuarnConnection c = Synthetic::recordingsConnection(index, name);
  module.setConnection(c);
  return module;
}

int numberAt(RecordingImageSource& source, std::int64_t t, const std::wstring& module) {
  auto sought = source.seekToAbsolutePosition(t);
  EXPECT_TRUE(sought) << (sought ? "" : sought.error());
  auto images = source.getImages();
  EXPECT_TRUE(images) << (images ? "" : images.error());
  if (!images) return -1;
  return Synthetic::readFrameNumber(Image::toMat(images.value().at(module)));
}

TEST(RecordingsSeekTest, EveryTimeGivesTheFrameWhoseSpanHoldsIt) {
  Synthetic::TemporaryDirectory dir;
  Synthetic::writeNumberedVideo(dir.file("left.avi"), 120, 25.0);
  Synthetic::writeNumberedVideo(dir.file("right.avi"), 90, 30.0);
  const std::int64_t start = Quarn::parseTimestamp("2026-11-22T10:00:00Z").value();
  // The right module starts 1.01 s later and plays at 30 fps (frames of 33.3 ms).
  Synthetic::writeIndex(dir.file("rec.json"), {{"left", dir.file("left.avi"), start, 0.0},
                                             {"right", dir.file("right.avi"), start + 1010, 0.0}});
  RecordingImageSource source;
  ASSERT_TRUE(
      source.init({recordedModule("left", dir.file("rec.json")), recordedModule("right", dir.file("rec.json"))}));
  source.setIgnoreGeometryGrid(true);

  // Random order: forward, backward, near and far jumps.
  std::mt19937 random(7);
  std::uniform_int_distribution<std::int64_t> offset(1010, 3999);
  for (int i = 0; i < 60; ++i) {
    const std::int64_t t = start + offset(random);
    ASSERT_TRUE(source.seekToAbsolutePosition(t));
    const auto images = source.getImages();
    ASSERT_TRUE(images) << images.error();
    const int left = static_cast<int>((t - start) / 40);
    const int right = static_cast<int>(std::floor((t - start - 1010) * 30.0 / 1000.0));
    EXPECT_EQ(Synthetic::readFrameNumber(Image::toMat(images.value().at(L"left"))), left) << t - start;
    EXPECT_EQ(Synthetic::readFrameNumber(Image::toMat(images.value().at(L"right"))), right) << t - start;
    EXPECT_EQ(source.position(L"left").value().frame, left);
    EXPECT_EQ(source.position(L"left").value().frameStartMs, start + 40 * left);
  }
  // Frame borders: the first and last millisecond of a frame's span.
  EXPECT_EQ(numberAt(source, start + 1010 + 33, L"right"), 0);
  EXPECT_EQ(numberAt(source, start + 1010 + 34, L"right"), 1);
  EXPECT_EQ(numberAt(source, start + 1010 + 66, L"right"), 1);
  EXPECT_EQ(numberAt(source, start + 1010 + 67, L"right"), 2);
  EXPECT_EQ(numberAt(source, start + 1010 + 2999, L"right"), 89);
  EXPECT_EQ(numberAt(source, start + 1010 + 2999, L"left"), 100);
}

TEST(RecordingsSeekTest, SeekingVtestMatchesReadingFrontToBack) {
  // vtest.avi: 768 x 576 pedestrians at 10 fps, an inter-frame codec.
  const std::string path = Synthetic::samplePath("vtest.avi");
  constexpr int kFrames = 160;
  std::vector<cv::Mat> truth;
  cv::VideoCapture plain(path);
  for (int i = 0; i < kFrames; ++i) {
    cv::Mat f;
    ASSERT_TRUE(plain.read(f));
    truth.push_back(f);
  }
  Synthetic::TemporaryDirectory dir;
  const std::int64_t start = 1'700'000'000'000LL;
  Synthetic::writeIndex(dir.file("rec.json"), {{"street", path, start, 0.0}});
  RecordingImageSource source;
  ASSERT_TRUE(source.init({recordedModule("street", dir.file("rec.json"))}));
  source.setIgnoreGeometryGrid(true);
  for (int frame : {0, 150, 3, 99, 100, 101, 159, 55, 1, 120, 60, 61, 7}) {
    ASSERT_TRUE(source.seekToAbsolutePosition(start + frame * 100 + 50));
    const auto images = source.getImages();
    ASSERT_TRUE(images) << images.error();
    const cv::Mat got = Image::toMat(images.value().at(L"street"));
    ASSERT_EQ(got.size(), truth[frame].size());
    EXPECT_EQ(cv::norm(got, truth[frame], cv::NORM_INF), 0.0) << "frame " << frame;
  }
}

TEST(RecordingsSeekTest, ReaderFallsBackToReadingForwardWhenStampsCannotCheckASeek) {
  // A rate that disagrees with the file's stamps makes them useless for
  // checking: every far jump must then read forward and still be exact.
  Synthetic::TemporaryDirectory dir;
  Synthetic::writeNumberedVideo(dir.file("clip.avi"), 150, 25.0);
  ImageSource::VideoFrameReader wrongRate(dir.file("clip.avi"), 150, 7.0);
  for (int frame : {120, 5, 149, 60, 0, 100}) {
    const auto f = wrongRate.frame(frame);
    ASSERT_TRUE(f) << f.error();
    EXPECT_EQ(Synthetic::readFrameNumber(f.value()), frame);
  }
  ImageSource::VideoFrameReader right(dir.file("clip.avi"), 150, 25.0);
  for (int frame : {120, 5, 149, 60, 0, 100}) EXPECT_EQ(Synthetic::readFrameNumber(right.frame(frame).value()), frame);
  EXPECT_EQ(right.seekFallbacks(), 0);
  EXPECT_FALSE(right.frame(150));
  EXPECT_FALSE(right.frame(-1));
}

TEST(RecordingsSeekTest, GeometryGridIsDrawnUnlessIgnored) {
  Synthetic::TemporaryDirectory dir;
  Synthetic::writeNumberedVideo(dir.file("clip.avi"), 5, 10.0);
  Synthetic::writeIndex(dir.file("rec.json"), {{"m", dir.file("clip.avi"), 0, 0.0}});
  auto module = recordedModule("m", dir.file("rec.json"));
  // A 1 x 1 grid that shows the texture mirrored left to right.
  Utils::UVGrid grid(1, 1);
  grid.setPoints({{1, 0}, {0, 0}, {1, 1}, {0, 1}});
  module.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(Utils::Matrix4x4(), grid));
  RecordingImageSource source;
  ASSERT_TRUE(source.init({module}));
  ASSERT_TRUE(source.seekToAbsolutePosition(250));
  const cv::Mat drawn = Image::toMat(source.getImages().value().at(L"m"));
  source.setIgnoreGeometryGrid(true);
  const cv::Mat raw = Image::toMat(source.getImages().value().at(L"m"));
  EXPECT_EQ(Synthetic::readFrameNumber(raw), 2);
  ASSERT_EQ(drawn.size(), raw.size());
  // The drawn picture is the same renderer's output on the raw frame, and
  // (away from the edges) the mirror image of it.
  ImageSource::ImageShading shading;
  shading.SetUVGrid(grid);
  EXPECT_EQ(cv::norm(drawn, Image::toMat(shading.Apply(Image::fromMat(raw))), cv::NORM_INF), 0.0);
  cv::Mat mirrored;
  cv::flip(raw, mirrored, 1);
  const cv::Rect inner(4, 4, raw.cols - 8, raw.rows - 8);
  // Texture coordinate u = x / width: position x shows source x' = width - x,
  // one column right of the flip's width - 1 - x.
  EXPECT_LT(cv::norm(drawn(inner), mirrored(inner - cv::Point(1, 0)), cv::NORM_L1) / inner.area() / 3, 8.0);
  EXPECT_GT(cv::norm(drawn(inner), raw(inner), cv::NORM_L1) / inner.area() / 3, 20.0);
}

TEST(RecordingsSeekTest, ClearErrorsOutsideTheRecordingsAndForBadModules) {
  Synthetic::TemporaryDirectory dir;
  Synthetic::writeNumberedVideo(dir.file("clip.avi"), 10, 10.0);
  Synthetic::writeText(dir.file("broken.avi"), "not a video");
  Synthetic::writeIndex(dir.file("rec.json"), {{"m", dir.file("clip.avi"), 10000, 0.0},
                                             {"n", dir.file("clip.avi"), 10500, 0.0},
                                             {"x", dir.file("broken.avi"), 10000, 0.0}});
  RecordingImageSource source;
  const auto noModules = source.seekToAbsolutePosition(0);
  ASSERT_FALSE(noModules);
  EXPECT_NE(noModules.error().find("init"), std::string::npos);

  CameraDescription::OrbivaneModule unconnected(L"lonely");
  const auto noConnection = source.init({unconnected});
  ASSERT_FALSE(noConnection);
  EXPECT_NE(noConnection.error().find("'lonely' has no connection"), std::string::npos);
  EXPECT_FALSE(source.init({recordedModule("m", dir.file("rec.json")), recordedModule("m", dir.file("rec.json"))}));
  EXPECT_FALSE(source.init({recordedModule("ghost", dir.file("rec.json"))}));

  ASSERT_TRUE(source.init({recordedModule("m", dir.file("rec.json")), recordedModule("n", dir.file("rec.json"))}));
  const auto early = source.getImages();
  ASSERT_FALSE(early);
  EXPECT_NE(early.error().find("no position yet"), std::string::npos);
  // 10.2 s: m plays, n starts only at 10.5 s; the failed seek moves nobody.
  ASSERT_TRUE(source.seekToAbsolutePosition(10600));
  const auto outside = source.seekToAbsolutePosition(10200);
  ASSERT_FALSE(outside);
  EXPECT_NE(outside.error().find("module 'n' has no recording at 1970-01-01T00:00:10.200Z"), std::string::npos);
  EXPECT_EQ(source.position(L"m").value().frame, 6);
  EXPECT_FALSE(source.seekToAbsolutePosition(11000));  // m's end is exclusive
  EXPECT_TRUE(source.seekToAbsolutePosition(10999));

  RecordingImageSource broken;
  ASSERT_TRUE(broken.init({recordedModule("x", dir.file("rec.json"))}));
  const auto unreadable = broken.seekToAbsolutePosition(10000);
  ASSERT_FALSE(unreadable);
  EXPECT_NE(unreadable.error().find("broken.avi"), std::string::npos);
}

}  // namespace

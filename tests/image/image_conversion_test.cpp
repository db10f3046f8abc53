// Pictures to and from OpenCV matrices and files, and the turning rule that
// undoes a module's mounting rotation.
#include "orbivane/image/image_conversion.h"

#include <sys/stat.h>

#include <cmath>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "orbivane/image/yuv_image.h"
#include "support/matchers.h"
#include "synthetic/sample_data.h"

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using Image::Turn;

template <typename Call>
std::string invalidArgumentMessage(Call call) {
  try {
    call();
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
  return "(no std::invalid_argument thrown)";
}

bool noTemporaryLeftovers(const std::string& folder) {
  for (const auto& e : fs::directory_iterator(folder)) {
    if (e.path().filename().string().find(".tmp-") != std::string::npos) return false;
  }
  return true;
}

}  // namespace

TEST(ImageConversion, EveryMappingGivesTheSameBgrMat) {
  const cv::Mat bgr = Synthetic::loadSample("building.jpg");
  const auto image = Image::fromMat(bgr);
  EXPECT_EQ(image->mapping(), Image::kMappingBGR);
  EXPECT_EQ(image->width(), bgr.cols);
  EXPECT_EQ(image->height(), bgr.rows);
  for (int mapping = 0; mapping <= 4; ++mapping) {
    const std::shared_ptr<Image::UniversalImageInterface> converted = image->converted(mapping);
    const cv::Mat back = Image::toMat(converted);
    EXPECT_EQ(back.type(), CV_8UC3) << mapping;
    EXPECT_THAT(back, Testing::PictureNear(bgr, 0)) << "mapping " << mapping;
  }
  // toMat hands out a copy, not a view of the picture.
  cv::Mat copy = Image::toMat(*image);
  copy.setTo(cv::Scalar::all(0));
  EXPECT_FALSE(image->pixel(10, 10) == (Image::RGBPixel{0, 0, 0, 255}));
  EXPECT_THROW(Image::toMat(std::shared_ptr<Image::UniversalImageInterface>()), std::invalid_argument);
  EXPECT_TRUE(Image::toMat(Image::RGBImage(0, 0, Image::kMappingRGB)).empty());
}

TEST(ImageConversion, FromMatAcceptsGreyBgrBgraAndViews) {
  cv::Mat grey;
  cv::cvtColor(Synthetic::loadSample("home.jpg"), grey, cv::COLOR_BGR2GRAY);
  const auto fromGrey = Image::fromMat(grey);
  EXPECT_EQ(fromGrey->mapping(), Image::kMappingBGR);
  const std::uint8_t g = grey.at<std::uint8_t>(50, 70);
  EXPECT_EQ(fromGrey->pixel(70, 50), (Image::RGBPixel{g, g, g, 255}));
  cv::Mat greyAsBgr;
  cv::cvtColor(grey, greyAsBgr, cv::COLOR_GRAY2BGR);
  EXPECT_THAT(Image::toMat(*fromGrey), Testing::PictureNear(greyAsBgr, 0));

  cv::Mat bgra(2, 3, CV_8UC4, cv::Scalar(10, 20, 30, 40));
  const auto fromBgra = Image::fromMat(bgra);
  EXPECT_EQ(fromBgra->mapping(), Image::kMappingBGRA);
  EXPECT_EQ(fromBgra->pixel(2, 1), (Image::RGBPixel{30, 20, 10, 40}));

  // A view into a larger picture (rows not contiguous) is copied row by row.
  const cv::Mat fruits = Synthetic::loadSample("fruits.jpg");
  const cv::Mat view = fruits(cv::Rect(33, 47, 101, 59));
  ASSERT_FALSE(view.isContinuous());
  EXPECT_THAT(Image::toMat(*Image::fromMat(view)), Testing::PictureNear(view.clone(), 0));
}

TEST(ImageConversion, FromMatRejectsOtherDepthsAndChannelCounts) {
  EXPECT_THAT(invalidArgumentMessage([] { Image::fromMat(cv::Mat(4, 4, CV_8UC2)); }),
              ::testing::AllOf(HasSubstr("1, 3 or 4 channels"), HasSubstr("CV_8UC2")));
  EXPECT_THAT(invalidArgumentMessage([] { Image::fromMat(cv::Mat(4, 4, CV_16UC3)); }),
              ::testing::AllOf(HasSubstr("8-bit"), HasSubstr("CV_16UC3")));
  EXPECT_THAT(invalidArgumentMessage([] { Image::fromMat(cv::Mat(4, 4, CV_32FC1)); }), HasSubstr("CV_32FC1"));
}

TEST(ImageConversion, LoadImageReadsRealPictures) {
  const std::string path = Synthetic::samplePath("baboon.jpg");
  const auto loaded = Image::loadImage(path);
  ASSERT_TRUE(loaded.hasValue()) << loaded.error();
  EXPECT_EQ(loaded.value()->width(), 512);
  EXPECT_EQ(loaded.value()->height(), 512);
  EXPECT_THAT(Image::toMat(*loaded.value()), Testing::PictureNear(Synthetic::loadSample("baboon.jpg"), 0));
  struct stat info {};
  ASSERT_EQ(::stat(path.c_str(), &info), 0);
  EXPECT_EQ(loaded.value()->timestamp(), static_cast<std::int64_t>(info.st_mtime) * 1000);

  // 16-bit pictures are scaled to 8 bits, alpha is kept.
  Synthetic::TemporaryDirectory dir;
  cv::Mat deep(2, 2, CV_16UC4, cv::Scalar(65535, 257 * 100, 0, 257 * 20));
  ASSERT_TRUE(cv::imwrite(dir.file("deep.png"), deep));
  const auto scaled = Image::loadImage(dir.file("deep.png"));
  ASSERT_TRUE(scaled.hasValue()) << scaled.error();
  EXPECT_EQ(scaled.value()->mapping(), Image::kMappingBGRA);
  EXPECT_EQ(scaled.value()->pixel(1, 1), (Image::RGBPixel{0, 100, 255, 20}));
}

TEST(ImageConversion, LoadImageExplainsWhyItFailed) {
  Synthetic::TemporaryDirectory dir;
  const std::string missing = dir.file("nowhere.png");
  const auto a = Image::loadImage(missing);
  ASSERT_TRUE(a.hasError());
  EXPECT_THAT(a.error(), ::testing::AllOf(HasSubstr(missing), HasSubstr("no such file")));

  const std::string corrupt = dir.file("x.png");
  Synthetic::writeText(corrupt, std::string("\x89PNG\r\n\x1a\n garbage that is no picture at all IEND", 47));
  const auto b = Image::loadImage(corrupt);
  ASSERT_TRUE(b.hasError());
  EXPECT_THAT(b.error(), ::testing::AllOf(HasSubstr(corrupt), HasSubstr("decoded")));

  // Pictures cut short are refused, not decoded with their missing part grey.
  for (const char* name : {"baboon.jpg", "graf1.png"}) {
    const std::string whole = Synthetic::readText(Synthetic::samplePath(name));
    const std::string cut = dir.file(std::string("cut-") + name);
    Synthetic::writeText(cut, whole.substr(0, whole.size() / 2));
    const auto d = Image::loadImage(cut);
    ASSERT_TRUE(d.hasError()) << name;
    EXPECT_THAT(d.error(), ::testing::AllOf(HasSubstr(cut), HasSubstr("truncated"))) << name;
    Synthetic::writeText(cut, whole);
    EXPECT_TRUE(Image::loadImage(cut).hasValue()) << name << " whole";
  }

  const auto c = Image::loadImage(dir.path());
  ASSERT_TRUE(c.hasError());
  EXPECT_THAT(c.error(), ::testing::AllOf(HasSubstr(dir.path()), HasSubstr("folder")));

  EXPECT_TRUE(Image::loadImage("").hasError());
}

TEST(ImageConversion, SavedPngReadsBackExactly) {
  Synthetic::TemporaryDirectory dir;
  const cv::Mat fruits = Synthetic::loadSample("fruits.jpg");
  const auto image = Image::fromMat(fruits)->converted(Image::kMappingRGB);
  const auto saved = Image::saveImage(*image, dir.file("fruits.png"));
  ASSERT_TRUE(saved.hasValue()) << saved.error();
  const auto loaded = Image::loadImage(dir.file("fruits.png"));
  ASSERT_TRUE(loaded.hasValue()) << loaded.error();
  EXPECT_THAT(Image::toMat(*loaded.value()), Testing::PictureNear(fruits, 0));

  // A four-byte picture keeps its alpha channel through the file.
  Image::RGBImage translucent(3, 2, Image::kMappingARGB);
  translucent.setPixel(2, 1, {11, 22, 33, 44});
  ASSERT_TRUE(Image::saveImage(translucent, dir.file("alpha.png")).hasValue());
  const auto withAlpha = Image::loadImage(dir.file("alpha.png"));
  ASSERT_TRUE(withAlpha.hasValue());
  EXPECT_EQ(withAlpha.value()->pixel(2, 1), (Image::RGBPixel{11, 22, 33, 44}));
  EXPECT_EQ(withAlpha.value()->alpha(0, 0), 255);

  // saveMat with a grey matrix.
  cv::Mat grey(5, 7, CV_8UC1);
  cv::randu(grey, 0, 256);
  ASSERT_TRUE(Image::saveMat(grey, dir.file("grey.png")).hasValue());
  EXPECT_THAT(cv::imread(dir.file("grey.png"), cv::IMREAD_UNCHANGED), Testing::PictureNear(grey, 0));
  EXPECT_TRUE(noTemporaryLeftovers(dir.path()));
}

TEST(ImageConversion, SaveRefusesBadNamesAndNeverLeavesAHalfFile) {
  Synthetic::TemporaryDirectory dir;
  const cv::Mat box = Synthetic::loadSample("box.png");
  const auto noExtension = Image::saveMat(box, dir.file("picture"));
  ASSERT_TRUE(noExtension.hasError());
  EXPECT_THAT(noExtension.error(), ::testing::AllOf(HasSubstr(dir.file("picture")), HasSubstr("extension")));
  // A dot in a folder name is no extension.
  fs::create_directory(dir.file("v1.2"));
  EXPECT_TRUE(Image::saveMat(box, dir.file("v1.2/picture")).hasError());
  EXPECT_FALSE(fs::exists(dir.file("picture")));
  EXPECT_TRUE(Image::saveMat(cv::Mat(), dir.file("empty.png")).hasError());
  EXPECT_FALSE(fs::exists(dir.file("empty.png")));
  EXPECT_TRUE(Image::saveMat(box, dir.file("missing/box.png")).hasError());
  EXPECT_FALSE(fs::exists(dir.file("missing")));

  // Saving over an existing, larger file replaces it whole.
  const std::string path = dir.file("shot.png");
  ASSERT_TRUE(Image::saveMat(Synthetic::loadSample("baboon.jpg"), path).hasValue());
  ASSERT_TRUE(Image::saveMat(box, path).hasValue());
  EXPECT_THAT(cv::imread(path, cv::IMREAD_COLOR), Testing::PictureNear(box, 0));

  // When the file cannot be replaced (a folder of that name), what was there stays.
  const std::string folder = dir.file("taken.png");
  fs::create_directory(folder);
  Synthetic::writeText(folder + "/note.txt", "old");
  const auto failed = Image::saveMat(box, folder);
  ASSERT_TRUE(failed.hasError());
  EXPECT_THAT(failed.error(), HasSubstr(folder));
  EXPECT_EQ(Synthetic::readText(folder + "/note.txt"), "old");
  EXPECT_TRUE(noTemporaryLeftovers(dir.path()));
}

TEST(ImageConversion, TurnForSnapsToTheEightAnchors) {
  // Within 45 degrees (exclusive) of 0 or 360, 180 or -180, 90 or -270, 270 or -90.
  for (double d : {0.0, 360.0, 30.0, -30.0, 44.0, -44.9, 316.0, 404.0}) {
    EXPECT_EQ(Image::turnFor(d), Turn::kKeep) << d;
  }
  for (double d : {180.0, -180.0, 136.0, 224.0, -136.0, -224.0}) EXPECT_EQ(Image::turnFor(d), Turn::kHalf) << d;
  for (double d : {90.0, -270.0, 46.0, 134.0, -226.0, -314.0}) {
    EXPECT_EQ(Image::turnFor(d), Turn::kQuarterClockwise) << d;
  }
  for (double d : {270.0, -90.0, 226.0, 314.0, -46.0, -134.0}) {
    EXPECT_EQ(Image::turnFor(d), Turn::kQuarterCounterClockwise) << d;
  }
  // Exactly between anchors, and near no anchor at all: angles are not taken
  // modulo 360.
  for (double d : {45.0, 135.0, 225.0, 315.0, -45.0, 405.0, 450.0, 540.0, 720.0, -360.0, -330.0, 1e9}) {
    EXPECT_EQ(Image::turnFor(d), Turn::kNone) << d;
  }
  EXPECT_EQ(Image::turnFor(std::nan("")), Turn::kNone);
}

TEST(ImageConversion, TurnByRotationMatchesOpenCvRotate) {
  const cv::Mat source = Synthetic::loadSample("home.jpg")(cv::Rect(20, 10, 64, 37)).clone();
  const struct {
    double degrees;
    int rotateCode;  // -1: unchanged
  } cases[] = {
      {0, -1},
      {360, -1},
      {30, -1},
      {-30, -1},
      {44, -1},
      {180, cv::ROTATE_180},
      {-180, cv::ROTATE_180},
      {90, cv::ROTATE_90_CLOCKWISE},
      {-270, cv::ROTATE_90_CLOCKWISE},
      {46, cv::ROTATE_90_CLOCKWISE},
      {270, cv::ROTATE_90_COUNTERCLOCKWISE},
      {-90, cv::ROTATE_90_COUNTERCLOCKWISE},
  };
  for (const auto& c : cases) {
    cv::Mat expected;
    if (c.rotateCode >= 0) {
      cv::rotate(source, expected, c.rotateCode);
    } else {
      expected = source.clone();
    }
    cv::Mat turned;
    Image::turnByRotation(source, turned, c.degrees);
    EXPECT_THAT(turned, Testing::PictureNear(expected, 0)) << c.degrees << " degrees";
  }
  // A kept picture is a copy, not a view of the source.
  cv::Mat kept;
  Image::turnByRotation(source, kept, 0);
  EXPECT_NE(kept.data, source.data);
}

TEST(ImageConversion, TurnByRotationLeavesTheOutputAloneInTheGap) {
  const cv::Mat source = Synthetic::loadSample("box.png");
  for (double d : {45.0, 135.0, 225.0, 315.0, -45.0}) {
    cv::Mat empty;
    Image::turnByRotation(source, empty, d);
    EXPECT_TRUE(empty.empty()) << d;

    cv::Mat prefilled(4, 6, CV_8UC3, cv::Scalar(1, 2, 3));
    const std::uint8_t* before = prefilled.data;
    Image::turnByRotation(source, prefilled, d);
    EXPECT_EQ(prefilled.data, before) << d;
    EXPECT_THAT(prefilled, Testing::PictureNear(cv::Mat(4, 6, CV_8UC3, cv::Scalar(1, 2, 3)), 0)) << d;
  }
}

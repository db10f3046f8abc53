// The background model of the frame finder on the walking video (vtest.avi):
// thumbnails, exposure matching against a known gain and offset, the model
// of a busy street against the temporal median of the whole video, the
// foreground of a person put in at a known place, exposure changes, noise,
// something that never moves, and bad input.
#include "image_selection/background_model.h"

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "synthetic/walking_video.h"

namespace {

using OrbivaneCalibration::BackgroundModel;
using OrbivaneCalibration::ForegroundMeasure;

// The reduction the finder uses for persons from 60 px (768x576 frames).
const int kFactor = BackgroundModel::thumbnailFactor({768, 576}, 60, 25);
constexpr int kPerson = 60;  // px, the smallest person

class BackgroundModelOnWalkingVideo : public testing::Test {
 protected:
  static void SetUpTestSuite() { video_ = new Synthetic::WalkingVideo(Synthetic::readWalkingVideo(30, 27)); }
  static void TearDownTestSuite() {
    delete video_;
    video_ = nullptr;
  }
  static cv::Mat thumb(const cv::Mat& picture) { return BackgroundModel::thumbnail(picture, kFactor); }
  static std::vector<cv::Mat> thumbs(const std::vector<cv::Mat>& pictures) {
    std::vector<cv::Mat> out;
    for (const auto& p : pictures) out.push_back(thumb(p));
    return out;
  }
  static BackgroundModel model(const std::vector<cv::Mat>& pictures) {
    return BackgroundModel(thumbs(pictures), kFactor, pictures.front().size());
  }
  static const cv::Mat& frame(int index) { return video_->frames[static_cast<std::size_t>(index / 30)]; }
  static Synthetic::WalkingVideo* video_;
};
Synthetic::WalkingVideo* BackgroundModelOnWalkingVideo::video_ = nullptr;

double meanAbsoluteDifference(const cv::Mat& a, const cv::Mat& b) {
  cv::Mat fa, fb, d;
  a.convertTo(fa, CV_32F);
  b.convertTo(fb, CV_32F);
  cv::absdiff(fa, fb, d);
  return cv::mean(d)[0];
}

TEST(BackgroundModelThumbnail, IsTheSmoothedMeanOfWholeBlocksAndFitsTheBudget) {
  cv::Mat picture(10, 14, CV_8UC1);
  for (int y = 0; y < 10; ++y) {
    for (int x = 0; x < 14; ++x) picture.at<uchar>(y, x) = static_cast<uchar>(5 * x + 20 * y + ((x + y) % 2) * 8);
  }
  // The means of the 2x2 blocks (the checker pattern averages out), smoothed.
  cv::Mat blocks(5, 7, CV_32FC1), expected;
  for (int y = 0; y < 5; ++y) {
    for (int x = 0; x < 7; ++x) blocks.at<float>(y, x) = 10.0f * x + 40.0f * y + 16.5f;  // 12.5 + 8 / 2
  }
  cv::GaussianBlur(blocks, expected, cv::Size(), BackgroundModel::kSmoothing_, BackgroundModel::kSmoothing_,
                   cv::BORDER_REPLICATE);
  const cv::Mat t = BackgroundModel::thumbnail(picture, 2);
  ASSERT_EQ(t.size(), cv::Size(7, 5));
  cv::Mat t32;
  t.convertTo(t32, CV_32F);
  EXPECT_LE(cv::norm(t32, expected, cv::NORM_INF), 1.5);  // rounded twice
  // A linear ramp stays itself inside (smoothing does not move a ramp).
  EXPECT_NEAR(t.at<uchar>(2, 3), 126.5, 1);
  // A colour picture keeps its colours.
  cv::Mat bgr;
  cv::merge(std::vector<cv::Mat>{picture, picture / 2, 255 - picture}, bgr);
  const cv::Mat colour = BackgroundModel::thumbnail(bgr, 2);
  ASSERT_EQ(colour.type(), CV_8UC3);
  const cv::Vec3b middle = colour.at<cv::Vec3b>(2, 3);
  EXPECT_NEAR(middle[0], 126.5, 1);
  EXPECT_NEAR(middle[1], 63.25, 1.5);
  EXPECT_NEAR(middle[2], 128.5, 1);

  EXPECT_EQ(BackgroundModel::thumbnailFactor({288, 432}, 60, 25), 2);
  EXPECT_EQ(BackgroundModel::thumbnailFactor({288, 432}, 20, 25), 1);
  // 10000 samples of a 4K picture: reduced until they fit the budget.
  const int f = BackgroundModel::thumbnailFactor({3840, 2160}, 60, 10000);
  const auto bytes = [](int g) { return 3.0 * double(3840 / g) * double(2160 / g) * 10000; };
  EXPECT_LE(bytes(f), double(BackgroundModel::kThumbnailBudget_));
  EXPECT_GT(bytes(f - 1), double(BackgroundModel::kThumbnailBudget_));
}

TEST_F(BackgroundModelOnWalkingVideo, ExposureMatchingUndoesGainAndOffsetDespiteAPerson) {
  cv::Mat reference;
  cv::cvtColor(thumb(video_->background), reference, cv::COLOR_BGR2GRAY);
  cv::Mat darker;
  reference.convertTo(darker, -1, 0.6, 20);
  darker(cv::Rect(40, 60, 25, 40)).setTo(128);  // someone in the way: 5 % of the pixels
  const cv::Mat matched = OrbivaneCalibration::matchExposure(darker, reference);
  ASSERT_EQ(matched.type(), CV_32F);
  cv::Mat outside(reference.size(), CV_8UC1, cv::Scalar(255));
  outside(cv::Rect(40, 60, 25, 40)).setTo(0);
  cv::Mat ref32, difference;
  reference.convertTo(ref32, CV_32F);
  cv::absdiff(matched, ref32, difference);
  // Rounding to 8 bits after the gain of 0.6 costs at most about one level.
  EXPECT_LT(cv::mean(difference, outside)[0], 0.6);
  double worst = 0;
  cv::minMaxLoc(difference, nullptr, &worst, nullptr, nullptr, outside & (reference > 5) & (reference < 250));
  EXPECT_LT(worst, 2.0);
  EXPECT_THROW(OrbivaneCalibration::matchExposure(darker, cv::Mat(3, 3, CV_8UC1)), std::invalid_argument);
}

TEST_F(BackgroundModelOnWalkingVideo, TheModelOfTheBusyStreetIsTheEmptyStreet) {
  std::vector<cv::Mat> spread;
  for (int i = 0; i < 25; ++i) spread.push_back(video_->frames[static_cast<std::size_t>(i)]);
  const BackgroundModel m = model(spread);
  EXPECT_LT(meanAbsoluteDifference(m.model(), thumb(video_->background)), 1.5);

  // Frame 600: six walkers, the tallest a 145 px blob at the bottom left.
  const ForegroundMeasure busy = m.measure(thumb(frame(600)), kPerson);
  ASSERT_TRUE(busy.measured);
  EXPECT_GE(busy.personBlobs, 4);
  EXPECT_GT(busy.share, 0.005);
  const cv::Mat truth = Synthetic::foregroundMask(frame(600), video_->background);
  EXPECT_GT(cv::countNonZero(truth(busy.largestBlobBox)), 0.3 * busy.largestBlobBox.area()) << busy.largestBlobBox;
  EXPECT_GE(busy.largestBlobBox.height, 100);

  // The same frame with its people painted out is at the noise level.
  const ForegroundMeasure empty = m.measure(thumb(Synthetic::emptyScene(frame(600), video_->background)), kPerson);
  EXPECT_EQ(empty.personBlobs, 0);
  EXPECT_LT(empty.share, 0.002);
  EXPECT_FALSE(BackgroundModel::personSized(empty.largestBlob, empty.largestBlobBox, kPerson));
  EXPECT_DOUBLE_EQ(empty.noiseLevel, BackgroundModel::kMinLevel_);
}

TEST_F(BackgroundModelOnWalkingVideo, APersonPutIntoTheEmptyStreetIsItsLargestBlob) {
  const BackgroundModel m = model(video_->frames);
  const Synthetic::PersonCutout walker = Synthetic::cutOutWalker(frame(600), video_->background, 100);
  const cv::Mat empty = Synthetic::emptyScene(frame(300), video_->background);
  cv::Mat picture = empty.clone();
  const cv::Point at(350, 330);  // on the road
  Synthetic::pastePerson(picture, walker, at);
  // The truth: the pixels the person really changes (a channel by more than 20 levels).
  cv::Mat difference, changed;
  cv::absdiff(picture, empty, difference);
  cv::transform(difference, changed, cv::Matx13f(1, 0, 0));
  changed = (changed > 20);
  for (int c = 1; c < 3; ++c) {
    cv::Mat channel;
    cv::extractChannel(difference, channel, c);
    changed |= channel > 20;
  }
  const cv::Rect truth = cv::boundingRect(changed);
  const double area = cv::countNonZero(changed);
  ASSERT_GT(area, 1000);

  const ForegroundMeasure f = m.measure(thumb(picture), kPerson);
  EXPECT_EQ(f.personBlobs, 1);
  const double common = (f.largestBlobBox & truth).area();
  EXPECT_GT(common / (f.largestBlobBox | truth).area(), 0.6) << f.largestBlobBox << " against " << truth;
  EXPECT_GT(f.largestBlob, 0.6 * area);
  EXPECT_LT(f.largestBlob, 1.6 * area);
  EXPECT_NEAR(f.share, f.largestBlob / double(picture.total()), 0.002);
  // Without the person the same picture is at the noise level.
  EXPECT_EQ(m.measure(thumb(empty), kPerson).personBlobs, 0);
}

TEST_F(BackgroundModelOnWalkingVideo, AnExposureChangeOrNoiseIsNoForeground) {
  // Half of the frames darker (gain 0.5, offset 10), as after an exposure change.
  std::vector<cv::Mat> frames;
  for (std::size_t i = 0; i < video_->frames.size(); ++i) {
    cv::Mat f = video_->frames[i].clone();
    if (i % 2 == 1) f.convertTo(f, -1, 0.5, 10);
    frames.push_back(f);
  }
  const BackgroundModel m = model(frames);
  // The model has one exposure (between the two): matched to the truth, it is the truth.
  std::vector<cv::Mat> model, truth;
  cv::split(m.model(), model);
  cv::split(thumb(video_->background), truth);
  for (int c = 0; c < 3; ++c) {
    EXPECT_LT(meanAbsoluteDifference(OrbivaneCalibration::matchExposure(model[c], truth[c]), truth[c]), 1.5) << c;
  }
  cv::Mat dark = Synthetic::emptyScene(frame(300), video_->background);
  dark.convertTo(dark, -1, 0.5, 10);
  for (const cv::Mat& empty : {dark, Synthetic::emptyScene(frame(300), video_->background)}) {
    const ForegroundMeasure f = m.measure(thumb(empty), kPerson);
    EXPECT_EQ(f.personBlobs, 0);
    EXPECT_LT(f.share, 0.002);
  }
  // Strong sensor noise raises the frame's noise level instead of giving foreground.
  cv::Mat noisy = Synthetic::emptyScene(frame(300), video_->background), noise(noisy.size(), CV_16SC3);
  cv::randn(noise, 0, 20);
  cv::Mat noisy16;
  noisy.convertTo(noisy16, CV_16SC3);
  cv::add(noisy16, noise, noisy16);
  noisy16.convertTo(noisy, CV_8UC3);
  const ForegroundMeasure f = m.measure(thumb(noisy), kPerson);
  EXPECT_GT(f.noiseLevel, BackgroundModel::kMinLevel_);
  EXPECT_EQ(f.personBlobs, 0);
  EXPECT_LT(f.share, 0.002);
}

TEST_F(BackgroundModelOnWalkingVideo, WhatNeverMovesIsPartOfTheModel) {
  // A person standing at the same place in every frame is part of the empty
  // scene for the model (as the parked van is); only when they leave does
  // their place differ.
  const Synthetic::PersonCutout walker = Synthetic::cutOutWalker(frame(600), video_->background, 100);
  const cv::Point at(300, 250);
  std::vector<cv::Mat> frames;
  for (const auto& f : video_->frames) {
    frames.push_back(f.clone());
    Synthetic::pastePerson(frames.back(), walker, at);
  }
  const BackgroundModel m = model(frames);
  cv::Mat with = Synthetic::emptyScene(frame(300), video_->background);
  const cv::Mat without = with.clone();
  Synthetic::pastePerson(with, walker, at);
  EXPECT_EQ(m.measure(thumb(with), kPerson).personBlobs, 0);
  const ForegroundMeasure gone = m.measure(thumb(without), kPerson);
  EXPECT_GE(gone.personBlobs, 1);
  EXPECT_GT((gone.largestBlobBox & cv::Rect(at, walker.picture.size())).area(), 0.5 * gone.largestBlobBox.area());
  // A place left out of the measure (where the detector finds someone in most frames) counts nothing.
  cv::Mat ignore(m.model().size(), CV_8UC1, cv::Scalar(0));
  const cv::Rect place(at / kFactor, cv::Size(walker.picture.cols / kFactor + 1, walker.picture.rows / kFactor + 1));
  cv::rectangle(ignore, place, cv::Scalar(255), cv::FILLED);
  EXPECT_EQ(m.measure(thumb(without), kPerson, ignore).personBlobs, 0);
}

TEST(BackgroundModelPersonSize, NeedsAPersonsAreaAndHalfItsHeight) {
  // A person 60 px tall: 288 px of area and 24 px of height at least.
  EXPECT_TRUE(BackgroundModel::personSized(300, {0, 0, 10, 30}, 60));
  EXPECT_FALSE(BackgroundModel::personSized(280, {0, 0, 10, 30}, 60));  // too little
  EXPECT_FALSE(BackgroundModel::personSized(900, {0, 0, 90, 10}, 60));  // a band, not a person
  EXPECT_TRUE(BackgroundModel::personSized(900, {0, 0, 30, 30}, 60));   // a cut-off person or a bag
  EXPECT_FALSE(BackgroundModel::personSized(900, {0, 0, 30, 30}, 100)); // smaller than the smallest person
}

TEST(BackgroundModelInput, TooFewOrMixedFramesAreRefusedAndOtherSizesNotMeasured) {
  const cv::Mat a(20, 30, CV_8UC1, cv::Scalar(100));
  EXPECT_THROW(BackgroundModel({a, a}, 1, {30, 20}), std::invalid_argument);
  EXPECT_THROW(BackgroundModel({a, a, cv::Mat(20, 31, CV_8UC1)}, 1, {30, 20}), std::invalid_argument);
  EXPECT_THROW(BackgroundModel({a, a, cv::Mat(20, 30, CV_8UC3)}, 1, {30, 20}), std::invalid_argument);
  const cv::Mat deep(20, 30, CV_16UC1, cv::Scalar(100));
  EXPECT_THROW(BackgroundModel({deep, deep, deep}, 1, {30, 20}), std::invalid_argument);
  const BackgroundModel m({a, a, a}, 1, {30, 20});
  EXPECT_FALSE(m.measure(cv::Mat(21, 30, CV_8UC1, cv::Scalar(100)), 10).measured);
  EXPECT_FALSE(m.measure(cv::Mat(20, 30, CV_8UC3, cv::Scalar::all(100)), 10).measured);
  const ForegroundMeasure same = m.measure(a, 10);
  EXPECT_TRUE(same.measured);
  EXPECT_EQ(same.share, 0.0);
  EXPECT_EQ(same.personBlobs, 0);
}

}  // namespace

// The calibrators' option records: each range is checked at its edges, and
// the message names the setting, its range and the value given.
#include "orbivane/geometry_calibration/calibrator_options.h"

#include <cmath>
#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace GeometryCalibration;
using ::testing::HasSubstr;

template <typename Options>
std::string problem(const Options& options) {
  const auto valid = options.validate();
  return valid ? std::string() : valid.error();
}

TEST(CalibratorOptions, NeighbourStitching) {
  EXPECT_EQ(problem(NeighbourOptions{}), "");
  EXPECT_EQ(problem(NeighbourOptions{1, 1, 2.0f}), "");
  EXPECT_EQ(problem(NeighbourOptions{30, 1000, 1e-6f}), "");
  EXPECT_EQ(problem(NeighbourOptions{0, 6, 1.0f}), "levels must lie in 1..30, not 0");
  EXPECT_THAT(problem(NeighbourOptions{31, 6, 1.0f}), HasSubstr("levels"));
  EXPECT_THAT(problem(NeighbourOptions{4, 0, 1.0f}), HasSubstr("iterations must lie in 1..1000"));
  for (float step : {0.0f, -1.0f, 2.01f, std::nanf(""), std::numeric_limits<float>::infinity()}) {
    EXPECT_THAT(problem(NeighbourOptions{4, 6, step}), HasSubstr("step must lie in (0, 2]")) << step;
  }
}

TEST(CalibratorOptions, TargetMatching) {
  MatchOptions o;
  EXPECT_EQ(problem(o), "");
  o.mode = 4;
  EXPECT_EQ(problem(o), "mode must lie in 0..3, not 4");
  o = MatchOptions();
  o.m2n = 0;
  EXPECT_THAT(problem(o), HasSubstr("m2n must lie in 1..100"));
  o = MatchOptions();
  o.m2b = 101;
  EXPECT_THAT(problem(o), HasSubstr("m2b"));
  o = MatchOptions();
  o.allowScale = std::nanf("");
  EXPECT_THAT(problem(o), HasSubstr("allowed scale"));
  o.allowScale = -1.0f;  // the target's own resolution
  EXPECT_EQ(problem(o), "");
  // Grids: parsed from text, 1..64 each, mode 0 only.
  EXPECT_TRUE(o.parseGrid("32x18"));
  EXPECT_EQ(o.gridColumns, 32);
  EXPECT_EQ(o.gridRows, 18);
  EXPECT_EQ(problem(o), "");
  o.mode = 2;
  EXPECT_THAT(problem(o), HasSubstr("mode 0 only"));
  o.mode = 0;
  for (const char* bad : {"3y4", "4x", "x3", "4x3x2", ""}) EXPECT_FALSE(o.parseGrid(bad)) << bad;
  // A grid of no cells is refused, not read as no grid.
  for (const char* none : {"0x3", "3x0", "0x0"}) {
    const auto parsed = o.parseGrid(none);
    ASSERT_FALSE(parsed) << none;
    EXPECT_THAT(parsed.error(), HasSubstr("1..64 columns and rows")) << none;
  }
  ASSERT_TRUE(o.parseGrid("65x3"));
  EXPECT_THAT(problem(o), HasSubstr("1..64 columns and rows, not 65x3"));
  ASSERT_TRUE(o.parseGrid("64x64"));
  EXPECT_EQ(problem(o), "");
}

TEST(CalibratorOptions, ClippingFisheyeAndResolution) {
  ClippingOptions c;
  EXPECT_EQ(problem(c), "");
  for (float t : {0.0f, 1.0001f, -0.5f, std::nanf("")}) {
    c.threshold = t;
    EXPECT_THAT(problem(c), HasSubstr("threshold must lie in (0, 1]")) << t;
  }
  c.threshold = 1.0f;
  EXPECT_EQ(problem(c), "");
  c.valueMode = true;
  c.weight = -1.0f;
  EXPECT_THAT(problem(c), HasSubstr("weight"));
  c.weight = 0.0f;
  c.maxIterations = 0;
  EXPECT_THAT(problem(c), HasSubstr("iteration limit"));
  c.maxIterations = 1;
  c.noHoles = true;
  EXPECT_THAT(problem(c), HasSubstr("geometry-mode"));

  EXPECT_EQ(problem(FisheyeOptions{0}), "");
  EXPECT_EQ(problem(FisheyeOptions{255}), "");
  EXPECT_EQ(problem(FisheyeOptions{256}), "the threshold must lie in 0..255, not 256");

  EXPECT_EQ(problem(ResolutionOptions{0.5f, 0.3f, 1}), "");
  EXPECT_THAT(problem(ResolutionOptions{0.0f, 0.3f, 1}), HasSubstr("horizontal spacing"));
  EXPECT_THAT(problem(ResolutionOptions{0.5f, std::numeric_limits<float>::infinity(), 1}), HasSubstr("vertical"));
  EXPECT_THAT(problem(ResolutionOptions{0.5f, 0.3f, 0}), HasSubstr("smallest mark area"));
}

}  // namespace

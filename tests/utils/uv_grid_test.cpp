// UVGrid: lattice layout, copy on write, bilinear sampling and size checks.
#include "orbivane/utils/uv_grid.h"

#include <cmath>
#include <limits>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Utils::UVGrid;

void expectPoint(const UVGrid::UVPoint& p, float u, float v, float tolerance = 1e-6f) {
  EXPECT_NEAR(p.u, u, tolerance);
  EXPECT_NEAR(p.v, v, tolerance);
}

}  // namespace

TEST(UVGrid, FreshGridIsTheRegularLatticeStoredRowByRow) {
  const UVGrid grid(4, 2);
  EXPECT_EQ(grid.columns(), 4);
  EXPECT_EQ(grid.rows(), 2);
  EXPECT_FALSE(grid.empty());
  ASSERT_EQ(grid.points().size(), 15u);  // (4 + 1) x (2 + 1)
  for (int j = 0; j <= 2; ++j) {
    for (int i = 0; i <= 4; ++i) {
      const auto& p = grid.point(i, j);
      EXPECT_FLOAT_EQ(p.u, i / 4.0f) << i << "," << j;
      EXPECT_FLOAT_EQ(p.v, j / 2.0f) << i << "," << j;
      EXPECT_EQ(p, grid.points()[static_cast<std::size_t>(j * 5 + i)]);
    }
  }
  EXPECT_TRUE(grid.isRegular());
  EXPECT_THROW(grid.point(5, 0), std::out_of_range);
  EXPECT_THROW(grid.point(0, 3), std::out_of_range);
  EXPECT_THROW(grid.point(-1, 0), std::out_of_range);
}

TEST(UVGrid, InvalidSizesAndEmptyGrids) {
  EXPECT_THROW(UVGrid(0, 1), std::invalid_argument);
  EXPECT_THROW(UVGrid(1, 0), std::invalid_argument);
  EXPECT_THROW(UVGrid(-3, 2), std::invalid_argument);
  const UVGrid empty;
  EXPECT_TRUE(empty.empty());
  EXPECT_TRUE(empty.points().empty());
  EXPECT_THROW(empty.point(0, 0), std::out_of_range);
  // Sampling an empty grid leaves the picture unchanged.
  expectPoint(empty.sample(0.3f, 0.8f), 0.3f, 0.8f);
  EXPECT_NE(empty, UVGrid(1, 1));
}

TEST(UVGrid, CopySharesPointsUntilOneSideChanges) {
  UVGrid original(3, 3);
  UVGrid copy = original;
  EXPECT_EQ(&copy.points(), &original.points()) << "a fresh copy should share its points";
  EXPECT_EQ(copy, original);

  copy.setPoint(1, 1, {0.9f, 0.1f});
  EXPECT_NE(&copy.points(), &original.points());
  expectPoint(copy.point(1, 1), 0.9f, 0.1f);
  expectPoint(original.point(1, 1), 1.0f / 3.0f, 1.0f / 3.0f);
  EXPECT_TRUE(original.isRegular());
  EXPECT_NE(copy, original);

  // Changing the source later leaves the copy alone too.
  UVGrid second = original;
  original.setPoint(3, 0, {0.5f, 0.5f});
  expectPoint(second.point(3, 0), 1.0f, 0.0f);
  EXPECT_TRUE(second.isRegular());

  // Replacing all points of a copy does not reach the source.
  UVGrid third = second;
  std::vector<UVGrid::UVPoint> zeros(16);
  third.setPoints(zeros);
  EXPECT_TRUE(second.isRegular());
  expectPoint(third.point(2, 2), 0.0f, 0.0f);

  // A failed change (index outside) must not alter anything.
  UVGrid fourth = second;
  EXPECT_THROW(fourth.setPoint(4, 0, {1, 1}), std::out_of_range);
  EXPECT_TRUE(fourth.isRegular());
}

TEST(UVGrid, SampleInterpolatesBilinearlyWithinItsCell) {
  // A regular grid reproduces the position.
  const UVGrid regular(4, 3);
  for (float x : {0.0f, 0.13f, 0.5f, 0.77f, 1.0f}) {
    for (float y : {0.0f, 0.31f, 0.6f, 1.0f}) expectPoint(regular.sample(x, y), x, y);
  }

  UVGrid warped(1, 1);
  warped.setPoints({{0.1f, 0.2f}, {0.9f, 0.0f}, {0.0f, 1.0f}, {1.0f, 0.8f}});
  expectPoint(warped.sample(0.0f, 0.0f), 0.1f, 0.2f);
  expectPoint(warped.sample(1.0f, 1.0f), 1.0f, 0.8f);
  expectPoint(warped.sample(0.5f, 0.5f), 0.5f, 0.5f);      // mean of the four corners
  expectPoint(warped.sample(0.25f, 0.0f), 0.3f, 0.15f);    // along the top edge
  // (0.25, 0.75): top (0.3, 0.15), bottom (0.25, 0.95), three quarters down.
  expectPoint(warped.sample(0.25f, 0.75f), 0.2625f, 0.75f);
  // Outside the unit square the position is clamped.
  expectPoint(warped.sample(-2.0f, 3.0f), 0.0f, 1.0f);
  expectPoint(warped.sample(5.0f, -1.0f), 0.9f, 0.0f);
  // A position that is not a number has no point (and reads nothing).
  for (const float bad : {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity()}) {
    EXPECT_FALSE(std::isfinite(warped.sample(bad, 0.5f).u));
    EXPECT_FALSE(std::isfinite(warped.sample(0.5f, -bad).v));
  }

  // In a larger grid a moved point is hit exactly at its lattice position and
  // only its four cells change.
  UVGrid grid(4, 2);
  grid.setPoint(1, 1, {0.4f, 0.6f});
  expectPoint(grid.sample(0.25f, 0.5f), 0.4f, 0.6f);
  expectPoint(grid.sample(0.125f, 0.5f), 0.2f, 0.55f);
  expectPoint(grid.sample(0.75f, 0.25f), 0.75f, 0.25f);
  EXPECT_FALSE(grid.isRegular());
  EXPECT_TRUE(grid.isRegular(0.16f));
}

TEST(UVGrid, SetPointsNeedsExactlyOnePointPerLatticePosition) {
  UVGrid grid(2, 1);  // 3 x 2 points
  const std::vector<UVGrid::UVPoint> five(5, {0.5f, 0.5f});
  const std::vector<UVGrid::UVPoint> seven(7, {0.5f, 0.5f});
  EXPECT_THROW(grid.setPoints(five), std::invalid_argument);
  EXPECT_THROW(grid.setPoints(seven), std::invalid_argument);
  EXPECT_TRUE(grid.isRegular()) << "a rejected list must leave the points as they were";
  std::vector<UVGrid::UVPoint> six;
  for (int k = 0; k < 6; ++k) six.push_back({k * 0.1f, 1.0f - k * 0.1f});
  grid.setPoints(six);
  expectPoint(grid.point(0, 1), 0.3f, 0.7f);
  expectPoint(grid.point(2, 1), 0.5f, 0.5f);
  EXPECT_THROW(UVGrid().setPoints({}), std::invalid_argument);

  UVGrid same(2, 1);
  same.setPoints(six);
  EXPECT_EQ(same, grid);
  EXPECT_NE(UVGrid(2, 1), UVGrid(1, 2));
}

// Matrix4x4: layout, products, inverse and determinant, checked against
// OpenCV's fixed-size matrices as an independent reference.
#include "orbivane/utils/matrix4x4.h"

#include <array>
#include <cmath>
#include <limits>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include "support/matchers.h"

namespace {

using Utils::Matrix4x4;

cv::Matx44d toMatx(const Matrix4x4& m) {
  cv::Matx44d r;
  for (int i = 0; i < 16; ++i) r.val[i] = m.values()[static_cast<std::size_t>(i)];
  return r;
}

Matrix4x4 fromMatx(const cv::Matx44d& m) {
  std::array<float, 16> v{};
  for (std::size_t i = 0; i < 16; ++i) v[i] = static_cast<float>(m.val[i]);
  return Matrix4x4(v);
}

cv::Vec4d apply(const Matrix4x4& m, const cv::Vec4d& column) { return toMatx(m) * column; }

// Diagonally dominant, so well conditioned.
Matrix4x4 randomWellConditioned(cv::RNG& rng) {
  std::array<float, 16> v{};
  for (std::size_t i = 0; i < 16; ++i) v[i] = static_cast<float>(rng.uniform(-1.0, 1.0));
  for (std::size_t d = 0; d < 4; ++d) v[5 * d] += (d % 2 ? -5.0f : 5.0f);
  return Matrix4x4(v);
}

}  // namespace

TEST(Matrix4x4, StoresRowsOneAfterAnother) {
  std::array<float, 16> v{};
  for (std::size_t i = 0; i < 16; ++i) v[i] = static_cast<float>(i);
  Matrix4x4 m(v);
  for (int r = 0; r < 4; ++r) {
    for (int c = 0; c < 4; ++c) {
      EXPECT_EQ(m.get(r, c), float(4 * r + c)) << r << "," << c;
      EXPECT_EQ(m(r, c), float(4 * r + c)) << r << "," << c;
    }
  }
  m.set(2, 1, -7.5f);
  EXPECT_EQ(m.values()[9], -7.5f);
  m(1, 3) = 42.0f;
  EXPECT_EQ(m.values()[7], 42.0f);
  EXPECT_THROW(m.get(4, 0), std::out_of_range);
  EXPECT_THROW(m.get(0, -1), std::out_of_range);
  EXPECT_THROW(m.set(-1, 0, 1.0f), std::out_of_range);
  EXPECT_THROW(m(0, 4), std::out_of_range);
}

TEST(Matrix4x4, DefaultIsTheIdentityAndNeutralInProducts) {
  const Matrix4x4 id;
  EXPECT_EQ(id, Matrix4x4::identity());
  for (int r = 0; r < 4; ++r) {
    for (int c = 0; c < 4; ++c) EXPECT_EQ(id.get(r, c), r == c ? 1.0f : 0.0f);
  }
  cv::RNG rng(7);
  const Matrix4x4 a = randomWellConditioned(rng);
  EXPECT_EQ(id * a, a);
  EXPECT_EQ(a * id, a);
  EXPECT_NE(a, id);
}

TEST(Matrix4x4, ProductAppliesTheRightFactorFirst) {
  const Matrix4x4 shift = Matrix4x4::translation(2.0f, 3.0f);
  const Matrix4x4 scale(std::array<float, 16>{2, 0, 0, 0, 0, 5, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1});
  // Scale first, then shift: (1, 1) -> (2, 5) -> (4, 8).
  const cv::Vec4d a = apply(shift * scale, {1, 1, 0, 1});
  EXPECT_DOUBLE_EQ(a[0], 4.0);
  EXPECT_DOUBLE_EQ(a[1], 8.0);
  EXPECT_DOUBLE_EQ(a[3], 1.0);
  // Shift first, then scale: (1, 1) -> (3, 4) -> (6, 20).
  const cv::Vec4d b = apply(scale * shift, {1, 1, 0, 1});
  EXPECT_DOUBLE_EQ(b[0], 6.0);
  EXPECT_DOUBLE_EQ(b[1], 20.0);

  // A general pair against OpenCV's product.
  cv::RNG rng(11);
  const Matrix4x4 p = randomWellConditioned(rng);
  const Matrix4x4 q = randomWellConditioned(rng);
  EXPECT_THAT(p * q, Testing::MatrixNear(fromMatx(toMatx(p) * toMatx(q)), 1e-5));
  EXPECT_THAT(q * p, Testing::MatrixNear(fromMatx(toMatx(q) * toMatx(p)), 1e-5));
}

TEST(Matrix4x4, InverseOfWellConditionedMatricesGivesTheIdentity) {
  cv::RNG rng(2024);
  for (int trial = 0; trial < 20; ++trial) {
    const Matrix4x4 m = randomWellConditioned(rng);
    const auto inv = m.inverse();
    ASSERT_TRUE(inv.has_value()) << m;
    EXPECT_THAT(*inv * m, Testing::MatrixNear(Matrix4x4::identity(), 1e-5)) << m;
    EXPECT_THAT(m * *inv, Testing::MatrixNear(Matrix4x4::identity(), 1e-5)) << m;
    EXPECT_THAT(*inv, Testing::MatrixNear(fromMatx(toMatx(m).inv()), 1e-5)) << m;
  }
  // A translation is undone by the opposite translation.
  const auto back = Matrix4x4::translation(0.25f, -4.0f).inverse();
  ASSERT_TRUE(back.has_value());
  EXPECT_THAT(*back, Testing::MatrixNear(Matrix4x4::translation(-0.25f, 4.0f), 1e-7));
}

TEST(Matrix4x4, SingularOrNonFiniteMatricesHaveNoInverse) {
  // Row 1 is twice row 0.
  const Matrix4x4 dependent(std::array<float, 16>{1, 2, 3, 4, 2, 4, 6, 8, 0, 1, 0, 0, 0, 0, 1, 1});
  EXPECT_FALSE(dependent.inverse().has_value());
  // Rank two.
  const Matrix4x4 rankTwo(std::array<float, 16>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16});
  EXPECT_FALSE(rankTwo.inverse().has_value());
  EXPECT_FALSE(Matrix4x4(std::array<float, 16>{}).inverse().has_value());
  Matrix4x4 noDepth;  // the depth column is all zero
  noDepth.set(2, 2, 0.0f);
  EXPECT_FALSE(noDepth.inverse().has_value());

  Matrix4x4 nan;
  nan.set(1, 2, std::numeric_limits<float>::quiet_NaN());
  EXPECT_FALSE(nan.isFinite());
  EXPECT_FALSE(nan.inverse().has_value());
  Matrix4x4 inf;
  inf.set(3, 0, std::numeric_limits<float>::infinity());
  EXPECT_FALSE(inf.isFinite());
  EXPECT_FALSE(inf.inverse().has_value());
  EXPECT_TRUE(Matrix4x4().isFinite());
}

TEST(Matrix4x4, DeterminantMatchesKnownValues) {
  EXPECT_DOUBLE_EQ(Matrix4x4().determinant(), 1.0);
  EXPECT_DOUBLE_EQ(Matrix4x4(std::array<float, 16>{2, 0, 0, 0, 0, 3, 0, 0, 0, 0, 4, 0, 0, 0, 0, 5}).determinant(),
                   120.0);
  // Swapping two rows of the identity flips the sign.
  EXPECT_DOUBLE_EQ(Matrix4x4(std::array<float, 16>{0, 1, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}).determinant(),
                   -1.0);
  EXPECT_DOUBLE_EQ(
      Matrix4x4(std::array<float, 16>{1, 2, 3, 4, 2, 4, 6, 8, 0, 1, 0, 0, 0, 0, 1, 1}).determinant(), 0.0);
  EXPECT_DOUBLE_EQ(Matrix4x4::translation(9.0f, -3.0f).determinant(), 1.0);
  cv::RNG rng(5);
  for (int trial = 0; trial < 10; ++trial) {
    const Matrix4x4 m = randomWellConditioned(rng);
    const double truth = cv::determinant(toMatx(m));
    EXPECT_NEAR(m.determinant(), truth, 1e-9 * std::fabs(truth)) << m;
  }
}

TEST(Matrix4x4, TranslationMovesTextureCoordinates) {
  const Matrix4x4 t = Matrix4x4::translation(0.5f, -0.25f);
  EXPECT_EQ(t.get(0, 3), 0.5f);
  EXPECT_EQ(t.get(1, 3), -0.25f);
  for (int r = 0; r < 4; ++r) {
    for (int c = 0; c < 4; ++c) {
      if ((r == 0 || r == 1) && c == 3) continue;
      EXPECT_EQ(t.get(r, c), r == c ? 1.0f : 0.0f) << r << "," << c;
    }
  }
  const cv::Vec4d moved = apply(t, {0.2, 0.6, 0, 1});
  EXPECT_NEAR(moved[0], 0.7, 1e-7);
  EXPECT_NEAR(moved[1], 0.35, 1e-7);
  EXPECT_DOUBLE_EQ(moved[3], 1.0);
  // Translations add up.
  EXPECT_THAT(Matrix4x4::translation(1, 2) * Matrix4x4::translation(3, -5),
              Testing::MatrixNear(Matrix4x4::translation(4, -3), 0.0));
}

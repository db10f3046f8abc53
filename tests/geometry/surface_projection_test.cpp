// How a module's matrix places its picture on the panorama surface, checked
// against OpenCV's perspective transform; and deep copies of the geometry kinds.
#include "orbivane/geometry/surface_projection.h"

#include <cmath>
#include <limits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/region_based_geometry.h"
#include "support/matchers.h"

namespace {

using OrbivaneGeometry::matrixFromPlanarHomography;
using OrbivaneGeometry::projectToSurface;
using OrbivaneGeometry::textureOfSurfacePoint;
using Utils::Matrix4x4;

// A perspective homography that keeps the unit square in front of the horizon.
const cv::Matx33d kHomography(1.2, 0.1, 0.3,  //
                              -0.05, 0.9, 0.2,  //
                              0.15, -0.1, 1.0);

std::vector<cv::Point2f> unitSquareSamples() {
  std::vector<cv::Point2f> points;
  for (int j = 0; j <= 4; ++j) {
    for (int i = 0; i <= 4; ++i) points.emplace_back(i / 4.0f, j / 4.0f);
  }
  return points;
}

}  // namespace

TEST(SurfaceProjection, IdentityMapsTheUnitSquareOntoItself) {
  const Matrix4x4 id;
  for (const auto& p : unitSquareSamples()) {
    const auto s = projectToSurface(id, p.x, p.y);
    ASSERT_TRUE(s.has_value());
    EXPECT_FLOAT_EQ(s->x, p.x);
    EXPECT_FLOAT_EQ(s->y, p.y);
  }
  const auto quad = OrbivaneGeometry::moduleSurfaceQuad(id);
  ASSERT_TRUE(quad.has_value());
  EXPECT_EQ(quad->left(), 0.0f);
  EXPECT_EQ(quad->top(), 0.0f);
  EXPECT_EQ(quad->right(), 1.0f);
  EXPECT_EQ(quad->bottom(), 1.0f);
  EXPECT_EQ(quad->corners[1].x, 1.0f);  // top-right
  EXPECT_EQ(quad->corners[1].y, 0.0f);
  EXPECT_EQ(quad->corners[3].x, 0.0f);  // bottom-left
  EXPECT_EQ(quad->corners[3].y, 1.0f);
}

TEST(SurfaceProjection, MatrixActsAsItsPlanarHomography) {
  const Matrix4x4 m = matrixFromPlanarHomography(kHomography);
  const std::vector<cv::Point2f> texture = unitSquareSamples();
  std::vector<cv::Point2f> truth;
  cv::perspectiveTransform(texture, truth, cv::Matx33f(kHomography));

  // The depth row and column never enter.
  Matrix4x4 withDepth = m;
  for (int k = 0; k < 4; ++k) {
    withDepth.set(2, k, 99.0f);
    withDepth.set(k, 2, -42.0f);
  }
  for (std::size_t k = 0; k < texture.size(); ++k) {
    for (const Matrix4x4* matrix : {&m, static_cast<const Matrix4x4*>(&withDepth)}) {
      const auto s = projectToSurface(*matrix, texture[k].x, texture[k].y);
      ASSERT_TRUE(s.has_value()) << texture[k];
      EXPECT_NEAR(s->x, truth[k].x, 1e-5) << texture[k];
      EXPECT_NEAR(s->y, truth[k].y, 1e-5) << texture[k];
    }
  }
  const auto quad = OrbivaneGeometry::moduleSurfaceQuad(m);
  ASSERT_TRUE(quad.has_value());
  const int cornerIndex[4] = {0, 4, 24, 20};  // (0,0), (1,0), (1,1), (0,1) in the samples
  for (int c = 0; c < 4; ++c) {
    EXPECT_NEAR(quad->corners[static_cast<std::size_t>(c)].x, truth[static_cast<std::size_t>(cornerIndex[c])].x, 1e-5);
    EXPECT_NEAR(quad->corners[static_cast<std::size_t>(c)].y, truth[static_cast<std::size_t>(cornerIndex[c])].y, 1e-5);
  }
}

TEST(SurfaceProjection, PointsOnOrBehindTheHorizonHaveNoSurfacePoint) {
  // w = 0.5 - u: the horizon is the line u = 0.5.
  Matrix4x4 m;
  m.set(3, 0, -1.0f);
  m.set(3, 3, 0.5f);
  const auto front = projectToSurface(m, 0.25f, 0.5f);
  ASSERT_TRUE(front.has_value());
  EXPECT_FLOAT_EQ(front->x, 1.0f);  // 0.25 / 0.25
  EXPECT_FLOAT_EQ(front->y, 2.0f);
  EXPECT_FALSE(projectToSurface(m, 0.5f, 0.5f).has_value());
  EXPECT_FALSE(projectToSurface(m, 0.8f, 0.1f).has_value());
  EXPECT_FALSE(OrbivaneGeometry::moduleSurfaceQuad(m).has_value());

  Matrix4x4 broken;
  broken.set(0, 1, std::numeric_limits<float>::quiet_NaN());
  EXPECT_FALSE(projectToSurface(broken, 0.5f, 0.5f).has_value());
  EXPECT_FALSE(OrbivaneGeometry::moduleSurfaceQuad(broken).has_value());
}

TEST(SurfaceProjection, PlanarHomographyRoundTrips) {
  Matrix4x4 m;
  for (int r = 0; r < 4; ++r) {
    for (int c = 0; c < 4; ++c) m.set(r, c, float(10 * r + c) + 0.5f);
  }
  const cv::Matx33d h = OrbivaneGeometry::planarHomography(m);
  const cv::Matx33d expected(0.5, 1.5, 3.5, 10.5, 11.5, 13.5, 30.5, 31.5, 33.5);
  EXPECT_EQ(cv::norm(h, expected, cv::NORM_INF), 0.0);

  // Back to a matrix: the nine places return, the depth row and column are identity.
  const Matrix4x4 back = matrixFromPlanarHomography(h);
  for (int r = 0; r < 4; ++r) {
    for (int c = 0; c < 4; ++c) {
      const float truth = (r == 2 || c == 2) ? (r == c ? 1.0f : 0.0f) : m.get(r, c);
      EXPECT_EQ(back.get(r, c), truth) << r << "," << c;
    }
  }
  EXPECT_LE(cv::norm(OrbivaneGeometry::planarHomography(matrixFromPlanarHomography(kHomography)), kHomography,
                     cv::NORM_INF),
            1e-7);
}

TEST(SurfaceProjection, TextureOfSurfacePointUndoesTheProjection) {
  cv::RNG rng(17);
  for (int trial = 0; trial < 10; ++trial) {
    cv::Matx33d h = kHomography;
    for (int k = 0; k < 8; ++k) h.val[k] += rng.uniform(-0.05, 0.05);
    const Matrix4x4 m = matrixFromPlanarHomography(h);
    for (const auto& p : unitSquareSamples()) {
      const auto s = projectToSurface(m, p.x, p.y);
      ASSERT_TRUE(s.has_value());
      const auto t = textureOfSurfacePoint(m, s->x, s->y);
      ASSERT_TRUE(t.has_value());
      EXPECT_NEAR(t->x, p.x, 1e-5);
      EXPECT_NEAR(t->y, p.y, 1e-5);
    }
  }
  // A translated module: surface (0.75, 0.5) shows texture (0.5, 0.25).
  const auto t = textureOfSurfacePoint(Matrix4x4::translation(0.25f, 0.25f), 0.75f, 0.5f);
  ASSERT_TRUE(t.has_value());
  EXPECT_FLOAT_EQ(t->x, 0.5f);
  EXPECT_FLOAT_EQ(t->y, 0.25f);
  // A matrix that folds the plane onto a line has no inverse.
  Matrix4x4 flat;
  flat.set(1, 1, 0.0f);
  EXPECT_FALSE(textureOfSurfacePoint(flat, 0.5f, 0.5f).has_value());
}

TEST(MatrixGeometry, CloneIsDeep) {
  Utils::UVGrid grid(2, 2);
  OrbivaneGeometry::MatrixGeometry original(Matrix4x4::translation(0.1f, 0.2f), grid);
  original.setShaderId("00050007");
  EXPECT_EQ(original.kind(), "matrix");

  auto cloned = original.clone();
  auto* copy = dynamic_cast<OrbivaneGeometry::MatrixGeometry*>(cloned.get());
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->matrix(), original.matrix());
  ASSERT_TRUE(copy->uvGrid().has_value());
  EXPECT_EQ(*copy->uvGrid(), grid);
  EXPECT_EQ(copy->shaderId(), "00050007");

  copy->setMatrix(Matrix4x4::translation(5.0f, 5.0f));
  Utils::UVGrid changed = *copy->uvGrid();
  changed.setPoint(1, 1, {0.9f, 0.9f});
  copy->setUVGrid(changed);
  copy->setShaderId("00010001");
  EXPECT_EQ(original.matrix(), Matrix4x4::translation(0.1f, 0.2f));
  EXPECT_TRUE(original.uvGrid()->isRegular());
  EXPECT_EQ(original.shaderId(), "00050007");
  copy->clearUVGrid();
  EXPECT_TRUE(original.uvGrid().has_value());

  const OrbivaneGeometry::MatrixGeometry plain;
  EXPECT_EQ(plain.matrix(), Matrix4x4::identity());
  EXPECT_FALSE(plain.uvGrid().has_value());
}

TEST(RegionBasedGeometry, CopiesOwnTheirMesh) {
  Utils::TriangleList mesh;
  mesh.triangles->push_back({{0, 0, 0, 0}, {1, 0, 1, 0}, {0, 1, 0, 1}});
  mesh.triangles->push_back({{1, 0, 1, 0}, {1, 1, 1, 1}, {0, 1, 0, 1}});
  Utils::SurfaceQuad region;
  region.corners = {{{0, 0}, {2, 0}, {2, 1}, {0, 1}}};
  OrbivaneGeometry::RegionBasedGeometry original(region, mesh);
  EXPECT_EQ(original.kind(), "region");

  auto cloned = original.clone();
  auto* copy = dynamic_cast<OrbivaneGeometry::RegionBasedGeometry*>(cloned.get());
  ASSERT_NE(copy, nullptr);
  ASSERT_EQ(copy->mesh().size(), 2u);
  EXPECT_NE(copy->mesh().triangles.get(), original.mesh().triangles.get());
  (*copy->mesh().triangles)[0].a.u = 0.5f;
  copy->mesh().triangles->pop_back();
  EXPECT_EQ(original.mesh().size(), 2u);
  EXPECT_EQ((*original.mesh().triangles)[0].a.u, 0.0f);
  EXPECT_EQ(copy->region().right(), 2.0f);

  // Copy construction and assignment are deep as well.
  OrbivaneGeometry::RegionBasedGeometry constructed(original);
  OrbivaneGeometry::RegionBasedGeometry assigned;
  assigned = original;
  EXPECT_NE(constructed.mesh().triangles.get(), original.mesh().triangles.get());
  EXPECT_NE(assigned.mesh().triangles.get(), original.mesh().triangles.get());
  EXPECT_EQ(assigned.mesh().size(), 2u);
  // A mesh without a vector copies as empty.
  Utils::TriangleList none;
  none.triangles.reset();
  const OrbivaneGeometry::RegionBasedGeometry empty(region, none);
  EXPECT_EQ(empty.clone()->kind(), "region");
  EXPECT_EQ(dynamic_cast<OrbivaneGeometry::RegionBasedGeometry&>(*empty.clone()).mesh().size(), 0u);
}

// Synthetic target-matching scenes.
#include "synthetic/target_scenes.h"

#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

#include "synthetic/sample_data.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/surface_projection.h"

namespace Synthetic {
namespace {
constexpr double kPi = 3.14159265358979323846;
}

Scene makeScene(const std::string& sample, cv::Size targetSize, double margin) {
  const cv::Mat photo = loadSample(sample);
  const cv::Size sceneSize(cvRound(targetSize.width * (1.0 + 2.0 * margin)),
                           cvRound(targetSize.height * (1.0 + 2.0 * margin)));
  const double cover = std::max(double(sceneSize.width) / photo.cols, double(sceneSize.height) / photo.rows);
  cv::Mat scaled;
  cv::resize(photo, scaled, cv::Size(), cover, cover, cover < 1.0 ? cv::INTER_AREA : cv::INTER_CUBIC);
  Scene scene;
  const cv::Rect crop((scaled.cols - sceneSize.width) / 2, (scaled.rows - sceneSize.height) / 2, sceneSize.width,
                      sceneSize.height);
  scene.picture = scaled(crop).clone();
  scene.targetOrigin = cv::Point2d((sceneSize.width - targetSize.width) / 2, (sceneSize.height - targetSize.height) / 2);
  scene.target = scene.picture(cv::Rect(cvRound(scene.targetOrigin.x), cvRound(scene.targetOrigin.y),
                                        targetSize.width, targetSize.height))
                     .clone();
  return scene;
}

cv::Point2d ModuleTruth::map(cv::Point2d x) const {
  const cv::Vec3d p = homography * cv::Vec3d(x.x, x.y, 1.0);
  const cv::Point2d t(p[0] / p[2], p[1] / p[2]);
  if (amplitude == 0.0) return t;
  return t + amplitude * cv::Point2d(std::sin(2.0 * kPi * (t.y / period + 0.1)),
                                     std::sin(2.0 * kPi * (t.x / period + 0.3)));
}

cv::Mat renderModule(const Scene& scene, const ModuleTruth& truth, cv::Size size, double gain, double offset,
                     double noise, std::uint64_t seed) {
  cv::Mat mapX(size, CV_32F), mapY(size, CV_32F);
  for (int y = 0; y < size.height; ++y) {
    float* mx = mapX.ptr<float>(y);
    float* my = mapY.ptr<float>(y);
    for (int x = 0; x < size.width; ++x) {
      const cv::Point2d t = truth.map(cv::Point2d(x, y)) + scene.targetOrigin;
      mx[x] = static_cast<float>(t.x);
      my[x] = static_cast<float>(t.y);
    }
  }
  cv::Mat rendered;
  cv::remap(scene.picture, rendered, mapX, mapY, cv::INTER_CUBIC, cv::BORDER_REFLECT101);
  cv::Mat f;
  rendered.convertTo(f, CV_32F, gain, offset);
  if (noise > 0.0) {
    cv::Mat n(f.size(), f.type());
    cv::RNG rng(seed);
    rng.fill(n, cv::RNG::NORMAL, 0.0, noise);
    f += n;
  }
  cv::Mat out;
  f.convertTo(out, CV_8U);
  return out;
}

cv::Mat renderViewWithWedges(const cv::Mat& photograph, const cv::Matx33d& view, cv::Size size, double gain,
                             double offset, double noise, std::uint64_t seed) {
  constexpr int kBorder = 8;  // pixels of black around the photograph, for its coverage
  Scene content;
  content.picture = photograph;
  content.target = photograph;
  ModuleTruth truth;
  truth.homography = view;
  const cv::Mat shown = renderModule(content, truth, size, gain, offset, noise, seed);
  // How much of each view pixel the photograph covers: a white photograph
  // on black, rendered alike.
  Scene coverage;
  cv::copyMakeBorder(cv::Mat(photograph.size(), CV_8UC3, cv::Scalar::all(255)), coverage.picture, kBorder, kBorder,
                     kBorder, kBorder, cv::BORDER_CONSTANT, cv::Scalar::all(0));
  coverage.targetOrigin = cv::Point2d(kBorder, kBorder);
  const cv::Mat covered = renderModule(coverage, truth, size, 1.0, 0.0, 0.0, 0);
  cv::Mat out;
  cv::multiply(shown, covered, out, 1.0 / 255.0);
  return out;
}

cv::Matx33d realisticMisalignment(cv::RNG& rng, cv::Size moduleSize, cv::Size targetSize, double degrees,
                                  double percent, double shift) {
  const double angle = rng.uniform(-degrees, degrees) * kPi / 180.0;
  const double scale = 1.0 + rng.uniform(-percent, percent) / 100.0;
  const double shear = rng.uniform(-percent, percent) / 100.0;
  const double tx = rng.uniform(-shift, shift) * targetSize.width;
  const double ty = rng.uniform(-shift, shift) * targetSize.height;
  const double px = rng.uniform(-2e-5, 2e-5), py = rng.uniform(-2e-5, 2e-5);
  const double cx = 0.5 * targetSize.width, cy = 0.5 * targetSize.height;
  // Module pixels onto the target's pixel frame by the plain placement (texture to texture).
  const cv::Matx33d place(double(targetSize.width) / moduleSize.width, 0, 0, 0,
                          double(targetSize.height) / moduleSize.height, 0, 0, 0, 1);
  const cv::Matx33d centre(1, 0, -cx, 0, 1, -cy, 0, 0, 1);
  const cv::Matx33d back(1, 0, cx + tx, 0, 1, cy + ty, 0, 0, 1);
  const double c = std::cos(angle), s = std::sin(angle);
  const cv::Matx33d similar(scale * c, -scale * s + shear, 0, scale * s, scale * c, 0, px, py, 1);
  const cv::Matx33d h = back * similar * centre * place;
  return h * (1.0 / h(2, 2));
}

PairCamera pairCamera(const cv::Mat& target, const cv::Mat& module) {
  PairCamera pair;
  for (const wchar_t* name : {L"T", L"m"}) {
    CameraDescription::OrbivaneModule m(name);
    m.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(Utils::Matrix4x4::identity()));
    pair.camera.addModule(m);
  }
  pair.images = {{L"T", Image::fromMat(target)}, {L"m", Image::fromMat(module)}};
  return pair;
}

double denseError(const ModuleTruth& truth, const OrbivaneGeometry::MatrixGeometry& geometry, cv::Size size,
                  int samples, cv::Rect2d area) {
  const cv::Matx33d h = OrbivaneGeometry::textureToPixels(size.width, size.height) *
                        OrbivaneGeometry::planarHomography(geometry.matrix()) *
                        OrbivaneGeometry::pixelsToTexture(size.width, size.height);
  double sum = 0.0;
  int n = 0;
  for (int j = 1; j < samples; ++j)
    for (int i = 1; i < samples; ++i) {
      const cv::Point2d q(double(i) / samples, double(j) / samples);
      if (!area.contains(q)) continue;
      cv::Point2d t = q;
      if (geometry.uvGrid()) {
        const auto uv = geometry.uvGrid()->sample(float(q.x), float(q.y));
        t = cv::Point2d(uv.u, uv.v);
      }
      const cv::Vec3d drawn = h * cv::Vec3d(q.x * size.width, q.y * size.height, 1.0);
      sum += cv::norm(truth.map(cv::Point2d(t.x * size.width, t.y * size.height)) -
                      cv::Point2d(drawn[0] / drawn[2], drawn[1] / drawn[2]));
      ++n;
    }
  return sum / std::max(n, 1);
}

bool gridUnfolded(const Utils::UVGrid& grid) {
  for (int j = 0; j < grid.rows(); ++j)
    for (int i = 0; i < grid.columns(); ++i) {
      const Utils::UVGrid::UVPoint c[4] = {grid.point(i, j), grid.point(i + 1, j), grid.point(i + 1, j + 1),
                                           grid.point(i, j + 1)};
      for (int k = 0; k < 4; ++k) {
        const auto &a = c[k], &b = c[(k + 1) % 4], &d = c[(k + 2) % 4];
        if (!((b.u - a.u) * (d.v - b.v) - (b.v - a.v) * (d.u - b.u) > 0.0f)) return false;
      }
    }
  return true;
}

}  // namespace Synthetic

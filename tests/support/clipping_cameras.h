#pragma once
// Small hand-made cameras of flat modules for the clipping tests: a module's
// matrix from the panorama points (0..1) its picture's corners land on, and
// a four-module camera with a known hole.
#include <array>
#include <memory>

#include <opencv2/imgproc.hpp>

#include "orbivane/camera/orbivane.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/surface_projection.h"

namespace ClippingCameras {

// The matrix that puts the unit square's corners (top-left, top-right,
// bottom-right, bottom-left) on the given surface points.
inline Utils::Matrix4x4 quadMatrix(const std::array<cv::Point2f, 4>& corners) {
  const std::array<cv::Point2f, 4> unit = {cv::Point2f(0, 0), cv::Point2f(1, 0), cv::Point2f(1, 1), cv::Point2f(0, 1)};
  return OrbivaneGeometry::matrixFromPlanarHomography(
      cv::Matx33d(cv::getPerspectiveTransform(unit.data(), corners.data())));
}

// Four quadrants on a 400x200 panorama; the bottom-right module's top-left
// corner is pulled in to (0.54, 0.54), which leaves a hole along its seams
// with the modules above and to the left of it: the quadrilateral
// (0.5, 0.5), (1, 0.5), (0.54, 0.54), (0.5, 1), 2 % of the panorama.
inline std::shared_ptr<CameraDescription::Orbivane> cameraWithHole() {
  auto camera = std::make_shared<CameraDescription::Orbivane>();
  camera->setPanoramaSize({400, 200});
  const std::array<std::array<cv::Point2f, 4>, 4> quads = {{
      {cv::Point2f(0, 0), cv::Point2f(0.5f, 0), cv::Point2f(0.5f, 0.5f), cv::Point2f(0, 0.5f)},
      {cv::Point2f(0.5f, 0), cv::Point2f(1, 0), cv::Point2f(1, 0.5f), cv::Point2f(0.5f, 0.5f)},
      {cv::Point2f(0, 0.5f), cv::Point2f(0.5f, 0.5f), cv::Point2f(0.5f, 1), cv::Point2f(0, 1)},
      {cv::Point2f(0.54f, 0.54f), cv::Point2f(1, 0.5f), cv::Point2f(1, 1), cv::Point2f(0.5f, 1)},
  }};
  const wchar_t* names[] = {L"A", L"B", L"C", L"D"};
  for (std::size_t i = 0; i < quads.size(); ++i) {
    CameraDescription::OrbivaneModule module(names[i]);
    module.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(quadMatrix(quads[i])));
    camera->addModule(module);
  }
  return camera;
}

}  // namespace ClippingCameras

// The walk of neighbour stitching along a chain of modules.
#include "geometry_calibration/matrix_based/neighbour_neighbour_stitcher.h"

#include <cmath>
#include <stdexcept>

#include <opencv2/imgproc.hpp>

#include "logging/logger_setup.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/utils/wide_text.h"

namespace GeometryCalibration {
namespace MatrixBased {
namespace {

constexpr int kRgbToGrey = 7;             // OpenCV's RGB-to-grey conversion code
constexpr double kMinimumWeight = 0.001;  // the smallest anchor weight a module keeps
constexpr double kPi = 3.14159265358979323846;

std::string narrow(const std::wstring& name) { return Utils::toUtf8(name); }

// The surface rectangle a matrix covers, or nothing when it cannot be formed.
Utils::Optional<Utils::SurfaceQuad> moduleRectangle(const Utils::Matrix4x4& matrix) {
  if (!matrix.isFinite()) return std::nullopt;
  auto quad = OrbivaneGeometry::moduleSurfaceQuad(matrix);
  if (!quad) return std::nullopt;
  const float width = quad->right() - quad->left();
  const float height = quad->bottom() - quad->top();
  if (!(width > 0.0f) || !(height > 0.0f) || !std::isfinite(width) || !std::isfinite(height)) return std::nullopt;
  return quad;
}

}  // namespace

NeighbourStitcher::NeighbourStitcher(const CameraDescription::Orbivane& camera, Images images, int levels,
                                     int iterations, float step)
    : camera_(camera),
      images_(std::move(images)),
      logger_(Utils::calibratorLogger("MatrixBasedNeighbourNeighbourStitch")),
      aligner_(levels, iterations, step) {}

std::pair<float, float> NeighbourStitcher::calibratePair(const std::wstring& first, const std::wstring& second,
                                                         bool apply) {
  lastAlignment_ = TranslationResult();
  // Lookups: a missing module or picture is the caller's mistake.
  auto lookupImage = [this](const std::wstring& name) {
    const auto it = images_.find(name);
    if (it == images_.end() || !it->second) {
      throw std::out_of_range("no picture for module '" + narrow(name) + "'");
    }
    return it->second;
  };
  auto lookupModule = [this](const std::wstring& name) {
    auto module = camera_.findModule(name);
    if (!module) throw std::out_of_range("no module '" + narrow(name) + "' in the camera");
    return module;
  };
  const auto firstImage = lookupImage(first);
  const auto secondImage = lookupImage(second);
  const auto firstModule = lookupModule(first);
  const auto secondModule = lookupModule(second);

  for (const auto& module : {firstModule, secondModule}) {
    if (module->matrixGeometry() == nullptr) {
      logger_->warn("Module {} has no Matrix Geometry.. Skipping pmodule", narrow(module->name()));
      return {0.0f, 0.0f};
    }
  }
  const Utils::Matrix4x4 secondMatrix = secondModule->matrixGeometry()->matrix();
  const auto firstRect = moduleRectangle(firstModule->matrixGeometry()->matrix());
  const auto secondRect = moduleRectangle(secondMatrix);
  if (!firstRect || !secondRect) {
    logger_->warn("Modules {} and {}: a matrix does not place its picture on the surface; skipping the pair",
                  narrow(first), narrow(second));
    return {0.0f, 0.0f};
  }

  cv::Mat firstGrey, secondGrey;
  {
    const cv::Mat firstColour = Image::toMat(firstImage);
    const cv::Mat secondColour = Image::toMat(secondImage);
    if (firstColour.empty() || secondColour.empty()) {
      logger_->warn("Modules {} and {}: empty picture; skipping the pair", narrow(first), narrow(second));
      return {0.0f, 0.0f};
    }
    cv::cvtColor(firstColour, firstGrey, kRgbToGrey);
    cv::cvtColor(secondColour, secondGrey, kRgbToGrey);
  }
  const int width = firstGrey.cols;
  const int height = firstGrey.rows;
  if (secondGrey.size() != firstGrey.size()) {
    // Each picture spans its module's unit square whatever its pixel count,
    // so the second picture is brought to the first's size.
    logger_->info("Module {} has a {}x{} picture, module {} {}x{}; aligning at {}x{}", narrow(second),
                  secondGrey.cols, secondGrey.rows, narrow(first), width, height, width, height);
    const bool shrinking = secondGrey.cols > width || secondGrey.rows > height;
    cv::resize(secondGrey, secondGrey, firstGrey.size(), 0, 0, shrinking ? cv::INTER_AREA : cv::INTER_LINEAR);
  }

  const double wA = double(firstRect->right()) - firstRect->left();
  const double hA = double(firstRect->bottom()) - firstRect->top();
  const double x0 = width - ((double(firstRect->right()) - secondRect->left()) / wA) * width;
  const double y0 = ((double(secondRect->top()) - firstRect->top()) / hA) * height;
  const double sx = (double(secondRect->right()) - secondRect->left()) / wA;
  const double sy = (double(secondRect->bottom()) - secondRect->top()) / hA;

  lastAlignment_ = aligner_.align(firstGrey, secondGrey, cv::Point2d(x0, y0), sx, sy);
  const cv::Point2d t = lastAlignment_.translation;
  float dx = static_cast<float>((t.x - x0) / width * wA);
  float dy = static_cast<float>((t.y - y0) / height * hA);
  if (!std::isfinite(dx) || !std::isfinite(dy)) dx = dy = 0.0f;
  if (lastAlignment_.clamped) {
    logger_->warn("Modules {} and {}: the alignment left the overlap and was held at its edge", narrow(first),
                  narrow(second));
  }

  if (apply) {
    secondModule->matrixGeometry()->setMatrix(Utils::Matrix4x4::translation(dx, dy) * secondMatrix);
  }
  logger_->info("Stitching Modules: {} {}", narrow(first), narrow(second));
  return {dx, dy};
}

void NeighbourStitcher::shiftModules(const std::vector<std::wstring>& names, std::size_t from, float dx, float dy) {
  if (dx == 0.0f && dy == 0.0f) return;
  const Utils::Matrix4x4 shift = Utils::Matrix4x4::translation(dx, dy);
  for (std::size_t j = from; j < names.size(); ++j) {
    auto module = camera_.findModule(names[j]);
    if (!module || module->matrixGeometry() == nullptr) continue;
    auto* geometry = module->matrixGeometry();
    geometry->setMatrix(shift * geometry->matrix());
  }
}

double NeighbourStitcher::anchorWeight(std::size_t i, std::size_t n) {
  if (n <= 1) return 1.0;
  const double v = std::cos(2.0 * kPi * double(i) / double(n - 1));
  double weight = 0.5 - 0.5 * v;
  if (kMinimumWeight > weight) weight = kMinimumWeight;
  return weight;
}

void NeighbourStitcher::adjustChain(const std::vector<std::wstring>& names,
                                    const std::vector<Utils::Optional<Utils::Matrix4x4>>& before,
                                    const std::wstring& reference) {
  // Each module's accumulated correction C_i = M_i(after) x M_i(before)^-1,
  // a surface translation (the walk only multiplies translations on the left).
  std::vector<Utils::Optional<cv::Point2d>> corrections(names.size());
  std::ptrdiff_t referenceIndex = -1;
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (!reference.empty() && names[i] == reference && referenceIndex < 0) referenceIndex = std::ptrdiff_t(i);
    const auto module = camera_.findModule(names[i]);
    if (!module || module->matrixGeometry() == nullptr || !before[i]) continue;
    const auto inverse = before[i]->inverse();
    if (!inverse) continue;
    const Utils::Matrix4x4 c = module->matrixGeometry()->matrix() * *inverse;
    const double w = c.get(3, 3);
    if (!(std::fabs(w) > 1e-12) || !c.isFinite()) continue;
    corrections[i] = cv::Point2d(c.get(0, 3) / w, c.get(1, 3) / w);
  }

  cv::Point2d anchor(0.0, 0.0);
  if (referenceIndex >= 0) {
    const auto& c = corrections[static_cast<std::size_t>(referenceIndex)];
    if (!c) {
      logger_->warn("Reference module {} has no usable matrix; the chain is left as stitched", narrow(reference));
      return;
    }
    anchor = *c;
  } else {
    if (!reference.empty()) {
      logger_->warn("Reference module {} is not in the chain; spreading the drift over the chain instead",
                    narrow(reference));
    }
    double weightSum = 0.0;
    for (std::size_t i = 0; i < names.size(); ++i) {
      if (!corrections[i]) continue;
      const double a = anchorWeight(i, names.size());
      anchor += a * *corrections[i];
      weightSum += a;
    }
    if (!(weightSum > 0.0)) return;
    anchor *= 1.0 / weightSum;
  }
  if (anchor.x == 0.0 && anchor.y == 0.0) return;

  const auto undo =
      Utils::Matrix4x4::translation(static_cast<float>(anchor.x), static_cast<float>(anchor.y)).inverse();
  if (!undo) return;
  for (std::size_t i = 0; i < names.size(); ++i) {
    auto module = camera_.findModule(names[i]);
    if (!module || module->matrixGeometry() == nullptr) continue;
    if (std::ptrdiff_t(i) == referenceIndex && before[i]) {
      module->matrixGeometry()->setMatrix(*before[i]);  // exactly where it started
    } else {
      module->matrixGeometry()->setMatrix(*undo * module->matrixGeometry()->matrix());
    }
  }
  logger_->info("Chain anchored by ({}, {})", -anchor.x, -anchor.y);
}

void NeighbourStitcher::report(const std::string& text, const std::wstring& module, const std::wstring& reference,
                               const std::map<std::string, double>& values) {
  ++step_;
  if (!callback_) return;
  AdvStepInfo info(std::make_shared<const CameraDescription::Orbivane>(camera_));
  StepDetail detail;
  detail.values = values;
  if (!module.empty()) detail.module = module;
  if (!reference.empty()) detail.reference = reference;
  info.setDetail(detail);
  callback_(step_, totalSteps_, text, std::move(info));
}

CameraDescription::Orbivane NeighbourStitcher::calibrate(const std::list<std::wstring>& modules,
                                                         const std::wstring& reference) {
  const std::vector<std::wstring> names(modules.begin(), modules.end());
  translations_.clear();
  step_ = 0;
  totalSteps_ = names.empty() ? 0 : static_cast<int>(names.size());  // the pairs, then the adjustment

  std::vector<Utils::Optional<Utils::Matrix4x4>> before(names.size());
  for (std::size_t i = 0; i < names.size(); ++i) {
    const auto module = camera_.findModule(names[i]);
    if (module && module->matrixGeometry() != nullptr) before[i] = module->matrixGeometry()->matrix();
  }

  for (std::size_t i = 1; i < names.size(); ++i) {
    const auto [dx, dy] = calibratePair(names[i - 1], names[i], true);
    shiftModules(names, i + 1, dx, dy);
    translations_.push_back({names[i - 1], names[i], dx, dy});
    report("Stitching Modules " + narrow(names[i - 1]) + " and " + narrow(names[i]), names[i], names[i - 1],
           {{"dx", dx},
            {"dy", dy},
            {"tx", lastAlignment_.translation.x},
            {"ty", lastAlignment_.translation.y},
            {"correlation", lastAlignment_.correlation}});
  }
  if (!names.empty()) {
    adjustChain(names, before, reference);
    report("Adjusting Chain", std::wstring(), reference, {});
  }
  return camera_;
}

}  // namespace MatrixBased
}  // namespace GeometryCalibration

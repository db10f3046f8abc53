// The walk of neighbour stitching along a chain of modules.
#include "geometry_calibration/matrix_based/neighbour_neighbour_stitcher.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>

#include <opencv2/imgproc.hpp>

#include "camera/camera_coverage.h"
#include "geometry/coverage.h"
#include "geometry_calibration/seam_measurement.h"
#include "logging/logger_setup.h"
#include "orbivane/geometry_calibration/calibrator_options.h"
#include "orbivane/rendering/module_drawing.h"
#include "orbivane/shading/image_shading.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/utils/wide_text.h"

namespace GeometryCalibration {
namespace MatrixBased {
namespace {

constexpr int kRgbToGrey = 7;             // OpenCV's RGB-to-grey conversion code
constexpr double kMinimumWeight = 0.001;  // the smallest anchor weight a module keeps
constexpr double kPi = 3.14159265358979323846;
// Normalised cross-correlation over the overlap below which a pair's
// pictures are taken not to show the same scene, and nothing is applied.
constexpr double kMinimumPairCorrelation = 0.5;
// Confirming a shift: the features matched between the two modules as the
// viewer draws them must lie within kLargestLeftoverPx of each other on
// average once it is applied, and closer than before; a shift shorter than
// kNegligibleShiftPx panorama pixels moves nothing worth more.
constexpr double kNegligibleShiftPx = 0.25;
constexpr double kLargestLeftoverPx = 1.0;
// Where the overlap has too few features, the correlation of the two drawings
// over it must reach kLeastConfirmedCorrelation and rise clearly: by
// kClearlyBetter, or, for drawings that already agree closely, so that what
// is left to 1 shrinks to kClearlyCloser of what it was (0.986 -> 0.997).
constexpr double kLeastConfirmedCorrelation = 0.5;
constexpr double kClearlyBetter = 0.02;
constexpr double kClearlyCloser = 0.5;

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

// A placement a pair can be aligned through: finite, invertible, not mirrored.
bool usablePlacement(const cv::Matx33d& h) {
  for (int k = 0; k < 9; ++k)
    if (!std::isfinite(h.val[k])) return false;
  const double scale = cv::norm(h, cv::NORM_INF);
  const double det = cv::determinant(h);
  return scale > 0.0 && det > 1e-12 * scale * scale * scale;
}

cv::Point2d applyHomography(const cv::Matx33d& h, const cv::Point2d& p) {
  const cv::Vec3d q = h * cv::Vec3d(p.x, p.y, 1.0);
  return cv::Point2d(q[0] / q[2], q[1] / q[2]);
}

// The first picture's pixels that the second picture covers (through the
// homography from the second's pixels to the first's), kept clear of its
// border by a few pixels so resampling never reads beyond it.
cv::Mat coveredMask(const cv::Matx33d& secondToFirst, cv::Size size) {
  constexpr int kBorder = 3;  // pixels
  cv::Mat inside(size, CV_8U, cv::Scalar(0));
  inside(cv::Rect(kBorder, kBorder, std::max(0, size.width - 2 * kBorder), std::max(0, size.height - 2 * kBorder)))
      .setTo(255);
  cv::Mat mask;
  cv::warpPerspective(inside, mask, cv::Mat(secondToFirst), size, cv::INTER_NEAREST, cv::BORDER_CONSTANT);
  return mask;
}

// Where the correction is measured: the middle of the compared overlap.
cv::Point2d overlapCentre(const cv::Mat& mask, const cv::Point2d& t, cv::Size size) {
  const cv::Rect rect = comparisonRectangle(TranslationAligner::kOverlapMode, cvRound(t.x), cvRound(t.y), size) &
                        cv::Rect(0, 0, size.width, size.height);
  if (!mask.empty() && !rect.empty()) {
    const cv::Moments m = cv::moments(mask(rect), true);
    if (m.m00 > 0) return cv::Point2d(rect.x + m.m10 / m.m00, rect.y + m.m01 / m.m00);
  }
  if (rect.empty()) return cv::Point2d(0.5 * size.width, 0.5 * size.height);
  return cv::Point2d(rect.x + 0.5 * (rect.width - 1), rect.y + 0.5 * (rect.height - 1));
}



// Normalised cross-correlation of two drawings over a mask, -1..1.
double correlation(const cv::Mat& a, const cv::Mat& b, const cv::Mat& mask) {
  cv::Scalar ma, sa, mb, sb;
  cv::meanStdDev(a, ma, sa, mask);
  cv::meanStdDev(b, mb, sb, mask);
  if (!(sa[0] > 1e-6) || !(sb[0] > 1e-6)) return 0.0;
  cv::Mat fa, fb, m;
  a.convertTo(fa, CV_64F, 1.0, -ma[0]);
  b.convertTo(fb, CV_64F, 1.0, -mb[0]);
  mask.convertTo(m, CV_64F, 1.0 / 255.0);
  const double n = cv::sum(m)[0];
  return cv::sum(fa.mul(fb).mul(m))[0] / (n * sa[0] * sb[0]);
}

}  // namespace

PairPrewarp pairPrewarp(const cv::Matx33d& firstPlanar, const cv::Matx33d& secondPlanar, cv::Size size, double x0,
                        double y0, double sx, double sy) {
  PairPrewarp result;
  const cv::Matx33d toPixels = OrbivaneGeometry::textureToPixels(size.width, size.height);
  const cv::Matx33d toTexture = OrbivaneGeometry::pixelsToTexture(size.width, size.height);
  const cv::Matx33d secondToFirst = toPixels * firstPlanar.inv() * secondPlanar * toTexture;
  if (!usablePlacement(secondToFirst)) return result;
  const cv::Matx33d model(sx, 0, x0, 0, sy, y0, 0, 0, 1);
  cv::Matx33d resample = secondToFirst.inv() * model;
  resample *= 1.0 / resample(2, 2);
  if (!usablePlacement(resample)) return result;
  result.valid = true;
  result.secondToFirst = secondToFirst;
  result.resample = resample;
  // Upright when the resampling moves no corner of the picture by more than
  // a thousandth of a pixel.
  double largest = 0.0;
  for (const cv::Point2d corner : {cv::Point2d(0, 0), cv::Point2d(size.width - 1, 0),
                                   cv::Point2d(size.width - 1, size.height - 1), cv::Point2d(0, size.height - 1)}) {
    const cv::Point2d moved = applyHomography(resample, corner);
    largest = std::max(largest, std::hypot(moved.x - corner.x, moved.y - corner.y));
  }
  result.upright = largest < kUprightTolerance;
  return result;
}


CameraDescription::Orbivane NeighbourStitcher::drawnCamera() const {
  CameraDescription::Orbivane drawn = camera_;
  for (auto& module : drawn.modules()) {
    const auto it = images_.find(module->name());
    if (it != images_.end() && it->second) module->setImage(it->second);
  }
  return drawn;
}

cv::Size NeighbourStitcher::drawnPanorama(const CameraDescription::Orbivane& camera) const {
  return seamDrawingSize(camera);
}

SeamMeter& NeighbourStitcher::meter() {
  const cv::Size panorama = drawnPanorama(camera_);
  if (!meter_ || meter_->panorama() != panorama) meter_ = std::make_shared<SeamMeter>(panorama);
  return *meter_;
}

Utils::Optional<cv::Point2d> NeighbourStitcher::alignDrawnPair(const CameraDescription::OrbivaneModule& first,
                                                               const CameraDescription::OrbivaneModule& second) {
  const SeamMeter::Overlap d = meter().overlap(first, second);
  if (!d.ok) {
    lastPair_.reason = d.reason;
    return std::nullopt;
  }
  // In the drawings' common frame a placed pair needs no shift: the aligner
  // starts at none and compares where both draw.
  TranslationAligner aligner(aligner_);
  aligner.setMode(0);
  aligner.setFirstMask(d.mask);
  lastAlignment_ = aligner.align(d.first, d.second, cv::Point2d(0, 0), 1.0, 1.0);
  lastPair_.correlation = lastAlignment_.correlation;
  lastPair_.overlapPixels = lastAlignment_.comparedPixels;
  if (lastAlignment_.depth == 0 || lastAlignment_.levelsAligned == 0) {
    lastPair_.reason = lastAlignment_.depth == 0 ? "overlap too small for one pyramid level" : "no texture in the overlap";
    return std::nullopt;
  }
  if (lastAlignment_.clamped) {
    lastPair_.reason = "the alignment left the overlap";
    return std::nullopt;
  }
  // The aligner's t lays the second drawing's pixel q on the first's q + t;
  // the sub-pixel remainders of earlier moves come back in.
  const cv::Point2d t = lastAlignment_.translation + d.firstFraction - d.secondFraction;
  const cv::Size panorama = meter().panorama();
  const cv::Point2d shift(t.x / panorama.width, t.y / panorama.height);
  if (const std::string doubt = confirmShift(first.name(), second.name(), shift.x, shift.y); !doubt.empty()) {
    lastPair_.reason = doubt;
    return std::nullopt;
  }
  lastPair_.shiftPx = std::hypot(t.x, t.y) / d.pictureScale;
  return shift;
}

std::string NeighbourStitcher::confirmShift(const std::wstring& first, const std::wstring& second, double dx,
                                            double dy) {
  const CameraDescription::Orbivane now = drawnCamera();
  CameraDescription::Orbivane moved = now;
  auto* geometry = moved.findModule(second)->matrixGeometry();
  geometry->setMatrix(Utils::Matrix4x4::translation(float(dx), float(dy)) * geometry->matrix());
  const cv::Size panorama = meter().panorama();
  const SeamMeasure before = meter().measure(*now.findModule(first), *now.findModule(second));
  const SeamMeasure after = meter().measure(*moved.findModule(first), *moved.findModule(second));
  meter().measure(*now.findModule(first), *now.findModule(second));  // the module as it stands stays drawn
  const double shiftPx = std::hypot(dx * panorama.width, dy * panorama.height);  // panorama pixels
  char text[220];
  if (shiftPx < kNegligibleShiftPx) return std::string();  // nothing moves
  if (!after.measured) {
    // Too few features in the overlap to judge by: its correlation must
    // clearly rise instead.
    const SeamMeter::Overlap o0 = meter().overlap(*now.findModule(first), *now.findModule(second));
    const SeamMeter::Overlap o1 = meter().overlap(*moved.findModule(first), *moved.findModule(second));
    meter().overlap(*now.findModule(first), *now.findModule(second));  // the module as it stands stays drawn
    const double c0 = o0.ok ? correlation(o0.first, o0.second, o0.mask) : -1.0;
    const double c1 = o1.ok ? correlation(o1.first, o1.second, o1.mask) : -1.0;
    const bool risen = c1 >= c0 + kClearlyBetter || (1.0 - c1) <= kClearlyCloser * (1.0 - c0);
    if (!(c1 >= kLeastConfirmedCorrelation && risen)) {
      std::snprintf(text, sizeof text,
                    "too few features to confirm the shift of %.2f px (%s), and the overlap's correlation does not "
                    "clearly rise (%.3f before, %.3f after)",
                    shiftPx, after.reason.c_str(), c0, c1);
      return text;
    }
    return std::string();
  }
  const double leftover = std::hypot(after.shift.x, after.shift.y);
  if (leftover > kLargestLeftoverPx) {
    std::snprintf(text, sizeof text,
                  "after the shift of %.2f px the matched features still lie %.2f px apart (median; another shift "
                  "fits better)",
                  shiftPx, leftover);
    return text;
  }
  if (before.measured && !(after.medianPx < before.medianPx)) {
    std::snprintf(text, sizeof text, "the shift of %.2f px does not bring the features closer (%.2f px before, %.2f after)",
                  shiftPx, before.medianPx, after.medianPx);
    return text;
  }
  return std::string();
}

NeighbourStitcher::NeighbourStitcher(const CameraDescription::Orbivane& camera, Images images, int levels,
                                     int iterations, float step)
    : camera_(camera),
      images_(std::move(images)),
      logger_(Utils::calibratorLogger("MatrixBasedNeighbourNeighbourStitch")),
      aligner_(levels, iterations, step) {
  if (const auto valid = NeighbourOptions{levels, iterations, step}.validate(); !valid) {
    optionsProblem_ = "options out of range: " + valid.error();
  }
}

std::pair<float, float> NeighbourStitcher::calibratePair(const std::wstring& first, const std::wstring& second,
                                                         bool apply) {
  const std::pair<float, float> found = alignPair(first, second, apply);
  // Every pair is logged and carries its correction down the chain; a pair
  // that could not be measured carries a zero one (lastPair_ says why),
  // which leaves every matrix as it is.
  logger_->info("Stitching Modules: {} {}", narrow(first), narrow(second));
  return found;
}

std::pair<float, float> NeighbourStitcher::alignPair(const std::wstring& first, const std::wstring& second,
                                                     bool apply) {
  lastAlignment_ = TranslationResult();
  lastPair_ = GeometryCalibration::PairReport();
  lastPair_.first = first;
  lastPair_.second = second;
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
  auto notMeasured = [this](const std::string& reason) {
    lastPair_.reason = reason;
    return std::pair<float, float>(0.0f, 0.0f);
  };
  if (!optionsProblem_.empty()) return notMeasured(optionsProblem_);
  for (const auto& module : {firstModule, secondModule}) {
    if (module->matrixGeometry() == nullptr) {
      logger_->warn("Module {} has no Matrix Geometry.. Skipping pmodule", narrow(module->name()));
      return notMeasured("module " + narrow(module->name()) + " has no matrix geometry");
    }
  }
  const Utils::Matrix4x4 secondMatrix = secondModule->matrixGeometry()->matrix();
  // The correction, measured on the two modules as the viewer draws them
  // when a grid or shader takes part, else on the two pictures.
  Utils::Optional<cv::Point2d> found;
  if (OrbivaneRendering::drawnBeyondMatrix(*firstModule) || OrbivaneRendering::drawnBeyondMatrix(*secondModule)) {
    CameraDescription::OrbivaneModule a(*firstModule), b(*secondModule);
    a.setImage(firstImage);
    b.setImage(secondImage);
    found = alignDrawnPair(a, b);
  } else {
    found = alignPictures(*firstModule, *secondModule, firstImage, secondImage);
  }
  if (!found) return std::pair<float, float>(0.0f, 0.0f);  // lastPair_ says why
  const float dx = float(found->x), dy = float(found->y);
  if (apply) secondModule->matrixGeometry()->setMatrix(Utils::Matrix4x4::translation(dx, dy) * secondMatrix);
  lastPair_.measured = true;
  lastPair_.dx = dx;
  lastPair_.dy = dy;
  return {dx, dy};
}

std::string NeighbourStitcher::greyPair(const std::wstring& first, const std::wstring& second,
                                        const std::shared_ptr<Image::UniversalImageInterface>& firstImage,
                                        const std::shared_ptr<Image::UniversalImageInterface>& secondImage,
                                        cv::Mat& firstGrey, cv::Mat& secondGrey) {
  cv::Mat firstColour, secondColour;
  try {
    firstColour = Image::toMat(firstImage);
    secondColour = Image::toMat(secondImage);
  } catch (const std::exception& e) {
    logger_->warn("Modules {} and {}: {}; skipping the pair", narrow(first), narrow(second), e.what());
    return std::string("unreadable picture: ") + e.what();
  }
  if (firstColour.empty() || secondColour.empty()) {
    logger_->warn("Modules {} and {}: empty picture; skipping the pair", narrow(first), narrow(second));
    return "empty picture";
  }
  cv::cvtColor(firstColour, firstGrey, kRgbToGrey);
  cv::cvtColor(secondColour, secondGrey, kRgbToGrey);
  if (secondGrey.size() != firstGrey.size()) {
    // Each picture spans its module's unit square whatever its pixel count,
    // so the second picture is brought to the first's size.
    logger_->info("Module {} has a {}x{} picture, module {} {}x{}; aligning at {}x{}", narrow(second),
                  secondGrey.cols, secondGrey.rows, narrow(first), firstGrey.cols, firstGrey.rows, firstGrey.cols,
                  firstGrey.rows);
    const bool shrinking = secondGrey.cols > firstGrey.cols || secondGrey.rows > firstGrey.rows;
    cv::resize(secondGrey, secondGrey, firstGrey.size(), 0, 0, shrinking ? cv::INTER_AREA : cv::INTER_LINEAR);
  }
  return std::string();
}

std::string NeighbourStitcher::alignmentProblem(const std::wstring& first, const std::wstring& second, double x0,
                                                double y0, cv::Size size) {
  const TranslationResult& found = lastAlignment_;
  if (found.depth == 0) return "pictures too small for one pyramid level (under 80 pixels a side, or depth 0)";
  if (found.levelsAligned == 0) {
    const cv::Rect overlap =
        comparisonRectangle(TranslationAligner::kOverlapMode, cvRound(x0), cvRound(y0), size) & cv::Rect(cv::Point(), size);
    return overlap.area() < 64 ? "no overlap" : "no texture in the overlap";
  }
  lastPair_.correlation = found.correlation;
  lastPair_.overlapPixels = found.comparedPixels;
  if (found.clamped) {
    logger_->warn("Modules {} and {}: the alignment left the overlap; nothing applied", narrow(first),
                  narrow(second));
    return "the alignment left the overlap";
  }
  if (!(found.correlation >= kMinimumPairCorrelation)) {
    logger_->warn("Modules {} and {}: the pictures do not agree in the overlap (correlation {:.2f}); nothing applied",
                  narrow(first), narrow(second), found.correlation);
    char text[96];
    std::snprintf(text, sizeof text, "the pictures do not agree in the overlap (correlation %.2f)",
                  found.correlation);
    return text;
  }
  return std::string();
}

Utils::Optional<cv::Point2d> NeighbourStitcher::alignPictures(
    const CameraDescription::OrbivaneModule& firstModule, const CameraDescription::OrbivaneModule& secondModule,
    const std::shared_ptr<Image::UniversalImageInterface>& firstImage,
    const std::shared_ptr<Image::UniversalImageInterface>& secondImage) {
  const std::wstring& first = firstModule.name();
  const std::wstring& second = secondModule.name();
  const auto notMeasured = [this](const std::string& reason) {
    lastPair_.reason = reason;
    return Utils::Optional<cv::Point2d>();
  };
  const Utils::Matrix4x4 firstMatrix = firstModule.matrixGeometry()->matrix();
  const Utils::Matrix4x4 secondMatrix = secondModule.matrixGeometry()->matrix();
  const auto firstRect = moduleRectangle(firstMatrix);
  const auto secondRect = moduleRectangle(secondMatrix);
  const cv::Matx33d firstPlanar = OrbivaneGeometry::planarHomography(firstMatrix);
  const cv::Matx33d secondPlanar = OrbivaneGeometry::planarHomography(secondMatrix);
  if (!firstRect || !secondRect || !usablePlacement(firstPlanar) || !usablePlacement(secondPlanar)) {
    logger_->warn("Modules {} and {}: a matrix does not place its picture on the surface; skipping the pair",
                  narrow(first), narrow(second));
    return notMeasured("singular, mirrored or non-finite matrix");
  }
  cv::Mat firstGrey, secondGrey;
  if (const std::string problem = greyPair(first, second, firstImage, secondImage, firstGrey, secondGrey);
      !problem.empty()) {
    return notMeasured(problem);
  }
  const int width = firstGrey.cols;
  const int height = firstGrey.rows;

  const double wA = double(firstRect->right()) - firstRect->left();
  const double hA = double(firstRect->bottom()) - firstRect->top();
  const double x0 = width - ((double(firstRect->right()) - secondRect->left()) / wA) * width;
  const double y0 = ((double(secondRect->top()) - firstRect->top()) / hA) * height;
  const double sx = (double(secondRect->right()) - secondRect->left()) / wA;
  const double sy = (double(secondRect->bottom()) - secondRect->top()) / hA;

  // The aligner models the second picture as scaled by (sx, sy) and moved by
  // (x0, y0) in the first's pixels, which is exact for upright modules. The
  // turn, shear and keystone the two matrices hold beyond that are taken out
  // first: the second picture is resampled so that the model holds for the
  // current placement, and only the pixels of the first picture that the
  // second one really covers are compared.
  const PairPrewarp prewarp = pairPrewarp(firstPlanar, secondPlanar, cv::Size(width, height), x0, y0, sx, sy);
  if (!prewarp.valid) return notMeasured("singular, mirrored or non-finite matrix");
  cv::Mat secondAligned = secondGrey;
  cv::Mat firstMask;
  if (!prewarp.upright) {
    cv::warpPerspective(secondGrey, secondAligned, cv::Mat(prewarp.resample), secondGrey.size(),
                        cv::INTER_CUBIC | cv::WARP_INVERSE_MAP, cv::BORDER_REPLICATE);
    firstMask = coveredMask(prewarp.secondToFirst, cv::Size(width, height));
  }
  aligner_.setFirstMask(firstMask);
  lastAlignment_ = aligner_.align(firstGrey, secondAligned, cv::Point2d(x0, y0), sx, sy);
  if (const std::string problem = alignmentProblem(first, second, x0, y0, firstGrey.size()); !problem.empty()) {
    return notMeasured(problem);
  }

  // The pixel correction, as a surface translation measured where the
  // pictures overlap.
  const TranslationResult& found = lastAlignment_;
  const cv::Point2d moved = found.translation - cv::Point2d(x0, y0);
  const cv::Point2d centre = overlapCentre(firstMask, found.translation, firstGrey.size());
  const cv::Matx33d toSurface = firstPlanar * OrbivaneGeometry::pixelsToTexture(width, height);
  const cv::Point2d from = applyHomography(toSurface, centre);
  const cv::Point2d to = applyHomography(toSurface, centre + moved);
  const double dx = float(to.x - from.x), dy = float(to.y - from.y);
  if (!std::isfinite(dx) || !std::isfinite(dy)) return notMeasured("the correction is not finite");
  if (const std::string doubt = confirmShift(first, second, float(dx), float(dy)); !doubt.empty()) {
    logger_->warn("Modules {} and {}: {}; nothing applied", narrow(first), narrow(second), doubt);
    return notMeasured(doubt);
  }
  lastPair_.shiftPx = std::hypot(moved.x, moved.y);
  return cv::Point2d(dx, dy);
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
  pairReports_.clear();
  if (!optionsProblem_.empty()) logger_->error("Neighbour stitching: {}; no pair is measured", optionsProblem_);
  step_ = 0;
  totalSteps_ = names.empty() ? 0 : static_cast<int>(names.size());  // the pairs, then the adjustment

  // The modules drawn where they overlap, all at once (two at a time).
  {
    const CameraDescription::Orbivane drawn = drawnCamera();
    std::vector<const CameraDescription::OrbivaneModule*> listed;
    for (const auto& name : names) {
      const auto module = drawn.findModule(name);
      if (module && module->image()) listed.push_back(module.get());
    }
    if (!listed.empty()) meter().prepare(listed);
  }
  std::vector<Utils::Optional<Utils::Matrix4x4>> before(names.size());
  for (std::size_t i = 0; i < names.size(); ++i) {
    const auto module = camera_.findModule(names[i]);
    if (module && module->matrixGeometry() != nullptr) before[i] = module->matrixGeometry()->matrix();
  }

  for (std::size_t i = 1; i < names.size(); ++i) {
    const auto [dx, dy] = calibratePair(names[i - 1], names[i], true);
    shiftModules(names, i + 1, dx, dy);
    translations_.push_back({names[i - 1], names[i], dx, dy});
    pairReports_.push_back(lastPair_);
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

// Automatic clipping: builds the value map of the selected mode, searches it
// for the best rectangle and turns that into offsets, gaps and a picture.
#include "orbivane/geometry_calibration/matrix_based/auto_clipping.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <exception>
#include <limits>
#include <stdexcept>
#include <string>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <spdlog/logger.h>

#include "camera/camera_coverage.h"
#include "geometry_calibration/matrix_based/auto_clipping_coverage.h"
#include "geometry_calibration/matrix_based/auto_clipping_rect_search.h"
#include "logging/logger_setup.h"
#include "orbivane/rendering/module_drawing.h"
#include "orbivane/shading/image_shading.h"
#include "orbivane/utils/wide_text.h"

namespace GeometryCalibration {
namespace MatrixBased {

namespace {

// The search steps of both passes (raster elements).
constexpr int kStartStep = 16;
constexpr int kMinStep = 1;
// The iteration limit of the geometry-mode search.
constexpr std::size_t kGeometryModeMaxIterations = 1000000;

// How many separate well-covered regions the geometry-mode search tries on
// their own, largest first.
constexpr int kGeometryModeRegions = 8;


}  // namespace

struct AutoClipping::Impl {
  std::shared_ptr<CameraDescription::Orbivane> camera;
  std::shared_ptr<spdlog::logger> logger = Utils::calibratorLogger("AutoClipping");
  bool processed = false;
  bool valueMode = false;
  bool geometryMode = false;

  // Value-mode input.
  cv::Mat values;  // CV_32F, rows x cols
  float weight = 1.0f;
  std::size_t maxIterations = 0;

  // Geometry-mode input.
  bool requireOverlap = false;
  bool keepAspect = false;
  float threshold = 0.5f;
  bool noHoles = false;

  // Results.
  std::vector<float> offset;
  std::vector<float> viewerOffset;
  std::vector<int> gaps;
  cv::Rect rect;
  cv::Mat coverage;
  cv::Mat inspection;
  std::string error;
  std::vector<std::string> skipped;

  // Workspaces kept between passes (a pass over a 4K raster allocates less).
  cv::Mat valueMap;
  cv::Mat wellCovered;
  cv::Mat integral;

  bool fail(const std::string& message) {
    error = message;
    logger->error("{}", message);
    return false;
  }

  void clearResults() {
    offset.clear();
    viewerOffset.clear();
    gaps.clear();
    rect = cv::Rect();
    coverage.release();
    inspection.release();
    error.clear();
    skipped.clear();
  }

  // The coverage of the camera's modules; false (with the reason) when there
  // is nothing to cover with.
  bool buildCoverage() {
    if (!camera) return fail("AutoClipping: no camera description");
    if (camera->modules().empty()) return fail("AutoClipping: the camera has no modules");
    const auto footprints = CameraDescription::cameraFootprints(*camera, skipped);
    for (const std::string& line : skipped) logger->warn("{}", line);
    if (footprints.empty()) return fail("AutoClipping: no module of the camera can be projected onto the panorama");
    const cv::Size raster = OrbivaneGeometry::Coverage::rasterSize(camera->panoramaSize(), footprints);
    // A module drawn through a UV grid or a lens shader covers what the viewer
    // draws of it, not its matrix's quadrilateral: it is drawn on the raster.
    std::vector<OrbivaneGeometry::Coverage::Footprint> flat;
    std::vector<std::shared_ptr<const CameraDescription::OrbivaneModule>> drawn;
    for (const auto& f : footprints) {
      const auto module = camera->findModule(f.name);
      if (module && module->image() && OrbivaneRendering::drawnBeyondMatrix(*module)) {
        drawn.push_back(module);
      } else {
        flat.push_back(f);
      }
    }
    OrbivaneGeometry::Coverage::accumulateCoverage(flat, raster, coverage);
    for (const auto& module : drawn) {
      auto drawing = OrbivaneRendering::drawModuleCoverage(*module, raster);
      if (!drawing) {
        logger->warn("AutoClipping: module {} {}; not counted", Utils::toUtf8(module->name()), drawing.error());
        continue;
      }
      cv::Mat part = coverage(drawing.value().box);
      cv::add(part, cv::Scalar(1.0), part, drawing.value().inside);
    }
    logger->info("AutoClipping: coverage of {} module(s) on a {}x{} raster", footprints.size(), raster.width,
                 raster.height);
    return true;
  }

  bool search(std::size_t limit, int startStep) {
    const auto found = AutoClippingSearch::findMaxValueRect(valueMap, kMinStep, startStep, limit, integral);
    if (!found) {
      return fail("AutoClipping: no rectangle found within the iteration limit of " + std::to_string(limit));
    }
    rect = *found;
    return true;
  }

  // The rectangle search only moves edges a little at a time from the whole
  // map, so a hole that cuts the panorama in two (a missing seam) would trap
  // it. The geometry pass therefore also searches each separate well-covered
  // region on its own (its bounding box), and keeps the rectangle of greatest
  // value; the whole map is tried first and wins ties.
  bool geometrySearch() {
    std::vector<cv::Rect> windows{cv::Rect(0, 0, valueMap.cols, valueMap.rows)};
    cv::Mat labels, stats, centroids;
    const int count = cv::connectedComponentsWithStats(wellCovered, labels, stats, centroids, 8, CV_32S);
    std::vector<std::pair<int, cv::Rect>> regions;
    for (int i = 1; i < count; ++i) {
      regions.emplace_back(stats.at<int>(i, cv::CC_STAT_AREA),
                           cv::Rect(stats.at<int>(i, cv::CC_STAT_LEFT), stats.at<int>(i, cv::CC_STAT_TOP),
                                    stats.at<int>(i, cv::CC_STAT_WIDTH), stats.at<int>(i, cv::CC_STAT_HEIGHT)));
    }
    std::stable_sort(regions.begin(), regions.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    if (regions.size() > 1) {
      for (std::size_t i = 0; i < regions.size() && i < kGeometryModeRegions; ++i) windows.push_back(regions[i].second);
    }
    bool found = false;
    double best = 0.0;
    cv::Mat scratch;
    for (const cv::Rect& window : windows) {
      const cv::Mat part = valueMap(window);
      const auto r = AutoClippingSearch::findMaxValueRect(part, kMinStep, kStartStep, kGeometryModeMaxIterations, scratch);
      if (!r) continue;
      const cv::Rect placed(r->x + window.x, r->y + window.y, r->width, r->height);
      const double value = cv::sum(valueMap(placed))[0];
      if (!found || value > best) {
        found = true;
        best = value;
        rect = placed;
      }
    }
    if (!found) {
      return fail("AutoClipping: no rectangle found within the iteration limit of " +
                  std::to_string(kGeometryModeMaxIterations));
    }
    AutoClippingSearch::integralOf(valueMap, integral);
    return true;
  }

  void finish() {
    offset = AutoClippingCoverage::offsetsOf(rect, coverage.size());
    const double w = coverage.cols, h = coverage.rows;
    viewerOffset = {float((rect.x + 0.5) / w), float((rect.y + 0.5) / h),
                    float(1.0 - (rect.x + 0.5 + rect.width) / w), float(1.0 - (rect.y + 0.5 + rect.height) / h)};
    // A rectangle over the whole map is the whole panorama, and so is one
    // over all of it but the last column (or row), which the value search
    // never takes, where that is well covered too: it is kept as it is (no
    // crop across that side), so a clipped camera clips to itself instead of
    // losing a pixel each time.
    const bool mapped = !wellCovered.empty() && wellCovered.size() == coverage.size() && rect.area() > 0;
    const auto wholeSide = [&](int start, int length, int size, const cv::Rect& last) {
      if (!mapped || start != 0) return false;
      return length == size || (length == size - 1 && cv::countNonZero(wellCovered(last)) == last.area());
    };
    if (wholeSide(rect.x, rect.width, coverage.cols, cv::Rect(coverage.cols - 1, rect.y, 1, rect.height))) {
      viewerOffset[0] = viewerOffset[2] = 0.0f;
    }
    if (wholeSide(rect.y, rect.height, coverage.rows, cv::Rect(rect.x, coverage.rows - 1, rect.width, 1))) {
      viewerOffset[1] = viewerOffset[3] = 0.0f;
    }
    gaps = AutoClippingCoverage::listGaps(wellCovered, rect);
    inspection = AutoClippingCoverage::drawInspection(coverage, wellCovered, rect);
    logger->info("AutoClipping: rectangle x {} y {} width {} height {}, offsets {} {} {} {}, {} hole(s)", rect.x,
                 rect.y, rect.width, rect.height, offset[0], offset[1], offset[2], offset[3], gaps.size() / 5);
    processed = true;
  }

  bool valuePass() {
    if (values.empty()) {
      // Searching an empty value map reports the input error.
      cv::Mat none;
      AutoClippingSearch::findMaxValueRect(values, kMinStep, kStartStep, maxIterations, none);
      return fail("AutoClipping: the value map is empty");
    }
    if (!cv::checkRange(values)) return fail("AutoClipping: the value map holds values that are not finite (NaN)");
    if (!std::isfinite(weight) || weight < 0.0f) {
      return fail("AutoClipping: the weight must be a finite number of at least 0");
    }
    if (!buildCoverage()) return false;
    AutoClippingCoverage::valueModeMap(coverage, values, weight, valueMap);
    AutoClippingCoverage::wellCoveredMask(coverage, AutoClippingCoverage::kValueModeCovered, wellCovered);
    if (cv::countNonZero(wellCovered) == 0) return fail("AutoClipping: the modules do not cover the panorama");
    if (!search(maxIterations, kStartStep)) return false;
    finish();
    return true;
  }

  bool geometryPass() {
    if (!std::isfinite(threshold) || threshold <= 0.0f || threshold > 1.0f) {
      return fail("AutoClipping: the coverage threshold must lie in (0, 1]");
    }
    if (!buildCoverage()) return false;
    AutoClippingCoverage::wellCoveredMask(coverage, (requireOverlap ? 1.0f : 0.0f) + threshold, wellCovered);
    if (cv::countNonZero(wellCovered) == 0) {
      return fail(requireOverlap ? "AutoClipping: no part of the panorama is covered by two modules"
                                 : "AutoClipping: the modules do not cover the panorama");
    }
    AutoClippingCoverage::geometryModeMap(wellCovered, valueMap);
    if (noHoles) {
      rect = AutoClippingCoverage::largestHoleFreeRect(wellCovered);
      if (rect.empty()) return fail("AutoClipping: no rectangle without holes found");
      AutoClippingSearch::integralOf(valueMap, integral);
    } else if (!geometrySearch()) {
      return false;
    }
    if (keepAspect) {
      const double aspect = double(coverage.cols) / coverage.rows;
      rect = AutoClippingCoverage::fitAspect(rect, aspect, integral);
    }
    finish();
    return true;
  }
};

AutoClipping::AutoClipping(std::shared_ptr<CameraDescription::Orbivane> camera) : impl_(std::make_unique<Impl>()) {
  impl_->camera = std::move(camera);
}

AutoClipping::~AutoClipping() = default;

bool AutoClipping::config(std::vector<float> values, const unsigned& cols, const unsigned& rows, const float& weight,
                          const size_t& maxIterations) {
  const std::vector<float> consumed = std::move(values);
  const std::uint64_t expected = std::uint64_t(cols) * rows;
  const bool sizeFits = consumed.size() == expected && cols <= unsigned(std::numeric_limits<int>::max()) &&
                        rows <= unsigned(std::numeric_limits<int>::max());
  if (!sizeFits || maxIterations == 0) {
    impl_->valueMode = false;
    impl_->geometryMode = false;
    impl_->values.release();
    if (!sizeFits) {
      impl_->error = "AutoClipping: " + std::to_string(consumed.size()) + " values given for " +
                     std::to_string(cols) + " x " + std::to_string(rows);
    } else {
      impl_->error = "AutoClipping: the iteration limit must be above 0";
    }
    impl_->logger->error("{}", impl_->error);
    return false;
  }
  impl_->values.create(int(rows), int(cols), CV_32F);
  for (std::size_t i = 0; i < consumed.size(); ++i) {
    impl_->values.at<float>(int(i / cols), int(i % cols)) = consumed[i];
  }
  impl_->weight = weight;
  impl_->maxIterations = maxIterations;
  impl_->valueMode = true;
  impl_->geometryMode = false;
  impl_->error.clear();
  return true;
}

bool AutoClipping::config(const bool& requireOverlap, const bool& keepAspect, const float& threshold) {
  impl_->requireOverlap = requireOverlap;
  impl_->keepAspect = keepAspect;
  impl_->threshold = threshold;
  impl_->geometryMode = true;
  impl_->valueMode = false;
  impl_->error.clear();
  return true;
}

void AutoClipping::setNoHoles(bool noHoles) { impl_->noHoles = noHoles; }

bool AutoClipping::noHoles() const { return impl_->noHoles; }

bool AutoClipping::process() {
  impl_->processed = false;
  impl_->clearResults();
  bool done = false;
  try {
    if (impl_->valueMode) {
      done = impl_->valuePass();
    } else if (impl_->geometryMode) {
      done = impl_->geometryPass();
    } else {
      impl_->fail("AutoClipping: process() needs a successful config() first");
    }
  } catch (const std::exception& e) {
    // OpenCV's checks or an allocation that fails end the pass, not the host.
    impl_->processed = false;
    done = impl_->fail(std::string("AutoClipping: ") + e.what());
  }
  if (!done) {
    // Nothing half-done stays behind; error() and skippedModules() say why.
    impl_->rect = cv::Rect();
    impl_->coverage.release();
    impl_->inspection.release();
  }
  return done;
}

bool AutoClipping::isProcessed() const { return impl_->processed; }

std::vector<float> AutoClipping::offset() { return impl_->offset; }

std::vector<int> AutoClipping::checkGap() { return impl_->gaps; }

std::vector<float> AutoClipping::viewerOffset() const { return impl_->viewerOffset; }

cv::Rect AutoClipping::rectangle() const { return impl_->rect; }

cv::Size AutoClipping::coverageSize() const { return impl_->coverage.size(); }

cv::Mat AutoClipping::coverage() const { return impl_->coverage.clone(); }

cv::Mat AutoClipping::inspectionPicture() const { return impl_->inspection.clone(); }

std::string AutoClipping::error() const { return impl_->error; }

std::vector<std::string> AutoClipping::skippedModules() const { return impl_->skipped; }

Utils::ReturnState<CameraDescription::Orbivane, std::string> AutoClipping::clippedCamera() const {
  if (!impl_->processed || !impl_->camera || impl_->offset.size() != 4) {
    return Utils::failure("AutoClipping: no clipping rectangle has been found to apply");
  }
  const Utils::Size own = impl_->camera->panoramaSize();
  const Utils::Size panorama =
      own.empty() ? Utils::Size{impl_->coverage.cols, impl_->coverage.rows} : own;
  std::vector<std::wstring> untouched;
  CameraDescription::Orbivane clipped = applyClipping(*impl_->camera, impl_->viewerOffset, panorama, &untouched);
  for (const auto& name : untouched) {
    impl_->logger->warn("AutoClipping: module {} has no matrix geometry; the clipping leaves it as it was",
                        Utils::toUtf8(name));
  }
  return clipped;
}

Utils::Optional<Utils::Matrix4x4> AutoClipping::clippingMatrix(const std::vector<float>& offset) {
  if (offset.size() != 4) return std::nullopt;
  for (float v : offset) {
    if (!std::isfinite(v)) return std::nullopt;
  }
  const double left = offset[0], top = offset[1];
  const double width = 1.0 - offset[0] - offset[2], height = 1.0 - offset[1] - offset[3];
  if (!(width > 1e-6) || !(height > 1e-6)) return std::nullopt;
  Utils::Matrix4x4 crop;
  crop.set(0, 0, float(1.0 / width));
  crop.set(0, 3, float(-left / width));
  crop.set(1, 1, float(1.0 / height));
  crop.set(1, 3, float(-top / height));
  return crop;
}

CameraDescription::Orbivane AutoClipping::applyClipping(const CameraDescription::Orbivane& camera,
                                                        const std::vector<float>& offset,
                                                        const Utils::Size& panorama,
                                                        std::vector<std::wstring>* untouched) {
  if (!clippingMatrix(offset)) {
    throw std::invalid_argument("AutoClipping: the clipping offsets leave no rectangle to clip to");
  }
  if (panorama.empty()) throw std::invalid_argument("AutoClipping: the panorama size to clip is empty");
  const double left = offset[0], top = offset[1];
  const double width = 1.0 - offset[0] - offset[2], height = 1.0 - offset[1] - offset[3];
  CameraDescription::Orbivane clipped(camera);
  for (const auto& module : clipped.modules()) {
    if (!module) continue;
    auto* geometry = module->matrixGeometry();
    if (geometry == nullptr) {
      if (untouched != nullptr) untouched->push_back(module->name());
      continue;
    }
    // crop x M: rows 0 and 1 become ((row - offset x row 3) / extent); the
    // depth row and row 3 stay. Computed in double, rounded once.
    const Utils::Matrix4x4 m = geometry->matrix();
    Utils::Matrix4x4 out = m;
    for (int c = 0; c < 4; ++c) {
      out.set(0, c, float((double(m.get(0, c)) - left * m.get(3, c)) / width));
      out.set(1, c, float((double(m.get(1, c)) - top * m.get(3, c)) / height));
    }
    geometry->setMatrix(out);
  }
  clipped.setPanoramaSize(Utils::Size{std::max(1, int(std::lround(panorama.width * width))),
                                      std::max(1, int(std::lround(panorama.height * height)))});
  return clipped;
}

Utils::Optional<cv::Rect> AutoClipping::findMaxValueRect(const cv::Mat& mat, int minStep, int startStep,
                                                         std::size_t maxIterations) {
  return AutoClippingSearch::findMaxValueRect(mat, minStep, startStep, maxIterations);
}

}  // namespace MatrixBased
}  // namespace GeometryCalibration

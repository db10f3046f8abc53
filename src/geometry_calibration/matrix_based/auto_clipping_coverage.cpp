// Coverage and value maps of automatic clipping, and what is read back from
// the rectangle found in them.
#include "geometry_calibration/matrix_based/auto_clipping_coverage.h"

#include <algorithm>
#include <array>
#include <cmath>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "geometry_calibration/matrix_based/auto_clipping_rect_search.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/camera/final_matrix.h"
#include "orbivane/utils/wide_text.h"

namespace GeometryCalibration {
namespace MatrixBased {
namespace AutoClippingCoverage {

void valueModeMap(const cv::Mat& coverage, const cv::Mat& values, float weight, cv::Mat& map) {
  cv::Mat resized;
  if (values.size() == coverage.size()) {
    resized = values;
  } else {
    cv::resize(values, resized, coverage.size(), 0, 0, cv::INTER_LINEAR);
  }
  map.create(coverage.size(), CV_32F);
  for (int y = 0; y < coverage.rows; ++y) {
    const float* c = coverage.ptr<float>(y);
    const float* v = resized.ptr<float>(y);
    float* out = map.ptr<float>(y);
    for (int x = 0; x < coverage.cols; ++x) {
      const float covered = std::min(std::max(c[x], 0.0f), 1.0f);
      out[x] = covered * (v[x] + weight) - weight;
    }
  }
}

void wellCoveredMask(const cv::Mat& coverage, float needed, cv::Mat& mask) {
  // The tolerance forgives one 8-bit level; it never lets an element no
  // module covers count, however small the threshold (coverage moves in
  // steps of 1/255, so half a step separates none from some).
  const float least = std::max(needed - kCoverageTolerance, 0.5f / 255.0f);
  cv::compare(coverage, cv::Scalar(least), mask, cv::CMP_GE);
}

void geometryModeMap(const cv::Mat& wellCovered, cv::Mat& map) {
  map.create(wellCovered.size(), CV_32F);
  for (int y = 0; y < wellCovered.rows; ++y) {
    const std::uint8_t* good = wellCovered.ptr<std::uint8_t>(y);
    float* out = map.ptr<float>(y);
    for (int x = 0; x < wellCovered.cols; ++x) out[x] = good[x] ? 1.0f : -kGeometryHolePenalty;
  }
}

cv::Rect fitAspect(const cv::Rect& rect, double aspect, const cv::Mat& integral) {
  if (rect.width <= 0 || rect.height <= 0 || !(aspect > 0.0) || !std::isfinite(aspect)) return rect;
  cv::Rect fitted = rect;
  const bool tooWide = rect.width > rect.height * aspect;
  if (tooWide) {
    fitted.width = std::clamp(static_cast<int>(std::lround(rect.height * aspect)), 1, rect.width);
  } else {
    fitted.height = std::clamp(static_cast<int>(std::lround(rect.width / aspect)), 1, rect.height);
  }
  const int slack = tooWide ? rect.width - fitted.width : rect.height - fitted.height;
  const int middle = slack / 2;
  double bestSum = 0.0;
  int bestShift = middle;
  bool found = false;
  for (int shift = 0; shift <= slack; ++shift) {
    cv::Rect candidate = fitted;
    (tooWide ? candidate.x : candidate.y) += shift;
    const double sum = AutoClippingSearch::rectangleSum(integral, candidate);
    if (!found || sum > bestSum || (sum == bestSum && std::abs(shift - middle) < std::abs(bestShift - middle))) {
      found = true;
      bestSum = sum;
      bestShift = shift;
    }
  }
  (tooWide ? fitted.x : fitted.y) += bestShift;
  return fitted;
}

std::vector<int> listGaps(const cv::Mat& wellCovered, const cv::Rect& rect) {
  std::vector<int> gaps;
  const cv::Rect inside = rect & cv::Rect(0, 0, wellCovered.cols, wellCovered.rows);
  if (inside.empty()) return gaps;
  cv::Mat holes;
  cv::compare(wellCovered(inside), cv::Scalar(0), holes, cv::CMP_EQ);
  if (cv::countNonZero(holes) == 0) return gaps;
  cv::Mat labels;
  cv::Mat stats;
  cv::Mat centroids;
  const int count = cv::connectedComponentsWithStats(holes, labels, stats, centroids, 8, CV_32S);
  std::vector<std::array<int, 5>> found;
  for (int label = 1; label < count; ++label) {
    found.push_back({stats.at<int>(label, cv::CC_STAT_LEFT) + inside.x, stats.at<int>(label, cv::CC_STAT_TOP) + inside.y,
                     stats.at<int>(label, cv::CC_STAT_WIDTH), stats.at<int>(label, cv::CC_STAT_HEIGHT),
                     stats.at<int>(label, cv::CC_STAT_AREA)});
  }
  std::sort(found.begin(), found.end(), [](const std::array<int, 5>& a, const std::array<int, 5>& b) {
    if (a[4] != b[4]) return a[4] > b[4];
    if (a[1] != b[1]) return a[1] < b[1];
    return a[0] < b[0];
  });
  if (found.size() > kMaxGaps) found.resize(kMaxGaps);
  for (const auto& gap : found) gaps.insert(gaps.end(), gap.begin(), gap.end());
  return gaps;
}

cv::Rect largestHoleFreeRect(const cv::Mat& wellCovered) {
  cv::Rect best;
  long bestArea = 0;
  std::vector<int> heights(std::size_t(wellCovered.cols) + 1, 0);  // the extra 0 empties the stack at the row's end
  std::vector<int> stack;
  stack.reserve(heights.size());
  for (int y = 0; y < wellCovered.rows; ++y) {
    const std::uint8_t* good = wellCovered.ptr<std::uint8_t>(y);
    for (int x = 0; x < wellCovered.cols; ++x) heights[std::size_t(x)] = good[x] ? heights[std::size_t(x)] + 1 : 0;
    // Columns on the stack have rising heights; a lower column closes the
    // rectangles of the taller ones before it.
    stack.clear();
    for (int x = 0; x <= wellCovered.cols; ++x) {
      const int h = heights[std::size_t(x)];
      while (!stack.empty() && heights[std::size_t(stack.back())] >= h) {
        const int height = heights[std::size_t(stack.back())];
        stack.pop_back();
        const int left = stack.empty() ? 0 : stack.back() + 1;
        const long area = long(height) * (x - left);
        const cv::Rect candidate(left, y - height + 1, x - left, height);
        if (area > bestArea || (area == bestArea && area > 0 &&
                                (candidate.y < best.y || (candidate.y == best.y && candidate.x < best.x)))) {
          bestArea = area;
          best = candidate;
        }
      }
      stack.push_back(x);
    }
  }
  return best;
}

std::vector<float> offsetsOf(const cv::Rect& rect, cv::Size raster) {
  const double w = raster.width;
  const double h = raster.height;
  return {static_cast<float>(rect.x / w), static_cast<float>(rect.y / h),
          static_cast<float>(1.0 - (rect.x + rect.width) / w), static_cast<float>(1.0 - (rect.y + rect.height) / h)};
}

cv::Mat drawInspection(const cv::Mat& coverage, const cv::Mat& wellCovered, const cv::Rect& rect) {
  cv::Mat grey;
  coverage.convertTo(grey, CV_8U, 110.0);
  cv::Mat picture;
  cv::cvtColor(grey, picture, cv::COLOR_GRAY2BGR);
  for (int y = 0; y < picture.rows; ++y) {
    const std::uint8_t* good = wellCovered.ptr<std::uint8_t>(y);
    cv::Vec3b* out = picture.ptr<cv::Vec3b>(y);
    for (int x = 0; x < picture.cols; ++x) {
      if (!good[x]) out[x] = cv::Vec3b(out[x][0] / 2, out[x][1] / 2, 170);
    }
  }
  cv::rectangle(picture, rect, cv::Scalar(0, 255, 0), 2, cv::LINE_8);
  return picture;
}

}  // namespace AutoClippingCoverage
}  // namespace MatrixBased
}  // namespace GeometryCalibration

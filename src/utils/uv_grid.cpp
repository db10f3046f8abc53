// Texture-coordinate grid with copy-on-write points.
#include "orbivane/utils/uv_grid.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>

namespace Utils {

UVGrid::UVGrid() : points_(std::make_shared<std::vector<UVPoint>>()) {}

UVGrid::UVGrid(int columns, int rows) : columns_(columns), rows_(rows) {
  if (columns < 1 || rows < 1) {
    throw std::invalid_argument("UVGrid needs at least one column and one row, got " + std::to_string(columns) +
                                "x" + std::to_string(rows));
  }
  auto points = std::make_shared<std::vector<UVPoint>>();
  points->reserve(static_cast<std::size_t>(columns + 1) * static_cast<std::size_t>(rows + 1));
  for (int j = 0; j <= rows; ++j) {
    for (int i = 0; i <= columns; ++i) {
      points->push_back({static_cast<float>(i) / static_cast<float>(columns),
                         static_cast<float>(j) / static_cast<float>(rows)});
    }
  }
  points_ = std::move(points);
}

std::size_t UVGrid::index(int i, int j) const {
  if (i < 0 || i > columns_ || j < 0 || j > rows_ || empty()) {
    throw std::out_of_range("UVGrid point (" + std::to_string(i) + ", " + std::to_string(j) +
                            ") outside a grid of " + std::to_string(columns_) + "x" + std::to_string(rows_));
  }
  return static_cast<std::size_t>(j) * static_cast<std::size_t>(columns_ + 1) + static_cast<std::size_t>(i);
}

const UVGrid::UVPoint& UVGrid::point(int i, int j) const { return (*points_)[index(i, j)]; }

void UVGrid::detach() {
  if (points_.use_count() > 1) points_ = std::make_shared<std::vector<UVPoint>>(*points_);
}

void UVGrid::setPoint(int i, int j, const UVPoint& p) {
  const std::size_t k = index(i, j);
  detach();
  (*points_)[k] = p;
}

const std::vector<UVGrid::UVPoint>& UVGrid::points() const { return *points_; }

void UVGrid::setPoints(std::vector<UVPoint> points) {
  const std::size_t expected = static_cast<std::size_t>(columns_ + 1) * static_cast<std::size_t>(rows_ + 1);
  if (empty() || points.size() != expected) {
    throw std::invalid_argument("UVGrid of " + std::to_string(columns_) + "x" + std::to_string(rows_) + " needs " +
                                std::to_string(empty() ? 0 : expected) + " points, got " +
                                std::to_string(points.size()));
  }
  points_ = std::make_shared<std::vector<UVPoint>>(std::move(points));
}

UVGrid::UVPoint UVGrid::sample(float x, float y) const {
  if (empty()) return {x, y};
  if (!std::isfinite(x) || !std::isfinite(y)) {
    return {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::quiet_NaN()};
  }
  const float gx = std::clamp(x, 0.0f, 1.0f) * static_cast<float>(columns_);
  const float gy = std::clamp(y, 0.0f, 1.0f) * static_cast<float>(rows_);
  const int i = std::min(static_cast<int>(gx), columns_ - 1);
  const int j = std::min(static_cast<int>(gy), rows_ - 1);
  const float fx = gx - static_cast<float>(i);
  const float fy = gy - static_cast<float>(j);
  // i and j are within the grid here: the points are read without the checked lookup.
  const UVPoint* row = points_->data() + static_cast<std::size_t>(j) * static_cast<std::size_t>(columns_ + 1) +
                       static_cast<std::size_t>(i);
  const UVPoint& p00 = row[0];
  const UVPoint& p10 = row[1];
  const UVPoint& p01 = row[columns_ + 1];
  const UVPoint& p11 = row[columns_ + 2];
  const float top_u = p00.u + (p10.u - p00.u) * fx;
  const float top_v = p00.v + (p10.v - p00.v) * fx;
  const float bottom_u = p01.u + (p11.u - p01.u) * fx;
  const float bottom_v = p01.v + (p11.v - p01.v) * fx;
  return {top_u + (bottom_u - top_u) * fy, top_v + (bottom_v - top_v) * fy};
}

bool UVGrid::isRegular(float tolerance) const {
  for (int j = 0; j <= rows_ && !empty(); ++j) {
    for (int i = 0; i <= columns_; ++i) {
      const UVPoint& p = point(i, j);
      if (std::fabs(p.u - static_cast<float>(i) / static_cast<float>(columns_)) > tolerance ||
          std::fabs(p.v - static_cast<float>(j) / static_cast<float>(rows_)) > tolerance) {
        return false;
      }
    }
  }
  return true;
}

bool operator==(const UVGrid& a, const UVGrid& b) {
  return a.columns_ == b.columns_ && a.rows_ == b.rows_ && (a.points_ == b.points_ || *a.points_ == *b.points_);
}

}  // namespace Utils

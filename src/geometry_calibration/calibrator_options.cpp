// The calibrators' option records; see calibrator_options.h.
#include "orbivane/geometry_calibration/calibrator_options.h"

#include <cmath>
#include <cstdio>
#include <sstream>

namespace GeometryCalibration {
namespace {

template <typename T>
std::string text(T value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

// "NAME must lie in RANGE, not VALUE".
template <typename T>
Utils::ReturnState<bool, std::string> outside(const char* name, const char* range, T value) {
  return Utils::failure(std::string(name) + " must lie in " + range + ", not " + text(value));
}

}  // namespace

Utils::ReturnState<bool, std::string> NeighbourOptions::validate() const {
  if (levels < 1 || levels > 30) return outside("levels", "1..30", levels);
  if (iterations < 1 || iterations > 1000) return outside("iterations", "1..1000", iterations);
  if (!std::isfinite(step) || !(step > 0.0f) || step > 2.0f) return outside("step", "(0, 2]", step);
  return true;
}

Utils::ReturnState<bool, std::string> MatchOptions::validate() const {
  if (mode < 0 || mode > 3) return outside("mode", "0..3", mode);
  if (m2b < 1 || m2b > 100) return outside("m2b", "1..100", m2b);
  if (m2n < 1 || m2n > 100) return outside("m2n", "1..100", m2n);
  if (!std::isfinite(allowScale) || allowScale > 8.0f) return outside("the allowed scale", "a finite number up to 8", allowScale);
  if (gridColumns != 0 || gridRows != 0) {
    if (gridColumns < 1 || gridColumns > mostGridCells_ || gridRows < 1 || gridRows > mostGridCells_) {
      return Utils::failure("a grid needs 1.." + text(mostGridCells_) + " columns and rows, not " + text(gridColumns) +
                            "x" + text(gridRows));
    }
    if (mode != 0) return Utils::failure("a grid is refined in mode 0 only, not in mode " + text(mode));
  }
  return true;
}

Utils::ReturnState<bool, std::string> MatchOptions::parseGrid(const std::string& grid) {
  int columns = 0, rows = 0;
  char x = 0, rest = 0;
  if (std::sscanf(grid.c_str(), "%d%c%d%c", &columns, &x, &rows, &rest) != 3 || (x != 'x' && x != 'X')) {
    return Utils::failure("a grid is COLSxROWS, e.g. 4x3, not '" + grid + "'");
  }
  // "0x0" would read as no grid at all: a grid asked for has cells.
  if (columns < 1 || rows < 1) {
    return Utils::failure("a grid needs 1.." + text(mostGridCells_) + " columns and rows, not '" + grid + "'");
  }
  gridColumns = columns;
  gridRows = rows;
  return true;
}

Utils::ReturnState<bool, std::string> ClippingOptions::validate() const {
  if (valueMode) {
    if (!std::isfinite(weight) || weight < 0.0f) return outside("the weight", "finite numbers of at least 0", weight);
    if (maxIterations < 1) return outside("the iteration limit", "1 and more", maxIterations);
    if (noHoles) return Utils::failure("no holes is a geometry-mode choice, not one of value mode");
    return true;
  }
  if (!std::isfinite(threshold) || !(threshold > 0.0f) || threshold > 1.0f) {
    return outside("the threshold", "(0, 1]", threshold);
  }
  return true;
}

Utils::ReturnState<bool, std::string> FisheyeOptions::validate() const {
  if (threshold < 0 || threshold > 255) return outside("the threshold", "0..255", threshold);
  return true;
}

Utils::ReturnState<bool, std::string> ResolutionOptions::validate() const {
  if (!std::isfinite(realX) || !(realX > 0.0f)) return outside("the horizontal spacing", "lengths above 0 (metres)", realX);
  if (!std::isfinite(realY) || !(realY > 0.0f)) return outside("the vertical spacing", "lengths above 0 (metres)", realY);
  if (minBlobArea < 1) return outside("the smallest mark area", "1 pixel and more", minBlobArea);
  return true;
}

}  // namespace GeometryCalibration

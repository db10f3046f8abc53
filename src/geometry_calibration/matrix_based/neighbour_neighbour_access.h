// The library's own way into a NeighbourNeighbour object: the calibration
// pipeline lends neighbour stitching the seam meter it measures with, so
// modules already drawn are not drawn again.
#pragma once

#include <memory>

#include "geometry_calibration/seam_measurement.h"
#include "orbivane/geometry_calibration/matrix_based/neighbour_neighbour.h"

namespace GeometryCalibration {
namespace MatrixBased {

class NeighbourNeighbourAccess {
 public:
  static void shareMeter(NeighbourNeighbour& stitcher, std::shared_ptr<SeamMeter> meter);
};

}  // namespace MatrixBased
}  // namespace GeometryCalibration

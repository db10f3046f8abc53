// Seams that hold where the rotation model cannot: a smooth displacement of
// each module's picture on the panorama that lays the matched features of
// overlapping modules onto each other.
//
// A rig whose modules do not turn about one point (a hand-held camera, a rig
// whose lenses sit centimetres apart) sees near objects from slightly
// different places: no rotation puts them on each other, and a seam shows the
// difference (parallax). Each module gets a displacement field D over its
// picture (a lattice of nodes about nodeSpacing picture pixels apart, a
// cubic B-spline over them, in panorama pixels); together the fields minimise
//   sum over matches   rho(|(P_a + D_a(pa)) - (P_b + D_b(pb))|^2)
//   + smoothness  sum over neighbouring nodes |D(n) - D(n')|^2
//   + anchoring   sum over nodes |D(n)|^2
// where P is where the rotation model draws a picture point. A robust loss
// (iteratively reweighted) and a local agreement check keep wrong matches
// out. Where matches are, the two modules meet half way; away from the
// overlaps the displacement fades out over a few hundred pixels, so the rest
// of each picture stays as the model draws it. A pair that the model already
// lines up to within its features' own scatter (a rig that does turn about
// one point) adds nothing: there is no parallax to hold, only noise to
// learn. The fields are written into the modules' UV grids (rig_geometry.h).
#pragma once

#include <vector>

#include <opencv2/core.hpp>

#include "geometry_calibration/rig/rig_adjustment.h"
#include "geometry_calibration/rig/rig_model.h"
#include "geometry_calibration/rig/rig_surface.h"

namespace GeometryCalibration {
namespace Rig {

// One module's displacement field, panorama pixels, over its picture.
class Displacement {
 public:
  Displacement() = default;
  Displacement(cv::Size picture, int columns, int rows);

  bool empty() const { return nodes_.empty(); }
  // The displacement at an observed picture pixel (clamped to the picture).
  cv::Point2d at(cv::Point2d observed) const;
  // Node index and weight of the 16 nodes that shape the field at a pixel
  // (cubic B-spline; an index may repeat at the lattice's edge).
  void weights(cv::Point2d observed, int index[16], double weight[16]) const;

  int columns() const { return columns_; }
  int rows() const { return rows_; }
  std::vector<cv::Point2d>& nodes() { return nodes_; }
  const std::vector<cv::Point2d>& nodes() const { return nodes_; }
  double largest() const;  // pixels

 private:
  cv::Size picture_;
  int columns_ = 0, rows_ = 0;  // nodes across and down
  std::vector<cv::Point2d> nodes_;
};

struct SeamSettings {
  double nodeSpacing = 40.0;        // picture pixels between nodes
  double fadeNodes = 6.0;         // how many node spacings a displacement takes to fade out
  double largestDisparity = 150.0;  // panorama pixels; matches further apart are taken as wrong
};

// The displacement of every module (indices as in `models`). `matches` are
// all the pairs' matches, wrong ones included.
std::vector<Displacement> holdSeams(const std::vector<ModuleModel>& models, const Surface& surface,
                                    const std::vector<Match>& matches, const SeamSettings& settings = {});

// Where module `model` with displacement `d` draws observed pixel `p`: unit
// surface point.
cv::Point2d drawnAt(const ModuleModel& model, const Surface& surface, const Displacement& d, cv::Point2d p);

}  // namespace Rig
}  // namespace GeometryCalibration

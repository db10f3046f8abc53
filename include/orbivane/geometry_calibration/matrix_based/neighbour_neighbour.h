// Neighbour stitching: aligns a chain of neighbouring modules pair by pair.
//
// For each pair (first, second) of the chain it measures, in the overlap of
// their pictures, the translation that lays the second picture onto the first
// (a coarse-to-fine translation-only Gauss-Newton alignment, starting from the
// placement the modules' matrices give), and moves the second module on the
// panorama surface by that amount. Every module after it is moved by the same
// amount, so the rest of the chain keeps its relative placement.
//
// The pair alignment respects the modules' current placement: before it
// measures, the second picture is resampled through the two matrices so that
// a turn, scale, shear or keystone that the matrices already hold between
// the modules is not read as a translation; only the pixels of the first
// picture that the second one covers are compared. For upright, axis-aligned
// modules the resampling is the identity and the pictures are used as they
// are. The correction is measured at the middle of the overlap and converted
// into a surface translation there.
//
// Units and conventions (orbivane/geometry/surface_projection.h): a module's
// matrix maps its picture's unit square onto the surface; its rectangle is the
// bounding box of that quad, in normalised surface units. A correction
// (dx, dy) is a surface translation T, applied on the left: M' = T x M.
//
// Final adjustment of `calibrate`: the walk leaves the chain's first module
// where it was, so the corrections pile up towards the end of the chain. Each
// listed module's accumulated correction C_i = M_i(after) x M_i(before)^-1 is
// read back; an anchor translation G is taken from them and G^-1 is applied on
// the left of every listed module's matrix, so relative placement is kept:
//  - `reference` names one of the listed modules: G = C_reference, so the
//    reference module ends exactly where it started;
//  - otherwise (empty or not listed): G is the weighted mean of the C_i with
//    raised-cosine weights a_i = 0.5 - 0.5 * cos(2 pi i / (n - 1)) over the n
//    modules of the chain (a weight below 0.001 is replaced by 0.001, so the
//    ends still count and a two-module chain splits its seam half and half):
//    the chain's middle stays in place and the drift is spread to both ends.
//
// Progress: one report per pair, "Stitching Modules A and B", and a last one,
// "Adjusting Chain", that carries the final camera; the total is the number
// of pairs plus one.
#pragma once

#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "orbivane/camera/orbivane.h"
#include "orbivane/export.h"
#include "orbivane/geometry_calibration/calibration_report.h"
#include "orbivane/geometry_calibration/status_callback.h"
#include "orbivane/image/universal_image_interface.h"

namespace GeometryCalibration {
namespace MatrixBased {


class ORBIVANE_EXPORT NeighbourNeighbour {
 public:
  // `images` maps module names to their pictures. `levels`: the most pyramid
  // levels the alignment may use (reduced so the coarsest level is at least
  // 40 pixels on both sides); `iterations`: Gauss-Newton steps on each level;
  // `step`: the factor each update is scaled by (1 is a full step). Good
  // values: 4 levels, 6 iterations, step 1.
  NeighbourNeighbour(const CameraDescription::Orbivane& camera,
                     std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images, int levels,
                     int iterations, float step);

  // Stitches the listed modules in list order and returns the corrected copy
  // of the camera. A module name without a module in the camera or without a
  // picture throws std::out_of_range (before anything is changed for that
  // pair). Every pair is logged ("Stitching Modules: " and the two names)
  // and its correction carried down the chain; a pair that cannot be
  // measured (a module without matrix geometry, say) carries a zero one.
  virtual CameraDescription::Orbivane calibrate(std::list<std::wstring> modules, std::wstring reference);
  virtual ~NeighbourNeighbour();

  NeighbourNeighbour(const NeighbourNeighbour&) = delete;
  NeighbourNeighbour& operator=(const NeighbourNeighbour&) = delete;

  void registerStatusCallback(std::function<void(int, int, std::string, GeometryCalibration::AdvStepInfo)> callback);

  // The translations found by the last `calibrate`, one per pair in chain
  // order: (first, second, (dx, dy) in surface units).
  struct PairTranslation {
    std::wstring first;
    std::wstring second;
    float dx = 0.0f;
    float dy = 0.0f;
  };
  const std::list<PairTranslation>& translations() const;

  // What the last `calibrate` found for each pair, in chain order: measured
  // (the correction was applied) or not, with the reason (a module without
  // matrix geometry; a singular, mirrored or non-finite matrix; an empty or
  // unreadable picture; pictures too small for one pyramid level; no
  // overlap; no texture in the overlap; an alignment that left the overlap;
  // pictures that do not agree in the overlap, normalised correlation below
  // 0.5). A pair that is not measured moves nothing.
  const std::list<GeometryCalibration::PairReport>& pairReports() const;

 private:
  std::pair<float, float> calibratePair(std::wstring first, std::wstring second, bool apply);

  friend class NeighbourNeighbourAccess;
  struct Impl;
  std::unique_ptr<Impl> impl_;
  const int levels_;
  const int iterations_;
  const float step_;
};

}  // namespace MatrixBased
}  // namespace GeometryCalibration

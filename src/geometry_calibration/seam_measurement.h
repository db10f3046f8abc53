// How well modules line up where they overlap, measured as a viewer shows
// them: each module drawn alone on the panorama where it overlaps others
// (matrix, UV grid, lens shader, gain: orbivane/rendering/module_drawing.h),
// SIFT features found in each drawing, and for every pair of overlapping
// modules the features matched between the two drawings inside their
// overlap, with the distances between the matched positions. A module that
// is placed right draws a scene point where its neighbour draws it; the
// distances say by how much it does not (they include the features' own
// sub-pixel scatter, as any feature measurement does). They are converted
// from panorama pixels to pixels of the first module's picture (its scale on
// the panorama there).
//
// Matches further apart than kLargestSeamPx picture pixels are not counted
// (a seam that far off shows in the panorama as a doubled scene, and its
// features rarely match at all), so a feature is compared with the other
// drawing's features within that distance only: a match passes Lowe's ratio
// test (0.7) among them both ways, and the two features are each other's
// best. A pair with fewer than kFewestSeamMatches matches is not measured:
// in an overlap of sky or plain wall, where a few features match and one or
// two of them are false (or on a cloud that moved between the pictures),
// the median of fewer swings by pixels with each of those. A match whose
// shift disagrees with those of the matches nearest it (by more than 3
// picture pixels, or half their shift) is a feature matched to a look-alike
// and is not counted either: a real misalignment changes smoothly over an
// overlap, and its matches agree with their neighbours.
//
// A SeamMeter keeps each module's drawing while the module is drawn the same
// way (same grid, shaders, gain and picture; a matrix moved by a translation
// on the panorama moves the drawing), so measuring again after a step redraws
// only what the step changed. A module whose matrix changed otherwise, but
// whose drawing hardly changed shape (a well-placed module refined), is
// drawn again and keeps its features: each goes where the new matrix draws
// its picture point, checked on the new drawing.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <opencv2/core/mat.hpp>

#include "orbivane/camera/orbivane.h"

namespace GeometryCalibration {

constexpr double kLargestSeamPx = 60.0;
constexpr int kFewestSeamMatches = 10;

struct SeamMeasure {
  bool measured = false;
  std::string reason;  // why not measured; "no overlap" for modules that do not overlap
  int matches = 0;     // feature matches counted
  double medianPx = 0.0, p90Px = 0.0;  // picture pixels of the first module
  cv::Point2d shift;  // second's drawing against the first's, picture pixels (median of each axis over the matches)
  int overlapPixels = 0;               // panorama pixels where both draw
  double exposureEv = 0.0;             // |log2| of the mean brightness ratio over the overlap
  std::vector<float> distances;        // every counted match's distance, picture pixels
};

// The panorama size seams are measured at: at least the modules' own pixel
// density (one picture pixel at least one panorama pixel), so that a
// drawing never loses the detail its features rely on; the camera's
// panorama size when it is that fine.
cv::Size seamDrawingSize(const CameraDescription::Orbivane& camera);

class SeamMeter {
 public:
  // Modules are drawn on a panorama of `panorama` pixels.
  explicit SeamMeter(cv::Size panorama);
  // A meter on a panorama of another size that starts from `earlier`'s
  // drawings: a module whose drawing has hardly changed shape there keeps
  // its features (they are carried to where they are drawn now), the rest
  // are drawn and searched afresh.
  SeamMeter(cv::Size panorama, const SeamMeter& earlier);
  ~SeamMeter();
  SeamMeter(const SeamMeter&) = delete;
  SeamMeter& operator=(const SeamMeter&) = delete;

  cv::Size panorama() const { return panorama_; }

  // Draws the modules where they overlap one another, two at a time on the
  // machine's cores (what is drawn already and still holds is kept).
  void prepare(const std::vector<const CameraDescription::OrbivaneModule*>& modules);
  // Whether the module's drawing now kept the features of an earlier
  // drawing of it (see above) rather than search them all afresh.
  bool keptFeatures(const std::wstring& module) const;
  // The seam of two modules (drawn first where needed). May be called from
  // several threads at once for modules prepared before.
  SeamMeasure measure(const CameraDescription::OrbivaneModule& first, const CameraDescription::OrbivaneModule& second);

  // The two modules' drawings (grey) over the panorama pixels where both
  // draw, and the mask of those pixels.
  struct Overlap {
    bool ok = false;
    std::string reason;
    cv::Rect region;            // panorama pixels
    cv::Mat first, second;      // CV_8UC1 over the region
    cv::Mat mask;               // CV_8UC1: both draw there
    double pictureScale = 1.0;  // panorama pixels per picture pixel of the first module there
    // Each drawing shows its module this far (panorama pixels, under half a
    // pixel each way) short of where it is now: a drawing moved since it was
    // made is cut at whole pixels. A shift measured between the two drawings
    // is the true one plus firstFraction - secondFraction.
    cv::Point2d firstFraction, secondFraction;
  };
  Overlap overlap(const CameraDescription::OrbivaneModule& first, const CameraDescription::OrbivaneModule& second);

 public:
  struct Drawn;  // a module's drawing, with its features (seam_measurement.cpp)

 private:
  // The module drawn over at least the boxes `needed` (panorama pixels,
  // within its footprint: where its seams are measured), with the features
  // of each. The caller holds mutex_.
  std::shared_ptr<const Drawn> drawn(const CameraDescription::OrbivaneModule& module,
                                     const std::vector<cv::Rect>& needed);
  std::pair<std::shared_ptr<const Drawn>, std::shared_ptr<const Drawn>> drawnPair(
      const CameraDescription::OrbivaneModule& first, const CameraDescription::OrbivaneModule& second);
  SeamMeasure compare(const Drawn& a, const Drawn& b) const;
  // Where the two modules both draw, roughly (panorama pixels, a little
  // wider than the overlap itself); empty where they do not overlap. The
  // caller holds mutex_.
  cv::Rect overlapBox(const CameraDescription::OrbivaneModule& first, const CameraDescription::OrbivaneModule& second);
  struct Coarse;  // where a module draws, on a coarse panorama
  std::shared_ptr<const Coarse> coarse(const CameraDescription::OrbivaneModule& module);

  cv::Size panorama_;
  mutable std::mutex mutex_;  // guards cache_, pairs_ and coarse_
  std::map<std::wstring, std::shared_ptr<const Drawn>> cache_;
  std::map<std::string, SeamMeasure> pairs_;  // by the two drawings and their relative shift
  std::map<std::wstring, std::shared_ptr<const Coarse>> coarse_;
};

}  // namespace GeometryCalibration

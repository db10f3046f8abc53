// The working record behind NeighbourNeighbour: the camera copy it corrects,
// the pictures, the logger and the status callback, and the walk along the
// chain. Kept apart from the exported class so that its steps (one pair, the
// carrying of a correction down the chain, the final adjustment) can be
// exercised on their own.
#pragma once

#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>
#include <spdlog/logger.h>

#include "geometry_calibration/matrix_based/translation_aligner.h"
#include "geometry_calibration/seam_measurement.h"
#include "orbivane/camera/orbivane.h"
#include "orbivane/geometry_calibration/calibration_report.h"
#include "orbivane/geometry_calibration/matrix_based/neighbour_neighbour.h"
#include "orbivane/geometry_calibration/status_callback.h"
#include "orbivane/image/universal_image_interface.h"
#include "orbivane/utils/matrix4x4.h"

namespace GeometryCalibration {
namespace MatrixBased {

// How the second picture of a pair is resampled before the translation
// alignment. `secondToFirst` maps the second picture's pixels to the first's
// through the two matrices; `resample` maps pixels of the resampled picture
// to the second picture's pixels, such that the aligner's model (scale
// (sx, sy), move (x0, y0)) holds exactly for the current placement.
// `upright`: the resampling is the identity within kUprightTolerance pixels
// (upright, axis-aligned modules), and the picture is used as it is.
struct PairPrewarp {
  bool valid = false;
  bool upright = false;
  cv::Matx33d secondToFirst = cv::Matx33d::eye();
  cv::Matx33d resample = cv::Matx33d::eye();
};
constexpr double kUprightTolerance = 1e-3;  // pixels
PairPrewarp pairPrewarp(const cv::Matx33d& firstPlanar, const cv::Matx33d& secondPlanar, cv::Size size, double x0,
                        double y0, double sx, double sy);

class NeighbourStitcher {
 public:
  using Images = std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>>;

  // Options out of range (NeighbourOptions::validate) are logged when a
  // calibration starts and leave every pair unmeasured with that reason.
  NeighbourStitcher(const CameraDescription::Orbivane& camera, Images images, int levels, int iterations,
                    float step);

  // Aligns `second` to `first`; returns (dx, dy) in surface units (the units
  // of `first`'s rectangle). With `apply`, second's matrix M becomes
  // T(dx, dy) x M. Throws std::out_of_range for a name without a module or
  // without a picture. Logs "Stitching Modules: " with the two names for
  // every pair; a pair that cannot be measured gives (0, 0) and changes no
  // matrix (lastPair() says why).
  std::pair<float, float> calibratePair(const std::wstring& first, const std::wstring& second, bool apply);

  // Moves every listed module from position `from` on by the surface
  // translation (dx, dy): M becomes T x M.
  void shiftModules(const std::vector<std::wstring>& names, std::size_t from, float dx, float dy);

  // The final adjustment (see neighbour_neighbour.h): `before` holds the
  // listed modules' matrices as they were before the walk (nothing for a
  // module without a matrix geometry).
  void adjustChain(const std::vector<std::wstring>& names, const std::vector<Utils::Optional<Utils::Matrix4x4>>& before,
                   const std::wstring& reference);

  CameraDescription::Orbivane calibrate(const std::list<std::wstring>& modules, const std::wstring& reference);

  void setStatusCallback(StatusCallback callback) { callback_ = std::move(callback); }
  // Measures seams with `meter` (shared with the caller, who may have drawn
  // the modules already) while its panorama is the camera's.
  void shareMeter(std::shared_ptr<SeamMeter> meter) { meter_ = std::move(meter); }

  const CameraDescription::Orbivane& camera() const { return camera_; }
  const std::list<NeighbourNeighbour::PairTranslation>& translations() const { return translations_; }
  // The aligner's outcome for the last pair (pixels of the first picture).
  const TranslationResult& lastAlignment() const { return lastAlignment_; }
  // What the last calibratePair found, and the pairs of the last calibrate.
  const GeometryCalibration::PairReport& lastPair() const { return lastPair_; }
  const std::list<GeometryCalibration::PairReport>& pairReports() const { return pairReports_; }

  // The anchor weight of position i in a chain of n modules.
  static double anchorWeight(std::size_t i, std::size_t n);

 private:
  void report(const std::string& text, const std::wstring& module, const std::wstring& reference,
              const std::map<std::string, double>& values);
  // The measurement behind calibratePair, without its log line.
  std::pair<float, float> alignPair(const std::wstring& first, const std::wstring& second, bool apply);
  // Its steps for two modules drawn by their matrices alone: the surface
  // correction, measured on the two pictures (empty when not measured,
  // lastPair_ saying why); the two pictures in grey at the first's size
  // (empty, or what is wrong with them); and what speaks against the
  // aligner's last result (empty when nothing does).
  Utils::Optional<cv::Point2d> alignPictures(const CameraDescription::OrbivaneModule& first,
                                             const CameraDescription::OrbivaneModule& second,
                                             const std::shared_ptr<Image::UniversalImageInterface>& firstImage,
                                             const std::shared_ptr<Image::UniversalImageInterface>& secondImage);
  std::string greyPair(const std::wstring& first, const std::wstring& second,
                       const std::shared_ptr<Image::UniversalImageInterface>& firstImage,
                       const std::shared_ptr<Image::UniversalImageInterface>& secondImage, cv::Mat& firstGrey,
                       cv::Mat& secondGrey);
  std::string alignmentProblem(const std::wstring& first, const std::wstring& second, double x0, double y0,
                               cv::Size size);

  // Modules with a UV grid or a lens shader are not flat pictures under a
  // matrix: their pair is aligned on the two modules drawn alone over their
  // overlap on the panorama (as the viewer draws them), where a correct
  // placement means no shift at all. Returns the surface correction and
  // fills lastPair_ / lastAlignment_ like calibratePair.
  Utils::Optional<cv::Point2d> alignDrawnPair(const CameraDescription::OrbivaneModule& first,
                                              const CameraDescription::OrbivaneModule& second);
  // Whether moving `second` by the surface translation (dx, dy) is borne out
  // by the pictures as the viewer draws them: the overlap's correlation
  // clearly rises, and the features matched between the two drawings then lie
  // on each other (no other shift would do better). Empty when it is; else
  // why not.
  std::string confirmShift(const std::wstring& first, const std::wstring& second, double dx, double dy);
  // The camera's modules with their pictures from images_, and the
  // panorama size they are drawn at.
  CameraDescription::Orbivane drawnCamera() const;
  cv::Size drawnPanorama(const CameraDescription::Orbivane& camera) const;
  // The seams' meter on the panorama the camera is drawn at (kept while the
  // panorama's size is the same).
  SeamMeter& meter();

  CameraDescription::Orbivane camera_;
  Images images_;
  std::shared_ptr<spdlog::logger> logger_;
  StatusCallback callback_;
  TranslationAligner aligner_;
  std::list<NeighbourNeighbour::PairTranslation> translations_;
  TranslationResult lastAlignment_;
  GeometryCalibration::PairReport lastPair_;
  std::list<GeometryCalibration::PairReport> pairReports_;
  int step_ = 0;
  int totalSteps_ = 0;
  std::shared_ptr<SeamMeter> meter_;
  std::string optionsProblem_;  // why the constructor's options are out of range; empty when they are fine
};

}  // namespace MatrixBased
}  // namespace GeometryCalibration

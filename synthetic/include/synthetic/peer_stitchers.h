// Other tools that stitch the same photographs, run side by side with ours in
// the benchmarks, and one measurement for all of them.
//
//  - OpenCV's detail pipeline as its stitching_detailed sample runs it with
//    SIFT features: registration at 0.6 megapixels (best-of-2-nearest
//    matcher, homography-based estimate, ray bundle adjustment, horizontal
//    wave correction), spherical warp, blocks gain compensation, graph-cut
//    seams at 0.1 megapixels and multi-band blending at full resolution.
//  - Hugin's command-line chain (pto_gen, cpfind --multirow, cpclean,
//    autooptimiser -a -m -l -s, pano_modify --canvas=AUTO --crop=AUTO,
//    nona -m TIFF_m), where its tools are installed.
//
// Each gives one layer per photograph: the photograph drawn alone on the
// panorama (its warped picture and mask), which is what the seam
// measurement compares.
#pragma once

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "orbivane/camera/orbivane.h"

namespace Synthetic {

struct PeerLayer {
  cv::Mat picture;  // BGR, 8 bits, over `box`; empty when the tool left the photograph out
  cv::Mat mask;     // CV_8U over `box`: 255 where the photograph is drawn
  cv::Rect box;     // panorama pixels
};

struct PeerResult {
  bool ok = false;
  std::string error;
  double seconds = 0.0;
  cv::Size panorama;
  std::vector<PeerLayer> layers;  // one per photograph, in their order
  cv::Rect crop;                  // the tool's own crop of the panorama (empty: none)
};

// OpenCV's detail pipeline on the photographs (BGR).
PeerResult openCvDetailStitch(const std::vector<cv::Mat>& photographs);

// Whether Hugin's command-line tools are on the PATH.
bool huginAvailable();
// Hugin's chain on the photograph files, working in `folder` (which must
// exist). It fails when its control points leave a photograph unlinked.
PeerResult huginStitch(const std::vector<std::string>& files, const std::string& folder);

// The seams between layers, measured on the panorama as the other tools'
// users see them: SIFT features of each layer, matched between every two
// layers inside their overlap (ratio test, each other's best), distances
// converted to pixels of the photographs (each layer's scale against its
// photograph, from matching the two). Matches further apart than `largest`
// photograph pixels are not counted, nor pairs with fewer than ten matches.
struct LayerSeams {
  int pairs = 0;                     // overlapping pairs with enough matches
  int matches = 0;
  double medianPx = 0.0, p90Px = 0.0;  // over all matches of all pairs
  double worstPairMedianPx = 0.0;
  double worstExposureEv = 0.0;      // |log2| of the brightness ratio over an overlap, worst pair
  std::vector<std::string> lines;    // one per pair, for printing
};
LayerSeams measureLayerSeams(const std::vector<PeerLayer>& layers, const std::vector<cv::Mat>& photographs,
                             const std::vector<std::string>& names, double largest = 60.0);

// The share (0..1) of the panorama pixels some layer draws that lie inside
// `crop`.
double keptShare(const std::vector<PeerLayer>& layers, cv::Size panorama, const cv::Rect& crop);
// The share (0..1) of `crop`'s pixels that no layer draws.
double holeShare(const std::vector<PeerLayer>& layers, cv::Size panorama, const cv::Rect& crop);

// Our camera the same way: each named module drawn alone on the camera's
// panorama as the viewer draws it, and `clipping` (left, top, right, bottom
// shares of the panorama cut away, as the clip step reports them; empty: no
// crop) as the crop. Layers of modules the camera lacks are empty.
PeerResult cameraLayers(const CameraDescription::Orbivane& camera, const std::vector<std::string>& names,
                        const std::vector<float>& clipping);

}  // namespace Synthetic

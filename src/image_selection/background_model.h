// The empty scene of a fixed camera, learnt from its own recording: the
// per-pixel temporal median of many frames spread over the searched time
// window, on small, lightly smoothed colour copies of the frames
// (thumbnails, each pixel the mean of a block of the picture), and how far a
// frame differs from it (its foreground).
//
// Exposure: each channel of every thumbnail is brought to the model's
// exposure by a straight line (value' = gain x value + offset) fitted to the
// pixels that are neither dark- nor bright-clipped: it starts from the gain
// (1/3 to 3) and offset with the least median absolute residual, which holds
// while less than half of the pixels differ for other reasons, then least
// squares without the pixels that stray more than 2.5 noise widths, until it
// settles. Frames are matched to the median of the frames as they are, and
// the model is the median of the matched frames. A camera whose exposure or
// white balance changes during the window therefore gives one model and no
// foreground from the change.
//
// Foreground of a frame: a pixel of its exposure-matched thumbnail is
// foreground when one of its channels differs from the model by more than
// that channel's noise level in this frame (4 x 1.4826 x the median absolute
// difference, at least kMinLevel_ levels); values clipped in the frame or the
// model are never foreground. Colour counts: dark trousers on dark green grass
// differ little in grey. The mask is opened by 2x2 (isolated noise) and closed
// by 3 wide x 5 high (a person's parts join), and its 8-connected blobs are
// measured. A person who walks, or stands still for less than half of the
// window, is foreground; a parked car that never moves is part of the model.
#pragma once

#include <cstddef>
#include <vector>

#include <opencv2/core/mat.hpp>
#include <opencv2/core/types.hpp>

namespace OrbivaneCalibration {

struct ForegroundMeasure {
  bool measured = false;
  double share = 0.0;        // share of the picture's pixels that are foreground, 0..1
  double largestBlob = 0.0;  // area of the largest foreground blob, pixels of the picture
  cv::Rect largestBlobBox;   // its bounding box, pixels of the picture
  int personBlobs = 0;       // blobs as large as the smallest person (see personSized)
  double noiseLevel = 0.0;   // levels of the thumbnail beyond which a pixel is foreground (largest of the channels)
};

class BackgroundModel {
 public:
  // The integer factor a picture of `size` is reduced by for its thumbnail:
  // smallestPerson / 30 (a person of that height keeps about 30 rows), grown
  // until `frames` colour thumbnails fit into kThumbnailBudget_ bytes.
  static int thumbnailFactor(cv::Size size, int smallestPerson, std::size_t frames);
  // The thumbnail of a BGR, BGRA or grey 8-bit picture: BGR (grey for a grey
  // picture), each pixel the mean of a factor x factor block, then smoothed
  // by a Gaussian of kSmoothing_ thumbnail pixels (a frame a little sharper or
  // softer than the others differs at every edge otherwise).
  static cv::Mat thumbnail(const cv::Mat& picture, int factor);
  // Whether a foreground blob (area and box in pixels of the picture) is as
  // large as a person `height` pixels tall: at least 0.08 x height^2 pixels
  // (a person is about a third as wide as tall; half of that area counts)
  // and at least 0.4 x height high (a band such as a waving tape is not).
  static bool personSized(double area, const cv::Rect& box, int height);

  // Builds the model from thumbnails of one size and type (at least 3, 8-bit
  // BGR or grey); throws std::invalid_argument otherwise.
  BackgroundModel(const std::vector<cv::Mat>& thumbnails, int factor, cv::Size pictureSize);

  // The foreground of a frame's thumbnail; person-sized blobs are those of
  // a person `personHeight` pixels tall (see personSized). Pixels set in
  // `ignore` (8 bits, the thumbnails' size; may be empty) are never
  // foreground. A thumbnail of another size or type is not measured.
  ForegroundMeasure measure(const cv::Mat& thumbnail, int personHeight, const cv::Mat& ignore = cv::Mat()) const;

  const cv::Mat& model() const { return model_; }
  int factor() const { return factor_; }

  static constexpr double kMinLevel_ = 10;                       // levels of a channel
  static constexpr double kSmoothing_ = 1.0;                     // thumbnail pixels (standard deviation)
  static constexpr std::size_t kThumbnailBudget_ = 256u << 20;  // bytes

 private:
  // Pixels of the thumbnail beyond their channel's noise level (255), before
  // the morphology; `noiseLevel` gets the largest channel level.
  cv::Mat foregroundMask(const cv::Mat& thumbnail, double& noiseLevel) const;

  cv::Mat model_;  // the thumbnails' size and type
  int factor_;
  cv::Size pictureSize_;
};

// `thumbnail` (8-bit grey) brought to the exposure of `reference` (same
// size): the fitted gain x grey + offset, as CV_32F. Without enough unclipped
// pixels the thumbnail is returned unchanged (as CV_32F).
cv::Mat matchExposure(const cv::Mat& thumbnail, const cv::Mat& reference);

}  // namespace OrbivaneCalibration

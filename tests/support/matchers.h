// Matchers with named tolerances, so accuracy tests read like their claim:
//   EXPECT_THAT(found, MatrixNear(truth, 1e-6));
//   EXPECT_THAT(found, HomographyNear(truth, 0.05, cv::Size(1280, 720)));
//   EXPECT_THAT(picture, PictureNear(expected, 2));
#pragma once

#include <cmath>

#include <gmock/gmock.h>
#include <opencv2/core.hpp>

#include "orbivane/utils/matrix4x4.h"
#include "synthetic/corner_error.h"

// Failure messages name a picture's size and type, not its every pixel.
namespace cv {
inline void PrintTo(const Mat& m, std::ostream* os) {
  *os << "cv::Mat " << m.cols << "x" << m.rows << " type " << m.type();
}
}  // namespace cv

namespace Testing {

// Every element within `tolerance` of the truth.
MATCHER_P2(MatrixNear, truth, tolerance, "every element within " + ::testing::PrintToString(tolerance)) {
  for (int r = 0; r < 4; ++r) {
    for (int c = 0; c < 4; ++c) {
      const double d = std::fabs(double(arg.get(r, c)) - double(truth.get(r, c)));
      if (!(d <= tolerance)) {
        *result_listener << "element (" << r << ", " << c << ") is " << arg.get(r, c) << ", expected "
                         << truth.get(r, c);
        return false;
      }
    }
  }
  return true;
}

// The mean corner error (Synthetic::cornerError, pixel-centre corners of a
// picture of `size`) of a 3x3 homography.
MATCHER_P3(HomographyNear, truth, pixels, size,
           "maps the picture's corners within " + ::testing::PrintToString(pixels) + " px of the truth") {
  const double e = Synthetic::cornerError(cv::Matx33d(arg), cv::Matx33d(truth), size);
  *result_listener << "mean corner error " << e << " px";
  return e <= pixels;
}

// Same size and type, and no element differs by more than `levels`.
MATCHER_P2(PictureNear, expected, levels, "every pixel within " + ::testing::PrintToString(levels) + " levels") {
  if (arg.size() != expected.size() || arg.type() != expected.type()) {
    *result_listener << "size or type differs";
    return false;
  }
  cv::Mat diff;
  cv::absdiff(arg, expected, diff);
  double worst = 0;
  cv::minMaxLoc(diff.reshape(1), nullptr, &worst);
  *result_listener << "largest difference " << worst;
  return worst <= levels;
}

}  // namespace Testing

// The blur step: every module's blur score against the plain OpenCV
// sequence, and a defocused picture scoring lower.
#include "demo_steps.h"

#include <opencv2/imgproc.hpp>

#include "orbivane/blur_detection/estimate_blur.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/utils/wide_text.h"
#include "progress.h"
#include "synthetic/reference_pipelines.h"

namespace Tool {
namespace Demo {

Section runBlurScores(const StepContext& c) {
  const Synthetic::Rig& s = c.scene;
  Section section;
  section.id = "blur";
  section.title = "Blur scores";
  section.what = "The Laplacian-variance blur score of every module picture (larger is sharper), checked against the "
                 "plain OpenCV sequence (grey, Laplacian, masked variance), and of M3's picture defocused by a "
                 "Gaussian of sigma 1.5 px.";
  section.table.push_back({"Picture", "Blur score", "OpenCV sequence", "Same"});
  Progress progress("blur scores");
  bool allSame = true;
  int sharp = 0, soft = 0;
  double seconds = 0.0;
  int step = 0;
  std::vector<std::pair<std::string, cv::Mat>> pictures;
  for (const auto& name : s.names) pictures.emplace_back(Utils::toUtf8(name), Image::toMat(*s.pictures.at(name)));
  cv::Mat defocused;
  cv::GaussianBlur(Image::toMat(*s.pictures.at(L"M3")), defocused, cv::Size(0, 0), 1.5);
  pictures.emplace_back("M3 defocused", defocused);
  writePicture(defocused, c.dir + "/pictures/M3-defocused.png");
  for (const auto& p : pictures) {
    progress.update(++step, int(pictures.size()), p.first);
    const Stopwatch watch;
    const int ours = BlurDetection::estimateBlur(Image::fromMat(p.second), 0);
    seconds += watch.seconds();
    const int plain = Synthetic::referenceBlur(p.second, 0);
    allSame = allSame && ours == plain;
    if (p.first == "M3") sharp = ours;
    if (p.first == "M3 defocused") soft = ours;
    section.table.push_back({p.first, std::to_string(ours), std::to_string(plain), ours == plain ? "yes" : "NO"});
  }
  progress.finish();
  section.seconds = seconds;
  section.figures.push_back({"pictures/M3-defocused.png", "M3 defocused (sigma 1.5 px)"});
  section.passed = allSame && soft < sharp;
  section.result = "M3 " + std::to_string(sharp) + ", defocused " + std::to_string(soft);
  section.truthError = allSame ? "equal to OpenCV on all " + std::to_string(pictures.size()) + " pictures"
                               : "differs from OpenCV";
  return section;
}

}  // namespace Demo
}  // namespace Tool

// The blur score on a 3840x2160 frame, single-threaded: the plain OpenCV
// sequence (BGR to grey, Laplacian to 64-bit float, masked mean and standard
// deviation) against estimateBlur's fused pass.
//
// Goals (--check exits with 1 when one is missed): both give the same
// integer at rotations 0 and 90; the fused pass at least 10x the sequence
// (ratio of the medians, per rotation). --smoke runs the fewest iterations
// and judges the scores only.
#include <cstdio>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "bench_support.h"
#include "orbivane/blur_detection/estimate_blur.h"
#include "orbivane/image/image_conversion.h"
#include "synthetic/reference_pipelines.h"
#include "synthetic/sample_data.h"

namespace {

// A 3840x2160 frame made of a real photograph, scaled up.
const cv::Mat& frame() {
  static const cv::Mat f = [] {
    cv::Mat m;
    cv::resize(Synthetic::loadSample("building.jpg"), m, cv::Size(3840, 2160), 0, 0, cv::INTER_CUBIC);
    return m;
  }();
  return f;
}

void ReferenceSequence(benchmark::State& state) {
  const cv::Mat& bgr = frame();
  for (auto _ : state) benchmark::DoNotOptimize(Synthetic::referenceBlur(bgr, static_cast<int>(state.range(0))));
}

void FusedEstimateBlur(benchmark::State& state) {
  const auto image = Image::fromMat(frame());
  for (auto _ : state) benchmark::DoNotOptimize(BlurDetection::estimateBlur(image, static_cast<int>(state.range(0))));
}

BENCHMARK(ReferenceSequence)->Arg(0)->Arg(90)->Unit(benchmark::kMillisecond)->Repetitions(9)->ReportAggregatesOnly(true);
BENCHMARK(FusedEstimateBlur)->Arg(0)->Arg(90)->Unit(benchmark::kMillisecond)->Repetitions(9)->ReportAggregatesOnly(true);

}  // namespace

int main(int argc, char** argv) {
  const Bench::Options options = Bench::parseOptions(argc, argv);
  cv::setNumThreads(1);  // single-threaded, both sides
  Bench::Goals goals(options);
  for (int rotation : {0, 90}) {
    const int reference = Synthetic::referenceBlur(frame(), rotation);
    const int ours = BlurDetection::estimateBlur(Image::fromMat(frame()), rotation);
    goals.correctness(reference == ours, "rotation %d: reference score %d, ours %d, the same", rotation, reference,
                      ours);
  }
  constexpr double kRatioGoal = 10.0;
  const auto ratios =
      Bench::runAndCompare(options, {{"blur 3840x2160, rotation 0", "ReferenceSequence/0", "FusedEstimateBlur/0"},
                                     {"blur 3840x2160, rotation 90", "ReferenceSequence/90", "FusedEstimateBlur/90"}});
  for (const char* label : {"blur 3840x2160, rotation 0", "blur 3840x2160, rotation 90"}) {
    const auto found = ratios.find(label);
    const double ratio = found == ratios.end() ? 0.0 : found->second;
    goals.speed(ratio >= kRatioGoal, "%s: reference / ours %.1fx, at least %.0fx", label, ratio, kRatioGoal);
  }
  return goals.finish();
}

// The blur score on a 3840x2160 frame, single-threaded: the plain OpenCV
// sequence (BGR to grey, Laplacian to 64-bit float, masked mean and standard
// deviation) against estimateBlur's fused pass. Both must give the same
// integer; the goal is a ratio of at least 10.
#include <cstdio>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "bench_support.h"
#include "orbivane/blur_detection/estimate_blur.h"
#include "orbivane/image/image_conversion.h"
#include "support/reference_pipelines.h"
#include "support/sample_data.h"

namespace {

// A 3840x2160 frame made of a real photograph, scaled up.
const cv::Mat& frame() {
  static const cv::Mat f = [] {
    cv::Mat m;
    cv::resize(Testing::loadSample("building.jpg"), m, cv::Size(3840, 2160), 0, 0, cv::INTER_CUBIC);
    return m;
  }();
  return f;
}

void ReferenceSequence(benchmark::State& state) {
  const cv::Mat& bgr = frame();
  for (auto _ : state) benchmark::DoNotOptimize(Testing::referenceBlur(bgr, static_cast<int>(state.range(0))));
}

void FusedEstimateBlur(benchmark::State& state) {
  const auto image = Image::fromMat(frame());
  for (auto _ : state) benchmark::DoNotOptimize(BlurDetection::estimateBlur(image, static_cast<int>(state.range(0))));
}

BENCHMARK(ReferenceSequence)->Arg(0)->Arg(90)->Unit(benchmark::kMillisecond)->Repetitions(9)->ReportAggregatesOnly(true);
BENCHMARK(FusedEstimateBlur)->Arg(0)->Arg(90)->Unit(benchmark::kMillisecond)->Repetitions(9)->ReportAggregatesOnly(true);

}  // namespace

int main(int argc, char** argv) {
  cv::setNumThreads(1);  // single-threaded, both sides
  for (int rotation : {0, 90}) {
    const int reference = Testing::referenceBlur(frame(), rotation);
    const int ours = BlurDetection::estimateBlur(Image::fromMat(frame()), rotation);
    std::printf("rotation %d: reference score %d, ours %d%s\n", rotation, reference, ours,
                reference == ours ? "" : "  MISMATCH");
    if (reference != ours) return 1;
  }
  Bench::runAndCompare(argc, argv,
                       {{"blur 3840x2160, rotation 0", "ReferenceSequence/0", "FusedEstimateBlur/0"},
                        {"blur 3840x2160, rotation 90", "ReferenceSequence/90", "FusedEstimateBlur/90"}});
  return 0;
}

// The blur score on a 3840x2160 frame: the plain OpenCV sequence (BGR to
// grey, Laplacian to 64-bit float, masked mean and standard deviation)
// against estimateBlur's fused pass, single-threaded; and estimateBlur on
// all cores against one read of the picture.
//
// Goals (--check exits with 1 when one is missed): both give the same
// integer at rotations 0 and 90; the fused pass at least 10x the sequence
// (ratio of the medians, per rotation, one thread each); and estimateBlur as
// a caller gets it, on all cores, within 4 times one plain read of the
// picture (cv::sum of its bytes), which is what a pass over 25 MB costs at
// the least. --smoke runs the fewest iterations
// and judges the scores only.
#include <cstdio>
#include <string>

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

// Reading the picture once (the sum of its bytes, one thread): the least any
// pass over it can take.
void ReadOnce(benchmark::State& state) {
  const cv::Mat bytes = frame().reshape(1);
  for (auto _ : state) benchmark::DoNotOptimize(cv::sum(bytes));
}

// estimateBlur as a caller gets it: on all of the machine's cores.
void EstimateBlurAllCores(benchmark::State& state) {
  const auto image = Image::fromMat(frame());
  cv::setNumThreads(-1);
  for (auto _ : state) benchmark::DoNotOptimize(BlurDetection::estimateBlur(image, static_cast<int>(state.range(0))));
  cv::setNumThreads(1);
}

BENCHMARK(ReadOnce)->Unit(benchmark::kMillisecond)->Repetitions(9)->ReportAggregatesOnly(true);
BENCHMARK(EstimateBlurAllCores)->Arg(0)->Arg(90)->Unit(benchmark::kMillisecond)->Repetitions(9)->ReportAggregatesOnly(true);
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
  constexpr double kMostReads = 4.0;
  const auto ratios = Bench::runAndCompare(
      options, {{"blur 3840x2160, rotation 0", "ReferenceSequence/0", "FusedEstimateBlur/0"},
                {"blur 3840x2160, rotation 90", "ReferenceSequence/90", "FusedEstimateBlur/90"},
                {"blur 3840x2160 on all cores against one read, rotation 0", "ReadOnce", "EstimateBlurAllCores/0"},
                {"blur 3840x2160 on all cores against one read, rotation 90", "ReadOnce", "EstimateBlurAllCores/90"}});
  const auto ratioOf = [&ratios](const char* label) {
    const auto found = ratios.find(label);
    return found == ratios.end() ? 0.0 : found->second;
  };
  for (const char* label : {"blur 3840x2160, rotation 0", "blur 3840x2160, rotation 90"}) {
    goals.speed(ratioOf(label) >= kRatioGoal, "%s: reference / ours %.1fx, at least %.0fx (one thread each)", label,
                ratioOf(label), kRatioGoal);
  }
  for (const int rotation : {0, 90}) {
    const std::string label = "blur 3840x2160 on all cores against one read, rotation " + std::to_string(rotation);
    const double reads = ratioOf(label.c_str()) > 0.0 ? 1.0 / ratioOf(label.c_str()) : 0.0;
    goals.speed(reads > 0.0 && reads <= kMostReads,
                "rotation %d on all cores: the score takes %.2f times one read of the picture, at most %.0f", rotation,
                reads, kMostReads);
  }
  return goals.finish();
}

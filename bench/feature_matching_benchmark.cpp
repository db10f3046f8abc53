// Target matching's cross-checked Hamming matching of binary features, as
// its search anywhere runs it (up to 10,000 ORB features a picture; BRISK
// when ORB forms nothing): OpenCV's brute-force matcher with cross-check
// against ours (hamming_matcher.h), on features of neighbouring real
// photographs of the hand-held camera (upper ring, lower ring looking at
// the ground) and of an opencv-doc pair seen from two sides, one thread each.
//
// Goals (--check exits with 1 when one is missed): the same pairs with the
// same distances in the same order on every picture pair; ours at least 5x
// OpenCV's matcher (ratio of the medians, per picture pair, one thread).
// --smoke runs the fewest iterations and judges the pairs only.
#include <cstdio>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <opencv2/features2d.hpp>
#include <opencv2/imgproc.hpp>

#include "bench_support.h"
#include "geometry_calibration/matrix_based/hamming_matcher.h"
#include "synthetic/sample_data.h"

namespace {

struct Descriptors {
  std::string label;
  cv::Mat query, train;
};

cv::Mat describe(const cv::Ptr<cv::Feature2D>& detector, const cv::Mat& picture) {
  cv::Mat grey, descriptors;
  cv::cvtColor(picture, grey, cv::COLOR_BGR2GRAY);
  std::vector<cv::KeyPoint> keys;
  detector->detectAndCompute(grey, cv::noArray(), keys, descriptors);
  return descriptors;
}

// The picture pairs, described once.
const std::vector<Descriptors>& inputs() {
  static const std::vector<Descriptors> all = [] {
    const cv::Ptr<cv::ORB> orb = cv::ORB::create(10000, 1.2f, 8, 15, 0, 2, cv::ORB::FAST_SCORE, 31, 20);
    const cv::Ptr<cv::BRISK> brisk = cv::BRISK::create(30, 4, 0.4f);
    auto photo = [](const char* name) { return Synthetic::loadRealPhoto(name); };
    std::vector<Descriptors> d;
    d.push_back({"ORB P1060378/P1060379", describe(orb, photo("P1060378.jpg")), describe(orb, photo("P1060379.jpg"))});
    d.push_back({"ORB P1060388/P1060389 (ground)", describe(orb, photo("P1060388.jpg")),
                 describe(orb, photo("P1060389.jpg"))});
    d.push_back({"ORB graf1/graf3", describe(orb, Synthetic::loadSample("graf1.png")),
                 describe(orb, Synthetic::loadSample("graf3.png"))});
    d.push_back({"BRISK P1060384/P1060385", describe(brisk, photo("P1060384.jpg")),
                 describe(brisk, photo("P1060385.jpg"))});
    return d;
  }();
  return all;
}

void OpenCvMatcher(benchmark::State& state) {
  const Descriptors& d = inputs()[std::size_t(state.range(0))];
  std::vector<cv::DMatch> matches;
  for (auto _ : state) {
    cv::BFMatcher(cv::NORM_HAMMING, true).match(d.query, d.train, matches);
    benchmark::DoNotOptimize(matches.data());
  }
}

void OurMatcher(benchmark::State& state) {
  const Descriptors& d = inputs()[std::size_t(state.range(0))];
  std::vector<cv::DMatch> matches;
  for (auto _ : state) {
    GeometryCalibration::MatrixBased::crossCheckedHamming(d.query, d.train, matches);
    benchmark::DoNotOptimize(matches.data());
  }
}

BENCHMARK(OpenCvMatcher)->DenseRange(0, 3)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(OurMatcher)->DenseRange(0, 3)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);

bool sameMatches(const Descriptors& d) {
  std::vector<cv::DMatch> ours, theirs;
  GeometryCalibration::MatrixBased::crossCheckedHamming(d.query, d.train, ours);
  cv::BFMatcher(cv::NORM_HAMMING, true).match(d.query, d.train, theirs);
  if (ours.size() != theirs.size()) return false;
  for (std::size_t k = 0; k < ours.size(); ++k)
    if (ours[k].queryIdx != theirs[k].queryIdx || ours[k].trainIdx != theirs[k].trainIdx ||
        ours[k].distance != theirs[k].distance)
      return false;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const Bench::Options options = Bench::parseOptions(argc, argv);
  cv::setNumThreads(1);  // one thread, both sides
  Bench::Goals goals(options);
  std::vector<Bench::Pair> pairs;
  for (std::size_t i = 0; i < inputs().size(); ++i) {
    const Descriptors& d = inputs()[i];
    goals.correctness(sameMatches(d), "%s: %d x %d features, the same matches as OpenCV's", d.label.c_str(),
                      d.query.rows, d.train.rows);
    pairs.push_back({d.label, "OpenCvMatcher/" + std::to_string(i), "OurMatcher/" + std::to_string(i)});
  }
  constexpr double kRatioGoal = 5.0;
  const auto ratios = Bench::runAndCompare(options, pairs);
  for (const auto& pair : pairs) {
    const auto found = ratios.find(pair.label);
    const double ratio = found == ratios.end() ? 0.0 : found->second;
    goals.speed(ratio >= kRatioGoal, "%s: OpenCV / ours %.1fx, at least %.0fx (one thread each)", pair.label.c_str(),
                ratio, kRatioGoal);
  }
  return goals.finish();
}

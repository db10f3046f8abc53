// Neighbour stitching's translation alignment against cv::findTransformECC
// (MOTION_TRANSLATION, on the overlap) and cv::phaseCorrelate (on the
// overlap), on the same pairs: 320x240 pictures cut from six real photographs
// at known offsets (exact 8:1 area reduction of a finer scene, so the offsets
// are multiples of 1/8 pixel), about a quarter overlapping, independent noise
// (sigma 2 grey levels) and a brightness change (gain 0.9, offset +10)
// between neighbours, starts up to 3 pixels off. Prints each method's median
// and worst error and median time; then stitches a chain of six modules with
// a known offset at every seam and checks that every module lands within
// 0.1 pixel of its true place relative to the reference.
//
// Goals (--check exits with 1 when one is missed): median error <= 0.03 px,
// worst <= 0.1 px, a median error no larger than ECC's, every module of the
// chain within 0.1 px; faster than ECC (ratio of the medians of the timed
// runs over all pairs, at least 1x). --smoke runs the fewest iterations and
// judges the accuracy only.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>

#include "bench_support.h"
#include "geometry_calibration/matrix_based/translation_aligner.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry_calibration/matrix_based/neighbour_neighbour.h"
#include "orbivane/image/image_conversion.h"
#include "synthetic/fine_scene.h"
#include "synthetic/sample_data.h"

namespace {

using GeometryCalibration::MatrixBased::TranslationAligner;

constexpr int kFine = Synthetic::kFineScale;
const cv::Size kPicture(320, 240);
constexpr int kLevels = 4, kIterations = 6;
constexpr float kStep = 1.0f;

struct Pair {
  cv::Mat first, second;  // grey
  cv::Point2d truth, start;
};

cv::Mat noisy(const cv::Mat& picture, double gain, double offset, cv::RNG& rng) {
  return Synthetic::withGainAndNoise(picture, gain, offset, 2.0, rng);
}

cv::Mat reduce(const cv::Mat& scene, cv::Point at, cv::Size size) { return Synthetic::cutFine(scene, at, size); }

const std::vector<Pair>& pairs() {
  static const std::vector<Pair> all = [] {
    std::vector<Pair> out;
    cv::RNG rng(42);
    for (const char* name : {"baboon.jpg", "fruits.jpg", "building.jpg", "home.jpg", "graf1.png", "aero1.jpg"}) {
      cv::Mat grey;
      cv::cvtColor(Synthetic::loadSample(name), grey, cv::COLOR_BGR2GRAY);
      const double up = std::max(kFine * kPicture.width * 1.8 / grey.cols, kFine * (kPicture.height + 20.0) / grey.rows);
      cv::Mat scene;
      cv::resize(grey, scene, cv::Size(), up, up, cv::INTER_CUBIC);
      for (int k = 0; k < 8; ++k) {
        const int shiftX = rng.uniform(int(kPicture.width * 0.7) * kFine, int(kPicture.width * 0.8) * kFine);
        const int shiftY = rng.uniform(-3 * kFine, 3 * kFine);
        Pair p;
        p.first = noisy(reduce(scene, cv::Point(0, 4 * kFine), kPicture), 1.0, 0.0, rng);
        p.second = noisy(reduce(scene, cv::Point(shiftX, 4 * kFine + shiftY), kPicture), 0.9, 10.0, rng);
        p.truth = cv::Point2d(double(shiftX) / kFine, double(shiftY) / kFine);
        p.start = p.truth + cv::Point2d(rng.uniform(-3.0, 3.0), rng.uniform(-3.0, 3.0));
        out.push_back(p);
      }
    }
    return out;
  }();
  return all;
}

// The overlap of the first picture at the (rounded) start, 4 pixels in from its edges.
cv::Rect overlap(const Pair& p) {
  const int x = cvRound(p.start.x), y = std::max(cvRound(p.start.y), 0);
  return cv::Rect(x + 4, y + 4, kPicture.width - x - 8, kPicture.height - std::abs(cvRound(p.start.y)) - 8);
}

cv::Point2d ours(const Pair& p, TranslationAligner& aligner) {
  return aligner.align(p.first, p.second, p.start, 1.0, 1.0).translation;
}

cv::Point2d ecc(const Pair& p) {
  const cv::Rect r = overlap(p);
  cv::Mat warp = (cv::Mat_<float>(2, 3) << 1, 0, float(r.x - p.start.x), 0, 1, float(r.y - p.start.y));
  try {
    cv::findTransformECC(p.first(r), p.second, warp, cv::MOTION_TRANSLATION,
                         cv::TermCriteria(cv::TermCriteria::COUNT + cv::TermCriteria::EPS, 50, 1e-3), cv::noArray(), 5);
  } catch (const cv::Exception&) {
    return p.start;
  }
  return cv::Point2d(r.x - warp.at<float>(0, 2), r.y - warp.at<float>(1, 2));
}

cv::Point2d phase(const Pair& p) {
  const cv::Rect r = overlap(p);
  const cv::Point s(cvRound(p.start.x), cvRound(p.start.y));
  cv::Mat a, b;
  p.first(r).convertTo(a, CV_32F);
  p.second(r - s).convertTo(b, CV_32F);
  cv::Mat window;
  cv::createHanningWindow(window, r.size(), CV_32F);
  return cv::Point2d(s) + cv::Point2d(cv::phaseCorrelate(b, a, window));
}

struct Summary {
  double median = 0, worst = 0, milliseconds = 0;
};

template <typename Method>
Summary evaluate(Method method) {
  std::vector<double> errors, times;
  for (const Pair& p : pairs()) {
    const auto t0 = std::chrono::steady_clock::now();
    const cv::Point2d found = method(p);
    times.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
    errors.push_back(cv::norm(found - p.truth));
  }
  std::sort(errors.begin(), errors.end());
  std::sort(times.begin(), times.end());
  return {errors[errors.size() / 2], errors.back(), times[times.size() / 2]};
}

// Six modules side by side, each seam at a known offset; the matrices carry
// a placement up to 3 pixels off at every seam. Returns the largest distance
// (pixels) of a module from its true place relative to the reference.
double chainOfSix() {
  const cv::Mat sample = Synthetic::loadSample("fruits.jpg");
  const cv::Size area(5 * 190 + kPicture.width + 8, kPicture.height + 24);
  cv::Mat scene;
  cv::resize(sample(cv::Rect(0, 0, sample.cols, sample.cols * area.height / area.width + 1)), scene,
             cv::Size(area.width * kFine, area.height * kFine), 0, 0, cv::INTER_CUBIC);
  cv::RNG rng(6);
  CameraDescription::Orbivane camera;
  std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images;
  std::list<std::wstring> names;
  std::vector<cv::Point2d> truth;
  const double unitX = 0.2 / kPicture.width, unitY = 0.8 / kPicture.height;
  cv::Point at(0, 12 * kFine);
  cv::Point2d error(0, 0);
  for (int i = 0; i < 6; ++i) {
    if (i > 0) {
      at.x += 180 * kFine + rng.uniform(-5 * kFine, 5 * kFine);
      at.y = 12 * kFine + rng.uniform(-4 * kFine, 4 * kFine);
      error += cv::Point2d(rng.uniform(-3.0, 3.0), rng.uniform(-3.0, 3.0));
    }
    truth.emplace_back(double(at.x) / kFine, double(at.y) / kFine);
    const std::wstring name = L"M" + std::to_wstring(i);
    const auto picture = Image::fromMat(noisy(reduce(scene, at, kPicture), i % 2 ? 0.9 : 1.0, i % 2 ? 10.0 : 0.0, rng));
    Utils::Matrix4x4 m;
    m.set(0, 0, 0.2f);
    m.set(1, 1, 0.8f);
    m.set(0, 3, static_cast<float>((truth.back().x + error.x) * unitX));
    m.set(1, 3, static_cast<float>((truth.back().y + error.y) * unitY));
    CameraDescription::OrbivaneModule module(name);
    module.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(m));
    camera.addModule(module);
    images[name] = picture;
    names.push_back(name);
  }
  GeometryCalibration::MatrixBased::NeighbourNeighbour calibrator(camera, images, kLevels, kIterations, kStep);
  const auto result = calibrator.calibrate(names, L"M2");
  auto origin = [&](int i) {
    const auto m = result.findModule(L"M" + std::to_wstring(i))->matrixGeometry()->matrix();
    return cv::Point2d(m.get(0, 3) / unitX, m.get(1, 3) / unitY);
  };
  double worst = 0;
  for (int i = 0; i < 6; ++i) {
    const double e = cv::norm((origin(i) - origin(2)) - (truth[std::size_t(i)] - truth[2]));
    std::printf("  chain module M%d: %.4f px from its true place\n", i, e);
    worst = std::max(worst, e);
  }
  return worst;
}

void EccTranslation(benchmark::State& state) {
  for (auto _ : state) {
    for (const Pair& p : pairs()) benchmark::DoNotOptimize(ecc(p));
  }
}

void PhaseCorrelation(benchmark::State& state) {
  for (auto _ : state) {
    for (const Pair& p : pairs()) benchmark::DoNotOptimize(phase(p));
  }
}

void OursTranslation(benchmark::State& state) {
  TranslationAligner aligner(kLevels, kIterations, kStep);
  for (auto _ : state) {
    for (const Pair& p : pairs()) benchmark::DoNotOptimize(ours(p, aligner));
  }
}

BENCHMARK(EccTranslation)->Unit(benchmark::kMillisecond)->Repetitions(7)->ReportAggregatesOnly(true);
BENCHMARK(PhaseCorrelation)->Unit(benchmark::kMillisecond)->Repetitions(7)->ReportAggregatesOnly(true);
BENCHMARK(OursTranslation)->Unit(benchmark::kMillisecond)->Repetitions(7)->ReportAggregatesOnly(true);

}  // namespace

int main(int argc, char** argv) {
  const Bench::Options options = Bench::parseOptions(argc, argv);
  cv::setNumThreads(1);  // single-threaded, every method
  // The aligner announces each start on standard error; keep the tables readable.
  if (std::freopen("/dev/null", "w", stderr) == nullptr) return 1;
  TranslationAligner aligner(kLevels, kIterations, kStep);
  const Summary o = evaluate([&](const Pair& p) { return ours(p, aligner); });
  const Summary e = evaluate(ecc);
  const Summary f = evaluate(phase);
  std::printf("%zu pairs %dx%d (levels %d, iterations %d, step %.1f)\n", pairs().size(), kPicture.width,
              kPicture.height, kLevels, kIterations, double(kStep));
  std::printf("  ours:           median error %.4f px, worst %.4f px, median time %.3f ms\n", o.median, o.worst,
              o.milliseconds);
  std::printf("  ECC:            median error %.4f px, worst %.4f px, median time %.3f ms\n", e.median, e.worst,
              e.milliseconds);
  std::printf("  phaseCorrelate: median error %.4f px, worst %.4f px, median time %.3f ms\n", f.median, f.worst,
              f.milliseconds);
  const double chain = chainOfSix();
  std::printf("chain of six: worst %.4f px from the true place relative to the reference\n", chain);
  Bench::Goals goals(options);
  goals.correctness(o.median <= 0.03, "median error %.4f px, at most 0.03 px", o.median);
  goals.correctness(o.worst <= 0.1, "worst error %.4f px, at most 0.1 px", o.worst);
  goals.correctness(o.median <= e.median, "median error %.4f px, at most ECC's %.4f px", o.median, e.median);
  goals.correctness(chain <= 0.1, "chain of six worst %.4f px, at most 0.1 px", chain);
  const char* againstEcc = "translation alignment, ECC vs ours";
  const auto ratios =
      Bench::runAndCompare(options, {{againstEcc, "EccTranslation", "OursTranslation"},
                                     {"translation alignment, phaseCorrelate vs ours", "PhaseCorrelation",
                                      "OursTranslation"}});
  const auto found = ratios.find(againstEcc);
  const double ratio = found == ratios.end() ? 0.0 : found->second;
  goals.speed(ratio >= 1.0, "%s: ECC / ours %.1fx, at least 1x", againstEcc, ratio);
  return goals.finish();
}

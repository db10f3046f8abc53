// The shader parameter search against the plain pipeline: the whole fixed
// grid (304,200 evaluations) of a 1280x720 module picture against a
// 1920x1080 reference (480x270 renderings), timed wall-clock, with where the
// time goes; exactness against ImageShading::Apply and OpenCV's own edge
// steps on a sample of grid points; per-evaluation medians of the plain
// pipeline and of ours on a slice of the grid.
//
// The plain pipeline, single-threaded, is the straightforward way without
// waste: the module picture as a matrix once, then per evaluation the remap
// maps of the lens model at the rendering's size, a three-channel cv::remap
// of the module picture, then cv::resize, cvtColor, equalizeHist,
// Laplacian, convertScaleAbs, mean, absdiff and mean.
//
// Goals (--check exits with 1 when one is missed): the full grid on every
// core at least 40x the plain pipeline per evaluation (plain median /
// (full-grid wall / 304,200), both measured in this process; with a plain
// pipeline of 1.25 ms, 9.5 s for the grid on this machine's 2 cores), the
// reference's own grid point found first, every sampled grid point scored
// bit for bit as Apply followed by OpenCV's sequence scores it, and the same
// results on one thread as on every core. Wall times depend on what else runs on the machine: the load
// average and the processor time are printed beside them.
//
// Options: --check; --smoke (the fewest iterations, no full grid, and the
// exactness goals only); --no-full-grid (the slice and exactness only);
// Google Benchmark's own options.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "bench_support.h"
#include "geometry_calibration/matrix_based/shader_brute_forcer_search.h"
#include "orbivane/geometry/clip_matrix.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry_calibration/matrix_based/shader_brute_forcer.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/shading/image_shading.h"
#include "shading/distortion_model.h"
#include "synthetic/sample_data.h"
#include "synthetic/lens_shader.h"

namespace {

using GeometryCalibration::MatrixBased::ShaderBruteForcer;
using GeometryCalibration::MatrixBased::ShaderSearch;

const cv::Size kReference(1920, 1080);
const cv::Size kModule(1280, 720);
const cv::Size kRendered(480, 270);
constexpr double kRatioGoal = 40.0;  // plain / ours per evaluation

// The grid point the reference is rendered with (values as the walk makes them).
std::map<std::string, float> truth() {
  std::map<std::string, float> t;
  for (const auto& entry : ShaderBruteForcer::defaultParameterList()) {
    const auto values = ShaderBruteForcer::parameterValues(entry.first, entry.second);
    t[entry.first] = values[values.size() / 3];
  }
  return t;
}

struct Scene {
  std::shared_ptr<Image::UniversalImageInterface> picture, reference;
  CameraDescription::Orbivane camera;
  std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images;
  cv::Mat referenceEdges;
};

// The reference sees the photograph at 1920x1080 through the true lens; the
// module's picture is the same photograph at 1280x720.
const Scene& scene() {
  static const Scene s = [] {
    Scene out;
    const cv::Mat photo = Synthetic::loadSample("fruits.jpg");
    cv::Mat large, small;
    cv::resize(photo, large, kReference, 0, 0, cv::INTER_CUBIC);
    cv::resize(photo, small, kModule, 0, 0, cv::INTER_CUBIC);
    out.picture = Image::fromMat(small);
    ImageSource::ImageShading shading;
    shading.SetShader({Synthetic::lensShader(truth())});
    out.reference = shading.Apply(Image::fromMat(large), Utils::Size{kReference.width, kReference.height});
    CameraDescription::OrbivaneModule module(L"M");
    auto geometry = std::make_unique<OrbivaneGeometry::MatrixGeometry>(Utils::Matrix4x4());
    geometry->setShaderId(ImageSource::kLensDistortionShaderUid);
    module.setGeometry(std::move(geometry));
    module.setShaders({OrbivaneGeometry::clipMatrixShader(Utils::Matrix4x4()), Synthetic::lensShader({})});
    out.camera.addModule(module);
    out.images[L"M"] = out.picture;
    out.images[L"reference"] = out.reference;
    cv::Mat resized, grey, equalised, laplacian;
    cv::resize(Image::toMat(out.reference), resized, kRendered, 0, 0, cv::INTER_LINEAR);
    cv::cvtColor(resized, grey, cv::COLOR_BGR2GRAY);
    cv::equalizeHist(grey, equalised);
    cv::Laplacian(equalised, laplacian, CV_16S, 3, 1.0, 0.0, cv::BORDER_REFLECT_101);
    cv::convertScaleAbs(laplacian, out.referenceEdges);
    return out;
  }();
  return s;
}

// One evaluation the plain way: the module picture as a matrix once, then
// per parameter set the distortion maps, a three-channel remap at the
// rendering size, resize, grey, equalisation, Laplacian, absolute value and
// the mean difference to the reference's edges; nothing else.
float plainEvaluation(const ImageSource::LensDistortion& lens) {
  const Scene& s = scene();
  static const cv::Mat photo = Image::toMat(*s.picture);
  cv::Mat mapX(kRendered, CV_32FC1), mapY(kRendered, CV_32FC1);
  for (int y = 0; y < kRendered.height; ++y) {
    float* mx = mapX.ptr<float>(y);
    float* my = mapY.ptr<float>(y);
    for (int x = 0; x < kRendered.width; ++x) {
      const cv::Point2f t = lens.map(float(x) / kRendered.width, float(y) / kRendered.height);
      mx[x] = t.x * float(photo.cols);
      my[x] = t.y * float(photo.rows);
    }
  }
  cv::Mat rendered, resized, grey, equalised, laplacian, edges, difference;
  cv::remap(photo, rendered, mapX, mapY, cv::INTER_LINEAR, cv::BORDER_CONSTANT);
  cv::resize(rendered, resized, s.referenceEdges.size(), 0, 0, cv::INTER_LINEAR);
  cv::cvtColor(resized, grey, cv::COLOR_BGR2GRAY);
  cv::equalizeHist(grey, equalised);
  cv::Laplacian(equalised, laplacian, CV_16S, 3, 1.0, 0.0, cv::BORDER_REFLECT_101);
  cv::convertScaleAbs(laplacian, edges);
  if (cv::mean(edges)[0] < 1.0) return -1.0f;
  cv::absdiff(edges, s.referenceEdges, difference);
  return static_cast<float>(cv::mean(difference)[0]);
}

// A slice of the grid: one F, one H, 10 V values and all shifts (1,690 points).
ShaderBruteForcer::ParameterList slice() {
  auto list = ShaderBruteForcer::defaultParameterList();
  auto it = list.begin();
  it->second.min += 6.0f * it->second.step;  // F = 0.35: a middling distortion
  it->second.max = it->second.min + 0.5f * it->second.step;
  ++it;
  it->second.max = it->second.min + 0.5f * it->second.step;
  ++it;
  it->second.max = it->second.min + 9.5f * it->second.step;
  return list;
}
const double kSliceEvaluations = 1690.0;
// The plain pipeline runs a tenth as many evaluations per iteration.
const int kPlainEvaluations = 169;

void PlainEvaluations(benchmark::State& state) {
  const auto values = ShaderBruteForcer::parameterValues("f_ps_distortion_ext_yshift", {-0.3f, 0.3f, 0.05f, 1});
  for (auto _ : state) {
    for (int i = 0; i < kPlainEvaluations; ++i) {
      ImageSource::LensDistortion lens;
      lens.strength = 0.35f;
      lens.horizontal = 0.05f;
      lens.vertical = 0.05f + 0.05f * float(i % 10);
      lens.shiftY = values[std::size_t(i) % values.size()];
      benchmark::DoNotOptimize(plainEvaluation(lens));
    }
  }
}

void searchSlice(benchmark::State& state, int threads) {
  const Scene& s = scene();
  for (auto _ : state) {
    ShaderBruteForcer forcer(s.camera, s.images, slice());
    forcer.setThreadCount(threads);
    std::streambuf* console = std::cout.rdbuf();
    std::ostringstream walkOutput;
    std::cout.rdbuf(walkOutput.rdbuf());
    benchmark::DoNotOptimize(forcer.searchForBestParameters(L"M", L"reference"));
    std::cout.rdbuf(console);
  }
}
void OursAllCores(benchmark::State& state) { searchSlice(state, 0); }
void OursOneThread(benchmark::State& state) { searchSlice(state, 1); }

BENCHMARK(PlainEvaluations)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true)->Iterations(1);
BENCHMARK(OursAllCores)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true)->Iterations(1);
BENCHMARK(OursOneThread)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true)->Iterations(1);

// Shader files for the search: ours, in a folder that ProgramData points at.
void installShaders(const Synthetic::TemporaryDirectory& folder) {
  const auto source = std::filesystem::path(__FILE__).parent_path().parent_path() / "shaders";
  const auto target = std::filesystem::path(folder.path()) / "Hollbrink" / "Shaders";
  std::filesystem::create_directories(target);
  for (const auto& entry : std::filesystem::directory_iterator(source)) {
    if (entry.path().extension() == ".shader") std::filesystem::copy_file(entry.path(), target / entry.path().filename());
  }
  ::setenv("ProgramData", folder.path().c_str(), 1);
}

double loadAverage() {
  double load[1] = {0.0};
  return getloadavg(load, 1) == 1 ? load[0] : -1.0;
}

// The search's error of one grid point against Apply's rendering scored by
// OpenCV's own sequence (Part of the search's preparation: the reference's
// edge image; of each evaluation: resize, grey, equalise, Laplacian,
// absolute value, mean, difference, mean). True when both agree bit for bit.
bool exactAt(const std::map<std::string, float>& point, float& ours, float& opencv) {
  const Scene& s = scene();
  ShaderBruteForcer::ParameterList single;
  for (const auto& entry : ShaderBruteForcer::defaultParameterList()) {
    const float value = point.at(entry.first);
    single.push_back({entry.first, {value, value + 0.5f * entry.second.step, entry.second.step, entry.second.kind}});
  }
  ShaderBruteForcer forcer(s.camera, s.images, single);
  std::streambuf* console = std::cout.rdbuf();
  std::ostringstream walkOutput;
  std::cout.rdbuf(walkOutput.rdbuf());
  forcer.searchForBestParameters(L"M", L"reference");
  std::cout.rdbuf(console);

  const CameraDescription::Orbivane camera = ShaderBruteForcer::cameraWithParameters(s.camera, L"M", point);
  ImageSource::ImageShading shading;
  shading.SetShader(camera.findModule(L"M")->shaders());
  const Utils::Size surface{kReference.width >> 2, kReference.height >> 2};
  const cv::Mat rendering = Image::toMat(shading.Apply(s.picture, surface));
  cv::Mat resized, grey, equalised, laplacian, edges, difference;
  cv::resize(rendering, resized, s.referenceEdges.size(), 0, 0, cv::INTER_LINEAR);
  cv::cvtColor(resized, grey, cv::COLOR_BGR2GRAY);
  cv::equalizeHist(grey, equalised);
  cv::Laplacian(equalised, laplacian, CV_16S, 3, 1.0, 0.0, cv::BORDER_REFLECT_101);
  cv::convertScaleAbs(laplacian, edges);
  cv::absdiff(edges, s.referenceEdges, difference);
  const bool edged = cv::mean(edges)[0] >= 1.0;
  opencv = edged ? static_cast<float>(cv::mean(difference)[0]) : -1.0f;
  ours = forcer.results().empty() ? -1.0f : forcer.results().front().error;
  return ours == opencv;
}

// Exactness on a sample of grid points: random ones and the grid's corners
// (the strongest and weakest distortions, shifted to every side, which
// bring every edge of the picture into the rendering).
void checkExactness(Bench::Goals& goals) {
  std::vector<std::map<std::string, float>> points;
  std::vector<std::vector<float>> values;
  std::vector<std::string> names;
  for (const auto& entry : ShaderBruteForcer::defaultParameterList()) {
    names.push_back(entry.first);
    values.push_back(ShaderBruteForcer::parameterValues(entry.first, entry.second));
  }
  std::mt19937 random(18);
  for (int n = 0; n < 24; ++n) {
    std::map<std::string, float> p;
    for (std::size_t i = 0; i < names.size(); ++i) p[names[i]] = values[i][random() % values[i].size()];
    points.push_back(p);
  }
  for (int corner = 0; corner < 32; corner += 3) {
    std::map<std::string, float> p;
    for (std::size_t i = 0; i < names.size(); ++i) p[names[i]] = (corner >> i) & 1 ? values[i].back() : values[i].front();
    points.push_back(p);
  }
  int exact = 0;
  for (const auto& p : points) {
    float ours = 0, opencv = 0;
    if (exactAt(p, ours, opencv)) {
      ++exact;
    } else {
      std::printf("  NOT EXACT: ours %.9g, Apply + OpenCV %.9g\n", double(ours), double(opencv));
    }
  }
  goals.correctness(exact == int(points.size()),
                    "exactness: %d of %zu grid points score bit for bit as Apply + OpenCV's sequence", exact,
                    points.size());
}

// The plain pipeline's time per evaluation (seconds), measured beside ours
// on a slice of the grid; prints the slice's ratios.
double plainSecondsPerEvaluation(const Bench::Options& options) {
  const auto ratios = Bench::runAndCompare(
      options,
      {{"slice: plain 169 evaluations vs ours 1690 on all cores", "PlainEvaluations", "OursAllCores"},
       {"slice: plain 169 evaluations vs ours 1690 on one thread", "PlainEvaluations", "OursOneThread"}});
  for (const auto& ratio : ratios) {
    std::printf("slice, per evaluation (%s): plain / ours = %.1fx\n", ratio.first.c_str(),
                ratio.second * kSliceEvaluations / kPlainEvaluations);
  }
  // Median of five single-threaded runs of the plain pipeline, for the full grid's ratio.
  std::vector<double> times;
  for (int run = 0; run < 5; ++run) {
    const auto t0 = std::chrono::steady_clock::now();
    ImageSource::LensDistortion lens;
    for (int i = 0; i < 20; ++i) {
      lens.strength = 0.05f * float(i % 15);
      lens.vertical = 0.05f + 0.05f * float(i % 10);
      benchmark::DoNotOptimize(plainEvaluation(lens));
    }
    times.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count() / 20.0);
  }
  std::sort(times.begin(), times.end());
  std::printf("plain pipeline: %.3f ms per evaluation (median of 5 runs of 20)\n", times[2] * 1e3);
  return times[2];
}

// Where the processor time goes, on one outermost value of the grid
// (F = 0.35: 20,280 points) on one thread; the same on every core gives
// the same results.
void profileOneValue(Bench::Goals& goals) {
  const Scene& s = scene();
  auto outer = ShaderBruteForcer::defaultParameterList();
  outer.front().second.min += 6.0f * outer.front().second.step;
  outer.front().second.max = outer.front().second.min + 0.5f * outer.front().second.step;
  std::streambuf* console = std::cout.rdbuf();
  std::ostringstream walkOutput;
  std::cout.rdbuf(walkOutput.rdbuf());
  ShaderSearch single(s.camera, s.images, outer);
  single.setThreadCount(1);
  single.setProfiling(true);
  single.search(L"M", L"reference");
  ShaderSearch every(s.camera, s.images, outer);
  every.search(L"M", L"reference");
  std::cout.rdbuf(console);
  bool same = single.results().size() == every.results().size();
  for (auto a = single.results().begin(), b = every.results().begin(); same && a != single.results().end(); ++a, ++b)
    same = a->error == b->error && a->gridIndex == b->gridIndex;
  const ShaderSearch::Profile p = single.profile();
  const double n = double(std::max<std::uint64_t>(1, p.evaluations));
  const double total = double(p.preparation + p.sampling + p.histogram + p.edges);
  std::printf("one outermost value (%llu points), one thread, processor time per evaluation: %.1f us\n",
              static_cast<unsigned long long>(p.evaluations), total / 1e3 / n);
  auto line = [&](const char* what, std::uint64_t ns) {
    std::printf("  %-44s %6.1f us (%4.1f %%)\n", what, double(ns) / 1e3 / n, total > 0 ? 100.0 * double(ns) / total : 0.0);
  };
  line("sampling (grey rendering)", p.sampling);
  line("histogram", p.histogram);
  line("equalisation, Laplacian and difference", p.edges);
  line("families' radial terms and per-axis parts", p.preparation);
  std::printf("  scores stopped early: %.1f %%, after %.0f %% of the rows on average; results on one thread and "
              "on every core %s\n",
              100.0 * double(p.stopped) / n, 100.0 * double(p.rowsSummed) / n / double(kRendered.height),
              same ? "identical" : "DIFFER");
  goals.correctness(same, "results on one thread and on every core identical: %s", same ? "yes" : "no");
}

// The whole grid through the public interface, judged against the plain
// pipeline's time per evaluation.
void runFullGrid(Bench::Goals& goals, double plainPerEvaluation) {
  const Scene& s = scene();
  // The library prints its walk on standard output; keep it out of the report.
  std::streambuf* console = std::cout.rdbuf();
  std::ostringstream walkOutput;
  std::cout.rdbuf(walkOutput.rdbuf());
  const double loadBefore = loadAverage();
  const auto t0 = std::chrono::steady_clock::now();
  const std::clock_t c0 = std::clock();
  ShaderBruteForcer forcer(s.camera, s.images);
  const auto cameras = forcer.searchForBestParameters(L"M", L"reference");
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  const double processor = double(std::clock() - c0) / CLOCKS_PER_SEC;
  std::cout.rdbuf(console);
  const std::uint64_t points = ShaderBruteForcer::gridSize(ShaderBruteForcer::defaultParameterList());
  const bool found = !forcer.results().empty() && forcer.results().front().parameters == truth();
  const double ratio = plainPerEvaluation / (seconds / double(points));
  std::printf("full grid: %llu points, %llu scored, %zu cameras, %.2f s wall\n",
              static_cast<unsigned long long>(points), static_cast<unsigned long long>(forcer.evaluationCount()),
              cameras.size(), seconds);
  std::printf("full grid: %.2f s of processor time on all threads (%.1f us per evaluation, %.2f s per core of "
              "2); load average %.1f before, %.1f after\n",
              processor, processor * 1e6 / double(points), processor / 2.0, loadBefore, loadAverage());
  goals.speed(ratio >= kRatioGoal, "full grid vs plain: %.3f ms / %.1f us per evaluation = %.1fx, at least %.0fx",
              plainPerEvaluation * 1e3, seconds * 1e6 / double(points), ratio, kRatioGoal);
  goals.correctness(found, "best: error %.4f, the reference's grid point found first: %s",
                    forcer.results().empty() ? -1.0 : double(forcer.results().front().error), found ? "yes" : "no");
  int place = 0;
  for (const auto& result : forcer.results()) {
    std::printf("  %d: error %.6f at grid point %llu\n", place++, double(result.error),
                static_cast<unsigned long long>(result.gridIndex));
  }
}

}  // namespace

int main(int argc, char** argv) {
  const Bench::Options options = Bench::parseOptions(argc, argv, {"--no-full-grid"});
  const bool fullGrid = !options.smoke && !options.has("--no-full-grid");
  Bench::Goals goals(options);
  Synthetic::TemporaryDirectory shaders;
  installShaders(shaders);
  checkExactness(goals);
  const double plainPerEvaluation = plainSecondsPerEvaluation(options);
  profileOneValue(goals);
  if (fullGrid) runFullGrid(goals, plainPerEvaluation);
  return goals.finish();
}

// The shader parameter search against the plain pipeline, per evaluation,
// and the whole fixed grid (304,200 evaluations) against a 1920x1080
// reference (480x270 renderings), timed wall-clock.
//
// The plain pipeline, single-threaded, rebuilds everything per evaluation:
// the full-size remap maps of the same lens model, a three-channel cv::remap
// of the 1920x1080 picture straight to 480x270, then cv::resize, cvtColor,
// equalizeHist, Laplacian, convertScaleAbs, mean, absdiff and mean. Ours is
// ShaderBruteForcer on a 1,690-point slice of the grid (so per-search set-up
// is included), on every core and on one thread.
// Goals: the full grid in at most 30 s; at least 10x faster per evaluation
// than the plain pipeline; the reference's own grid point found first.
#include <chrono>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <string>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "bench_support.h"
#include "orbivane/geometry/clip_matrix.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry_calibration/matrix_based/shader_brute_forcer.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/platform/image_shading.h"
#include "platform/distortion_model.h"
#include "support/sample_data.h"

namespace {

using GeometryCalibration::MatrixBased::ShaderBruteForcer;

const cv::Size kReference(1920, 1080);
const cv::Size kRendered(480, 270);

// The grid point the reference is rendered with (values as the walk makes them).
std::map<std::string, float> truth() {
  std::map<std::string, float> t;
  for (const auto& entry : ShaderBruteForcer::defaultParameterList()) {
    const auto values = ShaderBruteForcer::parameterValues(entry.first, entry.second);
    t[entry.first] = values[values.size() / 3];
  }
  return t;
}

OrbivaneGeometry::Shader lensShader(const std::map<std::string, float>& values) {
  std::map<std::string, std::string> texts{{"i_ps_distortion_ext_pwp", "2"}, {"i_ps_distortion_ext_method", "0"}};
  for (const auto& v : values) {
    char text[64];
    std::snprintf(text, sizeof text, "%f", double(v.second));
    texts[v.first] = text;
  }
  return OrbivaneGeometry::Shader(ImageSource::kLensDistortionShaderUid, texts);
}

struct Scene {
  std::shared_ptr<Image::RGBImage> picture, reference;
  CameraDescription::Orbivane camera;
  std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images;
  cv::Mat referenceEdges;
};

const Scene& scene() {
  static const Scene s = [] {
    Scene out;
    cv::Mat photo;
    cv::resize(Testing::loadSample("fruits.jpg"), photo, kReference, 0, 0, cv::INTER_CUBIC);
    out.picture = Image::fromMat(photo);
    ImageSource::ImageShading shading;
    shading.SetShader({lensShader(truth())});
    out.reference = std::dynamic_pointer_cast<Image::RGBImage>(
        Image::fromMat(Image::toMat(shading.Apply(out.picture, Utils::Size{kReference.width, kReference.height}))));
    CameraDescription::OrbivaneModule module(L"M");
    auto geometry = std::make_unique<OrbivaneGeometry::MatrixGeometry>(Utils::Matrix4x4());
    geometry->setShaderId(ImageSource::kLensDistortionShaderUid);
    module.setGeometry(std::move(geometry));
    module.setShaders({OrbivaneGeometry::clipMatrixShader(Utils::Matrix4x4()), lensShader({})});
    out.camera.addModule(module);
    out.images[L"M"] = out.picture;
    out.images[L"reference"] = out.reference;
    cv::Mat small, grey, equalised, laplacian;
    cv::resize(Image::toMat(out.reference), small, kRendered, 0, 0, cv::INTER_LINEAR);
    cv::cvtColor(small, grey, cv::COLOR_BGR2GRAY);
    cv::equalizeHist(grey, equalised);
    cv::Laplacian(equalised, laplacian, CV_16S, 3, 1.0, 0.0, cv::BORDER_REFLECT_101);
    cv::convertScaleAbs(laplacian, out.referenceEdges);
    return out;
  }();
  return s;
}

// One evaluation the plain way.
float plainEvaluation(const ImageSource::LensDistortion& lens) {
  const Scene& s = scene();
  const cv::Mat photo = Image::toMat(*s.picture);
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
      lens.strength = 0.05f;
      lens.horizontal = 0.05f;
      lens.vertical = 0.05f + 0.05f * float(i % 10);
      lens.shiftY = values[std::size_t(i) % values.size()];
      benchmark::DoNotOptimize(plainEvaluation(lens));
    }
  }
  state.counters["per_evaluation_ms"] =
      benchmark::Counter(kPlainEvaluations * double(state.iterations()) / 1000.0,
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void searchSlice(benchmark::State& state, int threads) {
  const Scene& s = scene();
  for (auto _ : state) {
    ShaderBruteForcer forcer(s.camera, s.images, slice());
    forcer.setThreadCount(threads);
    benchmark::DoNotOptimize(forcer.searchForBestParameters(L"M", L"reference"));
  }
  state.counters["per_evaluation_ms"] =
      benchmark::Counter(kSliceEvaluations * double(state.iterations()) / 1000.0,
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
void OursAllCores(benchmark::State& state) { searchSlice(state, 0); }
void OursOneThread(benchmark::State& state) { searchSlice(state, 1); }

BENCHMARK(PlainEvaluations)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true)->Iterations(1);
BENCHMARK(OursAllCores)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true)->Iterations(1);
BENCHMARK(OursOneThread)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true)->Iterations(1);

// Shader files for the search: ours, in a folder that ProgramData points at.
void installShaders(const Testing::TemporaryDirectory& folder) {
  const auto source = std::filesystem::path(__FILE__).parent_path().parent_path() / "shaders";
  const auto target = std::filesystem::path(folder.path()) / "Hollbrink" / "Shaders";
  std::filesystem::create_directories(target);
  for (const auto& entry : std::filesystem::directory_iterator(source)) {
    if (entry.path().extension() == ".shader") std::filesystem::copy_file(entry.path(), target / entry.path().filename());
  }
  ::setenv("ProgramData", folder.path().c_str(), 1);
}

}  // namespace

int main(int argc, char** argv) {
  Testing::TemporaryDirectory shaders;
  installShaders(shaders);
  const Scene& s = scene();
  // "--no-full-grid" leaves out the 304,200-point run (quick comparisons).
  bool fullGrid = true;
  for (int i = 1; i < argc; ++i) {
    if (std::string(argv[i]) == "--no-full-grid") {
      fullGrid = false;
      for (int j = i; j + 1 < argc; ++j) argv[j] = argv[j + 1];
      --argc;
      break;
    }
  }
  bool gridOk = true;
  if (fullGrid) {
    // The library prints its walk on standard output; keep it out of the report.
    std::streambuf* console = std::cout.rdbuf();
    std::ostringstream walkOutput;
    std::cout.rdbuf(walkOutput.rdbuf());
    const auto t0 = std::chrono::steady_clock::now();
    const std::clock_t c0 = std::clock();
    ShaderBruteForcer forcer(s.camera, s.images);
    const auto cameras = forcer.searchForBestParameters(L"M", L"reference");
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    const double processor = double(std::clock() - c0) / CLOCKS_PER_SEC;
    std::cout.rdbuf(console);
    const std::uint64_t points = ShaderBruteForcer::gridSize(ShaderBruteForcer::defaultParameterList());
    const bool found = !forcer.results().empty() && forcer.results().front().parameters == truth();
    std::printf("full grid: %llu points, %llu scored, %zu cameras, %.2f s wall (%.1f us per evaluation), goal 30 s: %s\n",
                static_cast<unsigned long long>(points), static_cast<unsigned long long>(forcer.evaluationCount()),
                cameras.size(), seconds, seconds * 1e6 / double(points), seconds <= 30.0 ? "met" : "MISSED");
    // On a shared machine the wall time includes waiting for other programs;
    // the processor time over the two cores is what an idle machine would take.
    std::printf("full grid: %.2f s of processor time on all threads (%.2f s per core of 2)\n", processor,
                processor / 2.0);
    std::printf("best: error %.4f, the reference's grid point %s\n",
                forcer.results().empty() ? -1.0 : double(forcer.results().front().error),
                found ? "found first" : "NOT FIRST");
    // The whole ranking, so that runs of different builds can be compared.
    int place = 0;
    for (const auto& result : forcer.results()) {
      std::printf("  %d: error %.6f at grid point %llu\n", place++, double(result.error),
                  static_cast<unsigned long long>(result.gridIndex));
    }
    gridOk = seconds <= 30.0 && found;
  }
  const auto ratios = Bench::runAndCompare(
      argc, argv,
      {{"plain 169 evaluations vs ours 1690 on all cores", "PlainEvaluations", "OursAllCores"},
       {"plain 169 evaluations vs ours 1690 on one thread", "PlainEvaluations", "OursOneThread"}});
  bool fast = true;
  for (const auto& ratio : ratios) {
    const double perEvaluation = ratio.second * kSliceEvaluations / kPlainEvaluations;
    std::printf("per evaluation (%s): plain / ours = %.1fx\n", ratio.first.c_str(), perEvaluation);
    if (ratio.first.find("all cores") != std::string::npos) fast = perEvaluation >= 10.0;
  }
  std::printf("%s\n", gridOk && fast ? "goals met" : "GOALS MISSED");
  return gridOk && fast ? 0 : 1;
}

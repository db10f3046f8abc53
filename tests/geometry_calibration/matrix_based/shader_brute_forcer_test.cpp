// The shader parameter search on real pictures with references rendered by
// our own renderer at known parameters, on reduced grids.
#include "orbivane/geometry_calibration/matrix_based/shader_brute_forcer.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "geometry_calibration/matrix_based/shader_brute_forcer_edges.h"
#include "geometry_calibration/matrix_based/shader_brute_forcer_search.h"
#include "orbivane/geometry/clip_matrix.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/shading/image_shading.h"
#include "support/scoped_environment.h"
#include "synthetic/sample_data.h"

namespace {

namespace fs = std::filesystem;
using GeometryCalibration::MatrixBased::BestList;
using GeometryCalibration::MatrixBased::ShaderBruteForcer;
using Images = std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>>;

// Our shader files in a folder that ProgramData points at, for one test.
class ShaderFolder {
 public:
  ShaderFolder() : programData_("ProgramData", withShaders(folder_)) {}

 private:
  // Copies the shader files into `folder` as ProgramData keeps them; returns the folder.
  static std::string withShaders(const Synthetic::TemporaryDirectory& folder) {
    const char* env = std::getenv("ORBIVANE_SHADER_SOURCE_DIR");
    const fs::path source = env ? fs::path(env) : fs::path(__FILE__).parent_path().parent_path().parent_path().parent_path() / "shaders";
    const fs::path target = fs::path(folder.path()) / "Hollbrink" / "Shaders";
    fs::create_directories(target);
    for (const auto& entry : fs::directory_iterator(source)) {
      if (entry.path().extension() == ".shader") fs::copy_file(entry.path(), target / entry.path().filename());
    }
    return folder.path();
  }

  Synthetic::TemporaryDirectory folder_;  // made before, removed after ProgramData is restored
  ScopedEnvironment programData_;
};

std::string text(float v) {
  char t[32];
  std::snprintf(t, sizeof t, "%f", double(v));
  return t;
}

OrbivaneGeometry::Shader lens(const std::map<std::string, float>& values) {
  std::map<std::string, std::string> texts;
  for (const auto& v : values) texts[v.first] = text(v.second);
  return OrbivaneGeometry::Shader(ImageSource::kLensDistortionShaderUid, texts);
}

// A module showing a photograph over the whole surface, and a 640x480
// reference rendered from it with `truth` (so renderings are 160x120).
struct Scene {
  CameraDescription::Orbivane camera;
  Images images;
};

Scene scene(const std::map<std::string, float>& truth, const char* photo = "fruits.jpg",
            std::string shaderId = ImageSource::kLensDistortionShaderUid) {
  Scene s;
  cv::Mat m;
  cv::resize(Synthetic::loadSample(photo), m, cv::Size(640, 480), 0, 0, cv::INTER_AREA);
  const auto picture = Image::fromMat(m);
  ImageSource::ImageShading shading;
  shading.SetShader({lens(truth)});
  CameraDescription::OrbivaneModule module(L"M");
  auto geometry = std::make_unique<OrbivaneGeometry::MatrixGeometry>(Utils::Matrix4x4());
  geometry->setShaderId(shaderId);
  module.setGeometry(std::move(geometry));
  module.setShaders({OrbivaneGeometry::clipMatrixShader(Utils::Matrix4x4())});
  s.camera.addModule(module);
  s.images[L"M"] = picture;
  s.images[L"reference"] = shading.Apply(picture);
  return s;
}

ShaderBruteForcer::ParameterList reducedGrid() {
  return {{"f_TCorrection_F", {0.1f, 0.5f, 0.15f, 2}},          // 0.1 0.25 0.4
          {"f_TCorrection_H", {0.35f, 0.7f, 0.15f, 2}},         // 0.35 0.5 0.65
          {"f_TCorrection_V", {0.35f, 0.7f, 0.15f, 2}},         // 0.35 0.5 0.65
          {"f_ps_distortion_ext_xshift", {-0.1f, 0.15f, 0.1f, 1}},  // -0.1 0 0.1
          {"f_ps_distortion_ext_yshift", {-0.1f, 0.15f, 0.1f, 1}}};
}

std::map<std::string, float> gridPoint(int f, int h, int v, int x, int y) {
  std::map<std::string, float> p;
  const int positions[] = {f, h, v, x, y};
  int i = 0;
  for (const auto& entry : reducedGrid()) {
    p[entry.first] = ShaderBruteForcer::parameterValues(entry.first, entry.second)[std::size_t(positions[i++])];
  }
  return p;
}

std::list<ShaderBruteForcer::Result> quietSearch(ShaderBruteForcer& forcer, std::list<CameraDescription::Orbivane>* cameras = nullptr,
                                                 std::string* output = nullptr) {
  testing::internal::CaptureStdout();
  auto found = forcer.searchForBestParameters(L"M", L"reference");
  const std::string printed = testing::internal::GetCapturedStdout();
  if (output) *output = printed;
  if (cameras) *cameras = found;
  return forcer.results();
}

TEST(ShaderBruteForcerGrid, FixedGridCountsAndRanges) {
  const auto list = ShaderBruteForcer::defaultParameterList();
  std::vector<std::size_t> counts;
  for (const auto& entry : list) counts.push_back(ShaderBruteForcer::parameterValues(entry.first, entry.second).size());
  EXPECT_THAT(counts, testing::ElementsAre(15, 8, 15, 13, 13));
  EXPECT_EQ(ShaderBruteForcer::gridSize(list), 304200u);
  const auto shifts = ShaderBruteForcer::parameterValues("f_ps_distortion_ext_xshift", list.back().second);
  EXPECT_FLOAT_EQ(shifts.front(), -0.3f);
  EXPECT_NEAR(shifts.back(), 0.3f, 1e-6f);
  EXPECT_LT(shifts.back(), 0.3f);  // reached only within rounding
  EXPECT_NEAR(ShaderBruteForcer::parameterValues("f_TCorrection_H", {0.05f, 0.8f, 0.1f, 2}).back(), 0.75f, 1e-6f);
  EXPECT_THAT(ShaderBruteForcer::parameterValues("i_ps_distortion_ext_pwp", {}),
              testing::ElementsAre(2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20));
  EXPECT_TRUE(ShaderBruteForcer::parameterValues("f_TCorrection_F", {0.5f, 0.5f, 0.1f, 2}).empty());
  EXPECT_TRUE(ShaderBruteForcer::parameterValues("f_TCorrection_F", {0.6f, 0.5f, 0.1f, 2}).empty());
}

// A list the search cannot walk is refused by the constructor, naming the
// entry, instead of searching nothing (or for ever).
TEST(ShaderBruteForcerGrid, RefusesParameterListsItCannotWalk) {
  using List = ShaderBruteForcer::ParameterList;
  const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
  EXPECT_TRUE(ShaderBruteForcer::validateParameters(ShaderBruteForcer::defaultParameterList()));
  EXPECT_TRUE(ShaderBruteForcer::validateParameters({}));
  // pwp's values are fixed, so its range is not read
  EXPECT_TRUE(ShaderBruteForcer::validateParameters(List{{"i_ps_distortion_ext_pwp", {}}}));
  const std::vector<std::pair<List, std::string>> refused = {
      {{{"f_TCorrection_F", {0.1f, 0.5f, 0.0f, 2}}}, "'f_TCorrection_F': the step must be a finite number above 0"},
      {{{"f_TCorrection_F", {0.1f, 0.5f, -0.1f, 2}}}, "the step must be a finite number above 0"},
      {{{"f_TCorrection_F", {0.1f, 0.5f, nan, 2}}}, "the step must be a finite number above 0"},
      {{{"f_TCorrection_F", {nan, 0.5f, 0.1f, 2}}}, "min and max must be finite numbers"},
      {{{"f_TCorrection_F", {0.1f, inf, 0.1f, 2}}}, "min and max must be finite numbers"},
      {{{"f_TCorrection_F", {0.5f, 0.5f, 0.1f, 2}}}, "min must be below max"},
      {{{"f_TCorrection_F", {0.1f, 0.5f, 0.1f, 2}}, {"f_TCorrection_F", {0.1f, 0.5f, 0.1f, 2}}}, "listed twice"},
      {{{"", {0.1f, 0.5f, 0.1f, 2}}}, "without a name"},
      {{{"a", {0, 1, 1e-4f, 2}}, {"b", {0, 1, 1e-4f, 2}}, {"c", {0, 1, 1e-4f, 2}}, {"d", {0, 1, 0.5f, 2}}},
       "more than 2^40 grid points"},
  };
  CameraDescription::Orbivane camera;
  for (const auto& [list, words] : refused) {
    const auto valid = ShaderBruteForcer::validateParameters(list);
    ASSERT_FALSE(valid) << words;
    EXPECT_THAT(valid.error(), testing::HasSubstr(words));
    try {
      ShaderBruteForcer forcer(camera, {}, list);
      ADD_FAILURE() << "constructed with: " << words;
    } catch (const std::invalid_argument& e) {
      EXPECT_THAT(e.what(), testing::HasSubstr("shader search parameters: "));
      EXPECT_THAT(e.what(), testing::HasSubstr(words));
    }
  }
}

TEST(ShaderBruteForcerGrid, BestListKeepsTenDistinctErrorsAndTheEarlierOfEqualOnes) {
  // Equal errors in any order keep the lowest grid index; only ten distinct errors stay.
  std::vector<ShaderBruteForcer::Result> results;
  for (std::uint64_t i = 0; i < 30; ++i) results.push_back({float(i % 12), 100 - i, {{"p", float(i)}}});
  for (int order = 0; order < 2; ++order) {
    BestList best;
    if (order == 1) std::reverse(results.begin(), results.end());
    for (const auto& r : results) best.insert(r);
    const auto kept = best.ordered();
    ASSERT_EQ(kept.size(), 10u);
    float expectedError = 0;
    for (const auto& r : kept) {
      EXPECT_EQ(r.error, expectedError++);
      // Error e came from i = e, e + 12 and e + 24 (below 30); the largest i has the lowest index.
      const std::uint64_t e = std::uint64_t(r.error);
      EXPECT_EQ(r.gridIndex, e + 24 < 30 ? 76 - e : 88 - e);
    }
  }
  BestList few;
  few.insert({2.0f, 5, {}});
  few.insert({2.0f, 3, {}});
  few.insert({1.0f, 9, {}});
  few.insert({std::nanf(""), 1, {}});
  EXPECT_EQ(few.size(), 2u);
  EXPECT_EQ(few.ordered().back().gridIndex, 3u);
}

TEST(ShaderBruteForcerGrid, BestListRejectsOnlyWhatItCouldNotKeep) {
  // The search skips the lock for results the list rejects: a rejected result must never be one it keeps.
  BestList best;
  for (std::uint64_t i = 0; i < 10; ++i) {
    EXPECT_FALSE(best.rejects(100.0f)) << "not full yet";
    best.insert({float(i) + 1.0f, 50 + i, {}});
  }
  ASSERT_TRUE(best.full());
  EXPECT_EQ(best.largest(), 10.0f);
  EXPECT_TRUE(best.rejects(10.5f));
  EXPECT_FALSE(best.rejects(10.0f));  // an equal error with an earlier grid point replaces
  EXPECT_FALSE(best.rejects(0.5f));
  for (const float error : {10.5f, 10.0f, 0.5f}) {
    BestList copy = best;
    const bool kept = copy.insert({error, 3, {}});
    EXPECT_EQ(kept, !best.rejects(error)) << error;
  }
  EXPECT_TRUE(BestList(0).rejects(1.0f));
}

// Every row kernel (plain, AVX2, AVX-512 where the processor has them) gives
// exactly what OpenCV's sequence gives; widths that leave tails of every
// length.
TEST(ShaderBruteForcerEdges, FusedScoreEqualsOpenCvSequence) {
  const int best = GeometryCalibration::MatrixBased::edgeKernelLevel();
  for (int level = 0; level <= best; ++level)
  for (const cv::Size size : {cv::Size(203, 117), cv::Size(64, 33), cv::Size(97, 20)})
  for (const char* name : {"baboon.jpg", "building.jpg"}) {
    GeometryCalibration::MatrixBased::setEdgeKernelLevel(level);
    ASSERT_EQ(GeometryCalibration::MatrixBased::edgeKernelLevel(), level);
    cv::Mat bgr, grey;
    cv::resize(Synthetic::loadSample(name), bgr, size, 0, 0, cv::INTER_AREA);
    cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
    const cv::Mat reference = GeometryCalibration::MatrixBased::edgeImageOfColour(Synthetic::loadSample("fruits.jpg"), grey.size());
    int histogram[256] = {0};
    for (int y = 0; y < grey.rows; ++y) {
      for (int x = 0; x < grey.cols; ++x) ++histogram[grey.at<std::uint8_t>(y, x)];
    }
    GeometryCalibration::MatrixBased::EdgeBuffers buffers;
    const auto score = GeometryCalibration::MatrixBased::edgeScore(grey, histogram, reference, buffers);
    cv::Mat equalised, laplacian, edges, difference;
    cv::equalizeHist(grey, equalised);
    cv::Laplacian(equalised, laplacian, CV_16S, 3, 1.0, 0.0, cv::BORDER_REFLECT_101);
    cv::convertScaleAbs(laplacian, edges);
    cv::absdiff(edges, reference, difference);
    EXPECT_EQ(score.mean, cv::mean(edges)[0]) << name << " level " << level << " " << size;
    EXPECT_EQ(score.error, static_cast<float>(cv::mean(difference)[0])) << name << " level " << level << " " << size;
  }
  GeometryCalibration::MatrixBased::setEdgeKernelLevel(best);
}

// The score with an early stop: complete scores are the full pass's, a
// stopped one is only ever a score whose error is above the bound, blank rows
// (given with the reference's row sums) score as read.
TEST(ShaderBruteForcerEdges, StoppedScoresAreAboveTheirBoundAndBlankRowsScoreAsRead) {
  using GeometryCalibration::MatrixBased::edgeScore;
  using GeometryCalibration::MatrixBased::stoppingSum;
  cv::Mat bgr, grey;
  cv::resize(Synthetic::loadSample("building.jpg"), bgr, cv::Size(160, 120), 0, 0, cv::INTER_AREA);
  cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
  grey.rowRange(0, 20).setTo(0);  // a band the module does not cover
  grey.rowRange(100, 120).setTo(0);
  std::vector<std::uint8_t> blank(120, 0);
  for (int y = 0; y < 120; ++y) blank[std::size_t(y)] = y < 20 || y >= 100;
  const cv::Mat reference = GeometryCalibration::MatrixBased::edgeImageOfColour(Synthetic::loadSample("fruits.jpg"), grey.size());
  std::vector<std::uint32_t> rowSums(120, 0);
  for (int y = 0; y < 120; ++y) rowSums[std::size_t(y)] = std::uint32_t(cv::sum(reference.row(y))[0]);
  int histogram[256] = {0};
  for (int y = 0; y < grey.rows; ++y)
    for (int x = 0; x < grey.cols; ++x) ++histogram[grey.at<std::uint8_t>(y, x)];
  GeometryCalibration::MatrixBased::EdgeBuffers buffers;
  const auto full = edgeScore(grey, histogram, reference, buffers);
  const auto skipping = edgeScore(grey, histogram, reference, buffers, UINT64_MAX, &blank, &rowSums);
  EXPECT_TRUE(full.complete);
  EXPECT_EQ(skipping.error, full.error);
  EXPECT_EQ(skipping.mean, full.mean);
  const double count = 160.0 * 120.0;
  for (const float bound : {0.5f * full.error, full.error - 1e-3f, full.error, full.error + 1e-3f}) {
    const std::uint64_t stop = stoppingSum(bound, count);
    // The smallest sum whose error is above the bound.
    EXPECT_GT(static_cast<float>(double(stop) / count), bound);
    EXPECT_FALSE(static_cast<float>(double(stop - 1) / count) > bound);
    const auto score = edgeScore(grey, histogram, reference, buffers, stop, &blank, &rowSums);
    // Only a score above its bound may stop (one that reaches the bound on its last rows completes).
    EXPECT_TRUE(score.complete || full.error > bound) << bound;
    if (bound < 0.9f * full.error) {
      EXPECT_FALSE(score.complete);
    }
    if (score.complete) {
      EXPECT_EQ(score.error, full.error);
    } else {
      EXPECT_LT(score.rows, 120);
    }
    EXPECT_TRUE(score.edged);
  }
  EXPECT_EQ(stoppingSum(std::numeric_limits<float>::infinity(), count), UINT64_MAX);
}

// What the search scores is Apply's rendering scored by OpenCV's own steps,
// bit for bit: for the ten best of a reduced grid and for grid points picked
// at random, on a module that covers part of the reference (its rectangle
// cut from it) with a clip matrix that shows part of the module's picture.
TEST(ShaderBruteForcerSearch, ErrorsAreApplysRenderingScoredByOpenCv) {
  ShaderFolder shaders;
  cv::Mat photo;
  cv::resize(Synthetic::loadSample("home.jpg"), photo, cv::Size(640, 480), 0, 0, cv::INTER_AREA);
  const auto picture = Image::fromMat(photo);
  Utils::Matrix4x4 placement;  // the module's matrix: the middle of the reference
  placement.set(0, 0, 0.7f);
  placement.set(1, 1, 0.65f);
  placement.set(0, 3, 0.12f);
  placement.set(1, 3, 0.2f);
  Utils::Matrix4x4 clip;  // the clip matrix: a sheared part of the picture
  clip.set(0, 0, 0.9f);
  clip.set(0, 1, 0.1f);
  clip.set(1, 1, 0.85f);
  CameraDescription::Orbivane camera;
  CameraDescription::OrbivaneModule module(L"M");
  auto geometry = std::make_unique<OrbivaneGeometry::MatrixGeometry>(placement);
  geometry->setShaderId(ImageSource::kLensDistortionShaderUid);
  module.setGeometry(std::move(geometry));
  module.setShaders({OrbivaneGeometry::clipMatrixShader(clip), lens({})});
  camera.addModule(module);
  ImageSource::ImageShading shading;
  shading.SetShader({lens(gridPoint(2, 1, 0, 1, 2))});
  Images images{{L"M", picture}, {L"reference", shading.Apply(Image::fromMat(Synthetic::loadSample("home.jpg")),
                                                              Utils::Size{800, 600})}};
  const cv::Mat reference = Image::toMat(images[L"reference"]);
  // The reference's edge image as the search's preparation makes it (by OpenCV alone): the
  // module's rectangle, x = int(cols * left) and so on, from where its matrix puts its corners.
  const auto quad = OrbivaneGeometry::moduleSurfaceQuad(placement);
  ASSERT_TRUE(quad);
  float left = 1e9f, top = 1e9f, right = -1e9f, bottom = -1e9f;
  for (const auto& c : quad->corners) {
    left = std::min(left, c.x), right = std::max(right, c.x), top = std::min(top, c.y), bottom = std::max(bottom, c.y);
  }
  const cv::Rect rect(int(800.0 * left), int(600.0 * top), int(800.0 * (right - left)), int(600.0 * (bottom - top)));
  ASSERT_EQ(rect, cv::Rect(95, 120, 559, 389));  // truncated toward zero
  auto scoreByOpenCv = [&](const std::map<std::string, float>& parameters, bool& edged) {
    const auto withValues = ShaderBruteForcer::cameraWithParameters(camera, L"M", parameters);
    ImageSource::ImageShading rendering;
    rendering.SetShader(withValues.findModule(L"M")->shaders());
    const cv::Mat colour = Image::toMat(rendering.Apply(picture, Utils::Size{200, 150}));
    cv::Mat resized, grey, equalised, laplacian, edges, cut, cutEdges, difference;
    cv::resize(reference(rect), cut, colour.size(), 0, 0, cv::INTER_LINEAR);
    cv::cvtColor(cut, grey, cv::COLOR_BGR2GRAY);
    cv::equalizeHist(grey, equalised);
    cv::Laplacian(equalised, laplacian, CV_16S, 3, 1.0, 0.0, cv::BORDER_REFLECT_101);
    cv::convertScaleAbs(laplacian, cutEdges);
    cv::resize(colour, resized, colour.size(), 0, 0, cv::INTER_LINEAR);
    cv::cvtColor(resized, grey, cv::COLOR_BGR2GRAY);
    cv::equalizeHist(grey, equalised);
    cv::Laplacian(equalised, laplacian, CV_16S, 3, 1.0, 0.0, cv::BORDER_REFLECT_101);
    cv::convertScaleAbs(laplacian, edges);
    edged = cv::mean(edges)[0] >= 1.0;
    cv::absdiff(edges, cutEdges, difference);
    return static_cast<float>(cv::mean(difference)[0]);
  };
  ShaderBruteForcer forcer(camera, images, reducedGrid());
  const auto results = quietSearch(forcer);
  ASSERT_EQ(results.size(), 10u);
  for (const auto& result : results) {
    bool edged = false;
    EXPECT_EQ(result.error, scoreByOpenCv(result.parameters, edged)) << result.gridIndex;
    EXPECT_TRUE(edged);
  }
  std::mt19937 random(7);
  for (int n = 0; n < 12; ++n) {
    const auto point = gridPoint(int(random() % 3), int(random() % 3), int(random() % 3), int(random() % 3),
                                 int(random() % 3));
    ShaderBruteForcer::ParameterList single;
    for (const auto& entry : reducedGrid()) {
      const float value = point.at(entry.first);
      single.push_back({entry.first, {value, value + 0.5f * entry.second.step, entry.second.step, 2}});
    }
    ShaderBruteForcer one(camera, images, single);
    const auto found = quietSearch(one);
    bool edged = false;
    const float expected = scoreByOpenCv(point, edged);
    ASSERT_EQ(found.size(), edged ? 1u : 0u);
    if (edged) {
      EXPECT_EQ(found.front().error, expected) << n;
    }
  }
}

TEST(ShaderBruteForcerSearch, RecoversGridTruthFirstWhateverTheThreadsAndShards) {
  ShaderFolder shaders;
  const auto truth = gridPoint(1, 2, 0, 2, 1);
  const Scene s = scene(truth);
  ShaderBruteForcer whole(s.camera, s.images, reducedGrid());
  // Planned before it starts: every grid point, the whole 640x480 reference
  // (the module's matrix is the identity) rendered at a quarter of its size.
  const ShaderBruteForcer::Plan plan = whole.plan(L"M", L"reference");
  EXPECT_EQ(plan.renderings, 243u);
  EXPECT_EQ(plan.rectangleWidth, 640);
  EXPECT_EQ(plan.rectangleHeight, 480);
  EXPECT_EQ(plan.renderedWidth, 160);
  EXPECT_EQ(plan.renderedHeight, 120);
  EXPECT_EQ(plan.bytes, ShaderBruteForcer::kSearchBytesPerPixel * 640u * 480u);
  EXPECT_THROW(whole.plan(L"ghost", L"reference"), std::out_of_range);
  EXPECT_THROW(whole.plan(L"M", L"ghost"), std::out_of_range);
  std::list<CameraDescription::Orbivane> cameras;
  std::string printed;
  const auto results = quietSearch(whole, &cameras, &printed);
  ASSERT_EQ(results.size(), 10u);
  EXPECT_EQ(results.front().parameters, truth);
  EXPECT_LT(results.front().error, results.back().error);
  EXPECT_EQ(whole.evaluationCount(), 243u);
  // Outermost values, progress marks and the ranking on standard output.
  EXPECT_THAT(printed, testing::HasSubstr("0.1\n"));
  EXPECT_THAT(printed, testing::HasSubstr(" #"));
  EXPECT_THAT(printed, testing::HasSubstr("Best 0 Error: "));
  EXPECT_THAT(printed, testing::HasSubstr("Best 9 Error: "));
  // The cameras, best first, carry the values in the module's shader.
  ASSERT_EQ(cameras.size(), 10u);
  const auto& chain = cameras.front().findModule(L"M")->shaders();
  ASSERT_EQ(chain.size(), 2u);
  EXPECT_EQ(chain.back().uid(), ImageSource::kLensDistortionShaderUid);
  EXPECT_EQ(*chain.back().parameter("f_TCorrection_F"), text(truth.at("f_TCorrection_F")));
  EXPECT_EQ(*chain.back().parameter("f_ps_distortion_ext_xshift"), text(truth.at("f_ps_distortion_ext_xshift")));
  EXPECT_EQ(s.camera.findModule(L"M")->shaders().size(), 1u);  // the caller's camera is untouched

  ShaderBruteForcer single(s.camera, s.images, reducedGrid());
  single.setThreadCount(1);
  EXPECT_EQ(single.plan(L"M", L"reference").threads, 1);
  const auto alone = quietSearch(single);
  std::list<std::list<ShaderBruteForcer::Result>> shards;
  for (int i = 0; i < 3; ++i) {
    ShaderBruteForcer part(s.camera, s.images, reducedGrid());
    part.setShard(i, 3);
    part.setThreadCount(2);
    EXPECT_EQ(part.plan(L"M", L"reference").renderings, 81u);
    EXPECT_EQ(part.plan(L"M", L"reference").threads, 2);
    shards.push_back(quietSearch(part));
    EXPECT_EQ(part.evaluationCount(), 81u);
  }
  const auto merged = ShaderBruteForcer::mergeResults(shards);
  for (const auto* other : {&alone, &merged}) {
    ASSERT_EQ(other->size(), results.size());
    auto a = results.begin();
    for (auto b = other->begin(); b != other->end(); ++a, ++b) {
      EXPECT_EQ(a->error, b->error);
      EXPECT_EQ(a->gridIndex, b->gridIndex);
      EXPECT_EQ(a->parameters, b->parameters);
    }
  }
}

TEST(ShaderBruteForcerSearch, EstimatesItsTimeFromASampleBeforeItStarts) {
  ShaderFolder shaders;
  const Scene s = scene(gridPoint(1, 2, 0, 2, 1));
  // 10,584 points: the probe's sample is a small part of the walk and the
  // scale-up is what is tested.
  const ShaderBruteForcer::ParameterList finer = {{"f_TCorrection_F", {0.1f, 0.55f, 0.08f, 2}},
                                                  {"f_TCorrection_H", {0.3f, 0.75f, 0.08f, 2}},
                                                  {"f_TCorrection_V", {0.3f, 0.75f, 0.08f, 2}},
                                                  {"f_ps_distortion_ext_xshift", {-0.15f, 0.15f, 0.05f, 1}},
                                                  {"f_ps_distortion_ext_yshift", {-0.15f, 0.15f, 0.05f, 1}}};
  ShaderBruteForcer forcer(s.camera, s.images, finer);
  ASSERT_EQ(forcer.plan(L"M", L"reference").renderings, 10584u);
  testing::internal::CaptureStdout();
  const auto started = std::chrono::steady_clock::now();
  const double estimate = forcer.estimateSeconds(L"M", L"reference");
  const double probing = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");  // a probe prints nothing
  EXPECT_EQ(forcer.evaluationCount(), 0u);                // nor counts as the search
  const auto searchStarted = std::chrono::steady_clock::now();
  const auto results = quietSearch(forcer);
  const double searched = std::chrono::duration<double>(std::chrono::steady_clock::now() - searchStarted).count();
  EXPECT_EQ(forcer.evaluationCount(), 10584u);
  EXPECT_EQ(results.front().parameters, quietSearch(forcer).front().parameters);
  // Within a factor of three of the search itself, at a small part of its cost.
  EXPECT_GT(estimate, searched / 3.0);
  EXPECT_LT(estimate, searched * 3.0);
  EXPECT_LT(probing, searched / 4.0);
  // A shard's share of the time; nothing to render, nothing to wait for.
  ShaderBruteForcer third(s.camera, s.images, finer);
  third.setShard(1, 3);
  EXPECT_LT(third.estimateSeconds(L"M", L"reference"), estimate);
  Images tiny = s.images;
  tiny[L"reference"] = std::make_shared<Image::RGBImage>(3, 3, Image::kMappingBGR);
  EXPECT_EQ(ShaderBruteForcer(s.camera, tiny, finer).estimateSeconds(L"M", L"reference"), 0.0);
  EXPECT_THROW(forcer.estimateSeconds(L"ghost", L"reference"), std::out_of_range);
}

TEST(ShaderBruteForcerSearch, AnAbortedSearchStopsAtItsNextBatchAndReturnsNothing) {
  // Ctrl-C in the command line aborts from another thread; here the first
  // progress report (after the first outermost value's 81 points) does.
  ShaderFolder shaders;
  const Scene s = scene(gridPoint(1, 2, 0, 2, 1));
  ShaderBruteForcer forcer(s.camera, s.images, reducedGrid());
  int reports = 0;
  forcer.registerStatusCallback([&](int, int, std::string, GeometryCalibration::AdvStepInfo) {
    if (++reports == 1) forcer.abort();
  });
  std::list<CameraDescription::Orbivane> cameras;
  EXPECT_TRUE(quietSearch(forcer, &cameras).empty());  // a part of the grid says nothing of the rest
  EXPECT_TRUE(cameras.empty());
  EXPECT_TRUE(forcer.aborted());
  EXPECT_EQ(reports, 1);
  EXPECT_EQ(forcer.evaluationCount(), 81u);
  // The flag stays: a later search of the object returns at once.
  EXPECT_TRUE(quietSearch(forcer).empty());
  EXPECT_EQ(reports, 1);
}

TEST(ShaderBruteForcerSearch, OffGridTruthGivesTheNearestPointOrANeighbour) {
  ShaderFolder shaders;
  std::map<std::string, float> truth{{"f_TCorrection_F", 0.31f},
                                     {"f_TCorrection_H", 0.56f},
                                     {"f_TCorrection_V", 0.40f},
                                     {"f_ps_distortion_ext_xshift", 0.03f},
                                     {"f_ps_distortion_ext_yshift", -0.07f}};
  const Scene s = scene(truth, "baboon.jpg");
  ShaderBruteForcer forcer(s.camera, s.images, reducedGrid());
  const auto results = quietSearch(forcer);
  ASSERT_FALSE(results.empty());
  for (const auto& entry : reducedGrid()) {
    const float found = results.front().parameters.at(entry.first);
    const float step = entry.second.step;
    EXPECT_LE(std::fabs(found - truth.at(entry.first)), 1.5f * step) << entry.first << " found " << found;
  }
}

TEST(ShaderBruteForcerSearch, BadInputFailsClearlyOrGivesNothing) {
  ShaderFolder shaders;
  const Scene s = scene(gridPoint(0, 0, 0, 0, 0));
  {
    ShaderBruteForcer forcer(s.camera, s.images, reducedGrid());
    for (const auto& names : {std::make_pair(L"X", L"reference"), std::make_pair(L"M", L"nothing")}) {
      try {
        forcer.searchForBestParameters(names.first, names.second);
        ADD_FAILURE() << "no exception";
      } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "invalid map<K, T> key");
      }
    }
  }
  {
    const Scene unknown = scene(gridPoint(0, 0, 0, 0, 0), "fruits.jpg", "0BADF00D");
    ShaderBruteForcer forcer(unknown.camera, unknown.images, reducedGrid());
    testing::internal::CaptureStdout();
    try {
      forcer.searchForBestParameters(L"M", L"reference");
      ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), "Shader not found");
    }
    testing::internal::GetCapturedStdout();
  }
  {
    auto empty = reducedGrid();
    std::next(empty.begin(), 2)->second.max = 0.2f;  // below its min: a grid without points
    EXPECT_THROW(ShaderBruteForcer(s.camera, s.images, empty), std::invalid_argument);
  }
  {
    Images tiny = s.images;
    tiny[L"reference"] = Image::fromMat(cv::Mat(3, 3, CV_8UC3, cv::Scalar(90, 120, 200)));
    ShaderBruteForcer forcer(s.camera, tiny, reducedGrid());
    EXPECT_TRUE(quietSearch(forcer).empty());
  }
  {
    // A black picture renders without edges: every evaluation is skipped.
    Images flat = s.images;
    flat[L"M"] = Image::fromMat(cv::Mat(480, 640, CV_8UC3, cv::Scalar(0, 0, 0)));
    ShaderBruteForcer forcer(s.camera, flat, reducedGrid());
    EXPECT_TRUE(quietSearch(forcer).empty());
    EXPECT_EQ(forcer.evaluationCount(), 0u);
  }
  ShaderBruteForcer forcer(s.camera, s.images, reducedGrid());
  EXPECT_THROW(forcer.setShard(3, 3), std::invalid_argument);
}

}  // namespace

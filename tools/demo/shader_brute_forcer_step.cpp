// The shader step: the lens distortion search on a module seen through a
// known grid point of the lens shader, compared with the truth picture.
#include "demo_steps.h"

#include <cmath>
#include <cstdio>
#include <map>
#include <memory>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "command_line.h"
#include "orbivane/geometry/clip_matrix.h"
#include "orbivane/geometry_calibration/matrix_based/shader_brute_forcer.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/shading/image_shading.h"
#include "orbivane/utils/wide_text.h"
#include "progress.h"
#include "synthetic/lens_shader.h"

namespace Tool {
namespace Demo {

namespace {

cv::Mat renderThrough(const std::shared_ptr<Image::UniversalImageInterface>& picture,
                      const std::map<std::string, float>& values) {
  ImageSource::ImageShading shading;
  shading.SetShader({Synthetic::lensShader(values)});
  return Image::toMat(*shading.Apply(picture, Utils::Size{picture->width(), picture->height()}));
}

}  // namespace

Section runShaderSearch(const StepContext& c) {
  using GeometryCalibration::MatrixBased::ShaderBruteForcer;
  const std::wstring moduleName = L"lens";
  // A module of 720x540 pixels looking at graf1.png (so the renderings, a
  // quarter of that, have detail enough for the edge comparison in both sizes).
  cv::Mat photo = cv::imread(c.data + "/graf1.png", cv::IMREAD_COLOR);
  if (photo.empty()) throw CommandError("cannot read the sample photograph '" + c.data + "/graf1.png'");
  cv::resize(photo, photo, cv::Size(720, 540), 0, 0, cv::INTER_AREA);
  const auto picture = Image::fromMat(photo);
  writePicture(photo, c.dir + "/pictures/lens.png");

  // The true lens: a grid point (values exactly as the walk makes them).
  const std::map<std::string, std::size_t> truthIndex = {{"f_TCorrection_F", 4},
                                                         {"f_TCorrection_H", 4},
                                                         {"f_TCorrection_V", 8},
                                                         {"f_ps_distortion_ext_xshift", 7},
                                                         {"f_ps_distortion_ext_yshift", 5}};
  std::map<std::string, float> truth;
  ShaderBruteForcer::ParameterList list = ShaderBruteForcer::defaultParameterList();
  for (auto& entry : list) {
    const auto values = ShaderBruteForcer::parameterValues(entry.first, entry.second);
    const std::size_t index = std::min(truthIndex.at(entry.first), values.size() - 1);
    truth[entry.first] = values[index];
    if (c.quick) {
      // A slice around the truth: two values either side (one for the correction weights).
      const std::size_t reach = entry.first.find("shift") != std::string::npos ? 2 : 1;
      const std::size_t low = index >= reach ? index - reach : 0;
      entry.second.min = values[low];
      entry.second.max = values[std::min(values.size() - 1, index + reach)] + 0.5f * entry.second.step;
    }
  }
  const cv::Mat reference = renderThrough(picture, truth);
  writePicture(reference, c.dir + "/shader-reference.png");

  CameraDescription::Orbivane camera;
  CameraDescription::OrbivaneModule module(moduleName);
  auto geometry = std::make_unique<OrbivaneGeometry::MatrixGeometry>(Utils::Matrix4x4::identity());
  geometry->setShaderId(ImageSource::kLensDistortionShaderUid);
  module.setGeometry(std::move(geometry));
  module.setShaders({OrbivaneGeometry::clipMatrixShader(Utils::Matrix4x4::identity()), Synthetic::lensShader({})});
  module.setImage(picture);
  camera.addModule(module);
  ImageMap images{{moduleName, picture}, {L"reference", Image::fromMat(reference)}};

  ShaderBruteForcer forcer(camera, images, list);
  Progress progress("shader search");
  forcer.registerStatusCallback(progress.callback());
  const Stopwatch watch;
  const auto cameras = forcer.searchForBestParameters(moduleName, L"reference");
  Section section;
  section.seconds = watch.seconds();
  progress.finish();
  if (forcer.results().empty()) throw CommandError("the shader search kept no result");

  const auto& best = forcer.results().front();
  const cv::Mat found = renderThrough(picture, best.parameters);
  writePicture(found, c.dir + "/shader-found.png");
  cv::Mat difference;
  cv::absdiff(found, reference, difference);
  const double meanDifference = cv::mean(difference)[0];

  int truthRank = -1, rank = 1;
  for (const auto& r : forcer.results()) {
    bool same = true;
    for (const auto& t : truth) same = same && std::fabs(r.parameters.at(t.first) - t.second) < 1e-5f;
    if (same) {
      truthRank = rank;
      break;
    }
    ++rank;
  }
  section.id = "shader-search";
  section.title = "Shader parameter search";
  section.what = std::string("A module's picture (graf1.png) seen through a lens with known distortion parameters gives the "
                             "reference view. The search renders the picture through the distortion shader for ") +
                 (c.quick ? "a slice of the grid around the truth" : "every point of the full grid") + " (" +
                 std::to_string(forcer.evaluationCount()) +
                 " evaluations) and keeps the ten parameter sets whose edge images match the reference best.";
  section.table.push_back({"Parameter", "True value", "Found", "Difference"});
  double worst = 0.0;
  for (const auto& t : truth) {
    const float f = best.parameters.at(t.first);
    worst = std::max(worst, double(std::fabs(f - t.second)));
    section.table.push_back({t.first, number(t.second, 3), number(f, 3), number(f - t.second, 3)});
  }
  section.table.push_back({"edge error of the best", "", number(best.error, 3), ""});
  section.table.push_back({"picture difference to the reference (grey levels)", "", number(meanDifference, 2), ""});
  section.figures.push_back({"pictures/lens.png", "The module's picture"});
  section.figures.push_back({"shader-reference.png", "Reference: the picture through the true lens parameters"});
  section.figures.push_back({"shader-found.png", "The picture through the parameters found"});
  section.passed = truthRank == 1;
  section.result = truthRank > 0 ? "true parameters ranked " + std::to_string(truthRank) + " of " +
                                       std::to_string(forcer.results().size())
                                 : "true parameters not among the best";
  section.truthError = "largest parameter difference " + number(worst, 3);
  return section;
}

}  // namespace Demo
}  // namespace Tool

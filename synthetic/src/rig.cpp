// The synthetic rig; see rig.h.
#include "synthetic/rig.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "orbivane/camera/orbivane_linkage.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/image/image_conversion.h"

namespace Synthetic {
namespace {

constexpr int kDemoModules = 5;
constexpr double kPi = 3.14159265358979323846;
// Each of the demo's five modules spans this share of the panorama's width
// and height; the outer modules end 1% inside its edges. Other counts keep
// the overlap share of neighbours (kOverlap of a module's width).
constexpr double kDemoModuleWidth = 0.24;
constexpr double kModuleHeight = 0.92;
// Vignetting: a module's picture is darker by this share times the squared
// distance from its middle (in picture widths and heights), 17.5 % at the
// corners.
constexpr double kVignetting = 0.35;
constexpr double kOverlap = 1.0 - (0.98 - kDemoModuleWidth) / (kDemoModules - 1) / kDemoModuleWidth;

// Mounting of each module: turn (degrees), keystone (perspective term of the
// texture's x), exposure gain.
struct Mounting {
  double turn, keystone, gain;
};
const Mounting kMounting[kDemoModules] = {
    {-1.2, 0.06, 0.92}, {0.8, 0.03, 1.05}, {0.0, 0.0, 1.0}, {-0.6, -0.03, 0.95}, {1.0, -0.06, 1.08}};

// Assembly misalignment of each module in its own texture units: shift,
// turn (degrees) and scale.
struct Misalignment {
  double dx, dy, turn, scale;
};
const Misalignment kMisalignment[kDemoModules] = {{0.030, -0.020, 1.5, 1.02},
                                              {-0.025, 0.015, -1.0, 0.985},
                                              {0.015, 0.025, 0.7, 1.015},
                                              {-0.020, -0.030, -1.4, 1.0},
                                              {0.035, 0.010, 1.1, 0.98}};

cv::Matx33d translation(double x, double y) { return {1, 0, x, 0, 1, y, 0, 0, 1}; }
cv::Matx33d scaling(double x, double y) { return {x, 0, 0, 0, y, 0, 0, 0, 1}; }
cv::Matx33d turn(double degrees) {
  const double a = degrees * kPi / 180.0;
  return {std::cos(a), -std::sin(a), 0, std::sin(a), std::cos(a), 0, 0, 0, 1};
}

// Share of the panorama's width each of `count` modules spans.
double moduleWidth(int count) {
  return count == kDemoModules ? kDemoModuleWidth : 0.98 / ((count - 1) * (1.0 - kOverlap) + 1.0);
}

// Texture -> surface of module i of `count`: centred on its place, turned in
// pixel space (so the turn is a true rotation on the wide panorama), with a
// keystone that keeps the texture's middle in place.
cv::Matx33d trueHomography(int i, int count, const Mounting& mounting, cv::Size panorama, bool straight) {
  const double width = moduleWidth(count);
  const double step = (0.98 - width) / (count - 1);
  const double centreX = 0.01 + width / 2 + step * i;
  const cv::Matx33d toPixels = scaling(panorama.width, panorama.height);
  const cv::Matx33d keystone(1, 0, 0, 0, 1, 0, straight ? 0.0 : mounting.keystone, 0, 1);
  const cv::Matx33d local = toPixels.inv() * translation(centreX * panorama.width, 0.5 * panorama.height) *
                            turn(straight ? 0.0 : mounting.turn) * toPixels * scaling(width, kModuleHeight) *
                            keystone * translation(-0.5, -0.5);
  return local;
}

cv::Matx33d misalign(const cv::Matx33d& truth, const Misalignment& m) {
  return truth * translation(0.5 + m.dx, 0.5 + m.dy) * turn(m.turn) * scaling(m.scale, m.scale) *
         translation(-0.5, -0.5);
}

cv::Mat loadPhotograph(const std::string& path, int height) {
  const cv::Mat photo = cv::imread(path, cv::IMREAD_COLOR);
  if (photo.empty()) throw std::runtime_error("cannot read the sample photograph '" + path + "' (opencv-doc installed?)");
  cv::Mat out;
  const int width = int(std::lround(double(photo.cols) * height / photo.rows));
  cv::resize(photo, out, cv::Size(width, height), 0, 0, cv::INTER_AREA);
  return out;
}

}  // namespace

Rig makeRig(const std::string& dataDirectory, bool quick, bool straight) {
  RigOptions options;
  options.quick = quick;
  options.straight = straight;
  return makeRig(dataDirectory, options);
}

Rig makeRig(const std::string& dataDirectory, const RigOptions& options) {
  const int count = options.modules;
  if (count < 2 || count > 8) throw std::invalid_argument("a rig has 2 to 8 modules, not " + std::to_string(count));
  if (options.seed == 0 && count != kDemoModules) {
    throw std::invalid_argument("the demo's own mountings are for five modules; give a seed for other counts");
  }
  if (options.photographs.empty()) throw std::invalid_argument("a scene needs at least one photograph");
  std::vector<Mounting> mountings(kMounting, kMounting + kDemoModules);
  std::vector<Misalignment> misalignments(kMisalignment, kMisalignment + kDemoModules);
  if (options.seed != 0) {
    cv::RNG random(options.seed);
    mountings.clear();
    misalignments.clear();
    for (int i = 0; i < count; ++i) {
      mountings.push_back({random.uniform(-1.2, 1.2), random.uniform(-0.06, 0.06), random.uniform(0.92, 1.08)});
      misalignments.push_back({random.uniform(-0.035, 0.035), random.uniform(-0.035, 0.035), random.uniform(-1.5, 1.5),
                               random.uniform(0.98, 1.02)});
    }
  }

  Rig s;
  const bool quick = options.quick;
  const int height = options.sceneHeight > 0 ? options.sceneHeight : quick ? 300 : 600;
  s.photographs = options.photographs;
  std::vector<cv::Mat> parts;
  for (const auto& name : s.photographs) parts.push_back(loadPhotograph(dataDirectory + "/" + name, height));
  cv::hconcat(parts, s.picture);
  s.panorama = s.picture.size();
  s.modulePicture = !options.modulePicture.empty() ? options.modulePicture
                    : quick                          ? cv::Size(360, 270)
                                                     : cv::Size(720, 540);

  for (int i = 0; i < count; ++i) {
    const std::wstring name = L"M" + std::to_wstring(i + 1);
    s.names.push_back(name);
    const cv::Matx33d truth = trueHomography(i, count, mountings[std::size_t(i)], s.panorama, options.straight);
    const Misalignment& m = misalignments[std::size_t(i)];
    const cv::Matx33d assembled = misalign(truth, m);
    s.truth[name] = OrbivaneGeometry::matrixFromPlanarHomography(truth);
    s.misaligned[name] = OrbivaneGeometry::matrixFromPlanarHomography(assembled);
    char words[160];
    std::snprintf(words, sizeof words, "shifted %+.0f, %+.0f px, turned %+.1f deg, scaled %.3f",
                  m.dx * s.modulePicture.width, m.dy * s.modulePicture.height, m.turn, m.scale);
    s.misalignment[name] = words;

    // The module's picture: module pixel -> texture -> surface -> scene pixel.
    const cv::Matx33d pixelsToScene = scaling(s.panorama.width, s.panorama.height) * truth *
                                      OrbivaneGeometry::pixelsToTexture(s.modulePicture.width, s.modulePicture.height);
    cv::Mat picture;
    cv::warpPerspective(s.picture, picture, cv::Mat(pixelsToScene), s.modulePicture,
                        cv::INTER_LINEAR | cv::WARP_INVERSE_MAP, cv::BORDER_REFLECT101);
    // Exposure of its own, darker towards the corners, and sensor noise.
    cv::Mat vignette(s.modulePicture, CV_32FC1);
    for (int y = 0; y < vignette.rows; ++y) {
      for (int x = 0; x < vignette.cols; ++x) {
        const double dx = (x - 0.5 * vignette.cols) / vignette.cols, dy = (y - 0.5 * vignette.rows) / vignette.rows;
        vignette.at<float>(y, x) = float(mountings[std::size_t(i)].gain * (1.0 - kVignetting * (dx * dx + dy * dy)));
      }
    }
    cv::Mat channels[3], noisy;
    picture.convertTo(noisy, CV_32FC3);
    cv::split(noisy, channels);
    for (auto& c : channels) c = c.mul(vignette);
    cv::merge(channels, 3, noisy);
    cv::Mat noise(noisy.size(), CV_32FC3);
    cv::RNG random(std::uint64_t(7 + i));
    random.fill(noise, cv::RNG::NORMAL, 0.0, 2.0);
    noisy += noise;
    noisy.convertTo(picture, CV_8UC3);
    s.pictures[name] = Image::fromMat(picture);

    CameraDescription::OrbivaneModule module(name);
    module.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(s.misaligned[name]));
    module.setImage(s.pictures[name]);
    const double width = moduleWidth(count);
    const double overlap = (width - (0.98 - width) / (count - 1)) / width;
    module.setLinkage(std::make_unique<CameraDescription::OrbivaneLinkage>(
        i > 0 ? L"M" + std::to_wstring(i) : std::wstring(), i + 1 < count ? L"M" + std::to_wstring(i + 2) : std::wstring(),
        float(overlap)));
    s.camera.addModule(module);
  }
  // Each module's neighbour is the one to its right.
  auto& modules = s.camera.modules();
  for (std::size_t i = 0; i + 1 < modules.size(); ++i) modules[i]->setNeighbour(modules[i + 1]);
  s.camera.setName(L"Orbivane demo camera");
  s.camera.setPanoramaSize(Utils::Size{s.panorama.width, s.panorama.height});
  return s;
}

CameraDescription::Orbivane withMatrices(const CameraDescription::Orbivane& camera,
                                         const std::map<std::wstring, Utils::Matrix4x4>& matrices) {
  CameraDescription::Orbivane copy(camera);
  for (auto& module : copy.modules()) {
    const auto found = matrices.find(module->name());
    if (found == matrices.end()) continue;
    if (auto* geometry = module->matrixGeometry()) {
      geometry->setMatrix(found->second);
    } else {
      module->setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(found->second));
    }
  }
  return copy;
}

std::map<std::wstring, Utils::Matrix4x4> matricesOf(const CameraDescription::Orbivane& camera) {
  std::map<std::wstring, Utils::Matrix4x4> out;
  for (const auto& module : camera.modules()) {
    if (const auto* geometry = module->matrixGeometry()) out[module->name()] = geometry->matrix();
  }
  return out;
}

}  // namespace Synthetic

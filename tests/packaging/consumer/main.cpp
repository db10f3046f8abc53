// A host application that links the installed library: it builds a camera,
// reads a clip matrix back, scores a picture, and hands a changed camera to
// both sensor calibrators through updateOrbivane.
#include <iostream>
#include <string>

#include <orbivane/calibration.h>

int main() {
  CameraDescription::Orbivane camera;
  CameraDescription::OrbivaneModule module(L"front");
  module.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(Utils::Matrix4x4::translation(0.25f, 0.0f)));
  camera.addModule(module);
  const auto found = CameraDescription::findModule(camera, L"front");
  const auto shader = OrbivaneGeometry::clipMatrixShader(found->matrixGeometry()->matrix());
  auto picture = std::make_shared<Image::RGBImage>(64, 48, Image::kMappingBGR);
  const int score = BlurDetection::estimateBlur(picture, 0);
  if (!found || *shader.parameter("f_clipMatrix_m02") != "0.250000" || score != 0) return 1;

  SensorCalibration::FisheyeCalibration fisheye(*found, 97);
  SensorCalibration::ResolutionCalibration resolution(*found, 0.5f, 0.3f, 100);
  CameraDescription::Orbivane changed(camera);
  changed.findModule(L"front")->setFisheye(true);
  fisheye.updateOrbivane(changed);
  resolution.updateOrbivane(changed);
  // The whole calibration's options and reports come with the same header.
  GeometryCalibration::PipelineOptions options;
  options.steps = {"paint"};
  if (options.validate()) return 1;
  if (std::string(GeometryCalibration::statusName(GeometryCalibration::ModuleStatus::kept)) != "kept") return 1;
  std::cout << "consumer ok" << std::endl;
  return 0;
}

// The exported target-matching calibrator; the work is done by its state.
#include "orbivane/geometry_calibration/matrix_based/match_to_target.h"

#include <memory>

#include "geometry_calibration/matrix_based/match_to_target_state.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/camera/final_matrix.h"

namespace GeometryCalibration {
namespace MatrixBased {

// The calibrator's inside is its engine, MatchToTargetState.
struct MatchToTarget::Impl : MatchToTargetState {
  using MatchToTargetState::MatchToTargetState;
};

MatchToTarget::MatchToTarget(const CameraDescription::Orbivane& camera,
                             std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images)
    : impl_(std::make_unique<Impl>(camera, std::move(images))) {}

MatchToTarget::~MatchToTarget() = default;

CameraDescription::Orbivane MatchToTarget::calibrate(std::list<std::wstring> modules, std::wstring target) {
  return impl_->calibrate(*this, modules, target);
}

void MatchToTarget::setCalibrationMode(const CalibrateMode& mode) { impl_->mode = mode; }
MatchToTarget::CalibrateMode MatchToTarget::calibrationMode() const { return impl_->mode; }

void MatchToTarget::setGridEnabled(const bool& enabled) { impl_->gridEnabled = enabled; }

void MatchToTarget::initGrid(const int& columns, const int& rows, const std::wstring& module) {
  impl_->grids[module] = Utils::UVGrid(columns, rows);
}

Utils::UVGrid MatchToTarget::getGrid(const std::wstring& module) const {
  const auto it = impl_->grids.find(module);
  return it == impl_->grids.end() ? Utils::UVGrid() : it->second;
}

void MatchToTarget::setM2nMaxIteration(const std::uint64_t& limit) {
  impl_->m2nLimit = limit;
  impl_->m2nCountdown = limit;
}
std::uint64_t MatchToTarget::m2nMaxIteration() const { return impl_->m2nLimit; }

void MatchToTarget::setM2bMaxIteration(const std::uint64_t& limit) { impl_->m2bLimit = limit; }
std::uint64_t MatchToTarget::m2bMaxIteration() const { return impl_->m2bLimit; }

void MatchToTarget::allowScale(const float& scale) { impl_->allowedScale = scale; }

void MatchToTarget::registerStatusCallback(
    std::function<void(int, int, std::string, GeometryCalibration::AdvStepInfo)> callback) {
  impl_->callback = std::move(callback);
}

void MatchToTarget::abort() { impl_->abort.store(true); }

std::map<std::wstring, float> MatchToTarget::error() const { return impl_->errors; }

std::map<std::wstring, GeometryCalibration::ModuleReport> MatchToTarget::moduleReports() const {
  return impl_->reports;
}

float MatchToTarget::error(const std::wstring& module) const {
  const auto it = impl_->errors.find(module);
  return it == impl_->errors.end() ? kFailedError : it->second;
}

std::vector<std::shared_ptr<Image::UniversalImageInterface>> MatchToTarget::imgsWorkingCopy(
    const std::wstring& module) const {
  std::vector<std::shared_ptr<Image::UniversalImageInterface>> pictures;
  const auto it = impl_->workingCopies.find(module);
  if (it == impl_->workingCopies.end()) return pictures;
  for (const cv::Mat& picture : it->second) pictures.push_back(Image::fromMat(picture));
  return pictures;
}

Utils::Matrix4x4 MatchToTarget::transformToWorkSystem(const std::wstring& module,
                                                      const Utils::Matrix4x4& matrix) const {
  return impl_->toWorkSystem(module, matrix);
}

Utils::Matrix4x4 MatchToTarget::transformToResulte(const std::wstring& module, const Utils::Matrix4x4& matrix) const {
  return impl_->toResult(module, matrix);
}

Utils::Matrix4x4 MatchToTarget::calculateFinMatrix(const CameraDescription::Orbivane& camera,
                                                   const std::wstring& module) {
  return calculateFinMatrix(CameraDescription::findModule(camera, module));
}

Utils::Matrix4x4 MatchToTarget::calculateFinMatrix(std::shared_ptr<const CameraDescription::OrbivaneModule> module) {
  if (!module) return Utils::Matrix4x4::identity();
  const auto final = CameraDescription::finalMatrix(*module);
  return final ? *final : Utils::Matrix4x4::identity();
}

}  // namespace MatrixBased
}  // namespace GeometryCalibration

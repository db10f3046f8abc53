// Progress records and the calibrator interface.
#include "orbivane/geometry_calibration/adv_step_info.h"

#include "orbivane/geometry_calibration/geometry_calibration_inferface.h"

namespace GeometryCalibration {

StepDetail::StepDetail() = default;

StepDetail::StepDetail(const StepDetail& other)
    : images(other.images), values(other.values), geometry(other.geometry ? other.geometry->clone() : nullptr),
      module(other.module), reference(other.reference) {}

StepDetail& StepDetail::operator=(const StepDetail& other) {
  if (this != &other) {
    images = other.images;
    values = other.values;
    geometry = other.geometry ? other.geometry->clone() : nullptr;
    module = other.module;
    reference = other.reference;
  }
  return *this;
}

StepDetail::~StepDetail() = default;

AdvStepInfo::AdvStepInfo() = default;

AdvStepInfo::AdvStepInfo(std::shared_ptr<const CameraDescription::Orbivane> camera) : camera_(std::move(camera)) {}

AdvStepInfo::AdvStepInfo(const AdvStepInfo& other)
    : camera_(other.camera_), detail_(other.detail_ ? new StepDetail(*other.detail_) : nullptr) {}

AdvStepInfo::AdvStepInfo(AdvStepInfo&& other) noexcept : camera_(std::move(other.camera_)), detail_(other.detail_) {
  other.detail_ = nullptr;
}

AdvStepInfo& AdvStepInfo::operator=(const AdvStepInfo& other) {
  if (this != &other) {
    camera_ = other.camera_;
    StepDetail* copy = other.detail_ ? new StepDetail(*other.detail_) : nullptr;
    delete detail_;
    detail_ = copy;
  }
  return *this;
}

AdvStepInfo& AdvStepInfo::operator=(AdvStepInfo&& other) noexcept {
  if (this != &other) {
    camera_ = std::move(other.camera_);
    delete detail_;
    detail_ = other.detail_;
    other.detail_ = nullptr;
  }
  return *this;
}

AdvStepInfo::~AdvStepInfo() {
  delete detail_;
  detail_ = nullptr;
  camera_.reset();
}

void AdvStepInfo::setDetail(const StepDetail& detail) {
  StepDetail* copy = new StepDetail(detail);
  delete detail_;
  detail_ = copy;
}

GeometryCalibrationInferface::GeometryCalibrationInferface() = default;
GeometryCalibrationInferface::GeometryCalibrationInferface(const GeometryCalibrationInferface&) = default;
GeometryCalibrationInferface& GeometryCalibrationInferface::operator=(const GeometryCalibrationInferface&) = default;
GeometryCalibrationInferface::~GeometryCalibrationInferface() = default;

}  // namespace GeometryCalibration

// The detail a calibrator hands to its status callback with each step.
//
// `camera` is a shared handle to the camera description as it stood at that
// step (copies share it). `detail` is an optional record owned by this
// AdvStepInfo alone and deep-copied with it.
#pragma once

#include <list>
#include <map>
#include <memory>
#include <string>

#include "orbivane/camera/orbivane.h"
#include "orbivane/export.h"
#include "orbivane/geometry/geometry.h"
#include "orbivane/image/universal_image_interface.h"
#include "orbivane/utils/optional.h"

namespace GeometryCalibration {

// What a step has to show: pictures (for example a working copy or an
// overlap), named figures (errors, offsets), the geometry the step produced,
// and the module and reference it concerns.
struct ORBIVANE_EXPORT StepDetail {
  StepDetail();
  StepDetail(const StepDetail& other);
  StepDetail& operator=(const StepDetail& other);
  ~StepDetail();

  std::list<std::shared_ptr<Image::UniversalImageInterface>> images;
  std::map<std::string, double> values;
  std::unique_ptr<OrbivaneGeometry::Geometry> geometry;
  Utils::Optional<std::wstring> module;
  Utils::Optional<std::wstring> reference;
};

struct ORBIVANE_EXPORT AdvStepInfo {
 public:
  AdvStepInfo();
  AdvStepInfo(const AdvStepInfo& other);
  AdvStepInfo(AdvStepInfo&& other) noexcept;
  AdvStepInfo& operator=(const AdvStepInfo& other);
  AdvStepInfo& operator=(AdvStepInfo&& other) noexcept;
  ~AdvStepInfo();

  // A step that carries the camera as it stands.
  explicit AdvStepInfo(std::shared_ptr<const CameraDescription::Orbivane> camera);

  const std::shared_ptr<const CameraDescription::Orbivane>& camera() const { return camera_; }
  void setCamera(std::shared_ptr<const CameraDescription::Orbivane> camera) { camera_ = std::move(camera); }

  // The detail record, or null when there is none.
  const StepDetail* detail() const { return detail_; }
  StepDetail* detail() { return detail_; }
  // Replaces the detail record by a copy of `detail`.
  void setDetail(const StepDetail& detail);

 private:
  std::shared_ptr<const CameraDescription::Orbivane> camera_;
  StepDetail* detail_ = nullptr;  // owned exclusively; deep-copied
};

}  // namespace GeometryCalibration

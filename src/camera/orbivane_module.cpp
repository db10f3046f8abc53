// Module copy rules: member by member, in declaration order; owned objects are
// cloned, the neighbour stays a weak reference, the optional threshold gets
// an allocation of its own.
#include "orbivane/camera/orbivane_module.h"

namespace CameraDescription {

OrbivaneLinkage::OrbivaneLinkage() = default;
OrbivaneLinkage::OrbivaneLinkage(std::wstring leftName, std::wstring rightName, float share)
    : left(std::move(leftName)), right(std::move(rightName)), overlap(share) {}
OrbivaneLinkage::~OrbivaneLinkage() = default;
std::unique_ptr<OrbivaneLinkage> OrbivaneLinkage::clone() const {
  return std::unique_ptr<OrbivaneLinkage>(new OrbivaneLinkage(*this));
}

OrbivaneModule::OrbivaneModule(std::wstring name) : name_(std::move(name)) {}

OrbivaneModule::OrbivaneModule(const OrbivaneModule& other) { copyFrom(other); }

OrbivaneModule& OrbivaneModule::operator=(const OrbivaneModule& other) {
  if (this != &other) copyFrom(other);
  return *this;
}

OrbivaneModule::OrbivaneModule(OrbivaneModule&& other) noexcept = default;
OrbivaneModule& OrbivaneModule::operator=(OrbivaneModule&& other) noexcept = default;
OrbivaneModule::~OrbivaneModule() = default;

void OrbivaneModule::copyFrom(const OrbivaneModule& other) {
  name_ = other.name_;
  rotation_ = other.rotation_;
  geometry_.revision = other.geometry_.revision;
  geometry_.geometry = other.geometry_.geometry ? other.geometry_.geometry->clone() : nullptr;
  geometry_.linkage = other.geometry_.linkage ? other.geometry_.linkage->clone() : nullptr;
  content_.shaders = other.content_.shaders;
  content_.image = other.content_.image;
  content_.imagePath = other.content_.imagePath;
  content_.exposureGain = other.content_.exposureGain;
  content_.vignetting = other.content_.vignetting;
  channel_ = other.channel_;
  neighbour_ = other.neighbour_;
  connection_ = other.connection_;
  fisheye_ = other.fisheye_;
  fisheyeThreshold_ = other.fisheyeThreshold_ ? std::make_unique<std::int16_t>(*other.fisheyeThreshold_) : nullptr;
}

void OrbivaneModule::setGeometry(std::unique_ptr<OrbivaneGeometry::Geometry> geometry) {
  geometry_.geometry = std::move(geometry);
  ++geometry_.revision;
}

const OrbivaneGeometry::MatrixGeometry* OrbivaneModule::matrixGeometry() const {
  return dynamic_cast<const OrbivaneGeometry::MatrixGeometry*>(geometry_.geometry.get());
}

OrbivaneGeometry::MatrixGeometry* OrbivaneModule::matrixGeometry() {
  return dynamic_cast<OrbivaneGeometry::MatrixGeometry*>(geometry_.geometry.get());
}

Utils::Optional<std::int16_t> OrbivaneModule::fisheyeThreshold() const {
  if (!fisheyeThreshold_) return std::nullopt;
  return *fisheyeThreshold_;
}

void OrbivaneModule::setFisheyeThreshold(Utils::Optional<std::int16_t> threshold) {
  fisheyeThreshold_ = threshold ? std::make_unique<std::int16_t>(*threshold) : nullptr;
}

}  // namespace CameraDescription

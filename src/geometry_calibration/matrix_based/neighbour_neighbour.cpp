// The exported neighbour-stitching calibrator; the work is done by
// NeighbourStitcher.
#include "orbivane/geometry_calibration/matrix_based/neighbour_neighbour.h"

#include "geometry_calibration/matrix_based/neighbour_neighbour_access.h"
#include "geometry_calibration/matrix_based/neighbour_neighbour_stitcher.h"

namespace GeometryCalibration {
namespace MatrixBased {

// The calibrator's inside is its engine, NeighbourStitcher.
struct NeighbourNeighbour::Impl : NeighbourStitcher {
  using NeighbourStitcher::NeighbourStitcher;
};

NeighbourNeighbour::NeighbourNeighbour(const CameraDescription::Orbivane& camera,
                                       std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images,
                                       int levels, int iterations, float step)
    : impl_(std::make_unique<Impl>(camera, std::move(images), levels, iterations, step)),
      levels_(levels),
      iterations_(iterations),
      step_(step) {}

NeighbourNeighbour::~NeighbourNeighbour() = default;

CameraDescription::Orbivane NeighbourNeighbour::calibrate(std::list<std::wstring> modules, std::wstring reference) {
  return impl_->calibrate(modules, reference);
}

std::pair<float, float> NeighbourNeighbour::calibratePair(std::wstring first, std::wstring second, bool apply) {
  return impl_->calibratePair(first, second, apply);
}

void NeighbourNeighbour::registerStatusCallback(
    std::function<void(int, int, std::string, GeometryCalibration::AdvStepInfo)> callback) {
  impl_->setStatusCallback(std::move(callback));
}

const std::list<NeighbourNeighbour::PairTranslation>& NeighbourNeighbour::translations() const {
  return impl_->translations();
}

const std::list<GeometryCalibration::PairReport>& NeighbourNeighbour::pairReports() const {
  return impl_->pairReports();
}

void NeighbourNeighbourAccess::shareMeter(NeighbourNeighbour& stitcher, std::shared_ptr<SeamMeter> meter) {
  stitcher.impl_->shareMeter(std::move(meter));
}

}  // namespace MatrixBased
}  // namespace GeometryCalibration

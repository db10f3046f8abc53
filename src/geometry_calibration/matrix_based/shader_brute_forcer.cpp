// The exported shader parameter search; the work is done by ShaderSearch.
#include "orbivane/geometry_calibration/matrix_based/shader_brute_forcer.h"

#include <cmath>
#include <set>
#include <stdexcept>

#include "geometry_calibration/matrix_based/shader_brute_forcer_search.h"
#include "orbivane/geometry/shader_directories.h"

namespace GeometryCalibration {
namespace MatrixBased {

// The calibrator's inside is its engine, ShaderSearch.
struct ShaderBruteForcer::Impl : ShaderSearch {
  using ShaderSearch::ShaderSearch;
};

ShaderBruteForcer::ShaderBruteForcer(const CameraDescription::Orbivane& camera,
                                     std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images)
    : ShaderBruteForcer(camera, std::move(images), defaultParameterList()) {}

ShaderBruteForcer::ShaderBruteForcer(const CameraDescription::Orbivane& camera,
                                     std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images,
                                     ParameterList parameters)
{
  if (const auto valid = validateParameters(parameters); !valid) {
    throw std::invalid_argument("shader search parameters: " + valid.error());
  }
  impl_ = std::make_unique<Impl>(camera, std::move(images), std::move(parameters));
}

ShaderBruteForcer::~ShaderBruteForcer() = default;

std::list<CameraDescription::Orbivane> ShaderBruteForcer::searchForBestParameters(std::wstring module,
                                                                                  std::wstring reference) {
  return impl_->search(module, reference);
}

void ShaderBruteForcer::abort() { impl_->abort(); }

bool ShaderBruteForcer::aborted() const { return impl_->aborted(); }

ShaderBruteForcer::Plan ShaderBruteForcer::plan(const std::wstring& module, const std::wstring& reference) const {
  return impl_->plan(module, reference);
}
double ShaderBruteForcer::estimateSeconds(const std::wstring& module, const std::wstring& reference) const {
  return impl_->estimateSeconds(module, reference);
}
void ShaderBruteForcer::setShard(int index, int count) { impl_->setShard(index, count); }
void ShaderBruteForcer::setThreadCount(int threads) { impl_->setThreadCount(threads); }
void ShaderBruteForcer::registerStatusCallback(StatusCallback callback) { impl_->setStatusCallback(std::move(callback)); }
const std::list<ShaderBruteForcer::Result>& ShaderBruteForcer::results() const { return impl_->results(); }
std::uint64_t ShaderBruteForcer::evaluationCount() const { return impl_->evaluationCount(); }

ShaderBruteForcer::ParameterList ShaderBruteForcer::defaultParameterList() {
  return {
      {"f_TCorrection_F", {0.05f, 0.8f, 0.05f, 2}},
      {"f_TCorrection_H", {0.05f, 0.8f, 0.1f, 2}},
      {"f_TCorrection_V", {0.05f, 0.8f, 0.05f, 2}},
      {"f_ps_distortion_ext_xshift", {-0.3f, 0.3f, 0.05f, 1}},
      {"f_ps_distortion_ext_yshift", {-0.3f, 0.3f, 0.05f, 1}},
  };
}

std::vector<float> ShaderBruteForcer::parameterValues(const std::string& name, const MinMaxStep& range) {
  std::vector<float> values;
  if (name == "i_ps_distortion_ext_pwp") {
    for (int p = 2; p <= 20; ++p) values.push_back(static_cast<float>(p));
    return values;
  }
  // A step that does not move the value forward would never end: no values.
  if (!(range.step > 0.0f) || !std::isfinite(range.min) || !std::isfinite(range.max)) return values;
  for (float value = range.min; value < range.max; value += range.step) {
    if (!values.empty() && !(value > values.back())) break;  // the step is lost in rounding
    values.push_back(value);
  }
  return values;
}

Utils::ReturnState<bool, std::string> ShaderBruteForcer::validateParameters(const ParameterList& parameters) {
  constexpr double kMostPoints = 1099511627776.0;  // 2^40
  std::set<std::string> seen;
  double points = 1.0;
  for (const auto& [name, range] : parameters) {
    if (name.empty()) return Utils::failure("a parameter without a name");
    if (!seen.insert(name).second) return Utils::failure("'" + name + "' is listed twice");
    if (name != "i_ps_distortion_ext_pwp") {
      if (!std::isfinite(range.min) || !std::isfinite(range.max)) {
        return Utils::failure("'" + name + "': min and max must be finite numbers");
      }
      if (!std::isfinite(range.step) || !(range.step > 0.0f)) {
        return Utils::failure("'" + name + "': the step must be a finite number above 0");
      }
      if (!(range.min < range.max)) return Utils::failure("'" + name + "': min must be below max (no values)");
    }
    points *= double(parameterValues(name, range).size());
    if (points > kMostPoints) return Utils::failure("more than 2^40 grid points");
  }
  return true;
}

std::uint64_t ShaderBruteForcer::gridSize(const ParameterList& parameters) {
  std::uint64_t size = 1;
  for (const auto& entry : parameters) size *= parameterValues(entry.first, entry.second).size();
  return size;
}

std::list<ShaderBruteForcer::Result> ShaderBruteForcer::mergeResults(const std::list<std::list<Result>>& shards) {
  BestList best;
  for (const auto& shard : shards) {
    for (const auto& result : shard) best.insert(result);
  }
  return best.ordered();
}

CameraDescription::Orbivane ShaderBruteForcer::cameraWithParameters(const CameraDescription::Orbivane& camera,
                                                                    const std::wstring& module,
                                                                    const std::map<std::string, float>& parameters) {
  return MatrixBased::cameraWithParameters(camera, module, parameters, OrbivaneGeometry::knownShaders());
}

}  // namespace MatrixBased
}  // namespace GeometryCalibration

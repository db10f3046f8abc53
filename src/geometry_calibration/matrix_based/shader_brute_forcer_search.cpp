// The shader parameter search: reference preparation, grid walk, parallel
// evaluation and the best list.
#include "geometry_calibration/matrix_based/shader_brute_forcer_search.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <iostream>
#include <limits>
#include <stdexcept>


#include <opencv2/imgproc.hpp>

#include "geometry_calibration/matrix_based/shader_brute_forcer_edges.h"
#include "utils/parallel.h"
#include "logging/logger_setup.h"
#include "orbivane/geometry/matrix_representable_geometry.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/image/rgb_image.h"
#include "orbivane/platform/image_shading.h"
#include "orbivane/utils/wide_text.h"
#include "platform/image_shading_access.h"

namespace GeometryCalibration {
namespace MatrixBased {
namespace {

constexpr std::size_t kBatch = 2048;  // evaluations between progress reports

[[noreturn]] void unknownKey() { throw std::out_of_range("invalid map<K, T> key"); }

const std::shared_ptr<Image::UniversalImageInterface>& lookup(const ShaderSearch::Images& images,
                                                              const std::wstring& name) {
  const auto it = images.find(name);
  if (it == images.end()) unknownKey();
  return it->second;
}

std::string formatted(float value) {
  char text[64];
  std::snprintf(text, sizeof text, "%f", double(value));
  return text;
}

// The searched shader in a chain: the first of that UID, appended from its
// file when the chain lacks it.
OrbivaneGeometry::Shader& searchedShader(std::list<OrbivaneGeometry::Shader>& chain, const std::string& uid,
                                         const OrbivaneGeometry::Shader& fallback) {
  for (auto& shader : chain) {
    if (shader.uid() == uid) return shader;
  }
  chain.push_back(fallback);
  return chain.back();
}

}  // namespace

bool BestList::insert(const Result& result) {
  if (!std::isfinite(result.error)) return false;
  const auto same = entries_.find(result.error);
  if (same != entries_.end()) {
    if (result.gridIndex >= same->second.gridIndex) return false;
    same->second = result;
    return true;
  }
  if (entries_.size() >= capacity_) {
    if (capacity_ == 0) return false;
    const auto largest = std::prev(entries_.end());
    if (!(largest->first > result.error)) return false;
    entries_.erase(largest);
  }
  entries_.emplace(result.error, result);
  return true;
}

std::list<BestList::Result> BestList::ordered() const {
  std::list<Result> out;
  for (const auto& entry : entries_) out.push_back(entry.second);
  return out;
}

void writeParameters(OrbivaneGeometry::Shader& shader, const std::map<std::string, float>& parameters) {
  for (const auto& p : parameters) shader.setParameter(p.first, formatted(p.second));
}

CameraDescription::Orbivane cameraWithParameters(const CameraDescription::Orbivane& camera, const std::wstring& module,
                                                 const std::map<std::string, float>& parameters,
                                                 const std::map<std::string, OrbivaneGeometry::ShaderFile>& known) {
  CameraDescription::Orbivane copy = camera;
  const auto target = copy.findModule(module);
  if (!target) unknownKey();
  const std::string uid = target->geometry() ? target->geometry()->shaderId() : std::string();
  const auto file = known.find(uid);
  if (file == known.end()) throw std::runtime_error("Shader not found");
  writeParameters(searchedShader(target->shaders(), uid, file->second.shader), parameters);
  return copy;
}

struct ShaderSearch::ThreadState {
  ImageSource::ImageShading shading;
  std::list<OrbivaneGeometry::Shader> chain;
  OrbivaneGeometry::Shader* shader = nullptr;
  cv::Mat grey;
  int histogram[256] = {0};
  EdgeBuffers buffers;
};

ShaderSearch::ShaderSearch(const CameraDescription::Orbivane& camera, Images images,
                           ShaderBruteForcer::ParameterList parameters)
    : camera_(camera),
      images_(std::move(images)),
      parameters_(std::move(parameters)),
      logger_(Utils::calibratorLogger("MatrixBasedShaderBruteForcer")) {}

ShaderSearch::~ShaderSearch() = default;

void ShaderSearch::setShard(int index, int count) {
  if (count < 1 || index < 0 || index >= count) {
    throw std::invalid_argument("shard " + std::to_string(index) + " of " + std::to_string(count) +
                                ": need 0 <= index < count");
  }
  shardIndex_ = index;
  shardCount_ = count;
}

ShaderSearch::ThreadState& ShaderSearch::threadState() {
  std::lock_guard<std::mutex> lock(statesMutex_);
  auto& slot = states_[std::this_thread::get_id()];
  if (!slot) {
    auto state = std::make_unique<ThreadState>();
    state->chain = chain_;
    state->shader = &*std::find_if(state->chain.begin(), state->chain.end(),
                                   [&](const OrbivaneGeometry::Shader& s) { return s.uid() == shaderUid_; });
    state->shading.SetShader(state->chain);
    state->shading.SetSurface(surface_);
    if (grid_) state->shading.SetUVGrid(*grid_);
    if (prototype_) {
      ImageSource::ImageShadingAccess::renderer(state->shading)
          .shareCache(ImageSource::ImageShadingAccess::renderer(*prototype_));
    }
    slot = std::move(state);
  }
  return *slot;
}

std::map<std::string, float> ShaderSearch::parametersAt(std::uint64_t index) const {
  std::map<std::string, float> set;
  for (std::size_t i = values_.size(); i-- > 0;) {
    const std::uint64_t count = values_[i].size();
    set[names_[i]] = values_[i][std::size_t(index % count)];
    index /= count;
  }
  return set;
}

void ShaderSearch::evaluate(std::uint64_t index) {
  ThreadState& state = threadState();
  std::uint64_t rest = index;
  for (std::size_t i = values_.size(); i-- > 0;) {
    const std::uint64_t count = values_[i].size();
    state.shader->setParameter(names_[i], texts_[i][std::size_t(rest % count)]);
    rest /= count;
  }
  state.shading.SetShader(state.chain);
  ImageSource::ImageShadingAccess::renderer(state.shading)
      .renderGrey(moduleImage_, referenceEdges_.size(), state.grey, state.histogram);
  const EdgeScore score = edgeScore(state.grey, state.histogram, referenceEdges_, state.buffers);
  if (!(score.mean >= 1.0)) return;  // an empty rendering
  // Most evaluations cannot enter the full list; the bound only falls, so a
  // stale value lets a few more through to the exact test under the lock.
  if (!(score.error > rejectAbove_.load(std::memory_order_relaxed))) {
    std::lock_guard<std::mutex> lock(bestMutex_);
    if (!best_.rejects(score.error)) {
      best_.insert({score.error, index, parametersAt(index)});
      if (best_.full()) rejectAbove_.store(best_.largest(), std::memory_order_relaxed);
    }
  }
  if (counter_.fetch_add(1) % 10000 == 0) std::cout << " #" << std::flush;
}

void ShaderSearch::flush(std::vector<std::uint64_t>& pending) {
  if (pending.empty()) return;
  if (!shaderKnown_) throw std::runtime_error("Shader not found");
  Utils::parallelItems(pending.size(), 4, threads_, [&](std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i != end; ++i) evaluate(pending[i]);
  });
  done_ += pending.size();
  pending.clear();
  if (callback_) callback_(int(std::min<std::uint64_t>(done_, INT32_MAX)), int(std::min<std::uint64_t>(total_, INT32_MAX)),
                           "Searching Shader Parameters", AdvStepInfo());
}

std::list<CameraDescription::Orbivane> ShaderSearch::search(const std::wstring& module, const std::wstring& reference) {
  results_.clear();
  best_ = BestList();
  rejectAbove_ = std::numeric_limits<float>::infinity();
  prototype_.reset();
  counter_ = 0;
  done_ = total_ = 0;
  states_.clear();

  // 1. The module, its picture and the reference.
  const auto found = camera_.findModule(module);
  if (!found) unknownKey();
  moduleImage_ = lookup(images_, module);
  const auto referenceImage = lookup(images_, reference);
  const std::string name = Utils::toUtf8(module);
  const auto* geometry = dynamic_cast<const OrbivaneGeometry::MatrixRepresentableGeometry*>(found->geometry());
  if (geometry == nullptr) {
    logger_->warn("Module {} has no Matrix Geometry.. Skipping pmodule", name);
    return {};
  }
  if (!moduleImage_ || moduleImage_->empty() || !referenceImage || referenceImage->empty()) {
    logger_->warn("Module {}: empty picture or reference; nothing to search", name);
    return {};
  }
  shaderUid_ = geometry->shaderId();
  const auto known = OrbivaneGeometry::knownShaders();
  const auto file = known.find(shaderUid_);
  shaderKnown_ = file != known.end();
  chain_ = found->shaders();
  if (shaderKnown_) searchedShader(chain_, shaderUid_, file->second.shader);
  grid_.reset();
  if (const auto* matrixGeometry = found->matrixGeometry()) {
    if (matrixGeometry->uvGrid() && !matrixGeometry->uvGrid()->empty()) grid_ = *matrixGeometry->uvGrid();
  }

  // 2. The surface, a quarter of the reference, and the rendered size.
  const Utils::Size surfaceSize{referenceImage->width() >> 2, referenceImage->height() >> 2};
  if (surfaceSize.empty()) {
    logger_->warn("Module {}: reference of {}x{} pixels is below 4x4; nothing to search", name,
                  referenceImage->width(), referenceImage->height());
    return {};
  }
  surface_ = std::make_shared<Image::RGBImage>(surfaceSize.width, surfaceSize.height, Image::kMappingBGR);
  cv::Size rendered;
  {
    // Kept: every thread's shading object takes over its working picture and coordinates.
    prototype_ = std::make_unique<ImageSource::ImageShading>();
    prototype_->SetShader(chain_);
    prototype_->SetSurface(surface_);
    if (grid_) prototype_->SetUVGrid(*grid_);
    const auto picture = prototype_->Apply(moduleImage_, surfaceSize);
    rendered = cv::Size(picture->width(), picture->height());
  }

  // 3. The module's rectangle on the reference.
  const auto quad = OrbivaneGeometry::moduleSurfaceQuad(geometry->matrix());
  if (!quad || rendered.empty()) {
    logger_->warn("Module {}: its matrix does not place the picture on the surface; nothing to search", name);
    return {};
  }
  float left = quad->corners[0].x, right = left, top = quad->corners[0].y, bottom = top;
  for (const auto& corner : quad->corners) {
    left = std::min(left, corner.x);
    right = std::max(right, corner.x);
    top = std::min(top, corner.y);
    bottom = std::max(bottom, corner.y);
  }
  const cv::Mat referenceMat = Image::toMat(referenceImage);
  const double cols = referenceMat.cols, rows = referenceMat.rows;
  const double x = cols * left, y = rows * top, w = cols * (right - left), h = rows * (bottom - top);
  const double limit = 1e8;
  if (!(std::fabs(x) < limit && std::fabs(y) < limit && w >= 1.0 && h >= 1.0 && w < limit && h < limit)) {
    logger_->warn("Module {}: its rectangle on the reference has no pixels; nothing to search", name);
    return {};
  }
  const cv::Rect rect(static_cast<int>(x), static_cast<int>(y), static_cast<int>(w), static_cast<int>(h));
  // 4. Its edge image; parts outside the reference are black.
  const cv::Rect inside = rect & cv::Rect(0, 0, referenceMat.cols, referenceMat.rows);
  cv::Mat cut;
  if (inside == rect && referenceMat.type() == CV_8UC3) {
    cut = referenceMat(rect);  // wholly inside: read in place
  } else {
    cut = cv::Mat::zeros(rect.size(), CV_8UC3);
    if (!inside.empty()) referenceMat(inside).copyTo(cut(inside - rect.tl()));
  }
  referenceEdges_ = edgeImageOfColour(cut, rendered);
  logger_->info("Module {}: rectangle {}x{} at ({}, {}) on the reference, rendering {}x{}", name, rect.width,
                rect.height, rect.x, rect.y, rendered.width, rendered.height);

  // The walk.
  names_.clear();
  values_.clear();
  texts_.clear();
  for (const auto& entry : parameters_) {
    names_.push_back(entry.first);
    values_.push_back(ShaderBruteForcer::parameterValues(entry.first, entry.second));
    texts_.emplace_back();
    for (const float value : values_.back()) texts_.back().push_back(formatted(value));
  }
  const auto& names = names_;
  const auto& values = values_;
  std::size_t outerBegin = 0, outerEnd = 0;
  if (!values.empty()) {
    const std::size_t n = values[0].size();
    outerBegin = n * std::size_t(shardIndex_) / std::size_t(shardCount_);
    outerEnd = n * std::size_t(shardIndex_ + 1) / std::size_t(shardCount_);
    total_ = outerEnd - outerBegin;
    for (std::size_t i = 1; i < values.size(); ++i) total_ *= values[i].size();
  } else {
    total_ = 1;
  }

  std::vector<std::uint64_t> pending;
  pending.reserve(kBatch);
  std::function<void(std::size_t, std::map<std::string, float>, std::uint64_t)> walk =
      [&](std::size_t position, std::map<std::string, float> set, std::uint64_t index) {
        if (position == names.size()) {
          pending.push_back(index);
          if (pending.size() >= kBatch) flush(pending);
          return;
        }
        const auto& range = values[position];
        const std::size_t begin = position == 0 ? outerBegin : 0;
        const std::size_t end = position == 0 ? outerEnd : range.size();
        for (std::size_t j = begin; j < end; ++j) {
          set[names[position]] = range[j];
          if (position == 0) {
            flush(pending);
            std::cout << range[j] << std::endl;
          }
          walk(position + 1, set, index * range.size() + j);
        }
      };
  walk(0, {}, 0);
  flush(pending);
  states_.clear();
  prototype_.reset();

  // The result.
  results_ = best_.ordered();
  std::list<CameraDescription::Orbivane> cameras;
  int place = 0;
  for (const auto& result : results_) {
    std::cout << "Best " << place++ << " Error: " << result.error << std::endl;
    cameras.push_back(cameraWithParameters(camera_, module, result.parameters, known));
  }
  return cameras;
}

}  // namespace MatrixBased
}  // namespace GeometryCalibration

// The shader parameter search: reference preparation, grid walk, parallel
// evaluation and the best list.
#include "geometry_calibration/matrix_based/shader_brute_forcer_search.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <cmath>
#include <cstdio>
#include <functional>
#include <iostream>
#include <limits>
#include <stdexcept>
#include <tuple>


#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>

#include "geometry_calibration/matrix_based/shader_brute_forcer_edges.h"
#include "utils/parallel.h"
#include "logging/logger_setup.h"
#include "orbivane/geometry/matrix_representable_geometry.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/image/rgb_image.h"
#include "orbivane/shading/image_shading.h"
#include "orbivane/utils/wide_text.h"
#include "shading/image_shading_access.h"
#include "shading/shader_renderer_family.h"

namespace GeometryCalibration {
namespace MatrixBased {
namespace {

constexpr std::size_t kBatch = 2048;  // fewest evaluations between progress reports

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

// The module's rectangle on a reference of `size` pixels: the bounding box
// of where its matrix puts its unit square, in reference pixels (see
// shader_brute_forcer.h); nothing when it has no pixels.
Utils::Optional<cv::Rect> rectangleOnReference(const OrbivaneGeometry::MatrixRepresentableGeometry& geometry,
                                               cv::Size size) {
  const auto quad = OrbivaneGeometry::moduleSurfaceQuad(geometry.matrix());
  if (!quad) return std::nullopt;
  float left = quad->corners[0].x, right = left, top = quad->corners[0].y, bottom = top;
  for (const auto& corner : quad->corners) {
    left = std::min(left, corner.x);
    right = std::max(right, corner.x);
    top = std::min(top, corner.y);
    bottom = std::max(bottom, corner.y);
  }
  const double x = size.width * double(left), y = size.height * double(top);
  const double w = size.width * double(right - left), h = size.height * double(bottom - top);
  const double limit = 1e8;
  if (!(std::fabs(x) < limit && std::fabs(y) < limit && w >= 1.0 && h >= 1.0 && w < limit && h < limit)) {
    return std::nullopt;
  }
  return cv::Rect(static_cast<int>(x), static_cast<int>(y), static_cast<int>(w), static_cast<int>(h));
}

// Grid points of shard `index` of `count` (contiguous ranges of the
// outermost values), and that range of the outermost values.
std::uint64_t shardRenderings(const std::vector<std::vector<float>>& values, int index, int count,
                              std::size_t& outerBegin, std::size_t& outerEnd) {
  outerBegin = outerEnd = 0;
  if (values.empty()) return 1;
  const std::size_t n = values[0].size();
  outerBegin = n * std::size_t(index) / std::size_t(count);
  outerEnd = n * std::size_t(index + 1) / std::size_t(count);
  std::uint64_t total = outerEnd - outerBegin;
  for (std::size_t i = 1; i < values.size(); ++i) total *= values[i].size();
  return total;
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
  ImageSource::ImageShading shading;  // this thread's shading object
  ImageSource::GreyFamily family;
  cv::Mat grey, secondGrey;
  int histogram[256] = {0};
  std::vector<std::uint16_t> pairs;
  EdgeBuffers buffers;
};

// Grid points that render with the same family of distortions.
struct ShaderSearch::Family {
  ImageSource::LensDistortion member;  // any member (H and V not read)
  struct Point {
    float horizontal, vertical;
    std::uint64_t index;
  };
  std::vector<Point> points;  // by H, then V, then grid order
};

ShaderSearch::ShaderSearch(const CameraDescription::Orbivane& camera, Images images,
                           ShaderBruteForcer::ParameterList parameters)
    : camera_(camera),
      images_(std::move(images)),
      parameters_(std::move(parameters)),
      logger_(Utils::calibratorLogger("MatrixBasedShaderBruteForcer")) {}

ShaderSearch::~ShaderSearch() = default;

ShaderBruteForcer::Plan ShaderSearch::plan(const std::wstring& module, const std::wstring& reference) const {
  ShaderBruteForcer::Plan plan;
  const auto found = camera_.findModule(module);
  if (!found) unknownKey();
  const auto& moduleImage = lookup(images_, module);
  const auto& referenceImage = lookup(images_, reference);
  std::vector<std::vector<float>> values;
  for (const auto& entry : parameters_) values.push_back(ShaderBruteForcer::parameterValues(entry.first, entry.second));
  std::size_t outerBegin = 0, outerEnd = 0;
  plan.renderings = shardRenderings(values, shardIndex_, shardCount_, outerBegin, outerEnd);
  plan.threads = threads_ > 0 ? threads_ : std::max(1, cv::getNumThreads());
  const auto* geometry = dynamic_cast<const OrbivaneGeometry::MatrixRepresentableGeometry*>(found->geometry());
  if (geometry == nullptr || !moduleImage || moduleImage->empty() || !referenceImage || referenceImage->empty() ||
      referenceImage->width() < 4 || referenceImage->height() < 4) {
    return plan;
  }
  const auto rect = rectangleOnReference(*geometry, cv::Size(referenceImage->width(), referenceImage->height()));
  if (!rect) return plan;
  plan.rectangleWidth = rect->width;
  plan.rectangleHeight = rect->height;
  plan.renderedWidth = std::max(1, rect->width / 4);
  plan.renderedHeight = std::max(1, rect->height / 4);
  plan.bytes = ShaderBruteForcer::kSearchBytesPerPixel * std::uint64_t(rect->width) * std::uint64_t(rect->height);
  return plan;
}

namespace {

// The grid of a timing probe: whole families (the renderings that share
// strength, centre, power and method, which differ only in the horizontal
// and vertical corrections) at the middle of every other range, and about
// `families` of them side by side from the innermost family parameter that
// has that many values.
ShaderBruteForcer::ParameterList probeList(const ShaderBruteForcer::ParameterList& list, int families) {
  const auto inFamily = [](const std::string& name) { return name == "f_TCorrection_H" || name == "f_TCorrection_V"; };
  ShaderBruteForcer::ParameterList probe;
  bool spread = false;
  for (auto it = list.rbegin(); it != list.rend(); ++it) {
    const std::string& name = it->first;
    auto range = it->second;
    const auto values = ShaderBruteForcer::parameterValues(name, range);
    // The power's values are fixed (2..20): it stays whole, a family each.
    if (!inFamily(name) && name != "i_ps_distortion_ext_pwp" && !values.empty()) {
      const std::size_t keep = spread ? 1 : std::min<std::size_t>(values.size(), std::size_t(families));
      spread = spread || keep > 1;
      const std::size_t first = (values.size() - keep) / 2;
      range.min = values[first];
      range.max = values[first + keep - 1] + range.step * 0.5f;
    }
    probe.emplace_front(name, range);
  }
  return probe;
}

}  // namespace

double ShaderSearch::estimateSeconds(const std::wstring& module, const std::wstring& reference) const {
  const auto planned = plan(module, reference);
  if (planned.bytes == 0 || planned.renderings == 0) return 0.0;
  ShaderSearch probe(camera_, images_, probeList(parameters_, 2 * planned.threads));
  probe.quiet_ = true;
  probe.threads_ = threads_;
  const auto started = std::chrono::steady_clock::now();
  probe.search(module, reference);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  const std::uint64_t sampled = probe.evaluationCount();
  if (sampled == 0) return seconds;
  const double perRendering = std::max(0.0, seconds - probe.preparationSeconds_) / double(sampled);
  return probe.preparationSeconds_ + perRendering * double(planned.renderings);
}

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
    state->shading.SetShader(chain_);
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

namespace {

enum DistortionField : std::uint8_t {
  kStrength = 1,
  kHorizontal = 2,
  kVertical = 4,
  kShiftX = 8,
  kShiftY = 16,
  kPower = 32,
  kMethod = 64
};

std::uint8_t differingFields(const ImageSource::LensDistortion& a, const ImageSource::LensDistortion& b) {
  std::uint8_t fields = 0;
  if (a.strength != b.strength) fields |= kStrength;
  if (a.horizontal != b.horizontal) fields |= kHorizontal;
  if (a.vertical != b.vertical) fields |= kVertical;
  if (a.shiftX != b.shiftX) fields |= kShiftX;
  if (a.shiftY != b.shiftY) fields |= kShiftY;
  if (a.power != b.power) fields |= kPower;
  if (a.method != b.method) fields |= kMethod;
  return fields;
}

void applyFields(ImageSource::LensDistortion& d, std::uint8_t fields, const ImageSource::LensDistortion& values) {
  if (fields & kStrength) d.strength = values.strength;
  if (fields & kHorizontal) d.horizontal = values.horizontal;
  if (fields & kVertical) d.vertical = values.vertical;
  if (fields & kShiftX) d.shiftX = values.shiftX;
  if (fields & kShiftY) d.shiftY = values.shiftY;
  if (fields & kPower) d.power = values.power;
  if (fields & kMethod) d.method = values.method;
}

// Processor time of the calling thread (what the profile sums: waiting
// for other programs on a busy machine does not count).
std::uint64_t threadTime() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return std::uint64_t(t.tv_sec) * 1000000000u + std::uint64_t(t.tv_nsec);
}

}  // namespace

void ShaderSearch::prepareDistortions() {
  // The renderer reads the chain's lens distortion shader; the walk writes
  // its texts into the searched shader. Each value's effect is found by
  // writing it alone into the chain and reading the distortion back.
  baseDistortion_ = ImageSource::LensDistortion::fromChain(chain_);
  patchFields_.assign(names_.size(), {});
  patchValues_.assign(names_.size(), {});
  for (std::size_t i = 0; i < names_.size(); ++i) {
    // A name written again later in the walk's list order is overwritten by
    // the earlier position (the values are written last to first).
    if (std::find(names_.begin(), names_.begin() + std::ptrdiff_t(i), names_[i]) != names_.begin() + std::ptrdiff_t(i)) {
      patchFields_[i].assign(texts_[i].size(), 0);
      patchValues_[i].assign(texts_[i].size(), baseDistortion_);
      continue;
    }
    for (const auto& text : texts_[i]) {
      std::list<OrbivaneGeometry::Shader> chain = chain_;
      searchedShader(chain, shaderUid_, chain.front()).setParameter(names_[i], text);
      const ImageSource::LensDistortion d = ImageSource::LensDistortion::fromChain(chain);
      patchFields_[i].push_back(differingFields(d, baseDistortion_));
      patchValues_[i].push_back(d);
    }
  }
}

ImageSource::LensDistortion ShaderSearch::distortionAt(std::uint64_t index) const {
  ImageSource::LensDistortion d = baseDistortion_;
  for (std::size_t i = values_.size(); i-- > 0;) {
    const std::uint64_t count = values_[i].size();
    const std::size_t j = std::size_t(index % count);
    applyFields(d, patchFields_[i][j], patchValues_[i][j]);
    index /= count;
  }
  return d;
}

ShaderSearch::Profile ShaderSearch::profile() const {
  Profile p;
  p.preparation = preparationTime_.load();
  p.sampling = samplingTime_.load();
  p.histogram = histogramTime_.load();
  p.edges = edgesTime_.load();
  p.evaluations = renderings_.load();
  p.stopped = stopped_.load();
  p.rowsSummed = rowsSummed_.load();
  return p;
}

void ShaderSearch::evaluateFamily(const Family& family) {
  ThreadState& state = threadState();
  ImageSource::ShaderRenderer& renderer = ImageSource::ImageShadingAccess::renderer(state.shading);
  const cv::Size size = referenceEdges_.size();
  const double pixels = double(size.width) * double(size.height);
  // Profiling: processor time per phase, read only when asked for.
  std::uint64_t t = profiling_ ? threadTime() : 0;
  std::uint64_t preparation = 0, sampling = 0, histogram = 0, edges = 0, stopped = 0, rowsSummed = 0;
  auto lap = [&](std::uint64_t& phase) {
    if (!profiling_) return;
    const std::uint64_t now = threadTime();
    phase += now - t;
    t = now;
  };
  state.family.prepare(renderer.source(moduleImage_, size), renderer.coordinates(size), family.member);
  lap(preparation);
  auto score = [&](const Family::Point& point, const cv::Mat& grey) {
    ImageSource::greyHistogram(grey, size.width, &state.family.blankRows(), state.histogram, state.pairs);
    lap(histogram);
    // An error above the largest of a full list is not kept: the score may stop once that is certain.
    const std::uint64_t stopAt = stoppingSum(rejectAbove_.load(std::memory_order_relaxed), pixels);
    const EdgeScore result = edgeScore(grey, state.histogram, referenceEdges_, state.buffers, stopAt,
                                       &state.family.blankRows(), &referenceRowSums_);
    lap(edges);
    if (!result.complete) ++stopped;
    rowsSummed += std::uint64_t(result.rows);
    if (!result.edged) return;  // an empty rendering
    // Most evaluations cannot enter the full list; the bound only falls, so a
    // stale value lets a few more through to the exact test under the lock.
    if (result.complete && !(result.error > rejectAbove_.load(std::memory_order_relaxed))) {
      std::lock_guard<std::mutex> lock(bestMutex_);
      if (!best_.rejects(result.error)) {
        best_.insert({result.error, point.index, parametersAt(point.index)});
        if (best_.full()) rejectAbove_.store(best_.largest(), std::memory_order_relaxed);
      }
    }
    if (counter_.fetch_add(1) % 10000 == 0 && !quiet_) std::cout << " #" << std::flush;
  };
  // Points of one horizontal weight are rendered two at a time (they share
  // what that weight gives the sampler).
  for (std::size_t i = 0; i < family.points.size();) {
    const Family::Point& point = family.points[i];
    const bool paired = i + 1 < family.points.size() && family.points[i + 1].horizontal == point.horizontal;
    state.family.prepareParts(point.horizontal, point.vertical);
    if (paired) state.family.prepareParts(point.horizontal, family.points[i + 1].vertical);
    lap(preparation);
    if (paired) {
      state.family.render(point.horizontal, point.vertical, state.grey, family.points[i + 1].vertical, state.secondGrey);
    } else {
      state.family.render(point.horizontal, point.vertical, state.grey);
    }
    lap(sampling);
    score(point, state.grey);
    if (paired) score(family.points[i + 1], state.secondGrey);
    i += paired ? 2 : 1;
  }
  if (profiling_) {
    preparationTime_ += preparation;
    samplingTime_ += sampling;
    histogramTime_ += histogram;
    edgesTime_ += edges;
    renderings_ += family.points.size();
    stopped_ += stopped;
    rowsSummed_ += rowsSummed;
  }
}

void ShaderSearch::flush(std::vector<std::uint64_t>& pending) {
  if (pending.empty()) return;
  if (!shaderKnown_) throw std::runtime_error("Shader not found");
  // The families, in the order of their first point.
  std::vector<Family> families;
  std::map<std::tuple<float, float, float, int, int>, std::size_t> byKey;
  for (const std::uint64_t index : pending) {
    const ImageSource::LensDistortion d = distortionAt(index);
    const auto key = std::make_tuple(d.strength, d.shiftX, d.shiftY, d.power, d.method);
    const auto it = byKey.find(key);
    if (it == byKey.end()) {
      byKey.emplace(key, families.size());
      families.push_back(Family{d, {}});
      families.back().points.push_back({d.horizontal, d.vertical, index});
    } else {
      families[it->second].points.push_back({d.horizontal, d.vertical, index});
    }
  }
  for (auto& family : families) {
    std::stable_sort(family.points.begin(), family.points.end(), [](const Family::Point& a, const Family::Point& b) {
      return a.horizontal != b.horizontal ? a.horizontal < b.horizontal : a.vertical < b.vertical;
    });
  }
  // In a few batches of families, each reported when done.
  const std::size_t batch = std::max<std::size_t>(kBatch, pending.size() / 4);
  std::size_t first = 0;
  while (first < families.size() && !abort_.load()) {
    std::size_t last = first, points = 0;
    while (last < families.size() && points < batch) points += families[last++].points.size();
    Utils::parallelItems(last - first, 1, threads_, [&](std::size_t begin, std::size_t end) {
      for (std::size_t i = begin; i != end; ++i) evaluateFamily(families[first + i]);
    });
    done_ += points;
    if (callback_) {
      callback_(int(std::min<std::uint64_t>(done_, INT32_MAX)), int(std::min<std::uint64_t>(total_, INT32_MAX)),
                "Searching Shader Parameters", AdvStepInfo());
    }
    first = last;
  }
  pending.clear();
}

void ShaderSearch::reset() {
  results_.clear();
  best_ = BestList();
  rejectAbove_ = std::numeric_limits<float>::infinity();
  prototype_.reset();
  counter_ = 0;
  done_ = total_ = 0;
  states_.clear();
}

const OrbivaneGeometry::MatrixRepresentableGeometry* ShaderSearch::takeModule(const std::wstring& module,
                                                                              const std::wstring& reference) {
  const auto found = camera_.findModule(module);
  if (!found) unknownKey();
  moduleImage_ = lookup(images_, module);
  referenceImage_ = lookup(images_, reference);
  const std::string name = Utils::toUtf8(module);
  const auto* geometry = dynamic_cast<const OrbivaneGeometry::MatrixRepresentableGeometry*>(found->geometry());
  if (geometry == nullptr) {
    logger_->warn("Module {} has no Matrix Geometry.. Skipping pmodule", name);
    return nullptr;
  }
  if (!moduleImage_ || moduleImage_->empty() || !referenceImage_ || referenceImage_->empty()) {
    logger_->warn("Module {}: empty picture or reference; nothing to search", name);
    return nullptr;
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
  return geometry;
}

Utils::Optional<cv::Size> ShaderSearch::prepareRenderer(const std::string& name) {
  // The surface is a quarter of the reference each way.
  const Utils::Size surfaceSize{referenceImage_->width() >> 2, referenceImage_->height() >> 2};
  if (surfaceSize.empty()) {
    logger_->warn("Module {}: reference of {}x{} pixels is below 4x4; nothing to search", name,
                  referenceImage_->width(), referenceImage_->height());
    return std::nullopt;
  }
  surface_ = std::make_shared<Image::RGBImage>(surfaceSize.width, surfaceSize.height, Image::kMappingBGR);
  // Kept: every thread's shading object takes over its working picture and coordinates.
  prototype_ = std::make_unique<ImageSource::ImageShading>();
  prototype_->SetShader(chain_);
  prototype_->SetSurface(surface_);
  if (grid_) prototype_->SetUVGrid(*grid_);
  const auto picture = prototype_->Apply(moduleImage_, surfaceSize);
  return cv::Size(picture->width(), picture->height());
}

bool ShaderSearch::prepareReference(const OrbivaneGeometry::MatrixRepresentableGeometry& geometry,
                                    cv::Size rendered, const std::string& name) {
  const cv::Mat referenceMat = Image::toMat(referenceImage_);
  const auto placed = rendered.empty() ? Utils::Optional<cv::Rect>() : rectangleOnReference(geometry, referenceMat.size());
  if (!placed) {
    logger_->warn("Module {}: its matrix does not place the picture on the surface, or its rectangle on the "
                  "reference has no pixels; nothing to search", name);
    return false;
  }
  const cv::Rect rect = *placed;
  // Parts of the rectangle outside the reference are black.
  const cv::Rect inside = rect & cv::Rect(0, 0, referenceMat.cols, referenceMat.rows);
  cv::Mat cut;
  if (inside == rect && referenceMat.type() == CV_8UC3) {
    cut = referenceMat(rect);  // wholly inside: read in place
  } else {
    cut = cv::Mat::zeros(rect.size(), CV_8UC3);
    if (!inside.empty()) referenceMat(inside).copyTo(cut(inside - rect.tl()));
  }
  referenceEdges_ = edgeImageOfColour(cut, rendered);
  referenceRowSums_.assign(std::size_t(referenceEdges_.rows), 0);
  for (int r = 0; r < referenceEdges_.rows; ++r) {
    const std::uint8_t* row = referenceEdges_.ptr<std::uint8_t>(r);
    std::uint32_t sum = 0;
    for (int c = 0; c < referenceEdges_.cols; ++c) sum += row[c];
    referenceRowSums_[std::size_t(r)] = sum;
  }
  if (!quiet_) logger_->info("Module {}: rectangle {}x{} at ({}, {}) on the reference, rendering {}x{}", name, rect.width,
                rect.height, rect.x, rect.y, rendered.width, rendered.height);
  return true;
}

void ShaderSearch::prepareWalk(std::size_t& outerBegin, std::size_t& outerEnd) {
  names_.clear();
  values_.clear();
  texts_.clear();
  for (const auto& entry : parameters_) {
    names_.push_back(entry.first);
    values_.push_back(ShaderBruteForcer::parameterValues(entry.first, entry.second));
    texts_.emplace_back();
    for (const float value : values_.back()) texts_.back().push_back(formatted(value));
  }
  total_ = shardRenderings(values_, shardIndex_, shardCount_, outerBegin, outerEnd);
  if (shaderKnown_) prepareDistortions();
}

void ShaderSearch::walk(std::size_t outerBegin, std::size_t outerEnd) {
  // The points of one outermost value are evaluated together (by families).
  std::vector<std::uint64_t> pending;
  std::function<void(std::size_t, std::uint64_t)> visit = [&](std::size_t position, std::uint64_t index) {
    if (position == names_.size()) {
      pending.push_back(index);
      return;
    }
    const auto& range = values_[position];
    const std::size_t begin = position == 0 ? outerBegin : 0;
    const std::size_t end = position == 0 ? outerEnd : range.size();
    for (std::size_t j = begin; j < end && !abort_.load(); ++j) {
      if (position == 0) {
        flush(pending);
        if (!quiet_) std::cout << range[j] << std::endl;
      }
      visit(position + 1, index * range.size() + j);
    }
  };
  visit(0, 0);
  flush(pending);
  states_.clear();
  prototype_.reset();
}

std::list<CameraDescription::Orbivane> ShaderSearch::search(const std::wstring& module, const std::wstring& reference) {
  reset();
  if (abort_.load()) return {};
  const auto started = std::chrono::steady_clock::now();
  const std::string name = Utils::toUtf8(module);
  const auto* geometry = takeModule(module, reference);
  if (geometry == nullptr) return {};
  const auto rendered = prepareRenderer(name);
  if (!rendered || !prepareReference(*geometry, *rendered, name)) return {};
  std::size_t outerBegin = 0, outerEnd = 0;
  prepareWalk(outerBegin, outerEnd);
  preparationSeconds_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  walk(outerBegin, outerEnd);
  // An aborted search saw part of the grid: its best are not the grid's.
  if (abort_.load()) return {};

  results_ = best_.ordered();
  std::list<CameraDescription::Orbivane> cameras;
  int place = 0;
  const auto known = OrbivaneGeometry::knownShaders();
  for (const auto& result : results_) {
    if (!quiet_) std::cout << "Best " << place++ << " Error: " << result.error << std::endl;
    cameras.push_back(cameraWithParameters(camera_, module, result.parameters, known));
  }
  return cameras;
}

}  // namespace MatrixBased
}  // namespace GeometryCalibration

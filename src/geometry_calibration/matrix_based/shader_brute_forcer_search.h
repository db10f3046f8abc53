// Inside of the shader parameter search: the best list, the grid walk and
// the parallel evaluation.
//
// The walk collects the grid points of each outermost value, works out the
// lens distortion each one renders with (the "%f" texts read back as the
// renderer reads them) and evaluates them family by family
// (shading/shader_renderer_family.h): the points that share strength,
// centre, power and method, in parallel over families, one family on one
// thread at a time. An evaluation stops as soon as its difference sum shows
// that the ten best would not keep it.
#pragma once

#include <atomic>
#include <cstdint>
#include <iterator>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/core/mat.hpp>
#include <spdlog/logger.h>

#include "orbivane/geometry/shader_directories.h"
#include "orbivane/geometry_calibration/matrix_based/shader_brute_forcer.h"
#include "orbivane/shading/image_shading.h"
#include "orbivane/utils/uv_grid.h"
#include "shading/distortion_model.h"

namespace GeometryCalibration {
namespace MatrixBased {

// The ten best results: the smallest distinct errors, each with the result
// that comes first in grid order. The outcome does not depend on the order
// of insertion, so parallel evaluations and merged shards agree with the
// sequential walk (where an equal error keeps the earlier result).
class BestList {
 public:
  using Result = ShaderBruteForcer::Result;
  explicit BestList(std::size_t capacity = 10) : capacity_(capacity) {}

  // Returns whether the result was kept. Non-finite errors are not.
  bool insert(const Result& result);
  std::list<Result> ordered() const;
  std::size_t size() const { return entries_.size(); }
  // Whether a result of this error cannot be kept: the list is full and
  // every kept error is smaller.
  bool rejects(float error) const { return capacity_ == 0 || (full() && largest() < error); }
  bool full() const { return capacity_ > 0 && entries_.size() >= capacity_; }
  // The largest kept error; the list must not be empty.
  float largest() const { return std::prev(entries_.end())->first; }

 private:
  std::size_t capacity_;
  std::map<float, Result> entries_;
};

// Writes each value into the shader as "%f" text.
void writeParameters(OrbivaneGeometry::Shader& shader, const std::map<std::string, float>& parameters);

// The camera copy of ShaderBruteForcer::cameraWithParameters; `known` are the
// shader files by UID.
CameraDescription::Orbivane cameraWithParameters(const CameraDescription::Orbivane& camera, const std::wstring& module,
                                                 const std::map<std::string, float>& parameters,
                                                 const std::map<std::string, OrbivaneGeometry::ShaderFile>& known);

class ShaderSearch {
 public:
  using Images = std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>>;

  ShaderSearch(const CameraDescription::Orbivane& camera, Images images, ShaderBruteForcer::ParameterList parameters);
  ~ShaderSearch();

  std::list<CameraDescription::Orbivane> search(const std::wstring& module, const std::wstring& reference);

  ShaderBruteForcer::Plan plan(const std::wstring& module, const std::wstring& reference) const;
  // Seconds the search would take on this machine (ShaderBruteForcer::
  // estimateSeconds); 0 when it has nothing to render.
  double estimateSeconds(const std::wstring& module, const std::wstring& reference) const;
  void setShard(int index, int count);
  void setThreadCount(int threads) { threads_ = threads < 0 ? 0 : threads; }
  void setStatusCallback(StatusCallback callback) { callback_ = std::move(callback); }
  // Stops a search at its next batch of evaluations (from any thread); the
  // search then returns nothing, and every later one returns at once.
  void abort() { abort_ = true; }
  bool aborted() const { return abort_.load(); }
  const std::list<ShaderBruteForcer::Result>& results() const { return results_; }
  std::uint64_t evaluationCount() const { return counter_.load(); }

  // Where the processor time of the last search went, summed over threads
  // (nanoseconds), when measuring was switched on before it.
  struct Profile {
    std::uint64_t preparation = 0;  // families' radial terms and per-axis parts
    std::uint64_t sampling = 0;     // grey renderings
    std::uint64_t histogram = 0;
    std::uint64_t edges = 0;        // equalisation, Laplacian and difference
    std::uint64_t evaluations = 0;  // renderings made
    std::uint64_t stopped = 0;      // scores that stopped early
    std::uint64_t rowsSummed = 0;   // rows the scores summed
  };
  void setProfiling(bool on) { profiling_ = on; }
  Profile profile() const;

  // The lens distortion the renderer reads for grid point `index` (after
  // a search has prepared its walk).
  ImageSource::LensDistortion distortionAt(std::uint64_t index) const;

 private:
  struct ThreadState;
  struct Family;
  // The grid point of a place in the walk's order.
  std::map<std::string, float> parametersAt(std::uint64_t index) const;
  void prepareDistortions();
  void evaluateFamily(const Family& family);
  ThreadState& threadState();
  void flush(std::vector<std::uint64_t>& pending);
  // The steps of a search: forget the last one; take the module, its
  // picture, shader chain and grid (nullptr, with a warning: nothing to
  // search); make the renderer and give the rendering's size (nothing: the
  // reference is too small); the reference's edge image over the module's
  // rectangle (false: nothing to search); the walk's values and this shard's
  // part of the outermost list; the walk itself.
  void reset();
  const OrbivaneGeometry::MatrixRepresentableGeometry* takeModule(const std::wstring& module,
                                                                  const std::wstring& reference);
  Utils::Optional<cv::Size> prepareRenderer(const std::string& name);
  bool prepareReference(const OrbivaneGeometry::MatrixRepresentableGeometry& geometry, cv::Size rendered,
                        const std::string& name);
  void prepareWalk(std::size_t& outerBegin, std::size_t& outerEnd);
  void walk(std::size_t outerBegin, std::size_t outerEnd);

  CameraDescription::Orbivane camera_;
  Images images_;
  ShaderBruteForcer::ParameterList parameters_;
  int shardIndex_ = 0;
  int shardCount_ = 1;
  int threads_ = 0;
  StatusCallback callback_;
  std::shared_ptr<spdlog::logger> logger_;

  // State of one search.
  std::list<OrbivaneGeometry::Shader> chain_;   // the module's chain with the searched shader in it
  std::string shaderUid_;
  bool shaderKnown_ = false;
  Utils::Optional<Utils::UVGrid> grid_;
  std::shared_ptr<Image::UniversalImageInterface> moduleImage_;
  std::shared_ptr<Image::UniversalImageInterface> referenceImage_;
  std::shared_ptr<Image::UniversalImageInterface> surface_;
  cv::Mat referenceEdges_;
  // The renderer that prepared the search: its working picture and
  // coordinates are shared with every thread's shading object.
  std::unique_ptr<ImageSource::ImageShading> prototype_;
  // The walk's values by list position, and each as the "%f" text written
  // into the shader.
  std::vector<std::string> names_;
  std::vector<std::vector<float>> values_;
  std::vector<std::vector<std::string>> texts_;
  // The lens distortion with every walk value at its default, and per list
  // position and value the fields that value sets (bit per field) and
  // their values; positions whose name came earlier in the list set nothing.
  ImageSource::LensDistortion baseDistortion_;
  std::vector<std::vector<std::uint8_t>> patchFields_;
  std::vector<std::vector<ImageSource::LensDistortion>> patchValues_;
  std::vector<std::uint32_t> referenceRowSums_;
  std::uint64_t done_ = 0, total_ = 0;
  bool profiling_ = false;
  bool quiet_ = false;               // a timing probe: prints and logs nothing
  double preparationSeconds_ = 0.0;  // the last search's, up to its walk
  std::atomic<std::uint64_t> preparationTime_{0}, samplingTime_{0}, histogramTime_{0}, edgesTime_{0},
      renderings_{0}, stopped_{0}, rowsSummed_{0};

  std::mutex statesMutex_;
  std::map<std::thread::id, std::unique_ptr<ThreadState>> states_;
  std::mutex bestMutex_;
  BestList best_;
  // The largest kept error once the list is full (infinity before): an
  // evaluation above it is not kept, so it need not take the lock.
  std::atomic<float> rejectAbove_{std::numeric_limits<float>::infinity()};
  std::atomic<std::uint64_t> counter_{0};
  std::atomic<bool> abort_{false};
  std::list<ShaderBruteForcer::Result> results_;
};

}  // namespace MatrixBased
}  // namespace GeometryCalibration

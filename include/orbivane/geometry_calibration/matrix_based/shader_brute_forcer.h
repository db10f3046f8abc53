// Shader parameter search: finds a module's lens distortion parameters by
// rendering its picture through its shader chain for every point of a grid
// and comparing edge images with the module's region of a reference picture.
//
// Reference preparation: the surface is a quarter of the reference's width
// and height (each shifted right by 2 bits); the module's picture is rendered
// at that size (orbivane/shading/image_shading.h: the rendering frames the
// module's footprint). The module's rectangle on the reference is the
// bounding box (left, top, right, bottom) of where the module's matrix puts
// its unit square (orbivane/geometry/surface_projection.h), in the
// reference's normalised coordinates; in pixels x = int(cols * left),
// y = int(rows * top), width = int(cols * (right - left)), height =
// int(rows * (bottom - top)), truncated toward zero. Parts of it outside the
// reference are black. Its edge image (linear resize to the rendered size,
// grey, histogram equalisation, Laplacian 16S aperture 3, absolute value) is
// what every rendering's edge image is compared with.
//
// The walk: the parameter list in order, the first entry outermost. A range
// yields min, min + step, ... (single-precision accumulation) while below
// max; "i_ps_distortion_ext_pwp" yields 2..20. Each outermost value is
// printed on standard output. Each evaluation writes the values ("%f") into
// the module's shader (the shader whose UID is the geometry's shaderId(),
// known from the shader files; "Shader not found", std::runtime_error,
// otherwise), renders the grey picture, and scores the mean absolute
// difference of the edge images (renderings whose edge image has a mean
// below 1.0 are skipped). " #" is printed every 10000 scored evaluations.
// The ten smallest distinct errors are kept; an equal error keeps the result
// that comes first in grid order, whatever the number of threads.
//
// Evaluations run on all cores (TBB): one shading object per thread, found by
// thread id under a lock, all sharing the working picture and coordinates the
// preparation made; the best list under a second lock, which an evaluation
// the full list could not keep does not take; an atomic evaluation counter.
// Each evaluation's error is, bit for bit, what the sequence above gives on
// ImageShading::Apply's colour rendering (resize to the reference's edge
// size, BGR to grey, equalisation, Laplacian, absolute value, mean of the
// absolute difference): the search renders that rendering's grey directly
// (orbivane/shading/image_shading.h), and fuses the edge steps. Grid points
// that share the strength, centre, power and method are evaluated together
// (what their renderings share is computed once), and an evaluation whose
// difference sum already shows that the ten best would not keep it stops
// there (the histogram equalisation needs every pixel, the difference does
// not).

// Sharding: setShard(i, n) walks only the i-th of n contiguous ranges of the
// outermost parameter's values; the shards' results merged with
// mergeResults are exactly the whole search's.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "orbivane/camera/orbivane.h"
#include "orbivane/export.h"
#include "orbivane/geometry_calibration/status_callback.h"
#include "orbivane/image/universal_image_interface.h"
#include "orbivane/utils/return_state.h"

namespace GeometryCalibration {
namespace MatrixBased {


class ORBIVANE_EXPORT ShaderBruteForcer {
 public:
  struct MinMaxStep {
    float min = 0.0f;
    float max = 0.0f;
    float step = 0.0f;
    // 2 for the correction parameters, 1 for the shifts; carried, not read.
    int kind = 0;
  };
  using ParameterList = std::list<std::pair<std::string, MinMaxStep>>;

  struct Result {
    float error = 0.0f;                       // mean absolute edge difference, grey levels
    std::uint64_t gridIndex = 0;              // place in the walk's order over the whole grid
    std::map<std::string, float> parameters;  // shader parameter name -> value
  };

  // The fixed grid: F 0.05..0.8 step 0.05, H 0.05..0.8 step 0.1, V 0.05..0.8
  // step 0.05, x and y shift -0.3..0.3 step 0.05 (304,200 points).
  ShaderBruteForcer(const CameraDescription::Orbivane& camera,
                    std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images);
  // Another parameter list (tests, coarse searches). Throws
  // std::invalid_argument with validateParameters' words for a list it
  // refuses.
  ShaderBruteForcer(const CameraDescription::Orbivane& camera,
                    std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images,
                    ParameterList parameters);
  virtual ~ShaderBruteForcer();
  ShaderBruteForcer(const ShaderBruteForcer&) = delete;
  ShaderBruteForcer& operator=(const ShaderBruteForcer&) = delete;

  // Up to ten copies of the camera, by rising error, whose module `module`
  // carries one of the best parameter sets. Unknown module or picture names
  // throw std::out_of_range("invalid map<K, T> key"). A module without a
  // matrix-representable geometry, a reference below 4x4 pixels or a module
  // rectangle without pixels give an empty list (logged).
  virtual std::list<CameraDescription::Orbivane> searchForBestParameters(std::wstring module, std::wstring reference);

  // What a search of `module` against `reference` takes, worked out before
  // it starts (names it does not know throw as the search does): the
  // renderings of this search or shard, the module's rectangle on the
  // reference and the rendering size (a quarter of it each way), the threads,
  // and the memory the search adds to the pictures it was given: about
  // kSearchBytesPerPixel per pixel of the rectangle (measured: a search
  // against an 8000x6000 reference peaks at 700 MB, 144 MB of them the
  // decoded reference). A search with nothing to do plans no pixels.
  struct Plan {
    std::uint64_t renderings = 0;
    int rectangleWidth = 0, rectangleHeight = 0;  // reference pixels
    int renderedWidth = 0, renderedHeight = 0;    // pixels of each rendering
    int threads = 0;
    std::uint64_t bytes = 0;
  };
  static constexpr std::uint64_t kSearchBytesPerPixel = 10;
  Plan plan(const std::wstring& module, const std::wstring& reference) const;
  // The wall seconds the search (or shard) would take on this machine with
  // these pictures and threads: a probe times the search's preparation and a
  // few whole families of renderings from the middle of the grid, and the
  // renderings' time is scaled to the planned count. Takes about the
  // preparation's time plus a few hundred renderings; prints nothing. An
  // estimate, not a bound: the probe's renderings run before any result
  // could stop them early, so the whole search tends to be faster. 0 for a
  // search with nothing to render; names it does not know throw as the
  // search does.
  double estimateSeconds(const std::wstring& module, const std::wstring& reference) const;

  // Only the `index`-th (from 0) of `count` contiguous ranges of the
  // outermost values; (0, 1) is the whole grid. Throws std::invalid_argument
  // unless 0 <= index < count.
  void setShard(int index, int count);
  // Threads for the evaluations; 0 (the default) uses every core.
  void setThreadCount(int threads);
  // Stops a running search soon (from any thread, e.g. on Ctrl-C): it stops
  // at its next batch of a few thousand evaluations and returns an empty
  // list with empty results, since the part of the grid it saw says nothing
  // of the rest. The flag is never cleared: every later search of this
  // object returns at once.
  void abort();
  bool aborted() const;
  // Progress: (evaluations done, evaluations of this search or shard,
  // "Searching Shader Parameters", {}), on the calling thread.
  void registerStatusCallback(StatusCallback callback);

  // The last search's best results, by rising error, and how many
  // evaluations were scored.
  const std::list<Result>& results() const;
  std::uint64_t evaluationCount() const;

  static ParameterList defaultParameterList();
  // Whether a list can be searched: every name given once and not empty;
  // for every parameter but i_ps_distortion_ext_pwp (whose values are fixed,
  // 2..20) finite min and max, a finite step above 0 and at least one value
  // (min < max); at most 2^40 grid points. The error names the entry.
  static Utils::ReturnState<bool, std::string> validateParameters(const ParameterList& parameters);
  // The values a list entry takes, in walk order.
  static std::vector<float> parameterValues(const std::string& name, const MinMaxStep& range);
  // Points of the whole grid.
  static std::uint64_t gridSize(const ParameterList& parameters);
  // Shard results merged into what the whole search keeps.
  static std::list<Result> mergeResults(const std::list<std::list<Result>>& shards);
  // A copy of the camera whose module carries the values in its shader (the
  // geometry's shaderId(); appended with the shader file's defaults when the
  // chain lacks it). Throws like searchForBestParameters.
  static CameraDescription::Orbivane cameraWithParameters(const CameraDescription::Orbivane& camera,
                                                          const std::wstring& module,
                                                          const std::map<std::string, float>& parameters);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace MatrixBased
}  // namespace GeometryCalibration

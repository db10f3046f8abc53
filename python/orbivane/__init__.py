"""Calibration of multi-sensor panoramic cameras from Python.

The library's classes with Python names: cameras and modules (``Camera``,
``Module``, ``Shader``), the geometry calibrators (``MatchToTarget``,
``NeighbourNeighbour``, ``ShaderBruteForcer``, ``AutoClipping``, the
``CalibrationPipeline`` and :func:`calibrate`), the sensor side
(``FisheyeCalibration``, ``ResolutionCalibration``, ``SensorShifter`` with the
``SimulatedCamera``, :func:`estimate_blur`), frame finding in recordings
(``SmartFinderImage``) and :func:`render_panorama`.

Pictures are numpy arrays as ``cv2`` gives them: H x W x 3 uint8 BGR (or
H x W grey, H x W x 4 BGRA). Matrices are 4 x 4 float32 arrays. Long calls
release the GIL; ``abort()`` may be called from another thread. Failures the
library reports as messages raise :class:`OrbivaneError` (a RuntimeError);
C++ exceptions arrive as ValueError, IndexError or RuntimeError with the
library's texts.

``orbivane.distributed`` spreads shader searches and whole calibrations over
a Dask cluster; ``orbivane.synthetic`` builds test scenes with known truth.
"""

import functools as _functools
import os as _os
import time as _time
from dataclasses import dataclass as _dataclass, field as _field
from typing import Any as _Any, Dict as _Dict, List as _List, Optional as _Optional

import numpy as _np

# The shader files come with the package. The library looks for them, among
# other places, in $ProgramData/Hollbrink/Shaders; point it there unless the
# user has chosen another folder.
_DATA = _os.path.join(_os.path.dirname(__file__), "data")
if "ProgramData" not in _os.environ and _os.path.isdir(_os.path.join(_DATA, "Hollbrink", "Shaders")):
    _os.environ["ProgramData"] = _DATA

from ._orbivane import (  # noqa: E402  (the environment must be set first)
    CLIP_MATRIX_SHADER_UID,
    LENS_DISTORTION_SHADER_UID,
    AutoClipping,
    CalibrationPipeline,
    Camera,
    ClippingOptions,
    FisheyeCalibration,
    MatchOptions,
    MatchToTarget,
    Module,
    NeighbourNeighbour,
    NeighbourOptions,
    OrbivaneError,
    ResolutionCalibration,
    SensorShifter,
    Shader,
    ShaderBruteForcer,
    SimulatedCamera,
    SmartFinderImage,
    StepInfo,
    __version__,
    clip_matrix_shader,
    estimate_blur,
    get_num_threads,
    load_picture,
    render_panorama,
    save_picture,
    set_num_threads,
    shade_picture,
)

__all__ = [
    "CLIP_MATRIX_SHADER_UID",
    "LENS_DISTORTION_SHADER_UID",
    "AutoClipping",
    "CalibrationPipeline",
    "CalibrationResult",
    "Camera",
    "ClippingOptions",
    "FisheyeCalibration",
    "MatchOptions",
    "MatchToTarget",
    "Module",
    "NeighbourNeighbour",
    "NeighbourOptions",
    "OrbivaneError",
    "ResolutionCalibration",
    "SensorShifter",
    "Shader",
    "ShaderBruteForcer",
    "SimulatedCamera",
    "SmartFinderImage",
    "StepInfo",
    "__version__",
    "calibrate",
    "clip_matrix_shader",
    "estimate_blur",
    "get_num_threads",
    "load_picture",
    "render_panorama",
    "save_picture",
    "set_num_threads",
    "shade_picture",
]


def _picklable(function, qualname=None):
    """The library's function as a Python function of this package, so that
    pickle (Dask's client.submit, multiprocessing) sends it by name."""

    @_functools.wraps(function)
    def call(*args, **kwargs):
        return function(*args, **kwargs)

    call.__module__ = __name__
    call.__qualname__ = qualname or function.__name__
    return call


clip_matrix_shader = _picklable(clip_matrix_shader)
estimate_blur = _picklable(estimate_blur)
get_num_threads = _picklable(get_num_threads)
load_picture = _picklable(load_picture)
render_panorama = _picklable(render_panorama)
save_picture = _picklable(save_picture)
set_num_threads = _picklable(set_num_threads)
shade_picture = _picklable(shade_picture)
Camera.load = staticmethod(_picklable(Camera.load, "Camera.load"))
Camera.from_json = staticmethod(_picklable(Camera.from_json, "Camera.from_json"))


def _camera_iter(self):
    """The camera's modules in order."""
    return iter(self.modules)


def _camera_eq(self, other):
    """Equal cameras: the same description (as the camera file writes it) and
    the same pictures, pixel for pixel."""
    if not isinstance(other, Camera):
        return NotImplemented
    if self.to_json() != other.to_json():
        return False
    mine, theirs = self.pictures(), other.pictures()
    return mine.keys() == theirs.keys() and all(_np.array_equal(mine[k], theirs[k]) for k in mine)


Camera.__iter__ = _camera_iter
Camera.__eq__ = _camera_eq
Camera.__hash__ = None  # cameras change: not usable as keys




@_dataclass
class CalibrationResult:
    """What :func:`calibrate` gives for one camera.

    ``camera`` is the calibrated camera (None when the run failed),
    ``report`` the pipeline's report ({'verdicts', 'seams_before', 'steps'},
    plain dicts and lists), ``error`` the failure's text (None on success),
    ``seconds`` the wall time and ``name`` the job's name (calibrate_many).
    """

    camera: _Optional[Camera]
    report: _Dict[str, _Any] = _field(default_factory=dict)
    error: _Optional[str] = None
    seconds: float = 0.0
    name: str = ""

    @property
    def ok(self) -> bool:
        """True when the run finished (modules may still have failed: see report['verdicts'])."""
        return self.error is None

    def failed_modules(self) -> _List[str]:
        """Names of the modules whose verdict is neither 'aligned' nor 'kept' (failed, skipped or aborted)."""
        return sorted(n for n, v in self.report.get("verdicts", {}).items() if v["status"] not in ("aligned", "kept"))


_PIPELINE_OPTIONS = frozenset(
    {"levels", "iterations", "step", "require_overlap", "keep_aspect", "clip_threshold", "no_holes", "match",
     "neighbour", "clip"})


def calibrate(
    camera: Camera,
    target: str = "",
    modules: _Optional[_List[str]] = None,
    steps: _Optional[_List[str]] = None,
    pictures: _Optional[_Dict[str, _Any]] = None,
    reference: str = "",
    match_mode: int = 0,
    callback=None,
    **options,
) -> CalibrationResult:
    """Runs the calibration pipeline on one camera.

    Steps default to ['match', 'neighbour', 'clip'] ('shader' may be added);
    ``target`` names the module whose picture the others are matched to,
    ``modules`` the modules to calibrate (None: all but the target),
    ``pictures`` overrides the camera's own pictures, ``callback`` is
    fn(step, total, text, info). Further keywords go to
    :meth:`CalibrationPipeline.run` (levels, iterations, step,
    require_overlap, keep_aspect, clip_threshold, no_holes, or the steps'
    settings whole: match=MatchOptions(...), neighbour=NeighbourOptions(...),
    clip=ClippingOptions(...)); another keyword
    raises TypeError naming it. Bad options raise ValueError, a module, target
    or reference that is not in the camera KeyError; the result's report holds
    each module's verdict.
    """
    unknown = sorted(set(options) - _PIPELINE_OPTIONS)
    if unknown:
        raise TypeError("calibrate() got an unexpected keyword argument %r (the pipeline's options are %s)"
                        % (unknown[0], ", ".join(sorted(_PIPELINE_OPTIONS))))
    started = _time.perf_counter()
    pipeline = CalibrationPipeline(camera, pictures)
    if callback is not None:
        pipeline.register_status_callback(callback)
    result = pipeline.run(
        target=target, modules=modules, steps=steps, reference=reference, match_mode=match_mode, **options
    )
    return CalibrationResult(
        camera=result, report=pipeline.report(), seconds=_time.perf_counter() - started, name=camera.name
    )

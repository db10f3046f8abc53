"""Calibrations spread over a Dask cluster.

Any ``dask.distributed.Client`` will do: a ``LocalCluster`` on one machine,
or a client connected to a scheduler that dask-jobqueue or Kubernetes
started (``Client("tcp://scheduler:8786")``). The workers need this package
importable (the same version) and, for cameras given as file paths, the
files.

- :func:`shader_search` splits a shader parameter search into shards (parts
  of the outermost parameter's values), runs them as tasks and merges their
  best lists exactly as ``orbivane-calibrate shader-merge`` does: the result
  equals the single-process search.
- :func:`calibrate_many` runs the whole calibration pipeline
  (:func:`orbivane.calibrate`) for many cameras, one task per camera; a job
  that fails gives a result with its error and does not stop the others.
  :func:`submit_calibrations` returns the futures instead, for Dask's own
  progress tools (``dask.distributed.progress(futures)``, the dashboard).
"""

import os
import time
import traceback
from dataclasses import dataclass, field
from typing import Any, Dict, Iterable, List, Optional, Sequence, Union

import numpy as np

import orbivane

__all__ = [
    "CalibrationJob",
    "ShaderSearchResult",
    "calibrate_many",
    "shader_search",
    "submit_calibrations",
]

# The key under which a reference picture that is not a module's travels.
_REFERENCE_KEY = "\x00reference"


def _threads_per_task(requested: Optional[int]) -> int:
    """Threads one task may use on this worker: as asked, else its share of
    this machine's cores, split over the task slots of every worker on the
    machine (several workers of one machine do not each take all cores)."""
    if requested is not None:
        return max(1, int(requested))
    try:
        from dask.distributed import get_worker

        worker = get_worker()
        slots = getattr(getattr(worker, "state", None), "nthreads", None) or getattr(worker, "nthreads", 1)
        slots = _slots_on_this_machine(worker, int(slots))
    except (ImportError, ValueError):
        slots = 1
    return max(1, (os.cpu_count() or 1) // max(1, int(slots)))


def _slots_on_this_machine(worker, own: int) -> int:
    """Task slots of all workers on the worker's machine, as the scheduler
    knows them; the worker's own when it cannot be asked."""
    try:
        from dask.distributed import get_client

        host = worker.address.rsplit(":", 1)[0]
        workers = get_client().scheduler_info().get("workers", {})
        slots = sum(int(w.get("nthreads", 1)) for address, w in workers.items() if address.rsplit(":", 1)[0] == host)
        return max(own, slots)
    except Exception:  # no scheduler to ask (a test without a cluster): the worker alone
        return own


# --- shader search ------------------------------------------------------------


@dataclass
class ShaderSearchResult:
    """The merged result of a distributed shader search.

    ``results``: the best parameter sets by rising error, as
    ShaderBruteForcer.results() gives them ([{'error', 'grid_index',
    'parameters'}, ...]); ``cameras``: copies of the camera carrying each of
    them, best first; ``evaluations``: renderings scored over all shards;
    ``shards``: how many shards ran.
    """

    results: List[Dict[str, Any]]
    cameras: List[orbivane.Camera]
    evaluations: int
    shards: int


def _search_shard(camera, module, reference, reference_picture, parameters, index, count, threads):
    """One shard of the search, on a worker."""
    pictures = {module: camera.module(module).picture}
    if reference_picture is None:
        pictures[reference] = camera.module(reference).picture
    else:
        pictures[reference] = reference_picture
    forcer = orbivane.ShaderBruteForcer(camera, pictures, parameters)
    forcer.set_shard(index, count)
    forcer.set_thread_count(_threads_per_task(threads))
    forcer.search_for_best_parameters(module, reference)
    return {"index": index, "results": forcer.results(), "evaluations": forcer.evaluation_count()}


def _outermost_values(parameters) -> int:
    name, low, high, step = (parameters or orbivane.ShaderBruteForcer.default_parameter_list())[0][:4]
    return len(orbivane.ShaderBruteForcer.parameter_values(name, low, high, step))


def _total_threads(client) -> int:
    try:
        return max(1, sum(client.nthreads().values()))
    except Exception:  # a client without workers yet
        return 1


def shader_search(
    client,
    camera: orbivane.Camera,
    module: str,
    reference: Union[str, np.ndarray],
    shards: Optional[int] = None,
    parameters: Optional[Sequence[tuple]] = None,
    threads_per_task: Optional[int] = None,
) -> ShaderSearchResult:
    """Searches a module's lens shader parameters on the cluster.

    ``reference`` is a module of the camera (its picture is the reference),
    a picture file, or a picture array. ``shards``: tasks to split the grid
    into (default: twice the cluster's worker threads, at most one per value
    of the outermost parameter). ``parameters``: the grid as
    [(name, min, max, step), ...], None for the fixed grid.
    ``threads_per_task``: threads each shard uses (default: the worker's
    share of its machine's cores). Raises what the search raises (unknown
    module, unknown shader) from the first failing shard.
    """
    if module not in camera:
        raise KeyError(f"no module named '{module}' in the camera")
    if camera.module(module).picture is None:
        raise ValueError(f"module '{module}' has no picture")
    reference_picture = None
    reference_name = reference if isinstance(reference, str) else _REFERENCE_KEY
    if isinstance(reference, str) and (reference not in camera or camera.module(reference).picture is None):
        reference_picture = orbivane.load_picture(reference)
        reference_name = _REFERENCE_KEY
    elif not isinstance(reference, str):
        reference_picture = np.asarray(reference)
    if parameters is not None:
        parameters = [tuple(p) for p in parameters]
    values = _outermost_values(parameters)
    count = int(shards) if shards is not None else min(values, 2 * _total_threads(client))
    if count < 1:
        raise ValueError("shards must be at least 1")

    # The camera (with its pictures) travels to every worker once, so losing
    # a worker loses no only copy: its shards run again elsewhere.
    [camera_future] = client.scatter([camera], hash=False, broadcast=True)
    reference_future = None
    if reference_picture is not None:
        [reference_future] = client.scatter([reference_picture], hash=False, broadcast=True)
    futures = [
        client.submit(
            _search_shard,
            camera_future,
            module,
            reference_name,
            reference_future,
            parameters,
            index,
            count,
            threads_per_task,
            key=f"orbivane-shader-shard-{index}-of-{count}-{time.monotonic_ns()}",
            pure=False,
        )
        for index in range(count)
    ]
    shard_results = client.gather(futures)
    shard_results.sort(key=lambda s: s["index"])
    merged = orbivane.ShaderBruteForcer.merge_results([s["results"] for s in shard_results])
    cameras = [
        orbivane.ShaderBruteForcer.camera_with_parameters(camera, module, r["parameters"]) for r in merged
    ]
    return ShaderSearchResult(
        results=merged,
        cameras=cameras,
        evaluations=sum(s["evaluations"] for s in shard_results),
        shards=count,
    )


# --- many calibrations ----------------------------------------------------------


@dataclass
class CalibrationJob:
    """One camera to calibrate: the camera (or the path of its file, read on
    the worker), the target module, the modules (None: all but the target),
    the steps (None: match, neighbour, clip), a name for progress and
    results, and further pipeline options (reference, match_mode, levels,
    iterations, step, require_overlap, keep_aspect, clip_threshold), and
    threads_per_task (OpenCV threads of the task; default: the worker's
    share of its machine's cores)."""

    camera: Union[orbivane.Camera, str]
    target: str = ""
    modules: Optional[List[str]] = None
    steps: Optional[List[str]] = None
    name: str = ""
    options: Dict[str, Any] = field(default_factory=dict)


def _as_job(job, index: int) -> CalibrationJob:
    if isinstance(job, CalibrationJob):
        out = job
    elif isinstance(job, dict):
        known = {"camera", "target", "modules", "steps", "name"}
        out = CalibrationJob(
            **{k: v for k, v in job.items() if k in known},
            options={k: v for k, v in job.items() if k not in known},
        )
    else:
        raise TypeError(f"job {index}: expected a CalibrationJob or a dict, got {type(job).__name__}")
    if not out.name:
        if isinstance(out.camera, str):
            out.name = os.path.basename(out.camera)
        else:
            out.name = out.camera.name or f"camera-{index}"
    return out


def _run_job(job: CalibrationJob, camera: Optional[orbivane.Camera]) -> orbivane.CalibrationResult:
    """One camera's pipeline, on a worker; a failure becomes the result's error.
    `camera` is the job's camera (sent with the task), None to read job.camera's file."""
    started = time.perf_counter()
    # The worker's share of the cores: tasks running side by side on one
    # machine would otherwise each spread over all of them.
    orbivane.set_num_threads(_threads_per_task(job.options.pop("threads_per_task", None)))
    try:
        if camera is None:
            camera = orbivane.Camera.load(job.camera)
        result = orbivane.calibrate(camera, target=job.target, modules=job.modules, steps=job.steps, **job.options)
        result.name = job.name
        return result
    except Exception as error:  # one job's failure must not stop the others
        text = f"{type(error).__name__}: {error}"
        return orbivane.CalibrationResult(
            camera=None,
            error=text,
            seconds=time.perf_counter() - started,
            name=job.name,
            report={"traceback": traceback.format_exc()},
        )


def submit_calibrations(client, jobs: Iterable[Union[CalibrationJob, dict]]) -> list:
    """Submits one task per job and returns the futures (in job order).

    Each future's result is an :class:`orbivane.CalibrationResult`. Watch
    them with ``dask.distributed.progress(futures)`` or the dashboard; the
    task keys start with 'orbivane-calibrate-' and the job's name.
    """
    prepared = [_as_job(job, i) for i, job in enumerate(jobs)]
    stamp = time.monotonic_ns()
    futures = []
    for i, job in enumerate(prepared):
        camera = None
        if not isinstance(job.camera, str):
            # A camera (with its pictures) goes with its task: a lost worker
            # held no only copy of it, and the task runs again elsewhere.
            camera = job.camera
            job = CalibrationJob(None, job.target, job.modules, job.steps, job.name, dict(job.options))
        futures.append(client.submit(_run_job, job, camera, key=f"orbivane-calibrate-{job.name}-{i}-{stamp}", pure=False))
    return futures


def calibrate_many(client, jobs: Iterable[Union[CalibrationJob, dict]]) -> List[orbivane.CalibrationResult]:
    """Calibrates many cameras across the cluster and returns their results in
    job order. A job whose pipeline raises, or whose worker is lost, gives a
    result with ``camera=None`` and the ``error`` text; the others go on."""
    prepared = [_as_job(job, i) for i, job in enumerate(jobs)]
    futures = submit_calibrations(client, prepared)
    results = []
    for job, future in zip(prepared, futures):
        try:
            results.append(future.result())
        except Exception as error:  # the task itself was lost (a worker died)
            results.append(
                orbivane.CalibrationResult(camera=None, error=f"{type(error).__name__}: {error}", name=job.name)
            )
    return results

#!/usr/bin/env python3
"""Benchmark of the Python package against its references, side by side:

1. Python overhead of target matching: orbivane.MatchToTarget from numpy
   pictures (calibrate, module_reports, error) against the same matching
   done wholly in C++ in this process (orbivane._orbivane._match_to_target_seconds).
   Goal: at most 5 % slower.
2. The Dask shader search on a two-worker LocalCluster against the command
   line's single-process search (orbivane-calibrate shader-search) over the
   whole grid: the same ten results, and at most 15 % more wall time.
3. calibrate_many over 8 demo-sized cameras on the same cluster against
   orbivane.calibrate run on them one after the other in this process with
   one thread each (as each worker has). Goal: at most 0.6 x the time. Also
   printed: against the same run with every core per calibration, which on a
   machine with no more cores than workers is about even.

Prints medians and ratios; exits 1 when a goal is missed. Run from the
build tree:
  PYTHONPATH=build/python /usr/bin/python3 bench/python_benchmark.py \\
      --calibrate build/bin/orbivane-calibrate [--runs N] [--quick]
"""

import argparse
import json
import os
import statistics
import subprocess
import sys
import tempfile
import time

import numpy as np

import orbivane
from orbivane import _orbivane, synthetic
from orbivane.distributed import calibrate_many, shader_search


def median_ms(values):
    return 1000.0 * statistics.median(values)


def bench_overhead(rig, runs):
    modules = rig.names
    pictures = rig.camera.pictures()
    python_times, cpp_times = [], []
    for run in range(runs):
        # Alternate which goes first, so drift of the machine hits both alike.
        order = ("cpp", "python") if run % 2 == 0 else ("python", "cpp")
        for which in order:
            if which == "cpp":
                cpp_times.append(_orbivane._match_to_target_seconds(rig.camera, modules, "Target"))
            else:
                started = time.perf_counter()
                matcher = orbivane.MatchToTarget(rig.camera, pictures)
                result = matcher.calibrate(modules, "Target")
                reports = matcher.module_reports()
                errors = matcher.error()
                python_times.append(time.perf_counter() - started)
                assert all(r["status"] == "aligned" for r in reports.values()), reports
                assert len(errors) == len(modules) and len(result) == len(rig.camera)
    ratio = statistics.median(python_times) / statistics.median(cpp_times)
    print(f"match-to-target, {len(modules)} modules {rig.pictures['M1'].shape[1]}x{rig.pictures['M1'].shape[0]}, "
          f"{runs} runs: C++ {median_ms(cpp_times):.0f} ms, Python {median_ms(python_times):.0f} ms, "
          f"ratio {ratio:.3f} (overhead {100 * (ratio - 1):+.1f} %, goal <= +5 %)")
    return ratio <= 1.05


def bench_shader_search(client, calibrate, runs, work):
    lens = synthetic.make_lens_search(reach={n: None for n, *_ in orbivane.ShaderBruteForcer.default_parameter_list()})
    camera = lens.camera.copy()
    camera.add_module(orbivane.Module("reference", matrix=np.eye(4), picture=lens.reference))
    path = os.path.join(work, "lens.json")
    camera.save(path)
    camera = orbivane.Camera.load(path)  # both sides start from the same file's pictures
    cli_times, dask_times = [], []
    cli_best = dask_best = None
    for run in range(runs):
        for which in (("cli", "dask") if run % 2 == 0 else ("dask", "cli")):
            if which == "cli":
                out = os.path.join(work, f"cli-{run}")
                started = time.perf_counter()
                done = subprocess.run([calibrate, "shader-search", path, "--module", "lens", "--reference",
                                       "reference", "--out-dir", out, "--json"], capture_output=True, text=True)
                cli_times.append(time.perf_counter() - started)
                if done.returncode != 0:
                    raise SystemExit(f"shader-search failed: {done.stderr}")
                cli_best = json.loads(done.stdout.strip().splitlines()[-1])["best"]
            else:
                started = time.perf_counter()
                result = shader_search(client, camera, "lens", "reference")
                dask_times.append(time.perf_counter() - started)
                dask_best = [{"error": r["error"], "parameters": r["parameters"]} for r in result.results]
    same = len(cli_best) == len(dask_best) and all(
        abs(a["error"] - b["error"]) <= 1e-4 * max(1.0, abs(a["error"]))
        and all(abs(a["parameters"][k] - b["parameters"][k]) < 1e-6 for k in a["parameters"])
        for a, b in zip(cli_best, dask_best))
    ratio = statistics.median(dask_times) / statistics.median(cli_times)
    grid = orbivane.ShaderBruteForcer.grid_size()
    print(f"shader search, {grid} points, {result.shards} shards on 2 workers, {runs} runs: command line "
          f"{median_ms(cli_times):.0f} ms, Dask {median_ms(dask_times):.0f} ms, ratio {ratio:.3f} (goal <= 1.15); "
          f"same ten results: {'yes' if same else 'NO'}")
    return same and ratio <= 1.15


def bench_calibrate_many(client, cameras, runs):
    """calibrate_many against the same calibrations one after the other, in
    two ways: with one thread per calibration (what each worker of the
    cluster has), which shows how the jobs spread over free cores, and with
    every core per calibration, which is what a machine with no more cores
    than workers can do anyway (a calibration's own loops already use them)."""
    jobs = [{"camera": rig.camera, "target": "Target", "name": rig.camera.name} for rig in cameras]
    times = {"seq1": [], "seq": [], "dask": []}
    order = ("seq1", "dask", "seq")
    for run in range(runs):
        for which in (order if run % 2 == 0 else tuple(reversed(order))):
            started = time.perf_counter()
            if which == "dask":
                results = calibrate_many(client, jobs)
            else:
                orbivane.set_num_threads(1 if which == "seq1" else 0)
                try:
                    results = [orbivane.calibrate(rig.camera, target="Target") for rig in cameras]
                finally:
                    orbivane.set_num_threads(0)
            times[which].append(time.perf_counter() - started)
            failed = [r.name for r in results if not r.ok or r.failed_modules()]
            assert not failed, failed
    spread = statistics.median(times["dask"])
    per_core = spread / statistics.median(times["seq1"])
    whole = spread / statistics.median(times["seq"])
    workers = len(client.scheduler_info()["workers"])
    print(f"calibrate_many, {len(cameras)} cameras of 5 modules, {runs} runs, Dask {workers} workers of one thread: "
          f"{median_ms(times['dask']):.0f} ms; one after the other with one thread each "
          f"{median_ms(times['seq1']):.0f} ms, ratio {per_core:.3f} (goal <= 0.6); with all {os.cpu_count()} cores "
          f"each {median_ms(times['seq']):.0f} ms, ratio {whole:.3f}")
    return per_core <= 0.6


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--calibrate", default=os.environ.get("ORBIVANE_CALIBRATE", "build/bin/orbivane-calibrate"),
                        help="the orbivane-calibrate program (reference of the shader search)")
    parser.add_argument("--runs", type=int, default=3, help="runs of each measurement (median taken)")
    parser.add_argument("--quick", action="store_true", help="360x270 modules instead of the demo's 720x540")
    args = parser.parse_args()

    from dask.distributed import Client, LocalCluster

    rig = synthetic.make_rig(quick=args.quick)
    ok = bench_overhead(rig, max(args.runs, 3))
    cluster = LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None,
                           silence_logs=40)
    with Client(cluster) as client, tempfile.TemporaryDirectory() as work:
        client.submit(lambda: orbivane.__version__).result()  # workers up and the package imported
        ok = bench_shader_search(client, args.calibrate, args.runs, work) and ok
        cameras = [synthetic.make_rig(quick=args.quick, seed=seed, name=f"camera-{seed}") for seed in range(1, 9)]
        ok = bench_calibrate_many(client, cameras, max(1, args.runs - 1)) and ok
    cluster.close()
    print("all goals met" if ok else "a goal was missed")
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())

"""orbivane.distributed on a two-worker LocalCluster (separate processes, so
cameras really travel pickled): the sharded shader search equals the
single-process search, and calibrate_many keeps going past a failing job."""

import os
import time

import numpy as np
import pytest

distributed = pytest.importorskip("dask.distributed")

import orbivane  # noqa: E402
from orbivane import synthetic  # noqa: E402
from orbivane.distributed import CalibrationJob, calibrate_many, shader_search, submit_calibrations  # noqa: E402


@pytest.fixture(scope="module")
def client():
    cluster = distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None,
                                       silence_logs=40)
    with distributed.Client(cluster) as c:
        yield c
    cluster.close()


@pytest.fixture(scope="module")
def wide_lens(data_dir):
    """The lens search over every value of the outermost parameter (3375 points)."""
    return synthetic.make_lens_search(data_dir, reach={"f_TCorrection_F": None})


def whole_search(lens):
    forcer = orbivane.ShaderBruteForcer(lens.camera, lens.pictures, lens.parameters)
    forcer.search_for_best_parameters("lens", "reference")
    return forcer.results(), forcer.evaluation_count()


def test_a_camera_arrives_whole_on_a_worker(client, rig):
    def describe(camera):
        m = camera.module("M2")
        return camera.module_names, m.matrix, m.picture, m.linkage, os.getpid()

    [camera] = client.scatter([rig.camera])
    names, matrix, picture, linkage, pid = client.submit(describe, camera).result()
    assert pid != os.getpid()
    assert names == rig.camera.module_names
    assert matrix.tobytes() == rig.camera.module("M2").matrix.tobytes()
    assert np.array_equal(picture, rig.pictures["M2"])
    assert linkage == rig.camera.module("M2").linkage


class TestShaderSearch:
    def test_equals_the_single_process_search(self, client, wide_lens):
        expected, evaluations = whole_search(wide_lens)
        camera = wide_lens.camera.copy()
        camera.add_module(orbivane.Module("reference", matrix=np.eye(4), picture=wide_lens.reference))
        result = shader_search(client, camera, "lens", "reference", shards=4, parameters=wide_lens.parameters)
        assert result.shards == 4
        assert result.evaluations == evaluations == orbivane.ShaderBruteForcer.grid_size(wide_lens.parameters) == 3375
        assert result.results == expected
        assert result.results[0]["parameters"] == wide_lens.truth
        best = result.cameras[0].module("lens").shaders[1]
        assert float(best.parameter("f_TCorrection_V")) == pytest.approx(wide_lens.truth["f_TCorrection_V"], abs=1e-6)

    def test_reference_as_a_picture_and_default_shards(self, client, lens):
        expected, _ = whole_search(lens)
        result = shader_search(client, lens.camera, "lens", lens.reference, parameters=lens.parameters)
        assert result.shards == 3  # the outermost parameter has three values here
        assert result.results == expected

    def test_errors_arrive_with_the_librarys_text(self, client, lens):
        with pytest.raises(KeyError, match="no module named 'nothing'"):
            shader_search(client, lens.camera, "nothing", lens.reference)
        camera = lens.camera.copy()
        camera.module("lens").shader_id = "0009ffff"  # no such shader file
        with pytest.raises(RuntimeError, match="Shader not found"):
            shader_search(client, camera, "lens", lens.reference, shards=2, parameters=lens.parameters)


class TestCalibrateMany:
    def test_one_failing_job_does_not_stop_the_others(self, client, data_dir, tmp_path):
        rigs = [synthetic.make_rig(data_dir, quick=True, seed=seed, name=f"fleet-{seed}") for seed in (1, 2)]
        broken = str(tmp_path / "missing-camera.json")
        jobs = [
            CalibrationJob(rigs[0].camera, target="Target", modules=["M2", "M3"], steps=["match", "neighbour"]),
            {"camera": broken, "target": "Target"},
            {"camera": rigs[1].camera, "target": "Target", "modules": ["M4", "M5"], "steps": ["match"]},
            {"camera": rigs[1].camera, "target": "Target", "steps": ["match", "paint"], "name": "bad-step"},
        ]
        futures = submit_calibrations(client, jobs)
        assert all(f.key.startswith("orbivane-calibrate-") for f in futures)
        distributed.wait(futures)  # what progress(futures) shows
        results = calibrate_many(client, jobs)
        assert [r.name for r in results] == ["fleet-1", "missing-camera.json", "fleet-2", "bad-step"]
        assert [r.ok for r in results] == [True, False, True, False]
        assert "missing-camera.json" in results[1].error and results[1].camera is None
        assert results[3].error == "ValueError: unknown step 'paint' (steps: match, neighbour, clip, shader)"
        for result, rig, modules in ((results[0], rigs[0], ["M2", "M3"]), (results[2], rigs[1], ["M4", "M5"])):
            assert result.failed_modules() == []
            errors = rig.corner_errors(result.camera)
            for name in modules:
                assert errors[name][1] < 1.0, (result.name, name, errors[name])
            assert sorted(result.report["verdicts"]) == modules

    def test_losing_the_worker_that_runs_a_job_only_runs_it_again(self, client, data_dir):
        rig = synthetic.make_rig(data_dir, quick=True, seed=3, name="fleet-3")
        [future] = submit_calibrations(client, [{"camera": rig.camera, "target": "Target", "modules": ["M2", "M3"],
                                                 "steps": ["match"]}])
        deadline = time.monotonic() + 60
        while not any(client.processing().values()):
            assert time.monotonic() < deadline, "the job never started"
            time.sleep(0.02)
        busy = [address for address, keys in client.processing().items() if keys]
        with pytest.raises(Exception):
            client.run(os._exit, 1, workers=busy)  # the worker dies mid-job; its nanny starts another
        result = future.result(timeout=300)
        assert result.ok and result.failed_modules() == []
        errors = rig.corner_errors(result.camera)
        assert errors["M2"][1] < 1.0 and errors["M3"][1] < 1.0

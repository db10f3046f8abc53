"""The geometry calibrators through Python on synthetic scenes with known
truth: target matching, neighbour stitching, the shader parameter search,
automatic clipping and the whole pipeline; callbacks, abort() from another
thread, the GIL released during a run, and exceptions."""

import logging
import pickle
import threading
import time

import numpy as np
import pytest

import orbivane
from orbivane import synthetic

from conftest import noise_picture


def with_decoy(rig):
    """The rig's camera plus a module that sees only noise where M3 sits."""
    camera = rig.camera.copy()
    camera.add_module(orbivane.Module("Noise", matrix=rig.misaligned["M3"], picture=noise_picture((270, 360, 3))))
    return camera


class TestMatchToTarget:
    def test_modules_reach_the_truth_and_the_decoy_fails(self, rig):
        camera = with_decoy(rig)
        matcher = orbivane.MatchToTarget(camera, camera.pictures())
        result = matcher.calibrate(["M2", "M4", "Noise"], "Target")
        before = rig.corner_errors(camera)
        after = rig.corner_errors(result)
        for name in ("M2", "M4"):
            assert before[name][1] > 10  # assembled: corners 10 px and more off
            assert after[name][1] < 1.0, (name, after[name])  # matched: within a pixel of the truth
        reports = matcher.module_reports()
        assert reports["M2"]["status"] == "aligned" and reports["M4"]["status"] == "aligned"
        assert reports["M2"]["residual_px"] < 1.0 and reports["M2"]["supporting_pairs"] >= 12
        assert reports["Noise"]["status"] == "failed" and reports["Noise"]["reason"]
        assert np.array_equal(result.module("Noise").matrix, camera.module("Noise").matrix)  # kept exactly
        assert matcher.error()["Noise"] == 10.0 and reports["Noise"]["error"] == 10.0
        assert np.array_equal(result.module("M1").matrix, camera.module("M1").matrix)  # not listed
        assert np.array_equal(camera.module("M2").matrix, rig.misaligned["M2"])  # the caller's camera is untouched

    def test_mode_one_keeps_supported_placements_without_an_error(self, rig):
        camera = with_decoy(rig)
        matcher = orbivane.MatchToTarget(camera, camera.pictures())
        matcher.set_calibration_mode(1)
        result = matcher.calibrate(["Target", "Noise"], "Target")
        reports = matcher.module_reports()
        assert reports["Target"]["status"] == "kept" and reports["Target"]["error"] is None
        assert reports["Noise"]["status"] == "failed" and reports["Noise"]["error"] is None
        assert matcher.error()["Target"] is None  # no estimate: the largest float in C++, None here
        assert np.array_equal(result.module("Target").matrix, camera.module("Target").matrix)

    def test_callback_sees_every_step(self, rig):
        matcher = orbivane.MatchToTarget(rig.camera, rig.camera.pictures())
        steps = []
        matcher.register_status_callback(lambda step, total, text, info: steps.append((step, total, text, info)))
        matcher.calibrate(["M3"], "Target")
        assert [(s, t, x) for s, t, x, _ in steps] == [(1, 2, "Calibrating Module M3"), (2, 2, "Finished Module M3")]
        assert all(isinstance(info, orbivane.StepInfo) for *_, info in steps)

    def test_abort_from_another_thread_returns_what_is_done(self, rig):
        matcher = orbivane.MatchToTarget(rig.camera, rig.camera.pictures())
        first_done, aborted = threading.Event(), threading.Event()

        def on_step(step, total, text, info):
            if text == "Finished Module M2":
                first_done.set()
                assert aborted.wait(10)  # hold the run here until the other thread has aborted it

        def stopper():
            assert first_done.wait(30)
            matcher.abort()
            aborted.set()

        matcher.register_status_callback(on_step)
        thread = threading.Thread(target=stopper)
        thread.start()
        result = matcher.calibrate(["M2", "M4", "M5"], "Target")
        thread.join()
        reports = matcher.module_reports()
        assert reports["M2"]["status"] == "aligned"
        assert reports["M4"]["status"] == "aborted" and reports["M5"]["status"] == "aborted"
        assert np.array_equal(result.module("M4").matrix, rig.misaligned["M4"])
        assert rig.corner_errors(result)["M2"][1] < 1.0

    def test_the_gil_is_released_while_calibrating(self, rig):
        matcher = orbivane.MatchToTarget(rig.camera, rig.camera.pictures())
        # Every module, so that the run lasts long enough to count ticks in.
        thread = threading.Thread(target=matcher.calibrate, args=(["M1", "M2", "M3", "M4", "M5"], "Target"))
        ticks = 0
        started = time.perf_counter()
        thread.start()
        while thread.is_alive():
            ticks += 1
            time.sleep(0.001)
        elapsed = time.perf_counter() - started
        # Holding the GIL for the run would leave this loop one or two ticks.
        assert elapsed > 0.1 and ticks > 0.2 * elapsed / 0.001

    def test_an_exception_in_the_callback_stops_the_run(self, rig):
        matcher = orbivane.MatchToTarget(rig.camera, rig.camera.pictures())
        seen = []

        def on_step(step, total, text, info):
            seen.append(text)
            raise KeyError("stop here")

        matcher.register_status_callback(on_step)
        with pytest.raises(KeyError, match="stop here"):
            matcher.calibrate(["M1", "M2"], "Target")
        assert seen == ["Calibrating Module M1"]
        # The calibrator is usable again afterwards.
        matcher.register_status_callback(None)
        assert matcher.calibrate(["M1"], "Target").module_names == rig.camera.module_names

    def test_a_second_run_at_once_is_refused(self, rig):
        matcher = orbivane.MatchToTarget(rig.camera, rig.camera.pictures())
        running, release = threading.Event(), threading.Event()
        errors = []

        def on_step(step, total, text, info):
            running.set()
            release.wait(10)

        def second():
            running.wait(10)
            try:
                matcher.calibrate(["M2"], "Target")
            except RuntimeError as error:
                errors.append(str(error))
            release.set()

        matcher.register_status_callback(on_step)
        thread = threading.Thread(target=second)
        thread.start()
        matcher.calibrate(["M2"], "Target")
        thread.join()
        assert errors == ["MatchToTarget.calibrate is already running on another thread"]

    def test_options_are_checked(self, rig):
        matcher = orbivane.MatchToTarget(rig.camera, {})
        with pytest.raises(ValueError, match=r"mode must lie in 0\.\.3"):
            matcher.set_calibration_mode(7)
        matcher.set_calibration_mode(3)
        matcher.set_m2b_max_iteration(2)
        assert (matcher.calibration_mode(), matcher.m2b_max_iteration()) == (3, 2)
        with pytest.raises(ValueError, match=r"m2b must lie in 1\.\.100, not 0"):
            matcher.set_m2b_max_iteration(0)
        with pytest.raises(ValueError, match=r"m2n must lie in 1\.\.100, not 500"):
            matcher.set_m2n_max_iteration(500)
        with pytest.raises(ValueError, match="allowed scale"):
            matcher.allow_scale(float("nan"))
        assert (matcher.m2b_max_iteration(), matcher.m2n_max_iteration()) == (2, 1)
        with pytest.raises(TypeError, match="callable"):
            matcher.register_status_callback(42)


class TestOptionRecords:
    """The calibrators' settings as records: built from keywords, checked by
    the library's ranges, printed, pickled, and taken whole by the
    calibrators and the pipeline."""

    def test_records_check_print_and_pickle(self):
        match = orbivane.MatchOptions(mode=3, m2b=7)
        assert (match.mode, match.m2b, match.m2n, match.grid_columns) == (3, 7, 1, 0)
        match.validate()
        match.m2b = 0
        with pytest.raises(ValueError, match=r"m2b must lie in 1\.\.100, not 0"):
            match.validate()
        with pytest.raises(ValueError, match="grid"):
            orbivane.MatchOptions(grid_columns=65, grid_rows=2).validate()
        with pytest.raises(ValueError, match="levels"):
            orbivane.NeighbourOptions(levels=0).validate()
        with pytest.raises(ValueError, match="threshold"):
            orbivane.ClippingOptions(threshold=0.0).validate()
        with pytest.raises(TypeError, match="levls"):
            orbivane.NeighbourOptions(levls=3)
        for record in (orbivane.MatchOptions(mode=2, allow_scale=1.5, grid_columns=4, grid_rows=3),
                       orbivane.NeighbourOptions(levels=3, step=0.5), orbivane.ClippingOptions(keep_aspect=True)):
            copy = pickle.loads(pickle.dumps(record))
            assert repr(copy) == repr(record)
        assert repr(orbivane.NeighbourOptions(levels=3, step=0.5)) == "NeighbourOptions(levels=3, iterations=6, step=0.5)"

    def test_calibrators_take_records_whole(self, rig):
        matcher = orbivane.MatchToTarget(rig.camera, {})
        matcher.set_options(orbivane.MatchOptions(mode=3, m2b=4, m2n=2))
        assert (matcher.calibration_mode(), matcher.m2b_max_iteration(), matcher.m2n_max_iteration()) == (3, 4, 2)
        matcher.set_options(orbivane.MatchOptions(grid_columns=6, grid_rows=4), modules=["M1"])
        assert matcher.get_grid("M1").shape == (5, 7, 2) and matcher.get_grid("M2") is None  # rows + 1, columns + 1 points
        with pytest.raises(ValueError, match="m2n"):
            matcher.set_options(orbivane.MatchOptions(m2n=0))
        assert matcher.m2n_max_iteration() == 1  # a refused record changes nothing
        with pytest.raises(KeyError, match="ghost"):
            matcher.set_options(orbivane.MatchOptions(), modules=["ghost"])
        with pytest.raises(ValueError, match="levels"):
            orbivane.NeighbourNeighbour(rig.camera, {}, options=orbivane.NeighbourOptions(levels=31))

    def test_the_pipeline_takes_records_in_place_of_keywords(self, rig):
        pipeline = orbivane.CalibrationPipeline(rig.camera)
        camera = pipeline.run(target="Target", modules=["M2", "M3"], match=orbivane.MatchOptions(mode=1),
                              neighbour=orbivane.NeighbourOptions(levels=3), clip=orbivane.ClippingOptions(no_holes=False))
        assert camera.module_names == rig.camera.module_names
        # Mode 1 keeps the placements: the match step reports them kept.
        assert {v["status"] for v in pipeline.steps()[0]["modules"].values()} == {"kept"}
        with pytest.raises(ValueError, match="give levels, iterations and step or neighbour=, not both"):
            pipeline.run(target="Target", levels=3, neighbour=orbivane.NeighbourOptions())
        with pytest.raises(ValueError, match="step must"):
            orbivane.calibrate(rig.camera, target="Target", neighbour=orbivane.NeighbourOptions(step=3.0))


def test_opencv_thread_count_is_settable():
    before = orbivane.get_num_threads()
    try:
        orbivane.set_num_threads(1)
        assert orbivane.get_num_threads() == 1
        with pytest.raises(ValueError, match="0 \\(OpenCV's default\\) or more"):
            orbivane.set_num_threads(-2)
    finally:
        orbivane.set_num_threads(0)
    assert orbivane.get_num_threads() == before


class TestNeighbourNeighbour:
    def test_a_shifted_module_is_put_back(self, straight_rig):
        rig = straight_rig
        camera = rig.camera.copy()
        for name in rig.names:
            camera.module(name).matrix = rig.truth[name]
        shift = np.eye(4, dtype=np.float32)
        shift[0, 3] = 5.0 / rig.panorama[0]  # 5 panorama pixels to the right
        camera.module("M3").matrix = shift @ rig.truth["M3"]
        stitcher = orbivane.NeighbourNeighbour(camera, camera.pictures())
        texts = []
        stitcher.register_status_callback(lambda s, t, text, info: texts.append(text))
        result = stitcher.calibrate(rig.names, "M1")
        errors = rig.corner_errors(result)
        assert max(e[1] for e in errors.values()) < 0.5, errors
        pairs = stitcher.pair_reports()
        assert [(p["first"], p["second"], p["measured"]) for p in pairs] == [
            ("M1", "M2", True), ("M2", "M3", True), ("M3", "M4", True), ("M4", "M5", True)]
        assert abs(pairs[1]["shift_px"] - 5.0) < 0.5 and abs(pairs[2]["shift_px"] - 5.0) < 0.5
        assert texts[0] == "Stitching Modules M1 and M2" and texts[-1] == "Adjusting Chain"
        assert len(stitcher.translations()) == 4

    def test_quiet_unless_logging_is_asked_for(self, straight_rig, capfd, caplog):
        stitcher = orbivane.NeighbourNeighbour(straight_rig.camera, straight_rig.camera.pictures())
        stitcher.calibrate(["M1", "M2"], "")
        out, err = capfd.readouterr()
        assert out == "" and err == "", (out, err)  # nothing on the console
        with caplog.at_level(logging.INFO, logger="orbivane"):
            stitcher.calibrate(["M1", "M2"], "")
        records = [r for r in caplog.records if r.name == "orbivane.NeighbourNeighbour"]
        assert any(r.getMessage().startswith("Starting t = (") for r in records), caplog.records
        assert capfd.readouterr() == ("", "")

    def test_unknown_module_raises(self, straight_rig):
        stitcher = orbivane.NeighbourNeighbour(straight_rig.camera, straight_rig.camera.pictures())
        with pytest.raises(KeyError, match="unknown module 'Nowhere'"):
            stitcher.calibrate(["M1", "Nowhere"], "")
        with pytest.raises(KeyError, match="unknown reference module 'Elsewhere'"):
            stitcher.calibrate(["M1", "M2"], "Elsewhere")


class TestShaderBruteForcer:
    def test_the_true_lens_comes_first(self, lens):
        forcer = orbivane.ShaderBruteForcer(lens.camera, lens.pictures, lens.parameters)
        progress = []
        forcer.register_status_callback(lambda done, total, text, info: progress.append((done, total, text)))
        cameras = forcer.search_for_best_parameters("lens", "reference")
        results = forcer.results()
        assert len(cameras) == len(results) == 10
        assert results[0]["parameters"] == lens.truth
        assert [r["error"] for r in results] == sorted(r["error"] for r in results)
        assert forcer.evaluation_count() == orbivane.ShaderBruteForcer.grid_size(lens.parameters) == 675
        assert progress[-1] == (675, 675, "Searching Shader Parameters")
        shader = cameras[0].module("lens").shaders[1]
        assert float(shader.parameter("f_TCorrection_F")) == pytest.approx(lens.truth["f_TCorrection_F"], abs=1e-6)

    def test_shards_merge_into_the_whole_search(self, lens):
        whole = orbivane.ShaderBruteForcer(lens.camera, lens.pictures, lens.parameters)
        whole.search_for_best_parameters("lens", "reference")
        shards = []
        for index in range(3):
            forcer = orbivane.ShaderBruteForcer(lens.camera, lens.pictures, lens.parameters)
            forcer.set_shard(index, 3)
            forcer.set_thread_count(1)
            forcer.search_for_best_parameters("lens", "reference")
            shards.append(forcer.results())
        assert orbivane.ShaderBruteForcer.merge_results(shards) == whole.results()

    def test_bad_input(self, lens):
        forcer = orbivane.ShaderBruteForcer(lens.camera, lens.pictures, lens.parameters)
        with pytest.raises(ValueError, match="shard 3 of 3"):
            forcer.set_shard(3, 3)
        with pytest.raises(KeyError, match="unknown reference 'no such picture'"):
            forcer.search_for_best_parameters("lens", "no such picture")
        with pytest.raises(KeyError, match="unknown module 'glass'"):
            forcer.search_for_best_parameters("glass", "reference")
        with pytest.raises(ValueError, match=r"\(name, min, max, step\)"):
            orbivane.ShaderBruteForcer(lens.camera, lens.pictures, [("f_TCorrection_F", 0.1)])

    def test_an_exception_in_the_callback_stops_the_search(self, lens):
        forcer = orbivane.ShaderBruteForcer(lens.camera, lens.pictures)  # the whole grid: stopped early

        def on_step(done, total, text, info):
            raise InterruptedError(f"stopped at {done} of {total}")

        forcer.register_status_callback(on_step)
        started = time.perf_counter()
        with pytest.raises(InterruptedError, match="of 304200"):
            forcer.search_for_best_parameters("lens", "reference")
        assert time.perf_counter() - started < 3.0


    def test_abort_from_another_thread_stops_the_search_and_keeps_nothing(self, lens):
        forcer = orbivane.ShaderBruteForcer(lens.camera, lens.pictures)  # the whole grid: minutes if not stopped
        first = threading.Event()
        forcer.register_status_callback(lambda done, total, text, info: first.set())
        stopper = threading.Thread(target=lambda: (first.wait(30), forcer.abort()))
        stopper.start()
        started = time.perf_counter()
        cameras = forcer.search_for_best_parameters("lens", "reference")
        stopper.join()
        assert time.perf_counter() - started < 10.0
        assert forcer.aborted()
        assert cameras == [] and forcer.results() == []
        assert 0 < forcer.evaluation_count() < orbivane.ShaderBruteForcer.grid_size()
        assert forcer.search_for_best_parameters("lens", "reference") == []  # later searches return at once


class TestAutoClipping:
    @staticmethod
    def two_modules():
        camera = orbivane.Camera()
        camera.panorama_size = (200, 100)
        camera.add_module(orbivane.Module("A", matrix=np.diag([0.6, 1, 1, 1])))
        b = np.diag([0.6, 0.8, 1, 1])
        b[0, 3], b[1, 3] = 0.4, 0.1
        camera.add_module(orbivane.Module("B", matrix=b))
        return camera

    def test_largest_covered_rectangle(self):
        clipping = orbivane.AutoClipping(self.two_modules())
        assert clipping.config_geometry(threshold=0.5)
        assert clipping.process()
        # A covers x 0..0.6 fully, B x 0.4..1 for y 0.1..0.9: the best is the full-width band.
        assert clipping.offset() == pytest.approx([0.0, 0.1, 0.0, 0.1], abs=0.02)
        assert clipping.check_gap() == []
        assert clipping.coverage_size() == (200, 100)
        assert clipping.coverage().max() == pytest.approx(2.0, abs=0.01)
        assert clipping.inspection_picture().shape == (100, 200, 3)

    def test_overlap_only(self):
        clipping = orbivane.AutoClipping(self.two_modules())
        clipping.config_geometry(require_overlap=True, threshold=0.5)
        assert clipping.process()
        assert clipping.offset() == pytest.approx([0.4, 0.1, 0.4, 0.1], abs=0.02)

    def test_no_holes_and_the_clipped_camera(self):
        clipping = orbivane.AutoClipping(self.two_modules())
        clipping.config_geometry(threshold=1.0)
        clipping.set_no_holes(True)
        assert clipping.no_holes()
        assert clipping.process()
        assert clipping.check_gap() == []
        x, y, w, h = clipping.rectangle()
        clipped = clipping.clipped_camera()
        assert clipped.panorama_size == (w, h)
        # The crop maps the rectangle onto the unit square: A's left edge
        # (surface x 0) lands half an element left of the clipped panorama.
        left, top, right, bottom = clipping.viewer_offset()
        a = clipped.module("A").matrix
        assert a[0, 3] == pytest.approx(-left / (1 - left - right), abs=1e-6)
        assert a[0, 0] == pytest.approx(0.6 / (1 - left - right), abs=1e-6)
        same = orbivane.AutoClipping.apply_clipping(self.two_modules(), clipping.viewer_offset(), (200, 100))
        assert np.allclose(same.module("B").matrix, clipped.module("B").matrix)
        with pytest.raises(ValueError, match="no rectangle"):
            orbivane.AutoClipping.apply_clipping(self.two_modules(), [0.6, 0, 0.6, 0], (200, 100))

    def test_failures_say_why(self):
        clipping = orbivane.AutoClipping(orbivane.Camera())
        clipping.config_geometry()
        assert not clipping.process()
        assert clipping.error()
        with pytest.raises(ValueError, match=r"threshold must lie in \(0, 1\]"):
            clipping.config_geometry(threshold=0.0)


class TestPipeline:
    def test_pipeline_reaches_the_truth(self, rig):
        texts = []
        pipeline = orbivane.CalibrationPipeline(rig.camera)
        pipeline.register_status_callback(lambda s, t, text, i: texts.append(text))
        final = pipeline.run(target="Target")
        assert final.module_names == rig.camera.module_names
        verdicts = pipeline.verdicts()
        assert {n: v["status"] for n, v in verdicts.items()} == {n: "aligned" for n in rig.names}
        # After match and neighbour the modules sit on the truth (the clip step may crop the panorama).
        match_camera, neighbour_camera, _ = pipeline.step_cameras()
        for camera in (match_camera, neighbour_camera):
            errors = rig.corner_errors(camera)
            assert max(e[1] for e in errors.values()) < 1.0, errors
        report = pipeline.report()
        assert [s["step"] for s in report["steps"]] == ["match", "neighbour", "clip"]
        seams_after = [s["px"] for s in report["steps"][1]["seams"] if s["measured"]]
        assert len(seams_after) == 4 and max(seams_after) < 1.0
        assert max(s["px"] for s in report["seams_before"] if s["measured"]) > 2.0
        assert len(report["steps"][2]["clipping"]) == 4
        assert any(text.endswith("Calibrating Module M1") for text in texts)
        assert any(text.endswith("Stitching Modules M1 and M2") for text in texts)

    def test_calibrate_returns_camera_and_report(self, rig):
        result = orbivane.calibrate(rig.camera, target="Target", modules=["M2", "M3"], steps=["match"])
        assert result.ok and result.failed_modules() == [] and result.seconds > 0
        assert sorted(result.report["verdicts"]) == ["M2", "M3"]
        errors = rig.corner_errors(result.camera)
        assert errors["M2"][1] < 1.0 and errors["M3"][1] < 1.0
        assert np.array_equal(result.camera.module("M1").matrix, rig.misaligned["M1"])

    def test_wrong_names_and_keywords_raise_naming_them(self, rig):
        for kwargs, message in (({"modules": ["M2", "Ghost"]}, "unknown module 'Ghost'"),
                                ({"target": "Nowhere"}, "unknown target module 'Nowhere'"),
                                ({"reference": "Elsewhere", "steps": ["match", "neighbour"]},
                                 "unknown reference module 'Elsewhere'")):
            options = {"target": "Target", **kwargs}
            with pytest.raises(KeyError, match=message):
                orbivane.calibrate(rig.camera, **options)
        with pytest.raises(TypeError, match="unexpected keyword argument 'modulez'"):
            orbivane.calibrate(rig.camera, target="Target", modulez=["M2"])
        matcher = orbivane.MatchToTarget(rig.camera, rig.camera.pictures())
        with pytest.raises(KeyError, match="unknown module 'Ghost'"):
            matcher.calibrate(["M2", "Ghost"], "Target")
        with pytest.raises(KeyError, match="unknown target module 'Nowhere'"):
            matcher.calibrate(["M2"], "Nowhere")
        with pytest.raises(ValueError, match="not finite"):
            orbivane.Module("A", matrix=np.full((4, 4), np.nan))
        with pytest.raises(ValueError, match="an empty picture"):
            orbivane.Module("A", matrix=np.eye(4), picture=np.zeros((0, 0, 3), np.uint8))

    def test_an_aborted_matcher_says_so_per_module(self, rig):
        matcher = orbivane.MatchToTarget(rig.camera, rig.camera.pictures())
        assert not matcher.aborted()
        matcher.abort()
        assert matcher.aborted()
        result = matcher.calibrate(["M2", "M3"], "Target")
        assert {n: r["status"] for n, r in matcher.module_reports().items()} == {"M2": "aborted", "M3": "aborted"}
        assert np.array_equal(result.module("M2").matrix, rig.misaligned["M2"])

    def test_bad_options_raise(self, rig):
        with pytest.raises(ValueError, match="unknown step 'paint'"):
            orbivane.calibrate(rig.camera, target="Target", steps=["match", "paint"])
        with pytest.raises(ValueError, match="need a target module"):
            orbivane.calibrate(rig.camera, steps=["match"])

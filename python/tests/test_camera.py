"""The camera model from Python: modules, matrices, grids, shaders, camera
files (round trip, errors), deep copies and pickling."""

import copy
import json
import os
import pickle

import numpy as np
import pytest

import orbivane


def small_camera(photo):
    camera = orbivane.Camera("two modules")
    a = camera.add_module(orbivane.Module("A", matrix=np.diag([0.5, 1, 1, 1]).astype(np.float32), picture=photo))
    b = orbivane.Module("B", matrix=np.eye(4), picture=photo[:, ::-1].copy())
    b.rotation = 90
    b.fisheye = True
    b.fisheye_threshold = 80
    b.linkage = {"left": "A", "right": "", "overlap": 0.25}
    b.connection = {"backend": "simulated", "address": "memory:x", "device": "b"}
    b.shaders = [orbivane.clip_matrix_shader(np.eye(4)), orbivane.Shader("00060001", {"f_TCorrection_F": "0.25"})]
    b.shader_id = "00060001"
    camera.add_module(b)
    camera.set_neighbour("A", "B")
    camera.panorama_size = (1000, 300)
    grid = np.stack(np.meshgrid(np.linspace(0, 1, 4), np.linspace(0, 1, 3)), axis=-1).astype(np.float32)
    grid[1, 1] += (0.01, -0.02)
    a.uv_grid = grid
    return camera, grid


class TestModel:
    def test_modules_are_the_cameras_own(self, photo):
        camera, _ = small_camera(photo)
        assert camera.module_names == ["A", "B"] and len(camera) == 2 and "B" in camera
        camera.module("A").matrix = np.eye(4) * 2
        assert camera.module("A").matrix[0, 0] == 2.0
        assert camera.modules[0].matrix.dtype == np.float32 and camera.modules[0].matrix.shape == (4, 4)
        assert camera.module("A").neighbour == "B" and camera.module("B").neighbour is None

    def test_unknown_module_and_bad_matrix(self, photo):
        camera, _ = small_camera(photo)
        with pytest.raises(KeyError, match="no module named 'C'"):
            camera.module("C")
        with pytest.raises(ValueError, match="4 x 4 matrix"):
            camera.module("A").matrix = np.eye(3)
        with pytest.raises(ValueError, match="4 x 4 matrix"):
            camera.module("A").matrix = "not a matrix"
        with pytest.raises(ValueError, match="unknown connection key 'host'"):
            camera.module("A").connection = {"host": "x"}

    def test_values_read_back(self, photo):
        camera, grid = small_camera(photo)
        b = camera.module("B")
        assert (b.rotation, b.fisheye, b.fisheye_threshold, b.shader_id) == (90, True, 80, "00060001")
        assert b.linkage == {"left": "A", "right": "", "overlap": 0.25}
        assert b.connection["device"] == "b" and b.connection["port"] == 0
        assert [s.uid for s in b.shaders] == ["00050007", "00060001"]
        assert b.shaders[1].parameter("f_TCorrection_F") == "0.25"
        assert np.array_equal(camera.module("A").uv_grid, grid)
        assert camera.module("B").uv_grid is None
        assert np.allclose(camera.module("A").final_matrix(), camera.module("A").matrix)

    def test_copies_are_deep(self, photo):
        camera, _ = small_camera(photo)
        for other in (camera.copy(), copy.copy(camera), copy.deepcopy(camera)):
            other.module("A").matrix = np.eye(4) * 3
            other.module("B").name = "renamed"
            assert camera.module("A").matrix[0, 0] == 0.5
            assert camera.module_names == ["A", "B"]
            assert other.module("A").neighbour == "renamed"  # the copy's chain points into the copy
            assert other.module("A").picture is camera.module("A").picture  # pictures are shared


class TestFiles:
    def test_round_trip_writes_pictures_beside_the_file(self, tmp_path, photo):
        camera, grid = small_camera(photo)
        path = str(tmp_path / "camera.json")
        camera.save(path)
        assert sorted(os.listdir(tmp_path / "camera.pictures")) == ["A.png", "B.png"]
        assert camera.module("A").picture_path == ""  # the camera itself is left as it was
        text = json.loads(open(path).read())
        assert text["modules"][0]["image"] == "camera.pictures/A.png"

        loaded = orbivane.Camera.load(path)
        assert loaded.module_names == ["A", "B"] and loaded.panorama_size == (1000, 300)
        for name in ("A", "B"):
            assert np.array_equal(loaded.module(name).matrix, camera.module(name).matrix)
            assert np.array_equal(loaded.module(name).picture, camera.module(name).picture)
        assert np.array_equal(loaded.module("A").uv_grid, grid)
        assert loaded.module("B").shaders == camera.module("B").shaders
        assert loaded.module("B").linkage == camera.module("B").linkage
        assert loaded.module("A").neighbour == "B"

        # Saved again, pictures that have files keep them.
        loaded.save(str(tmp_path / "again.json"))
        assert not (tmp_path / "again.pictures").exists()

    def test_bad_files_name_the_problem(self, tmp_path):
        with pytest.raises(orbivane.OrbivaneError, match="missing.json"):
            orbivane.Camera.load(str(tmp_path / "missing.json"))
        bad = tmp_path / "bad.json"
        bad.write_text('{"format": "orbivane-camera", "version": 1, "modules": [{"name": "A", "colour": 1}]}')
        with pytest.raises(orbivane.OrbivaneError, match=r"bad\.json.*colour"):
            orbivane.Camera.load(str(bad))

    def test_json_without_pictures(self, photo):
        camera, _ = small_camera(photo)
        again = orbivane.Camera.from_json(camera.to_json())
        assert again.module_names == ["A", "B"]
        assert again.module("A").picture is None  # in-memory pictures are not part of the text
        assert np.array_equal(again.module("A").matrix, camera.module("A").matrix)


class TestPickling:
    def test_pickle_carries_everything_and_pictures(self, photo):
        camera, grid = small_camera(photo)
        again = pickle.loads(pickle.dumps(camera, protocol=pickle.HIGHEST_PROTOCOL))
        assert again.module_names == camera.module_names and again.name == "two modules"
        for name in ("A", "B"):
            assert np.array_equal(again.module(name).matrix, camera.module(name).matrix)
            assert np.array_equal(again.module(name).picture, camera.module(name).picture)
        assert np.array_equal(again.module("A").uv_grid, grid)
        assert again.module("A").neighbour == "B"
        assert again.module("B").connection == camera.module("B").connection

    def test_matrices_survive_exactly(self, rig):
        again = pickle.loads(pickle.dumps(rig.camera))
        for name in rig.names:
            assert again.module(name).matrix.tobytes() == rig.camera.module(name).matrix.tobytes()

    def test_modules_pickle_and_copy_with_their_pictures(self, photo):
        camera, grid = small_camera(photo)
        b = camera.module("B")
        for twin in (pickle.loads(pickle.dumps(b)), copy.copy(b), copy.deepcopy(b)):
            assert twin.name == "B" and twin.rotation == 90 and twin.fisheye_threshold == 80
            assert np.array_equal(twin.matrix, b.matrix) and np.array_equal(twin.picture, b.picture)
            assert twin.shader_id == "00060001" and len(twin.shaders) == 2
            twin.rotation = 0
            assert b.rotation == 90  # a copy, not the camera's module
        a = pickle.loads(pickle.dumps(camera.module("A")))
        assert np.array_equal(a.uv_grid, grid)

    def test_cameras_iterate_and_compare(self, photo):
        camera, _ = small_camera(photo)
        assert [m.name for m in camera] == ["A", "B"]
        assert camera == camera.copy() == pickle.loads(pickle.dumps(camera))
        moved = camera.copy()
        moved.module("B").matrix = np.eye(4) * 0.5
        assert camera != moved
        repainted = camera.copy()
        picture = repainted.module("A").picture.copy()
        picture[0, 0] ^= 255
        repainted.module("A").picture = picture
        assert camera != repainted  # the same description, another picture
        with pytest.raises(TypeError):
            hash(camera)

    def test_the_package_functions_travel_by_name(self):
        for function in (orbivane.estimate_blur, orbivane.load_picture, orbivane.render_panorama,
                         orbivane.Camera.load, orbivane.Camera.from_json):
            assert pickle.loads(pickle.dumps(function)) is function

    def test_garbage_state_is_refused(self):
        camera = orbivane.Camera.__new__(orbivane.Camera)
        with pytest.raises(ValueError, match="not a pickled orbivane.Camera"):
            camera.__setstate__((2, b"", {}))

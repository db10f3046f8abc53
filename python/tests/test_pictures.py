"""Pictures in and out: numpy arrays as cv2 gives them reach the library in
place where their layout allows, come back without copies, and bad arrays
are refused with a clear message. Oracles: cv2 (Debian's python3-opencv)."""

import os

import cv2
import numpy as np
import pytest

import orbivane


class TestPicturesIn:
    def test_bgr_array_is_used_in_place(self, photo):
        module = orbivane.Module("A", picture=photo)
        assert module.picture is photo  # the very array, no copy
        photo[0, 0] = (1, 2, 3)
        assert tuple(module.picture[0, 0]) == (1, 2, 3)

    def test_array_stays_alive_with_the_module(self):
        module = orbivane.Module("A", picture=np.full((40, 50, 3), 77, np.uint8))
        import gc

        gc.collect()
        assert module.picture.shape == (40, 50, 3)
        assert int(module.picture.mean()) == 77

    def test_rows_of_a_crop_are_viewed_in_place(self, photo):
        crop = photo[10:110, 20:220]  # rows are strided, pixels packed
        module = orbivane.Module("A", picture=crop)
        assert module.picture is crop
        assert orbivane.estimate_blur(crop) == orbivane.estimate_blur(np.ascontiguousarray(crop))

    def test_grey_picture_becomes_bgr(self, photo):
        grey = cv2.cvtColor(photo, cv2.COLOR_BGR2GRAY)
        picture = orbivane.Module("A", picture=grey).picture
        assert picture.shape == photo.shape
        assert np.array_equal(picture, cv2.cvtColor(grey, cv2.COLOR_GRAY2BGR))
        assert not picture.flags.writeable  # the library's pixels, shared

    def test_bgra_picture_is_kept_with_alpha(self, photo):
        bgra = cv2.cvtColor(photo, cv2.COLOR_BGR2BGRA)
        assert orbivane.Module("A", picture=bgra).picture is bgra
        assert orbivane.estimate_blur(bgra) == orbivane.estimate_blur(photo)

    def test_read_only_and_strided_arrays_are_copied(self, photo):
        frozen = photo.copy()
        frozen.flags.writeable = False
        picture = orbivane.Module("A", picture=frozen).picture
        assert picture is not frozen and np.array_equal(picture, frozen)
        every_other = photo[:, ::2]
        picture = orbivane.Module("B", picture=every_other).picture
        assert np.array_equal(picture, every_other)

    @pytest.mark.parametrize(
        "array, message",
        [
            (np.zeros((10, 10, 3), np.float32), "expected uint8 pixels"),
            (np.zeros((10, 10, 2), np.uint8), "got shape (10, 10, 2)"),
            (np.zeros((10,), np.uint8), "got shape (10,)"),
        ],
    )
    def test_bad_arrays_are_refused(self, array, message):
        with pytest.raises(ValueError, match=r"picture of module 'A'.*" + message.replace("(", r"\(").replace(")", r"\)")):
            orbivane.MatchToTarget(orbivane.Camera(), {"A": array})

    def test_not_an_array_is_a_type_error(self):
        with pytest.raises(TypeError, match="expected a numpy array"):
            orbivane.Module("A", picture=[[1, 2], [3, 4]])


class TestPicturesOut:
    def test_library_pictures_are_read_only_views(self, tmp_path, photo):
        path = str(tmp_path / "p.png")
        cv2.imwrite(path, photo)
        loaded = orbivane.load_picture(path)
        assert np.array_equal(loaded, photo)
        assert not loaded.flags.writeable and not loaded.flags.owndata

    def test_save_picture_round_trip_and_errors(self, tmp_path, photo):
        path = str(tmp_path / "out.png")
        orbivane.save_picture(photo, path)
        assert np.array_equal(cv2.imread(path), photo)
        assert os.listdir(tmp_path) == ["out.png"]  # written atomically, nothing left beside it
        with pytest.raises(orbivane.OrbivaneError, match="no such file"):
            orbivane.load_picture(str(tmp_path / "missing.png"))

    def test_estimate_blur_agrees_with_opencv(self, photo):
        grey = cv2.cvtColor(photo, cv2.COLOR_BGR2GRAY)
        laplacian = cv2.Laplacian(grey, cv2.CV_64F, ksize=3)
        rows = np.arange(grey.shape[0], dtype=np.float32)
        r = np.float32(grey.shape[0])
        out = ((np.float32(0.66) * r < rows) & (rows < np.float32(0.68) * r)) | (
            (np.float32(0.49) * r < rows) & (rows < np.float32(0.51) * r)
        )
        expected = int(laplacian[~out].std() ** 2)
        assert orbivane.estimate_blur(photo, 0) == expected
        blurred = cv2.GaussianBlur(photo, (0, 0), 3)
        assert orbivane.estimate_blur(blurred) < expected / 10
        with pytest.raises(RuntimeError, match="between two quarter turns"):
            orbivane.estimate_blur(photo, 45)

    def test_shading_with_neutral_lens_keeps_the_picture(self, photo):
        neutral = orbivane.Shader(orbivane.LENS_DISTORTION_SHADER_UID, {})
        shaded = orbivane.shade_picture(photo, [neutral])
        assert shaded.shape == photo.shape
        assert np.abs(shaded.astype(int) - photo.astype(int)).mean() < 0.5

    def test_panorama_of_the_true_camera_gives_the_scene_back(self, rig):
        truth = rig.camera.copy()
        truth.remove_module("Target")
        for name in rig.names:
            truth.module(name).matrix = rig.truth[name]
        result = orbivane.render_panorama(truth, full=True)
        picture = result["picture"]
        assert picture.shape == rig.scene.shape
        assert result["drawn"] == rig.names and result["skipped"] == []
        covered = result["coverage"] > 0
        # Modules carry vignetting (down to 0.92 x 0.91 at their corners) and noise: compare the middle rows.
        middle = slice(rig.scene.shape[0] // 3, 2 * rig.scene.shape[0] // 3)
        difference = np.abs(picture[middle].astype(int) - rig.scene[middle].astype(int)).mean(axis=2)
        assert covered[middle].mean() > 0.95
        assert np.median(difference[covered[middle]]) < 12


class TestBlurRecipe:
    def test_the_documented_cv2_recipe_gives_the_same_integer(self, data_dir):
        """docs/python.md's blur recipe, run as written, against estimate_blur."""
        docs = open(os.path.join(os.path.dirname(__file__), "..", "..", "docs", "python.md")).read()
        start = docs.index("def blur_score(")
        recipe = docs[start:docs.index("```", start)]
        namespace = {}
        exec("import cv2, numpy as np\n" + recipe, namespace)
        for name in ("baboon.jpg", "building.jpg", "fruits.jpg"):
            picture = cv2.imread(os.path.join(data_dir, name))
            for rotation in (0, 90, 180, 270):
                assert namespace["blur_score"](picture, rotation) == orbivane.estimate_blur(picture, rotation), (
                    name, rotation)

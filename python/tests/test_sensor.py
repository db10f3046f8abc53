"""The sensor side through Python, on the simulated camera whose scenes have
a known truth: fisheye centring in a closed loop, resolution on a
three-mark target, sensor windows and overlap, device faults, and finding
calibration frames in a recording."""

import json
import os

import cv2
import numpy as np
import pytest

import orbivane


def simulated_module(name, address, device):
    module = orbivane.Module(name)
    module.connection = {"backend": "simulated", "address": address, "device": device}
    return module


def window_corner(simulated, device):
    """Top-left pixel of the module's window on its sensor frame."""
    window = simulated.module(device)["window"]
    height, width = simulated.sensor_frame(device).shape[:2]
    return ((width - window["width"]) // 2 + window["x"], (height - window["height"]) // 2 + window["y"])


class TestFisheye:
    def test_circle_found_and_centred(self):
        address = "memory:pytest-fisheye"
        simulated = orbivane.SimulatedCamera.open(address)
        centre = (800 + 57.4, 600 - 38.2)
        simulated.add_module("fe", {"kind": "fisheye", "width": 1600, "height": 1200, "centre_x": centre[0],
                                    "centre_y": centre[1], "radius": 400})
        module = simulated_module("fisheye", address, "fe")
        module.fisheye = True
        calibration = orbivane.FisheyeCalibration(module, 97)
        assert calibration.threshold == 97

        before = calibration.calculate_calibration(simulated.capture("fe"))
        corner = window_corner(simulated, "fe")
        assert before["x"] == pytest.approx(centre[0] - corner[0], abs=1.5)
        assert before["y"] == pytest.approx(centre[1] - corner[1], abs=1.5)
        assert before["radius"] == pytest.approx(400, abs=3)
        assert before["picture"].shape == (900, 1200, 3)  # the window: three quarters of the frame

        assert calibration.apply(0, 0) is True
        picture = simulated.capture("fe")
        after = calibration.calculate_calibration(picture)
        middle = (picture.shape[1] / 2, picture.shape[0] / 2)
        assert after["x"] == pytest.approx(middle[0], abs=1.5) and after["y"] == pytest.approx(middle[1], abs=1.5)
        assert calibration.restore()
        assert window_corner(simulated, "fe") == corner

    def test_no_circle_gives_minus_one(self):
        module = orbivane.Module("dark")
        result = orbivane.FisheyeCalibration(module).calculate_calibration(np.zeros((300, 400, 3), np.uint8))
        assert (result["x"], result["y"], result["radius"]) == (-1, -1, -1)


class TestResolution:
    def test_metres_per_pixel_of_a_known_target(self):
        address = "memory:pytest-resolution"
        simulated = orbivane.SimulatedCamera.open(address)
        simulated.add_module("t", {"kind": "target", "width": 1600, "height": 1200, "corner_x": 320, "corner_y": 260,
                                   "spacing_x": 900, "spacing_y": 600, "mark_radius": 28},
                             window={"width": 1600, "height": 1200})
        module = simulated_module("target", address, "t")
        calibration = orbivane.ResolutionCalibration(module, 0.9, 0.6, 200)
        annotated = calibration.calculate_calibration(simulated.capture("t"))
        assert annotated.shape == (1200, 1600, 3)
        assert calibration.circle_count() == 3
        assert calibration.metres_per_pixel_x() == pytest.approx(0.001, rel=0.01)
        assert calibration.metres_per_pixel_y() == pytest.approx(0.001, rel=0.01)

    def test_blank_picture_finds_no_marks(self):
        calibration = orbivane.ResolutionCalibration(orbivane.Module("t"), 0.9, 0.6, 200)
        calibration.calculate_calibration(np.full((600, 800, 3), 255, np.uint8))
        assert calibration.circle_count() == 0 and calibration.horizontal_spacing() == 0


class TestSensorShifter:
    def test_window_read_written_and_seen_in_the_picture(self, data_dir):
        address = "memory:pytest-shifter"
        simulated = orbivane.SimulatedCamera.open(address)
        path = os.path.join(data_dir, "graf1.png")
        simulated.add_module("w", {"kind": "image", "image_path": path, "blur": 0, "noise": 0},
                             window={"width": 400, "height": 300})
        module = simulated_module("W", address, "w")
        info = orbivane.SensorShifter.read_sensor_shift(module, False, 0.0)
        assert (info["x"], info["y"]) == (0, 0) and info["x_max"] > 40
        frame = simulated.sensor_frame("w")
        before = simulated.capture("w")
        x0, y0 = window_corner(simulated, "w")
        assert np.array_equal(before, frame[y0:y0 + 300, x0:x0 + 400])

        info["x"], info["y"] = 40, -20
        orbivane.SensorShifter.write_sensor_shift(module, info)
        assert orbivane.SensorShifter.read_sensor_shift(module, False, 0.0)["x"] == 40
        after = simulated.capture("w")
        assert np.array_equal(after, frame[y0 - 20:y0 + 280, x0 + 40:x0 + 440])
        assert orbivane.SensorShifter.last_changed_sensor_info("W")["x"] == 40

    def test_overlap_of_two_crops(self, photo):
        left = np.ascontiguousarray(photo[100:400, 0:400])
        right = np.ascontiguousarray(photo[100:400, 300:700])  # repeats the left's last 100 columns
        measured = orbivane.SensorShifter.measure_overlap(left, right)
        assert measured["overlap"] == pytest.approx(100, abs=0.5)
        assert measured["y"] == pytest.approx(0, abs=0.5) and measured["score"] > 0.95
        with pytest.raises(orbivane.OrbivaneError):
            orbivane.SensorShifter.measure_overlap(left, np.zeros_like(right))

    def test_device_faults_raise(self):
        address = "memory:pytest-faults"
        simulated = orbivane.SimulatedCamera.open(address)
        simulated.add_module("f", {"kind": "fisheye", "width": 640, "height": 480, "centre_x": 320, "centre_y": 240,
                                   "radius": 150}, faults={"connect_refused": True})
        with pytest.raises(orbivane.OrbivaneError, match="cannot read the sensor window of module 'F'"):
            orbivane.SensorShifter.read_sensor_shift(simulated_module("F", address, "f"))
        with pytest.raises(orbivane.OrbivaneError, match="cannot read the sensor window"):
            orbivane.SensorShifter.read_sensor_shift(orbivane.Module("no connection"))
        with pytest.raises(ValueError, match="unknown scene key 'colour'"):
            simulated.add_module("g", {"kind": "fisheye", "colour": 3})


class TestFrameFinding:
    def test_the_sharp_still_frame_is_chosen(self, tmp_path, data_dir):
        photo = cv2.imread(os.path.join(data_dir, "aloeL.jpg"))  # a plant: nothing a person detector takes for one
        video = str(tmp_path / "cam.avi")
        writer = cv2.VideoWriter(video, cv2.VideoWriter_fourcc(*"MJPG"), 10, (320, 240))
        assert writer.isOpened()
        sharp = cv2.resize(photo, (320, 240), interpolation=cv2.INTER_AREA)
        blurred = cv2.GaussianBlur(sharp, (0, 0), 3)
        for k in range(40):
            writer.write(blurred if k < 20 else sharp)
        writer.release()
        start = 1795341600000
        index = tmp_path / "recordings.json"
        index.write_text(json.dumps({"format": "orbivane-recordings", "version": 1,
                                     "recordings": [{"module": "cam", "video": "cam.avi", "start": start, "fps": 10}]}))
        camera = orbivane.Camera()
        camera.add_module(simulated_module("cam", str(index), "cam"))

        finder = orbivane.SmartFinderImage(camera)
        finder.set_options(samples=6, detector="hog")
        texts = []
        finder.register_status_callback(lambda s, t, text, info: texts.append((s, t, text)))
        found = finder.find()
        [frame] = found["cam"]
        assert frame["frame"] >= 20 and frame["persons"] == 0 and not frame["built_background"]
        assert frame["is_free"] and frame["foreground"] <= 0.02 and frame["foreground_persons"] == 0
        assert frame["time_ms"] == start + 100 * frame["frame"]
        assert frame["picture"].shape == (240, 320, 3)
        capture = cv2.VideoCapture(video)  # the oracle: the same frame as OpenCV decodes it
        capture.set(cv2.CAP_PROP_POS_FRAMES, frame["frame"])
        ok, expected = capture.read()
        assert ok and np.abs(frame["picture"].astype(int) - expected.astype(int)).mean() < 0.5
        assert len(texts) == 6 and texts[-1][:2] == (6, 6)
        assert finder.camera_with_pictures().module("cam").picture.shape == (240, 320, 3)

    def test_bad_options_are_refused(self):
        finder = orbivane.SmartFinderImage(orbivane.Camera())
        with pytest.raises(ValueError, match="samples"):
            finder.set_options(samples=0)
        with pytest.raises(ValueError, match="unknown finder option key 'sample'"):
            finder.set_options(sample=3)

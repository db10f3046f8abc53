"""Bad input across every command, as a careless or hostile user gives it.

Each case names the command line, the exit status it must end with, words
its one-line error must hold, and checks that every input and every earlier
output is byte-identical afterwards (nothing lost, nothing half-written).
Then an interruption in the middle of a multi-file write (the earlier output
stays whole) and parallel writers of one state file (no update lost).

Usage: bad_input_test.py ORBIVANE-CALIBRATE SAMPLE-DATA-FOLDER [--cases-only]
(--cases-only: the bad-input cases without the interruptions and parallel
writers, as the sanitizer builds run it.)
"""
import hashlib
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

import cv2
import numpy as np

TOOL, DATA = sys.argv[1], sys.argv[2]
CASES_ONLY = "--cases-only" in sys.argv[3:]
failures = []


def run(args, cwd, timeout=300):
    return subprocess.run([TOOL] + args, cwd=cwd, capture_output=True, text=True, timeout=timeout)


def digest(folder):
    """Every file under the folder (hidden ones too) with its bytes' hash."""
    out = {}
    for root, _, files in os.walk(folder):
        for f in files:
            path = os.path.join(root, f)
            with open(path, "rb") as handle:
                out[os.path.relpath(path, folder)] = hashlib.sha1(handle.read()).hexdigest()
    return out


def make_fixtures(w):
    src = cv2.imread(os.path.join(DATA, "aloeL.jpg"))[50:1050, 0:1280]
    cv2.imwrite(os.path.join(w, "whole.png"), src)
    for i, x in enumerate([0, 390, 780]):
        cv2.imwrite(os.path.join(w, "view%d.png" % (i + 1)), src[:, x:x + 500])
    cv2.imwrite(os.path.join(w, "noise.png"), np.random.RandomState(1).randint(0, 256, (200, 300, 3)).astype(np.uint8))
    with open(os.path.join(DATA, "baboon.jpg"), "rb") as f:
        data = f.read()
    with open(os.path.join(w, "cut.jpg"), "wb") as f:
        f.write(data[: len(data) // 2])
    with open(os.path.join(w, "notapicture.png"), "w") as f:
        f.write("this is text")
    os.mkdir(os.path.join(w, "afolder.png"))
    os.mkdir(os.path.join(w, "out"))
    with open(os.path.join(w, "out", "keep.txt"), "w") as f:
        f.write("an earlier result")

    def module(name, image, matrix):
        return {"name": name, "image": image, "geometry": {"type": "matrix", "matrix": matrix}}

    def box(x0, w_):
        return [w_, 0, 0, x0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1]

    cam = {"format": "orbivane-camera", "version": 1, "panoramaSize": [1300, 1000], "modules": [
        module("view1", "view1.png", box(0, 0.3846)), module("view2", "view2.png", box(0.3077, 0.3846)),
        module("view3", "view3.png", box(0.6154, 0.3846)),
        module("target", "whole.png", [1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1])]}
    json.dump(cam, open(os.path.join(w, "cam.json"), "w"))

    def variant(name, change):
        c = json.loads(json.dumps(cam))
        change(c)
        text = json.dumps(c) if not isinstance(c, str) else c
        open(os.path.join(w, name), "w").write(text)

    variant("singular.json", lambda c: c["modules"][1]["geometry"].__setitem__("matrix", [0] * 16))
    variant("big39.json", lambda c: c["modules"][1]["geometry"]["matrix"].__setitem__(0, 1e39))
    open(os.path.join(w, "big400.json"), "w").write(
        json.dumps(cam).replace('"matrix": [0.3846, 0, 0, 0,', '"matrix": [1e400, 0, 0, 0,', 1))
    variant("missingpic.json", lambda c: c["modules"][0].__setitem__("image", "nowhere.png"))
    variant("dupname.json", lambda c: c["modules"][1].__setitem__("name", "view1"))
    variant("unknownkey.json", lambda c: c["modules"][0].__setitem__("imagee", "x"))
    variant("badshader.json", lambda c: c["modules"][0].__setitem__(
        "shaders", [{"uid": "00050007", "parameters": {"i_clipMatrix_enabled": "1"}}]))
    variant("badgrid.json", lambda c: c["modules"][0]["geometry"].__setitem__(
        "uvGrid", {"cols": 2, "rows": 2, "points": [[0, 0]]}))
    variant("mirrored.json", lambda c: c["modules"][1]["geometry"].__setitem__(
        "matrix", [-0.3846, 0, 0, 0.7, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1]))
    # The same key twice in one object: JSON readers would keep the last.
    open(os.path.join(w, "twicekey.json"), "w").write(
        json.dumps(cam).replace('"image": "view2.png"', '"image": "view2.png", "image": "view3.png"', 1))
    open(os.path.join(w, "rec-twice.json"), "w").write(
        '{"format": "orbivane-recordings", "version": 1, "recordings": [{"module": "front", "video": "vtest.avi", '
        '"start": "2026-11-22T10:00:00Z", "start": "2026-11-22T11:00:00Z"}]}')
    open(os.path.join(w, "trunc.json"), "w").write(json.dumps(cam)[:100])
    open(os.path.join(w, "empty.json"), "w").write("")
    variant("noformat.json", lambda c: c.pop("format"))
    variant("version2.json", lambda c: c.__setitem__("version", 2))
    variant("panoneg.json", lambda c: c.__setitem__("panoramaSize", [-5, 100]))
    # The state of a simulated camera with one fisheye module.
    r = run(["sensor", "create", "state.json", "--module", "A", "--scene", "fisheye", "--size", "640", "480"], w)
    assert r.returncode == 0, r.stderr
    # Two modules cropped from one picture, overlapping by about 200 columns,
    # whose overlap balancing would move a window.
    for module, x in (("L", 0), ("R", 400)):
        r = run(["sensor", "create", "pair.json", "--module", module, "--scene", "whole.png", "--crop", str(x), "100",
                 "640", "600", "--window", "560", "520"], w)
        assert r.returncode == 0, r.stderr
    # A module whose device refuses every window move.
    r = run(["sensor", "create", "refusing.json", "--module", "A", "--scene", "fisheye", "--size", "640", "480"], w)
    assert r.returncode == 0, r.stderr
    refusing = json.load(open(os.path.join(w, "refusing.json")))
    refusing["modules"][0]["faults"]["writeFailing"] = True
    json.dump(refusing, open(os.path.join(w, "refusing.json"), "w"))
    # A recordings index whose video is a folder.
    os.mkdir(os.path.join(w, "clip.avi"))
    json.dump({"format": "orbivane-recordings", "version": 1, "recordings": [
        {"module": "front", "video": "clip.avi", "start": "2026-11-22T10:00:00Z"}]},
        open(os.path.join(w, "rec-folder.json"), "w"))
    # A recordings index with a missing video.
    json.dump({"format": "orbivane-recordings", "version": 1, "recordings": [
        {"module": "front", "video": "missing.avi", "start": "2026-11-22T10:00:00Z"}]},
        open(os.path.join(w, "rec-missing.json"), "w"))
    shutil.copy(os.path.join(DATA, "vtest.avi"), os.path.join(w, "vtest.avi"))
    json.dump({"format": "orbivane-recordings", "version": 1, "recordings": [
        {"module": "front", "video": "vtest.avi", "start": "2026-11-22T10:00:00Z"}]},
        open(os.path.join(w, "rec.json"), "w"))
    json.dump({"format": "orbivane-recordings", "version": 1, "recordings": [
        {"module": "front", "video": "vtest.avi", "start": "yesterday"}]},
        open(os.path.join(w, "rec-badtime.json"), "w"))
    with open(os.path.join(DATA, "vtest.avi"), "rb") as f:
        data = f.read()
    with open(os.path.join(w, "cut.avi"), "wb") as f:
        f.write(data[: len(data) // 3])
    json.dump({"format": "orbivane-recordings", "version": 1, "recordings": [
        {"module": "front", "video": "cut.avi", "start": "2026-11-22T10:00:00Z"}]},
        open(os.path.join(w, "rec-cut.json"), "w"))
    # Shard files: a real one and forged ones.
    json.dump({"format": "orbivane-shader-shard", "version": 1, "shard": [0, 1], "best": []},
              open(os.path.join(w, "shard-nomodule.json"), "w"))
    json.dump({"format": "orbivane-shader-shard", "version": 1, "module": "view1", "shard": [0, 1],
               "best": [{"error": 1.0, "index": 3, "parameters": {"f_evil": 1.0}}]},
              open(os.path.join(w, "shard-forged.json"), "w"))
    # Real shards of a small search in three parts, and what a careless user
    # merges them with: a shard relabelled by hand, another camera, a shard
    # searched against another reference.
    for name in ("view1", "whole"):
        picture = cv2.imread(os.path.join(w, name + ".png"))
        cv2.imwrite(os.path.join(w, "s" + name + ".png"), cv2.resize(picture, (picture.shape[1] // 4,
                                                                            picture.shape[0] // 4)))
    small = json.loads(json.dumps(cam))
    small["modules"] = [small["modules"][0], small["modules"][3]]
    small["modules"][0]["image"], small["modules"][1]["image"] = "sview1.png", "swhole.png"
    small["modules"][0]["geometry"]["shaderId"] = "00060001"
    json.dump(small, open(os.path.join(w, "camsh.json"), "w"))
    small["modules"][0]["geometry"]["matrix"][3] = 0.01
    json.dump(small, open(os.path.join(w, "camsh-moved.json"), "w"))
    for i in range(3):
        r = run(["shader-search", "camsh.json", "--module", "view1", "--reference", "target", "--shard", "%d/3" % i,
                 "--out-dir", "shards"], w)
        assert r.returncode == 0, r.stderr
        # What the search takes is said before it starts.
        assert re.search(r"shader search: \d+ renderings of \d+x\d+ pixels .* about \d+ MB", r.stderr), r.stderr
        assert re.search(r"shader search: about \d+ (s|min) on this machine", r.stderr), r.stderr
    r = run(["shader-search", "camsh.json", "--module", "view1", "--reference", "swhole.png", "--shard", "1/3",
             "--out-dir", "shards-other"], w)
    assert r.returncode == 0, r.stderr
    relabelled = json.load(open(os.path.join(w, "shards", "shard-2-of-3.json")))
    relabelled["shard"] = [1, 3]
    json.dump(relabelled, open(os.path.join(w, "shard-relabelled.json"), "w"))
    # The same shard with its index given twice: the last one would win.
    twice = open(os.path.join(w, "shards", "shard-2-of-3.json")).read().replace("{", '{"shard": [0, 3], ', 1)
    open(os.path.join(w, "shard-twice.json"), "w").write(twice)
    open(os.path.join(w, "values.txt"), "w").write("1 2\n3 x\n")
    # A PNG whose header names 100000 x 100000 pixels.
    import struct
    import zlib

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data) & 0xffffffff)
    with open(os.path.join(w, "huge.png"), "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", 100000, 100000, 8, 2, 0, 0, 0)) +
                chunk(b"IDAT", zlib.compress(b"\0" * 10)) + chunk(b"IEND", b""))
    # A picture 1 pixel high and 3 wide, and a blank one.
    cv2.imwrite(os.path.join(w, "tiny.png"), np.zeros((1, 3, 3), np.uint8))
    cv2.imwrite(os.path.join(w, "one.png"), np.full((1, 1, 3), 128, np.uint8))
    # The camera of cam.json whose modules show 1x1 pictures.
    cam["modules"] = [dict(m, image="one.png") for m in cam["modules"][:3]]
    json.dump(cam, open(os.path.join(w, "onepixel.json"), "w"))


# (name, arguments, exit status, words of the message)
CASES = [
    # command line itself
    ("no command", [], 2, "A subcommand is required"),
    ("unknown command", ["paint"], 2, "paint"),
    ("unknown option", ["blur", "view1.png", "--sharpen"], 2, "--sharpen"),
    # pictures
    ("blur of a missing picture", ["blur", "nowhere.png"], 1, "no such file"),
    ("blur of a folder", ["blur", "afolder.png"], 1, "folder"),
    ("blur of text", ["blur", "notapicture.png"], 1, "cannot be decoded"),
    ("blur of a truncated JPEG", ["blur", "cut.jpg"], 1, "truncated"),
    ("blur of a huge picture", ["blur", "huge.png"], 1, "100000 x 100000 pixels is larger than"),
    ("blur between quarter turns", ["blur", "view1.png", "--rotation", "45"], 1, "quarter turn"),
    ("blur far beyond the anchors", ["blur", "view1.png", "--rotation", "720"], 1, "quarter turn"),
    ("blur with a rotation that is no number", ["blur", "view1.png", "--rotation", "ten"], 2, "rotation"),
    # camera files
    ("validate a missing camera", ["camera", "validate", "nowhere.json"], 1, "does not exist"),
    ("validate a folder", ["camera", "validate", "afolder.png"], 1, "folder"),
    ("validate an empty file", ["camera", "validate", "empty.json"], 1, "not valid JSON"),
    ("validate a truncated file", ["camera", "validate", "trunc.json"], 1, "not valid JSON"),
    ("validate without format", ["camera", "validate", "noformat.json"], 1, "format"),
    ("validate version 2", ["camera", "validate", "version2.json"], 1, "not supported"),
    ("validate 1e39", ["camera", "validate", "big39.json"], 1, "/modules/1/geometry/matrix/0"),
    ("validate 1e400", ["camera", "validate", "big400.json"], 1, "/modules/0/geometry/matrix/0"),
    ("validate a key given twice", ["camera", "validate", "twicekey.json"], 1,
     "at /modules/1/image: the key is given twice"),
    ("validate a missing picture", ["camera", "validate", "missingpic.json"], 1, "nowhere.png"),
    ("validate two modules of one name", ["camera", "validate", "dupname.json"], 1, "a second module"),
    ("validate an unknown key", ["camera", "validate", "unknownkey.json"], 1, "unknown key 'imagee'"),
    ("validate a short UV grid", ["camera", "validate", "badgrid.json"], 1, "/uvGrid/points"),
    ("validate a negative panorama size", ["camera", "validate", "panoneg.json"], 1, "/panoramaSize/0"),
    ("validate a singular matrix", ["camera", "validate", "singular.json"], 3, "singular"),
    ("validate a mirrored matrix", ["camera", "validate", "mirrored.json"], 3, "mirrors"),
    ("validate clip values missing", ["camera", "validate", "badshader.json"], 3, "clip-matrix"),
    # camera init / remove-module
    ("init without pictures", ["camera", "init", "--out", "c.json"], 2, "PICTURE"),
    ("init with an overlap of 1.5", ["camera", "init", "view1.png", "--overlap", "1.5", "--out", "c.json"], 1,
     "--overlap"),
    ("init with a bad layout", ["camera", "init", "view1.png", "view2.png", "--layout", "grid:3x3", "--out", "c.json"],
     1, "--layout"),
    ("init with too few names", ["camera", "init", "view1.png", "view2.png", "--names", "a", "--out", "c.json"], 1,
     "--names"),
    ("init over a picture", ["camera", "init", "view1.png", "view2.png", "--out", "view2.png"], 1, "inputs"),
    ("init from a 1x1 picture", ["camera", "init", "view1.png", "one.png", "--out", "c.json"], 1,
     "is 1x1 pixels"),
    ("init with a 1x3 target", ["camera", "init", "view1.png", "--target", "tiny.png", "--out", "c.json"], 1,
     "is 3x1 pixels"),
    ("init from a truncated picture", ["camera", "init", "view1.png", "cut.jpg", "--out", "c.json"], 1, "truncated"),
    ("remove an unknown module", ["camera", "remove-module", "cam.json", "ghost", "--out", "c.json"], 1, "ghost"),
    ("remove over the camera", ["camera", "remove-module", "cam.json", "view1", "--out", "cam.json"], 1, "inputs"),
    # panorama
    ("panorama over a module's picture", ["panorama", "cam.json", "--out", "view1.png"], 1, "inputs"),
    ("panorama of 16384x16384", ["panorama", "cam.json", "--size", "16384x16384", "--out", "p.png"], 1, "GB"),
    ("panorama of a bad size", ["panorama", "cam.json", "--size", "12x", "--out", "p.png"], 1, "WIDTHxHEIGHT"),
    ("panorama with a bad feather", ["panorama", "cam.json", "--feather", "0.9", "--out", "p.png"], 1, "feather"),
    ("panorama of an unknown module", ["panorama", "cam.json", "--modules", "ghost", "--out", "p.png"], 1, "ghost"),
    ("panorama into a missing folder", ["panorama", "cam.json", "--out", "missing/p.png"], 1, "does not exist"),
    ("panorama without extension", ["panorama", "cam.json", "--out", "panorama"], 1, "extension"),
    # match-to-target / neighbour / calibrate
    ("match to an unknown target", ["match-to-target", "cam.json", "--target", "ghost", "--out", "m.json"], 1,
     "ghost"),
    ("match over the camera", ["match-to-target", "cam.json", "--target", "target", "--out", "cam.json"], 1,
     "inputs"),
    ("match with mode 7", ["match-to-target", "cam.json", "--target", "target", "--mode", "7", "--out", "m.json"],
     1, "mode must lie in 0..3"),
    ("match with a bad grid", ["match-to-target", "cam.json", "--target", "target", "--grid", "3y4", "--out",
                               "m.json"], 1, "a grid is COLSxROWS"),
    ("match with a grid in mode 2", ["match-to-target", "cam.json", "--target", "target", "--grid", "3x4", "--mode",
                                     "2", "--out", "m.json"], 1, "mode 0 only"),
    ("match with a grid of no cells", ["match-to-target", "cam.json", "--target", "target", "--grid", "0x0",
                                       "--out", "m.json"], 1, "1..64 columns and rows"),
    ("match with a grid too fine to estimate", ["match-to-target", "cam.json", "--target", "target", "--grid",
                                                "256x256", "--out", "m.json"], 1, "1..64 columns and rows, not 256x256"),
    ("match with m2n 0", ["match-to-target", "cam.json", "--target", "target", "--m2n", "0", "--out", "m.json"], 1,
     "m2n must lie in 1..100"),
    ("match with a singular module", ["match-to-target", "singular.json", "--target", "target", "--modules",
                                      "view2", "--out", "m.json"], 3, "singular"),
    ("neighbour of one unknown module", ["neighbour", "cam.json", "--modules", "view1,ghost", "--out", "n.json"], 1,
     "ghost"),
    ("neighbour with levels 0", ["neighbour", "cam.json", "--modules", "view1,view2", "--levels", "0", "--out",
                                 "n.json"], 1, "levels must lie in 1..30"),
    ("neighbour with a NaN step", ["neighbour", "cam.json", "--modules", "view1,view2", "--step", "nan", "--out",
                                   "n.json"], 1, "step must lie in (0, 2]"),
    ("neighbour with a singular module", ["neighbour", "singular.json", "--modules", "view1,view2", "--out",
                                          "n.json"], 3, "singular"),
    ("calibrate with an unknown step", ["calibrate", "cam.json", "--target", "target", "--steps", "match,paint",
                                        "--out", "c.json"], 1, "unknown step 'paint'"),
    ("calibrate with an unknown reference", ["calibrate", "cam.json", "--reference", "ghost", "--out", "c.json"], 1,
     "unknown reference module 'ghost'"),
    ("calibrate with a reference left out", ["calibrate", "cam.json", "--modules", "view1,view2", "--reference",
                                             "view3", "--out", "c.json"], 1, "'view3' is not among the modules"),
    ("calibrate the target with the modules", ["calibrate", "cam.json", "--target", "target", "--modules",
                                               "target,view1", "--out", "c.json"], 1,
     "the target 'target' is among the modules"),
    ("calibrate 1x1 pictures", ["calibrate", "onepixel.json", "--out", "one-c.json"], 3, "nothing places it"),
    ("stitch 1x1 pictures", ["neighbour", "onepixel.json", "--modules", "view1,view2", "--out", "one-n.json"], 3,
     "too small for one pyramid level"),
    ("calibrate an unknown module", ["calibrate", "cam.json", "--modules", "view1,ghost", "--out", "c.json"], 1,
     "unknown module 'ghost'"),
    ("calibrate into a missing folder", ["calibrate", "cam.json", "--target", "target", "--out", "missing/c.json"],
     1, "does not exist"),
    ("calibrate with a report over files", ["calibrate", "cam.json", "--target", "target", "--out", "c.json",
                                            "--report", "out"], 1, "holds no earlier report"),
    # autoclip
    ("autoclip with a threshold of 2", ["autoclip", "cam.json", "--threshold", "2"], 1, "threshold must lie in (0, 1]"),
    ("autoclip with -1 iterations", ["autoclip", "cam.json", "--values", "values.txt", "--cols", "2", "--rows", "2",
                                     "--max-iterations", "-1"], 1, "--max-iterations must be 1 or more, not -1"),
    ("autoclip with a bad value", ["autoclip", "cam.json", "--values", "values.txt", "--cols", "2", "--rows", "2"],
     1, "'x' is not a number"),
    ("autoclip --apply without --out", ["autoclip", "cam.json", "--apply"], 1, "--out"),
    ("autoclip --no-holes in value mode", ["autoclip", "cam.json", "--values", "values.txt", "--cols", "2",
                                           "--rows", "2", "--no-holes"], 1, "--no-holes"),
    # fisheye / resolution
    ("fisheye without a lens", ["fisheye", "view1.png"], 1, "lens circle"),
    ("fisheye of a photograph", ["fisheye", "whole.png"], 1, "not a bright lens disc"),
    ("fisheye with threshold 300", ["fisheye", "view1.png", "--threshold", "300"], 1, "threshold must lie in 0..255"),
    ("fisheye over its input", ["fisheye", "view1.png", "--annotated", "view1.png"], 1, "inputs"),
    ("fisheye of a tiny picture", ["fisheye", "tiny.png"], 1, "lens circle"),
    ("resolution with no marks", ["resolution", "noise.png", "--real-x", "1", "--real-y", "1"], 1, "marks"),
    ("resolution with a negative side", ["resolution", "view1.png", "--real-x", "-1", "--real-y", "1"], 1,
     "horizontal spacing must lie in"),
    # sensor
    ("sensor read of a missing state", ["sensor", "read", "nostate.json", "--module", "A"], 1, "does not exist"),
    ("sensor read of a folder", ["sensor", "read", "afolder.png", "--module", "A"], 1, "folder"),
    ("sensor read of an unknown module", ["sensor", "read", "state.json", "--module", "Z"], 1, "'Z'"),
    ("sensor create with a window beyond the sensor", ["sensor", "create", "state.json", "--module", "B",
                                                       "--size", "400", "300", "--window", "800", "300"], 1,
     "does not fit"),
    ("sensor create with a negative radius", ["sensor", "create", "state.json", "--module", "B", "--radius", "-5"],
     1, "--radius"),
    ("sensor create of a huge scene", ["sensor", "create", "state.json", "--module", "B", "--size", "20000",
                                       "20000"], 1, "MB"),
    ("sensor overlap with a picture into a missing folder", ["sensor", "overlap", "pair.json", "--modules", "L,R",
                                                              "--overlap", "100", "--picture", "missing/o.png"], 1,
     "--picture"),
    ("sensor overlap with a picture of no format", ["sensor", "overlap", "pair.json", "--modules", "L,R",
                                                    "--overlap", "100", "--picture", "overlap.xyz"], 1,
     "no picture format"),
    ("sensor write the device refuses", ["sensor", "write", "refusing.json", "--module", "A", "--x", "4", "--y", "2"],
     1, "the device refused to move module 'A''s sensor window"),
    ("sensor restore without a restore point", ["sensor", "restore", "state.json", "--module", "A"], 1,
     "nothing to restore"),
    ("sensor capture over the state", ["sensor", "capture", "state.json", "--module", "A", "state.json"], 1,
     "inputs"),
    # find-frames
    ("find-frames with a missing video", ["find-frames", "rec-missing.json", "--out", "out"], 1, "missing.avi"),
    ("find-frames with a folder for a video", ["find-frames", "rec-folder.json", "--out", "out"], 1,
     "is a folder, not a video file"),
    ("find-frames with a truncated video", ["find-frames", "rec-cut.json", "--out", "out"], 1, "truncated"),
    ("find-frames with a start given twice", ["find-frames", "rec-twice.json", "--out", "out"], 1,
     "at /recordings/0/start: the key is given twice"),
    ("find-frames with a bad start time", ["find-frames", "rec-badtime.json", "--out", "out"], 1, "yesterday"),
    ("find-frames with a reversed window", ["find-frames", "rec.json", "--from", "2026-11-22T10:00:20Z", "--to",
                                            "2026-11-22T10:00:10Z", "--out", "out"], 1, "ends before it starts"),
    ("find-frames with a motion share of 2", ["find-frames", "rec.json", "--max-motion", "2", "--out", "out"], 2,
     "--max-motion"),
    ("find-frames into a file", ["find-frames", "rec.json", "--out", "view1.png"], 1, "not a folder"),
    # shader search
    ("shader-merge of a shard without module", ["shader-merge", "cam.json", "shard-nomodule.json", "--out-dir",
                                                 "sm"], 1, "\"module\""),
    ("shader-merge of a forged shard", ["shader-merge", "cam.json", "shard-forged.json", "--out-dir", "sm"], 1,
     "parameters"),
    ("shader-merge of a relabelled shard", ["shader-merge", "camsh.json", "shards/shard-0-of-3.json",
                                            "shard-relabelled.json", "shards/shard-2-of-3.json", "--out-dir", "sm"],
     1, "shard-relabelled.json' was changed after the search wrote it"),
    ("shader-merge of a shard that gives a key twice", ["shader-merge", "camsh.json", "shards/shard-0-of-3.json",
                                                        "shards/shard-1-of-3.json", "shard-twice.json", "--out-dir",
                                                        "sm"], 1, "at /shard: the key is given twice"),
    ("shader-merge onto another camera", ["shader-merge", "camsh-moved.json", "shards/shard-0-of-3.json",
                                          "shards/shard-1-of-3.json", "shards/shard-2-of-3.json", "--out-dir", "sm"],
     1, "was searched on another camera file"),
    ("shader-merge of a shard of another reference", ["shader-merge", "camsh.json", "shards/shard-0-of-3.json",
                                                      "shards-other/shard-1-of-3.json", "shards/shard-2-of-3.json",
                                                      "--out-dir", "sm"], 1, "searched against the reference"),
    ("shader-search of an unknown module", ["shader-search", "cam.json", "--module", "ghost", "--reference",
                                            "target", "--out-dir", "ss"], 1, "ghost"),
    ("shader-search into a file", ["shader-search", "cam.json", "--module", "view1", "--reference", "target",
                                   "--out-dir", "view1.png"], 1, "is a file"),
    ("shader-search with a bad shard", ["shader-search", "cam.json", "--module", "view1", "--reference", "target",
                                        "--shard", "3/2", "--out-dir", "ss"], 1, "shard"),
    # demo
    ("demo into a folder of other files", ["demo", "--quick", "--out", "out"], 1, "holds no earlier demo"),
]


def check_cases(w):
    before = digest(w)
    for name, args, status, words in CASES:
        r = run(args, w)
        message = (r.stderr.strip().splitlines() or [""])[-1]
        ok = r.returncode == status and words.lower() in r.stderr.lower()
        if not ok:
            failures.append("%s: exit %d (wanted %d), message: %s" % (name, r.returncode, status, message[:300]))
        if "Traceback" in r.stderr or "terminate called" in r.stderr or r.returncode < 0:
            failures.append("%s: crashed" % name)
        after = digest(w)
        changed = [f for f in before if before[f] != after.get(f)]
        # A refused command writes nothing new either (made files are named);
        # one that finished with failed modules (3) writes its output.
        made = [f for f in after if f not in before and not f.startswith(".")
                and not os.path.basename(f).startswith(".") and not (status == 3 and r.returncode == 3)]
        if changed or made:
            failures.append("%s: changed %s, made %s" % (name, changed, made))
            for f in made:
                os.remove(os.path.join(w, f))
        before = digest(w)
    print("%d bad-input cases run" % len(CASES))


def check_parallel_calibrations(w):
    """Two calibrations started a moment apart onto one camera file and one
    report folder: each pair of outputs is one run's, never a mix."""
    for name in ("A", "B"):
        camera = json.load(open(os.path.join(w, "cam.json")))
        camera["name"] = name
        json.dump(camera, open(os.path.join(w, "cam-%s.json" % name), "w"))
    for round_ in range(3):
        procs = []
        for name in ("A", "B"):
            procs.append(subprocess.Popen([TOOL, "calibrate", "cam-%s.json" % name, "--steps", "neighbour",
                                           "--out", "both.json", "--report", "both-report"], cwd=w,
                                          stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True))
            time.sleep(0.2 * round_)
        for p in procs:
            _, err = p.communicate(timeout=300)
            if p.returncode not in (0, 3):
                failures.append("parallel calibrations, round %d: exit %d, %s" % (round_, p.returncode, err[-200:]))
        camera = json.load(open(os.path.join(w, "both.json"))).get("name")
        report = open(os.path.join(w, "both-report", "report.html")).read()
        if "cam-%s.json" % camera not in report:
            failures.append("parallel calibrations, round %d: the camera of run %s beside another run's report"
                            % (round_, camera))
    print("parallel calibrations: 2 runs onto one camera file and report, 3 rounds")


def check_interruption(w):
    """Ctrl-C and a kill in the middle of the demo's many files: the earlier
    demo folder stays whole, and the next run cleans up."""
    folder = os.path.join(w, "demo")
    r = run(["demo", "--quick", "--out", folder], w, timeout=900)
    assert r.returncode == 0, r.stderr[-500:]
    earlier = digest(folder)
    for sig in (signal.SIGINT, signal.SIGKILL):
        p = subprocess.Popen([TOOL, "demo", "--quick", "--out", folder], cwd=w, stdout=subprocess.DEVNULL,
                             stderr=subprocess.DEVNULL)
        time.sleep(2.0)
        p.send_signal(sig)
        p.wait(timeout=900)
        now = digest(folder)
        if now != earlier:
            failures.append("demo interrupted by %s: the earlier folder changed (%d files differ)"
                            % (sig.name, sum(1 for f in earlier if earlier[f] != now.get(f))))
    leftovers = [f for f in os.listdir(w) if f.startswith(".demo.staging-")]
    r = run(["demo", "--quick", "--out", folder], w, timeout=900)
    if r.returncode != 0:
        failures.append("demo after interruptions: %s" % r.stderr[-300:])
    left = [f for f in os.listdir(w) if f.startswith(".demo.staging-")]
    if left:
        failures.append("a killed run's staging folder is still there after the next run: %s" % left)
    print("interruption: %d staging folder(s) left by the kill, %d after the next run" % (len(leftovers), len(left)))
    # The demo's folder with the user's notes in it, or with a file of the
    # demo's changed by the user, is refused by name and left as it is.
    for name, change in (("notes.txt", lambda: open(os.path.join(folder, "notes.txt"), "w").write("mine")),
                         ("report.html", lambda: open(os.path.join(folder, "report.html"), "a").write("<!-- x -->"))):
        change()
        kept = digest(folder)
        r = run(["demo", "--quick", "--out", folder], w, timeout=900)
        if r.returncode != 1 or name not in r.stderr or digest(folder) != kept:
            failures.append("demo over a folder holding the user's %s: exit %d, %s" % (name, r.returncode,
                                                                                      r.stderr.strip()[-200:]))
        if name == "notes.txt":
            os.remove(os.path.join(folder, name))


def interrupt_at(args, w, sig, seconds):
    """Runs the command and sends it `sig` after `seconds`; its exit status."""
    p = subprocess.Popen([TOOL] + args, cwd=w, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    time.sleep(seconds)
    p.send_signal(sig)
    return p.wait(timeout=600)


def check_interrupted_writers(w):
    """Ctrl-C and a kill at several moments of calibrate --out --report and of
    find-frames: a killed run leaves the earlier outputs whole; after Ctrl-C,
    or a run that ended before the signal, what is there is one run's, whole
    (the camera beside its own report, the camera's pictures beside it)."""
    for name in ("A", "B"):
        camera = json.load(open(os.path.join(w, "cam.json")))
        camera["name"] = name
        json.dump(camera, open(os.path.join(w, "int-%s.json" % name), "w"))
    out, report = os.path.join(w, "int-out.json"), os.path.join(w, "int-report")
    started = time.time()
    r = run(["calibrate", "int-A.json", "--out", "int-out.json", "--report", "int-report"], w, timeout=600)
    assert r.returncode in (0, 3), r.stderr[-500:]
    took = time.time() - started

    def one_run():
        """The camera's run name, or a failure when the report is another run's or misses pictures."""
        name = json.load(open(out)).get("name")
        html = open(os.path.join(report, "report.html")).read()
        pictures = re.findall(r'src="([^"]+)"', html)
        if "int-%s.json" % name not in html or any(not os.path.exists(os.path.join(report, p)) for p in pictures):
            return None
        return name

    # Early, in the middle and late in the run (while it writes, often).
    codes = []
    for share in (0.3, 0.6, 0.9):
        earlier = (open(out, "rb").read(), digest(report))
        code = interrupt_at(["calibrate", "int-B.json", "--out", "int-out.json", "--report", "int-report"], w,
                            signal.SIGKILL, share * took)
        codes.append(code)
        # Killed before its outputs were in place: the earlier ones stay;
        # killed after (or ended before the kill): the new ones, whole.
        unchanged = (open(out, "rb").read(), digest(report)) == earlier
        if not unchanged and one_run() is None:
            failures.append("calibrate killed at %.0f %% of its run (exit %d): the camera and report are not one "
                            "run's" % (100 * share, code))
    for share in (0.3, 0.7):
        codes.append(interrupt_at(["calibrate", "int-B.json", "--out", "int-out.json", "--report", "int-report"], w,
                                  signal.SIGINT, share * took))
        if codes[-1] not in (0, 3, 130) or one_run() is None:
            failures.append("calibrate after Ctrl-C at %.0f %% of its run (exit %d): the camera beside a report of "
                            "another run or without its pictures" % (100 * share, codes[-1]))
    # The runs after the kills took away the staging folders the kills left.
    left = [f for f in os.listdir(w) if "staging" in f and f.startswith(".int-report")]
    if left:
        failures.append("calibrate after interruptions: staging left: %s" % left)

    folder = os.path.join(w, "frames")
    started = time.time()
    r = run(["find-frames", "rec.json", "--out", "frames"], w, timeout=600)
    assert r.returncode == 0, r.stderr[-500:]
    frames_took = time.time() - started
    earlier = digest(folder)
    code = interrupt_at(["find-frames", "rec.json", "--out", "frames"], w, signal.SIGKILL, 0.5 * frames_took)
    if code == -signal.SIGKILL and digest(folder) != earlier:
        failures.append("find-frames killed: the earlier folder changed")
    code = interrupt_at(["find-frames", "rec.json", "--out", "frames"], w, signal.SIGINT, 0.3 * frames_took)
    if code not in (0, 130):
        failures.append("find-frames after Ctrl-C: exit %d, not 130 (interrupted)" % code)
    camera = json.load(open(os.path.join(folder, "camera.json")))
    missing = [m["image"] for m in camera["modules"] if not os.path.exists(os.path.join(folder, m.get("image", "")))]
    if missing:
        failures.append("find-frames after Ctrl-C (exit %d): camera.json names pictures that are not there: %s"
                        % (code, missing))
    print("interrupted writers: calibrate (a run of %.1f s; exits %s) and find-frames (a run of %.1f s; Ctrl-C "
          "exit %d)" % (took, codes, frames_took, code))

def check_interrupted_search(w):
    """A shader search killed or interrupted at several moments, late ones
    while it writes its best cameras: the folder holds the earlier run's
    files or the new run's, whole, and the next run leaves no staging."""
    best, saved = os.path.join(w, "best"), os.path.join(w, "best-earlier")
    search = ["shader-search", "camsh.json", "--module", "view1", "--out-dir"]
    blurred = cv2.GaussianBlur(cv2.imread(os.path.join(w, "swhole.png")), (0, 0), 3)
    cv2.imwrite(os.path.join(w, "swhole-blurred.png"), blurred)
    r = run(search + ["best-earlier", "--reference", "swhole-blurred.png"], w, timeout=600)
    assert r.returncode == 0, r.stderr[-500:]
    earlier = digest(saved)
    started = time.time()
    r = run(search + ["best-new", "--reference", "target"], w, timeout=600)
    assert r.returncode == 0, r.stderr[-500:]
    took = time.time() - started
    new = digest(os.path.join(w, "best-new"))
    assert new != earlier
    codes = []
    for sig, share in ((signal.SIGKILL, 0.5), (signal.SIGKILL, 0.9), (signal.SIGKILL, 0.97), (signal.SIGINT, 0.6),
                       (signal.SIGINT, 0.95)):
        shutil.rmtree(best, ignore_errors=True)
        shutil.copytree(saved, best)
        codes.append(interrupt_at(search + ["best", "--reference", "target"], w, sig, share * took))
        now = digest(best)
        if now not in (earlier, new):
            failures.append("shader-search %s at %.0f %% of its run (exit %d): the best cameras are neither the "
                            "earlier run's nor the new run's (%d files)" % (sig.name, 100 * share, codes[-1], len(now)))
        if sig == signal.SIGINT and codes[-1] not in (0, 130):
            failures.append("shader-search after Ctrl-C: exit %d, not 130 (interrupted)" % codes[-1])
    r = run(search + ["best", "--reference", "target"], w, timeout=600)
    left = [f for f in os.listdir(w) if f.startswith(".best") and "staging" in f]
    if r.returncode != 0 or digest(best) != new or left:
        failures.append("shader-search after interruptions: exit %d, the new cameras %s, staging left %s"
                        % (r.returncode, "whole" if digest(best) == new else "NOT whole", left))
    print("interrupted search: a run of %.1f s; exits %s" % (took, codes))


def check_concurrency(w):
    """Writers of one state file take turns: every module's window is where
    its own writer put it."""
    state = os.path.join(w, "shared.json")
    modules = ["M%d" % i for i in range(6)]
    for m in modules:
        r = run(["sensor", "create", state, "--module", m, "--scene", "fisheye", "--size", "320", "240",
                 "--window", "200", "150", "--step", "1"], w)
        assert r.returncode == 0, r.stderr
    for round_ in range(3):
        procs = [subprocess.Popen([TOOL, "sensor", "write", state, "--module", m, "--x", str(5 + i + round_),
                                   "--y", str(-3 - i)], cwd=w, stdout=subprocess.DEVNULL,
                                  stderr=subprocess.PIPE) for i, m in enumerate(modules)]
        for p in procs:
            p.wait(timeout=120)
        saved = json.load(open(state))
        for i, m in enumerate(modules):
            window = [x for x in saved["modules"] if x["id"] == m][0]["window"]
            if (window["x"], window["y"]) != (5 + i + round_, -3 - i):
                failures.append("parallel writers: round %d, module %s at (%d, %d), written (%d, %d)"
                                % (round_, m, window["x"], window["y"], 5 + i + round_, -3 - i))
    print("concurrency: %d parallel writers x 3 rounds" % len(modules))


def main():
    w = tempfile.mkdtemp()
    try:
        make_fixtures(w)
        check_cases(w)
        if CASES_ONLY:
            print("interruptions and parallel writers left out (--cases-only)")
        else:
            check_concurrency(w)
            check_parallel_calibrations(w)
            check_interruption(w)
            check_interrupted_writers(w)
            check_interrupted_search(w)
    finally:
        shutil.rmtree(w, ignore_errors=True)
    for f in failures:
        print("FAIL: " + f)
    if failures:
        print("%d failure(s)" % len(failures))
        sys.exit(1)
    print("all bad-input checks passed")


main()

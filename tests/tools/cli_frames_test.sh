#!/usr/bin/env bash
# find-frames end to end: a small recording (a real pedestrian of vtest.avi
# crossing a photograph for the first part of the clip, then the empty scene)
# written with Debian's python3-opencv; the chosen frame must be an empty one
# with no foreground, its picture must equal that frame, and the camera file
# must load.
set -u
source "$(dirname "$0")/cli_common.sh"


cd "$work" || exit 1

# 40 frames at 10 fps from 2026-11-22T10:00:00Z: the walker crosses during
# frames 0-23; frames 24-39 show the empty scene, frame 33 is the sharpest
# (the others are slightly blurred).
/usr/bin/python3 - "$data" <<'PY' || fail "cannot write the test recording"
import sys, json, cv2, numpy as np
data = sys.argv[1]
video = cv2.VideoCapture(data + "/vtest.avi")
video.set(cv2.CAP_PROP_POS_FRAMES, 540)
ok, street = video.read()
walker = street[244:425, 609:709].copy()
background = cv2.resize(cv2.imread(data + "/building.jpg"), (400, 300), interpolation=cv2.INTER_AREA)
writer = cv2.VideoWriter("front.avi", cv2.VideoWriter_fourcc(*"MJPG"), 10.0, (400, 300))
for i in range(40):
    frame = background.copy()
    if i < 24:
        x = 10 + i * 12
        frame[60:241, x:x + 100] = walker
    if i != 33:
        frame = cv2.GaussianBlur(frame, (0, 0), 1.2)
    writer.write(frame)
writer.release()
json.dump({"format": "orbivane-recordings", "version": 1,
           "recordings": [{"module": "front", "video": "front.avi", "start": "2026-11-22T10:00:00Z"}]},
          open("rec.json", "w"))
PY

"$tool" find-frames rec.json --detector hog --min-person-height 80 --step 0.3 --out out --json >out.txt 2>err.txt ||
  fail "find-frames failed: $(cat err.txt)"
json=$(tail -n 1 out.txt)
/usr/bin/python3 - "$json" <<'PY' || fail "find-frames result: $json"
import sys, json, cv2, numpy as np
r = json.loads(sys.argv[1])["frames"]["front"]
start = 1795341600000
assert r["persons"] == 0, r
assert r["background"] is False, r
assert r["time"] == start + 3300, r   # frame 33: empty and the sharpest
assert r["frame"] == 33, r
# Its foreground against the window's background model is at the noise level;
# every sampled frame is reported with its verdict, the walker's frames not free.
fg = r["foreground"]
assert fg is not None and fg["share"] <= 0.01 and fg["personBlobs"] == 0, fg
assert len(fg["largestBlobBox"]) == 4 and fg["noiseLevel"] >= 10, fg
samples = r["samples"]
assert len(samples) == 14, samples
assert r["freeFrames"] == sum(s["free"] for s in samples) and r["freeFrames"] >= 4, r["freeFrames"]
for s in samples:
    assert s["foreground"] is not None, s
    assert len(s["personBoxes"]) == s["persons"], s
    if s["frame"] < 24:
        assert not s["free"] and s["foreground"]["personBlobs"] >= 1, s
# The written picture is that frame of the video.
video = cv2.VideoCapture("front.avi")
for i in range(34):
    ok, frame = video.read()
picture = cv2.imread("out/front.png")
assert picture is not None and np.array_equal(picture, frame), "out/front.png is not frame 33"
PY
[ -f out/camera.json ] || fail "no out/camera.json"
# The frames' camera loads; its modules have no geometry yet, which
# validate names (exit 3), not a load error (exit 1).
"$tool" camera validate out/camera.json >validate.txt 2>&1
[ $? -ne 1 ] || fail "camera.json does not load: $(cat validate.txt)"
grep -q "front" validate.txt || fail "camera.json lacks the module"
grep -q '"backend": "recordings"' out/camera.json || fail "camera.json module does not connect to the index (backend recordings)"
grep -q "rec.json" out/camera.json || fail "camera.json does not point at the index"

# A window that only holds the walker: a built background, said so.
"$tool" find-frames rec.json --detector hog --min-person-height 80 --to 2026-11-22T10:00:02.4Z --samples 8 --out bg --json >bg.txt 2>err.txt ||
  fail "find-frames with the walker in every frame failed: $(cat err.txt)"
tail -n 1 bg.txt | grep -q '"background":true' || fail "no built background: $(tail -n 1 bg.txt)"
grep -q "built background" err.txt || fail "the built background is not reported on standard error"

# Errors: one line, non-zero status, naming the problem.
printf '{"format": "orbivane-recordings", "version": 1, "recordings": [{"module": "a", "vidoe": "x.avi"}]}' >bad.json
"$tool" find-frames bad.json --out o >/dev/null 2>err.txt && fail "a malformed index must fail"
[ "$(wc -l <err.txt)" == "1" ] || fail "one error line expected: $(cat err.txt)"
grep -q "bad.json.*/recordings/0.*unknown key 'vidoe'" err.txt || fail "malformed index message: $(cat err.txt)"
"$tool" find-frames rec.json --detector sonar --out o >/dev/null 2>err.txt && fail "an unknown detector must fail"
grep -q "sonar" err.txt || fail "unknown detector message: $(cat err.txt)"
"$tool" find-frames rec.json --smallest-person 3 --out o >/dev/null 2>err.txt && fail "a tiny smallest person must fail"
grep -q -- "--smallest-person" err.txt || fail "smallest person message: $(cat err.txt)"
"$tool" find-frames rec.json --max-foreground 2 --out o >/dev/null 2>err.txt && fail "a foreground share of 2 must fail"
grep -q -- "--max-foreground" err.txt || fail "foreground share message: $(cat err.txt)"
"$tool" find-frames rec.json --from tomorrow --out o >/dev/null 2>err.txt && fail "a bad time must fail"
grep -q "tomorrow" err.txt || fail "bad time message: $(cat err.txt)"
"$tool" find-frames rec.json --from 2027-01-01T00:00:00Z --out o >/dev/null 2>err.txt && fail "an empty window must fail"
grep -q "front" err.txt || fail "empty window message: $(cat err.txt)"

# match-to-target --recordings: two modules cropped 64 pixels apart from one
# photograph, each with the walker passing at another time; the module starts
# 9 pixels off and must end at the crop's offset (u shift 64 / 320 = 0.2).
/usr/bin/python3 - "$data" <<'PY' || fail "cannot write the matching recording"
import sys, json, cv2
data = sys.argv[1]
video = cv2.VideoCapture(data + "/vtest.avi")
video.set(cv2.CAP_PROP_POS_FRAMES, 540)
ok, street = video.read()
walker = street[244:425, 609:709].copy()
photo = cv2.resize(cv2.imread(data + "/fruits.jpg"), (384, 240), interpolation=cv2.INTER_AREA)
for name, crop, first, last in (("T", 0, 0, 12), ("M", 64, 8, 20)):
    writer = cv2.VideoWriter(name + ".avi", cv2.VideoWriter_fourcc(*"MJPG"), 10.0, (320, 240))
    for i in range(20):
        frame = photo[:, crop:crop + 320].copy()
        if first <= i < last:
            x = 10 + (i - first) * 15
            frame[30:211, x:x + 100] = walker
        writer.write(frame)
    writer.release()
json.dump({"format": "orbivane-recordings", "version": 1, "recordings": [
    {"module": "T", "video": "T.avi", "start": "2026-11-22T10:00:00Z"},
    {"module": "M", "video": "M.avi", "start": "2026-11-22T10:00:00Z"}]}, open("rec2.json", "w"))
json.dump({"format": "orbivane-camera", "version": 1, "modules": [
    {"name": "T", "geometry": {"type": "matrix", "matrix": [1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1]}},
    {"name": "M", "geometry": {"type": "matrix",
                               "matrix": [1.02, 0, 0, 0.228125, 0, 1.02, 0, -0.01, 0, 0, 1, 0, 0, 0, 0, 1]}}]},
          open("cam.json", "w"))
PY
"$tool" match-to-target cam.json --target T --recordings rec2.json --detector hog --out matched.json --json \
  >match.txt 2>err.txt || fail "match-to-target --recordings failed: $(cat err.txt)"
tail -n 1 match.txt | grep -q '"errors":{"M":' || fail "match-to-target --recordings errors: $(tail -n 1 match.txt)"
grep -q "M: picture of 2026-11-22T10:00:00" err.txt || fail "the module's picture moment is not reported"
/usr/bin/python3 - <<'PY' || fail "the module's matrix is not where the crops say: $(cat matched.json)"
import json
m = {x["name"]: x for x in json.load(open("matched.json"))["modules"]}["M"]["geometry"]["matrix"]
# Corners of the module (pixels of the 320 x 240 target) against the truth.
def project(u, v):
    x = m[0] * u + m[1] * v + m[3]; y = m[4] * u + m[5] * v + m[7]; w = m[12] * u + m[13] * v + m[15]
    return x / w * 320, y / w * 240
for u, v in ((0, 0), (1, 0), (0, 1), (1, 1)):
    x, y = project(u, v)
    assert abs(x - (u * 320 + 64)) < 0.75 and abs(y - v * 240) < 0.75, (u, v, x, y)
PY
"$tool" match-to-target cam.json --target T --from 2026-11-22T10:00:00Z --out o.json >/dev/null 2>err.txt &&
  fail "--from without --recordings must fail"
grep -q "need --recordings" err.txt || fail "--from without --recordings message: $(cat err.txt)"

# A time that is neither ISO-8601 nor milliseconds is refused with the option's name.
"$tool" find-frames rec.json --from yesterday --out late >/dev/null 2>err.txt &&
  fail "--from yesterday must fail"
grep -q -- "--from expects ISO-8601" err.txt || fail "--from yesterday message: $(cat err.txt)"
"$tool" find-frames rec.json --to 1795341600000x --out late >/dev/null 2>err.txt && fail "--to 1795341600000x must fail"
grep -q -- "--to expects ISO-8601" err.txt || fail "--to message: $(cat err.txt)"
[ -e late ] && fail "a refused run made its output folder"

# Two modules whose names differ only where a file name cannot follow them
# ("a b" and "a_b", and "A_B" on a file system that ignores case) get a
# picture file each, and the camera points each module at its own.
/usr/bin/python3 - <<'PY' || fail "cannot write the index of look-alike names"
import json
json.dump({"format": "orbivane-recordings", "version": 1, "recordings": [
    {"module": m, "video": "front.avi", "start": "2026-11-22T10:00:00Z"} for m in ("a b", "a_b", "A_B")]},
    open("alike.json", "w"))
PY
"$tool" find-frames alike.json --detector hog --min-person-height 80 --from 2026-11-22T10:00:02.5Z --samples 3 \
  --out alike >alike.txt 2>err.txt || fail "find-frames of look-alike names failed: $(cat err.txt)"
/usr/bin/python3 - <<'PY' || fail "look-alike module names share a picture: $(cat alike/camera.json)"
import json, os
modules = json.load(open("alike/camera.json"))["modules"]
pictures = [m["image"] for m in modules]
assert len(modules) == 3 and len({p.lower() for p in pictures}) == 3, pictures
for p in pictures:
    assert os.path.isfile(os.path.join("alike", p)), p
PY

finish "find-frames ok"

#!/usr/bin/env bash
# The command-line host end to end: exit codes, one-line errors, the blur score
# against Debian's python3-opencv as an independent oracle, camera files, and
# what the library does with OrbivaneCalibration.cfg when it is loaded.
set -u
source "$(dirname "$0")/cli_common.sh"


oracle_blur() {  # picture, rotation (multiple of 90)
  /usr/bin/python3 - "$1" "$2" <<'PY'
import sys, cv2, numpy as np
im = cv2.imread(sys.argv[1]); rot = int(sys.argv[2]) % 360
im = {0: im, 90: cv2.rotate(im, cv2.ROTATE_90_CLOCKWISE), 180: cv2.rotate(im, cv2.ROTATE_180),
      270: cv2.rotate(im, cv2.ROTATE_90_COUNTERCLOCKWISE)}[rot]
g = cv2.cvtColor(im, cv2.COLOR_BGR2GRAY)
lap = cv2.Laplacian(g, cv2.CV_64F, ksize=3)
n = np.float32(g.shape[0]); m = np.ones(g.shape, np.uint8)
for i in range(g.shape[0]):
    f = np.float32(i)
    if np.float32(0.66) * n < f < np.float32(0.68) * n or np.float32(0.49) * n < f < np.float32(0.51) * n:
        m[i] = 0
_, sd = cv2.meanStdDev(lap, mask=m)
print(int(sd[0][0] * sd[0][0]))
PY
}

cd "$work" || exit 1

# --help and --version
"$tool" --help | grep -q "blur" || fail "--help does not list the blur command"
"$tool" --version | grep -q "^orbivane-calibrate [0-9]" || fail "--version"

# blur against the oracle
for picture in baboon.jpg building.jpg; do
  for rotation in 0 90 180 270; do
    ours=$("$tool" blur "$data/$picture" --rotation "$rotation" | tail -n 1)
    theirs=$(oracle_blur "$data/$picture" "$rotation")
    expect_eq "$ours" "$theirs" "blur $picture at $rotation"
  done
done

# failures: non-zero status and one line on standard error
"$tool" blur "$work/missing.png" >/dev/null 2>err.txt && fail "a missing picture must fail"
expect_eq "$(wc -l <err.txt)" "1" "one error line for a missing picture"
grep -q "missing.png" err.txt || fail "the error names the missing file"
printf 'garbage' >broken.png
"$tool" blur broken.png >/dev/null 2>err.txt && fail "a corrupt picture must fail"
grep -q "cannot be decoded" err.txt || fail "corrupt picture message: $(cat err.txt)"
"$tool" blur "$data/baboon.jpg" --rotation 45 >/dev/null 2>err.txt && fail "45 degrees must fail"
grep -q "not within 45 degrees of a quarter turn" err.txt || fail "45 degrees message: $(cat err.txt)"
"$tool" nonsense >/dev/null 2>&1 && fail "an unknown command must fail"
# The calibrators' own names reach the same commands.
for alias in auto-clipping:autoclip shader-brute-forcer:shader-search smart-finder-image:find-frames; do
  "$tool" "${alias%%:*}" --help 2>&1 | grep -q "Usage: .* ${alias##*:} " || fail "${alias%%:*} is ${alias##*:}"
done

# camera validate
cp "$data/fruits.jpg" fruits.jpg
cat >camera.json <<'JSON'
{"format": "orbivane-camera", "version": 1, "name": "two",
 "modules": [{"name": "left", "image": "fruits.jpg",
              "geometry": {"type": "matrix", "matrix": [0.5,0,0,0, 0,1,0,0, 0,0,1,0, 0,0,0,1]}},
             {"name": "right", "image": "fruits.jpg",
              "geometry": {"type": "matrix", "matrix": [0.5,0,0,0.5, 0,1,0,0, 0,0,1,0, 0,0,0,1]}}]}
JSON
out=$("$tool" camera validate camera.json) || fail "camera validate of a good file"
echo "$out" | grep -q "2 module(s)" || fail "summary counts modules: $out"
echo "$out" | grep -q "left: matrix geometry covering x 0..0.5" || fail "summary of left: $out"
echo "$out" | grep -q "picture 512x480" || fail "summary shows the picture size: $out"
sed 's/"image"/"imagee"/' camera.json >bad.json
"$tool" camera validate bad.json >/dev/null 2>err.txt && fail "an unknown key must fail"
grep -q "bad.json" err.txt && grep -q "/modules/0" err.txt && grep -q "unknown key 'imagee'" err.txt ||
  fail "unknown key message: $(cat err.txt)"
# Modules the panorama or a calibrator would refuse are named, and the exit
# status says so (3); the file itself loads.
/usr/bin/python3 - <<'PY'
import json
c = json.load(open('camera.json'))
c['modules'][1]['geometry']['matrix'] = [0.5,0,0,0.5, 0,0,0,0, 0,0,1,0, 0,0,0,1]
c['modules'].append({"name": "blind", "geometry": {"type": "matrix", "matrix": [1,0,0,0, 0,1,0,0, 0,0,1,0, 0,0,0,1]},
                     "shaders": [{"uid": "00050007", "parameters": {"i_clipMatrix_enabled": "1"}}]})
json.dump(c, open('refused.json', 'w'))
PY
"$tool" camera validate refused.json >refused.txt 2>err.txt
status=$?
[ "$status" -eq 3 ] || fail "camera validate of unusable modules exits 3, not $status"
grep -q "module right cannot be used: the matrix is singular" err.txt || fail "singular matrix not named: $(cat err.txt)"
grep -q "module blind cannot be used: the clip-matrix shader's values cannot be read" err.txt ||
  fail "unreadable clip values not named: $(cat err.txt)"
grep -q "module blind cannot be used: no picture" err.txt || fail "missing picture not named: $(cat err.txt)"

# autoclip: two modules side by side cover everything; a missing seam keeps
# the larger side.
check_rect() {  # json, expected width as a share of the map
  /usr/bin/python3 -c "
import json, sys
r = json.loads(sys.argv[1]); x, y, w, h = r['rect']; W, H = r['size']
sys.exit(0 if x == 0 and y == 0 and h >= H - 3 and abs(w - float(sys.argv[2]) * W) <= 2 else 1)" "$1" "$2"
}
out=$("$tool" autoclip camera.json --json | tail -n 1)
check_rect "$out" 1.0 || fail "autoclip of two halves: $out"
sed 's/0.5,0,0,0.5, 0,1,0,0/0.4,0,0,0.6, 0,1,0,0/' camera.json >seam.json
out=$("$tool" autoclip seam.json --json --picture seam.png | tail -n 1)
check_rect "$out" 0.5 || fail "autoclip with a missing seam: $out"
[ -s seam.png ] || fail "autoclip --picture writes the inspection picture"

# autoclip --apply: a turned module leaves ragged edges; the clipped camera
# draws a panorama without any uncovered pixel, and clipping it again keeps
# all of it. --no-holes cuts out a hole the default search keeps.
/usr/bin/python3 - "$data" <<'PY'
import sys, json, cv2, numpy as np
src = np.maximum(cv2.imread(sys.argv[1] + '/building.jpg'), 1)  # black only where nothing is drawn
cv2.imwrite('l.png', src[0:300, 0:400]); cv2.imwrite('r.png', src[0:300, 300:700])
def quad(pts):
    h = cv2.getPerspectiveTransform(np.float32([[0, 0], [1, 0], [1, 1], [0, 1]]), np.float32(pts))
    return [h[0,0], h[0,1], 0, h[0,2], h[1,0], h[1,1], 0, h[1,2], 0, 0, 1, 0, h[2,0], h[2,1], 0, h[2,2]]
mod = lambda n, img, pts: {"name": n, "image": img, "geometry": {"type": "matrix", "matrix": quad(pts)}}
json.dump({"format": "orbivane-camera", "version": 1, "panoramaSize": [700, 300], "modules": [
    mod("L", "l.png", [[0.02, 0.03], [0.58, 0.0], [0.57, 0.98], [0.0, 1.0]]),
    mod("R", "r.png", [[0.43, 0.01], [1.0, 0.04], [0.98, 0.97], [0.42, 1.0]])]}, open('ragged.json', 'w'))
json.dump({"format": "orbivane-camera", "version": 1, "panoramaSize": [400, 200], "modules": [
    mod("A", "l.png", [[0, 0], [0.5, 0], [0.5, 0.5], [0, 0.5]]), mod("B", "l.png", [[0.5, 0], [1, 0], [1, 0.5], [0.5, 0.5]]),
    mod("C", "l.png", [[0, 0.5], [0.5, 0.5], [0.5, 1], [0, 1]]),
    mod("D", "l.png", [[0.54, 0.54], [1, 0.5], [1, 1], [0.5, 1]])]}, open('hole.json', 'w'))
PY
cp ragged.json ragged-before.json
"$tool" autoclip ragged.json --apply >/dev/null 2>err.txt && fail "--apply without --out must fail"
"$tool" autoclip ragged.json --apply --out ragged.json >/dev/null 2>err.txt && fail "--apply over the input must fail"
grep -q "inputs" err.txt || fail "writing over the input is refused by name: $(cat err.txt)"
cmp -s ragged.json ragged-before.json || fail "a refused --apply leaves the camera file alone"
out=$("$tool" autoclip ragged.json --no-holes --threshold 1 --apply --out clipped.json --json | tail -n 1)
"$tool" panorama ragged.json --out whole.png --feather 0 >/dev/null || fail "panorama of the ragged camera"
"$tool" panorama clipped.json --out cut.png --feather 0 >/dev/null || fail "panorama of the clipped camera"
/usr/bin/python3 -c "
import json, sys, cv2, numpy as np
r = json.loads(sys.argv[1]); x, y, w, h = r['rect']
whole, cut = cv2.imread('whole.png'), cv2.imread('cut.png')
ok = cut.shape[:2] == (h, w) and r['applied']['panoramaSize'] == [w, h]
ok = ok and (whole.sum(axis=2) == 0).sum() > 1000 and (cut.sum(axis=2) == 0).sum() == 0
ok = ok and json.load(open('clipped.json'))['panoramaSize'] == [w, h]
sys.exit(0 if ok else 1)" "$out" || fail "the clipped camera draws a panorama without holes: $out"
out=$("$tool" autoclip clipped.json --no-holes --threshold 1 --json | tail -n 1)
/usr/bin/python3 -c "
import json, sys
r = json.loads(sys.argv[1]); x, y, w, h = r['rect']; W, H = r['size']
sys.exit(0 if x == 0 and y == 0 and w >= W - 1 and h >= H - 1 else 1)" "$out" || fail "a clipped camera clips to itself: $out"
out=$("$tool" autoclip hole.json --json | tail -n 1)
/usr/bin/python3 -c "import json, sys; sys.exit(0 if len(json.loads(sys.argv[1])['gaps']) == 5 else 1)" "$out" ||
  fail "the default search keeps the small hole: $out"
out=$("$tool" autoclip hole.json --no-holes --json | tail -n 1)
/usr/bin/python3 -c "
import json, sys
r = json.loads(sys.argv[1]); x, y, w, h = r['rect']
sys.exit(0 if r['gaps'] == [] and abs(w * h - 40000) < 1000 else 1)" "$out" || fail "--no-holes leaves no hole: $out"
"$tool" autoclip hole.json --values camera.json --cols 1 --rows 1 --no-holes >/dev/null 2>&1 &&
  fail "--no-holes is geometry mode only"

# neighbour and match-to-target on pictures with a known misplacement.
/usr/bin/python3 - "$data" <<'PY'
import sys, json, cv2, numpy as np
src = cv2.imread(sys.argv[1] + '/building.jpg')
# Two 320x240 crops; the right one sits 3 px further right than its nominal placement.
cv2.imwrite('left.png', src[100:340, 100:420]); cv2.imwrite('right.png', src[100:340, 343:663])
json.dump({"format": "orbivane-camera", "version": 1, "modules": [
  {"name": "L", "image": "left.png", "geometry": {"type": "matrix", "matrix": [0.5,0,0,0, 0,1,0,0, 0,0,1,0, 0,0,0,1]}},
  {"name": "R", "image": "right.png", "geometry": {"type": "matrix", "matrix": [0.5,0,0,0.375, 0,1,0,0, 0,0,1,0, 0,0,0,1]}}]},
  open('pair.json', 'w'))
# A module picture showing the target through a known homography H (module pixels to target pixels).
t = src[50:410, 100:580]
H = np.array([[1.02, 0.03, -8.0], [-0.02, 0.99, 5.0], [1e-5, 0, 1]])
cv2.imwrite('target.png', t)
cv2.imwrite('module.png', cv2.warpPerspective(t, np.linalg.inv(H), (480, 360), flags=cv2.INTER_CUBIC,
                                              borderMode=cv2.BORDER_REFLECT))
identity = [1,0,0,0, 0,1,0,0, 0,0,1,0, 0,0,0,1]
json.dump({"format": "orbivane-camera", "version": 1, "modules": [
  {"name": "T", "image": "target.png", "geometry": {"type": "matrix", "matrix": identity}},
  {"name": "M", "image": "module.png", "geometry": {"type": "matrix", "matrix": identity}}]}, open('mt.json', 'w'))
PY
out=$("$tool" neighbour pair.json --modules L,R --out pair-out.json --json 2>/dev/null | tail -n 1)
/usr/bin/python3 -c "
import json, sys
t = json.loads(sys.argv[1])['pairs'][0]
sys.exit(0 if t['status'] == 'measured' and abs(t['dx'] - 3 / 320 * 0.5) < 2e-5 and abs(t['dy']) < 2e-5 else 1)" "$out" ||
  fail "neighbour finds the 3 px offset: $out"
[ -s pair-out.json ] || fail "neighbour writes the corrected camera"
out=$("$tool" match-to-target mt.json --target T --modules M --out mt-out.json --json 2>/dev/null | tail -n 1)
/usr/bin/python3 -c "
import json, sys
r = json.loads(sys.argv[1])
m = r['modules']['M']
sys.exit(0 if m['status'] == 'aligned' and m['residualPx'] < 1.0 and 'M' in r['errors'] else 1)" "$out" ||
  fail "match-to-target reports the module aligned with its residual: $out"
/usr/bin/python3 -c "
import json, numpy as np
m = json.load(open('mt-out.json'))['modules'][1]['geometry']['matrix']
found = np.array([[m[0], m[1], m[3]], [m[4], m[5], m[7]], [m[12], m[13], m[15]]])
S = np.diag([1 / 480, 1 / 360, 1])
truth = S @ np.array([[1.02, 0.03, -8.0], [-0.02, 0.99, 5.0], [1e-5, 0, 1]]) @ np.linalg.inv(S)
corners = np.array([[0, 0, 1], [1, 0, 1], [1, 1, 1], [0, 1, 1]]).T
a = found @ corners; b = truth @ corners
error = np.abs(a[:2] / a[2] - b[:2] / b[2]) * np.array([[480], [360]])
raise SystemExit(0 if error.max() < 0.1 else 1)" || fail "match-to-target recovers the known homography"

# The fisheye closed loop on a simulated camera: an off-centre lens circle is
# centred by moving the sensor window, and restore puts the window back.
"$tool" sensor create state.json --module A --scene fisheye --size 1280 960 --centre 700 430 --radius 400 \
  --window 1024 768 --step 2 >/dev/null || fail "sensor create"
"$tool" sensor capture state.json --module A before.png >/dev/null || fail "sensor capture"
"$tool" sensor centre state.json --module A >/dev/null || fail "sensor centre"
"$tool" sensor capture state.json --module A after.png >/dev/null || fail "sensor capture after centring"
centre=$("$tool" fisheye after.png --json | tail -n 1)
/usr/bin/python3 -c "import json,sys; c=json.loads(sys.argv[1])['centre']; sys.exit(0 if abs(c[0]-512)<=1.5 and abs(c[1]-384)<=1.5 else 1)" \
  "$centre" || fail "the circle is centred after 'sensor centre': $centre"
"$tool" sensor restore state.json --module A >/dev/null || fail "sensor restore"
"$tool" sensor capture state.json --module A restored.png >/dev/null
cmp -s before.png restored.png || fail "restore brings back the first picture"

# The configuration file at load time: an empty file gets the default text,
# a missing one is not created, an active logger writes its file.
mkdir empty missing active
: >empty/OrbivaneCalibration.cfg
(cd empty && "$tool" --version >/dev/null)
expected=$(printf '{\n\t"Logger" :\n\t[\n\t\t\t{\n\t\t\t"Name" : "MatrixBasedMatchToBackground",\n\t\t\t"Active" : false,\n\t\t\t"File" : "common.log",\n\t\t\t"LogLevel" : "info",\n\t\t\t},\n\t\t\t{\n\t\t\t"Name" : "FisheyeCalibration",\n\t\t\t"Active" : false,\n\t\t\t"File" : "common.log",\n\t\t\t"LogLevel" : "info",\n\t\t\t},\n\t]\n}')
[ "$(cat empty/OrbivaneCalibration.cfg)" == "$expected" ] || fail "default configuration text"
[ "$(tail -c 1 empty/OrbivaneCalibration.cfg)" == "}" ] || fail "no line end after the closing brace"
(cd missing && "$tool" --version >/dev/null)
[ ! -e missing/OrbivaneCalibration.cfg ] || fail "a missing configuration must not be created"
printf '{ "Logger" : [ { "Name" : "FisheyeCalibration", "Active" : true, "File" : "fish.log", "LogLevel" : "info" } ] }' \
  >active/OrbivaneCalibration.cfg
(cd active && "$tool" --version >/dev/null)
[ -e active/fish.log ] || fail "an active logger opens its file at load time"

# Honest verdicts and exit statuses: a module that shows noise where M is
# fails, keeps its matrix, is named on standard error, and the command
# finishes with status 3; without it the same run exits 0.
/usr/bin/python3 - <<'PY'
import json, numpy as np, cv2
cv2.imwrite('noise.png', np.random.RandomState(3).randint(0, 256, (360, 480, 3)).astype(np.uint8))
c = json.load(open('mt.json'))
c['modules'].append({"name": "N", "image": "noise.png", "geometry": {"type": "matrix", "matrix": c['modules'][1]['geometry']['matrix']}})
json.dump(c, open('decoy.json', 'w'))
PY
out=$("$tool" match-to-target decoy.json --target T --out decoy-out.json --json 2>decoy-err.txt | tail -n 1)
status=$?
"$tool" match-to-target decoy.json --target T --out decoy-out.json --json >/dev/null 2>&1
status=$?
[ "$status" -eq 3 ] || fail "match-to-target with a failed module exits 3, not $status"
grep -q "module N failed" decoy-err.txt || fail "the failed module is named on standard error: $(cat decoy-err.txt | tail -n 2)"
/usr/bin/python3 -c "
import json, sys
r = json.loads(sys.argv[1])['modules']
ok = r['N']['status'] == 'failed' and r['N']['reason'] and r['M']['status'] == 'aligned'
c = json.load(open('decoy-out.json'))['modules']
ok = ok and c[2]['geometry']['matrix'] == json.load(open('decoy.json'))['modules'][2]['geometry']['matrix']
sys.exit(0 if ok else 1)" "$out" || fail "the decoy is reported failed and keeps its matrix: $out"
"$tool" match-to-target mt.json --target T --out mt-out2.json >/dev/null 2>&1 || fail "a fully calibrated run exits 0"

# The whole pipeline in one command, with its report.
out=$("$tool" calibrate decoy.json --target T --steps match,clip --out cal-out.json --report cal-report --json 2>/dev/null | tail -n 1)
status=$?
"$tool" calibrate decoy.json --target T --steps match,clip --out cal-out.json --json >/dev/null 2>&1
status=$?
[ "$status" -eq 3 ] || fail "calibrate with a failed module exits 3, not $status"
/usr/bin/python3 -c "
import json, sys
r = json.loads(sys.argv[1])
ok = [s['step'] for s in r['steps']] == ['match', 'clip'] and r['modules']['N']['status'] == 'failed'
ok = ok and r['modules']['M']['status'] == 'aligned' and len(r['steps'][1]['clipping']) == 4
sys.exit(0 if ok else 1)" "$out" || fail "calibrate reports each step and module: $out"
[ -s cal-report/report.html ] && [ -s cal-report/panorama-after-match.png ] || fail "calibrate writes its report"
"$tool" calibrate decoy.json --target T --out decoy.json >/dev/null 2>&1 && fail "calibrate refuses to write over its camera file"
"$tool" calibrate decoy.json --target T --steps match,warp --out x.json >/dev/null 2>&1 && fail "calibrate refuses an unknown step"

finish "all command-line checks passed"

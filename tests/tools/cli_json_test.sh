#!/usr/bin/env bash
# The command line as a user meets it: every command's --json is one JSON
# document on standard output (the library's console texts stay, on standard
# error); starting from pictures with `camera init`, then `calibrate`, then
# `panorama` puts cut views of a photograph back where they were cut;
# progress ends at its total; an output path that cannot or must not be
# written is refused before any work, and nothing is written.
set -u
source "$(dirname "$0")/cli_common.sh"
cd "$work" || exit 1


# Standard output parses as exactly one JSON document.
one_document() {  # file
  /usr/bin/python3 -c "
import json, sys
text = open(sys.argv[1]).read()
try:
    json.loads(text)
except ValueError as e:
    print(e); sys.exit(1)" "$1"
}

# --- Pictures a user has: three views cut from one photograph, the middle
# one turned by a degree, and the photograph itself as the target.
/usr/bin/python3 - "$data" <<'PY'
import sys, json, cv2, numpy as np
src = cv2.imread(sys.argv[1] + '/aloeL.jpg')[50:1050, 0:1280]
cv2.imwrite('whole.png', src)
truth = {}
for i, x in enumerate([0, 390, 780]):
    view = src[:, x:x + 500].copy()
    if i == 1:
        m = cv2.getRotationMatrix2D((250, 500), 1.0, 1.0)
        view = cv2.warpAffine(view, m, (500, 1000), borderMode=cv2.BORDER_REFLECT)
        # view pixel p shows whole pixel x + inverse(m) p
        inv = cv2.invertAffineTransform(m)
        truth['view2'] = [[inv[0][0], inv[0][1], inv[0][2] + x], [inv[1][0], inv[1][1], inv[1][2]]]
    else:
        truth['view%d' % (i + 1)] = [[1, 0, x], [0, 1, 0]]
    cv2.imwrite('view%d.png' % (i + 1), view)
json.dump(truth, open('truth.json', 'w'))
PY

# --- camera init -> calibrate -> panorama
"$tool" camera init view1.png view2.png view3.png --target whole.png --overlap 0.2 --out cam.json --json \
  >init.json 2>init.err || fail "camera init: $(cat init.err)"
one_document init.json || fail "camera init --json"
"$tool" calibrate cam.json --target target --out cal.json --json >cal.json.out 2>cal.err
status=$?
[ "$status" -eq 0 ] || fail "calibrate of the cut views exits $status: $(tail -n 3 cal.err)"
one_document cal.json.out || fail "calibrate --json: $(head -c 300 cal.json.out)"
grep -q "Starting t = " cal.err || fail "the library's own texts reach standard error"
# Each view's corners land where it was cut from, within half a pixel of the
# whole photograph (before clipping: the neighbour step's camera is the one
# the report's steps hold; after clipping, against the crop).
/usr/bin/python3 - <<'PY' || fail "camera init then calibrate does not put the views back"
import json, numpy as np
cam = json.load(open('cal.json'))
truth = json.load(open('truth.json'))
report = json.load(open('cal.json.out'))
W, H = cam['panoramaSize']
byname = {m['name']: m for m in cam['modules']}
target = np.array(byname['target']['geometry']['matrix'], float).reshape(4, 4)[[0, 1, 3]][:, [0, 1, 3]]
worst = 0
for name, t in truth.items():
    m = np.array(byname[name]['geometry']['matrix'], float).reshape(4, 4)[[0, 1, 3]][:, [0, 1, 3]]
    # view pixel -> view texture -> surface -> target texture -> whole pixel
    pv = np.diag([1 / 500.0, 1 / 1000.0, 1.0])
    tp = np.diag([1280.0, 1000.0, 1.0])
    h = tp @ np.linalg.inv(target) @ m @ pv
    t3 = np.vstack([np.array(t, float), [0, 0, 1]])
    for c in [(0, 0), (500, 0), (500, 1000), (0, 1000)]:
        p = h @ [c[0], c[1], 1]; q = t3 @ [c[0], c[1], 1]
        worst = max(worst, float(np.hypot(*(p[:2] / p[2] - q[:2]))))
assert all(v['status'] == 'aligned' for v in report['modules'].values()), report['modules']
assert worst < 0.5, worst
PY
"$tool" panorama cal.json --exclude target --out pano.png --json >pano.json 2>pano.err || fail "panorama: $(cat pano.err)"
one_document pano.json || fail "panorama --json"
/usr/bin/python3 -c "
import json, sys
r = json.load(open('pano.json'))
sys.exit(0 if r['drawn'] == ['view1', 'view2', 'view3'] and len(r['size']) == 2 else 1)" || fail "panorama --json: $(cat pano.json)"

# --- Progress reaches its total when the run completes (mode 0 counts two
# steps per module but reports fewer).
grep "calibration:" cal.err | tail -n 1 | grep -Eq "calibration: ([0-9]+)/\1 " ||
  fail "the calibration's progress ends short: $(grep 'calibration:' cal.err | tail -n 1)"
"$tool" match-to-target cam.json --target target --out mt.json >/dev/null 2>mt.err
grep "target matching:" mt.err | tail -n 1 | grep -q "6/6 done" ||
  fail "target matching's progress ends short: $(grep 'target matching:' mt.err | tail -n 1)"

# --- Every command's --json is one document.
/usr/bin/python3 - "$data" <<'PY'
import sys, cv2
cv2.imwrite('lens.png', cv2.imread(sys.argv[1] + '/baboon.jpg'))
PY
"$tool" sensor create state.json --module A --scene fisheye --size 1280 960 --centre 700 430 --radius 400 --json \
  >sensor-create.json 2>/dev/null || fail "sensor create --json"
"$tool" sensor capture state.json --module A fish.png --json >sensor-capture.json 2>/dev/null
"$tool" sensor create state.json --module T --scene target --size 1600 1200 --json >/dev/null 2>&1
"$tool" sensor capture state.json --module T target.png >/dev/null 2>&1
# In this order: sensor centre makes the restore point sensor restore uses.
runs=(
  "blur|blur view1.png --json"
  "validate|camera validate cam.json --json"
  "fisheye|fisheye fish.png --json"
  "resolution|resolution target.png --real-x 0.8 --real-y 0.48 --json"
  "autoclip|autoclip cam.json --json"
  "neighbour|neighbour cam.json --modules view1,view2,view3 --out nb.json --json"
  "match|match-to-target cam.json --target target --modules view1 --out m1.json --json"
  "sensor-read|sensor read state.json --module A --json"
  "sensor-write|sensor write state.json --module A --x 10 --y 4 --json"
  "sensor-centre|sensor centre state.json --module A --json"
  "sensor-restore|sensor restore state.json --module A --json"
  "remove|camera remove-module cam.json view3 --out two.json --json"
)
for run in "${runs[@]}"; do
  name=${run%%|*}
  # shellcheck disable=SC2086
  "$tool" ${run#*|} >"$name.out" 2>"$name.err"
  status=$?
  [ "$status" -eq 0 ] || [ "$status" -eq 3 ] || fail "$name exits $status: $(tail -n 2 "$name.err")"
  one_document "$name.out" || fail "$name --json is not one JSON document: $(head -c 200 "$name.out")"
done
for f in sensor-create sensor-capture; do one_document $f.json || fail "$f --json"; done
grep -q "Circles 3" resolution.err || fail "the resolution calibrator's texts go to standard error"
grep -q "Starting t = " neighbour.err || fail "neighbour stitching's texts go to standard error"
/usr/bin/python3 -c "
import json, sys
r = json.load(open('fisheye.out'))
sys.exit(0 if 'warnings' in r and len(r['centre']) == 2 else 1)" || fail "fisheye --json: $(cat fisheye.out)"
/usr/bin/python3 -c "
import json, sys
c = json.load(open('two.json'))
names = [m['name'] for m in c['modules']]
links = [m.get('linkage', {}) for m in c['modules']]
ok = 'view3' not in names and all(l.get('right') != 'view3' for l in links)
ok = ok and all(m.get('neighbour') != 'view3' for m in c['modules'])
sys.exit(0 if ok else 1)" || fail "remove-module leaves references to the module: $(cat two.json | head -c 400)"

# --- Outputs that cannot or must not be written are refused first, and
# nothing is written.
cp cam.json cam-before.json
cp view1.png view1-before.png
check_refused() {  # expected words, command...
  local words=$1
  shift
  "$@" >refused.out 2>refused.err && fail "not refused: $*"
  grep -q "$words" refused.err || fail "refusal of '$*' says: $(cat refused.err)"
  grep -q "Calibrating Module\|Starting t" refused.err && fail "work ran before the refusal: $*"
}
check_refused "does not exist" "$tool" calibrate cam.json --target target --out missing/cal.json
check_refused "does not exist" "$tool" match-to-target cam.json --target target --out missing/m.json
check_refused "is a folder" "$tool" neighbour cam.json --modules view1,view2 --out .
check_refused "inputs" "$tool" panorama cam.json --out view1.png
check_refused "inputs" "$tool" fisheye view1.png --annotated view1.png
check_refused "inputs" "$tool" camera init view1.png view2.png --out view1.png
mkdir -p locked && chmod a-w locked
if [ "$(id -u)" -ne 0 ]; then
  check_refused "cannot be written" "$tool" calibrate cam.json --target target --out locked/cal.json
fi
chmod u+w locked
cmp -s cam.json cam-before.json || fail "a refused command changed the camera file"
cmp -s view1.png view1-before.png || fail "a refused command changed a picture"
[ ! -e missing ] || fail "a refused command made a folder"

finish "all command-line usability checks passed"

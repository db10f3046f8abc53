#!/usr/bin/env bash
# The main job end to end on the reduced scene: the demo must finish with
# every calibrator within its tolerance, write what it promises, and its
# report must show in a real browser (headless Chromium). The panorama of the
# true camera must give back the scene it was cut from (checked with Debian's
# python3-opencv).
set -u
source_dir=$3
source "$(dirname "$0")/cli_common.sh"

out="$work/demo"
"$tool" demo --quick --out "$out" --data "$data" >"$work/demo.log" 2>&1
status=$?
cat "$work/demo.log" | tail -15
[ "$status" == 0 ] || fail "demo exited with $status"
grep -q "Report: .*report.html" "$work/demo.log" || fail "demo does not say where the report is"
for f in report.html camera-before.json camera-after.json camera-truth.json panorama-before.png \
         panorama-after.png panorama-after-grid.png clipping.png fisheye-before.png fisheye-after.png \
         resolution.png shader-reference.png shader-found.png pictures/M1.png pictures/scene.png \
         frames-left.png frames-right.png frames-busy.png recordings/recordings.json; do
  [ -s "$out/$f" ] || fail "demo did not write $f"
done
"$tool" camera validate "$out/camera-after.json" >/dev/null || fail "camera-after.json does not load"

# The demo refuses a folder that holds something else, and leaves it alone.
mkdir -p "$work/mine" && echo keep >"$work/mine/notes.txt"
"$tool" demo --quick --out "$work/mine" >/dev/null 2>&1 && fail "demo wrote into a folder of other files"
[ "$(cat "$work/mine/notes.txt")" == keep ] || fail "demo touched a file of the user's"

# The true camera's panorama is the scene again (an independent check with python3-opencv).
"$tool" panorama "$out/camera-truth.json" --out "$work/truth.png" >/dev/null || fail "panorama of the true camera"
/usr/bin/python3 - "$work/truth.png" "$out/pictures/scene.png" <<'PY' || fail "the true camera's panorama is not the scene"
import sys, cv2, numpy as np
pano, scene = cv2.imread(sys.argv[1]), cv2.imread(sys.argv[2])
assert pano.shape == scene.shape, (pano.shape, scene.shape)
covered = pano.max(axis=2) > 0
covered = cv2.erode(covered.astype(np.uint8), np.ones((9, 9), np.uint8)) > 0
assert covered.mean() > 0.85, covered.mean()
diff = np.abs(pano.astype(np.int16) - scene.astype(np.int16)).max(axis=2)[covered]
# The modules have their own exposure, vignetting and noise; the geometry must be right.
print("truth panorama: mean difference %.2f, median %.1f" % (diff.mean(), np.median(diff)))
assert np.median(diff) <= 12 and diff.mean() < 16
PY
"$tool" panorama "$out/camera-truth.json" --out "$work/bad.png" --size 10x >/dev/null 2>&1 && fail "--size 10x accepted"

# The report in a real browser.
bash "$source_dir/scripts/check-report.sh" "$out/report.html" "$work/report.png" || fail "report check"

finish "demo: all checks passed"

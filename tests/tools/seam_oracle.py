#!/usr/bin/python3
"""An independent measure of a camera's seams, with Debian's python3-opencv.

Each module is drawn alone by the tool's own `panorama --modules NAME
--feather 0` (what a viewer shows of it); SIFT features of every two drawings
are matched inside their overlap (ratio 0.7, each the other's best) and the distance between the two
points of a match is how far the modules draw the same thing apart, in
panorama pixels; matches further apart than 60 pixels are taken as false
(repeated windows) and not counted. Prints one line per pair and a JSON summary as the last
line: {"pairs": n, "medianPx": .., "p90Px": .., "worstPairMedianPx": ..}.

usage: seam_oracle.py TOOL CAMERA.json [--low]   (--low: leave out the
lowest third of every overlap, where a ground-facing rig sees near objects)
"""
import itertools
import json
import os
import subprocess
import sys
import tempfile

import cv2
import numpy as np


def drawings(tool, camera, names, folder):
    out = {}
    for name in names:
        path = os.path.join(folder, name + ".png")
        subprocess.run([tool, "panorama", camera, "--modules", name, "--feather", "0", "--out", path],
                       check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        out[name] = cv2.imread(path)
    return out


def pair_distances(a, b, leave_out_low):
    overlap = ((a.max(axis=2) > 0) & (b.max(axis=2) > 0)).astype(np.uint8) * 255
    overlap = cv2.erode(overlap, np.ones((7, 7), np.uint8))
    if cv2.countNonZero(overlap) < 2000:
        return None
    if leave_out_low:
        rows = np.nonzero(overlap.any(axis=1))[0]
        overlap[int(rows.max() - (rows.max() - rows.min()) / 3):, :] = 0
    sift = cv2.SIFT_create()
    ka, da = sift.detectAndCompute(cv2.cvtColor(a, cv2.COLOR_BGR2GRAY), overlap)
    kb, db = sift.detectAndCompute(cv2.cvtColor(b, cv2.COLOR_BGR2GRAY), overlap)
    if da is None or db is None or len(ka) < 5 or len(kb) < 5:
        return None
    matcher = cv2.BFMatcher(cv2.NORM_L2)
    back = {m.queryIdx: m.trainIdx for m in matcher.match(db, da)}
    distances = []
    for m in matcher.knnMatch(da, db, k=2):
        if len(m) == 2 and m[0].distance < 0.7 * m[1].distance and back.get(m[0].trainIdx) == m[0].queryIdx:
            d = np.hypot(*np.subtract(ka[m[0].queryIdx].pt, kb[m[0].trainIdx].pt))
            if d <= 60.0:
                distances.append(d)
    return np.array(distances) if len(distances) >= 10 else None


def main():
    tool, camera = sys.argv[1], sys.argv[2]
    leave_out_low = "--low" in sys.argv[3:]
    with open(camera) as f:
        names = [m["name"] for m in json.load(f)["modules"] if m.get("image")]
    everything, worst, pairs = [], 0.0, 0
    with tempfile.TemporaryDirectory() as folder:
        drawn = drawings(tool, camera, names, folder)
        for first, second in itertools.combinations(names, 2):
            d = pair_distances(drawn[first], drawn[second], leave_out_low)
            if d is None:
                continue
            pairs += 1
            everything.extend(d)
            worst = max(worst, float(np.median(d)))
            print("%s - %s: %d matches, median %.2f px, 90 %% %.2f px" %
                  (first, second, len(d), np.median(d), np.percentile(d, 90)))
    summary = {"pairs": pairs, "medianPx": float(np.median(everything)) if everything else None,
               "p90Px": float(np.percentile(everything, 90)) if everything else None, "worstPairMedianPx": worst}
    print(json.dumps(summary))


if __name__ == "__main__":
    main()

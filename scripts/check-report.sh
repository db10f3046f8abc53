#!/usr/bin/env bash
# Checks a demo report in a real browser: headless Chromium loads
# report.html, the page's own script counts the pictures it could show, and a
# screenshot of the page is taken.
#   scripts/check-report.sh REPORT.html [SCREENSHOT.png]
# Exits 0 when every picture loaded, the summary lists every calibrator with
# its numbers, and the screenshot is a real picture; prints why otherwise.
set -u
report=$(readlink -f "$1")
shot=${2:-}
browser=$(command -v chromium || command -v chromium-browser || true)
if [ -z "$browser" ]; then
  echo "check-report: Chromium is not installed (scripts/bootstrap.sh installs Debian's chromium)"
  exit 1
fi
[ -f "$report" ] || { echo "check-report: no report at '$1'"; exit 1; }
profile=$(mktemp -d)
trap 'rm -rf "$profile"' EXIT
flags=(--headless --no-sandbox --disable-gpu --disable-dev-shm-usage --disable-background-networking
       --disable-component-update --disable-sync --no-first-run --no-default-browser-check --mute-audio
       --user-data-dir="$profile" --allow-file-access-from-files --virtual-time-budget=15000)

dom="$profile/dom.html"
timeout 120 "$browser" "${flags[@]}" --dump-dom "file://$report" >"$dom" 2>"$profile/browser.log"
if [ ! -s "$dom" ]; then
  echo "check-report: Chromium rendered nothing"; tail -5 "$profile/browser.log"; exit 1
fi
if [ -n "$shot" ]; then
  timeout 120 "$browser" "${flags[@]}" --hide-scrollbars --window-size=1280,2400 --screenshot="$shot" \
    "file://$report" >>"$profile/browser.log" 2>&1
fi

/usr/bin/python3 - "$dom" "$shot" <<'PY'
import re, sys
dom = open(sys.argv[1], encoding="utf-8").read()
problems = []
m = re.search(r'<body[^>]*data-pictures-total="(\d+)"[^>]*data-pictures-loaded="(\d+)"', dom)
if not m:
    problems.append("the page's picture check did not run")
else:
    total, loaded = int(m.group(1)), int(m.group(2))
    if total == 0:
        problems.append("the report shows no pictures")
    elif loaded != total:
        broken = re.search(r'id="picture-check"[^>]*>([^<]*)<', dom)
        problems.append("%d of %d pictures did not load: %s" % (total - loaded, total, broken.group(1) if broken else ""))
    else:
        print("check-report: %d of %d pictures loaded" % (loaded, total))
summary = re.search(r'<table id="summary">(.*?)</table>', dom, re.S)
if not summary:
    problems.append("no summary table")
else:
    rows = re.findall(r"<tr>(.*?)</tr>", summary.group(1), re.S)[1:]
    if len(rows) < 7:
        problems.append("the summary lists %d calibrators, expected at least 8" % len(rows))
    for row in rows:
        cells = [re.sub(r"<[^>]+>", "", c) for c in re.findall(r"<td[^>]*>(.*?)</td>", row, re.S)]
        if len(cells) != 5 or not re.search(r"\d", cells[1] + cells[2]) or not re.search(r"\d+(\.\d)? m?s", cells[3]):
            problems.append("summary row without its numbers: %s" % cells)
    print("check-report: summary lists %d calibrators with results, errors and times" % len(rows))
if sys.argv[2]:
    import cv2
    shot = cv2.imread(sys.argv[2])
    if shot is None:
        problems.append("no screenshot was written")
    elif shot.std() < 10:
        problems.append("the screenshot is blank")
    else:
        print("check-report: screenshot %dx%d written to %s" % (shot.shape[1], shot.shape[0], sys.argv[2]))
for p in problems:
    print("check-report: " + p)
sys.exit(1 if problems else 0)
PY

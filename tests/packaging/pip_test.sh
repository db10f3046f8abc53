#!/usr/bin/env bash
# The Python package as a Python user installs it: pip, offline, into a fresh
# virtual environment (with Debian's numpy, cv2 and pytest visible), from the
# project's own CMake build. The installed package must carry its metadata
# and its numpy requirement, load the library it ships (not the build's), and
# pass the package's tests from outside the source tree; a wheel is built the
# same way.
# usage: pip_test.sh BUILD_DIR SOURCE_DIR SAMPLE_DATA_DIR ORBIVANE_CALIBRATE
set -eu
build=$1
source=$2
data=$3
tool=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

/usr/bin/python3 -m venv --system-site-packages "$work/venv"
venv="$work/venv/bin"
export ORBIVANE_CMAKE_BUILD_DIR="$build"
export PIP_NO_INDEX=1 PIP_DISABLE_PIP_VERSION_CHECK=1
"$venv/pip" install -q --no-build-isolation "$source/python" || fail "pip install ./python"
"$venv/pip" wheel -q --no-build-isolation --no-deps -w "$work/wheels" "$source/python" || fail "pip wheel ./python"
ls "$work"/wheels/orbivane-*-linux_*.whl >/dev/null 2>&1 || fail "no platform wheel: $(ls "$work/wheels")"
"$venv/pip" show orbivane >"$work/show.txt"
grep -q "^Requires: numpy" "$work/show.txt" || fail "numpy is not declared: $(cat "$work/show.txt")"

cd "$work"
env -u PYTHONPATH -u LD_LIBRARY_PATH "$venv/python" - "$work" <<'PY' || fail "the installed package"
import importlib.metadata, sys
import numpy as np
import orbivane
work = sys.argv[1]
assert orbivane.__file__.startswith(work + "/venv/"), orbivane.__file__
assert importlib.metadata.version("orbivane") == orbivane.__version__, (importlib.metadata.version("orbivane"),
                                                                         orbivane.__version__)
# The library it loaded is the one installed beside the module.
libraries = [line.split()[-1] for line in open("/proc/self/maps") if "libOrbivaneCalibration" in line]
assert libraries and all(path.startswith(work + "/venv/") for path in libraries), libraries
camera = orbivane.Camera("installed")
camera.add_module(orbivane.Module("A", matrix=np.eye(4), picture=np.zeros((8, 8, 3), np.uint8)))
assert orbivane.ShaderBruteForcer.grid_size() == 304200
print("installed package ok")
PY
ORBIVANE_SAMPLE_DATA_DIR="$data" ORBIVANE_CALIBRATE="$tool" env -u PYTHONPATH "$venv/python" -m pytest -q \
  -p no:cacheprovider --rootdir "$source/python/tests" "$source/python/tests/test_camera.py" \
  "$source/python/tests/test_pictures.py" || fail "the package's tests against the installed package"
echo "pip ok"

#!/usr/bin/env bash
# Installs the build into a scratch prefix, then builds a small outside
# project against it twice: through the CMake package and through pkg-config.
set -eu
build=$1
consumer=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
test -f "$work/prefix/include/orbivane/calibration.h"
test -f "$work/prefix/include/orbivane/camera/orbivane.h"
test -f "$work/prefix/share/orbivane/Hollbrink/Shaders/00050007.shader"

cmake -S "$consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH="$work/prefix/lib:$work/prefix/lib64:${LD_LIBRARY_PATH:-}" "$work/cmake-build/consumer" | grep -q "consumer ok"

libdir=$(ls -d "$work"/prefix/lib*/pkgconfig | head -n 1)
flags=$(PKG_CONFIG_PATH="$libdir" pkg-config --cflags --libs orbivane-calibration)
# shellcheck disable=SC2086
c++ -std=c++17 "$consumer/main.cpp" -o "$work/pkgconfig-consumer" $flags
LD_LIBRARY_PATH="$(dirname "$libdir"):${LD_LIBRARY_PATH:-}" "$work/pkgconfig-consumer" | grep -q "consumer ok"
# The Python package, when it was built: importable from the prefix's Python
# folder by Debian's interpreter, finding the library through its run path.
package=$(ls -d "$work"/prefix/lib/python3*/*-packages/orbivane 2>/dev/null | head -n 1 || true)
if [ -n "$package" ]; then
  test -f "$package/data/Hollbrink/Shaders/00060001.shader"
  test -f "$package/_orbivane.pyi"
  (cd "$work" && env -u LD_LIBRARY_PATH PYTHONPATH="$(dirname "$package")" /usr/bin/python3 -c "
import orbivane, numpy as np
assert orbivane.__file__.startswith('$work/prefix/'), orbivane.__file__
camera = orbivane.Camera('installed')
camera.add_module(orbivane.Module('A', matrix=np.eye(4), picture=np.zeros((8, 8, 3), np.uint8)))
assert orbivane.ShaderBruteForcer.grid_size() == 304200
print('python ok')" | grep -q "python ok")
fi
echo "install ok"

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
echo "install ok"

#!/usr/bin/env bash
# Installs every Debian 12 package the project needs: toolchain, libraries,
# test and benchmark frameworks, the sample pictures and videos the tests and
# the demo use, the browser that checks the demo's report, and what the
# Python package needs (pybind11, Python headers, numpy, pytest, Dask).
# Runs as root, or through sudo when it is available.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git
  libopencv-dev
  libspdlog-dev libfmt-dev
  nlohmann-json3-dev libcli11-dev libtbb-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  opencv-doc opencv-data python3-opencv python3-numpy
  chromium fonts-dejavu-core
  clang libclang-rt-14-dev
  libceres-dev hugin-tools
  pybind11-dev python3-dev python3-pytest python3-distributed
  python3-pip python3-setuptools python3-wheel python3-venv
)

if [ "$(id -u)" -eq 0 ]; then
  as_root=()
elif command -v sudo >/dev/null 2>&1; then
  as_root=(sudo)
else
  echo "bootstrap: run as root or install sudo" >&2
  exit 1
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ "${#missing[@]}" -gt 0 ]; then
  echo "bootstrap: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  "${as_root[@]}" apt-get update -qq
  "${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
else
  echo "bootstrap: all packages present"
fi

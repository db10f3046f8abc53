#!/usr/bin/env bash
# Installs what the project needs, builds it, and runs the main job on a real
# sample picture.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/bootstrap.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release
cmake --build build -j "$(nproc)" --target orbivane-calibrate
picture=/usr/share/doc/opencv-doc/examples/data/building.jpg
echo "Blur score of $picture (larger is sharper):"
./build/bin/orbivane-calibrate blur "$picture"

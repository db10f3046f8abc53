#!/usr/bin/env bash
# Installs what the project needs, builds it, and runs the main job: the demo
# that calibrates a virtual five-module camera built from real photographs
# and writes a report (build/demo/report.html).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/bootstrap.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release
cmake --build build -j "$(nproc)" --target orbivane-calibrate
./build/bin/orbivane-calibrate demo --out build/demo "$@"

#!/usr/bin/env bash
# Installs what the project needs, builds it with warnings as errors, and runs
# every test. With --sanitize the build and the tests run under
# AddressSanitizer and UndefinedBehaviorSanitizer (in build-sanitize/),
# without the benchmarks and the Python package (a plain interpreter cannot
# load an instrumented library, so its tests would not run there anyway).
set -euo pipefail
cd "$(dirname "$0")/.."

sanitize=OFF
build=build
if [ "${1:-}" == "--sanitize" ]; then
  sanitize=ON
  build=build-sanitize
fi

bash scripts/bootstrap.sh
jobs=$(nproc)
if [ "$sanitize" == "ON" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORBIVANE_WERROR=ON -DORBIVANE_SANITIZE=ON \
    -DORBIVANE_BUILD_BENCHMARKS=OFF -DORBIVANE_BUILD_PYTHON=OFF
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
else
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DORBIVANE_WERROR=ON
fi
cmake --build "$build" -j "$jobs"
ctest --test-dir "$build" -j "$jobs" --output-on-failure --timeout 900

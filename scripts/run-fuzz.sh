#!/usr/bin/env bash
# Builds the libFuzzer targets of the file parsers with clang (AddressSanitizer
# and UndefinedBehaviorSanitizer on) into build-fuzz/ and runs each for
# SECONDS (default 30) from its seed corpus in fuzz/corpus/. A crash, a leak
# or undefined behaviour stops with the input that caused it
# (build-fuzz/fuzz/crash-*). Usage: scripts/run-fuzz.sh [SECONDS] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
shift || true
targets=("$@")
if [ "${#targets[@]}" -eq 0 ]; then
  targets=(camera_file recordings_index logger_configuration shader_file shard_file simulated_state)
fi
bash scripts/bootstrap.sh
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORBIVANE_FUZZ=ON \
  -DORBIVANE_BUILD_TESTS=OFF -DORBIVANE_BUILD_BENCHMARKS=OFF -DORBIVANE_BUILD_PYTHON=OFF >/dev/null
cmake --build build-fuzz -j "$(nproc)" --target $(printf 'fuzz_%s ' "${targets[@]}")
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
for target in "${targets[@]}"; do
  corpus=$(mktemp -d)
  cp -r "fuzz/corpus/$target/." "$corpus/"
  echo "fuzzing $target for ${seconds} s"
  (cd build-fuzz/fuzz && ./"fuzz_$target" -max_total_time="$seconds" -max_len=65536 -print_final_stats=1 \
     -artifact_prefix="$PWD/crash-$target-" "$corpus" 2>&1 | grep -E "stat::number_of_executed_units|ERROR|SUMMARY|Done" || true)
  if ls build-fuzz/fuzz/crash-"$target"-* >/dev/null 2>&1; then
    echo "fuzz_$target found a failing input: $(ls build-fuzz/fuzz/crash-"$target"-*)"
    rm -rf "$corpus"
    exit 1
  fi
  rm -rf "$corpus"
done
echo "fuzzing clean: ${targets[*]} for ${seconds} s each"

#!/usr/bin/env bash
# Builds the tests with ThreadSanitizer into build-tsan/ and runs the tests of
# the threaded paths: the shader search on all cores, abort from another
# thread in every calibrator that has it, the frame finder's abort, progress
# callbacks, the session library's futures, the blur score's stripes, the
# calibration pipeline (its seams measured in parallel) and the parallel
# loops of the alignment, large module drawings (rows in stripes) and the
# rig's UV grid fit. Our parallel loops run on std::threads in this
# build; OpenCV runs its own loops on the calling thread
# (OPENCV_FOR_THREADS_NUM=1), and tests/tsan.supp names the uninstrumented
# third-party libraries only.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/bootstrap.sh
cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORBIVANE_TSAN=ON -DORBIVANE_WERROR=ON \
  -DORBIVANE_BUILD_BENCHMARKS=OFF -DORBIVANE_BUILD_PYTHON=OFF >/dev/null
cmake --build build-tsan -j "$(nproc)" --target orbivane_tests
export TSAN_OPTIONS="suppressions=$PWD/tests/tsan.supp halt_on_error=1 second_deadlock_stack=1 history_size=4"
export OPENCV_FOR_THREADS_NUM=1
filter='ShaderBruteForcerSearch.*:*Abort*:*abort*:*Thread*:*Parallel*:MatchToTargetEndToEnd.*:DirectAlignmentSteps.*'
filter+=':QuarnSession*:SimulatedCamera*:Recording*:SmartFinder*:ImageShading*'
filter+=':AdvStepInfo.*:SensorShifter*:FisheyeCalibration*:NeighbourNeighbour.*:EstimateBlur.*:CalibrationPipeline.*:AutoClippingSearch.TheIntegral*'
filter+=':CrossCheckedHamming.*:SeamMeter.*:ModuleDrawing.*:RigPlacement.*'
mkdir -p build-tsan/work
(cd build-tsan/work && ORBIVANE_SHADER_SOURCE_DIR="$PWD/../../shaders" ../tests/orbivane_tests --gtest_filter="$filter" \
   --gtest_brief=1)
echo "ThreadSanitizer: the threaded tests ran clean"

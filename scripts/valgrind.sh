#!/usr/bin/env bash
# Valgrind memcheck over a short end-to-end run (the soak test: facade construction, gyro bias run,
# FRAMES frames of Grab + getNearestPoint + ImuRect, destruction) and over the bad-input suite.
# Fails on any memory error and on any definitely or indirectly lost block; the only suppressions
# are for OpenCV's own libraries, in scripts/sanitizer/valgrind.supp.
# Usage: scripts/valgrind.sh [FRAMES]     (default 30)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${ORVO_BUILD_DIR:-$root/build}
frames=${1:-30}
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" --target test_soak test_bad_input -j"$(nproc)" >/dev/null

# libhwy's load-time timer calibration needs rdtscp, unknown to Valgrind on CPUs that hide it.
shim="$build/valgrind_hwy_timer.so"
g++ -O2 -shared -fPIC "$root/scripts/sanitizer/valgrind_hwy_timer.cpp" -o "$shim"
export LD_PRELOAD="$shim${LD_PRELOAD:+:$LD_PRELOAD}"

memcheck=(valgrind --tool=memcheck --error-exitcode=1 --leak-check=full
          --show-leak-kinds=definite,indirect --errors-for-leak-kinds=definite,indirect
          --suppressions="$root/scripts/sanitizer/valgrind.supp" --num-callers=30)
export ORVO_SOAK_FRAMES=$frames ORVO_SOAK_NO_MEMORY_FIGURES=1
nice "${memcheck[@]}" "$build/tests/test_soak"
# The child processes of the device cases are left out: they end in exit(1) by design.
nice "${memcheck[@]}" "$build/tests/test_bad_input" --gtest_filter='BadInput.*'

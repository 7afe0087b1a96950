#!/usr/bin/env bash
# Builds the library, the virtual camera, the tools and every test suite with AddressSanitizer and
# UndefinedBehaviorSanitizer in a build directory of their own, and runs the whole suite there.
# Usage: scripts/sanitize.sh [ctest arguments...]   (e.g. -R Fault to run a subset)
# Environment: ORVO_SANITIZE_BUILD_DIR (default build-sanitize), ORVO_SOAK_FRAMES (default 1000 here).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${ORVO_SANITIZE_BUILD_DIR:-$root/build-sanitize}
jobs=$(nproc)

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DORVO_SANITIZE=ON -DORVO_BUILD_BENCH=OFF \
  >/dev/null
cmake --build "$build" -j"$jobs"

# Every report is fatal and names its stack. Leak checking is on (the default on Linux); the only
# suppressions allowed are for OpenCV's own libraries and live in scripts/sanitizer/lsan.supp.
export ASAN_OPTIONS="detect_leaks=1:detect_stack_use_after_return=1:check_initialization_order=1:strict_init_order=1:detect_invalid_pointer_pairs=0:halt_on_error=1:${ASAN_OPTIONS:-}"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:${UBSAN_OPTIONS:-}"
export LSAN_OPTIONS="suppressions=$root/scripts/sanitizer/lsan.supp:print_suppressions=0:${LSAN_OPTIONS:-}"
# OpenCV's gphoto2 capture backend leaks libusb's device list whenever cv::VideoCapture probes a
# camera index (see scripts/sanitizer/lsan.supp); the SDK has no use for that backend.
export OPENCV_VIDEOIO_PRIORITY_GPHOTO2=0
# The soak's short form is shorter still under the sanitizers, which slow the per-frame path.
export ORVO_SOAK_FRAMES=${ORVO_SOAK_FRAMES:-1000}

cd "$build"
ctest --output-on-failure -j"$jobs" --timeout 900 "$@"

#!/usr/bin/env bash
# The long soak: builds the soak test and runs FRAMES (default 100,000) free-running frames through
# Grab, getNearestPoint and ImuRect, printing the resident set every 1,000 frames and judging it,
# the descriptors and the mappings at the end. 30 to 45 minutes on one core; give it a build
# directory no other build touches (ORVO_BUILD_DIR).
# Usage: scripts/soak.sh [FRAMES]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${ORVO_BUILD_DIR:-$root/build}
frames=${1:-100000}
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" --target test_soak -j"$(nproc)" >/dev/null
ORVO_SOAK_FRAMES=$frames nice "$build/tests/test_soak"

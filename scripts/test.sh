#!/usr/bin/env bash
# Builds everything and runs every test suite (the command .ci/run calls).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${ORVO_BUILD_DIR:-$root/build}
"$root/scripts/bootstrap.sh" "$build"
cd "$build"
ctest --output-on-failure -j"$(nproc)" --timeout 900
# Sanitized suite and short fuzz runs (ORVO_SKIP_RELIABILITY=1 leaves them out of a local run).
if [ "${ORVO_SKIP_RELIABILITY:-0}" = 0 ]; then
  "$root/scripts/reliability.sh"
fi

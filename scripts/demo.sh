#!/usr/bin/env bash
# Builds the SDK and runs the demo against the built-in virtual camera; pictures land in out/.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${ORVO_BUILD_DIR:-$root/build}
"$root/scripts/bootstrap.sh" "$build"
mkdir -p "$root/out"
"$build/tools/orvo_demo" --out "$root/out" "$@"

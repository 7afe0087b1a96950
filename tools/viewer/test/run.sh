#!/usr/bin/env bash
# Runs one of the viewer's tests against a built orvo: `browser` (system chromium through
# puppeteer-core) or `burst` (hostile traffic on loopback); `measure` prints what one open page
# costs the camera loop. Exits 77 (skipped) when what the test needs is not installed.
# Usage: run.sh browser|burst|measure ORVO OUT_DIR DATA_DIR
set -euo pipefail
kind=$1
here=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$3/node"
orvo=$(realpath "$2") out=$(realpath "$3") data=$(realpath "$4")  # the tests run from $out/node
command -v node >/dev/null || { echo "SKIPPED: node is not installed (apt-get install nodejs npm)"; exit 77; }
cp "$here"/*.mjs "$here/package.json" "$here/package-lock.json" "$out/node/"
cd "$out/node"
if [ "$kind" = burst ]; then
  exec node burst_test.mjs "$orvo"
fi
[ -x /usr/bin/chromium ] || { echo "SKIPPED: /usr/bin/chromium is not installed (apt-get install chromium)"; exit 77; }
command -v npm >/dev/null || { echo "SKIPPED: npm is not installed (apt-get install npm)"; exit 77; }
# puppeteer-core drives the system chromium; it never downloads a browser of its own.
if ! cmp -s package-lock.json node_modules/.package-lock.json.copy 2>/dev/null; then
  PUPPETEER_SKIP_DOWNLOAD=1 npm ci --no-audit --no-fund --loglevel=error
  cp package-lock.json node_modules/.package-lock.json.copy
fi
if [ "$kind" = measure ]; then
  exec node measure.mjs "$orvo" "$out"
fi
node browser_test.mjs "$orvo" "$out" "$data"
echo "screenshots: $out/viewer.png $out/viewer_live.png"

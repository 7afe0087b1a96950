#!/usr/bin/env bash
# Installs the Debian packages the project needs (only those missing), then configures and builds.
# Usage: scripts/bootstrap.sh [BUILD_DIR] [extra cmake arguments...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
shift || true

packages=(g++ cmake make pkg-config libopencv-dev libgtest-dev libgmock-dev libbenchmark-dev xvfb xdotool libhwy-dev pcl-tools
          python3-dev python3-pybind11 python3-numpy python3-pytest
          libcpp-httplib-dev libjs-three chromium  # these three: orvo view and its browser test
          v4l-utils ffmpeg gstreamer1.0-tools gstreamer1.0-plugins-good gstreamer1.0-plugins-base)  # V4L2 clients of the virtual camera
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
# node and npm (the browser test's driver) may come from another package source: asked for only
# when the commands are absent.
command -v node >/dev/null || missing+=(nodejs)
command -v npm >/dev/null || missing+=(npm)
if [ ${#missing[@]} -gt 0 ]; then
  echo "== installing: ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null
fi

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release "$@" >/dev/null
cmake --build "$build" -j"$(nproc)"

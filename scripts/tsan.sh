#!/usr/bin/env bash
# Builds the modern API's suites (test_runtime*) with ThreadSanitizer in a build directory of their
# own and runs them; any data race reported fails the run. Only those suites and what they link are
# built, so that it stays cheap enough for the test command (scripts/reliability.sh runs it).
# Usage: scripts/tsan.sh [gtest filter]   Environment: ORVO_TSAN_BUILD_DIR (default build-tsan).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${ORVO_TSAN_BUILD_DIR:-$root/build-tsan}
jobs=${ORVO_JOBS:-2}

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DORVO_BUILD_BENCH=OFF \
  -DCMAKE_CXX_FLAGS="-fsanitize=thread -g -fno-omit-frame-pointer" \
  -DCMAKE_C_FLAGS="-fsanitize=thread -g" \
  -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread -DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=thread >/dev/null
suites=$(cd "$root/tests" && ls test_runtime*.cpp | sed 's/\.cpp$//')
# shellcheck disable=SC2086
cmake --build "$build" -j"$jobs" --target $suites

export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$root/scripts/sanitizer/tsan.supp:${TSAN_OPTIONS:-}"
# The thousand failed opens fail before any capture thread starts, so there is nothing for TSan to
# see there, and it takes minutes under TSan: the normal and ASan builds run it. A filter given on
# the command line replaces this one.
filter=${1:--RuntimeOpen.AThousandFailedOpensLeakNothing}
status=0
for suite in $suites; do
  echo "== $suite (ThreadSanitizer)"
  (cd "$build/tests" && "./$suite" --gtest_filter="$filter") || status=1
done
exit $status

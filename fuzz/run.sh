#!/usr/bin/env bash
# Builds the fuzz targets with clang (libFuzzer + ASan + UBSan), writes the seed corpora and runs
# each target for a while on its growing corpus. Exits non-zero when any target finds something;
# the input that did it is kept under BUILD/artifacts and named in the summary.
# Usage: fuzz/run.sh [SECONDS_PER_TARGET | ci] [TARGET...]     (default: 60 s, every target built)
#   e.g. fuzz/run.sh 600                      ten minutes each, as for a release
#        fuzz/run.sh 3600 fuzz_depth          one target for an hour
#        fuzz/run.sh ci                       CI's form: a fixed seed and a fixed number of inputs
#                                             per target (about a minute each): the same bounded
#                                             walk on a slow machine as on a fast one, so that CI
#                                             fails on a regression rather than on the luck of a
#                                             longer random walk; the timed runs explore further.
#                                             (Coverage can still differ by a few edges between
#                                             runs: OpenCV's own paths are not all deterministic.)
# Environment: ORVO_FUZZ_BUILD_DIR (default build-fuzz), ORVO_FUZZ_JOBS (parallel workers per
# target, default 1).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${ORVO_FUZZ_BUILD_DIR:-$root/build-fuzz}
seconds=${1:-60}
shift || true
# Inputs per target in the CI form: about a minute each under the sanitizers on a CI machine.
declare -A ci_runs=([fuzz_frames]=8000 [fuzz_calibration]=5000 [fuzz_depth]=16000)
jobs=${ORVO_FUZZ_JOBS:-1}

CXX=${CXX_FUZZ:-clang++} cmake -S "$root/fuzz" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)" >/dev/null
"$build/make_seeds" "$build/seeds"

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for t in fuzz_frames fuzz_calibration fuzz_depth; do
    [ -x "$build/$t" ] && targets+=("$t")
  done
fi

# A file that claims a matrix of many gigabytes (rows: 2147483647) makes OpenCV allocate it before
# it finds the data short. Without the sanitizer that costs address space only; the sanitizer would
# write shadow memory for all of it. Such allocations fail here instead, which OpenCV reports as
# its own exception: the library's contract for a malformed file.
export ASAN_OPTIONS="allocator_may_return_null=1:max_allocation_size_mb=1024:detect_leaks=1:${ASAN_OPTIONS:-}"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:${UBSAN_OPTIONS:-}"

status=0
printf '%-18s %14s %8s %8s %8s %s\n' target budget execs exec/s cov findings
for t in "${targets[@]}"; do
  name=${t#fuzz_}
  corpus="$build/corpus/$name"
  artifacts="$build/artifacts"
  log="$build/$t.log"
  mkdir -p "$corpus" "$artifacts"
  extra=()
  [ -f "$root/fuzz/$name.dict" ] && extra+=(-dict="$root/fuzz/$name.dict")
  # Parallel workers write fuzz-N.log into the working directory, which is the build directory.
  [ "$jobs" -gt 1 ] && extra+=(-jobs="$jobs" -workers="$jobs")
  if [ "$seconds" = ci ]; then
    budget=(-seed=1 -runs="${ci_runs[$t]:-5000}")
    shown="${ci_runs[$t]:-5000} inputs"
  else
    budget=(-max_total_time="$seconds")
    shown="$seconds s"
  fi
  before=$(find "$artifacts" -name "$t-*" | wc -l)
  set +e
  (cd "$build" && "$build/$t" "${budget[@]}" -max_len=4096 -timeout=60 \
    -close_fd_mask=1 -print_final_stats=1 -artifact_prefix="$artifacts/$t-" "${extra[@]}" \
    "$corpus" "$build/seeds/$name") >"$log" 2>&1
  rc=$?
  set -e
  [ "$jobs" -gt 1 ] && cat "$build"/fuzz-*.log >>"$log" 2>/dev/null && rm -f "$build"/fuzz-*.log
  after=$(find "$artifacts" -name "$t-*" | wc -l)
  execs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | awk '{s += $2} END {print s + 0}')
  rate=$(grep -o 'stat::average_exec_per_sec: *[0-9]*' "$log" | awk '{s += $2} END {print s + 0}')
  cov=$(grep -o ' cov: [0-9]*' "$log" | tail -1 | awk '{print $2}')
  found=$((after - before))
  printf '%-18s %14s %8s %8s %8s %s\n' "$t" "$shown" "$execs" "$rate" "${cov:-?}" "$found"
  if [ "$rc" -ne 0 ] || [ "$found" -ne 0 ]; then
    status=1
    echo "  $t: exit $rc; log $log; new artifacts:" >&2
    find "$artifacts" -name "$t-*" -newer "$corpus" >&2 || true
  fi
done
exit $status

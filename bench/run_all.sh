#!/usr/bin/env bash
# Runs every benchmark program of a build and prints the ratios they report in one table.
# Usage: bench/run_all.sh [BUILD_DIR] [extra benchmark arguments...]
# Each program times an operation beside the OpenCV work it must do, in the same run; the ratios
# it reports are gathered by bench/ratios.awk. Full output goes to BUILD_DIR/bench-logs/.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
shift || true
logs="$build/bench-logs"
mkdir -p "$logs"

programs=()
for p in "$build"/bench/bench_*; do
  [ -x "$p" ] && [ -f "$p" ] && programs+=("$p")
done
if [ ${#programs[@]} -eq 0 ]; then
  echo "no benchmark programs under $build/bench: build them first" \
       "(cmake --build $build --target <bench_...>, or bash scripts/bootstrap.sh)" >&2
  exit 1
fi

table=$(mktemp)
trap 'rm -f "$table"' EXIT
for p in "${programs[@]}"; do
  name=$(basename "$p")
  echo "== $name" >&2
  if ! nice "$p" "$@" >"$logs/$name.txt" 2>&1; then
    printf '%s\t%s\t%s\n' "$name" "(failed: see $logs/$name.txt)" "" >>"$table"
    continue
  fi
  awk -v prog="$name" -f "$root/bench/ratios.awk" "$logs/$name.txt" >>"$table"
done

echo
awk -F'\t' '
  { prog[NR] = $1; meas[NR] = $2; val[NR] = $3
    if (length($1) > w1) w1 = length($1); if (length($2) > w2) w2 = length($2) }
  END {
    if (w1 < 7) w1 = 7; if (w2 < 7) w2 = 7
    printf "%-" w1 "s  %-" w2 "s  %s\n", "program", "measure", "result"
    line = ""; for (i = 0; i < w1 + w2 + 30; i++) line = line "-"; print line
    for (i = 1; i <= NR; i++) printf "%-" w1 "s  %-" w2 "s  %s\n", prog[i], meas[i], val[i]
  }' "$table"

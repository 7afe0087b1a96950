#!/usr/bin/env bash
# Runs every benchmark program of a build and prints the ratios they report in one table.
# Usage: bench/run_all.sh [BUILD_DIR] [extra benchmark arguments...]
# Each program times an operation beside the OpenCV work it must do, in the same run, and prints
# ratio lines such as "A / B = 0.41 (2.4x faster)" or "Grab / required work: 1.04x (target ...)";
# those lines (and frame rates) are collected here. Full output goes to BUILD_DIR/bench-logs/.
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
  # A ratio line has " / " and then ':' or '=' before a number; frame rates say "per second".
  awk -v prog="$name" '
    / \/ / || /per second/ {
      if (match($0, /[:=][ \t]*[0-9.]+/)) {
        measure = substr($0, 1, RSTART - 1); value = substr($0, RSTART + 1)
        gsub(/^[ \t]+|[ \t]+$/, "", measure); gsub(/[ \t]+/, " ", measure)
        gsub(/^[ \t]+|[ \t]+$/, "", value)
        printf "%s\t%s\t%s\n", prog, measure, value; found = 1
      }
    }
    END { if (!found) printf "%s\t%s\t\n", prog, "(no ratio reported)" }' "$logs/$name.txt" >>"$table"
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

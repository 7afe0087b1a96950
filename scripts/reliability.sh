#!/usr/bin/env bash
# The reliability checks beyond the normal suite, in their CI form: the whole suite built and run
# under AddressSanitizer + UndefinedBehaviorSanitizer, the threaded runtime suites under
# ThreadSanitizer, then every fuzz target on a fixed
# budget of inputs from a fixed seed (the same bounded walk on every machine).
# (The normal suite itself carries the fault matrix, the bad-input suite and the short soak.)
# Usage: scripts/reliability.sh [FUZZ_SECONDS_PER_TARGET | ci]     (default ci)
# Longer forms: fuzz/run.sh 600, scripts/soak.sh, scripts/valgrind.sh (docs/reliability.md).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
fuzz_budget=${1:-ci}

# libFuzzer comes with clang; install it if this machine lacks it.
if ! command -v clang++ >/dev/null; then
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends clang </dev/null
fi

echo "== sanitizers: the whole suite under ASan + UBSan"
"$root/scripts/sanitize.sh"
echo "== ThreadSanitizer: the runtime suites"
"$root/scripts/tsan.sh"
echo "== fuzzing (budget: ${fuzz_budget})"
"$root/fuzz/run.sh" "$fuzz_budget"

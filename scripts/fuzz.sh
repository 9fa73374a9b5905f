#!/usr/bin/env bash
# Builds the libFuzzer targets with clang under ASan/UBSan and runs each for a while, with the
# options and budget tests/fuzz/fuzz-times gives it, growing its kept corpus. Targets run side by
# side, one per core (KESTTCS_FUZZ_JOBS overrides), each on one core.
# Usage: scripts/fuzz.sh [SECONDS-PER-TARGET]   (default 20, for targets without a budget)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-20}"
jobs="${KESTTCS_FUZZ_JOBS:-$(nproc)}"
source scripts/fuzz-common.sh
fuzz_build

# Runs target $1 for its budget; its output goes to build/fuzz/$1.log.
run_target() {
  local name=$1 budget options
  budget=$(fuzz_budget "$name")
  read -r -a options <<< "$(fuzz_options "$name")"
  "build/fuzz/tests/fuzz/$name" -max_total_time="${budget:-$seconds}" -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix=build/fuzz/ "${options[@]}" "$(fuzz_corpus "$name")" \
    > "build/fuzz/$name.log" 2>&1
}

declare -A pid_of
for name in "${fuzz_targets[@]}"; do
  while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do wait -n || true; done
  echo "fuzz: $name for $(fuzz_budget "$name" | grep . || echo "$seconds") s $(fuzz_options "$name")"
  run_target "$name" &
  pid_of[$name]=$!
done
status=0
for name in "${fuzz_targets[@]}"; do
  if wait "${pid_of[$name]}"; then
    echo "fuzz: $name $(grep -E 'stat::(number_of_executed_units|average_exec_per_sec)' \
      "build/fuzz/$name.log" | awk '{printf "%s %s ", $1, $2}')"
  else
    echo "fuzz: $name FAILED"; tail -n 40 "build/fuzz/$name.log"; status=1
  fi
done
exit $status

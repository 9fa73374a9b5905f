#!/usr/bin/env bash
# The long fuzzing run (not part of CI): every libFuzzer target (fastest first) or the TARGETs
# named, one after another, to RUNS executions (default ten million), with the options
# tests/fuzz/fuzz-times gives it, growing its kept corpus. Prints each target's executions, speed,
# time and corpus; any crash fails the run (its input is left in build/fuzz).
# Usage: scripts/fuzz-long.sh [RUNS] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."
runs="${1:-10000000}"
shift || true
source scripts/fuzz-common.sh
fuzz_build
names=("$@")
if [ ${#names[@]} -eq 0 ]; then
  # Fastest first, as tests/fuzz/fuzz-times lists them, then any target it does not list.
  mapfile -t names < <({ awk '!/^#/ && NF {print $1}' tests/fuzz/fuzz-times
    printf '%s\n' "${fuzz_targets[@]}"; } | awk '!seen[$0]++')
fi
status=0
for name in "${names[@]}"; do
  read -r -a options <<< "$(fuzz_options "$name")"
  echo "fuzz-long: $name, $runs executions ${options[*]}"
  start=$(date +%s)
  if ! "build/fuzz/tests/fuzz/$name" -runs="$runs" -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix=build/fuzz/ "${options[@]}" "$(fuzz_corpus "$name")" \
      > "build/fuzz/$name-long.log" 2>&1; then
    echo "fuzz-long: $name FAILED"; tail -n 40 "build/fuzz/$name-long.log"; status=1
  fi
  grep -E 'stat::(number_of_executed_units|average_exec_per_sec)' "build/fuzz/$name-long.log" || true
  corpus=$(fuzz_corpus "$name")
  echo "fuzz-long: $name took $(( $(date +%s) - start )) s; corpus $(find "$corpus" -type f | wc -l)" \
    "inputs, $(du -sk "$corpus" | cut -f1) KiB"
done
exit $status

#!/usr/bin/env bash
# Builds the libFuzzer targets with clang under ASan/UBSan and runs each for a while, with the
# options and budget tests/fuzz/fuzz-times gives it, growing its kept corpus.
# Usage: scripts/fuzz.sh [SECONDS-PER-TARGET]   (default 30, for targets without a budget)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-30}"
source scripts/fuzz-common.sh
fuzz_build
status=0
for target in build/fuzz/tests/fuzz/fuzz_*; do
  [ -x "$target" ] || continue
  name=$(basename "$target")
  budget=$(fuzz_budget "$name")
  read -r -a options <<< "$(fuzz_options "$name")"
  echo "fuzz: $name for ${budget:-$seconds} s ${options[*]}"
  if ! "$target" -max_total_time="${budget:-$seconds}" -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix=build/fuzz/ "${options[@]}" "$(fuzz_corpus "$name")" \
      > "build/fuzz/$name.log" 2>&1; then
    echo "fuzz: $name FAILED"; tail -n 40 "build/fuzz/$name.log"; status=1
  else
    grep -E 'stat::(number_of_executed_units|average_exec_per_sec)' "build/fuzz/$name.log" || true
  fi
done
exit $status

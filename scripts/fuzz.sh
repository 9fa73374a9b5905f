#!/usr/bin/env bash
# Builds the libFuzzer targets with clang under ASan/UBSan and runs each for a while.
# Usage: scripts/fuzz.sh [SECONDS-PER-TARGET]   (default 30; a target may set its own in fuzz-times)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-30}"
scripts/install-deps.sh
cmake --preset fuzz >/dev/null
# Only the fuzz targets: the libraries they need are built with them (start-up's among them, for the
# core fixture), and nothing else (the daemon, the client library) is meant to be built with the
# fuzzer's instrumentation.
mapfile -t targets < <(ninja -C build/fuzz -t targets all | sed -n 's/^\(fuzz_[a-z_0-9]*\): .*/\1/p' | sort -u)
cmake --build --preset fuzz --target "${targets[@]}"
# A target that brings the core up does so in a fresh home per input: keep those homes in memory.
if [ -d /dev/shm ]; then export TMPDIR=/dev/shm; fi
status=0
for target in build/fuzz/tests/fuzz/fuzz_*; do
  [ -x "$target" ] || continue
  name=$(basename "$target")
  budget=$(awk -v n="$name" '$1 == n {print $2}' tests/fuzz/fuzz-times 2>/dev/null || true)
  corpus="build/fuzz/corpus/$name"
  mkdir -p "$corpus"
  echo "fuzz: $name for ${budget:-$seconds} s"
  if ! "$target" -max_total_time="${budget:-$seconds}" -rss_limit_mb=2048 -print_final_stats=0 \
      "$corpus" > "build/fuzz/$name.log" 2>&1; then
    echo "fuzz: $name FAILED"; tail -n 40 "build/fuzz/$name.log"; status=1
  fi
done
exit $status

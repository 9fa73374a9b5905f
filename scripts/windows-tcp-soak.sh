#!/usr/bin/env bash
# The Windows host's runs against the server under Wine over TCP (ctest label wine-tcp: 8 threads x
# 1000 calls on one binding and one context, from the widl client through both driver libraries and
# from the Linux client library), repeated. Not part of CI: Wine 8's RPC runtime can stall a TCP
# connection under load (see tests/windows/CMakeLists.txt); a run that stalls fails after 120 s.
# Needs the windows and default builds.
# Usage: scripts/windows-tcp-soak.sh [RUNS]   (default 5)
set -uo pipefail
cd "$(dirname "$0")/.."
runs="${1:-5}"
cmake --build --preset windows >/dev/null || exit 1
cmake --build --preset default --target kesttcsd cross_host_client >/dev/null || exit 1
passed=0
failed=0
for i in $(seq "$runs"); do
  while read -r line; do
    case "$line" in
      *" Passed "*) passed=$((passed + 1)); echo "run $i: $line" ;;
      *"***"*) failed=$((failed + 1)); echo "run $i: $line" ;;
    esac
  done < <(ctest --preset windows -L wine-tcp 2>&1 | grep -E "Test +#")
done
echo "windows-tcp-soak: $passed passed, $failed failed"
[ "$failed" -eq 0 ]

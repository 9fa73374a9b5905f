#!/usr/bin/env bash
# The Windows host's 8-thread runs over TCP at full size (8 threads x 1000 calls on one binding and
# one context), repeated: the widl client against the server under Wine through both driver
# libraries, and the Linux client library against it. Not part of CI, which makes 50 calls per
# thread there (see tests/windows/CMakeLists.txt). Needs the windows and default builds.
# Usage: scripts/windows-tcp-soak.sh [RUNS]   (default 5)
set -uo pipefail
cd "$(dirname "$0")/.."
runs="${1:-5}"
win="$PWD/build/windows"
cmake --build --preset windows --target rpc_server_test rpc_test_client tbs_swtpm tpmddl_swtpm \
  >/dev/null || exit 1
cmake --build --preset default --target cross_host_client >/dev/null || exit 1
export KESTTCS_TCP_CALLS_PER_THREAD=1000
log=$(mktemp)
trap 'rm -f "$log"' EXIT
passed=0
failed=0
run() {  # run NAME COMMAND...: one bounded run, its result and time
  local name="$1" start status=0
  shift
  start=$(date +%s)
  timeout 600 "$@" >"$log" 2>&1 || status=$?
  if [ "$status" -eq 0 ]; then
    passed=$((passed + 1))
    echo "ok   $name ($(( $(date +%s) - start )) s)"
  else
    failed=$((failed + 1))
    echo "FAIL $name (status $status after $(( $(date +%s) - start )) s)"
    grep -E '^(ok|FAIL)' "$log" | tail -n 3
  fi
}
for i in $(seq "$runs"); do
  run "run $i: widl client, server on tbs.dll" tests/windows/run_under_wine.sh "$win/wine-prefix" \
    "$win/tests/windows/rpc_server_test.exe" auto tbs
  run "run $i: widl client, server on tpmddl.dll" tests/windows/run_under_wine.sh \
    "$win/wine-prefix" "$win/tests/windows/rpc_server_test.exe" tddl:tpmddl.dll tddl
  run "run $i: Linux client library" tests/windows/linux_client_over_tcp.sh "$win/wine-prefix" \
    "$win/tests/windows/rpc_server_test.exe" "$PWD/build/default/tests/integration/cross_host_client"
done
echo "windows-tcp-soak: $passed passed, $failed failed"
[ "$failed" -eq 0 ]

#!/usr/bin/env bash
# Runs one Windows test program under Wine against a fresh swtpm process:
#   run_under_wine.sh PREFIX_DIR PROGRAM.exe ARGS...
#   run_under_wine.sh PREFIX_DIR --script SCRIPT ARGS...   (SCRIPT runs Wine itself, as $WINE)
# The Wine prefix PREFIX_DIR is private to the build tree and made on first use (a persistent
# wineserver first, then wineboot, as a service under Wine needs). The swtpm process listens on
# two free loopback ports; the program finds the data port in KESTTCS_SWTPM_PORT. Native DLLs
# beside the program come before Wine's own (Wine's tbs.dll finds no TPM). WINEDEBUG may be set
# (default -all); the prefix's helper processes, services included, write Wine's debug output to
# KESTTCS_WINE_HELPER_LOG when it is set and they start with this run.
set -euo pipefail
prefix="$1"
shift
wine=$(command -v wine64 || echo /usr/lib/wine/wine64)
wineserver=$(command -v wineserver || echo /usr/lib/wine/wineserver)
# No Mono or Gecko: nothing here needs them, and wineboot would try to install them.
export WINEPREFIX="$prefix" WINEDEBUG=${WINEDEBUG:--all} WINEDLLOVERRIDES="tbs=n,b;mscoree,mshtml="

mkdir -p "$prefix"
# The server stays up a minute after its last client, so the tests of one run share it. (It exits
# with 2 when one already serves the prefix.) Its output goes nowhere: ctest waits for every
# process that holds the test's output open, and Wine's helper processes inherit it too.
"$wineserver" -p60 </dev/null >/dev/null 2>&1 || true
helper_log="${KESTTCS_WINE_HELPER_LOG:-/dev/null}"
if [ ! -f "$prefix/system.reg" ]; then
  "$wine" wineboot -i </dev/null >>"$helper_log" 2>&1
else
  # Starts the prefix's helper processes (services, devices).
  "$wine" wineboot </dev/null >>"$helper_log" 2>&1
fi

port=$(python3 -c '
import socket
while True:
    a = socket.socket(); a.bind(("127.0.0.1", 0)); p = a.getsockname()[1]
    b = socket.socket()
    try:
        b.bind(("127.0.0.1", p + 1)); print(p); break
    except OSError:
        pass
    finally:
        a.close(); b.close()')
state=$(mktemp -d)
# A fresh TPM has no endorsement key; KESTTCS_SWTPM_EK=1 asks for one, for a test that takes
# ownership.
if [ "${KESTTCS_SWTPM_EK:-0}" = 1 ]; then
  swtpm_setup --tpm-state "$state" --createek --config /dev/null >/dev/null
fi
swtpm socket --tpmstate "dir=$state" --flags not-need-init \
  --server "type=tcp,port=$port,bindaddr=127.0.0.1" \
  --ctrl "type=tcp,port=$((port + 1)),bindaddr=127.0.0.1" &
swtpm_pid=$!
trap 'kill "$swtpm_pid" 2>/dev/null; wait "$swtpm_pid" 2>/dev/null; rm -rf "$state"' EXIT
for _ in $(seq 100); do
  (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && break
  sleep 0.05
done

export KESTTCS_SWTPM_PORT=$port
if [ "$1" = "--script" ]; then
  shift
  WINE="$wine" "$@"
else
  "$wine" "$@"
fi

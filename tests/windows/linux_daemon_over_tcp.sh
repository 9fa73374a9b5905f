#!/usr/bin/env bash
# The Windows client against the Linux service over ncacn_ip_tcp:
#   linux_daemon_over_tcp.sh PREFIX_DIR KESTTCSD rpc_test_client.exe
# Starts the Linux kesttcsd (-debug, the embedded TPM) in a home of its own that listens on a free
# loopback TCP port, and runs the client under Wine against 127.0.0.1 and that port. Exits 77
# (skipped) when KESTTCSD has not been built.
set -euo pipefail
daemon="$2"
client="$3"
if [ ! -x "$daemon" ]; then
  echo "SKIP: no Linux kesttcsd at $daemon (build the default preset's kesttcsd first)"
  exit 77
fi
source "$(dirname "$0")/wine_env.sh" "$1"

home=$(mktemp -d)
port=$(free_port_pair)
mkdir "$home/tpm"
printf '[LOG]\nneedLog=0\n[TPM]\nbackend=libtpms\n[RPC]\nsocket=%s\ntcp_port=%s\n' \
  "$home/KestTCS" "$port" >"$home/tcs_cfg.ini"
KESTTCS_HOME="$home" "$daemon" -debug >"$home/kesttcsd.log" 2>&1 &
daemon_pid=$!
trap 'kill "$daemon_pid" 2>/dev/null; wait "$daemon_pid" 2>/dev/null; rm -rf "$home"' EXIT
if ! wait_for_port "$port"; then
  echo "FAIL kesttcsd does not listen on 127.0.0.1:$port"
  cat "$home/kesttcsd.log"
  exit 1
fi

"$wine" "$client" tcp 127.0.0.1 "$port"

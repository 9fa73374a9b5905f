#!/usr/bin/env bash
# Runs one Windows test program under Wine against a fresh swtpm process:
#   run_under_wine.sh PREFIX_DIR PROGRAM.exe ARGS...
# The swtpm process listens on two free loopback ports; the program finds the data port in
# KESTTCS_SWTPM_PORT. Native DLLs beside the program come before Wine's own (Wine's tbs.dll finds
# no TPM).
set -euo pipefail
source "$(dirname "$0")/wine_env.sh" "$1"
shift

port=$(free_port_pair)
state=$(mktemp -d)
swtpm socket --tpmstate "dir=$state" --flags not-need-init \
  --server "type=tcp,port=$port,bindaddr=127.0.0.1" \
  --ctrl "type=tcp,port=$((port + 1)),bindaddr=127.0.0.1" &
swtpm_pid=$!
trap 'kill "$swtpm_pid" 2>/dev/null; wait "$swtpm_pid" 2>/dev/null; rm -rf "$state"' EXIT
wait_for_port "$port"

KESTTCS_SWTPM_PORT=$port "$wine" "$@"

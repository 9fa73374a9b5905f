#!/usr/bin/env bash
# Runs one Windows test program under Wine against a fresh swtpm process:
#   run_under_wine.sh PREFIX_DIR PROGRAM.exe ARGS...
#   run_under_wine.sh PREFIX_DIR --script SCRIPT ARGS...   (SCRIPT runs Wine itself, as $WINE)
# The program finds the swtpm's data port in KESTTCS_SWTPM_PORT, and a free loopback port for a
# TCP listener of its own in KESTTCS_TCP_PORT. Native DLLs beside the program come before Wine's
# own (Wine's tbs.dll finds no TPM).
set -euo pipefail
source "$(dirname "$0")/wine_env.sh" "$1"
shift
start_swtpm
export KESTTCS_TCP_PORT
KESTTCS_TCP_PORT=$(free_port_pair)
if [ "$1" = "--script" ]; then
  shift
  WINE="$wine" "$@"
else
  "$wine" "$@"
fi

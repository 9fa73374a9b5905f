#!/usr/bin/env bash
# The Windows client library and kesttcs-cli.exe against kesttcsd.exe -debug, run by
# run_under_wine.sh --script:
#   client_library_scenario.sh HOME_DIR FILE...
# Copies the FILEs (the service, tbs.dll, client_library_test.exe) into a fresh HOME_DIR, starts
# "kesttcsd.exe -debug" there on the TBS path and runs the client's checks against it.
set -euo pipefail
home="$1"
shift
source "$(dirname "$0")/debug_service.sh"
rm -rf "$home"
mkdir -p "$home"
cp "$@" "$home/"
printf '[LOG]\nneedLog=1\n' > "$home/tcs_cfg.ini"

debug_service_start "$home"
client=0
WINEDEBUG=-all "$WINE" "$home/client_library_test.exe" || client=$?
debug_service_stop
exit $client

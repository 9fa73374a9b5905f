#!/usr/bin/env bash
# kesttcsd.exe as a service under Wine:
#   service_scenario.sh PREFIX_DIR HOME_DIR FILE...
# Copies the FILEs (the service, its driver library, the client and service_host_test.exe) into a
# fresh HOME_DIR with logging on, and runs service_host_test.exe there under a Wine prefix of its
# own. The prefix's processes are ended first, so that its service manager starts with this run and
# passes Wine's debug output, the service's trace lines and event reports among it, to
# HOME_DIR/service.log.
set -euo pipefail
prefix="$1"
home="$2"
shift 2
rm -rf "$home"
mkdir -p "$home"
cp "$@" "$home/"
printf '[LOG]\nneedLog=1\n' > "$home/tcs_cfg.ini"
WINEPREFIX="$prefix" "$(command -v wineserver || echo /usr/lib/wine/wineserver)" -k 2>/dev/null || true
export KESTTCS_WINE_HELPER_LOG="$home/service.log" WINEDEBUG=-all,+debugstr,+eventlog,fixme+advapi
exec "$(dirname "$0")/run_under_wine.sh" "$prefix" "$home/service_host_test.exe" "Z:$home/service.log"

#!/usr/bin/env bash
# kesttcsd.exe as a service under Wine:
#   service_scenario.sh PREFIX_DIR LINUX_BUILD_DIR HOME_DIR FILE...
# Copies the FILEs (the service, its driver library, the clients and service_host_test.exe) into a
# fresh HOME_DIR with logging on, and runs service_host_test.exe there under a Wine prefix of its
# own. The prefix's processes are ended first, so that its service manager starts with this run and
# passes Wine's debug output, the service's trace lines and event reports among it, to
# HOME_DIR/service.log. Before that, the Linux service of LINUX_BUILD_DIR provisions the swtpm (an
# owner, the SRK, and a key blob with a usage secret for the keyed client); without that build the
# test is skipped (77).
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
if [ "$1" = "--provisioned" ]; then
  # The second half, run by run_under_wine.sh --script once the swtpm is up.
  linux="$2"
  home="$3"
  source "$here/linux_service.sh"
  linux_service_start "$linux" "$home/linux"
  printf 'a key for the Windows client' > "$home/key.phrase"
  "$linux_cli" --endpoint "$linux_endpoint" provision > /dev/null
  "$linux_cli" --endpoint "$linux_endpoint" key create --parent srk --usage sign --bits 512 \
    --auth-secret "$home/key.phrase" --out "$home/key.blob" > /dev/null
  linux_service_stop
  exec "$WINE" "$home/service_host_test.exe" "Z:$home/service.log"
fi
prefix="$1"
linux="$2"
home="$3"
shift 3
rm -rf "$home"
mkdir -p "$home"
cp "$@" "$home/"
printf '[LOG]\nneedLog=1\n' > "$home/tcs_cfg.ini"
wine=$(command -v wine64 || echo /usr/lib/wine/wine64)
wineserver=$(command -v wineserver || echo /usr/lib/wine/wineserver)
if [ ! -f "$prefix/system.reg" ]; then
  # A fresh prefix is made first and its server left to end, which saves it: its service manager
  # has been seen to start nothing while the prefix was still being set up.
  mkdir -p "$prefix"
  WINEPREFIX="$prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" "$wine" wineboot -i \
    </dev/null >/dev/null 2>&1
  WINEPREFIX="$prefix" "$wineserver" -w
fi
WINEPREFIX="$prefix" "$wineserver" -k 2>/dev/null || true
export KESTTCS_WINE_HELPER_LOG="$home/service.log" WINEDEBUG=-all,+debugstr,+eventlog,fixme+advapi
export KESTTCS_SWTPM_EK=1
exec "$here/run_under_wine.sh" "$prefix" --script "$here/service_scenario.sh" --provisioned \
  "$linux" "$home"

#!/usr/bin/env bash
# A Windows client's keyed and authorised commands against kesttcsd.exe -debug, run by
# run_under_wine.sh --script:
#   keyed_scenario.sh LINUX_BUILD_DIR HOME_DIR BACKEND FILE...
# First the Linux service, on the same swtpm, takes ownership and has kesttcs-cli make a signing
# key with a usage secret under the SRK. Then kesttcsd.exe -debug, in HOME_DIR with the FILEs (the
# service, a driver library, keyed_client.exe) and the TPM through BACKEND, serves keyed_client.exe,
# which loads the key blob and reads its public key with authorised commands. Exits 77 (skipped) without the Linux build.
set -euo pipefail
linux="$1"
home="$2"
backend="$3"
shift 3
source "$(dirname "$0")/debug_service.sh"
daemon="$linux/src/service/kesttcsd"
cli="$linux/src/tools/kesttcs-cli"
if [ ! -x "$daemon" ] || [ ! -x "$cli" ]; then
  echo "skipped: no Linux build of kesttcsd and kesttcs-cli in $linux"
  exit 77
fi
rm -rf "$home"
mkdir -p "$home/linux"
cp "$@" "$home/"

printf '[TPM]\nbackend=swtpm:tcp:127.0.0.1:%s\n[RPC]\nsocket=%s\n' "$KESTTCS_SWTPM_PORT" \
  "$home/linux/KestTCS" > "$home/linux/tcs_cfg.ini"
KESTTCS_HOME="$home/linux" "$daemon" -debug 2> "$home/linux/daemon.err" &
daemon_pid=$!
trap 'kill "$daemon_pid" 2>/dev/null || true' EXIT
for _ in $(seq 300); do
  [ -S "$home/linux/KestTCS" ] && break
  sleep 0.1
done
printf 'a key for the Windows client' > "$home/key.phrase"
"$cli" --endpoint "$home/linux/KestTCS" provision
"$cli" --endpoint "$home/linux/KestTCS" key create --parent srk --usage sign --bits 512 \
  --auth-secret "$home/key.phrase" --out "$home/key.blob"
kill -TERM "$daemon_pid"
wait "$daemon_pid"
trap - EXIT

printf '[LOG]\nneedLog=1\n[TPM]\nbackend=%s\n' "$backend" > "$home/tcs_cfg.ini"
debug_service_start "$home"
client=0
WINEDEBUG=-all "$WINE" "$home/keyed_client.exe" "Z:$home/key.blob" "Z:$home/key.phrase" ||
  client=$?
debug_service_stop
exit $client

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
source "$(dirname "$0")/linux_service.sh"
rm -rf "$home"
mkdir -p "$home"
cp "$@" "$home/"

linux_service_start "$linux" "$home/linux"
printf 'a key for the Windows client' > "$home/key.phrase"
"$linux_cli" --endpoint "$linux_endpoint" provision
"$linux_cli" --endpoint "$linux_endpoint" key create --parent srk --usage sign --bits 512 \
  --auth-secret "$home/key.phrase" --out "$home/key.blob"
linux_service_stop

printf '[LOG]\nneedLog=1\n[TPM]\nbackend=%s\n' "$backend" > "$home/tcs_cfg.ini"
debug_service_start "$home"
client=0
WINEDEBUG=-all "$WINE" "$home/keyed_client.exe" "Z:$home/key.blob" "Z:$home/key.phrase" ||
  client=$?
debug_service_stop
exit $client

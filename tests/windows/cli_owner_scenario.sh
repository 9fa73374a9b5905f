#!/usr/bin/env bash
# kesttcs-cli.exe's authorised commands against kesttcsd.exe -debug on a TPM the Linux service and
# kesttcs-cli provisioned first (owner and SRK with the well-known secrets), run by
# run_under_wine.sh --script:
#   cli_owner_scenario.sh LINUX_BUILD_DIR HOME_DIR FILE...
# The FILEs are the service, tbs.dll and kesttcs-cli.exe. Exits 77 (skipped) without the Linux
# build.
set -euo pipefail
linux="$1"
home="$2"
shift 2
source "$(dirname "$0")/debug_service.sh"
source "$(dirname "$0")/cli_checks.sh"
source "$(dirname "$0")/linux_service.sh"
rm -rf "$home"
mkdir -p "$home"
cp "$@" "$home/"

linux_service_start "$linux" "$home/linux"
"$linux_cli" --endpoint "$linux_endpoint" provision > "$home/linux/provision.out"
linux_service_stop

printf '[LOG]\nneedLog=1\n' > "$home/tcs_cfg.ini"
debug_service_start "$home"

ok=0; cli status.out status || ok=1
has status.out "Owner:         yes" || ok=1
check $ok "status: the TPM is owned"

# OSAP under the SRK, the key's secret encrypted with the shared secret, HMACs both ways: SHA-1,
# HMAC-SHA-1 and the nonces through bcrypt.
printf 'a key made on Windows' > "$home/key.phrase"
ok=0
cli create.out key create --parent srk --usage sign --bits 512 --auth-secret "Z:$home/key.phrase" \
  --out "Z:$home/key.blob" || ok=1
[ -s "$home/key.blob" ] || ok=1
check $ok "key create: a signing key under the SRK, written to its file"

ok=0; cli again.out key create --parent srk --usage sign --bits 512 --out "Z:$home/key.blob" && ok=1
has again.out "exists; use --force to replace it" || ok=1
check $ok "key create refuses to overwrite the file without --force"

finish

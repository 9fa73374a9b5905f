#!/usr/bin/env bash
# kesttcs-cli.exe's authorised commands (key create, seal and unseal, a quote written for openssl)
# against kesttcsd.exe -debug on a TPM the Linux service and kesttcs-cli provisioned first (owner
# and SRK with the well-known secrets), run by run_under_wine.sh --script:
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

# Sealing to the SRK (OSAP, the data secret sent by ADIP) and unsealing (OIAP), answers checked.
printf 'sealed on Windows' > "$home/plain.txt"
ok=0
cli seal.out seal --key srk "Z:$home/plain.txt" "Z:$home/sealed.bin" || ok=1
cli unseal.out unseal --key srk "Z:$home/sealed.bin" "Z:$home/unsealed.txt" || ok=1
cmp -s "$home/plain.txt" "$home/unsealed.txt" || ok=1
check $ok "seal and unseal with the SRK give the data back"

# A quote by a registered key without a usage secret, its public key written as PEM through
# crypt32: the files verify with the openssl command the help names.
uuid=5a5a0002-0001-0002-0304-05060708090a
ok=0
cli plain.out key create --parent srk --usage sign --bits 512 --out "Z:$home/plain.blob" || ok=1
cli register.out keys register --uuid $uuid --parent srk --blob "Z:$home/plain.blob" || ok=1
cli quote.out quote --key $uuid --pcr 16 \
  --nonce 00112233445566778899aabbccddeeff00112233 --out "Z:$home/quote" || ok=1
openssl dgst -sha1 -verify "$home/quote.pem" -signature "$home/quote.sig" "$home/quote.quoteinfo" \
  > "$home/verify.out" 2>&1 || ok=1
has verify.out "Verified OK" || ok=1
check $ok "quote --out: openssl verifies the signature with the PEM key"

finish

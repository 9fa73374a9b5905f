#!/usr/bin/env bash
# Runs KestTCS once from a fresh clone: installs the packages it needs, builds, starts
# `kesttcsd -debug` on the embedded libtpms TPM in a fresh home directory, asks it for its status and
# 16 random bytes with kesttcs-cli, and stops it with Ctrl-C (SIGINT).
#
#   scripts/run-demo.sh [PRESET]      (default: release)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
preset=${1:-release}
cd "$root"

scripts/install-deps.sh
echo "== building ($preset preset)"
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" --target kesttcsd kesttcs-cli -j2 | tail -n 1
bin="$root/build/$preset"
daemon="$bin/src/service/kesttcsd"
cli="$bin/src/tools/kesttcs-cli"

home=$(mktemp -d "${TMPDIR:-/tmp}/kesttcs-demo.XXXXXX")
socket="$home/KestTCS"
cat >"$home/tcs_cfg.ini" <<EOF_CFG
[LOG]
needLog=1
[TPM]
backend=libtpms
[RPC]
socket=$socket
EOF_CFG

echo "== starting kesttcsd -debug (home $home)"
KESTTCS_HOME="$home" "$daemon" -debug >"$home/kesttcsd.out" 2>"$home/kesttcsd.log" &
pid=$!
stop() {
  if kill -0 "$pid" 2>/dev/null; then
    kill -INT "$pid"
    wait "$pid" || true
  fi
}
trap stop EXIT

# The socket appears once the service listens; the first start also manufactures the TPM's state.
for _ in $(seq 1 600); do
  [ -S "$socket" ] && break
  if ! kill -0 "$pid" 2>/dev/null; then
    echo "kesttcsd ended during start-up:" >&2
    cat "$home/kesttcsd.log" >&2
    exit 1
  fi
  sleep 0.1
done
[ -S "$socket" ] || { echo "kesttcsd did not start listening" >&2; exit 1; }

echo "== kesttcs-cli status"
"$cli" --endpoint "$socket" status
echo "== kesttcs-cli random 16"
"$cli" --endpoint "$socket" random 16

echo "== stopping (SIGINT)"
trap - EXIT
kill -INT "$pid"
status=0
wait "$pid" || status=$?
cat "$home/kesttcsd.out"
echo "kesttcsd exited with status $status"

cat <<EOF_NEXT

Where to look next:
  trace lines of this run (needLog=1)   $home/kesttcsd.log
  hourly TPM traffic files              $home/log/
  the embedded TPM's state              $home/tpm/
  more commands (caps, pcr read, pcr extend, --json)   $cli --help
  the daemon, its configuration, systemd use           man docs/man/kesttcsd.8
EOF_NEXT
exit "$status"

#!/usr/bin/env bash
# kesttcsd.exe -debug on the console under Wine:
#   debug_scenario.sh PREFIX_DIR HOME_DIR BACKEND FILE...
# Copies the FILEs (the service, a driver library, the client) into a fresh HOME_DIR whose
# tcs_cfg.ini turns logging on and names BACKEND, starts "kesttcsd.exe -debug" there, lets the
# client run its checks against it, stops it with Ctrl-C (SIGINT) and checks the console text, the
# exit status and the trace lines (the debugger output, which Wine writes to stderr).
set -euo pipefail
prefix="$1"
home="$2"
backend="$3"
shift 3
here="$(cd "$(dirname "$0")" && pwd)"
rm -rf "$home"
mkdir -p "$home"
cp "$@" "$home/"
printf '[LOG]\nneedLog=1\n[TPM]\nbackend=%s\n' "$backend" > "$home/tcs_cfg.ini"

failures=0
check() {  # check CONDITION-STATUS TEXT
  if [ "$1" -eq 0 ]; then echo "ok   $2"; else echo "FAIL $2"; failures=$((failures + 1)); fi
}

WINEDEBUG=-all,+debugstr "$here/run_under_wine.sh" "$prefix" "$home/kesttcsd.exe" -debug \
  > "$home/console.out" 2> "$home/console.err" &
runner=$!
ready=1
for _ in $(seq 600); do
  if grep -q 'TCS:TCS service start end.' "$home/console.err" 2>/dev/null; then ready=0; break; fi
  kill -0 "$runner" 2>/dev/null || break
  sleep 0.1
done
check $ready "kesttcsd.exe -debug serves ($backend)"
if [ $ready -ne 0 ]; then cat "$home/console.out" "$home/console.err" >&2; wait "$runner" || true; exit 1; fi

client=0
WINEPREFIX="$prefix" WINEDEBUG=-all "$(command -v wine64 || echo /usr/lib/wine/wine64)" \
  "$home/rpc_test_client.exe" || client=$?
check $client "the client's checks pass"

# Ctrl-C: Wine hands SIGINT to the console's control handlers.
kill -INT "$(pgrep -f "^$home/kesttcsd.exe -debug" | head -n 1)"
status=0
wait "$runner" || status=$?
check $status "Ctrl-C ends it with exit status 0"
said=0
[ "$(tr -d '\r' < "$home/console.out")" = "Stopping Trusted Platform Core Service (KESTRON)." ] || said=1
check $said "the console says \"Stopping Trusted Platform Core Service (KESTRON).\""
in_order=0
python3 - "$home/console.err" <<'PY' || in_order=$?
import sys
text = open(sys.argv[1], errors="replace").read()
at = 0
for line in ["TCS service Starting:call RpcServerListen ok.", "TCS service start end.",
             "RecvApiCall:Tcsi_OpenContext start.", "RecvApiCall:Tcsip_Extend start",
             "TCS service Stoping ...", "TCS service Stoping:call RpcServerUnregisterIf ok.",
             "kesttcs_shutdown:closeDiskCache", "kesttcs_shutdown:req_mgr_final",
             "kesttcs_shutdown:event_log_final", "TCS service Stoping:call shutdown tpm ok."]:
    at = text.find("TCS:" + line, at)
    if at < 0:
        print("     missing trace line", line)
        sys.exit(1)
PY
check $in_order "serving and every shut-down step traced in order"
exit $failures

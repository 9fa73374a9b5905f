#!/usr/bin/env bash
# kesttcsd.exe -debug on the console under Wine, run by run_under_wine.sh --script:
#   debug_scenario.sh HOME_DIR BACKEND FILE...
# Copies the FILEs (the service, a driver library, the client) into a fresh HOME_DIR whose
# tcs_cfg.ini turns logging on and names BACKEND, starts "kesttcsd.exe -debug" there, lets the
# client run its checks against it, stops it with Ctrl-C (SIGINT) and checks the console text, the
# exit status and the trace lines (the debugger output, which Wine writes to stderr).
set -euo pipefail
home="$1"
backend="$2"
shift 2
source "$(dirname "$0")/debug_service.sh"
rm -rf "$home"
mkdir -p "$home"
cp "$@" "$home/"
printf '[LOG]\nneedLog=1\n[TPM]\nbackend=%s\n' "$backend" > "$home/tcs_cfg.ini"

failures=0
check() {  # check CONDITION-STATUS TEXT
  if [ "$1" -eq 0 ]; then echo "ok   $2"; else echo "FAIL $2"; failures=$((failures + 1)); fi
}

ready=0
debug_service_start "$home" || ready=1
check $ready "kesttcsd.exe -debug serves ($backend)"
[ $ready -eq 0 ] || exit 1

client=0
WINEDEBUG=-all "$WINE" "$home/rpc_test_client.exe" || client=$?
check $client "the client's checks pass"

second=0
WINEDEBUG=-all timeout 60 "$WINE" "$home/kesttcsd.exe" -debug > /dev/null 2> "$home/second.err" || true
grep -q "^kesttcsd: instance: kesttcsd (pid [0-9]*) is running and holds " "$home/second.err" ||
  second=1
check $second "a second kesttcsd.exe -debug on the same home is refused: $(head -n 1 "$home/second.err")"

status=0
debug_service_stop || status=$?
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

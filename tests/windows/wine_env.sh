# Sourced by the scripts that run Windows test programs under Wine: wine_env.sh PREFIX_DIR.
# Sets $wine and makes the Wine prefix PREFIX_DIR (private to the build tree) on first use: a
# persistent wineserver first, then wineboot, as a service under Wine needs. Defines
# free_port_pair, wait_for_port and start_swtpm. WINEDEBUG may be set (default -all); the prefix's
# helper processes, services included, write Wine's debug output to KESTTCS_WINE_HELPER_LOG when it
# is set and they start with this run.
prefix="$1"
wine=$(command -v wine64 || echo /usr/lib/wine/wine64)
wineserver=$(command -v wineserver || echo /usr/lib/wine/wineserver)
# No Mono or Gecko: nothing here needs them, and wineboot would try to install them.
export WINEPREFIX="$prefix" WINEDEBUG=${WINEDEBUG:--all} WINEDLLOVERRIDES="tbs=n,b;mscoree,mshtml="

mkdir -p "$prefix"
# The server stays up a minute after its last client, so the tests of one run share it. (It exits
# with 2 when one already serves the prefix.) Its output goes nowhere: ctest waits for every
# process that holds the test's output open, and Wine's helper processes inherit it too.
"$wineserver" -p60 </dev/null >/dev/null 2>&1 || true
helper_log="${KESTTCS_WINE_HELPER_LOG:-/dev/null}"
if [ ! -f "$prefix/system.reg" ]; then
  "$wine" wineboot -i </dev/null >>"$helper_log" 2>&1
else
  # Starts the prefix's helper processes (services, devices).
  "$wine" wineboot </dev/null >>"$helper_log" 2>&1
fi

free_port_pair() {
  python3 -c '
import socket
while True:
    a = socket.socket(); a.bind(("127.0.0.1", 0)); p = a.getsockname()[1]
    b = socket.socket()
    try:
        b.bind(("127.0.0.1", p + 1)); print(p); break
    except OSError:
        pass
    finally:
        a.close(); b.close()'
}

# Waits (a bounded while) until something accepts connections on loopback port $1.
wait_for_port() {
  for _ in $(seq 200); do
    (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null && return 0
    sleep 0.05
  done
  return 1
}

# Starts a fresh swtpm process on two free loopback ports, exports its data port in
# KESTTCS_SWTPM_PORT (where the test driver libraries find it), and adds its end to the EXIT trap
# commands in $on_exit. A fresh TPM has no endorsement key; KESTTCS_SWTPM_EK=1 asks for one, for a
# test that takes ownership.
on_exit=""
start_swtpm() {
  local state
  state=$(mktemp -d)
  if [ "${KESTTCS_SWTPM_EK:-0}" = 1 ]; then
    swtpm_setup --tpm-state "$state" --createek --config /dev/null >/dev/null
  fi
  export KESTTCS_SWTPM_PORT
  KESTTCS_SWTPM_PORT=$(free_port_pair)
  swtpm socket --tpmstate "dir=$state" --flags not-need-init \
    --server "type=tcp,port=$KESTTCS_SWTPM_PORT,bindaddr=127.0.0.1" \
    --ctrl "type=tcp,port=$((KESTTCS_SWTPM_PORT + 1)),bindaddr=127.0.0.1" &
  on_exit+="kill $! 2>/dev/null; wait $! 2>/dev/null; rm -rf '$state';"
  trap "$on_exit" EXIT
  wait_for_port "$KESTTCS_SWTPM_PORT"
}

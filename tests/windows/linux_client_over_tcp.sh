#!/usr/bin/env bash
# The Linux client library against the Windows server over ncacn_ip_tcp:
#   linux_client_over_tcp.sh PREFIX_DIR rpc_server_test.exe LINUX_CLIENT
# Serves the TCS interface under Wine (rpc_server_test.exe's serve mode, the TPM through tbs.dll
# and a swtpm) on a free loopback TCP port, runs LINUX_CLIENT (a Linux program of the default
# preset using libkesttcs-client) with KESTTCS_ENDPOINT=tcp:127.0.0.1:PORT, then ends the server's
# input so that it checks the run-down of what the client left open. Exits 77 (skipped) when
# LINUX_CLIENT has not been built.
set -euo pipefail
server="$2"
client="$3"
if [ ! -x "$client" ]; then
  echo "SKIP: no Linux client at $client (build the default preset's cross_host_client first)"
  exit 77
fi
source "$(dirname "$0")/wine_env.sh" "$1"
start_swtpm

work=$(mktemp -d)
on_exit="rm -rf '$work';$on_exit"
trap "$on_exit" EXIT
port=$(free_port_pair)
mkfifo "$work/input"
# The server's trace lines go to a file: under Wine, writing them to /dev/null or a pipe costs
# milliseconds a line, which would make the 8000 calls take minutes.
KESTTCS_TCP_PORT=$port "$wine" "$server" auto tbs serve <"$work/input" >"$work/server.out" \
  2>"$work/server.err" &
server_pid=$!
exec 3>"$work/input"  # the server's input stays open until the client is done

# The server says when it listens (the port accepts connections before the interface is
# registered); a bounded wait keeps a broken server from hanging the test.
for _ in $(seq 600); do
  grep -q '^serving' "$work/server.out" && break
  kill -0 "$server_pid" 2>/dev/null || break
  sleep 0.05
done
client_status=1
if grep -q '^serving' "$work/server.out"; then
  KESTTCS_ENDPOINT="tcp:127.0.0.1:$port" "$client" && client_status=0
else
  echo "FAIL the Windows server does not serve on 127.0.0.1:$port"
fi
exec 3>&-
server_status=0
wait "$server_pid" || server_status=$?
cat "$work/server.out"
if [ "$client_status" -ne 0 ] || [ "$server_status" -ne 0 ]; then
  echo "-- the server's last trace lines:"
  tail -n 20 "$work/server.err"
  exit 1
fi

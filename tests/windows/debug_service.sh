# Sourced by the scenarios that run kesttcsd.exe -debug under Wine (run_under_wine.sh --script
# gives Wine as $WINE and the swtpm's port).

# debug_service_start HOME: starts HOME/kesttcsd.exe -debug with its console output in
# HOME/console.out and the debugger output, where the trace lines go, in HOME/console.err; returns
# once it serves, or nonzero (showing both outputs) when it does not.
debug_service_start() {
  local home="$1"
  WINEDEBUG=-all,+debugstr "$WINE" "$home/kesttcsd.exe" -debug \
    > "$home/console.out" 2> "$home/console.err" &
  debug_service_pid=$!
  trap 'kill "$debug_service_pid" 2>/dev/null || true' EXIT
  for _ in $(seq 600); do
    grep -q 'TCS:TCS service start end.' "$home/console.err" 2>/dev/null && return 0
    kill -0 "$debug_service_pid" 2>/dev/null || break
    sleep 0.1
  done
  cat "$home/console.out" "$home/console.err" >&2
  return 1
}

# debug_service_stop: Ctrl-C (Wine hands SIGINT to the console's control handlers); returns the
# service's exit status.
debug_service_stop() {
  kill -INT "$debug_service_pid"
  local status=0
  wait "$debug_service_pid" || status=$?
  trap - EXIT
  return $status
}

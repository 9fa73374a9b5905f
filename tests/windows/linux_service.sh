# Sourced by the scenarios that have the Linux service prepare the swtpm (run_under_wine.sh gives its
# port) before kesttcsd.exe takes it over.

# linux_service_start LINUX_BUILD_DIR DIR: starts the Linux kesttcsd of LINUX_BUILD_DIR on the swtpm
# with its home and socket in DIR, and sets $linux_cli (its kesttcs-cli) and $linux_endpoint; exits
# 77 (skipped) when that build is missing.
linux_service_start() {
  local daemon="$1/src/service/kesttcsd"
  linux_cli="$1/src/tools/kesttcs-cli"
  linux_endpoint="$2/KestTCS"
  if [ ! -x "$daemon" ] || [ ! -x "$linux_cli" ]; then
    echo "skipped: no Linux build of kesttcsd and kesttcs-cli in $1"
    exit 77
  fi
  mkdir -p "$2"
  printf '[TPM]\nbackend=swtpm:tcp:127.0.0.1:%s\n[RPC]\nsocket=%s\n' "$KESTTCS_SWTPM_PORT" \
    "$linux_endpoint" > "$2/tcs_cfg.ini"
  KESTTCS_HOME="$2" "$daemon" -debug 2> "$2/daemon.err" &
  linux_service_pid=$!
  trap 'kill "$linux_service_pid" 2>/dev/null || true' EXIT
  for _ in $(seq 300); do
    [ -S "$linux_endpoint" ] && break
    sleep 0.1
  done
}

# linux_service_stop: stops it, so that the swtpm is free for the Windows service.
linux_service_stop() {
  kill -TERM "$linux_service_pid"
  wait "$linux_service_pid"
  trap - EXIT
}

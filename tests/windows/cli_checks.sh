# Sourced by the kesttcs-cli.exe scenarios (after debug_service.sh): the checks and the way they run
# the program in $home.

failures=0
check() {  # check CONDITION-STATUS TEXT
  if [ "$1" -eq 0 ]; then echo "ok   $2"; else echo "FAIL $2"; failures=$((failures + 1)); fi
}

# cli OUT ARGS...: runs $home/kesttcs-cli.exe with ARGS and the service's home as $home, its output
# (shown indented) in $home/OUT; returns its exit status.
cli() {
  local out="$home/$1"
  shift
  local status=0
  WINEDEBUG=-all KESTTCS_HOME="Z:$home" "$WINE" "$home/kesttcs-cli.exe" "$@" > "$out" 2>&1 ||
    status=$?
  sed 's/^/    /' "$out"
  return $status
}

has() { grep -q -- "$2" "$home/$1"; }  # has OUT TEXT

# finish: stops the service with Ctrl-C, checks that it ended well, and exits with the number of
# failed checks.
finish() {
  local status=0
  debug_service_stop || status=$?
  check $status "Ctrl-C ends the service with exit status 0"
  exit $failures
}

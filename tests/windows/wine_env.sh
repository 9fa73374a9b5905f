# Sourced by the scripts that run Windows test programs under Wine: wine_env.sh PREFIX_DIR.
# Sets $wine and makes the Wine prefix PREFIX_DIR (private to the build tree) on first use: a
# persistent wineserver first, then wineboot, as a service under Wine needs. Defines
# free_port_pair, which prints a free loopback port whose successor is free too.
prefix="$1"
wine=$(command -v wine64 || echo /usr/lib/wine/wine64)
wineserver=$(command -v wineserver || echo /usr/lib/wine/wineserver)
# No Mono or Gecko: nothing here needs them, and wineboot would try to install them.
export WINEPREFIX="$prefix" WINEDEBUG=-all WINEDLLOVERRIDES="tbs=n,b;mscoree,mshtml="

mkdir -p "$prefix"
# The server stays up a minute after its last client, so the tests of one run share it. (It exits
# with 2 when one already serves the prefix.) Its output goes nowhere: ctest waits for every
# process that holds the test's output open, and Wine's helper processes inherit it too.
"$wineserver" -p60 </dev/null >/dev/null 2>&1 || true
if [ ! -f "$prefix/system.reg" ]; then
  "$wine" wineboot -i </dev/null >/dev/null 2>&1
else
  # Starts the prefix's helper processes (services, devices) with their output going nowhere.
  "$wine" wineboot </dev/null >/dev/null 2>&1
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

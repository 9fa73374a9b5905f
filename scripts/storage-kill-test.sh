#!/usr/bin/env bash
# Kills kesttcsd with SIGKILL at random moments during 1000 register/unregister calls (ctest runs
# the same test with 200) and checks after every restart that each acknowledged change survived.
# Usage: scripts/storage-kill-test.sh [CALLS [SEED]]   (builds the default preset's test first)
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset default >/dev/null
cmake --build --preset default --target storage_kill_test kesttcsd kesttcs-cli
KESTTCS_KILL_TEST_CALLS="${1:-1000}" ${2:+KESTTCS_KILL_TEST_SEED="$2"} \
  build/default/tests/integration/storage_kill_test

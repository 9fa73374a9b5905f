#!/usr/bin/env bash
# Soak of power handling: kesttcsd behind a mocked logind and a swtpm, 100 sleep/resume cycles (the
# swtpm reset during each) while 8 clients run GetRandom, PCR reads and GetPubKey on a key loaded
# before the first sleep (the TPM loses it in each). It prints the calls, errors and time. CI does
# not run it; the suite runs the same test with a few cycles.
# Usage: scripts/power-soak.sh [cycles] [clients]
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --build --preset default --target power_logind_test kesttcsd kesttcs-cli
KESTTCS_POWER_CYCLES="${1:-100}" KESTTCS_POWER_CLIENTS="${2:-8}" \
  build/default/tests/integration/power_logind_test --gtest_filter='*ClientsRunThroughSleepCycles*'

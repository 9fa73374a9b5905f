#!/usr/bin/env bash
# Installs what is missing, configures, builds and runs every test of one preset (default: debug).
# Usage: scripts/test.sh [PRESET]
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-default}"
scripts/install-deps.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
ctest --preset "$preset"

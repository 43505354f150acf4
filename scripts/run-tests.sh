#!/usr/bin/env bash
# Builds everything (installing what it needs) and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default
ctest --preset default "$@"

#!/usr/bin/env bash
# Builds the station (installing what it needs) and starts it from its station folder.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default --target quorvel_station_folder
exec build/default/station/quorvel "$@"

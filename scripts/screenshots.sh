#!/usr/bin/env bash
# Renders the console's two views at 1366 x 768 on the offscreen platform into docs/
# (the README's pictures): the slot list and the bench view, mid-shift.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset default >/dev/null
cmake --build --preset default --target console_layout_test
QT_QPA_PLATFORM=offscreen QUORVEL_SCREENSHOT_DIR="$PWD/docs" build/default/tests/console_layout_test >/dev/null
ls -l docs/console-list.png docs/console-bench.png

#!/usr/bin/env bash
# Builds the coverage preset, runs the tests and prints the line coverage of src/.
# Arguments go to ctest (for example -L unit). Old counters are cleared first so the
# figure belongs to this run alone.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset coverage >/dev/null
cmake --build --preset coverage
find build/coverage -name '*.gcda' -delete
# A failing test still leaves its counters: report them, then exit with ctest's status.
status=0
ctest --preset coverage "$@" || status=$?
# Worker threads race on the counters: gcov may print a negative count, which would
# stop gcovr.
gcovr --root . --object-directory build/coverage --filter 'src/' \
  --exclude-unreachable-branches --gcov-ignore-parse-errors --print-summary \
  --txt build/coverage/coverage.txt --html-details build/coverage/coverage.html
echo "coverage: per-file figures in build/coverage/coverage.txt and coverage.html"
exit "$status"

#!/usr/bin/env bash
# clang-tidy (.clang-tidy) over every source file of the clang preset's build, from its
# compile_commands.json: scripts/tidy.sh [path regex...] (default: all of them).
# Prints each finding once, then a count per check; exits 1 on any finding.
set -euo pipefail
cd "$(dirname "$0")/.."
command -v run-clang-tidy >/dev/null || { echo "tidy: run-clang-tidy is missing (scripts/setup.sh)" >&2; exit 2; }
cmake --preset clang >/dev/null

log="$(mktemp)"
trap 'rm -f "$log"' EXIT
status=0
run-clang-tidy -quiet -j "${TIDY_JOBS:-$(nproc)}" -p build/clang "$@" >"$log" 2>&1 || status=$?

# A header's finding comes once per file that includes it.
findings="$(sed 's/\x1b\[[0-9;]*m//g' "$log" | grep -E '^/.*:[0-9]+:[0-9]+: (warning|error): ' \
  | sed "s|^$PWD/||" | sort -u || true)"
if [ -n "$findings" ]; then
  printf '%s\n' "$findings"
  echo "tidy: findings by check:"
  sed -nE 's/.*\[([a-z0-9.,-]+)\]$/\1/p' <<<"$findings" | sort | uniq -c | sort -rn
  exit 1
fi
if [ "$status" -ne 0 ]; then
  tail -n 40 "$log" >&2
  echo "tidy: clang-tidy failed (exit $status)" >&2
  exit 2
fi
echo "tidy: clean"

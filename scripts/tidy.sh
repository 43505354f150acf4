#!/usr/bin/env bash
# clang-tidy (.clang-tidy) over the core, src/ but src/qt plus tools/, from the clang
# preset's compile_commands.json: scripts/tidy.sh [-jN] [path regex...]. A regex picks other
# files of that build (tests/, bench/); the headers the files include are checked with them.
# Prints each finding once, then a count per check; exits 1 on any finding, 2 when
# clang-tidy itself cannot run.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs="${TIDY_JOBS:-2}"
if [[ "${1:-}" =~ ^-j([0-9]+)$ ]]; then
  jobs="${BASH_REMATCH[1]}"
  shift
fi
command -v run-clang-tidy >/dev/null || { echo "tidy: run-clang-tidy is missing (scripts/setup.sh)" >&2; exit 2; }
cmake --preset clang >/dev/null
[ "$#" -gt 0 ] || set -- "^$PWD/(src/(?!qt/)|tools/)"

log="$(mktemp)"
trap 'rm -f "$log"' EXIT
status=0
start=$SECONDS
run-clang-tidy -quiet -j "$jobs" -p build/clang "$@" >"$log" 2>&1 || status=$?

# A header's finding comes once per file that includes it.
findings="$(sed 's/\x1b\[[0-9;]*m//g' "$log" | grep -E '^/.*:[0-9]+:[0-9]+: (warning|error): ' \
  | sed "s|^$PWD/||" | sort -u || true)"
if [ -n "$findings" ]; then
  printf '%s\n' "$findings"
  echo "tidy: $(wc -l <<<"$findings") findings by check:"
  sed -nE 's/.*\[([a-z0-9.,-]+)\]$/\1/p' <<<"$findings" | sort | uniq -c | sort -rn
  exit 1
fi
if [ "$status" -ne 0 ]; then
  tail -n 40 "$log" >&2
  echo "tidy: clang-tidy failed (exit $status)" >&2
  exit 2
fi
echo "tidy: clean ($((SECONDS - start)) s)"

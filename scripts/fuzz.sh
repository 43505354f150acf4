#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer) and runs each over its seed
# corpus for a bounded time: scripts/fuzz.sh [seconds per target, default 60].
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
scripts/setup.sh
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz
for src in fuzz/*.cpp; do
  name="$(basename "$src" .cpp)"
  corpus="fuzz/corpus/$name"
  work="$(mktemp -d)"
  [ -d "$corpus" ] && cp -r "$corpus/." "$work/"
  echo "fuzz: $name for ${seconds}s"
  status=0
  "build/fuzz/fuzz/$name" -max_total_time="$seconds" -detect_leaks=1 -artifact_prefix="$work/" \
    "$work" >"$work.log" 2>&1 || status=$?
  grep -E "^Done" "$work.log" || true
  if [ "$status" -ne 0 ]; then
    tail -n 40 "$work.log" >&2
    echo "fuzz: $name found a fault (input kept in $work)" >&2
    exit 1
  fi
  rm -f "$work.log"
  rm -rf "$work"
done
echo "fuzz: all targets ran without a finding"

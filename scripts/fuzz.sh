#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer, the whole core instrumented) and
# runs each over its seed corpus for a bounded time: scripts/fuzz.sh [seconds per target,
# default 45]. Prints each target's executions, coverage (edges) and features.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-45}"
# Targets that write files write them to memory where it can be had.
if [ -z "${TMPDIR:-}" ] && [ -d /dev/shm ] && [ -w /dev/shm ]; then export TMPDIR=/dev/shm; fi
scripts/setup.sh
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz
printf '%-16s %12s %8s %8s %10s\n' target executions cov ft exec/s
for src in fuzz/*.cpp; do
  name="$(basename "$src" .cpp)"
  corpus="fuzz/corpus/$name"
  work="$(mktemp -d)"
  [ -d "$corpus" ] && cp -r "$corpus/." "$work/"
  status=0
  "build/fuzz/fuzz/$name" -max_total_time="$seconds" -detect_leaks=1 -print_final_stats=1 \
    -artifact_prefix="$work/" "$work" >"$work.log" 2>&1 || status=$?
  if [ "$status" -ne 0 ]; then
    tail -n 40 "$work.log" >&2
    echo "fuzz: $name found a fault (input kept in $work)" >&2
    exit 1
  fi
  # The last status line carries cov: and ft:; the final stats the executions.
  last="$(grep -E '^#[0-9]+.*cov: ' "$work.log" | tail -n 1)"
  cov="$(sed -nE 's/.* cov: ([0-9]+).*/\1/p' <<<"$last")"
  ft="$(sed -nE 's/.* ft: ([0-9]+).*/\1/p' <<<"$last")"
  runs="$(sed -nE 's/^stat::number_of_executed_units: *([0-9]+).*/\1/p' "$work.log" | tail -n 1)"
  rate="$(sed -nE 's/^stat::average_exec_per_sec: *([0-9]+).*/\1/p' "$work.log" | tail -n 1)"
  printf '%-16s %12s %8s %8s %10s\n' "$name" "${runs:-?}" "${cov:-?}" "${ft:-?}" "${rate:-?}"
  rm -f "$work.log"
  rm -rf "$work"
done
echo "fuzz: all targets ran without a finding"

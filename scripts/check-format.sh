#!/usr/bin/env bash
# Lists every C++ file under src/ tests/ tools/ bench/ fuzz/ that clang-format
# (.clang-format) would change and exits 1 if there is one; --fix rewrites them instead.
set -euo pipefail
cd "$(dirname "$0")/.."

fix=0
case "${1:-}" in
  --fix) fix=1 ;;
  "") ;;
  *) echo "usage: $0 [--fix]" >&2; exit 2 ;;
esac
command -v clang-format >/dev/null || { echo "check-format: clang-format is missing (scripts/setup.sh)" >&2; exit 2; }
clang-format --style=file --dump-config >/dev/null  # a broken .clang-format fails here, not silently below

mapfile -d '' files < <(find src tests tools bench fuzz -type f \( -name '*.cpp' -o -name '*.h' \) -print0 | sort -z)
if [ "$fix" -eq 1 ]; then
  printf '%s\0' "${files[@]}" | xargs -0 -n 50 clang-format -i
  exit 0
fi

# One clang-format run for all files; each change it would make is a warning naming its file.
mapfile -t bad < <(printf '%s\0' "${files[@]}" | xargs -0 clang-format --dry-run 2>&1 \
  | sed -n 's/^\(.*\):[0-9]*:[0-9]*: warning: code should be clang-formatted.*/\1/p' | sort -u)
if [ ${#bad[@]} -gt 0 ]; then
  printf '%s\n' "${bad[@]}"
  echo "check-format: ${#bad[@]} of ${#files[@]} files are not formatted (scripts/check-format.sh --fix)" >&2
  exit 1
fi
echo "check-format: ${#files[@]} files formatted"

#!/usr/bin/env bash
# Runs shellcheck on every shell script of the tree: *.sh files and any file whose first
# line starts a shell (.ci/run, the packaging scripts). Exits non-zero on any finding.
set -euo pipefail
cd "$(dirname "$0")/.."
command -v shellcheck >/dev/null || { echo "check-shell: shellcheck is missing (scripts/setup.sh)" >&2; exit 2; }

scripts=()
while IFS= read -r -d '' f; do
  first=""
  IFS= read -r first <"$f" || true
  if [[ $f == *.sh || $first =~ ^#!.*[/\ ](ba|da)?sh( |$) ]]; then
    scripts+=("$f")
  fi
done < <(find . \( -name .git -o -name build -o -name corpus \) -prune -o -type f -print0 | sort -z)

# -x: follow the files a script sources; -S style: every finding down to style counts.
shellcheck -x -S style "${scripts[@]}"
echo "check-shell: ${#scripts[@]} scripts clean"

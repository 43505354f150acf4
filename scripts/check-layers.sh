#!/usr/bin/env bash
# Each folder of src/ may include its own headers and those of the folders before it in
# this order, never those after it: a newcomer reads the core from the top down.
set -euo pipefail
cd "$(dirname "$0")/../src"

order=(platform history engines station packages engines/program slots devices sim present report console qt)

rank() {
    local i
    for i in "${!order[@]}"; do
        if [ "${order[$i]}" = "$1" ]; then echo "$i"; return; fi
    done
    echo -1
}

status=0
while IFS= read -r file; do
    folder=$(dirname "$file")
    case "$folder" in
        qt/*) folder=qt ;;
        engines/sprd)
            # The native engine's own library stands apart from the station.
            if grep -o '#include "[a-z/]*/[A-Za-z]*\.h"' "$file" | grep -v '"platform/\|"engines/sprd/' >/dev/null; then
                echo "$file: engines/sprd may include only platform/ and itself"; status=1
            fi
            continue ;;
    esac
    own=$(rank "$folder")
    if [ "$own" -lt 0 ]; then echo "$file: folder $folder is not in the layer order"; status=1; continue; fi
    while IFS= read -r inc; do
        dep=$(dirname "$inc")
        case "$dep" in .) continue ;; qt/*) dep=qt ;; esac
        r=$(rank "$dep")
        if [ "$r" -gt "$own" ] || [ "$r" -lt 0 ]; then
            echo "$file includes $inc: $dep comes after $folder"; status=1
        fi
    done < <(grep -o '#include "[^"]*"' "$file" | sed 's/#include "//; s/"$//')
done < <(find . -name '*.h' -o -name '*.cpp' | sed 's#^\./##' | sort)
exit "$status"

#!/usr/bin/env bash
# Prints a bench scenario of a shift: SOCKETS sockets (up to 16) each flash phone after
# phone for SHIFT_MS of simulated time, about one phone in eight failing; the station
# closes at END_MS (default: the shift's end).
# Usage: shift_scenario.sh SHIFT_MS [SOCKETS] [END_MS]
set -euo pipefail
shift_ms=$1
sockets=${2:-16}
end_ms=${3:-$shift_ms}
echo "0 set package scatter"
echo "0 set [BENCH] Hubs 2"
echo "0 set [BENCH] SocketsPerHub 8"
echo "0 press"
awk -v shift="$shift_ms" -v sockets="$sockets" 'BEGIN {
    n = 0
    for (s = 0; s < sockets; s++) {
        for (t = 200 + s * 150; t + 9000 < shift; t += 9500) {
            fail = (n++ % 8 == 7) ? " fail step=3" : ""
            printf "%d plug %d brom%s duration=4000\n", t, s, fail
            printf "%d unplug %d\n", t + 9000, s
        }
    }
}' | sort -n -s -k1,1
echo "$end_ms end"

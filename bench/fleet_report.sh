#!/usr/bin/env bash
# Three headless stations of sixteen simulated slots each report to one mosquitto on
# loopback through an accelerated shift. Prints, per station, the delay from a job's
# history line to the broker's acknowledgement (p50, p99), the CPU the station used with
# reporting on and off, and how long the outbox took to catch up after a broker outage
# of five shift minutes.
#
# Usage: bench/fleet_report.sh [--build DIR] [--minutes N] [--speed N] [--stations N]
#                              [--port P] [--ws-port P] [--keep]
#   --keep  run the shift once with reporting (give --minutes as long as the page should
#           watch), then leave the broker, with a WebSockets listener for the fleet page
#           on --ws-port, running with its retained state until Ctrl-C; nothing is measured.
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
build=$here/build/default
minutes=10
speed=20
stations=3
port=18883
ws_port=19001
keep=0
while [ $# -gt 0 ]; do
  case "$1" in
    --build) build=$2; shift 2 ;;
    --minutes) minutes=$2; shift 2 ;;
    --speed) speed=$2; shift 2 ;;
    --stations) stations=$2; shift 2 ;;
    --port) port=$2; shift 2 ;;
    --ws-port) ws_port=$2; shift 2 ;;
    --keep) keep=1; shift ;;
    *) echo "fleet_report: unknown option $1" >&2; exit 2 ;;
  esac
done
bench=$build/tools/quorvel-bench/quorvel-bench
[ -x "$bench" ] || { echo "fleet_report: build quorvel-bench first ($bench)" >&2; exit 2; }
command -v mosquitto >/dev/null || PATH=$PATH:/usr/sbin
command -v mosquitto >/dev/null || { echo "fleet_report: mosquitto is missing (scripts/setup.sh)" >&2; exit 2; }

work=$(mktemp -d /tmp/fleet_report.XXXXXX)
pids=()
broker_pid=""
cleanup() {
  for p in "${pids[@]}" $broker_pid; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
trap "exit 130" INT TERM

start_broker() {
  cat > "$work/mosquitto.conf" <<CONF
listener $port 127.0.0.1
listener $ws_port 127.0.0.1
protocol websockets
allow_anonymous true
persistence false
CONF
  mosquitto -c "$work/mosquitto.conf" >>"$work/broker.log" 2>&1 &
  broker_pid=$!
  for _ in $(seq 100); do
    (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && return 0
    sleep 0.05
  done
  echo "fleet_report: the broker did not start (see $work/broker.log)" >&2
  exit 1
}

shift_ms=$((minutes * 60000))
# The automatic bench; the simulated MTK sockets serve one phone each per start, so the
# station restarts every 30 shift seconds (a reconnection to the broker each time).
shift_scenario() {
  local end=$1 t
  printf '0 set package scatter\n0 set [BENCH] Hubs 2\n0 set [BENCH] SocketsPerHub 8\n0 press\n0 auto brom\n'
  for ((t = 30000; t < end; t += 30000)); do printf '%d restart\n%d press\n%d auto brom\n' "$t" "$t" "$t"; done
  echo "$end end"
}
shift_scenario "$shift_ms" > "$work/shift.txt"
# The outage's shift stays open a minute of real time longer, so the station, whose
# reconnection backs off in real time, finds the broker back and the outbox catches up.
shift_scenario $((shift_ms + 60000 * speed)) > "$work/outage.txt"

# A fresh station folder; reporting to the broker unless $2 is "off".
make_station() {
  local dir=$work/$1
  rm -rf "$dir"
  cp -r "$here/station-template" "$dir"
  sed -i 's/^Simulated=.*/Simulated=1/; s/^Auto=.*/Auto=0/; s/^NativeSprd=.*/NativeSprd=0/' "$dir/Config/CommonSetting.ini"
  if [ "$2" != off ]; then
    printf '\n[REPORT]\nBroker=mqtt://127.0.0.1:%s\nStation=%s\n' "$port" "$1" >> "$dir/Config/CommonSetting.ini"
  fi
}

# Runs every station through the shift at once; their outputs go to $work/<name>.out.
run_shift() {
  local mode=$1 scenario=${2:-shift} i
  pids=()
  for i in $(seq "$stations"); do
    make_station "bench-$i" "$mode"
    "$bench" "$work/bench-$i" "$work/$scenario.txt" --speed "$speed" > "$work/bench-$i.$mode.out" 2>&1 &
    pids+=($!)
  done
}

wait_stations() {
  local p
  for p in "${pids[@]}"; do wait "$p" || true; done
  pids=()
}

cpu_ms() { sed -n 's/^station: \([0-9]*\) ms CPU.*/\1/p' "$1"; }
jobs_of() { cat "$work/$1"/TestLog/*.jsonl 2>/dev/null | wc -l; }

start_broker
echo "fleet_report: $stations stations x 16 slots, $minutes shift minutes at ${speed}x"

declare -A cpu_off
declare -A jobs_off
if [ "$keep" = 0 ]; then
  run_shift off
  wait_stations
  for i in $(seq "$stations"); do
    cpu_off[$i]=$(cpu_ms "$work/bench-$i.off.out")
    jobs_off[$i]=$(jobs_of "bench-$i")
  done
fi

run_shift on
if [ "$keep" = 1 ]; then
  echo "fleet_report: broker mqtt://127.0.0.1:$port, ws://127.0.0.1:$ws_port; stations in $work (Ctrl-C ends)"
  wait_stations
  echo "fleet_report: the shift ended; the broker keeps the retained state (Ctrl-C ends)"
  wait "$broker_pid"
  exit 0
fi
wait_stations
for i in $(seq "$stations"); do
  on=$(cpu_ms "$work/bench-$i.on.out")
  # One line per start: the median of their p50s, the highest of their p99s.
  grep -ah "acknowledgement: p50" "$work/bench-$i"/*UILog.txt |
    sed -E 's/.*p50 ([0-9.]+) ms, p99 ([0-9.]+) ms.*/\1 \2/' > "$work/delays"
  delays=$(sort -n "$work/delays" | awk '{ p50[NR] = $1 } END { printf "p50 %.1f ms", p50[int((NR + 1) / 2)] }')
  delays="$delays, $(sort -n -k2 "$work/delays" | tail -1 | awk '{ printf "p99 %.1f ms", $2 }')"
  delays="$delays ($(wc -l < "$work/delays") starts)"
  echo "bench-$i: $(jobs_of "bench-$i") jobs; delay $delays; CPU ${cpu_off[$i]} ms off" \
    "(${jobs_off[$i]} jobs), $on ms on (+$((on - cpu_off[$i])) ms)"
done

# The outage: the broker is away for five shift minutes while the stations work.
outage_real=$(awk -v s="$speed" 'BEGIN { printf "%.2f", 300 / s }')
run_shift outage outage
sleep "$(awk -v s="$speed" 'BEGIN { printf "%.2f", 60 / s }')"
kill "$broker_pid"; wait "$broker_pid" 2>/dev/null || true
sleep "$outage_real"
start_broker
wait_stations
for i in $(seq "$stations"); do
  line=$(grep -ah "caught up" "$work/bench-$i"/*UILog.txt | tail -1 || true)
  echo "bench-$i after a ${outage_real} s (5 shift minutes) outage: ${line#*reporting: }" \
    "(after the broker's return the station reconnects within its 1..60 s back-off)"
done

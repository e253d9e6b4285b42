#!/usr/bin/env bash
# Wall time of one command-line DTC read, as a user meets it: starts the local
# stack (PKI, broker, ECU simulator, agent) as the demo does, runs
# `uozctl dtc read engine` RUNS times (default 50) after a warm-up, and prints
# the minimum, median and maximum in milliseconds. Beside it, as the floor of
# any command-line MQTT client over TLS, the same for one mosquitto_pub of a
# message with the same identity (package mosquitto-clients; skipped without
# it). Everything started here is stopped on exit.
#   scripts/bench-cli.sh [build-dir] [runs]
set -euo pipefail
build=${1:-build}
runs=${2:-50}
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bin() { echo "$root/$build/tools/$1/$1"; }
for tool in uoz-pki uoz-ecusim uoz-agent uozctl; do
  [ -x "$(bin $tool)" ] || { echo "bench-cli: $(bin $tool) is missing: build first" >&2; exit 1; }
done
mosquitto=$(command -v mosquitto || echo /usr/sbin/mosquitto)

work=$(mktemp -d /tmp/uoz-bench-cli-XXXXXX)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT

accepting() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
free_port() {
  local port=$((20000 + RANDOM % 20000))
  while accepting "$port"; do port=$((20000 + RANDOM % 20000)); done
  echo "$port"
}
# Waits up to 5 s for a text in a log file.
await() {
  for _ in $(seq 100); do grep -qs "$2" "$1" && return 0; sleep 0.05; done
  echo "bench-cli: '$2' never appeared:" >&2; cat "$1" >&2; exit 1
}

port=$(free_port)
doip_port=$(free_port)
"$(bin uoz-pki)" init --dir "$work/pki" >/dev/null
"$(bin uoz-pki)" node --dir "$work/pki" --id app --ua /uoz/app >/dev/null
"$(bin uoz-pki)" node --dir "$work/pki" --id agent --ua /ZDATA/UDS --group policy-agent >/dev/null
"$(bin uoz-pki)" broker-config --dir "$work/pki" --port "$port" >/dev/null
"$mosquitto" -c "$work/pki/mosquitto.conf" >"$work/mosquitto.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do accepting "$port" && break; sleep 0.05; done
"$(bin uoz-ecusim)" --listen "127.0.0.1:$doip_port" >"$work/ecusim.log" 2>&1 &
pids+=($!)
await "$work/ecusim.log" "listening on"
"$(bin uoz-agent)" --broker "localhost:$port" --certs "$work/pki/agent" \
  --gateway "127.0.0.1:$doip_port" --doip-port "$doip_port" --ecu-config examples/ecus.json \
  >"$work/agent.log" 2>&1 &
pids+=($!)
await "$work/agent.log" "uoz-agent ready"

uozctl=("$(bin uozctl)" --broker "localhost:$port" --certs "$work/pki/app"
  --config examples/ecus.json dtc read engine)
"${uozctl[@]}" >/dev/null 2>&1 || { echo "bench-cli: the read failed:" >&2; "${uozctl[@]}" >&2; exit 1; }

# EPOCHREALTIME is read without a fork, so a figure holds only the command;
# without its dot it counts microseconds. Prints one line for `title`.
time_runs() {
  local title=$1 start end
  shift
  local micros=()
  for _ in $(seq "$runs"); do
    start=${EPOCHREALTIME/./}
    "$@" >/dev/null 2>&1
    end=${EPOCHREALTIME/./}
    micros+=($((end - start)))
  done
  printf '%s\n' "${micros[@]}" | sort -n | awk -v runs="$runs" -v cores="$(nproc)" \
    -v load="$(cut -d' ' -f1-3 /proc/loadavg)" -v title="$title" '
    { v[NR] = $1 / 1000 }
    END {
      median = (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
      printf "%s, %d runs (%d cores, load %s): min %.1f / median %.1f / max %.1f ms\n",
        title, runs, cores, load, v[1], median, v[NR]
    }'
}

time_runs "uozctl dtc read engine" "${uozctl[@]}"
if command -v mosquitto_pub >/dev/null; then
  pki=$work/pki
  publish=(mosquitto_pub -V 5 -h localhost -p "$port" --cafile "$pki/ca/ca.pem"
    --cert "$pki/app/cert.pem" --key "$pki/app/private.pem" -t kt5/bench -m x)
  "${publish[@]}" >/dev/null 2>&1 || { echo "bench-cli: mosquitto_pub failed:" >&2; "${publish[@]}" >&2; exit 1; }
  time_runs "mosquitto_pub of one message over TLS" "${publish[@]}"
fi

#!/usr/bin/env bash
# The demo: a PKI in a scratch folder, a local broker, the ECU simulator (a
# DoIP entity with the vehicle's ECUs), the agent that asks it over DoIP, and
# a short uozctl session. Everything started here is stopped on exit, also
# when interrupted.
set -euo pipefail
build=${1:-build}
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
case $build in /*) ;; *) build=$root/$build ;; esac
bin() { echo "$build/tools/$1/$1"; }
for tool in uoz-pki uoz-ecusim uoz-agent uozctl; do
  [ -x "$(bin $tool)" ] || { echo "demo: $(bin $tool) is missing: run 'make demo'" >&2; exit 1; }
done
mosquitto=$(command -v mosquitto || echo /usr/sbin/mosquitto)

work=$(mktemp -d /tmp/uoz-demo-XXXXXX)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT
trap 'echo; echo "demo: interrupted"; exit 130' INT TERM

accepting() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
port=$((20000 + RANDOM % 20000))
while accepting "$port"; do port=$((20000 + RANDOM % 20000)); done
doip_port=$((20000 + RANDOM % 20000))
while [ "$doip_port" = "$port" ] || accepting "$doip_port"; do doip_port=$((20000 + RANDOM % 20000)); done

# Bold headings only on a terminal that allows colour.
if [ -t 1 ] && [ -z "${NO_COLOR:-}" ] && [ "${TERM:-}" != dumb ]; then
  heading() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
else
  heading() { printf '\n== %s\n' "$*"; }
fi

heading "Certificates for a CA, the broker, the application and the agent ($work/pki)"
"$(bin uoz-pki)" init --dir "$work/pki"
"$(bin uoz-pki)" node --dir "$work/pki" --id app --ua /uoz/app
"$(bin uoz-pki)" node --dir "$work/pki" --id agent --ua /ZDATA/UDS --group policy-agent
"$(bin uoz-pki)" broker-config --dir "$work/pki" --port "$port"

heading "Broker on 127.0.0.1:$port, ECU simulator on 127.0.0.1:$doip_port, and the agent"
"$mosquitto" -c "$work/pki/mosquitto.conf" >"$work/mosquitto.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do accepting "$port" && break; sleep 0.05; done
accepting "$port" || { echo "demo: the broker did not start:"; cat "$work/mosquitto.log"; exit 1; }
"$(bin uoz-ecusim)" --listen "127.0.0.1:$doip_port" --trace >"$work/ecusim.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do grep -qs "listening on" "$work/ecusim.log" && break; sleep 0.05; done
grep -q "listening on" "$work/ecusim.log" || { echo "demo: the simulator did not start:"; cat "$work/ecusim.log"; exit 1; }
# CAN and IOC ECUs are reached through the simulator's gateway by logical
# address, as a vehicle's central gateway exposes them; the telematics ECU is
# a DoIP ECU of its own at "gw-ip" 127.0.0.1.
"$(bin uoz-agent)" --broker "localhost:$port" --certs "$work/pki/agent" --debug 2 --trace \
  --gateway "127.0.0.1:$doip_port" --doip-port "$doip_port" --ecu-config examples/ecus.json \
  >"$work/agent.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do grep -qs "uoz-agent ready" "$work/agent.log" && break; sleep 0.05; done
grep -q "uoz-agent ready" "$work/agent.log" || { echo "demo: the agent did not connect:"; cat "$work/agent.log"; exit 1; }
echo "broker, simulator and agent running"

uozctl=("$(bin uozctl)" --broker "localhost:$port" --certs "$work/pki/app" --config examples/ecus.json)
step() {
  local title=$1; shift
  heading "$title"
  echo "\$ uozctl $*"
  "${uozctl[@]}" "$@"
}
# A step that fails on purpose: its exit code is shown, the demo goes on.
failing_step() {
  local title=$1; shift
  heading "$title"
  echo "\$ uozctl $*"
  local rc=0
  "${uozctl[@]}" "$@" || rc=$?
  echo "(uozctl exit code $rc, as expected)"
}
traced() { grep "^trace $1" "$work/agent.log" | tail -n 1; }

step "The configured ECUs" ecus
step "DTCs of the engine" dtc read engine
heading "The road of that read: uozctl -> broker -> agent -> DoIP gateway -> engine (a CAN ECU)"
echo "The query as the agent received it from the broker (the sender is the app's identity):"
grep -o '/uoz/app {.*"subfunction".*' "$work/agent.log" | tail -n 1
echo "The engine is a CAN ECU in examples/ecus.json; this machine has no CAN, so the agent"
echo "reaches it as a vehicle's central gateway exposes it: over DoIP, by its logical address"
echo "0x07E0 (--gateway). The agent's trace of the UDS request and the ECU's answer:"
traced "engine"
step "DTCs of every CAN and IOC ECU at once (asked in parallel through the gateway)" dtc read all
step "Extended data of the engine's P0301" dtc read engine --report 0x06 --dtc 0x030100 --record 0xFF
step "Version of the engine (ReadDataByIdentifier 0xF189 and 0xF191)" version engine
failing_step "On purpose: the transmission's version is described for J1939, which DoIP cannot carry" version transmission
step "Clear the engine's DTCs" dtc clear engine
step "DTCs of the engine after clearing" dtc read engine
step "A remote command document (pre-defined routine ReadVIN)" run examples/remote-command.json
vin_hex=$(grep -o '62F190[0-9A-F]*' "$work/agent.log" | tail -n 1 | cut -c7-)
[ -n "$vin_hex" ] && echo "62 F190 is the answer to ReadDataByIdentifier 0xF190; its data is the VIN: $(printf "$(echo "$vin_hex" | sed 's/../\\x&/g')")"
step "Download consent for a campaign" consent download CAMPAIGN-2026-11
step "The same read, as JSON for scripts" --json dtc read body

heading "Done: everything started by the demo is stopped"

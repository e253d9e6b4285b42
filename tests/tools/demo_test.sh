#!/usr/bin/env bash
# The demo as `make demo` runs it, off a terminal with NO_COLOR: no colour
# codes, and it tells what a newcomer needs to read its output (the road of
# a read through the broker and the gateway, the VIN decoded).
set -euo pipefail
build=$1 source=$2
output=$(cd "$source" && NO_COLOR=1 timeout 120 ./scripts/demo.sh "$build" 2>&1) || {
  echo "$output"; echo "demo: failed"; exit 1; }
fail() { echo "$output"; echo "demo: $*"; exit 1; }
! grep -q $'\x1b' <<< "$output" || fail "colour codes with NO_COLOR"
for text in \
    "== The road of that read: uozctl -> broker -> agent -> DoIP gateway -> engine (a CAN ECU)" \
    '/uoz/app { "type": "zelko.skyharbor-query"' \
    "reaches it as a vehicle's central gateway exposes it: over DoIP, by its logical address" \
    "trace engine (0x7E0): 1902FF -> 5902FF" \
    "its data is the VIN: WZL00000000000001" \
    "== Done: everything started by the demo is stopped"; do
  grep -qF -- "$text" <<< "$output" || fail "no line with: $text"
done
echo "demo ran: plain text, the road of a read, the VIN"

#!/usr/bin/env bash
# Runs every command block of docs/quickstart.md as written, with the tools
# installed in a temporary prefix; only the two port lines are given free ports.
set -euo pipefail
build=$1 source=$2
work=$(mktemp -d /tmp/uoz-quickstart-XXXXXX)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
script=$work/quickstart.sh
{
  # Whatever happens, the background processes of the quick start end with it.
  echo 'trap '\''kill $(jobs -p) 2>/dev/null || true'\'' EXIT'
  awk '/^```sh$/ {inside=1; next} /^```$/ {inside=0} inside' "$source/docs/quickstart.md"
} > "$script"
grep -q '^port=8883$' "$script" || { echo "quickstart: no 'port=8883' line"; exit 1; }
grep -q '^doip_port=13400$' "$script" || { echo "quickstart: no 'doip_port=13400' line"; exit 1; }
doip_port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
sed -i -e "s/^port=8883\$/port=$port/" -e "s/^doip_port=13400\$/doip_port=$doip_port/" "$script"
output=$(HOME=$work PATH="$work/prefix/bin:$PATH" timeout 60 bash -euo pipefail "$script" 2>&1) || {
  echo "the quick start failed:"; echo "$output"; exit 1; }
for expected in "uozctl " "entry 0 engine: loaded" "engine (0x7E0)" "P0301-00" "engine (0x7E0): " \
                "created node" "reload the broker"; do
  grep -qF "$expected" <<<"$output" || { echo "quickstart output lacks '$expected':"; echo "$output"; exit 1; }
done
python3 -c 'import json, sys; json.load(open(sys.argv[1]))' "$work/uoz-quickstart/dtcs.json"
grep -q 'user workshop' "$work/uoz-quickstart/pki/acl" || { echo "add did not update the ACL"; exit 1; }
echo "the quick start ran as written"

#!/usr/bin/env bash
# Runs the benchmarks on a fresh PKI and a local broker; the table goes to
# standard output, the figures as JSON to <build>/bench-results.json.
set -euo pipefail
build=${1:-build-bench}
shift || true
root=$(cd "$(dirname "$0")/.." && pwd)
pki=$(mktemp -d /tmp/uoz-bench-pki-XXXXXX)
trap 'rm -rf "$pki" "$pki-other"' EXIT
"$root/tests/support/make-test-pki.sh" "$root/$build/tools/uoz-pki/uoz-pki" "$pki" >/dev/null
echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'), $(uname -sr)"
UOZ_TEST_PKI=$pki "$root/$build/bench/uoz-bench" --json "$root/$build/bench-results.json" "$@"

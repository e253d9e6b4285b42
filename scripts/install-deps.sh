#!/usr/bin/env bash
# Install the Debian 12 packages that building, testing and the demo need.
# Does nothing when they are all present.
set -euo pipefail
packages=(g++ cmake make pkg-config libjson-c-dev libmosquitto-dev mosquitto libssl-dev openssl
          libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev dpkg-dev clang-tidy
          python3 python3-scapy can-utils)
packages+=(libsystemd-dev)  # uoz-agent tells systemd when it is ready
# The CAN tests run in a VM where this machine's kernel has no CAN
# (scripts/test-can.sh); --can-vm installs what that needs in any case.
if [ "${1:-}" = "--can-vm" ] || { [ ! -e /sys/class/net/vcan0 ] && ! modinfo vcan >/dev/null 2>&1; }; then
  packages+=(qemu-system-x86 busybox-static)
fi
if [ "${1:-}" = "--fuzz" ]; then packages+=(clang libclang-rt-14-dev); fi
if [ "${1:-}" = "--coverage" ]; then packages+=(gcovr); fi
if [ "${1:-}" = "--bench" ]; then packages+=(mosquitto-clients); fi  # the command-line floor
if [ "${1:-}" = "--package" ]; then packages+=(file systemd systemd-container python3-debian adduser procps); fi
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "Installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"

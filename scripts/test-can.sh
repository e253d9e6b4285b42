#!/usr/bin/env bash
# test-can.sh BUILD_DIR [--if-possible] [CTEST_ARGUMENT...]
# Runs the CAN tests (CTest label "can") of a build: here when this machine's
# kernel has CAN (vcan0 is up, or can be made, and ISO-TP sockets open), else
# in a throw-away VM with the distribution's kernel (scripts/can-vm/run.sh).
#
# --if-possible: where neither can run, say why and exit 0 (make test);
# without it that is a failure (make test-can).
# UOZ_CAN=host|vm|off forces where they run (off: not at all).
# CTEST_JOBS sets ctest's -j (default 4); further arguments go to ctest.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
[ $# -ge 1 ] || { echo "usage: $0 BUILD_DIR [--if-possible] [CTEST_ARGUMENT...]" >&2; exit 2; }
build=$(cd "$1" && pwd) || exit 2
shift
optional=
if [ "${1:-}" = --if-possible ]; then
    optional=1
    shift
fi
ctest_command=(ctest --test-dir "$build" -L '^can$' --no-tests=error --output-on-failure
               -j"${CTEST_JOBS:-4}" "$@")
interfaces=(vcan0 vcan1 vcanfd0:72)

# Neither here nor in a VM: a failure, or with --if-possible a clear skip.
cannot_run() {
    if [ -n "$optional" ]; then
        echo "CAN tests skipped: $*"
        exit 0
    fi
    echo "test-can: the CAN tests cannot run: $*" >&2
    exit 1
}

isotp_opens() {
    /usr/bin/python3 -c 'import socket; socket.socket(socket.AF_CAN, socket.SOCK_DGRAM, socket.CAN_ISOTP)' \
        2>/dev/null
}

# Makes the missing interfaces where we may (root); vcan0 must end up up.
host_has_can() {
    local iface name
    for iface in "${interfaces[@]}"; do
        name=${iface%%:*}
        [ -e "/sys/class/net/$name" ] && continue
        [ "$(id -u)" -eq 0 ] || continue
        ip link add dev "$name" type vcan 2>/dev/null || continue
        [ "$name" = "$iface" ] || ip link set "$name" mtu "${iface#*:}"
        ip link set "$name" up
    done
    [ -n "$(ip link show up dev vcan0 2>/dev/null)" ] && isotp_opens
}

why_not_vm() {
    command -v qemu-system-x86_64 >/dev/null || { echo "qemu-system-x86_64 is not installed"; return; }
    [ -f /usr/share/qemu/qboot.rom ] || { echo "QEMU's qboot.rom is missing"; return; }
    [ -x /bin/busybox ] || { echo "busybox-static is not installed"; return; }
}

mode=${UOZ_CAN:-auto}
why_vm="this machine's kernel has no CAN"
case $mode in
    off) cannot_run "UOZ_CAN=off" ;;
    auto) if host_has_can; then mode=host; else mode=vm; fi ;;
    host) host_has_can || cannot_run "UOZ_CAN=host, but this machine has no vcan0 with ISO-TP" ;;
    vm) why_vm="UOZ_CAN=vm" ;;
    *) echo "test-can: UOZ_CAN must be auto, host, vm or off" >&2; exit 2 ;;
esac

if [ "$mode" = host ]; then
    echo "CAN tests on this machine's kernel (vcan0)"
    exec "${ctest_command[@]}"
fi

reason=$(why_not_vm)
[ -z "$reason" ] || cannot_run "$why_vm, and the CAN VM cannot start: $reason" \
    "(scripts/install-deps.sh --can-vm installs what it needs)"
"$here/can-vm/prepare.sh" >/dev/null ||
    cannot_run "$why_vm, and the CAN VM cannot be prepared (see above)"
echo "CAN tests in a VM ($why_vm)"
# The test PKI is made here, in a second rather than ten in the VM.
ctest --test-dir "$build" -R '^make_test_pki$' --no-tests=ignore -Q ||
    { echo "test-can: cannot make the test PKI" >&2; exit 1; }
UOZ_CAN_VM_IFS="${interfaces[*]}" "$here/can-vm/run.sh" "${ctest_command[@]}" -FS pki

#!/usr/bin/env bash
# run.sh CMD [ARG...]: runs CMD in a throw-away VM whose kernel has CAN.
#
# The guest is Debian 12's own kernel (see prepare.sh) under QEMU. Its root is
# this machine's root filesystem, read-only over virtio-9p, with a tmpfs
# overlay on top: the guest sees every file here at the same path, and
# nothing it writes survives. vcan0 (and the interfaces of UOZ_CAN_VM_IFS)
# are up, with the CAN, ISO-TP, J1939, gateway and vxcan modules loaded. CMD
# runs as root in the current folder with this environment's PATH, HOME,
# locale and every UOZ_*, GTEST_*, CTEST_* and sanitizer variable.
#
# CMD's output (standard output and error together) comes back on standard
# output as it is written; the exit status is CMD's, or 124 when the VM did
# not finish in time, or 125 when the VM failed before or around CMD.
#
# Environment:
#   UOZ_CAN_VM_TIMEOUT       seconds for the whole run (default 1200)
#   UOZ_CAN_VM_BOOT_TIMEOUT  seconds until CMD must have started (default 120)
#   UOZ_CAN_VM_IFS           interfaces, NAME or NAME:MTU (default "vcan0 vcan1 vcanfd0:72")
#   UOZ_CAN_VM_MEM           MiB of memory (default 1024)
#   UOZ_CAN_VM_SMP           processors (default: this machine's, at most 4)
#   UOZ_CAN_VM_ACCEL         tcg (default) or kvm, for hosts whose KVM runs stock kernels
#   UOZ_CAN_VM_ENV           names of more variables to pass, space-separated
#   UOZ_CAN_VM_DEBUG=1       show the guest's boot messages and QEMU's errors
#   UOZ_CAN_VM_CACHE         where the kernel and initramfs are kept (see prepare.sh)
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
[ $# -ge 1 ] || { echo "usage: $0 CMD [ARG...]" >&2; exit 2; }
say() { echo "can-vm: $*" >&2; }

qemu=$(command -v qemu-system-x86_64) || { say "qemu-system-x86_64 is missing (install qemu-system-x86)"; exit 125; }
firmware=/usr/share/qemu/qboot.rom
[ -f $firmware ] || { say "$firmware is missing (install qemu-system-x86)"; exit 125; }
cache=$("$here/prepare.sh") || exit 125
kernel=$cache/vmlinux
[ -f "$kernel" ] || kernel=$cache/vmlinuz

job=$(mktemp -d "${TMPDIR:-/tmp}/uoz-can-vm.XXXXXX")
watchdog=
cleanup() {
    [ -n "$watchdog" ] && kill "$watchdog" 2>/dev/null
    rm -rf "$job"
}
trap cleanup EXIT

on_terminal=
[ -t 1 ] && on_terminal=1
write_job() {
    local name
    echo "#!/bin/bash"
    for name in PATH HOME LANG LC_ALL LC_CTYPE TZ USER LOGNAME TERM TMPDIR ${UOZ_CAN_VM_ENV:-} \
                $(compgen -e | grep -E '^(UOZ_|GTEST_|CTEST_|ASAN_|UBSAN_|LSAN_|TSAN_)'); do
        [ -n "${!name+set}" ] && printf 'export %s=%q\n' "$name" "${!name}"
    done
    printf 'cd %q || { echo "can-vm: the guest cannot enter %q"; exit 125; }\n' "$PWD" "$PWD"
    # The guest's console is a terminal: where ours is not, neither is CMD's
    # output, so that programs leave out colours and progress bars as here.
    if [ -n "$on_terminal" ]; then
        printf 'exec'
        printf ' %q' "$@"
        echo
    else
        printf '%q ' "$@"
        echo '2>&1 | cat; exit ${PIPESTATUS[0]}'
    fi
}
write_job "$@" >"$job/job.sh"

ifs=$(echo "${UOZ_CAN_VM_IFS:-vcan0 vcan1 vcanfd0:72}" | tr -s ' ' ',')
append="console=ttyS0 panic=-1 uoz_job=$job/job.sh uoz_ifs=$ifs"
[ -n "${UOZ_CAN_VM_DEBUG:-}" ] || append="$append quiet loglevel=1"
smp=${UOZ_CAN_VM_SMP:-$(nproc)}
[ "$smp" -le 4 ] || smp=4
case ${UOZ_CAN_VM_ACCEL:-tcg} in
    kvm) accel=(-accel kvm -cpu host) ;;
    tcg) accel=(-accel tcg,thread=multi -cpu max) ;;
    *) say "UOZ_CAN_VM_ACCEL must be tcg or kvm"; exit 125 ;;
esac

# The console is read line by line as it comes: mawk would otherwise wait for
# a full buffer, and a quiet command's start would go unseen by the watchdog.
line_awk=(awk)
awk -W version 2>/dev/null | grep -q mawk && line_awk=(awk -W interactive)

started=$(date +%s.%N)
timeout=${UOZ_CAN_VM_TIMEOUT:-1200}
boot_timeout=${UOZ_CAN_VM_BOOT_TIMEOUT:-120}
# A guest that never reaches CMD is stopped long before the whole run's limit.
(
    for ((waited = 0; waited < boot_timeout; ++waited)); do
        [ -e "$job/begun" ] && exit 0
        sleep 1
    done
    touch "$job/boot-timed-out"
    [ -f "$job/qemu.pid" ] && kill "$(cat "$job/qemu.pid")"
) &
watchdog=$!

timeout -k 5 "$timeout" "$qemu" -M pc -bios $firmware "${accel[@]}" -m "${UOZ_CAN_VM_MEM:-1024}" \
    -smp "$smp" -nodefaults -no-user-config -nographic -serial stdio -no-reboot \
    -pidfile "$job/qemu.pid" -kernel "$kernel" -initrd "$cache/initramfs.cpio.gz" \
    -append "$append" \
    -fsdev local,id=hostroot,path=/,security_model=none,readonly=on,multidevs=remap \
    -device virtio-9p-pci,fsdev=hostroot,mount_tag=hostroot \
    </dev/null 2>"$job/qemu.err" |
    "${line_awk[@]}" -v begun="$job/begun" -v result="$job/result" -v boot="$job/boot.log" '
        { sub(/\r$/, "") }
        index($0, "@@UOZ-CAN-VM-BEGIN") { print > begun; close(begun); on = 1; next }
        (at = index($0, "@@UOZ-CAN-VM-END")) {
            if (at > 1) print substr($0, 1, at - 1)
            print substr($0, at) > result; close(result); on = 0; fflush(); next
        }
        on { print; fflush(); next }
        /^can-vm: / { print > "/dev/stderr" }
        { print > boot }'
status=("${PIPESTATUS[@]}")
ended=$(date +%s.%N)

if [ -n "${UOZ_CAN_VM_DEBUG:-}" ]; then
    cat "$job/boot.log" "$job/qemu.err" >&2 2>/dev/null
fi
if [ ! -f "$job/result" ]; then
    if [ -e "$job/boot-timed-out" ]; then
        say "the guest did not start the command within ${boot_timeout} s (UOZ_CAN_VM_BOOT_TIMEOUT); stopped"
    elif [ "${status[0]}" -eq 124 ]; then
        say "the VM did not finish within ${timeout} s (UOZ_CAN_VM_TIMEOUT); stopped"
        exit 124
    else
        say "the VM ended without an exit status (QEMU exit status ${status[0]})"
    fi
    [ -n "${UOZ_CAN_VM_DEBUG:-}" ] || cat "$job/qemu.err" >&2
    [ -n "${UOZ_CAN_VM_DEBUG:-}" ] || tail -20 "$job/boot.log" >&2 2>/dev/null
    exit 125
fi

rc=$(sed -n 's/.*rc=\([0-9]*\).*/\1/p' "$job/result")
awk -v start="$started" -v end="$ended" -v kernel="$(cat "$cache/kernel-version")" \
    -v ready="$(sed -n 's/.*uptime=\([0-9.]*\).*/\1/p' "$job/begun")" \
    -v done="$(sed -n 's/.*uptime=\([0-9.]*\).*/\1/p' "$job/result")" 'BEGIN {
        printf "can-vm: kernel %s ready in %.1f s, the command took %.1f s, %.1f s in all\n",
               kernel, ready, done - ready, end - start }' >&2
exit "${rc:-125}"

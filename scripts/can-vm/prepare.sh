#!/usr/bin/env bash
# prepare.sh: makes the CAN VM's kernel and initramfs, once, in the cache
# folder, and prints that folder.
#
# The kernel is Debian 12's own linux-image-<abi>-amd64, fetched with
# `apt-get download` and unpacked with `dpkg-deb -x` (never installed): unlike
# -cloud-amd64 it has vcan, can-isotp, can-j1939, can-gw, vxcan and 9p. The
# initramfs holds busybox-static, the modules the guest needs (with their
# dependencies, in load order) and our init.
#
# Environment:
#   UOZ_CAN_VM_CACHE   the cache folder (default ~/.cache/libudsoverzelko/can-vm)
#   UOZ_CAN_VM_ABI     a kernel ABI such as 6.1.0-56 (default: what linux-image-amd64
#                      depends on; once a kernel is cached it is kept)
# Exit status 0 when ready; otherwise the reason is on standard error.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
cache=${UOZ_CAN_VM_CACHE:-${XDG_CACHE_HOME:-${HOME:-/tmp}/.cache}/libudsoverzelko/can-vm}
modules=(virtio_pci 9pnet_virtio 9p overlay
         can-raw can-bcm can-isotp can-j1939 can-gw vcan vxcan)

say() { echo "can-vm: $*" >&2; }
die() { say "$*"; exit 1; }

for tool in apt-get dpkg-deb gzip; do
    command -v "$tool" >/dev/null || die "$tool is missing (a Debian system is needed to fetch the kernel)"
done
# The initramfs has no C library: busybox must be the static build.
[ -x /bin/busybox ] && ! ldd /bin/busybox >/dev/null 2>&1 ||
    die "/bin/busybox is missing or not static: install busybox-static"

mkdir -p "$cache"
exec 9>"$cache/.lock"
flock 9  # several runs may prepare at once; one does, the others wait and reuse

kernel_abi() {
    if [ -n "${UOZ_CAN_VM_ABI:-}" ]; then
        echo "$UOZ_CAN_VM_ABI"
        return
    fi
    local cached
    cached=$(ls "$cache"/debs/linux-image-*-amd64_*.deb 2>/dev/null | sort -V | tail -1 || true)
    if [ -n "$cached" ]; then
        basename "$cached" | sed -n 's/^linux-image-\(.*\)-amd64_.*/\1/p'
        return
    fi
    local depends
    depends=$(apt-cache depends linux-image-amd64 2>/dev/null)
    if [ -z "$depends" ] && [ "$(id -u)" -eq 0 ]; then
        say "apt knows no linux-image-amd64 yet: apt-get update"
        apt-get update -qq >&2 && depends=$(apt-cache depends linux-image-amd64 2>/dev/null)
    fi
    echo "$depends" | sed -n 's/.*Depends: linux-image-\([0-9][^ ]*\)-amd64$/\1/p' | head -1
}

abi=$(kernel_abi)
[ -n "$abi" ] || die "cannot tell which kernel to fetch: apt-cache knows no linux-image-amd64 (run apt-get update, or set UOZ_CAN_VM_ABI)"

fetch_kernel_package() {
    local found
    found=$(ls "$cache"/debs/linux-image-"$abi"-amd64_*.deb 2>/dev/null | head -1 || true)
    if [ -n "$found" ]; then
        echo "$found"
        return
    fi
    mkdir -p "$cache/debs"
    local download
    download=$(mktemp -d "${TMPDIR:-/tmp}/uoz-can-vm-download.XXXXXX")
    # apt drops to its sandbox user to download; let it write there.
    [ "$(id -u)" -eq 0 ] && id _apt >/dev/null 2>&1 && chown _apt "$download"
    say "fetching linux-image-$abi-amd64 (once; kept in $cache)"
    if ! (cd "$download" && apt-get download -q "linux-image-$abi-amd64" >&2); then
        rm -rf "$download"
        die "cannot download linux-image-$abi-amd64 with apt-get"
    fi
    mv "$download"/*.deb "$cache/debs/"
    rm -rf "$download"
    ls "$cache"/debs/linux-image-"$abi"-amd64_*.deb | head -1
}

deb=$(fetch_kernel_package)
stamp=$(cat "$deb.sha256" 2>/dev/null || true)
[ -n "$stamp" ] || { stamp=$(sha256sum "$deb" | cut -d' ' -f1); echo "$stamp" >"$deb.sha256"; }
stamp="$stamp $(cat "$here/init" "$0" /bin/busybox | sha256sum | cut -d' ' -f1)"
if [ -f "$cache/vmlinuz" ] && [ -f "$cache/initramfs.cpio.gz" ] &&
   [ "$(cat "$cache/stamp" 2>/dev/null)" = "$stamp" ]; then
    echo "$cache"
    exit 0
fi

work=$(mktemp -d "$cache/build.XXXXXX")
trap 'rm -rf "$work"' EXIT
dpkg-deb -x "$deb" "$work/kernel"
kver=$abi-amd64
tree=$work/kernel/lib/modules/$kver
[ -f "$tree/modules.order" ] || die "$deb has no modules.order for $kver"

# The package has no modules.dep (depmod makes it when the kernel is
# installed): each module names what it needs in its .modinfo section.
module_path() {  # a module's name (- and _ alike) -> its path under $tree
    grep -m1 -E "(^|/)${1//[-_]/[-_]}\.ko(\.xz|\.zst)?$" "$tree/modules.order"
}
module_needs() {
    local file=$tree/$1
    case $file in
        *.xz) xz -dc "$file" ;;
        *.zst) zstd -qdc "$file" ;;
        *) cat "$file" ;;
    esac | tr '\0' '\n' | sed -n 's/^depends=//p' | tr ',' ' '
}
# Each wanted module after the modules it needs, each once.
declare -A placed=()
order=()
place() {
    local path need
    path=$(module_path "$1") || die "kernel $kver has no module $1"
    [ -n "${placed[$path]:-}" ] && return
    placed[$path]=1
    for need in $(module_needs "$path"); do
        place "$need"
    done
    order+=("$path")
}
for module in "${modules[@]}"; do
    place "$module"
done

root=$work/initramfs
mkdir -p "$root/bin" "$root/lib/modules"
cp /bin/busybox "$root/bin/busybox"
for path in "${order[@]}"; do
    name=$(basename "$path")
    case $name in
        *.ko.xz) xz -dc "$tree/$path" >"$root/lib/modules/${name%.xz}"; name=${name%.xz} ;;
        *.ko.zst) zstd -qdc "$tree/$path" >"$root/lib/modules/${name%.zst}"; name=${name%.zst} ;;
        *) cp "$tree/$path" "$root/lib/modules/" ;;
    esac
    echo "$name" >>"$root/lib/modules/load-order"
done
install -m 0755 "$here/init" "$root/init"

# Under TCG the kernel takes longer to unpack itself than to boot: keep its
# ELF image, which QEMU starts directly at its PVH entry. (Where that fails,
# the compressed kernel is used.)
elf_kernel() {
    local at
    at=$(grep -abo -m1 $'\xfd7zXZ' "$1" | head -1 | cut -d: -f1)
    [ -n "$at" ] || return 1
    tail -c +$((at + 1)) "$1" | xz -dc 2>/dev/null >"$2"
    [ "$(head -c 4 "$2" | od -An -c | tr -d ' ')" = '177ELF' ] || return 1
    # Xen's note 0x12 (PHYS32_ENTRY) marks the PVH entry.
    ! command -v readelf >/dev/null || readelf -n "$2" | grep -Eq '0x00000012|PHYS32'
}
(cd "$root" && find . | /bin/busybox cpio -o -H newc 2>/dev/null) | gzip -1 >"$work/initramfs.cpio.gz"
cp "$work/kernel/boot/vmlinuz-$kver" "$work/vmlinuz"
rm -f "$cache/vmlinux"
if elf_kernel "$work/vmlinuz" "$work/vmlinux"; then
    mv "$work/vmlinux" "$cache/"
fi
mv "$work/vmlinuz" "$work/initramfs.cpio.gz" "$cache/"
echo "$stamp" >"$cache/stamp"
echo "$kver" >"$cache/kernel-version"
say "kernel $kver and initramfs ready in $cache"
echo "$cache"

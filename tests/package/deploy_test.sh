#!/usr/bin/env bash
# Runs every command block of docs/deploy.md as written, on the packages that
# cpack made in BUILD, inside a throw-away Debian system booted with systemd:
# a copy-on-write overlay of this machine's root in a container with a network
# of its own (so port 8883 is free). Then checks what the packages left there
# (/etc/uoz, the units, the service user, conffiles kept by a reinstall, what
# a purge removes and keeps) and that systemd-analyze verify accepts the units.
#
#   deploy_test.sh BUILD SOURCE
#
# Needs root with the right to mount (mount namespace, overlayfs) and
# systemd-nspawn; exits 77 (skipped) with the reason where one is missing.
# The packages' dependencies must be installed on this machine: the
# container has no network to fetch them.
set -euo pipefail
build=$1 source=$2

skip() { echo "skipped: $*"; exit 77; }
[ "$(id -u)" -eq 0 ] || skip "booting a throw-away system needs root"
command -v systemd-nspawn >/dev/null || skip "no systemd-nspawn (Debian package systemd-container)"
grep -qw overlay /proc/filesystems || skip "the kernel has no overlayfs"
unshare --mount true 2>/dev/null ||
  skip "no mount namespace can be made here (a container must be privileged)"

shopt -s nullglob
packages=()
for deb in "$build"/*.deb; do
  [[ $deb == *-dbgsym_* ]] || packages+=("$deb")
done
[ ${#packages[@]} -eq 5 ] || {
  echo "expected the 5 packages of cpack in $build, found ${#packages[@]}: run make package"; exit 1; }

work=$(mktemp -d /tmp/uoz-deploy-XXXXXX)
trap 'rm -rf "$work"' EXIT
mkdir "$work/upper" "$work/overlay-work" "$work/root"
deploy=$work/upper/root/deploy
mkdir -p "$deploy" "$work/upper/etc/systemd/system"
cp "${packages[@]}" "$deploy/"

{
  echo 'cd /root/deploy'
  awk '/^```sh$/ {inside=1; next} /^```$/ {inside=0} inside' "$source/docs/deploy.md"
} > "$deploy/deploy.sh"
grep -q '^systemctl enable --now uoz-agent$' "$deploy/deploy.sh" || {
  echo "deploy.md: no 'systemctl enable --now uoz-agent' line"; exit 1; }
cp "$source/tests/package/inside.sh" "$deploy/inside.sh"

# The container boots to this target alone: no service of the host's starts.
cat > "$work/upper/etc/systemd/system/uoz-deploy-test.target" <<'EOF'
[Unit]
Description=deploy.md on the packages
Requires=basic.target uoz-deploy-test.service
After=basic.target uoz-deploy-test.service
EOF
cat > "$work/upper/etc/systemd/system/uoz-deploy-test.service" <<'EOF'
[Unit]
Description=deploy.md on the packages, then checks
After=basic.target
[Service]
Type=oneshot
ExecStart=/bin/bash /root/deploy/inside.sh
TimeoutStartSec=240
ExecStopPost=/bin/systemctl poweroff --no-block
EOF

machine=uoz-deploy-$$
unshare --mount --propagation private bash -euc '
  mount -t overlay overlay -o "lowerdir=/,upperdir=$1/upper,workdir=$1/overlay-work" "$1/root"
  timeout 300 systemd-nspawn --quiet --directory="$1/root" --machine="$2" --boot \
    --register=no --keep-unit --link-journal=no --private-network --console=pipe \
    systemd.unit=uoz-deploy-test.target > "$1/console.log" 2>&1 || echo "systemd-nspawn: exit $?" >> "$1/console.log"
' unshare "$work" "$machine"

if [ ! -f "$deploy/status" ]; then
  echo "the throw-away system did not finish deploy.md:"; cat "$work/console.log"
  [ -f "$deploy/output.log" ] && cat "$deploy/output.log"
  exit 1
fi
cat "$deploy/output.log"
status=$(cat "$deploy/status")
[ "$status" = 0 ] || { echo "deploy.md or its checks failed (exit $status)"; exit 1; }
echo "deploy.md ran as written on the packages, under systemd"

#!/usr/bin/env bash
# Installs into a temporary prefix and builds examples/minimal.c with
# pkg-config alone, then links a CMake project with find_package; checks that
# the installed tools run from any prefix and that man pages and docs are there.
set -euo pipefail
build=$1 source=$2 version=$3
prefix=$(mktemp -d /tmp/uoz-install-XXXXXX)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig:$prefix/lib/x86_64-linux-gnu/pkgconfig
cc -Wall -Wextra -Werror -o "$prefix/minimal" "$source/examples/minimal.c" $(pkg-config --cflags --libs udsoverzelko)
libdir=$(pkg-config --variable=libdir udsoverzelko)
# Without a broker configuration file the program must fail cleanly, not crash.
if LD_LIBRARY_PATH=$libdir "$prefix/minimal" >/dev/null; then
  echo "minimal: expected a failure without a configuration"; exit 1
fi
mkdir -p "$prefix/consumer"
cat > "$prefix/consumer/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(consumer C)
find_package(udsoverzelko REQUIRED)
add_executable(consumer ${SOURCE}/examples/minimal.c)
target_link_libraries(consumer PRIVATE udsoverzelko::udsoverzelko)
CMAKE
cmake -S "$prefix/consumer" -B "$prefix/consumer/build" -DCMAKE_PREFIX_PATH="$prefix" -DSOURCE="$source" >/dev/null
cmake --build "$prefix/consumer/build" >/dev/null
for tool in uozctl uoz-agent uoz-pki; do [ -x "$prefix/bin/$tool" ] || { echo "missing $tool"; exit 1; }; done
[ -f "$prefix/include/kt5bus.h" ] || { echo "missing kt5bus.h"; exit 1; }
# The installed tools find their libraries from where they lie (no
# LD_LIBRARY_PATH), also when the whole tree is moved.
moved=$prefix/moved
mkdir "$moved" && cp -a "$prefix/bin" "$prefix/lib" "$moved/"
for tool in uozctl uoz-pki; do
  for root in "$prefix" "$moved"; do
    said=$(env -u LD_LIBRARY_PATH "$root/bin/$tool" --version) || { echo "$root/bin/$tool --version failed"; exit 1; }
    [ "$said" = "$tool $version" ] || { echo "$tool --version said: $said"; exit 1; }
  done
done
for page in uozctl uoz-pki uoz-agent; do
  [ -f "$prefix/share/man/man1/$page.1.gz" ] || { echo "missing man page $page.1.gz"; exit 1; }
done
zcat "$prefix/share/man/man1/uozctl.1.gz" | grep -q 'Exit codes: 0 success' || { echo "uozctl.1 lacks the exit codes"; exit 1; }
# Every command with its own options, and the examples one a line (roff).
page=$(zcat "$prefix/share/man/man1/uozctl.1.gz")
for line in '.SS "uozctl dtc read"' '  \-\-mask TEXT=0xFF Excludes: \-\-dtc' '.SS "uozctl consent"' \
    'uozctl \-\-config ecus.json check\-config' \
    'uozctl \-\-config ecus.json \-\-certs pki/app dtc read engine \-\-mask 0x08'; do
  grep -qxF -- "$line" <<< "$page" || { echo "uozctl.1 lacks the line: $line"; exit 1; }
done
for doc in README.md quickstart.md troubleshooting.md security.md; do
  [ -f "$prefix/share/doc/udsoverzelko/$doc" ] || { echo "missing doc $doc"; exit 1; }
done
echo "installed, built with pkg-config and with find_package; tools run from any prefix"

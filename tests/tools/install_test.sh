#!/usr/bin/env bash
# Installs into a temporary prefix and builds examples/minimal.c with
# pkg-config alone, then links a CMake project with find_package.
set -euo pipefail
build=$1 source=$2
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
echo "installed, built with pkg-config and with find_package"

#!/usr/bin/env bash
# Build with gcov instrumentation, run the tests (all, or those the extra
# arguments pick, e.g. -L unit or -R Doip), and report line and branch
# coverage of the library and the tools.
#   scripts/coverage.sh BUILD_DIR [ctest arguments...]
# Writes BUILD_DIR/coverage/summary.txt (per file) and index.html.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:?usage: coverage.sh BUILD_DIR [ctest arguments...]}
shift
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DUOZ_COVERAGE=ON >/dev/null
cmake --build "$build" -j"${JOBS:-2}"
find "$build" -name '*.gcda' -delete
status=0
ctest --test-dir "$build" -j"${CTEST_JOBS:-8}" --output-on-failure "$@" || status=$?
mkdir -p "$build/coverage"
gcovr --root . --object-directory "$build" --filter 'src/' --filter 'tools/' --filter 'include/' \
  --exclude-unreachable-branches --exclude-throw-branches \
  --txt "$build/coverage/summary.txt" --html-details "$build/coverage/index.html" \
  --print-summary
exit "$status"

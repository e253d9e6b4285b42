#!/usr/bin/env bash
# Build the libFuzzer targets with clang (ASan+UBSan) and run each for
# FUZZ_SECONDS (default 60) on its seed corpus; FUZZ_TARGETS picks some. Findings are written to
# build-fuzz/findings/<target>/ and make the script fail.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${FUZZ_SECONDS:-60}
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DUOZ_SANITIZE=fuzzer -DUOZ_BUILD_FUZZ=ON -DUOZ_BUILD_TESTS=OFF -DUOZ_BUILD_TOOLS=OFF >/dev/null
all_targets=$(sed -n '/^set(UOZ_FUZZ_TARGETS/,/)/p' fuzz/CMakeLists.txt | tr -d '()' | sed 's/set//; s/UOZ_FUZZ_TARGETS//' | xargs)
targets=${FUZZ_TARGETS:-$all_targets}
cmake --build build-fuzz -j"${JOBS:-2}" --target $targets
status=0
for target in $targets; do
  corpus=build-fuzz/corpus/$target
  findings=build-fuzz/findings/$target
  mkdir -p "$corpus" "$findings"
  [ -d fuzz/corpus/$target ] && cp -n fuzz/corpus/$target/* "$corpus"/ 2>/dev/null || true
  echo "== $target: ${seconds}s"
  if ! build-fuzz/fuzz/$target -max_total_time="$seconds" -dict=fuzz/json.dict \
       -artifact_prefix="$findings/" -print_final_stats=1 "$corpus" >build-fuzz/$target.log 2>&1; then
    echo "   FINDING: see build-fuzz/$target.log and $findings"
    status=1
  fi
  grep -E 'stat::number_of_executed_units|Done' build-fuzz/$target.log | tail -2 | sed 's/^/   /'
done
exit $status

#!/usr/bin/env bash
# After a ctest run in build folder $1: each test that skipped itself, with
# the reason it gave, so that a skip is never silent.
log="${1:-build}/Testing/Temporary/LastTest.log"
[ -f "$log" ] || exit 0
awk '
  / Skipped$/ { getline reason; next }
  /^\[  SKIPPED \] [^ ]+ \(/ { print "skipped: " $4 ": " reason }
' "$log"

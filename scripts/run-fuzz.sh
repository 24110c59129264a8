#!/usr/bin/env bash
# Runs every fuzz program of build-fuzz for FUZZ_SECONDS each (default 60), starting from the
# committed corpus (tests/fuzz/corpus/<target>) and a growing working corpus of its own
# (build-fuzz/corpus/<target>). A fault leaves its input in build-fuzz/artifacts/; copy it into
# tests/fuzz/corpus/<target>/ (named after the fault) once fixed, so that ctest replays it.
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
seconds="${FUZZ_SECONDS:-60}"
status=0
for program in "$root"/build-fuzz/tests/fuzz_*; do
  target="$(basename "$program")"
  target="${target#fuzz_}"
  work="$root/build-fuzz/corpus/$target"
  artifacts="$root/build-fuzz/artifacts"
  mkdir -p "$work" "$artifacts"
  log="$root/build-fuzz/$target.log"
  "$program" -max_total_time="$seconds" -print_final_stats=1 -timeout=30 -rss_limit_mb=4096 \
    -artifact_prefix="$artifacts/$target-" "$work" "$root/tests/fuzz/corpus/$target" >"$log" 2>&1
  rc=$?
  runs="$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' | tail -1)"
  if [ "$rc" -eq 0 ]; then
    echo "$target: ${runs:-?} executions in ${seconds} s, no fault"
  else
    echo "$target: FAULT after ${runs:-?} executions (exit $rc); see $log and $artifacts/"
    status=1
  fi
done
exit "$status"

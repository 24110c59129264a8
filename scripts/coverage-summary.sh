#!/usr/bin/env bash
# Line coverage of each product folder from the counts a coverage build's test run left in
# build-cov/ (make coverage); the whole report is build-cov/coverage/index.html. The counters
# are not atomic (atomic ones make the instrumented face-detection tests too slow), so threads
# running the same line at once may lose a count; lcov then warns of negative counts, which
# only touches lines hit anyway.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cov="$root/build-cov"
lcov --quiet --capture --directory "$cov" --base-directory "$root" --output-file "$cov/all.info" \
  --rc lcov_branch_coverage=0 >/dev/null 2>&1
total_hit=0
total_found=0
printf '%-12s %8s %8s %7s\n' folder lines hit cover
for folder in engine framedata sequence bestshot stats kocore; do
  lcov --quiet --extract "$cov/all.info" "$root/$folder/*" --output-file "$cov/$folder.info" >/dev/null 2>&1
  read -r found hit < <(awk -F: '/^LF:/{f+=$2} /^LH:/{h+=$2} END{print f+0, h+0}' "$cov/$folder.info")
  total_found=$((total_found + found))
  total_hit=$((total_hit + hit))
  awk -v n="$folder" -v f="$found" -v h="$hit" 'BEGIN{printf "%-12s %8d %8d %6.1f%%\n", n, f, h, f ? 100*h/f : 0}'
done
awk -v f="$total_found" -v h="$total_hit" 'BEGIN{printf "%-12s %8d %8d %6.1f%%\n", "all", f, h, f ? 100*h/f : 0}'
lcov --quiet --extract "$cov/all.info" "$root/engine/*" "$root/framedata/*" "$root/sequence/*" \
  "$root/bestshot/*" "$root/stats/*" "$root/kocore/*" --output-file "$cov/product.info" >/dev/null 2>&1
genhtml --quiet --output-directory "$cov/coverage" "$cov/product.info" >/dev/null || true

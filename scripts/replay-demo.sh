#!/usr/bin/env bash
# `make demo`: one replay of the first webcam clip with automatic presses, presses on the
# blinks the face module finds, and one press of each degradation. Writes build/demo/ and
# prints the report's path and the summary table. Face detection is cached in build/cache.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
data="$("$root/scripts/testdata-dir.sh")"
clip="${DEMO_CLIP:-$data/webcam_face_a_400x300_25fps.mp4}"
out="$root/build/demo"
rm -rf "$out"
"$root/build/tools/kovane-replay" "$clip" --out "$out" --cache "$root/build/cache" \
  --shutter auto:4,on-blinks --degrade blink,shake,defocus,exposure,noise --seed 7 \
  2> >(grep -v '^KoEngine W' >&2)
echo
echo "report: $out/report.html"

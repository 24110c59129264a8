#!/usr/bin/env bash
# Prints the folder that holds the test pictures and clips, searched as the tests search it:
# $KOVANE_TESTDATA, ../shared/testdata, build/testdata.
root="$(cd "$(dirname "$0")/.." && pwd)"
for d in "${KOVANE_TESTDATA:-}" "$root/../shared/testdata" "$root/build/testdata"; do
  if [ -n "$d" ] && [ -s "$d/webcam_face_a_400x300_25fps.mp4" ]; then
    (cd "$d" && pwd)
    exit 0
  fi
done
echo "testdata-dir: no test clips found (run make testdata)" >&2
exit 1

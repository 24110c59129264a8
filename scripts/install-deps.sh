#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need. Idempotent: when everything is
# present it does nothing; `apt-get update` runs only when a package is missing.
set -euo pipefail

PACKAGES=(
  cmake g++ make pkg-config
  android-libutils-dev android-liblog-dev   # RefBase, sp, Vector, systemTime; __android_log_print
  libyuv-dev                                # row kernels behind the FastCV subset and the scalers
  libgtest-dev libgmock-dev                 # unit tests
  libbenchmark-dev                          # benchmarks under bench/
  ffmpeg                                    # remaking the test pictures when ../shared is absent
  # The replay tool (tools/replay): decoding, faces, JPEG, JSON, command line, hashing, and a
  # headless browser that checks its HTML report renders.
  libavformat-dev libavcodec-dev libswscale-dev libavutil-dev
  libdlib-dev libdlib-data
  libturbojpeg0-dev nlohmann-json3-dev libcli11-dev libssl-dev
  chromium
)

# `--bench`: also OpenCV, the reference that bench_ingest measures the engine against.
if [ "${1:-}" = "--bench" ]; then PACKAGES+=(libopencv-dev); fi
# `--fuzz`: clang, whose libFuzzer drives the fuzz targets under tests/fuzz.
if [ "${1:-}" = "--fuzz" ]; then PACKAGES+=(clang); fi
# `--coverage`: lcov, which gathers gcov's line counts for `make coverage`.
if [ "${1:-}" = "--coverage" ]; then PACKAGES+=(lcov); fi
# `--armhf`: the 32-bit ARM cross compilers and qemu, which runs the ARM test programs.
if [ "${1:-}" = "--armhf" ]; then PACKAGES+=(g++-arm-linux-gnueabihf qemu-user-static file); fi

# The webcam clips come from the npm registry when no prepared test folder has them.
root="$(cd "$(dirname "$0")/.." && pwd)"
have_clips=0
for d in "${KOVANE_TESTDATA:-}" "$root/../shared/testdata" "$root/build/testdata"; do
  if [ -n "$d" ] && [ -s "$d/webcam_face_a_400x300_25fps.mp4" ] && [ -s "$d/webcam_face_b_400x300_25fps.mp4" ]; then
    have_clips=1
  fi
done
if [ "$have_clips" -eq 0 ]; then PACKAGES+=(npm); fi

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "install-deps: installing ${missing[*]}"
$SUDO apt-get update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"

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
)

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

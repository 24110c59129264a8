#!/usr/bin/env bash
# The 32-bit ARM build (ARMv7-A, NEON, hard float) and its whole test suite under qemu:
# cross-compiles with Debian's arm-linux-gnueabihf compilers against the sysroot of
# scripts/armhf-sysroot.sh (made once, in build-armhf/sysroot) and runs ctest, every test program
# and every program the tests start running under qemu-arm-static.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
jobs="${JOBS:-$(nproc)}"
cd "$root"

"$root/scripts/install-deps.sh" --armhf
"$root/scripts/armhf-sysroot.sh" "$root/build-armhf"

cmake -S . -B build-armhf/build -DCMAKE_TOOLCHAIN_FILE="$root/scripts/armhf-toolchain.cmake" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKOVANE_BENCH=OFF ${CMAKE_FLAGS:-}
cmake --build build-armhf/build -j "$jobs"
file -L build-armhf/build/libkovane.so
readelf -h build-armhf/build/libkovane.so | grep -E 'Class|Machine|Flags'
cd build-armhf/build
ctest --output-on-failure -j "$jobs"

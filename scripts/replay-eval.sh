#!/usr/bin/env bash
# `make eval`: replays every clip of EVAL_CLIPS (default: the two webcam clips and the cockatoo
# clip) with a fixed seed: one run of clean automatic presses and presses on natural blinks, and
# EVAL_ROUNDS runs (default 3, seeds one apart) with presses of every degradation spread over the
# clip (no injected blinks on a clip without faces). Prints one table over all runs and writes
# build/eval/summary.json. The engine's own version line on stderr is left out.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
tool="$root/build/tools/kovane-replay"
data="$("$root/scripts/testdata-dir.sh")"
clips="${EVAL_CLIPS:-$data/webcam_face_a_400x300_25fps.mp4 $data/webcam_face_b_400x300_25fps.mp4 $data/cockatoo_1280x720_20fps.mp4}"
seed="${EVAL_SEED:-11}"
rounds="${EVAL_ROUNDS:-3}"
replay() { "$tool" "$@" 2> >(grep -v '^KoEngine W' >&2); }
out="$root/build/eval"
rm -rf "$out"
mkdir -p "$out"
summaries=()
n=0
for clip in $clips; do
  n=$((n + 1))
  name="$(basename "$clip" | sed 's/\.[^.]*$//')"
  # Presses of each degradation: as many as the clip has room for at one press a second.
  seconds="$(ffprobe -v error -show_entries format=duration -of csv=p=0 "$clip" | cut -d. -f1)"
  kinds="shake defocus exposure noise"
  faces="$(replay "$clip" --cache "$root/build/cache" --has-faces)"
  if [ "$faces" = "yes" ]; then kinds="blink $kinds"; fi
  count=$(( (seconds - 3) / $(echo $kinds | wc -w) ))
  [ "$count" -ge 1 ] || count=1
  degrade=""
  for k in $kinds; do degrade="${degrade:+$degrade,}$k*$count"; done
  echo "eval: $name: clean presses, then $rounds rounds of $degrade" >&2
  replay "$clip" --out "$out/$n-$name-clean" --cache "$root/build/cache" --shutter auto:1.2,on-blinks --seed "$seed" --quiet
  summaries+=("$out/$n-$name-clean/summary.json")
  for r in $(seq 1 "$rounds"); do
    replay "$clip" --out "$out/$n-$name-degraded-$r" --cache "$root/build/cache" --shutter none \
      --degrade "$degrade" --seed "$((seed + r))" --quiet
    summaries+=("$out/$n-$name-degraded-$r/summary.json")
  done
done
"$tool" --merge "${summaries[@]}" --out "$out"

#!/usr/bin/env bash
# The whole conversion: kavo convert (the in-memory engine, in the command's own process) next
# to ffmpeg's MP3 -> 8000 Hz mono G.726 (32 kbit/s) on the same 10-minute 44.1 kHz stereo
# 128 kbit/s MP3 (decode.sh's input), best of three wall times each and the peak resident
# memory of each (/usr/bin/time %M, the largest process of the run). A 1-minute file made the
# same way shows that memory does not grow with length.
set -euo pipefail
mkdir -p "$1"
data=$(cd "$1" && pwd)
root=$(cd "$(dirname "$0")/../.." && pwd)
. "$root/bench/parts/common.sh"

long=$data/decode_10min_44k_stereo_128k.mp3
short=$data/convert_1min_44k_stereo_128k.mp3
make_mp3 600 "$long"
make_mp3 60 "$short"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cd "$work"
for len in long short; do
  mp3=${!len}
  run_best "kavo_$len" "$kavo" convert "$mp3" kavo.adpcm
  run_best "ffmpeg_$len" ffmpeg -v error -y -i "$mp3" -ac 1 -ar 8000 -c:a g726le -f g726le ff.adpcm
done

read -r tk mk <"$work/kavo_long"
read -r tf mf <"$work/ffmpeg_long"
read -r tks mks <"$work/kavo_short"
read -r tfs mfs <"$work/ffmpeg_short"
printf 'input: 600 s, 44.1 kHz stereo, 128 kbit/s (%s bytes); 60 s the same way\n' "$(stat -c %s "$long")"
printf '  kavo convert  10 min: %6.2f s  peak %6d KB    1 min: %6.2f s  peak %6d KB\n' "$tk" "$mk" "$tks" "$mks"
printf '  ffmpeg g726le 10 min: %6.2f s  peak %6d KB    1 min: %6.2f s  peak %6d KB\n' "$tf" "$mf" "$tfs" "$mfs"
printf '  kavo / ffmpeg time ratio, 10 min: %.2f (goal: 0.50 or less)\n' "$(echo "$tk / $tf" | bc -l)"

#!/usr/bin/env bash
# A folder of prompts: 200 four-second speech prompts (espeak-ng, 22.05 kHz mono, lame at
# 32 kbit/s; made once and kept in the data folder) converted by one kavo convert -j 2 into a
# directory, next to ffmpeg's MP3 -> 8000 Hz mono G.726 (32 kbit/s) run on the same files by
# xargs -P 2. Best of three wall times each, and the peak resident memory of the largest
# process of the run (/usr/bin/time %M).
set -euo pipefail
mkdir -p "$1"
data=$(cd "$1" && pwd)
root=$(cd "$(dirname "$0")/../.." && pwd)
. "$root/bench/parts/common.sh"
prompts=$data/prompts_200x4s_22k
count=200

if [ "$(ls "$prompts" 2>/dev/null | grep -c '\.mp3$')" -ne "$count" ]; then
  rm -rf "$prompts"
  mkdir -p "$prompts.part"
  words=(account balance transfer menu option press hold line agent minutes thank you calling
         please enter your number followed by the pound key our office hours are)
  for i in $(seq -w 1 "$count"); do
    text="Prompt $i."
    for j in 0 1 2 3 4 5 6 7; do text+=" ${words[$(( (10#$i * 7 + j * 5) % ${#words[@]} ))]}"; done
    espeak-ng -s 150 -w "$prompts.part/$i.raw.wav" "$text"
    sox -V1 "$prompts.part/$i.raw.wav" -r 22050 -c 1 "$prompts.part/$i.wav" pad 0 4 trim 0 4
    lame --quiet -b 32 "$prompts.part/$i.wav" "$prompts.part/prompt_$i.mp3"
    rm -f "$prompts.part/$i.raw.wav" "$prompts.part/$i.wav"
  done
  mv "$prompts.part" "$prompts"
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

run_best kavo "$kavo" convert -q -j 2 "$prompts"/*.mp3 -o "$work/out"
[ "$(ls "$work/out" | wc -l)" -eq "$count" ] || { echo "kavo convert did not write $count files"; exit 1; }
run_best ffmpeg sh -c 'printf "%s\n" "$1"/*.mp3 | xargs -P 2 -I{} sh -c '\''ffmpeg -v error -y -i "$1" -ac 1 -ar 8000 -c:a g726le -f g726le "$2/$(basename "$1" .mp3).g726"'\'' _ {} "$2"' _ "$prompts" "$work/out"
[ "$(ls "$work/out" | wc -l)" -eq "$count" ] || { echo "ffmpeg did not write $count files"; exit 1; }

read -r tk mk <"$work/kavo"
read -r tf mf <"$work/ffmpeg"
printf 'input: %d prompts of 4 s, 22.05 kHz mono, 32 kbit/s (%s bytes in all)\n' "$count" \
  "$(cat "$prompts"/*.mp3 | wc -c)"
printf '  kavo convert -j 2 -o DIR  %6.2f s  peak %6d KB\n' "$tk" "$mk"
printf '  xargs -P 2 ffmpeg g726le  %6.2f s  peak %6d KB\n' "$tf" "$mf"
printf '  kavo / ffmpeg time ratio: %.3f (goal: 0.100 or less)\n' "$(echo "$tk / $tf" | bc -l)"

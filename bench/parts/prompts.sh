#!/usr/bin/env bash
# A folder of prompts: 200 four-second speech prompts (espeak-ng, 22.05 kHz mono, lame at
# 32 kbit/s; made once and kept in the data folder) converted by one kavo convert -j 2 into a
# directory, next to ffmpeg's MP3 -> 8000 Hz mono G.726 (32 kbit/s) run on the same files by
# xargs -P 2, each on one thread. Wall and CPU time as ratios of medians over alternating runs
# (fewer rounds than the other parts: ffmpeg starts 200 processes in each), and the peak
# resident memory of the largest process of the run (/usr/bin/time %M).
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

kavo_folder() { "$@" "$kavo" convert -q -j 2 "$prompts"/*.mp3 -o "$work/out"; }
ffmpeg_folder() {
  "$@" sh -c 'printf "%s\n" "$1"/*.mp3 | xargs -P 2 -I{} sh -c '\''ffmpeg -v error -y -threads 1 -i "$1" -ac 1 -ar 8000 -c:a g726le -threads 1 -f g726le "$2/$(basename "$1" .mp3).g726"'\'' _ {} "$2"' _ "$prompts" "$work/out"
}
after_run() {  # every prompt converted, in every run
  [ "$(ls "$work/out" | wc -l)" -eq "$count" ] || { echo "$1 did not write $count files" >&2; exit 1; }
}
prompt_runs=${BENCH_PROMPT_RUNS:-5}
alternate "$prompt_runs" kavo kavo_folder ffmpeg ffmpeg_folder

printf 'input: %d prompts of 4 s, 22.05 kHz mono, 32 kbit/s (%s bytes in all); median of %d alternating runs\n' \
  "$count" "$(cat "$prompts"/*.mp3 | wc -c)" "$prompt_runs"
table "A folder of prompts: kavo convert -j 2 against ffmpeg by xargs -P 2 ($count files, medians of $prompt_runs alternating runs)" \
  "measure" "kavo" "ffmpeg" "kavo / ffmpeg" "per-round ratios" "goal"
k=$(median kavo wall)
f=$(median ffmpeg wall)
row "wall" "$(seconds "$k")" "$(seconds "$f")" "$(ratio "$k" "$f")" "$(spread kavo ffmpeg wall)" \
  "$(awk -v r="$k" -v b="$f" 'BEGIN { printf "at most 0.100: %s (%.3f)", (r / b <= 0.1) ? "met" : "not met", r / b }')"
k=$(median kavo cpu)
f=$(median ffmpeg cpu)
row "CPU (user + system)" "$(seconds "$k")" "$(seconds "$f")" "$(ratio "$k" "$f")" \
  "$(spread kavo ffmpeg cpu)" -
k=$(median kavo peak)
f=$(median ffmpeg peak)
row "peak memory, largest process" "$(megabytes "$k")" "$(megabytes "$f")" "$(ratio "$k" "$f")" \
  "$(spread kavo ffmpeg peak)" -
table_end
note "Commands: \`kavo convert -q -j 2 DIR/*.mp3 -o OUT\` against \`xargs -P 2\` running" \
  "\`ffmpeg -v error -y -threads 1 -i IN -ac 1 -ar 8000 -c:a g726le -threads 1 -f g726le OUT\` per file;" \
  "every run is checked to have written all $count files."

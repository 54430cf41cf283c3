#!/usr/bin/env bash
# The conversion engine through its C interface (build/bench/engine_run): kavo_convert_memory
# on the 10-minute 44.1 kHz stereo 128 kbit/s MP3 of decode.sh (made here too if missing) next
# to ffmpeg's conversion to 8 kHz mono G.726 on one thread, wall and CPU time as ratios of
# medians over alternating runs; then the peak memory (maximum resident set) of
# kavo_convert_file for 1 minute and for 2 hours of the same audio (the 2-hour input is the
# 10-minute file twelve times over).
set -euo pipefail
mkdir -p "$1"
data=$(cd "$1" && pwd)
root=$(cd "$(dirname "$0")/../.." && pwd)
. "$root/bench/parts/common.sh"
run=$root/build/bench/engine_run
mp3=$data/decode_10min_44k_stereo_128k.mp3
make_mp3 600 "$mp3"
one_minute=$data/engine_1min.mp3
two_hours=$data/engine_2h.mp3
[ -s "$one_minute" ] || head -c 960000 "$mp3" >"$one_minute"
if [ ! -s "$two_hours" ]; then
  for _ in $(seq 12); do cat "$mp3"; done >"$two_hours.part"
  mv "$two_hours.part" "$two_hours"
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

engine_memory() { "$@" "$run" memory "$mp3" "$work/out/engine.adpcm"; }
ffmpeg_one() {
  "$@" ffmpeg -v error -y -threads 1 -i "$mp3" -ac 1 -ar 8000 -c:a g726le -threads 1 \
    -f g726le "$work/out/ffmpeg.g726"
}
file_minute() { "$@" "$run" file "$one_minute" "$work/out/minute.adpcm"; }
file_hours() { "$@" "$run" file "$two_hours" "$work/out/hours.adpcm"; }
alternate "$runs" engine engine_memory ffmpeg ffmpeg_one
alternate 3 minute file_minute
alternate 1 hours file_hours

printf 'input: 600 s, 44.1 kHz stereo, 128 kbit/s (%s bytes); median of %d alternating runs\n' \
  "$(stat -c %s "$mp3")" "$runs"
table "Conversion engine: kavo_convert_memory against ffmpeg (10-minute file, medians of $runs alternating runs)" \
  "measure" "kavo" "ffmpeg" "kavo / ffmpeg" "per-round ratios" "goal"
k=$(median engine wall)
f=$(median ffmpeg wall)
row "wall, kavo_convert_memory (its default threads)" "$(seconds "$k")" "$(seconds "$f")" \
  "$(ratio "$k" "$f")" "$(spread engine ffmpeg wall)" "$(goal "$(ratio "$k" "$f" 4)" 0.50)"
k=$(median engine cpu)
f=$(median ffmpeg cpu)
row "CPU (user + system), kavo_convert_memory" "$(seconds "$k")" "$(seconds "$f")" \
  "$(ratio "$k" "$f")" "$(spread engine ffmpeg cpu)" -
row "peak memory, kavo_convert_file, 1 minute (median of 3) / 2 hours (one run)" \
  "$(megabytes "$(median minute peak)") / $(megabytes "$(median hours peak)")" "" "" "" \
  "about 6 MB, whatever the length"
table_end
note "Commands: \`build/bench/engine_run memory IN OUT\` (the whole file read into memory first," \
  "then kavo_convert_memory), \`build/bench/engine_run file IN OUT\` (kavo_convert_file), and" \
  "\`ffmpeg -v error -y -threads 1 -i IN -ac 1 -ar 8000 -c:a g726le -threads 1 -f g726le OUT\`."

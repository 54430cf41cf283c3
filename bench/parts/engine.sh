#!/usr/bin/env bash
# The conversion engine: kavo_convert_memory on the 10-minute 44.1 kHz stereo 128 kbit/s MP3
# of decode.sh (made here too if missing) next to ffmpeg's conversion to 8 kHz mono G.726 in
# the same run (best of three wall times each), then the peak memory (maximum resident set) of
# kavo_convert_file for 1 minute and for 2 hours of the same audio (the 2-hour input is the
# 10-minute file twelve times over).
set -euo pipefail
data=${1:?usage: engine.sh DATADIR}
root=$(cd "$(dirname "$0")/../.." && pwd)
. "$root/bench/parts/common.sh"
run=$root/build/bench/engine_run
mp3=$data/decode_10min_44k_stereo_128k.mp3
make_mp3 600 "$mp3"
one_minute=$data/engine_1min.mp3
two_hours=$data/engine_2h.mp3
[ -s "$one_minute" ] || head -c 960000 "$mp3" > "$one_minute"
if [ ! -s "$two_hours" ]; then
  for _ in $(seq 12); do cat "$mp3"; done > "$two_hours.part"
  mv "$two_hours.part" "$two_hours"
fi
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

best_of_three() {  # prints the best wall time in seconds of three runs of "$@"
  local best=""
  for _ in 1 2 3; do
    local start end t
    start=$(date +%s.%N)
    "$@" >/dev/null 2>&1
    end=$(date +%s.%N)
    t=$(echo "$end - $start" | bc -l)
    if [ -z "$best" ] || [ "$(echo "$t < $best" | bc -l)" = 1 ]; then best=$t; fi
  done
  printf '%.3f' "$best"
}

peak_kb() {  # maximum resident set in kB of one run of "$@"
  /usr/bin/time -v "$@" 2>&1 >/dev/null | awk -F': ' '/Maximum resident set size/ {print $2}'
}

t_engine=$(best_of_three "$run" memory "$mp3" "$out/engine.adpcm")
t_ffmpeg=$(best_of_three ffmpeg -v error -y -i "$mp3" -ac 1 -ar 8000 -c:a g726le -f g726le "$out/ffmpeg.g726")
m_minute=$(peak_kb "$run" file "$one_minute" "$out/minute.adpcm")
m_hours=$(peak_kb "$run" file "$two_hours" "$out/hours.adpcm")
printf 'input: 600 s, 44.1 kHz stereo, 128 kbit/s (%s bytes)\n' "$(stat -c %s "$mp3")"
printf '  kavo_convert_memory : %7s s\n' "$t_engine"
printf '  ffmpeg to g726le    : %7s s   (engine / ffmpeg = %.2f, goal at most 0.50)\n' \
  "$t_ffmpeg" "$(echo "$t_engine / $t_ffmpeg" | bc -l)"
printf 'peak memory of kavo_convert_file: 1 minute %s kB, 2 hours %s kB\n' "$m_minute" "$m_hours"

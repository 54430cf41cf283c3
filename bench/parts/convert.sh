#!/usr/bin/env bash
# The whole conversion: kavo convert (the in-memory engine, in the command's own process) next
# to ffmpeg's MP3 -> 8000 Hz mono G.726 (32 kbit/s) on one thread, on the 10-minute 44.1 kHz
# stereo 128 kbit/s MP3 of decode.sh. The CPU time (user + system) of kavo on one thread
# (KAVO_ENGINE_THREADS=1) against ffmpeg's, the wall time of the default two-thread kavo, and
# the peak resident memory of each (/usr/bin/time %M), as ratios of medians over alternating
# runs. A 1-minute file made the same way shows that memory does not grow with length.
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

# ffmpeg's -threads before -i sets the decoder's threads, after it the encoder's, and for a
# simple filter graph the encoder's setting also sizes the graph's thread pool (two more
# threads on a 2-core machine without it): given in both places, the whole run has one thread.
mp3=$long
kavo_one() { KAVO_ENGINE_THREADS=1 "$@" "$kavo" convert "$mp3" "$work/out/kavo.adpcm"; }
kavo_two() { "$@" "$kavo" convert "$mp3" "$work/out/kavo.adpcm"; }
ffmpeg_one() {
  "$@" ffmpeg -v error -y -threads 1 -i "$mp3" -ac 1 -ar 8000 -c:a g726le -threads 1 \
    -f g726le "$work/out/ffmpeg.g726"
}
alternate "$runs" long_kavo_one kavo_one long_ffmpeg ffmpeg_one long_kavo_two kavo_two
i_one=$(instructions kavo_one)
i_two=$(instructions kavo_two)
i_ffmpeg=$(instructions ffmpeg_one)
mp3=$short
short_runs=3
alternate "$short_runs" short_kavo_one kavo_one short_ffmpeg ffmpeg_one short_kavo_two kavo_two

printf 'input: 600 s, 44.1 kHz stereo, 128 kbit/s (%s bytes); median of %d alternating runs\n' \
  "$(stat -c %s "$long")" "$runs"
table "Whole conversion: kavo convert against ffmpeg on one thread (10-minute file, medians of $runs alternating runs)" \
  "measure" "kavo" "ffmpeg" "kavo / ffmpeg" "per-round ratios" "goal" \
  "instructions, kavo" "instructions, ffmpeg" "instruction ratio"
compare() {  # compare LABEL KAVO_NAME FIELD GOAL_LIMIT KAVO_INSTRUCTIONS
  local k f q g=- iq=
  k=$(median "$2" "$3")
  f=$(median long_ffmpeg "$3")
  q=$(ratio "$k" "$f")
  case $4 in -) ;; about*) g=$4 ;; *) g=$(goal "$(ratio "$k" "$f" 4)" "$4") ;; esac
  if [ -n "$5" ]; then iq=$(ratio "${5% M}" "${i_ffmpeg% M}"); fi
  if [ "$3" = peak ]; then
    row "$1" "$(megabytes "$k")" "$(megabytes "$f")" "$q" "$(spread "$2" long_ffmpeg "$3")" \
      "$g" "" "" ""
  else
    row "$1" "$(seconds "$k")" "$(seconds "$f")" "$q" "$(spread "$2" long_ffmpeg "$3")" "$g" \
      "${5:-}" "${5:+$i_ffmpeg}" "$iq"
  fi
}
compare "CPU (user + system), kavo on one thread" long_kavo_one cpu 0.6 "$i_one"
compare "CPU (user + system), kavo on two threads" long_kavo_two cpu - "$i_two"
compare "wall, kavo on one thread" long_kavo_one wall - ""
compare "wall, kavo on two threads (its default)" long_kavo_two wall 0.50 ""
compare "peak memory, kavo on one thread" long_kavo_one peak "about 6 MB" ""
compare "peak memory, kavo on two threads" long_kavo_two peak "about 6 MB" ""
row "peak memory, 1-minute file, one thread / two threads" \
  "$(megabytes "$(median short_kavo_one peak)") / $(megabytes "$(median short_kavo_two peak)")" \
  "$(megabytes "$(median short_ffmpeg peak)")" "" "" "about 6 MB" "" "" ""
table_end
note "Commands: \`KAVO_ENGINE_THREADS=1 kavo convert IN OUT\` (one thread), \`kavo convert IN OUT\`" \
  "(two threads where the machine has two cores), \`ffmpeg -v error -y -threads 1 -i IN -ac 1 -ar 8000" \
  "-c:a g726le -threads 1 -f g726le OUT\` (-threads before -i is the decoder's, after it the encoder's" \
  "and the filter graph's: one thread in all). Goals: one-thread CPU at most 0.6 of ffmpeg's; peak" \
  "memory about 6 MB, the same for 1 and 10 minutes; wall time on two threads at most 0.50 of" \
  "ffmpeg's. The 1-minute memory figures are medians of $short_runs runs." \
  "$(counter_note)"

#!/usr/bin/env bash
# Decoding speed: kavo decode next to mpg123 and ffmpeg on the same 10-minute 44.1 kHz stereo
# 128 kbit/s MP3 (made once with sox and lame, kept in the data directory). Each decoder
# writes 16-bit PCM to a file; the best of three runs counts.
set -euo pipefail
data=${1:?usage: decode.sh DATADIR}
root=$(cd "$(dirname "$0")/../.." && pwd)
kavo=$root/build/kavo
mp3=$data/decode_10min_44k_stereo_128k.mp3
if [ ! -s "$mp3" ]; then
  sox -R -n -r 44100 -c 2 -b 16 "$data/decode_src.wav" synth 600 pinknoise vol 0.3 \
      synth 600 sine mix 220-3520 vol 0.6
  lame --quiet --cbr -b 128 "$data/decode_src.wav" "$mp3.part"
  mv "$mp3.part" "$mp3"
  rm -f "$data/decode_src.wav"
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

t_kavo=$(best_of_three "$kavo" decode "$mp3" "$out/kavo.pcm")
t_mpg123=$(best_of_three sh -c 'mpg123 -q -s --no-gapless "$1" > "$2"' mpg123 "$mp3" "$out/mpg123.pcm")
t_ffmpeg=$(best_of_three ffmpeg -v error -y -i "$mp3" -f s16le "$out/ffmpeg.pcm")
printf 'input: 600 s, 44.1 kHz stereo, 128 kbit/s (%s bytes)\n' "$(stat -c %s "$mp3")"
printf '  kavo decode : %7s s\n' "$t_kavo"
printf '  mpg123      : %7s s   (kavo / mpg123 = %.2f)\n' "$t_mpg123" "$(echo "$t_kavo / $t_mpg123" | bc -l)"
printf '  ffmpeg      : %7s s   (kavo / ffmpeg = %.2f)\n' "$t_ffmpeg" "$(echo "$t_kavo / $t_ffmpeg" | bc -l)"

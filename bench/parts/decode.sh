#!/usr/bin/env bash
# Decoding speed: kavo decode next to mpg123 and ffmpeg on the same 10-minute 44.1 kHz stereo
# 128 kbit/s MP3 (made once with sox and lame, kept in the data directory). Each decoder
# writes 16-bit PCM to a file; the best of five runs counts, for wall and for user time.
set -euo pipefail
data=${1:?usage: decode.sh DATADIR}
root=$(cd "$(dirname "$0")/../.." && pwd)
. "$root/bench/parts/common.sh"
mp3=$data/decode_10min_44k_stereo_128k.mp3
make_mp3 600 "$mp3"
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

# Five rounds; in each the three decoders take turns, so that a change in the machine's load
# reaches all of them. The best wall and the best user time of each count.
declare -A wall user
run() {  # run NAME COMMAND...: one timed run, kept if it is the best so far
  local name=$1 w u
  shift
  /usr/bin/time -f '%e %U' -o "$out/time" "$@" >/dev/null 2>&1
  read -r w u <"$out/time"
  if [ -z "${wall[$name]:-}" ] || [ "$(echo "$w < ${wall[$name]}" | bc -l)" = 1 ]; then wall[$name]=$w; fi
  if [ -z "${user[$name]:-}" ] || [ "$(echo "$u < ${user[$name]}" | bc -l)" = 1 ]; then user[$name]=$u; fi
}
for _ in 1 2 3 4 5; do
  run kavo "$kavo" decode "$mp3" "$out/kavo.pcm"
  run mpg123 sh -c 'mpg123 -q -s --no-gapless "$1" > "$2"' mpg123 "$mp3" "$out/mpg123.pcm"
  run ffmpeg ffmpeg -v error -y -i "$mp3" -f s16le "$out/ffmpeg.pcm"
done
ratio() { printf '%.2f' "$(echo "$1 / $2" | bc -l)"; }
printf 'input: 600 s, 44.1 kHz stereo, 128 kbit/s (%s bytes); best of five\n' "$(stat -c %s "$mp3")"
printf '  kavo decode : %6s s wall %6s s user\n' "${wall[kavo]}" "${user[kavo]}"
for ref in mpg123 ffmpeg; do
  printf '  %-11s : %6s s wall %6s s user   (kavo / %s: wall %s, user %s)\n' "$ref" \
    "${wall[$ref]}" "${user[$ref]}" "$ref" "$(ratio "${wall[kavo]}" "${wall[$ref]}")" \
    "$(ratio "${user[kavo]}" "${user[$ref]}")"
done

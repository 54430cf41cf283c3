#!/usr/bin/env bash
# Decoding: the user time of `kavo decode IN OUT.pcm` against `mpg123 -q --no-gapless -s IN`
# on the 10-minute 44.1 kHz stereo 128 kbit/s MP3 (made once with sox and lame, kept in the
# data folder), as the ratio of medians over alternating runs, with the instructions of one run
# of each beside it. kavo runs on the vector path it chooses, on the plain path, and on the AVX2
# path forced when that is not its own choice and KAVO_VECTOR_PATH can force it; ffmpeg's
# decode to 16-bit PCM is a second reference.
set -euo pipefail
mkdir -p "$1"
data=$(cd "$1" && pwd)
root=$(cd "$(dirname "$0")/../.." && pwd)
. "$root/bench/parts/common.sh"
mp3=$data/decode_10min_44k_stereo_128k.mp3
make_mp3 600 "$mp3"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

kavo_auto() { "$@" "$kavo" decode "$mp3" "$work/out/kavo.pcm"; }
kavo_plain() { KAVO_VECTOR_PATH=plain "$@" "$kavo" decode "$mp3" "$work/out/kavo.pcm"; }
kavo_avx2() { KAVO_VECTOR_PATH=avx2 "$@" "$kavo" decode "$mp3" "$work/out/kavo.pcm"; }
mpg123_run() { "$@" mpg123 -q --no-gapless -s "$mp3" >"$work/out/mpg123.pcm"; }
ffmpeg_run() { "$@" ffmpeg -v error -y -threads 1 -i "$mp3" -threads 1 -f s16le "$work/out/ffmpeg.pcm"; }

auto=$(vector_path_of "")
plain=$(vector_path_of plain)
forced=$(vector_path_of avx2)
contestants=(kavo_auto kavo_auto mpg123 mpg123_run kavo_plain kavo_plain)
if [ "$auto" != avx2 ] && [ "$forced" = avx2 ]; then contestants+=(kavo_avx2 kavo_avx2); fi
contestants+=(ffmpeg ffmpeg_run)
alternate "$runs" "${contestants[@]}"

avx512=no
if cpu_has avx512f; then avx512=yes; fi
# The goals: at most 0.85 of mpg123's user time where the processor has AVX-512 (on the path
# kavo takes there), at most 1.0 on the AVX2 path.
goals_of() {  # goals_of PATH auto|forced|none RATIO
  local cell=""
  if [ "$2" = none ]; then echo -; return; fi
  if [ "$2" = auto ] && [ "$avx512" = yes ]; then cell=$(goal "$3" 0.85 "AVX-512 processor"); fi
  if [ "$1" = avx512 ] && [ -z "$cell" ]; then cell=$(goal "$3" 0.85); fi
  if [ "$1" = avx2 ]; then cell+="${cell:+; }$(goal "$3" 1.0 "AVX2 path")"; fi
  echo "${cell:--}"
}

printf 'input: 600 s, 44.1 kHz stereo, 128 kbit/s (%s bytes); median of %d alternating runs\n' \
  "$(stat -c %s "$mp3")" "$runs"
table "Decoding, user time: kavo decode against mpg123 (10-minute file, medians of $runs alternating runs)" \
  "kavo decode" "kavo" "reference" "kavo / reference" "per-round ratios" "goal" \
  "instructions, kavo" "instructions, reference" "instruction ratio"
i_mpg123=$(instructions mpg123_run)
decode_row() {  # decode_row NAME LABEL PATH auto|forced|none REFERENCE_NAME REFERENCE_INSTRUCTIONS
  local k r ik
  k=$(median "$1" user)
  r=$(median "$5" user)
  ik=$(instructions "$1")
  row "$2" "$(seconds "$k")" "$(seconds "$r")" "$(ratio "$k" "$r")" "$(spread "$1" "$5" user)" \
    "$(goals_of "$3" "$4" "$(ratio "$k" "$r" 4)")" "$ik" "$6" "$(ratio "${ik% M}" "${6% M}")"
}
decode_row kavo_auto "path $auto (its own choice), against mpg123" "$auto" auto mpg123 "$i_mpg123"
decode_row kavo_plain "path $plain (KAVO_VECTOR_PATH=plain), against mpg123" "$plain" forced \
  mpg123 "$i_mpg123"
if [ -s "$work/kavo_avx2" ]; then
  decode_row kavo_avx2 "path avx2 (KAVO_VECTOR_PATH=avx2), against mpg123" avx2 forced mpg123 \
    "$i_mpg123"
fi
decode_row kavo_auto "path $auto (its own choice), against ffmpeg" "$auto" none ffmpeg \
  "$(instructions ffmpeg_run)"
table_end

processor="the processor has AVX2: $(cpu_has avx2 && echo yes || echo no), AVX-512F: $avx512"
if [ "$auto" = avx2 ]; then
  how="kavo takes the AVX2 path itself ($processor), so its own choice is the AVX2 path"
  if [ "$avx512" = yes ]; then
    how+="; it takes no AVX-512 path, so on this processor both goals apply to that row"
  fi
elif [ "$forced" = avx2 ]; then
  how="kavo takes $auto itself ($processor); the AVX2 path is measured forced with KAVO_VECTOR_PATH=avx2"
else
  how="kavo takes $auto itself ($processor); KAVO_VECTOR_PATH=avx2 gives $forced, so the AVX2 path cannot be forced here and only its own choice and plain are measured"
fi
note "Measure: user time of \`kavo decode IN OUT.pcm\` and of \`mpg123 -q --no-gapless -s IN > OUT\`" \
  "(and \`ffmpeg -v error -y -threads 1 -i IN -threads 1 -f s16le OUT\`), the ratio of the medians;" \
  "per-round ratios: the lowest and the highest ratio of one round's runs. $how." \
  "$(counter_note)"

#!/usr/bin/env bash
# ADPCM output stage on 10 minutes of 8000 Hz speech: `kavo encode` against ffmpeg's g726le
# encoder (32 kbit/s) on the same WAV file, each a whole process as a user would run it, CPU
# and wall time as ratios of medians over alternating runs; beside them adpcm_encode_file's
# own rate inside one process (build/bench/adpcm_bench, no process start).
set -euo pipefail
mkdir -p "$1"
data=$(cd "$1" && pwd)
root=$(cd "$(dirname "$0")/../.." && pwd)
. "$root/bench/parts/common.sh"
input=$data/speech_10min_8k.wav
if [ ! -s "$input" ]; then
  tmp=$(mktemp -d)
  espeak-ng -w "$tmp/s.wav" "The quick brown fox jumps over the lazy dog. Please leave a message \
after the tone, and we will call you back as soon as possible. Thank you for calling."
  # Looped to ten minutes, 8000 Hz mono 16-bit with a plain 44-byte header.
  ffmpeg -v error -y -stream_loop -1 -i "$tmp/s.wav" -t 600 -ar 8000 -ac 1 -c:a pcm_s16le \
    -fflags +bitexact -flags +bitexact -map_metadata -1 "$input"
  rm -rf "$tmp"
fi
samples=$(( ($(stat -c %s "$input") - 44) / 2 ))
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

kavo_encode() { "$@" "$kavo" encode "$input" "$work/out/kavo.adpcm"; }
ffmpeg_encode() {
  "$@" ffmpeg -v error -y -threads 1 -i "$input" -c:a g726le -code_size 4 -threads 1 \
    -f g726le "$work/out/ffmpeg.adpcm"
}
alternate "$runs" kavo kavo_encode ffmpeg ffmpeg_encode

# The stage inside one process: Google Benchmark's rate over at least 2 s of CPU time.
(cd "$work" && KAVO_BENCH_ADPCM_INPUT=$input "$root/build/bench/adpcm_bench" \
  --benchmark_filter='^EncodeFile/' --benchmark_out=adpcm.json --benchmark_out_format=json \
  >/dev/null 2>&1)
in_process=$(python3 -c '
import json, sys
print(json.load(open(sys.argv[1]))["benchmarks"][0]["items_per_second"])
' "$work/adpcm.json")

rate() { awk -v n="$samples" -v t="$1" 'BEGIN { if (t > 0) printf "%.1f M", n / t / 1e6; else printf "n/a" }'; }
printf 'input: %d samples (%d s at 8000 Hz); median of %d alternating runs\n' "$samples" \
  "$((samples / 8000))" "$runs"
table "ADPCM encoder: kavo encode against ffmpeg g726le (10 minutes of speech, medians of $runs alternating runs)" \
  "measure" "kavo" "ffmpeg" "kavo / ffmpeg" "per-round ratios"
cpu_wall_rows ffmpeg
k=$(median kavo wall)
f=$(median ffmpeg wall)
row "samples per second, whole process (from the median wall time)" "$(rate "$k")" "$(rate "$f")" \
  "$(ratio "$f" "$k")" ""
row "samples per second, adpcm_encode_file in one process (at least 2 s)" \
  "$(awk -v r="$in_process" 'BEGIN { printf "%.1f M", r / 1e6 }')" "" "" ""
table_end
note "Commands: \`kavo encode IN.wav OUT\`, \`ffmpeg -v error -y -threads 1 -i IN.wav -c:a g726le" \
  "-code_size 4 -threads 1 -f g726le OUT\`; \`build/bench/adpcm_bench --benchmark_filter=^EncodeFile/\`" \
  "for the stage alone (header copy, gain, coding, packing). The rate's ratio is kavo's rate over ffmpeg's."

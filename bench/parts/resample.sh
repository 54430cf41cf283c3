#!/usr/bin/env bash
# The resample stage (kavo resample: 44.1 kHz mono WAV to 8000 Hz) against sox on the same
# 10-minute file, CPU and wall time of each whole process as ratios of medians over
# alternating runs.
set -euo pipefail
mkdir -p "$1"
data=$(cd "$1" && pwd)
root=$(cd "$(dirname "$0")/../.." && pwd)
. "$root/bench/parts/common.sh"
in=$data/tones_44k_mono_10min.wav
if [ ! -s "$in" ]; then
  sox -n -r 44100 -c 1 -b 16 "$in.part.wav" synth 600 sine 200-3400 vol 0.5 2>/dev/null
  mv "$in.part.wav" "$in"
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

kavo_resample() { "$@" "$kavo" resample "$in" "$work/out/kavo.wav"; }
sox_resample() { "$@" sox "$in" -r 8000 "$work/out/sox.wav"; }
alternate "$runs" kavo kavo_resample sox sox_resample

printf 'input: 600 s of 44.1 kHz mono 16-bit WAV; median of %d alternating runs\n' "$runs"
table "Resampler: kavo resample against sox, 44.1 kHz to 8000 Hz (10 minutes, medians of $runs alternating runs)" \
  "measure" "kavo" "sox" "kavo / sox" "per-round ratios" "kavo, times real time"
times_real_time() { awk -v t="$1" 'BEGIN { if (t > 0) printf "%.0f", 600 / t }'; }
cpu_wall_rows sox times_real_time
table_end
note "Commands: \`kavo resample IN.wav OUT.wav\`, \`sox IN.wav -r 8000 OUT.wav\` (sox's default" \
  "quality); each writes a 16-bit WAV file."

#!/usr/bin/env bash
# The resample stage (kavo resample: 44.1 kHz mono WAV to 8000 Hz) against sox on the same
# 10-minute file, best of three runs each, and the ratio of the two.
set -euo pipefail
data=$1
mkdir -p "$data"
in=$data/tones_44k_mono_10min.wav
if [ ! -f "$in" ]; then
  sox -n -r 44100 -c 1 -b 16 "$in" synth 600 sine 200-3400 vol 0.5 2>/dev/null
fi
kavo=build/kavo
best() {  # best wall-clock seconds of three runs of the command
  local b=""
  for _ in 1 2 3; do
    local s e t
    s=$(date +%s.%N); "$@" >/dev/null 2>&1; e=$(date +%s.%N)
    t=$(echo "$e - $s" | bc -l)
    if [ -z "$b" ] || [ "$(echo "$t < $b" | bc -l)" = 1 ]; then b=$t; fi
  done
  echo "$b"
}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
ours=$(best "$kavo" resample "$in" "$out/kavo.wav")
theirs=$(best sox "$in" -r 8000 "$out/sox.wav")
audio=600
printf 'resample 10 min 44.1 kHz mono -> 8 kHz:  kavo %.3f s (%.0fx real time)   sox %.3f s (%.0fx)   sox/kavo time ratio %.2f\n' \
  "$ours" "$(echo "$audio / $ours" | bc -l)" "$theirs" "$(echo "$audio / $theirs" | bc -l)" \
  "$(echo "$theirs / $ours" | bc -l)"

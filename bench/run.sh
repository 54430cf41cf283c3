#!/usr/bin/env bash
# make bench: builds the benchmark inputs once (10 minutes of audio, cached in build/bench-data)
# and runs every stage's comparison with its reference tool, in one run.
set -euo pipefail
cd "$(dirname "$0")/.."
data=build/bench-data
mkdir -p "$data"
shopt -s nullglob
ran=0
for part in bench/parts/*.sh; do
  echo "== $(basename "$part" .sh)"
  bash "$part" "$data"
  ran=$((ran + 1))
done
if [ "$ran" -eq 0 ]; then
  echo "no benchmarks are built yet"
fi

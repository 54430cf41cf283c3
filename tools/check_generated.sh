#!/usr/bin/env bash
# Reruns the table generators and fails on any difference with the committed tables, so that
# a table edited by hand, or a generator changed without regenerating, cannot go unnoticed.
# Usage: tools/check_generated.sh [DATA_DIR]   (default: tools/data, the standard's Huffman code
# lists and synthesis window as verified text, with their consistency check)
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
data="${1:-$root/tools/data}"
out="$(mktemp -d)"
trap 'rm -rf "$out"' EXIT
python3 "$root/tools/gen_filters.py" > "$out/filter_tables.cpp"
python3 "$root/tools/gen_layer3_tables.py" "$data" "$out"
status=0
for pair in resample/filter_tables.cpp layer3/huffman_tables.cpp layer3/synthesis_window.cpp \
            layer3/layer3_tables.cpp; do
  if ! diff -u "$root/src/$pair" "$out/$(basename "$pair")" > "$out/diff"; then
    echo "check_generated: src/$pair differs from what its generator writes:" >&2
    head -20 "$out/diff" >&2
    status=1
  fi
done
[ "$status" -eq 0 ] && echo "check_generated: every generated table matches its generator"
exit "$status"

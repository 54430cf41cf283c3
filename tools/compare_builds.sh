#!/usr/bin/env bash
# Runs two builds of the kavo command on the same inputs and compares what they produce, byte
# for byte: `kavo convert` and `kavo decode` (to .wav and .txt) of every input, with their exit
# codes and standard output. Used to show that a speed change leaves every output unchanged.
# usage: tools/compare_builds.sh OLD_KAVO NEW_KAVO INPUT...
set -uo pipefail
old=${1:?usage: compare_builds.sh OLD_KAVO NEW_KAVO INPUT...}
new=${2:?usage: compare_builds.sh OLD_KAVO NEW_KAVO INPUT...}
old=$(realpath "$old")
new=$(realpath "$new")
shift 2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
compared=0
differ=0
for input in "$@"; do
  input=$(realpath "$input")
  name=$(basename "$input")
  for job in convert:adpcm decode:wav decode:txt; do
    cmd=${job%%:*}
    ext=${job##*:}
    for side in old new; do
      bin=$old
      [ "$side" = new ] && bin=$new
      mkdir -p "$work/$side"
      rm -f "$work/$side/out.$ext"
      (cd "$work/$side" && "$bin" "$cmd" "$input" "out.$ext" >stdout 2>/dev/null
       echo $? >code)
    done
    for f in "out.$ext" stdout code; do
      compared=$((compared + 1))
      if [ -e "$work/old/$f" ] || [ -e "$work/new/$f" ]; then
        if ! cmp -s "$work/old/$f" "$work/new/$f"; then
          echo "DIFFERENT: $cmd $name ($f)"
          differ=$((differ + 1))
        fi
      fi
    done
  done
done
echo "compared $compared outputs of $# inputs: $differ different"
[ "$differ" -eq 0 ]

#!/usr/bin/env bash
# Runs the README's examples marked as runnable (a code block opened with "```sh runnable" or
# "```python runnable"), each in a fresh folder holding a copy of examples/, with the built
# command first on PATH (as "kavo") and the Python module over the built library. A block fails the test
# when any of its commands fails.
# usage: readme_examples.sh README KAVO_COMMAND LIBKAVO
set -euo pipefail
readme=$(realpath "${1:?usage: readme_examples.sh README BUILD_DIR}")
build=$(dirname "$(realpath "${2:?usage: readme_examples.sh README KAVO_COMMAND LIBKAVO}")")
library=$(realpath "${3:?usage: readme_examples.sh README KAVO_COMMAND LIBKAVO}")
root=$(dirname "$readme")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export PATH="$build:$PATH" PYTHONPATH="$root/python" KAVO_LIBRARY="$library"

# Each runnable block into a file of its own: block-N.sh or block-N.py.
awk -v dir="$work" '
  /^```(sh|python) runnable$/ { n++; ext = ($0 ~ /python/) ? "py" : "sh";
                                 dest = sprintf("%s/block-%02d.%s", dir, n, ext); next }
  /^```/ && dest != ""         { close(dest); dest = ""; next }
  dest != ""                   { print > dest }
' "$readme"

ran=0
failed=0
for block in "$work"/block-*; do
  case=$(mktemp -d "$work/run.XXXX")
  cp -r "$root/examples" "$case/"
  if [ "${block##*.}" = py ]; then
    run=(python3 "$block")
  else
    run=(bash -euo pipefail "$block")
  fi
  if ! (cd "$case" && "${run[@]}") >"$case.log" 2>&1; then
    echo "README example $(basename "$block") failed:" >&2
    sed 's/^/  | /' "$block" >&2
    sed 's/^/  > /' "$case.log" >&2
    failed=$((failed + 1))
  fi
  ran=$((ran + 1))
done
echo "README examples: $ran run, $failed failed"
[ "$ran" -gt 0 ] && [ "$failed" -eq 0 ]

#!/usr/bin/env bash
# Runs a test program's kernel tests once on each vector path: the library takes the one that
# KAVO_VECTOR_PATH names and says so, or says that the processor lacks it (then that run
# checks the path it fell back to). Writes the paths it ran to RECORD, for the CI log.
# usage: each_vector_path.sh PROGRAM GTEST_FILTER RECORD
set -uo pipefail
program=$1
filter=$2
record=$3
ran=""
for path in plain avx2 avx512; do
  out=$(KAVO_VECTOR_PATH=$path "$program" --gtest_filter="$filter" 2>&1)
  status=$?
  if [ "$status" -ne 0 ] || ! grep -Eq '^\[  PASSED  \] [1-9][0-9]* test' <<<"$out"; then
    echo "$out"
    echo "$(basename "$program") on the $path path: FAILED"
    exit 1
  fi
  if grep -qx "kavo vector path: $path is not supported by this processor" <<<"$out"; then
    echo "$path: not on this processor"
  elif grep -qx "kavo vector path: $path" <<<"$out"; then
    ran="$ran $path"
  else
    echo "$out"
    echo "the library did not name the $path path"
    exit 1
  fi
done
mkdir -p "$(dirname "$record")"
echo "$(basename "$program"):$ran" >"$record"
echo "$(basename "$program") passed on the vector paths:$ran"

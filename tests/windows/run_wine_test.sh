#!/usr/bin/env bash
# The Windows DLL under Wine against the Linux build, on the same input and gain:
#   status 1 and version 1.2 from both hosts; the ADPCM output byte-identical; the progress
#   sequence identical; the temporary files gone and "temp.txt" left.
# Needs build/ (make release) and build-windows/ (make windows). Fails, saying why, when Wine
# cannot start.
set -uo pipefail
cd "$(dirname "$0")/../.."
root=$(pwd)
fail() { echo "wine test: FAIL: $*"; exit 1; }

command -v wine >/dev/null || fail "wine is not installed (apt-get install wine64)"
[ -x build/tests/c_host ] || fail "build/tests/c_host is missing: run make release first"
[ -f build-windows/kavo.dll ] && [ -f build-windows/win_host.exe ] || fail "run make windows first"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export WINEPREFIX="$work/prefix" WINEARCH=win64 WINEDEBUG=-all
if ! timeout 300 wine cmd /c exit 0 >"$work/wineboot.log" 2>&1; then
  cat "$work/wineboot.log"
  fail "Wine could not start"
fi

status=0
for gain in 1.0 0.5; do
  for fixture in speech_mono_22k.mp3 speech_music_m1_44k_vbr.mp3 tone_m25_12k_stereo_crc.mp3; do
    [ -f "tests/fixtures/$fixture" ] || fail "fixture $fixture is missing"
    for side in linux windows; do
      mkdir -p "$work/$side"
      rm -f "$work/$side"/*
      cp "tests/fixtures/$fixture" "$work/$side/in.mp3"
    done
    (cd "$work/linux" && "$root/build/tests/c_host" in.mp3 out.adpcm "$gain" 7 >seen.txt 2>log.txt)
    cp build-windows/kavo.dll build-windows/win_host.exe "$work/windows/"
    (cd "$work/windows" && timeout 300 wine win_host.exe kavo.dll in.mp3 out.adpcm "$gain" \
        2>log.txt | tr -d '\r' >seen.txt)
    rm -f "$work/windows/kavo.dll" "$work/windows/win_host.exe"
    label="$fixture gain $gain"
    tail -n 1 "$work/windows/seen.txt" | grep -qx "status 1 version 1.2" ||
      { echo "$label: Windows result: $(tail -n 1 "$work/windows/seen.txt")"; status=1; }
    tail -n 1 "$work/linux/seen.txt" | grep -qx "status 1 version 1.2" ||
      { echo "$label: Linux result: $(tail -n 1 "$work/linux/seen.txt")"; status=1; }
    cmp -s "$work/linux/out.adpcm" "$work/windows/out.adpcm" ||
      { echo "$label: ADPCM outputs differ"; status=1; }
    diff -q "$work/linux/seen.txt" "$work/windows/seen.txt" >/dev/null ||
      { echo "$label: progress sequences differ"; diff "$work/linux/seen.txt" "$work/windows/seen.txt" | head; status=1; }
    left=$(cd "$work/windows" && ls | grep -v -x -e in.mp3 -e out.adpcm -e seen.txt -e log.txt | tr '\n' ' ')
    [ "$left" = "temp.txt " ] || { echo "$label: Windows left: $left"; status=1; }
    [ -s "$work/windows/out.adpcm" ] || { echo "$label: empty output"; status=1; }
    echo "$label: $(stat -c %s "$work/windows/out.adpcm") bytes, $(grep -c '^progress' "$work/windows/seen.txt") progress calls"
  done
done
[ "$status" -eq 0 ] && echo "wine test: PASS" || echo "wine test: FAIL"
exit "$status"

#!/usr/bin/env bash
# The Windows DLL under Wine against the Linux build, on the same input and gain:
#   status 1 and version 1.2 from both hosts; the ADPCM output byte-identical; the progress
#   sequence identical; the temporary files gone and "temp.txt" left.
# Then kavo.exe against the Linux command: one conversion, a batch on two threads (with a WAV
# prompt and an input that fails) and an expansion, each output byte-identical.
# Needs build/ (make release) and build-windows/ (make windows). Fails, saying why, when Wine
# cannot start.
set -uo pipefail
cd "$(dirname "$0")/../.."
root=$(pwd)
fail() { echo "wine test: FAIL: $*"; exit 1; }

command -v wine >/dev/null || fail "wine is not installed (bash tools/install-deps.sh installs it)"
[ -x build/tests/c_host ] && [ -x build/kavo ] || fail "run make release first"
[ -f build-windows/kavo.dll ] && [ -f build-windows/win_host.exe ] && [ -f build-windows/kavo.exe ] && [ -f build-windows/report_v1.exe ] ||
  fail "run make windows first"

work=$(mktemp -d)
trap 'wineserver -k >/dev/null 2>&1; rm -rf "$work"' EXIT
export WINEPREFIX="$work/prefix" WINEARCH=win64 WINEDEBUG=-all
if ! timeout 300 wine cmd /c exit 0 >"$work/wineboot.log" 2>&1; then
  cat "$work/wineboot.log"
  fail "Wine could not start"
fi

status=0
# The DLL chooses its vector unit from the processor's features like the Linux build: with
# KAVO_VECTOR_PATH set it names its choice, the widest path the processor has.
expected_path=plain
flags=$(grep -m 1 '^flags' /proc/cpuinfo)
grep -qw avx2 <<<"$flags" && expected_path=avx2
[ "$(grep -ow -e avx512f -e avx512dq -e avx512bw -e avx512vl <<<"$flags" | sort -u | wc -l)" -eq 4 ] &&
  expected_path=avx512
mkdir -p "$work/path"
cp build-windows/kavo.dll build-windows/win_host.exe tests/fixtures/speech_mono_22k.mp3 "$work/path/"
chosen=$(cd "$work/path" && KAVO_VECTOR_PATH=auto timeout 300 wine win_host.exe kavo.dll \
    speech_mono_22k.mp3 out.adpcm 1.0 2>&1 >/dev/null | tr -d '\r' | grep '^kavo vector path:')
echo "DLL under Wine: $chosen (processor: $expected_path)"
[ "$chosen" = "kavo vector path: $expected_path" ] || { echo "the DLL did not take the $expected_path path"; status=1; }

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
    for side in linux windows; do
      tail -n 1 "$work/$side/seen.txt" | grep -qx "status 1 version 1.2" ||
        { echo "$label: $side result: $(tail -n 1 "$work/$side/seen.txt")"; status=1; }
    done
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
cp build-windows/kavo.dll build-windows/report_v1.exe tests/fixtures/speech_mono_22k.mp3 "$work/path/"
(cd "$work/path" && timeout 300 wine report_v1.exe speech_mono_22k.mp3 | tr -d '\r') ||
  { echo "report_v1.exe: the first version's records failed through kavo.dll"; status=1; }
# The command. Both sides convert in directories of the same layout.
fixtures="speech_mono_22k.mp3 speech_music_m1_44k_vbr.mp3 tone_m25_12k_stereo_crc.mp3 empty.mp3"
for side in linux windows; do
  rm -rf "${work:?}/$side"
  mkdir -p "$work/$side/in"
  for fixture in $fixtures; do cp "tests/fixtures/$fixture" "$work/$side/in/"; done
done
(cd "$work/linux" && "$root/build/kavo" decode -q in/speech_mono_22k.mp3 in/prompt.wav)
cp "$work/linux/in/prompt.wav" "$work/windows/in/"
run_side() {  # run_side SIDE ARGS...: the side's kavo in its directory; the exit status kept
  local side=$1
  shift
  if [ "$side" = linux ]; then
    (cd "$work/linux" && "$root/build/kavo" "$@" 2>>log.txt)
  else
    cp build-windows/kavo.exe "$work/windows/"
    (cd "$work/windows" && timeout 300 wine kavo.exe "$@" 2>>log.txt)
  fi
  echo $? >>"$work/$side/codes.txt"
}
for side in linux windows; do
  run_side "$side" convert in/speech_music_m1_44k_vbr.mp3 one.adpcm
  run_side "$side" convert -j 2 in/speech_mono_22k.mp3 in/tone_m25_12k_stereo_crc.mp3 in/empty.mp3 \
    in/prompt.wav -o batch
  run_side "$side" expand one.adpcm one.wav
done
diff -q "$work/linux/codes.txt" "$work/windows/codes.txt" >/dev/null ||
  { echo "kavo.exe: exit codes $(tr '\n' ' ' <"$work/windows/codes.txt"), Linux $(tr '\n' ' ' <"$work/linux/codes.txt")"; status=1; }
[ "$(tr '\n' ' ' <"$work/linux/codes.txt")" = "0 1 0 " ] ||
  { echo "kavo: exit codes $(tr '\n' ' ' <"$work/linux/codes.txt"), expected 0 1 0"; status=1; }
for file in one.adpcm one.wav batch/speech_mono_22k.adpcm batch/tone_m25_12k_stereo_crc.adpcm batch/prompt.adpcm; do
  [ -s "$work/linux/$file" ] && cmp -s "$work/linux/$file" "$work/windows/$file" ||
    { echo "kavo.exe $file: differs from the Linux command's or is missing"; status=1; }
done
for side in linux windows; do
  left=$(cd "$work/$side/batch" && ls | tr '\n' ' ')
  [ "$left" = "prompt.adpcm speech_mono_22k.adpcm tone_m25_12k_stereo_crc.adpcm " ] ||
    { echo "$side batch directory holds: $left"; status=1; }
done
grep -q "empty.mp3: no MPEG audio Layer III frames found" "$work/windows/log.txt" ||
  { echo "kavo.exe did not name the failing input:"; cat "$work/windows/log.txt"; status=1; }

[ "$status" -eq 0 ] && echo "wine test: PASS" || echo "wine test: FAIL"
exit "$status"

# What the benchmark parts share; sourced, not run, after the part has set root (the project).

kavo=$root/build/kavo

# make_mp3 SECONDS FILE: 44.1 kHz stereo pink noise and a sine sweep, lame at 128 kbit/s CBR,
# made once and kept in the data folder.
make_mp3() {
  if [ ! -s "$2" ]; then
    sox -R -n -r 44100 -c 2 -b 16 "$2.wav" synth "$1" pinknoise vol 0.3 \
        synth "$1" sine mix 220-3520 vol 0.6
    lame --quiet --cbr -b 128 "$2.wav" "$2.part"
    mv "$2.part" "$2"
    rm -f "$2.wav"
  fi
}

# run_best NAME CMD...: the best wall time of three runs (s) and the peak memory of that run
# (KB) into $work/NAME; each run starts with an empty $work/out.
run_best() {
  local name=$1
  shift
  local best="" mem="" t m
  for _ in 1 2 3; do
    rm -rf "$work/out"
    mkdir -p "$work/out"
    /usr/bin/time -f '%e %M' -o "$work/time" "$@" >/dev/null 2>&1
    read -r t m <"$work/time"
    if [ -z "$best" ] || [ "$(echo "$t < $best" | bc -l)" = 1 ]; then
      best=$t
      mem=$m
    fi
  done
  echo "$best $mem" >"$work/$name"
}

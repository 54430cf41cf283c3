# What the benchmark parts share; sourced, not run, after the part has set root (the project).
#
# bench/run.sh measures the machine once and hands the parts these settings; a part run alone
# (bash bench/parts/decode.sh DATADIR) works them out itself:
#   BENCH_RUNS        rounds of alternating runs behind each median (7)
#   BENCH_REPORT      markdown file the tables are added to (none)
#   BENCH_UNRELIABLE  1 when the load average was above 0.5 per core at the start
#   BENCH_PERF        "yes" when perf can count instructions:u, else the reason it cannot

kavo=$root/build/kavo
runs=${BENCH_RUNS:-7}
report=${BENCH_REPORT:-/dev/null}

# The 1-minute load average divided by the number of cores.
load_per_core() {
  awk -v cores="$(nproc)" '{ printf "%.2f", $1 / cores }' /proc/loadavg
}

# Sets BENCH_PERF: "yes" when perf stat can count this process's user-space instructions, or
# what it says instead (in a virtual machine the counters are often not passed through).
perf_check() {
  local out
  out=$(mktemp)
  if ! perf stat -x, -e instructions:u -o "$out" -- true >/dev/null 2>"$out.err"; then
    BENCH_PERF="perf stat failed: $(head -n 1 "$out.err")"
  else
    local count
    count=$(awk -F, '/instructions/ { print $1 }' "$out")
    if [[ "$count" =~ ^[0-9]+$ ]]; then BENCH_PERF=yes; else BENCH_PERF="instructions:u ${count:-not counted}"; fi
  fi
  rm -f "$out" "$out.err"
}

if [ -z "${BENCH_UNRELIABLE:-}" ]; then
  BENCH_UNRELIABLE=$(awk -v cores="$(nproc)" '{ print ($1 > 0.5 * cores) ? 1 : 0 }' /proc/loadavg)
fi
[ -n "${BENCH_PERF:-}" ] || perf_check

# The vector path the library takes with KAVO_VECTOR_PATH set to VALUE (empty: its own choice),
# as it names it on standard error; "refused" when it names none.
vector_path_of() {
  local name
  name=$(KAVO_VECTOR_PATH=$1 "$kavo" --version 2>&1 >/dev/null | awk '/vector path/ { print $NF }')
  echo "${name:-refused}"
}

# Whether the processor announces a feature (a flag of /proc/cpuinfo, such as avx512f).
cpu_has() {
  grep -m 1 '^flags' /proc/cpuinfo | grep -qw "$1"
}

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

# alternate ROUNDS NAME FUNCTION [NAME FUNCTION ...]: ROUNDS rounds in which each contestant
# runs once in turn (kavo, reference, kavo, reference, ...), so that a change in the machine's
# load reaches all of them alike. A FUNCTION runs its command behind the words it is given,
# "$@" cmd ..., which here are /usr/bin/time's; each run starts with an empty $work/out and adds
# a line "wall user sys user+sys peak_kB" to $work/NAME. A failed run stops the benchmark; so
# does a function after_run, where the part defines one, that fails on NAME's run's output.
alternate() {
  local rounds=$1 round i name fn
  shift
  local -a pairs=("$@")
  for ((round = 0; round < rounds; round++)); do
    for ((i = 0; i < ${#pairs[@]}; i += 2)); do
      name=${pairs[i]}
      fn=${pairs[i + 1]}
      rm -rf "$work/out"
      mkdir -p "$work/out"
      if ! "$fn" /usr/bin/time -f '%e %U %S %M' -o "$work/time" >/dev/null 2>"$work/stderr"; then
        echo "bench: $name failed:" >&2
        cat "$work/stderr" >&2
        exit 1
      fi
      if declare -F after_run >/dev/null; then after_run "$name"; fi
      awk '{ printf "%s %s %s %.2f %s\n", $1, $2, $3, $2 + $3, $4 }' "$work/time" >>"$work/$name"
    done
  done
}

# Fields of a run's line: wall, user, sys, cpu (user + sys), peak memory.
field_number() {
  case $1 in wall) echo 1 ;; user) echo 2 ;; sys) echo 3 ;; cpu) echo 4 ;; peak) echo 5 ;; esac
}

# median NAME FIELD: the median of that field over NAME's runs.
median() {
  awk -v f="$(field_number "$2")" '{ print $f }' "$work/$1" | sort -g |
    awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

# ratio A B [PLACES]: A / B to two places (or PLACES), n/a when B is not a positive number.
ratio() {
  awk -v a="$1" -v b="$2" -v p="${3:-2}" \
    'BEGIN { if (b + 0 > 0 && a ~ /^[0-9.]+$/) printf "%.*f", p, a / b; else printf "n/a" }'
}

# spread A B FIELD: the lowest and the highest ratio A / B of one round, "0.97-1.23".
spread() {
  local f
  f=$(field_number "$3")
  paste -d ' ' "$work/$1" "$work/$2" | awk -v f="$f" '
    $(f + 5) > 0 { r = $f / $(f + 5); if (n++ == 0 || r < lo) lo = r; if (r > hi) hi = r }
    END { if (n) printf "%.2f-%.2f", lo, hi; else printf "n/a" }'
}

# seconds VALUE, megabytes KB: figures as the tables show them.
seconds() { awk -v v="$1" 'BEGIN { printf "%.2f s", v }'; }
megabytes() { awk -v v="$1" 'BEGIN { printf "%.1f MiB", v / 1024 }'; }

# instructions FUNCTION: the user-space instructions of one run of the contestant, counted by
# perf stat (the machine's load does not move them), in millions, or n/a where perf cannot
# count them. Counted once per contestant and kept in $work.
instructions() {
  local kept=$work/$1.instructions
  if [ ! -s "$kept" ]; then
    if [ "$BENCH_PERF" != yes ] && command -v valgrind >/dev/null; then
      # Without the processor's counters, callgrind counts the same instructions exactly, one
      # run at some 50 times the time. valgrind hides AVX-512 from the program, so a count for
      # kavo's own choice is that of its AVX2 path at most.
      rm -rf "$work/out"
      mkdir -p "$work/out"
      if "$1" valgrind --tool=callgrind --callgrind-out-file="$work/callgrind.out" \
           >/dev/null 2>"$work/callgrind.err"; then
        awk '/Collected :/ { printf "%.0f M\n", $NF / 1e6; found = 1 }
             END { if (!found) print "n/a" }' "$work/callgrind.err" >"$kept"
      else
        echo n/a >"$kept"
      fi
      rm -f "$work/callgrind.out"
    elif [ "$BENCH_PERF" != yes ]; then
      echo n/a >"$kept"
    else
      rm -rf "$work/out"
      mkdir -p "$work/out"
      if "$1" perf stat -x, -e instructions:u -o "$work/perf" -- >/dev/null 2>&1; then
        awk -F, '/instructions/ && $1 ~ /^[0-9]+$/ { printf "%.0f M\n", $1 / 1e6; found = 1 }
                 END { if (!found) print "n/a" }' "$work/perf" >"$kept"
      else
        echo n/a >"$kept"
      fi
    fi
  fi
  cat "$kept"
}

# cpu_wall_rows REFERENCE [EXTRA]: the CPU and wall rows of a whole-process comparison of kavo
# with REFERENCE; EXTRA, when given, is a function that prints one more cell from kavo's time.
cpu_wall_rows() {
  local ref=$1 extra=${2:-} field k r label
  for field in cpu wall; do
    k=$(median kavo $field)
    r=$(median "$ref" $field)
    label="CPU (user + system)"
    [ $field = wall ] && label="wall"
    row "$label, whole process" "$(seconds "$k")" "$(seconds "$r")" "$(ratio "$k" "$r")" \
      "$(spread kavo "$ref" $field)" ${extra:+"$($extra "$k")"}
  done
}

# counter_note: how the tables' instruction counts were taken, for the note under a table.
counter_note() {
  if [ "$BENCH_PERF" = yes ]; then
    echo "Instruction counts: perf stat, instructions:u, one run each."
  elif command -v valgrind >/dev/null; then
    echo "Instruction counts: callgrind, one run each (perf cannot count here: $BENCH_PERF);" \
         "valgrind hides AVX-512, so kavo is counted on its AVX2 path at most, and it cannot run" \
         "ffmpeg to the end (an RDTSCP instruction it does not know), so ffmpeg has none."
  else
    echo "Instruction counts: none, perf cannot count them on this machine ($BENCH_PERF)."
  fi
}

# goal RATIO LIMIT [WHERE]: "at most LIMIT (WHERE): met", or "not met", for the ratio unrounded
# (ratio A B 4). ASCII only: the tables are aligned by bytes.
goal() {
  awk -v r="$1" -v g="$2" -v w="${3:-}" 'BEGIN {
    printf "at most %s%s: %s", g, (w != "" ? " (" w ")" : ""),
      (r ~ /^[0-9.]+$/ ? (r + 0 <= g + 0 ? "met" : "not met") : "n/a") }'
}

# table TITLE COLUMN...: starts a table; row CELL...: adds a row; table_end prints it with its
# columns aligned and adds it to the report. While the load is too high every row is marked.
table() {
  local title=$1
  shift
  [ "$BENCH_UNRELIABLE" = 1 ] && title+=" (UNRELIABLE)" && set -- "$@" figures
  table_file=$(mktemp)
  printf '%s\n' "$title" >"$table_file"
  (IFS=$'\t'; printf '%s\n' "$*") >>"$table_file"
}
row() {
  [ "$BENCH_UNRELIABLE" = 1 ] && set -- "$@" UNRELIABLE
  (IFS=$'\t'; printf '%s\n' "$*") >>"$table_file"
}
table_end() {
  awk -F '\t' '
    NR == 1 { title = $0; next }
    { n = NR - 1; cells[n] = NF; for (i = 1; i <= NF; i++) { c[n, i] = $i
        if (length($i) > w[i]) w[i] = length($i) } }
    END {
      print "#### " title; print ""
      for (r = 1; r <= n; r++) {
        line = "|"
        for (i = 1; i <= cells[r]; i++) line = line sprintf(" %-*s |", w[i], c[r, i])
        print line
        if (r == 1) { line = "|"; for (i = 1; i <= cells[r]; i++) {
            d = ""; for (k = 0; k < w[i] + 2; k++) d = d "-"; line = line d "|" }
          print line }
      }
      print "" }' "$table_file" | tee -a "$report"
  rm -f "$table_file"
}

# note TEXT: a paragraph under the table, on the console and in the report.
note() {
  printf '%s\n\n' "$*" | tee -a "$report"
}

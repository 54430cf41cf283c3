#!/usr/bin/env bash
# make bench: first the machine, the vector path kavo takes, the reference tools' versions and
# the machine's load before anything runs; then each part (bench/parts/NAME.sh) compares a
# stage with its reference tool as ratios of medians over alternating runs. The tables go to
# the console and to build/bench-report.md, ready to paste into doc/performance.md. When the
# 1-minute load average is above 0.5 per core, every figure is marked UNRELIABLE and must not
# go into the documentation. The inputs are made once and kept in build/bench-data.
#
# BENCH_PARTS="decode convert" runs only those parts; BENCH_RUNS (7) and BENCH_PROMPT_RUNS (3)
# set the number of rounds.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
data=$root/build/bench-data
mkdir -p "$data"
start=$(date +%s)

# The processors' time since boot, in ticks: busy (user, nice, system, irq, softirq), stolen by
# the hypervisor for other machines, and the whole.
ticks() {
  awk '/^cpu / { print $2 + $3 + $4 + $7 + $8, $9, $2 + $3 + $4 + $5 + $6 + $7 + $8 + $9 }' /proc/stat
}
# The processor time of this script's finished children (so of every part), in ticks.
own_ticks() {
  awk '{ sub(/.*\) /, ""); print $12 + $13 + $14 + $15 }' "/proc/$$/stat"
}
percent() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.1f", (b > 0) ? 100 * a / b : 0 }'; }

# The load before the benchmark starts, and one second's steal and busy share.
read -r load1 load5 load15 _ </proc/loadavg
read -r busy0 steal0 total0 < <(ticks)
sleep 1
read -r busy1 steal1 total1 < <(ticks)
steal=$(percent $((steal1 - steal0)) $((total1 - total0)))
busy=$(percent $((busy1 - busy0)) $((total1 - total0)))
cores=$(nproc)
per_core=$(awk -v l="$load1" -v c="$cores" 'BEGIN { printf "%.2f", l / c }')
BENCH_UNRELIABLE=$(awk -v l="$load1" -v c="$cores" 'BEGIN { print (l > 0.5 * c) ? 1 : 0 }')
export BENCH_UNRELIABLE
export BENCH_REPORT=$root/build/bench-report.md
export BENCH_RUNS=${BENCH_RUNS:-7}
export BENCH_PROMPT_RUNS=${BENCH_PROMPT_RUNS:-3}
. bench/parts/common.sh
export BENCH_PERF

model=$(awk -F ': ' '/^model name/ { print $2; exit }' /proc/cpuinfo)
[ -n "$model" ] || model=$(lscpu | awk -F ': *' '/^Model name/ { print $2; exit }')
features=""
for flag in avx2 avx512f; do
  if cpu_has "$flag"; then features+="${features:+ }$flag"; fi
done
path=$(vector_path_of "")
cxx=$(awk -F= '/^CMAKE_CXX_COMPILER:/ { print $2 }' build/CMakeCache.txt)
compiler=$("${cxx:-c++}" --version 2>/dev/null | awk 'NR == 1' || true)
commit=$(git rev-parse --short HEAD 2>/dev/null || echo unknown)
[ -z "$(git status --porcelain --untracked-files=no 2>/dev/null)" ] || commit+=" with changes"
when=$(date -u '+%Y-%m-%d %H:%M UTC')
v_mpg123=$(mpg123 --version | awk 'NR == 1 { print $2 }')
v_ffmpeg=$(ffmpeg -version | awk 'NR == 1 { print $3 }')
v_sox=$(sox --version | awk '{ sub(/^v/, "", $NF); print $NF }')
v_lame=$(lame --version | awk 'NR == 1 { for (i = 1; i < NF; i++) if ($i == "version") print $(i + 1) }')
v_perf=$(perf --version 2>/dev/null | awk '{ print $NF }' || true)
if [ "$BENCH_PERF" = yes ]; then counters="perf counts instructions:u"
elif command -v valgrind >/dev/null; then
  counters="perf cannot count instructions here ($BENCH_PERF): callgrind counts them (one run each; valgrind hides AVX-512, so kavo's own choice is counted on AVX2 at most)"
else counters="perf cannot count instructions here ($BENCH_PERF): the tables carry no instruction counts"
fi
warning="UNRELIABLE: the 1-minute load average was $load1 on $cores cores ($per_core per core, above 0.5) when the benchmark started; every figure below is marked UNRELIABLE and must not go into doc/performance.md."

cat <<EOF
machine    : $model, $cores cores, $(uname -sr); processor features: ${features:-none of avx2, avx512f}
kavo       : vector path $path (its own choice), commit $commit, $compiler
references : mpg123 $v_mpg123, ffmpeg $v_ffmpeg, SoX $v_sox, LAME $v_lame, perf $v_perf
date       : $when
load       : $load1 $load5 $load15 (1-minute: $per_core per core); over one second: steal $steal %, busy $busy %
counters   : $counters
EOF
[ "$BENCH_UNRELIABLE" = 1 ] && printf '\n%s\n' "$warning"
echo

{
  echo "### \`make bench\`: $model, $cores cores, $(uname -sr), vector path $path; $when;" \
    "load $load1 ($per_core per core), steal $steal %; mpg123 $v_mpg123, ffmpeg $v_ffmpeg," \
    "SoX $v_sox, LAME $v_lame; kavo $commit, $compiler"
  echo
  [ "$BENCH_UNRELIABLE" = 1 ] && printf '**%s**\n\n' "$warning"
  echo "Load averages $load1 $load5 $load15; in the second before the start the processors were" \
    "$busy % busy and $steal % stolen. Processor features: ${features:-none of avx2, avx512f}. $counters."
  echo
} >"$BENCH_REPORT"

for part in ${BENCH_PARTS:-decode convert engine adpcm resample prompts}; do
  echo "== $part"
  read -r busy0 steal0 total0 < <(ticks)
  own0=$(own_ticks)
  part_start=$(date +%s)
  bash "bench/parts/$part.sh" "$data"
  read -r busy1 steal1 total1 < <(ticks)
  own1=$(own_ticks)
  others=$(percent $((busy1 - busy0 - (own1 - own0))) $((total1 - total0)))
  others=$(awk -v o="$others" 'BEGIN { printf "%.1f", (o < 0) ? 0 : o }')
  note "In the $(( $(date +%s) - part_start )) s this part ran, other processes used $others % of" \
    "the processors' time and steal took $(percent $((steal1 - steal0)) $((total1 - total0))) %."
done

read -r end1 end5 end15 _ </proc/loadavg
note "\`make bench\` took $(( $(date +%s) - start )) s; load averages at the end $end1 $end5 $end15" \
  "(the benchmark's own runs count in them)."
[ "$BENCH_UNRELIABLE" = 1 ] && echo "$warning"
echo "report: build/bench-report.md"

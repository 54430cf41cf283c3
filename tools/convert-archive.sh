#!/usr/bin/env bash
# Converts every MP3 file under ARCHIVE into OUTDIR, keeping the folder layout (a/b.mp3 gives
# OUTDIR/a/b.adpcm), spread over several machines by GNU parallel: each job copies its input to
# a machine (--transferfile), runs `kavo convert` there, copies the result back (--return) and
# removes both from that machine (--cleanup).
#
# usage: convert-archive.sh [-S SSHLOGIN]... [-j JOBS] [--gain G] [--kavo COMMAND] ARCHIVE OUTDIR
#
#   -S SSHLOGIN    a machine, as parallel's --sshlogin takes it ("host", "user@host",
#                  "8/host" for 8 jobs there, ":" for this machine); repeatable; default ":"
#   -j JOBS        jobs per machine (default: one per core of each machine)
#   --gain G       passed to kavo convert
#   --kavo COMMAND the kavo command on every machine (default: kavo, found on PATH)
#
# Remote machines need ssh access without a password prompt, rsync and kavo. A file that
# fails to convert gets no output, and its error line is printed; the others go on. The exit
# status is the number of files that failed (at most 101), 0 when all converted, 255 for a
# usage error. Other parallel options can be given in the environment variable PARALLEL, such
# as PARALLEL='--joblog convert.log --resume' to skip, when run again, what was done.
set -euo pipefail

usage() {
  sed -n 's/^# usage: /usage: /p' "$0" >&2
  exit 255
}

logins=()
jobs=()
gain=()
kavo=kavo
while [ $# -gt 0 ]; do
  case $1 in
    -S) [ $# -ge 2 ] || usage; logins+=(--sshlogin "$2"); shift 2 ;;
    -j) [ $# -ge 2 ] || usage; jobs=(--jobs "$2"); shift 2 ;;
    --gain) [ $# -ge 2 ] || usage; gain=(--gain "$2"); shift 2 ;;
    --kavo) [ $# -ge 2 ] || usage; kavo=$2; shift 2 ;;
    -*) usage ;;
    *) break ;;
  esac
done
[ $# -eq 2 ] || usage
[ -d "$1" ] || { echo "convert-archive: '$1' is not a folder" >&2; exit 255; }
[ ${#logins[@]} -gt 0 ] || logins=(--sshlogin :)
archive=$(realpath "$1")
mkdir -p "$2"
outdir=$(realpath "$2")

# The job, run by a shell on the chosen machine with {} the input's path under ARCHIVE. On a
# remote machine the input has been copied into the job's private working folder and the
# result is written there for --return; on this machine (":"), where parallel copies
# nothing, the job reads from ARCHIVE and writes into OUTDIR directly.
printf -v archive_q '%q' "$archive"
printf -v outdir_q '%q' "$outdir"
printf -v kavo_q '%q' "$kavo"
printf -v gain_q ' %q' "${gain[@]}"
[ ${#gain[@]} -gt 0 ] || gain_q=
job="if [ \"\$PARALLEL_SSHLOGIN\" = : ]; then in=$archive_q/{}; out=$outdir_q/{.}.adpcm;"
job+=" else in={}; out={.}.adpcm; fi;"
job+=" mkdir -p \"\$(dirname \"\$out\")\" && $kavo_q convert$gain_q \"\$in\" \"\$out\""

# parallel quotes the returned file's name for the remote shell, as rsync before 3.2.4 needs;
# later versions protect the name themselves unless told --old-args, and would look for a
# name with the quotes in it (any name with a space or a quote would not come back).
if [ -z "${PARALLEL_RSYNC_OPTS:-}" ] && [[ $(rsync --help 2>/dev/null) == *--old-args* ]]; then
  export PARALLEL_RSYNC_OPTS="-rlDzR --old-args"
fi

# parallel runs each job with the shell named in SHELL, here and on each machine. bash always
# knows its own, but does not export it when the environment lacked it (cron, env -i, some CI
# runners); parallel then runs the jobs with no shell at all, and they "succeed" unrun.
export SHELL

cd "$archive"
find . -type f -iname '*.mp3' -printf '%P\0' | LC_ALL=C sort -z |
  parallel --null --will-cite "${logins[@]}" "${jobs[@]}" --workdir ... \
    --transferfile "$archive/./{}" --return "$outdir/./{.}.adpcm" --cleanup "$job"

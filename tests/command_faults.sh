#!/usr/bin/env bash
# Faults the kavo command meets while it works, one row each: the output directory not
# writable, the file-size limit reached while writing, the input removed or truncated while it
# is read (the command is stopped while it converts, the file cut, the command let go on),
# standard input closed or ending at once, TMPDIR naming no directory, a full device as the
# output, an output directory that cannot be written (told once). Each must end with one
# line on standard error naming the cause, exit status 1, nothing left beside the output, and
# the existing output as it was.
# usage: command_faults.sh KAVO MP3
set -u
kavo=$(realpath "$1")
mp3=$(realpath "$2")
work=$(mktemp -d)
trap 'chmod -R u+w "$work"; rm -rf "$work"' EXIT
chmod 755 "$work"
# Permission bits do not stop root: as root the command runs as nobody for that row.
as_user=
[ "$(id -u)" = 0 ] && as_user="setpriv --reuid=65534 --regid=65534 --clear-groups"

# name % output % how the command is run in a directory holding in.mp3, codes and the output
# (which holds "old") % what the error line must say
cases=(
  "unwritable directory%out.adpcm%chmod 555 .; $as_user \$kavo convert in.mp3 out.adpcm%cannot write 'out.adpcm': Permission denied"
  "file-size limit, convert%out.adpcm%ulimit -f 4; \$kavo convert in.mp3 out.adpcm%cannot write 'out.adpcm': File too large"
  "file-size limit, expand%out.wav%ulimit -f 4; \$kavo expand codes out.wav%File too large; 'out.wav' was not written"
  "input removed while read%out.adpcm%rm in.mp3; mkfifo in.mp3; { head -c 6000 \"\$mp3\"; rm in.mp3; } >in.mp3 & \$kavo convert in.mp3 out.adpcm%in.mp3: the file was removed"
  "input truncated while read%out.adpcm%for i in \$(seq 100); do cat \"\$mp3\"; done >in.mp3; \$kavo convert in.mp3 out.adpcm & pid=\$!; until ls out.adpcm.*.part >/dev/null 2>&1 || ! kill -0 \$pid 2>/dev/null; do sleep 0.01; done; kill -STOP \$pid; truncate -s 20000 in.mp3; kill -CONT \$pid; wait \$pid%in.mp3: the file changed size while it was read"
  "standard input closed%out.adpcm%\$kavo convert - out.adpcm <&-%standard input: Bad file descriptor"
  "standard input ends at once%out.adpcm%: | \$kavo convert - out.adpcm%standard input: not an MP3"
  "unwritable -o directory, told once%out.adpcm%chmod 555 .; $as_user \$kavo convert -o . in.mp3 \"\$mp3\"%cannot write in the directory '.': Permission denied"
  "full device, expand%out.adpcm%\$kavo expand codes /dev/full%No space left on device"
  "TMPDIR missing%out.wav%TMPDIR=\$PWD/none \$kavo mix in.mp3 out.wav%in '.*/none' \\(TMPDIR\\): No such file or directory"
)

failures=0
for row in "${cases[@]}"; do
  IFS='%' read -r name out run expected <<<"$row"
  dir=$(mktemp -d "$work/case.XXXXXX")
  chmod 755 "$dir"
  cp "$mp3" "$dir/in.mp3"
  head -c 40000 /dev/urandom >"$dir/codes"
  echo old >"$dir/$out"
  before=$(cd "$dir" && ls | sort | tr '\n' ' ')
  (cd "$dir" && kavo=$kavo mp3=$mp3 bash -c "$run" 2>../stderr)
  status=$?
  wait
  chmod 755 "$dir"
  after=$(cd "$dir" && ls | sort | tr '\n' ' ')
  lines=$(wc -l <"$work/stderr")
  problem=
  [ "$status" = 1 ] || problem="exit status $status"
  [ "$lines" = 1 ] && grep -Eq -- "$expected" "$work/stderr" || problem+=" message"
  [ "$(cat "$dir/$out")" = old ] || problem+=" output changed"
  # The removed input is the one file allowed to go.
  [ "$after" = "$before" ] || [ "$after" = "${before/in.mp3 /}" ] || problem+=" files: $after"
  if [ -n "$problem" ]; then
    echo "FAIL $name:$problem"
    sed 's/^/  stderr: /' "$work/stderr"
    failures=$((failures + 1))
  else
    echo "ok   $name: $(cat "$work/stderr")"
  fi
done
exit $((failures > 0))

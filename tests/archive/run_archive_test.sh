#!/usr/bin/env bash
# tools/convert-archive.sh on a small archive (nested folders, a space and a quote in names,
# an upper-case extension, and a Layer II file that must fail), run twice: with -S : (this
# machine, where parallel copies nothing) and through a stand-in for ssh that runs the
# "remote" commands here in a separate home, so that the copies there (--transferfile), back
# (--return) and the removal (--cleanup) are exercised too. Each output must equal what
# `kavo convert` makes of the same file; the failing file gets no output and counts in the
# exit status; the archive and the remote side are left as they were.
#
# usage: run_archive_test.sh KAVO_BINARY FIXTURES_DIR
set -euo pipefail
kavo=$(realpath "$1")
fixtures=$2
script=$(cd "$(dirname "$0")/../../tools" && pwd)/convert-archive.sh
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "archive test: $*" >&2; exit 1; }

mkdir -p "$work/archive/sub dir/deeper" "$work/home" "$work/expected"
cp "$fixtures/speech_mono_22k.mp3" "$work/archive/sub dir/speech one.mp3"
cp "$fixtures/tone_m1_44k_stereo.mp3" "$work/archive/sub dir/deeper/tone.MP3"
cp "$fixtures/tone_m2_22k_free.mp3" "$work/archive/it's free.mp3"
cp "$fixtures/layer2_m1_44k_stereo.mp2" "$work/archive/layer2.mp3"
converted=("sub dir/speech one" "sub dir/deeper/tone" "it's free")
for name in "${converted[@]}"; do
  src=$(find "$work/archive" -path "$work/archive/$name.*")
  "$kavo" convert "$src" "$work/expected/${name//\//_}.adpcm" >/dev/null 2>&1 || fail "kavo convert $name"
done
(cd "$work/archive" && find . | sort) >"$work/archive.list"

# The stand-in for ssh: skips ssh's options and the host, runs the command in its own home.
cat >"$work/fake-ssh" <<'FAKE'
#!/usr/bin/env bash
while [ $# -gt 0 ]; do
  case $1 in -[lpoiFS]) shift 2 ;; -*) shift ;; *) shift; break ;; esac
done
[ "${1:-}" != -- ] || shift
cd "$HOME" && exec bash -c "$*"
FAKE
chmod +x "$work/fake-ssh"

export HOME=$work/home   # parallel's own files, and the remote working folders
for login in : "$work/fake-ssh remote"; do
  out=$work/out_${login%% *}
  status=0
  bash "$script" -S "$login" --kavo "$kavo" "$work/archive" "$out" >"$work/log" 2>&1 || status=$?
  [ "$status" -eq 1 ] || { cat "$work/log" >&2; fail "-S '$login': exit status $status, not 1"; }
  for name in "${converted[@]}"; do
    cmp -s "$work/expected/${name//\//_}.adpcm" "$out/$name.adpcm" ||
      fail "-S '$login': $name.adpcm differs from kavo convert's output"
  done
  [ "$(find "$out" -type f | wc -l)" -eq "${#converted[@]}" ] ||
    fail "-S '$login': unexpected files: $(find "$out" -type f)"
  (cd "$work/archive" && find . | sort) | cmp -s - "$work/archive.list" ||
    fail "-S '$login': the archive was changed"
  # The "remote" home keeps only parallel's notes on the machine (.parallel/tmp/sshlogin).
  left=$(find "$HOME" -mindepth 1 ! -path "$HOME/.parallel" ! -path "$HOME/.parallel/tmp" \
              ! -path "$HOME/.parallel/tmp/sshlogin*")
  [ -z "$left" ] || fail "-S '$login': left behind: $left"
  echo "archive test: -S '${login##*/}' ok"
done

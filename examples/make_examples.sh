#!/usr/bin/env bash
# Makes the example prompts the README's commands use: short sentences spoken by espeak-ng
# (22.05 kHz mono), brought to 44.1 kHz by sox and encoded by lame at 64 kbit/s CBR, with lame's
# header frame (so --gapless has something to read). With espeak-ng 1.51, sox 14.4.2 and lame
# 3.100 the files come out byte for byte the same.
set -euo pipefail
cd "$(dirname "$0")"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
say() {  # say FOLDER/NAME TEXT
  local name=${1##*/}
  mkdir -p "${1%/*}"
  espeak-ng -v en -s 160 -w "$work/$name.wav" "$2"
  sox -D "$work/$name.wav" -r 44100 "$work/${name}_44k.wav"
  lame --quiet --noreplaygain --cbr -b 64 -m m "$work/${name}_44k.wav" "$1.mp3"
}
# A set of prompts, and the pieces of a message played back to back.
say prompts/welcome "Welcome to the support line. Your call is important to us."
say prompts/hold "Please hold the line. One of our agents will be with you shortly."
say prompts/goodbye "Thank you for calling. Goodbye."
say pieces/you_have "You have"
say pieces/three "three"
say pieces/new_messages "new messages"

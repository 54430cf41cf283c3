#!/usr/bin/env bash
# Makes the example prompts the README's commands use: short sentences spoken by espeak-ng
# (22.05 kHz mono), brought to 44.1 kHz by sox and encoded by lame at 64 kbit/s CBR, with lame's
# header frame (so --gapless has something to read). With espeak-ng 1.51, sox 14.4.2 and lame
# 3.100 the files come out byte for byte the same.
set -euo pipefail
cd "$(dirname "$0")"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
say() {  # say NAME TEXT
  espeak-ng -v en -s 160 -w "$work/$1.wav" "$2"
  sox -D "$work/$1.wav" -r 44100 "$work/$1_44k.wav"
  lame --quiet --noreplaygain --cbr -b 64 -m m "$work/$1_44k.wav" "prompts/$1.mp3"
}
mkdir -p prompts
say welcome "Welcome to the support line. Your call is important to us."
say hold "Please hold the line. One of our agents will be with you shortly."
say goodbye "Thank you for calling. Goodbye."
say you_have "You have"
say three "three"
say new_messages "new messages"

#!/usr/bin/env bash
# The generated manual page renders without a warning from man and groff, has its NAME,
# SYNOPSIS, COMMANDS, EXIT STATUS and FILES sections, and names every subcommand and every
# argument and option that the command's own --help lists, and every exit status.
#
# usage: check_man_page.sh KAVO_1 KAVO_BINARY
set -euo pipefail
page=$1
kavo=$2
fail() { echo "man page: $*" >&2; exit 1; }

warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null) || fail "man failed"
[ -z "$warnings" ] || fail "warnings from man -l: $warnings"

text=$(LC_ALL=C MANWIDTH=200 man -l "$page" 2>/dev/null | sed 's/.\x08//g')
for section in NAME SYNOPSIS DESCRIPTION OPTIONS COMMANDS 'EXIT STATUS' FILES; do
  grep -qx "$section" <<<"$text" || fail "no $section section"
done
subcommands=$("$kavo" --help | awk '/^Subcommands:/ { on = 1; next } /^$/ { on = 0 } on { print $1 }')
[ -n "$subcommands" ] || fail "kavo --help lists no subcommand"
for sub in $subcommands; do
  # The sub-section of the subcommand: from its usage line to the next heading.
  block=$(awk -v head="kavo $sub" '/^[^ ]/ || /^   [^ ]/ { on = index($0, "   " head " ") == 1 ||
                                                               index($0, "   " head ":") == 1 }
                                    on' <<<"$text")
  [ -n "$block" ] || fail "subcommand $sub is not described"
  # Each "  NAME ...  description" line of the subcommand's help (positionals and options)
  # must be an entry there: a tagged paragraph, the name at the start of its line.
  for entry in $("$kavo" "$sub" --help | awk '/^(Positionals|Options):/ { on = 1; next }
                                             /^$/ || /^[^ ]/ { on = 0 } on { print $1 }'); do
    case $entry in -h,--help | --help-all) continue ;; esac
    grep -qE "^ +$entry( |$)" <<<"$block" || fail "$sub: $entry is not described"
  done
done
statuses=$("$kavo" --help-all | awk '/^\*Exit status\*$/ { on = 1; next } on && NF { print $1 }')
[ -n "$statuses" ] || fail "kavo --help-all lists no exit status"
for status in $statuses; do
  awk '/^EXIT STATUS$/ { on = 1; next } /^[A-Z]/ { on = 0 } on' <<<"$text" |
    grep -qE "^ +$status +[a-z]" || fail "exit status $status is not described"
done
echo "man page: $(wc -l <<<"$text") lines, every subcommand, option and exit status described"

#!/usr/bin/env bash
# Checks a man page: groff formats it without a single warning, and, when a
# program is named, every option that the program's --help lists is described
# in the page's OPTIONS section.
#
# usage: check-man-page.sh PAGE [PROGRAM]
#
# An option counts as listed when it is one of the words that start an
# indented line of the --help output and begin with "-", up to the first word
# that does not ("  -p, --progress   show ..." lists -p and --progress;
# "  --timeout SECONDS  ..." lists --timeout). An option counts as described
# when it stands as a word of its own (not inside a longer option) in the
# OPTIONS section of the page as groff renders it.
set -euo pipefail

if [ $# -lt 1 ] || [ $# -gt 2 ]; then
  echo "usage: $(basename "$0") PAGE [PROGRAM]" >&2
  exit 2
fi
page=$1
program=${2:-}

fail() {
  echo "check-man-page: $page: $*" >&2
  exit 1
}

[ -r "$page" ] || fail "cannot read the page"
command -v groff >/dev/null 2>&1 || fail "groff is not installed (Debian package groff-base)"

# Every warning groff knows of (-ww), no output (-z). Any line on standard
# error fails the page.
if ! warnings=$(LC_ALL=C groff -man -ww -z "$page" 2>&1 >/dev/null); then
  printf '%s\n' "$warnings" >&2
  fail "groff failed"
fi
if [ -n "$warnings" ]; then
  printf '%s\n' "$warnings" >&2
  fail "groff warns about the page"
fi

if [ -z "$program" ]; then
  echo "check-man-page: $page: formats without warnings"
  exit 0
fi

[ -x "$program" ] || fail "the program $program is not there or not executable"

help_status=0
help=$(timeout 60 "$program" --help </dev/null) || help_status=$?
[ "$help_status" -eq 0 ] || fail "$program --help exited with status $help_status"

mapfile -t options < <(printf '%s\n' "$help" | awk '
  /^[ \t]+-/ {
    for (i = 1; i <= NF; i++) {
      word = $i
      if (word !~ /^-/) break
      sub(/,$/, "", word)
      sub(/=.*$/, "", word)
      if (word ~ /^--?[A-Za-z0-9][A-Za-z0-9-]*$/) print word
    }
  }' | sort -u)
[ ${#options[@]} -gt 0 ] || fail "$program --help lists no options (no indented line starts with -)"

# Plain text, no overstriking or escape sequences, and lines long enough that
# no paragraph is broken (so no word is hyphenated).
text=$(LC_ALL=C groff -man -Tascii -P-cbou -rLL=3000n "$page" 2>/dev/null)
section=$(printf '%s\n' "$text" | awk '/^OPTIONS[ \t]*$/ { inside = 1; next } /^[^ \t]/ { inside = 0 } inside')
[ -n "$section" ] || fail "the page has no OPTIONS section"

missing=()
for option in "${options[@]}"; do
  if ! printf '%s\n' "$section" | grep -Eq -e "(^|[^-[:alnum:]])${option}([^-[:alnum:]]|$)"; then
    missing+=("$option")
  fi
done
if [ ${#missing[@]} -gt 0 ]; then
  fail "$(basename "$program") --help lists ${missing[*]}, which the OPTIONS section does not describe"
fi
echo "check-man-page: $page: formats without warnings and describes all ${#options[@]} options of $(basename "$program") --help: ${options[*]}"

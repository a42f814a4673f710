#!/usr/bin/env bash
# Tries check-man-page.sh on small pages and programs made up for the purpose:
# it must pass a page that describes every option, and fail a page that leaves
# one out, names one only outside its OPTIONS section or only inside a longer
# option, or makes groff warn, and a program whose --help fails or lists
# nothing.
#
# usage: check-man-page-selftest.sh CHECKER
set -euo pipefail

checker=${1:?usage: check-man-page-selftest.sh CHECKER}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

# A program whose --help lists -a/--alpha, --beta N and --gamma-delta.
cat > "$work/prog" <<'EOF'
#!/usr/bin/env bash
[ "${1:-}" = --help ] || exit 2
cat <<'HELP'
usage: prog [OPTIONS] STEP...
options:
  -a, --alpha         first
  --beta N            second
  --gamma-delta       third
steps:
  run [--json] X      not an option line
HELP
EOF
printf '#!/usr/bin/env bash\necho "usage: prog"\nexit 3\n' > "$work/prog-failing"
printf '#!/usr/bin/env bash\necho "usage: prog STEP..."\necho "  run X   runs X"\n' > "$work/prog-no-options"
chmod +x "$work/prog" "$work/prog-failing" "$work/prog-no-options"

# page NAME OPTIONS-BODY [DESCRIPTION-BODY [EXTRA]] writes $work/NAME.1.
page() {
  cat > "$work/$1.1" <<EOF
.TH PROG 1 2026\\-01\\-01 "prog 1" "User Commands"
.SH NAME
prog \\- a made\\-up program
.SH DESCRIPTION
${3:-Does things.}
.SH OPTIONS
$2
.SH SEE ALSO
.BR true (1)
${4:-}
EOF
}

all_options='.TP
.BR \-a ", " \-\-alpha
First.
.TP
.BI \-\-beta " N"
Second.
.TP
.B \-\-gamma\-delta
Third.'

# expect pass|fail WHAT TEXT-THE-OUTPUT-MUST-HOLD -- ARGUMENTS...
expect() {
  local want=$1 what=$2 needle=$3; shift 4
  local out status=0
  out=$(bash "$checker" "$@" 2>&1) || status=$?
  if [ "$want" = pass ] && [ "$status" -ne 0 ]; then
    echo "FAIL: $what: the check failed (status $status):"; printf '%s\n' "$out"; failures=$((failures + 1)); return
  fi
  if [ "$want" = fail ] && [ "$status" -eq 0 ]; then
    echo "FAIL: $what: the check passed:"; printf '%s\n' "$out"; failures=$((failures + 1)); return
  fi
  if [ -n "$needle" ] && ! grep -qF -e "$needle" <<<"$out"; then
    echo "FAIL: $what: the output does not mention \"$needle\":"; printf '%s\n' "$out"; failures=$((failures + 1)); return
  fi
  echo "ok: $what"
}

page good "$all_options"
expect pass "a page describing every option" "all 4 options" -- "$work/good.1" "$work/prog"
expect pass "a page checked for warnings only" "without warnings" -- "$work/good.1"

page missing "$(sed '/gamma/,$d' <<<"$all_options")"
expect fail "a page without --gamma-delta" "lists --gamma-delta," -- "$work/missing.1" "$work/prog"

page short-missing '.TP
.B \-\-alpha
First.
.TP
.BI \-\-beta " N"
Second.
.TP
.B \-\-gamma\-delta
Third.'
expect fail "a page with --alpha but not -a" "lists -a," -- "$work/short-missing.1" "$work/prog"

page prefix-only '.TP
.BR \-a ", " \-\-alpha
First.
.TP
.BI \-\-beta " N"
Second.
.TP
.B \-\-gamma\-delta\-epsilon
Third, longer.'
expect fail "a page with only a longer option than --gamma-delta" "lists --gamma-delta," -- "$work/prefix-only.1" "$work/prog"

page elsewhere "$(sed '/beta/,/Second/d' <<<"$all_options")" 'See
.B \-\-beta
for more.'
expect fail "a page naming --beta only in DESCRIPTION" "lists --beta," -- "$work/elsewhere.1" "$work/prog"

page warning "$all_options" "Does things." ".NOSUCHMACRO"
expect fail "a page with an undefined macro (program given)" "NOSUCHMACRO" -- "$work/warning.1" "$work/prog"
expect fail "a page with an undefined macro (no program)" "NOSUCHMACRO" -- "$work/warning.1"

page font-warning "$all_options" 'Does \fQthings\fR.'
expect fail "a page with an unknown font" "warns" -- "$work/font-warning.1"

expect fail "a program whose --help fails" "status 3" -- "$work/good.1" "$work/prog-failing"
expect fail "a program whose --help lists no options" "lists no options" -- "$work/good.1" "$work/prog-no-options"
expect fail "a program that is not there" "not there" -- "$work/good.1" "$work/no-such-prog"

if [ "$failures" -ne 0 ]; then
  echo "$failures case(s) failed"
  exit 1
fi
echo "all cases passed"

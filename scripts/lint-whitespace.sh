#!/usr/bin/env bash
# Checks the whitespace of every tracked text file:
#   no blank (space or tab) at the end of a line, no CR line ends,
#   a non-empty file ends with exactly one newline,
#   no tab in code: C++ sources, CMake files, shell scripts.
# Exempt: the fuzz seed inputs (fuzz/corpus/), read byte for byte, blanks and
# missing final newlines included. Tabs stay allowed elsewhere, where a format
# needs them (a Makefile) or a text shows them (the README's answer lines).
#   scripts/lint-whitespace.sh     prints each finding as file:line: what, exits 1 on any
set -euo pipefail
cd "$(dirname "$0")/.."

exempt=(':(exclude)fuzz/corpus/')
code=('*.cpp' '*.h' '*.hpp' '*.cc' 'CMakeLists.txt' '*.cmake' '*.sh' '.ci/run')

found=0
report() {
  # Reads "file:line:text" from git grep and prints "file:line: $1".
  local lines
  lines=$(awk -F: -v what="$1" '{ print $1 ":" $2 ": " what }')
  [ -z "$lines" ] && return
  echo "$lines"
  found=1
}

# -I skips binary files; the patterns are fixed bytes, so no PCRE is needed.
report "trailing blank" < <(git grep -n -I -e $'[ \t]$' -- . "${exempt[@]}" || true)
report "CR line end" < <(git grep -n -I -e $'\r' -- . "${exempt[@]}" || true)
report "tab" < <(git grep -n -I -e $'\t' -- "${code[@]}" "${exempt[@]}" || true)

# The end of each file: the last byte a newline, the one before it not.
# git grep -I -l -e '' lists the tracked text files that are not empty.
report_files() {
  local lines
  lines=$(cat)
  [ -z "$lines" ] && return
  echo "$lines"
  found=1
}
report_files < <(git grep -z -I -l -e '' -- . "${exempt[@]}" | xargs -0 -r perl -e '
  for my $f (@ARGV) {
    open(my $fh, "<", $f) or die "$f: $!\n";
    seek($fh, -2, 2) or seek($fh, 0, 0);
    read($fh, my $end, 2);
    if ($end eq "\n\n") { print "$f: more than one newline at the end\n" }
    elsif (substr($end, -1) ne "\n") { print "$f: no newline at the end\n" }
  }')

if [ $found -ne 0 ]; then
  echo "whitespace: findings above" >&2
  exit 1
fi
echo "whitespace: clean ($(git ls-files -- . "${exempt[@]}" | wc -l) files)"

#!/usr/bin/env bash
# Every command and option that a tool's --help names appears in its man page,
# as man renders it.
set -euo pipefail
build=$1
fail=0

render() {  # one very wide line per paragraph: no line breaks inside an option
  local text
  text=$(LC_ALL=C MANWIDTH=1000 man -l "$1" | col -b)
  [[ $text == *NAME* && $text == *SYNOPSIS* ]] || { echo "man -l $1 rendered no page"; exit 1; }
  printf '%s\n' "$text"
}

options_of() {
  grep -o -E -- '(^|[^-[:alnum:]])--?[a-z][a-z-]*' | sed -E 's/^[^-]//' | sort -u
}

# check PAGE_TEXT WORD...: each WORD stands alone somewhere in the page.
check() {
  local page=$1 name=$2 word
  shift 2
  for word in "$@"; do
    if ! grep -q -E -- "(^|[^-[:alnum:]])${word}([^-[:alnum:]]|\$)" <<<"$page"; then
      echo "$name: '$word' is in --help but not in the man page"
      fail=1
    fi
  done
}

tool=$build/tools/veskdbud
page=$(render "$build/man/veskdbud.8")
help=$("$tool" --help)
mapfile -t commands < <(sed -n '/^Commands:/,/^$/p' <<<"$help" | awk 'NF > 0 && $1 != "Commands:" {print $1}')
((${#commands[@]} >= 8)) || { echo "found only ${#commands[@]} commands in --help"; exit 1; }
all_help=$help
for c in "${commands[@]}"; do
  all_help+=$'\n'$("$tool" "$c" --help)
done
mapfile -t options < <(options_of <<<"$all_help")
check "$page" veskdbud.8 "${commands[@]}" "${options[@]}"

publish=$build/tools/veskdbud-publish
page=$(render "$build/man/veskdbud-publish.1")
help=$("$publish" --help)
mapfile -t commands < <(awk '$1 == "veskdbud-publish" && $2 !~ /^-/ {print $2}' <<<"$help")
mapfile -t options < <(options_of <<<"$help")
check "$page" veskdbud-publish.1 "${commands[@]}" "${options[@]}"

((fail == 0)) && echo "man pages name every command and option of --help (${#options[@]} publisher options)"
exit $fail

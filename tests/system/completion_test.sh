#!/usr/bin/env bash
# Drives the bash completion of veskdbud as bash does (COMP_WORDS, COMP_CWORD,
# the registered function) against the built tool and a sandbox configuration
# whose local databases.conf hides the default one.
set -euo pipefail
tool=$1 completion=$2
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
mkdir -p "$root/usr/share/data_update" "$root/usr/vesk/etc/data_update"
db='{"install_dest": "%VOLUME%", "format_version": "1"}'
echo '{"config": {"download_scheme": "http", "db_netloc": "127.0.0.1:9/repo", "db_ver": "v1", "cur_volume": ""}}' >"$root/usr/share/data_update/data_update.conf"
echo "{\"hidden\": $db}" >"$root/usr/share/data_update/databases.conf"
echo "{\"alpha\": $db, \"beta\": $db}" >"$root/usr/vesk/etc/data_update/databases.conf"
export VESKDBUD_ROOT=$root

# shellcheck source=/dev/null
source "$completion"
[[ $(complete -p veskdbud) == *"-F _veskdbud "* ]] || { echo "no completion registered"; exit 1; }

fail=0
# expect "WORDS BEFORE THE CURSOR|WORD AT THE CURSOR" "EXPECTED, SORTED"
expect() {
  local before=${1%|*} cur=${1#*|}
  read -r -a COMP_WORDS <<<"$tool $before"
  COMP_WORDS+=("$cur")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  _veskdbud
  local got
  got=$(printf "%s\n" "${COMPREPLY[@]}" | sort -u | xargs)
  [[ $got == "$2" ]] || { echo "veskdbud $before '$cur': got '$got', want '$2'"; fail=1; }
}

commands=$("$tool" --help | sed -n '/^Commands:/,/^$/p' | awk 'NF > 0 && $1 != "Commands:" {print $1}')
expect "|" "$(printf '%s\n' $commands help | sort | xargs)"
expect "|up" "update"
expect "|--v" "--verbose --version"
expect "--verbose|f" "fix force-install"
for command in update fix force-install status is-updating run-locked; do expect "$command|" "alpha beta"; done
expect "-v fix|b" "beta"
expect "force-install alpha|" ""
expect "status|--" "--help --json --metrics --verbose"
expect "run-locked beta --timeout|" ""
expect "run-locked beta --|ech" "$(compgen -c -- ech | sort -u | xargs)"
expect "volume|" "mount unmount"
exit $fail

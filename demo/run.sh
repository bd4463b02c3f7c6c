#!/usr/bin/env bash
# The veskdbud demo: a vendor publishes two databases (an SQLite catalog and a
# set of flat signature files) over several versions, a local web server offers
# them, and an appliance sandbox installs, updates, repairs, moves and
# downgrades them with the veskdbud tool. No root needed: every system path of
# the library lives below VESKDBUD_ROOT, and VESK_VOLUMES names two directories
# that stand in for data volumes.
#
# Usage: demo/run.sh [BUILD_DIR]     (make demo runs it with build/)
# DEMO_DIR=/some/empty/dir keeps the sandbox there instead of a new mktemp -d.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "${1:-$here/../build}" && pwd)
tool=$build/tools/veskdbud
publisher=$build/tools/veskdbud-publish
decoder=$build/tools/veskdbudvcdiff
for binary in "$tool" "$publisher" "$decoder"; do
  [[ -x $binary ]] || { echo "demo: $binary is missing; run 'make demo'" >&2; exit 1; }
done
for program in python3 sqlite3 wget xdelta3; do
  command -v "$program" >/dev/null || { echo "demo: needs $program (scripts/install-deps)" >&2; exit 1; }
done

if [[ -n ${DEMO_DIR:-} ]]; then
  demo=$DEMO_DIR
  mkdir -p "$demo"
  [[ -z $(ls -A "$demo") ]] || { echo "demo: DEMO_DIR $demo is not empty" >&2; exit 1; }
else
  demo=$(mktemp -d "${TMPDIR:-/tmp}/veskdbud-demo.XXXXXX")
fi
demo=$(cd "$demo" && pwd)
cd "$demo"  # commands below are shown with paths relative to the sandbox
root=$demo/appliance vol1=$demo/volume1 vol2=$demo/volume2
vendor=$demo/vendor served=$demo/served
mkdir -p "$root" "$vol1" "$vol2" "$vendor/source" "$served/repo"
export VESKDBUD_ROOT=$root VESK_VOLUMES=$vol1:$vol2
export VESKDBUD_LOG_FILE=$demo/veskdbud.log  # the library's log lines, for the evidence below
started=$SECONDS

# ---------------------------------------------------------------- presentation
if [[ -t 1 ]]; then bold=$'\e[1m' dim=$'\e[2m' plain=$'\e[0m'; else bold='' dim='' plain=''; fi
step=0
step() { step=$((step + 1)); printf '\n%s%d. %s%s\n' "$bold" "$step" "$1" "$plain"; }
say() { printf '   %s\n' "$@"; }
# Prints a command as typed (paths inside the sandbox shortened), then runs
# it; the tool is shown as plain `veskdbud`.
shown() {
  local word out=()
  for word in "$@"; do
    word=${word//"$demo"\//}
    [[ $word =~ ^[][A-Za-z0-9_./:=@%+-]+$ ]] || word="'${word//\'/\'\\\'\'}'"
    out+=("$word")
  done
  printf '%s' "${out[*]}"
}
run() {
  printf '%s$ %s%s\n' "$dim" "$(shown "$@")" "$plain"
  if [[ $1 == veskdbud ]]; then "$tool" "${@:2}"; else "$@"; fi
}
mark() { wc -l <"$1" 2>/dev/null || echo 0; }
# The lines of file $1 after line $2 that match $3.
since() { tail -n +"$(($2 + 1))" "$1" | grep -E "$3" | sed "s|$demo/||g" || true; }

# ---------------------------------------------------------------- the vendor
# Versions are dated numbers: their eight digits cannot occur in the server's
# port or anywhere else in a package link, so a forced install can rewrite them.
versions=(20250601 20250602 20250603 20250604)

make_catalog() {  # $1 version, $2 SQL on top of the previous version
  local dir=$vendor/source/catalog/$1 previous=${3:-}
  mkdir -p "$dir"
  [[ -z $previous ]] || cp "$vendor/source/catalog/$previous/catalog.db" "$dir/"
  sqlite3 "$dir/catalog.db" "$2"
  printf 'Product catalog, release %s\n' "$1" >"$dir/README"
}

make_signatures() {  # $1 version, $2 previous version (copied), then edits by the caller
  local dir=$vendor/source/signatures/$1
  mkdir -p "$dir/rules"
  if [[ -n ${2:-} ]]; then cp -R "$vendor/source/signatures/$2/." "$dir/"; fi
}

rules() {  # $1 family, $2 count, $3 salt: deterministic rule lines
  awk -v family="$1" -v n="$2" -v salt="$3" 'BEGIN {
    for (i = 1; i <= n; i++)
      printf "%s-%05d  match \"%08x%08x\"  action=%s\n", family, i, (i * 2654435761 + salt) % 4294967296,
             (i * 40503 + salt * 7) % 4294967296, (i % 3 ? "block" : "log") }'
}

publish() {  # $1: a pattern of the versions whose packages to show
  "$publisher" publish --source "$vendor/source" --out "$served/repo" \
    --key "$vendor/keys/private.pem" --base-url "http://localhost:$port/repo" --db-ver v1 >"$demo/publish.out"
  grep -E "^(full|diff) .* v($1) " "$demo/publish.out" | sed 's/^/   published: /' || true
}

# Ages the appliance's copy of the server's document, which it otherwise
# re-reads only once it is an hour old.
forget_server_info() { touch -d '2 hours ago' "$root/var/cache/data_update/database_info.json"; }

installed() { echo "$("$tool" status "$1" --json | python3 -c 'import json,sys; print(json.load(sys.stdin)["databases"][0]["install_directory"])')"; }

# ---------------------------------------------------------------- the server
port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
python3 -u -m http.server "$port" --bind 127.0.0.1 --directory "$served" >"$demo/server.log" 2>&1 &
server=$!
trap 'kill "$server" 2>/dev/null; wait "$server" 2>/dev/null || true' EXIT
for _ in $(seq 50); do
  (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && break
  sleep 0.1
done

printf '%sveskdbud demo%s (sandbox %s)\n' "$bold" "$plain" "$demo"

step "The vendor makes a signing key and publishes release ${versions[0]} of two databases"
"$publisher" keygen --out "$vendor/keys" | sed 's/^/   /'
make_catalog "${versions[0]}" "CREATE TABLE products(id INTEGER PRIMARY KEY, name TEXT NOT NULL, price_cents INTEGER NOT NULL);
  WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 3000)
  INSERT INTO products SELECT i, 'product ' || i, (i * 37) % 10000 FROM n;"
make_signatures "${versions[0]}"
rules web 2000 1 >"$vendor/source/signatures/${versions[0]}/rules/web.rules"
rules mail 1500 2 >"$vendor/source/signatures/${versions[0]}/rules/mail.rules"
publish "${versions[0]}"
say "served by python3 -m http.server on 127.0.0.1:$port as http://localhost:$port/repo"

step "The appliance trusts the key, has the delta decoder and is configured"
install -D -m 0644 "$vendor/keys/public.pem" "$root/usr/vesk/etc/keys/6/demo-vendor.pem"
install -D -m 0755 "$decoder" "$root/usr/vesk/sbin/veskdbudvcdiff"
mkdir -p "$root/usr/share/data_update"
cat >"$root/usr/share/data_update/data_update.conf" <<CONF
{
	"config" : {
		"cur_volume" : "",
		"db_netloc" : "localhost:$port/repo",
		"db_ver" : "v1",
		"download_scheme" : "http",
		"verify_info" : true
	}
}
CONF
cat >"$root/usr/share/data_update/databases.conf" <<'CONF'
{
	"catalog" : { "auto_update" : true, "format_version" : "1", "install_dest" : "%VOLUME%", "min_rsv_space_inbytes" : 1048576 },
	"signatures" : { "auto_update" : true, "format_version" : "1", "install_dest" : "%VOLUME%", "min_rsv_space_inbytes" : 1048576 }
}
CONF
say "keys:    \$VESKDBUD_ROOT/usr/vesk/etc/keys/6/demo-vendor.pem" \
    "decoder: \$VESKDBUD_ROOT/usr/vesk/sbin/veskdbudvcdiff" \
    "config:  \$VESKDBUD_ROOT/usr/share/data_update/{data_update,databases}.conf" \
    "volumes: VESK_VOLUMES=volume1:volume2"
run veskdbud init

step "First install: no version is installed, so each database comes as a full package"
log=$(mark "$demo/server.log")
run veskdbud update --all
since "$demo/server.log" "$log" '\.pkg' | sed -E 's/.*"GET ([^ ]*) .*/   fetched \1/'
run veskdbud status

step "The vendor publishes ${versions[1]}, ${versions[2]} and ${versions[3]}"
make_catalog "${versions[1]}" "UPDATE products SET price_cents = price_cents + 100 WHERE id % 50 = 0;" "${versions[0]}"
make_catalog "${versions[2]}" "WITH RECURSIVE n(i) AS (SELECT 3001 UNION ALL SELECT i + 1 FROM n WHERE i < 3200)
  INSERT INTO products SELECT i, 'product ' || i, 999 FROM n;" "${versions[1]}"
make_catalog "${versions[3]}" "DELETE FROM products WHERE id % 97 = 0;" "${versions[2]}"
make_signatures "${versions[1]}" "${versions[0]}"
rules web 40 3 >"$vendor/source/signatures/${versions[1]}/rules/web.head"
{ cat "$vendor/source/signatures/${versions[1]}/rules/web.head"; tail -n +41 "$vendor/source/signatures/${versions[0]}/rules/web.rules"; } \
  >"$vendor/source/signatures/${versions[1]}/rules/web.rules"
rm "$vendor/source/signatures/${versions[1]}/rules/web.head"
make_signatures "${versions[2]}" "${versions[1]}"
rules dns 800 4 >"$vendor/source/signatures/${versions[2]}/rules/dns.rules"
make_signatures "${versions[3]}" "${versions[2]}"
rules mail 1520 5 | tail -n 20 >>"$vendor/source/signatures/${versions[3]}/rules/mail.rules"
publish "${versions[1]}|${versions[2]}|${versions[3]}"

step "Update: the server offers every diff package of the chain, so only those are fetched"
forget_server_info
log=$(mark "$demo/server.log") lines=$(mark "$VESKDBUD_LOG_FILE")
run veskdbud update --all
since "$demo/server.log" "$log" '\.pkg' | sed -E 's/.*"GET ([^ ]*) .*/   fetched \1/'
since "$VESKDBUD_LOG_FILE" "$lines" 'Prepare (diff|full) update' | sed 's/^/   log: /'

step "Corruption: a signature file is damaged; fix finds it by its digest and repairs it"
damaged=$(installed signatures)/rules/web.rules
printf 'rule-x  match "anything"  action=allow\n' >>"$damaged"
say "appended a line to ${damaged#"$demo"/}"
lines=$(mark "$VESKDBUD_LOG_FILE")
run veskdbud fix --all
since "$VESKDBUD_LOG_FILE" "$lines" 'digest check fail|is gone' | sed 's/^/   log: /'
cmp -s "$damaged" "$vendor/source/signatures/${versions[3]}/rules/web.rules" &&
  say "rules/web.rules is identical to the published file again"

step "Volume move: volume1 is about to be unmounted; the databases move to volume2"
run veskdbud volume unmount "$vol1"
export VESK_VOLUMES=$vol2  # volume1 is gone now
say "volume2 holds: $(ls "$vol2/@database/autoupdate" | tr '\n' ' ')"

step "Forced install: the catalog goes back two releases, to ${versions[1]}"
run veskdbud force-install catalog -2
say "a reader counts the products while holding the catalog's read lock:"
run veskdbud run-locked catalog -- sqlite3 "$(installed catalog)/catalog.db" "SELECT count(*) FROM products"
run veskdbud status catalog

step "An attacker on the path serves the signatures' signed package as the catalog's: refused"
repo=$served/repo newest=${versions[3]}
mkdir -p "$demo/honest"
cp -a "$repo/catalog" "$demo/honest/"
for pkg in "$repo"/catalog/v*/{full,diff}.pkg; do
  cp "$repo/signatures/v$newest/full.pkg" "$pkg"
done
say "every catalog package on the server is now signatures' ${newest} full package (validly signed)"
before=$(sha384sum "$(installed catalog)/catalog.db")
forget_server_info
run veskdbud update catalog || say "exit status $?: nothing was installed"
[[ $(sha384sum "$(installed catalog)/catalog.db") == "$before" ]] &&
  say "catalog.db is unchanged and the catalog is still at ${versions[1]}:" &&
  "$tool" status catalog --json | python3 -c 'import json,sys; d=json.load(sys.stdin)["databases"][0]; print("   installed", d["installed_version"])'
rm -rf "$repo/catalog" && mv "$demo/honest/catalog" "$repo/catalog" && rmdir "$demo/honest"
say "the honest packages are back on the server"

step "The next update brings the catalog forward again"
log=$(mark "$demo/server.log")
run veskdbud update catalog
since "$demo/server.log" "$log" '\.pkg' | sed -E 's/.*"GET ([^ ]*) .*/   fetched \1/'

step "Final status"
run veskdbud status

cat >"$demo/env.sh" <<ENV
export VESKDBUD_ROOT=$root VESK_VOLUMES=$vol2
ENV
printf '\nDone in %d s. The sandbox stays in %s; to look around:\n' "$((SECONDS - started))" "$demo"
printf '   . %s/env.sh; %s status --json\n   rm -rf %s   # when done\n' "$demo" "$tool" "$demo"

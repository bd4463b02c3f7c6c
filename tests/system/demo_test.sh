#!/usr/bin/env bash
# make demo's script end to end: it finishes within a minute, stops its server,
# shows each step's evidence, and leaves a sandbox in which `veskdbud status
# --json` lists every demo database at the version the vendor published last.
# Run as root, it runs the demo once more as the user nobody, since the demo
# must not need root.
set -euo pipefail
source_dir=$1 build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "demo test: $*" >&2; exit 1; }

# $1: the sandbox directory; runs the demo (as the rest of the arguments' user).
run_demo() {
  local sandbox=$1 started=$SECONDS
  shift
  if ! "$@" env DEMO_DIR="$sandbox" "$source_dir/demo/run.sh" "$build" >"$sandbox.out" 2>&1; then
    cat "$sandbox.out"
    fail "the demo failed"
  fi
  (( SECONDS - started < 60 )) || fail "the demo took $((SECONDS - started)) s"
}

run_demo "$work/sandbox"
out=$work/sandbox.out
for evidence in "catalog: installed 20250601" "fetched /repo/catalog/v20250601/full.pkg" \
    "catalog: updated 20250601 -> 20250604" "fetched /repo/catalog/v20250604/diff.pkg" \
    "Prepare diff update: signatures" "web.rules digest check fail" \
    "signatures: repaired: reinstalled 20250604" "identical to the published file again" \
    "the databases moved from $work/sandbox/volume1 to $work/sandbox/volume2" \
    "catalog: installed 20250602 (forced; was 20250604)" \
    "package is for signatures 20250604 (full), expected catalog 20250604 (full)" \
    "catalog.db is unchanged" "catalog: updated 20250602 -> 20250604"; do
  grep -qF -- "$evidence" "$out" || { cat "$out"; fail "missing from the output: $evidence"; }
done
if pgrep -f -- "--directory $work/sandbox/served" >/dev/null; then
  fail "the demo's server is still running"
fi

# What an operator sees afterwards, against what the vendor published.
status=$(. "$work/sandbox/env.sh" && "$build/tools/veskdbud" status --json)
python3 - "$work/sandbox/served/repo/database_info/v1" "$status" <<'PY'
import json, sys
published = json.load(open(sys.argv[1]))["db_list"]
status = json.loads(sys.argv[2])
seen = {db["id"]: db for db in status["databases"]}
assert sorted(seen) == sorted(published) == ["catalog", "signatures"], (sorted(seen), sorted(published))
for name, entry in published.items():
    db = seen[name]
    want = int(entry["data_version"])
    assert db["installed_version"] == want == db["server_version"], (name, db, want)
    assert db["last_result"]["ok"] is True, db
    assert db["install_directory"].startswith(status["volume"]), db
assert status["volume"].endswith("/volume2"), status["volume"]
print("status --json after the demo:", {n: d["installed_version"] for n, d in seen.items()})
PY

if [[ $(id -u) -ne 0 ]]; then
  echo "ran the demo as $(id -un)"
elif ! runuser -u nobody -- test -x "$build/tools/veskdbud" 2>/dev/null; then
  echo "ran the demo as root only: the user nobody cannot reach $build"
else
  mkdir "$work/nobody" && chown nobody "$work/nobody" && chmod 755 "$work"
  run_demo "$work/nobody/sandbox" runuser -u nobody -- env HOME=/nonexistent TMPDIR="$work/nobody"
  grep -qF "catalog: updated 20250602 -> 20250604" "$work/nobody/sandbox.out" ||
    fail "the demo as nobody did not finish its steps"
  echo "ran the demo as root and as nobody"
fi

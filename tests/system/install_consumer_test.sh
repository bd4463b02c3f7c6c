#!/usr/bin/env bash
# Installs the build tree into a fresh prefix, checks the systemd units and the
# example configuration the tool runs with, then builds and runs a consumer
# through pkg-config and through the CMake package.
set -euo pipefail
build=$1 consumer=$2
prefix=$(mktemp -d) work=$(mktemp -d)
trap 'rm -rf "$prefix" "$work"' EXIT

cmake --install "$build" --prefix "$prefix" >/dev/null
lib=$(dirname "$(find "$prefix" -name 'libveskdbud.so' | head -n1)")
for f in "$lib/libveskdbud.so" "$prefix/include/dataupdate/records.h" \
         "$lib/pkgconfig/veskdbud.pc" "$lib/cmake/veskdbud/veskdbudConfig.cmake"; do
  [[ -e $f ]] || { echo "missing after install: $f"; exit 1; }
done
soname=$(objdump -p "$lib/libveskdbud.so" | awk '/SONAME/ {print $2}')
[[ $soname == libveskdbud.so.0 ]] || { echo "unexpected soname: $soname"; exit 1; }

units=$prefix/lib/systemd/system
for check in "/bin/veskdbud init\$ veskdbud-init.service" "^WantedBy=multi-user.target veskdbud-init.service" \
    "^Type=oneshot veskdbud-update.service" "/bin/veskdbud update --all\$ veskdbud-update.service" \
    "^OnCalendar=daily veskdbud-update.timer" "^RandomizedDelaySec= veskdbud-update.timer" \
    "^Persistent=true veskdbud-update.timer"; do
  grep -q "${check% *}" "$units/${check##* }" || { echo "${check##* } lacks ${check% *}"; exit 1; }
done
[[ $(objdump -p "$prefix/bin/veskdbud") =~ NEEDED\ +libveskdbud\.so\.0 ]] ||
  { echo "the tool does not use the shared library"; exit 1; }
# The examples are a working default configuration with no volume chosen yet.
mkdir -p "$work/root/usr/share/data_update"
cp "$prefix/share/data_update/"*.conf "$work/root/usr/share/data_update/"
VESKDBUD_ROOT=$work/root VESK_VOLUMES= "$prefix/bin/veskdbud" status --json | python3 -c '
import json, sys
s, c = json.load(sys.stdin), json.load(open(sys.argv[1]))["config"]
assert s["volume"] is None and len(s["databases"]) == 2, s
assert all(d["installed_version"] is None for d in s["databases"]), s
assert all(c[k] for k in ("download_scheme", "db_netloc", "db_ver")) and c["cur_volume"] == "", c
' "$prefix/share/data_update/data_update.conf"

# CONSUMER_CXXFLAGS: extra flags for both consumers (the sanitizer build passes its own).
extra=${CONSUMER_CXXFLAGS:-}
export PKG_CONFIG_PATH="$lib/pkgconfig"
# shellcheck disable=SC2046,SC2086
g++ -std=c++17 $extra "$consumer/consumer.cpp" -o "$work/pc_consumer" \
    $(pkg-config --cflags --libs veskdbud) -Wl,-rpath,"$lib"
out=$("$work/pc_consumer")
[[ $out == "a_b_db 7 38b060a7" ]] || { echo "pkg-config consumer printed: $out"; exit 1; }

cmake -S "$consumer" -B "$work/cm" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_FLAGS="$extra" >/dev/null
cmake --build "$work/cm" >/dev/null
out=$(LD_LIBRARY_PATH="$lib" "$work/cm/consumer")
[[ $out == "a_b_db 7 38b060a7" ]] || { echo "cmake consumer printed: $out"; exit 1; }
echo "installed tree serves pkg-config and CMake consumers"

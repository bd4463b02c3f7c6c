#!/usr/bin/env bash
# Installs the build tree into a fresh prefix, then builds and runs a consumer
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

#!/usr/bin/env bash
# Builds the Debian packages as `make deb` does (incrementally, in BUILD/deb-src),
# extracts them, runs both tools from the extracted tree, checks that every file
# `cmake --install` installs is in a package, and that lintian finds no error.
set -euo pipefail
src=$1 build=$2
"$src/scripts/build-deb" "$build/deb-src" "$build/deb" >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

for package in libveskdbud0 libveskdbud-dev veskdbud veskdbud-publish; do
  found=("$build/deb/${package}"_*.deb)
  [[ ${#found[@]} == 1 && -f ${found[0]} ]] || { echo "no single package $package"; exit 1; }
  dpkg-deb -x "${found[0]}" "$work/root"
done

root=$work/root
lib=$(dirname "$(find "$root" -name libveskdbud.so.0)")
version=$(LD_LIBRARY_PATH=$lib "$root/usr/bin/veskdbud" --version)
[[ $version == "$("$build/tools/veskdbud" --version)" ]] || { echo "packaged tool says '$version'"; exit 1; }
"$root/usr/bin/veskdbud-publish" keygen --out "$work/keys" | grep -q '^key id [0-9a-f]' ||
  { echo "packaged publisher made no key"; exit 1; }
[[ -s $work/keys/private.pem && -s $work/keys/public.pem ]] || { echo "no key files"; exit 1; }
[[ -L $root/usr/vesk/sbin/veskdbudvcdiff && -x $root/usr/vesk/sbin/veskdbudvcdiff ]] ||
  { echo "the decoder is not reachable as /usr/vesk/sbin/veskdbudvcdiff"; exit 1; }
[[ -d $root/usr/vesk/etc/keys/6 ]] || { echo "no trusted-keys directory"; exit 1; }

# Paths compared without what differs by design: /usr (the packages' prefix),
# the multiarch library directory, compression of pages and long documents,
# and the build type in the name of the CMake package's per-configuration file.
normal() {
  sed -E -e 's#^usr/##' -e 's#^lib/[a-z0-9_]+-linux-gnu[a-z0-9_]*/#lib/#' -e 's#\.gz$##' \
         -e 's#(veskdbudTargets)-[a-z]+\.cmake$#\1-BUILDTYPE.cmake#' | sort -u
}
cmake --install "$build" --prefix "$work/installed" >/dev/null
missing=$(comm -23 <(cd "$work/installed" && find . -type f -o -type l | sed 's#^\./##' | normal) \
                   <(cd "$root" && find . -type f -o -type l | sed 's#^\./##' | normal))
[[ -z $missing ]] || { echo "installed by make install but in no package:"; echo "$missing"; exit 1; }

lintian --fail-on error --suppress-tags-from-file /dev/null "$build/deb"/*.deb >"$work/lintian" 2>&1 ||
  { cat "$work/lintian"; echo "lintian found errors"; exit 1; }
echo "four packages; $(grep -c '^W:' "$work/lintian" || true) lintian warnings (docs/development.md)"

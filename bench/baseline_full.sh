#!/usr/bin/env bash
# The full update done by hand, the baseline of the full-update figure:
# download the package's archive, unpack it into a temporary directory on the
# same volume, copy it into place, digest every installed file, and remove the
# temporary files. Usage: baseline_full.sh URL TMPDIR DEST SUMS
set -euo pipefail
url=$1 tmp=$2 dest=$3 sums=$4
rm -rf "$tmp"
mkdir -p "$tmp/x" "$dest"
wget -q -O "$tmp/full.tar.zst" "$url"
tar --zstd -xf "$tmp/full.tar.zst" -C "$tmp/x"
cp -r "$tmp/x/." "$dest/"
(cd "$dest" && find . -type f -print0 | xargs -0 sha384sum) >"$sums"
rm -rf "$tmp"

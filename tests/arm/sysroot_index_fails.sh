#!/usr/bin/env bash
# A package index that does not download stops scripts/arm-sysroot, naming it, rather than leaving
# a sysroot resolved without it. The mirror is a folder here: its Release announces an index of
# another size than the file it serves, as a mirror caught syncing does; no network is used.
#   tests/arm/sysroot_index_fails.sh ARCH OUT
set -euo pipefail
ARCH=$1 OUT=$(realpath -m "$2")
ROOT=$(readlink -f "$(dirname "$0")/../..")

rm -rf "$OUT"
index=$OUT/mirror/dists/bookworm/main/binary-$ARCH
mkdir -p "$index"
xz -c </dev/null >"$index/Packages.xz"
cat >"$OUT/mirror/dists/bookworm/Release" <<RELEASE
Suite: bookworm
Codename: bookworm
Date: $(date -Ru)
Architectures: $ARCH
Components: main
SHA256:
 $(sha256sum </dev/null | cut -d' ' -f1) 999 main/binary-$ARCH/Packages
 $(sha256sum <"$index/Packages.xz" | cut -d' ' -f1) 999 main/binary-$ARCH/Packages.xz
RELEASE
echo "deb [trusted=yes] file:$OUT/mirror bookworm main" >"$OUT/syncing.list"

status=0
TOV_APT_SOURCES=$OUT/syncing.list "$ROOT/scripts/arm-sysroot" "$ARCH" "$OUT/sysroot" >"$OUT/out" 2>&1 || status=$?
expected="  file:$OUT/mirror/dists/bookworm/main/binary-$ARCH/Packages.xz "
if [[ $status -ne 1 ]] || ! grep -qF "$ARCH sysroot: a package index did not download after 3 tries" "$OUT/out" ||
   ! grep -qF "$expected" "$OUT/out" || [[ -e $OUT/sysroot/root/.packages ]]; then
    echo "sysroot_index_fails: status $status; scripts/arm-sysroot said:" >&2
    cat "$OUT/out" >&2
    exit 1
fi
echo "sysroot_index_fails: scripts/arm-sysroot $ARCH stopped on the index that did not download:"
sed 's/^/  /' "$OUT/out"

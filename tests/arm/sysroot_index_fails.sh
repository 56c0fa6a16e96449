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

expected="  file:$OUT/mirror/dists/bookworm/main/binary-$ARCH/Packages.xz "
sysroot() {
    status=0
    TOV_APT_SOURCES=$OUT/syncing.list "$ROOT/scripts/arm-sysroot" "$ARCH" "$OUT/sysroot" >"$OUT/out" 2>&1 || status=$?
}
fail() {
    echo "sysroot_index_fails: $1 (status $status); scripts/arm-sysroot said:" >&2
    cat "$OUT/out" >&2
    exit 1
}

TOV_SYSROOT_WITHOUT_FAILED_INDEX='' sysroot
if [[ $status -ne 1 ]] || ! grep -qF "$ARCH sysroot: a package index did not download after 3 tries" "$OUT/out" ||
   ! grep -qF "$expected" "$OUT/out" || [[ -e $OUT/sysroot/root/.packages ]]; then
    fail "no stop on the index that did not download"
fi
echo "sysroot_index_fails: scripts/arm-sysroot $ARCH stopped on the index that did not download:"
sed 's/^/  /' "$OUT/out"

# Asked to go on, it names the index for the bundles to say (the empty mirror then has no packages).
TOV_SYSROOT_WITHOUT_FAILED_INDEX=1 sysroot
grep -qF "$ARCH sysroot: WARNING: resolved without these package indexes" "$OUT/out" &&
    grep -qF "${expected#  }" "$OUT/sysroot/missing-indexes" || fail "the index gone without is not named"
echo "sysroot_index_fails: asked to go on, it names the index in $OUT/sysroot/missing-indexes"

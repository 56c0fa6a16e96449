#!/usr/bin/env bash
# A package index that does not download stops scripts/arm-sysroot, naming it, rather than leaving
# a sysroot resolved without it: a mirror caught syncing (a folder here, whose Release announces an
# index of another size than the file it serves) and a mirror that refuses connections (an address
# of this machine where nothing listens), which apt takes for a mere warning.
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
# Both at once: each failure must be named.
cat >"$OUT/failing.list" <<LIST
deb [trusted=yes] file:$OUT/mirror bookworm main
deb [trusted=yes] http://127.0.0.1:9/debian-security bookworm-security main
LIST
expected=("  file:$OUT/mirror/dists/bookworm/main/binary-$ARCH/Packages.xz  Hash Sum mismatch"
          "  http://127.0.0.1:9/debian-security/dists/bookworm-security/InRelease  Could not connect")

sysroot() {
    status=0
    TOV_APT_SOURCES=$OUT/failing.list "$ROOT/scripts/arm-sysroot" "$ARCH" "$OUT/sysroot" >"$OUT/out" 2>&1 || status=$?
}
fail() {
    echo "sysroot_index_fails: $1 (status $status); scripts/arm-sysroot said:" >&2
    cat "$OUT/out" >&2
    exit 1
}

TOV_SYSROOT_WITHOUT_FAILED_INDEX='' sysroot
[[ $status -eq 1 && ! -e $OUT/sysroot/root/.packages ]] &&
    grep -qF "$ARCH sysroot: a package index did not download after 3 tries" "$OUT/out" ||
    fail "no stop on the indexes that did not download"
for index in "${expected[@]}"; do
    grep -qF "$index" "$OUT/out" || fail "not named: ${index#  }"
done
echo "sysroot_index_fails: scripts/arm-sysroot $ARCH stopped on the indexes that did not download:"
sed 's/^/  /' "$OUT/out"

# Asked to go on, it names the indexes for the bundles to say (the mirrors then have no packages).
TOV_SYSROOT_WITHOUT_FAILED_INDEX=1 sysroot
grep -qF "$ARCH sysroot: WARNING: resolved without these package indexes" "$OUT/out" || fail "no warning"
for index in "${expected[@]}"; do
    grep -qF "${index#  }" "$OUT/sysroot/missing-indexes" || fail "gone without, not named: ${index#  }"
done
echo "sysroot_index_fails: asked to go on, it names them in $OUT/sysroot/missing-indexes"

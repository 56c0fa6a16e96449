#!/usr/bin/env bash
# The bundle on a board whose root is not Debian: a root file system holding nothing but a static
# busybox of the board's architecture, the bundle unpacked under /home/TOV as a factory would, and
# a unit around it with its GPIO, V2 module and WATCHTOWER. Started by the starter, the bundled
# bench must run its second test phase to the end without an error, that is write the third phase
# into its phase file and ask for the reboot, all under qemu-arm (QEMU_CPU picks the processor).
# The bench is stopped then: its standard output, a file, keeps what it buffered.
#
#   tests/arm/foreign_phase.sh BUNDLE BUSYBOX OUT
#
# OUT gets the root, the unit's journal, and in factory/ the bench's output (bench.log).
set -euo pipefail
BUNDLE=$(readlink -f "$1") BUSYBOX=$(readlink -f "$2") OUT=$3
SIM=$(readlink -f "$(dirname "$0")/../../sim")
fail() { echo "foreign_phase: $*" >&2; exit 1; }

rm -rf "$OUT"
mkdir -p "$OUT/root/bin" "$OUT/root/sbin" "$OUT/factory"
factory=$(readlink -f "$OUT/factory")
cp "$BUSYBOX" "$OUT/root/bin/busybox"
for applet in $(qemu-arm-static "$BUSYBOX" --list); do
    [[ -e $OUT/root/bin/$applet ]] || ln -s busybox "$OUT/root/bin/$applet"
done
cp "$BUNDLE" "$factory/bundle.tar.gz"
: >"$OUT/journal"

# Inside the unit, in the busybox root: install, then the second phase, with the board's settings
# but for the screen (the unit has no framebuffer). The bench is ended once it asked for the reboot.
printf 'factory=%s\n' "$factory" >"$factory/run"
cat >>"$factory/run" <<'EOF'
cd /home/TOV
tar -xzf "$factory/bundle.tar.gz"
sed -i 's/^export QT_QPA_PLATFORM=.*/export QT_QPA_PLATFORM=offscreen/' tov_env
printf '1\n0\n192.0.2.10\n' >tov_test.cfg
./tov_starter >"$factory/bench.log" 2>&1 &
bench=$!
waited=0
until grep -q '^/sbin/reboot' /run/tovsim/journal; do
    kill -0 "$bench" 2>/dev/null || { echo "the bench ended before the reboot"; exit 1; }
    [ "$waited" -lt 600 ] || { echo "no reboot after 600 s"; exit 1; }
    sleep 1
    waited=$((waited + 1))
done
kill "$bench"
cat tov_test.cfg >"$factory/phase"
echo "reboot asked after $waited s"
EOF
status=0
"$SIM/tovsim" exec --root "$OUT/root" --journal "$OUT/journal" --watchtower up --module v2 --home-size 256 \
    --bind "$factory" -- /bin/sh "$factory/run" || status=$?
[[ $status -eq 0 ]] || fail "status $status; the bench said: $(tail -n 20 "$factory/bench.log" 2>/dev/null)"
phase=$(cat "$factory/phase")
[[ $phase == $'2\n0\n192.0.2.10' ]] || fail "the phase file after the run: $(printf '%q' "$phase")"
# The root has no touch panel: the bench says so and runs on.
grep -qxF "[TouchPanel] no touch panel at /dev/input/event0 (No such file or directory): the bench runs without touch" \
    "$factory/bench.log" || fail "no line about the missing touch panel in bench.log"
# The phase file moves on and the reboot is asked for only when no stage counted an error: the
# upload reached WATCHTOWER, the relays and inputs answered, the V2 module was found.
echo "foreign_phase: the bundled bench ran a whole phase without an error in a busybox root" \
    "(QEMU_CPU=${QEMU_CPU-default}); what it printed before its end:"
sed 's/^/  /' "$factory/bench.log"

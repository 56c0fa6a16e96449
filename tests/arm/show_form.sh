#!/usr/bin/env bash
# The board's tov_test, started under qemu-arm in a simulated unit at its first boot (no phase
# file), must come up on the offscreen platform and show the network form on a screen. Runs
# inside a unit:
#
#   sim/tovsim exec --bind OUT -- tests/arm/show_form.sh ARMHF_TOV SYSROOT HOST_TOV OUT
#
# 1. offscreen: the program is still running 30 s after its start (it has built every page and
#    waits for the operator; offscreen windows cannot be photographed from outside);
# 2. on an Xvfb screen (xcb): the form's apply button and the keyboard's keys are read through
#    the accessibility bus as an operator would see them, then the screen is saved as
#    OUT/armhf-form.png, beside OUT/host-form.png of the host build on the same screen. The two
#    must be the same picture (perceptual hash distance at most 2).
set -euo pipefail
[[ -f /run/tovsim/unit ]] || { echo "show_form: runs only inside a simulated unit" >&2; exit 2; }
SIM_DIR=$(readlink -f "$(dirname "$0")/../../sim")
APPLY='Appliquer\nConfiguration Réseaux'
fail() { echo "show_form: $*" >&2; exit 1; }

# Within the desktop (sim/operator/desktop): --shoot NAME OUT COMMAND... starts one program, waits for
# the form and its keyboard on the screen and saves the screen as OUT/NAME.png.
if [[ ${1-} == --shoot ]]; then
    name=$2 out=$3
    shift 3
    "$@" >"$out/$name.log" 2>&1 &
    pid=$!
    "$SIM_DIR/operator/screen" wait-button "$APPLY" 300 || fail "no network form on the $name screen"
    "$SIM_DIR/operator/screen" wait-button Space 60 || fail "no keyboard on the $name screen"
    sleep 2 # its last paint
    import -window root "$out/$name.png"
    kill "$pid"
    wait "$pid" 2>/dev/null || true
    exit 0
fi

[[ $# -eq 4 ]] || { echo "usage: show_form.sh ARMHF_TOV SYSROOT HOST_TOV OUT" >&2; exit 2; }
ARM_TOV=$1 SYSROOT=$2 HOST_TOV=$3 OUT=$4
rm -f /home/TOV/tov_test.cfg

# The offscreen start: alive after 30 s.
QT_QPA_PLATFORM=offscreen qemu-arm-static -L "$SYSROOT" "$ARM_TOV" >"$OUT/offscreen.log" 2>&1 &
pid=$!
for _ in $(seq 30); do
    sleep 1
    kill -0 "$pid" 2>/dev/null || fail "the offscreen start ended early: $(tail -n 5 "$OUT/offscreen.log")"
done
kill "$pid"
wait "$pid" 2>/dev/null || true
echo "armhf tov_test, offscreen: running after 30 s"

source "$SIM_DIR/operator/xvfb.sh"
trap xvfb_stop EXIT
xvfb_start

"$SIM_DIR/operator/desktop" "$0" --shoot armhf-form "$OUT" qemu-arm-static -L "$SYSROOT" "$ARM_TOV"
"$SIM_DIR/operator/desktop" "$0" --shoot host-form "$OUT" "$HOST_TOV"

# The perceptual hash distance: the two builds lay text out a pixel or two apart (their FreeType
# and fontconfig differ), which moves 5 % of the pixels but not the picture. The same form gives
# well under 1, the form without its keyboard 17, an empty screen thousands.
distance=$(compare -metric PHASH "$OUT/armhf-form.png" "$OUT/host-form.png" null: 2>&1 || true)
[[ $distance =~ ^[0-9.e+-]+$ ]] || fail "cannot compare the screenshots: $distance"
echo "armhf tov_test, xcb: the network form and its keyboard shown, $OUT/armhf-form.png;" \
    "perceptual distance from the host build's: $distance"
awk -v d="$distance" 'BEGIN { exit !(d <= 2) }' || fail "the armhf screen is not the host's form (distance $distance)"

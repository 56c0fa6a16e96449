# Sourced by the scripts that show the bench on a private screen (sim/operator/scenario, tests/arm).
#
# xvfb_start: starts Xvfb, 640x480 like the unit's panel, on the first free display number; exports
# DISPLAY and sets XVFB_PID. -noreset keeps the server's state (the accessibility bus address)
# when its last client leaves: without it the next bench started never finds that bus.
# xvfb_stop: ends it (nothing when none was started).

XVFB_PID=""

xvfb_start() {
    local n=90
    while [[ -e /tmp/.X$n-lock || -e /tmp/.X11-unix/X$n ]]; do n=$((n + 1)); done
    Xvfb ":$n" -screen 0 640x480x24 -nolisten tcp -noreset >/dev/null 2>&1 &
    XVFB_PID=$!
    export DISPLAY=":$n"
    for _ in $(seq 100); do [[ -e /tmp/.X11-unix/X$n ]] && break; sleep 0.05; done
}

xvfb_stop() {
    [[ -z $XVFB_PID ]] || kill "$XVFB_PID" 2>/dev/null || true
}

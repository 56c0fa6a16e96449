# Measurement module on the unit's RS-485 bus (sourced by tovsim).
#
# The unit's "/dev/ttySAC1" is the slave of a pty whose master module_emulator holds; it answers
# as the scenario says, paced at the line's baud rate. "/dev/rs485_Ctrl" is a bind of /dev/null
# whose direction requests the rs485ctl library (sim/devices/rs485ctl.c), preloaded into COMMAND, takes
# and records in /run/tovsim/rs485.journal with the bytes written on the port. The emulator logs
# what it hears and says to /run/tovsim/module.log.

MODULE_SCENARIOS="none v1 v1-echo v1-bad-header v1-init-only v1-cut v2 v2-faulty v2-unconfigured v2-cut noise"
MODULE_SENSORS="weight pressure inlet outlet outside"

module_defaults() {
    TOVSIM_MODULE=none TOVSIM_MODULE_SET=0 TOVSIM_MODULE_VALUES="" TOVSIM_MODULE_VERSION=2.5
    TOVSIM_MODULE_FAULT=""
}

# module_option OPTION VALUE: one of the --module* options of tovsim exec.
module_option() {
    case $1 in
        --module)
            [[ " $MODULE_SCENARIOS " == *" $2 "* ]] || die "unknown module scenario '$2'"
            TOVSIM_MODULE=$2 TOVSIM_MODULE_SET=1 ;;
        --module-values)
            [[ $2 =~ ^[-0-9.,]+$ ]] || die "--module-values takes numbers separated by commas"
            TOVSIM_MODULE_VALUES=$2 ;;
        --module-version)
            [[ $2 =~ ^-?[0-9]+(\.[0-9]+)?$ ]] || die "--module-version takes a number"
            TOVSIM_MODULE_VERSION=$2 ;;
        --module-fault)
            [[ " $MODULE_SENSORS " == *" $2 "* ]] || die "unknown sensor '$2' (one of: $MODULE_SENSORS)"
            TOVSIM_MODULE_FAULT=$2 ;;
    esac
}

# After all options: a faulty sensor belongs to a second-generation module.
module_check_options() {
    [[ -z $TOVSIM_MODULE_FAULT || $TOVSIM_MODULE == v2* ]] ||
        die "--module-fault needs a V2 module scenario, not '$TOVSIM_MODULE'"
}

# /run/tovsim/module faulty|as-started: the module's probes pulled off (every sensor reports its
# fault marker) or plugged back, while the unit runs.
write_module_control() {
    cat >/run/tovsim/module <<'EOF'
#!/bin/sh
case ${1-} in
    faulty) signal=USR1 ;;
    as-started) signal=USR2 ;;
    *) echo "usage: /run/tovsim/module faulty|as-started" >&2; exit 2 ;;
esac
exec pkill -"$signal" -x module_emulator
EOF
    chmod +x /run/tovsim/module
}

# Inside the unit, after pivot_root: the control node and its library, then the emulator and the
# serial port. Sets MODULE_PRELOAD, the library for COMMAND (empty when it was not built).
setup_module() {
    local emulator=$TOVSIM_BIN_DIR/module_emulator ready=/run/tovsim/module.pty pid status
    touch /dev/rs485_Ctrl /run/tovsim/rs485.journal
    mount --bind /dev/null /dev/rs485_Ctrl
    MODULE_PRELOAD=$TOVSIM_BIN_DIR/librs485ctl.so
    [[ -e $MODULE_PRELOAD ]] || MODULE_PRELOAD=""
    if [[ ! -x $emulator ]]; then
        # Without the emulator a unit still starts, with no serial port, unless a module was asked for.
        [[ $TOVSIM_MODULE_SET == 0 ]] || die "no module emulator in '$TOVSIM_BIN_DIR' (build sim/)"
        return 0
    fi
    local args=(--scenario "$TOVSIM_MODULE" --version "$TOVSIM_MODULE_VERSION"
                --ready "$ready" --log /run/tovsim/module.log)
    [[ -z $TOVSIM_MODULE_VALUES ]] || args+=(--values "$TOVSIM_MODULE_VALUES")
    [[ -z $TOVSIM_MODULE_FAULT ]] || args+=(--fault "$TOVSIM_MODULE_FAULT")
    local run=()
    # The module lives on the unit's clock: with the clock sped up, its answers take their wire
    # time on that clock too, as the bench's read deadlines do.
    [[ ${TOVSIM_CLOCK_SPEED:-1} == 1 ]] || run=(faketime -f "+0 x$TOVSIM_CLOCK_SPEED")
    "${run[@]}" "$emulator" "${args[@]}" </dev/null >/dev/null 2>>/run/tovsim/module.err &
    pid=$!
    for _ in $(seq 500); do
        [[ -s $ready ]] && break
        if ! kill -0 "$pid" 2>/dev/null; then
            wait "$pid" && status=0 || status=$?
            die "module emulator ended at its start with status $status: $(cat /run/tovsim/module.err)"
        fi
        sleep 0.01
    done
    [[ -s $ready ]] || die "module emulator did not start"
    touch /dev/ttySAC1
    mount --bind "$(cat "$ready")" /dev/ttySAC1
    write_module_control
    printf 'module=%s\n' "$TOVSIM_MODULE" >>/run/tovsim/unit
    [[ -z $TOVSIM_MODULE_FAULT ]] || printf 'module-fault=%s\n' "$TOVSIM_MODULE_FAULT" >>/run/tovsim/unit
}

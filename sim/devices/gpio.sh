# Sourced by sim/tovsim: the unit's sysfs GPIO, served by the gpiofs emulator (sim/devices/gpiofs.cpp).
#
# Inside the unit the emulator is mounted on /run/tovsim/gpio and its sysfs/ folder is bound on
# /sys/class/gpio. /sys/class is a tmpfs holding binds of the unit's own sysfs classes (net, tty,
# ...), since sysfs itself refuses a new folder there. The emulator is started before COMMAND,
# waited for, and stopped after it.

GPIO_BOARD_PINS=138,135,136,230,232,200,201,202,41,42
GPIO_CONTROL=/run/tovsim/gpio
GPIO_PID=""

gpio_option_defaults() {
    TOVSIM_GPIO=1 TOVSIM_GPIO_PINS=$GPIO_BOARD_PINS TOVSIM_GPIO_INPUTS="" TOVSIM_GPIO_SCRIPT=""
    TOVSIM_GPIO_SCRIPT_TEXT=""
}

# gpio_option "$@": reads one GPIO option; sets GPIO_OPTION_ARGS to the number of words it took.
gpio_option() {
    GPIO_OPTION_ARGS=1
    case $1 in
        --no-gpio) TOVSIM_GPIO=0; return 0 ;;
        --gpio-input|--gpio-script|--gpio-pins) [[ $# -ge 2 ]] || return 1; GPIO_OPTION_ARGS=2 ;;
        *) return 1 ;;
    esac
    case $1 in
        --gpio-input)
            [[ $2 =~ ^[0-9]+=-?[0-9]+$ ]] || die "--gpio-input takes PIN=LEVEL, e.g. 202=0"
            TOVSIM_GPIO_INPUTS+="$2 " ;;
        --gpio-script)
            [[ -f $2 && -r $2 ]] || die "no script '$2' for --gpio-script"
            TOVSIM_GPIO_SCRIPT=$2 ;;
        --gpio-pins)
            [[ $2 =~ ^[0-9]+(,[0-9]+)*$ ]] || die "--gpio-pins takes numbers separated by commas"
            TOVSIM_GPIO_PINS=$2 ;;
    esac
}

# On this machine, before the namespaces: checks the inputs against the pins and carries the
# script's text into the unit (its file may live where the unit cannot see it).
gpio_export_options() {
    local input
    for input in $TOVSIM_GPIO_INPUTS; do
        [[ ,$TOVSIM_GPIO_PINS, == *,${input%%=*},* ]] || die "--gpio-input: no pin ${input%%=*} on the board"
    done
    if [[ -n $TOVSIM_GPIO_SCRIPT ]]; then
        TOVSIM_GPIO_SCRIPT_TEXT=$(cat "$TOVSIM_GPIO_SCRIPT") || die "cannot read '$TOVSIM_GPIO_SCRIPT'"
        TOVSIM_GPIO_SCRIPT_TEXT+=$'\n'
    fi
    export TOVSIM_GPIO TOVSIM_GPIO_PINS TOVSIM_GPIO_INPUTS TOVSIM_GPIO_SCRIPT_TEXT
}

# Before pivot_root: /sys/class of the unit, with a mount point for the emulator unless --no-gpio.
gpio_mount_class() {
    local root=$1 fresh=$UNIT_BASE/sysfs dir name
    mkdir -p "$fresh"
    mount -t sysfs sysfs "$fresh"
    mount -t tmpfs -o mode=0755,size=256k tovsim-class "$root/sys/class"
    for dir in "$fresh"/class/*; do
        name=${dir##*/}
        [[ $name == gpio ]] || echo "$dir $root/sys/class/$name"
    done | bind_mounts
    umount "$fresh"
    [[ $TOVSIM_GPIO == 0 ]] || mkdir "$root/sys/class/gpio"
    mount -o remount,ro,bind "$root/sys/class"
}

# Inside the unit: starts the emulator and returns once /sys/class/gpio answers.
gpio_start() {
    printf 'gpio=%s\n' "$TOVSIM_GPIO" >>/run/tovsim/unit
    [[ $TOVSIM_GPIO == 1 ]] || return 0
    local emulator=$TOVSIM_BIN_DIR/gpiofs input args=()
    [[ -x $emulator ]] || die "no GPIO emulator '$emulator': build the project, or use --no-gpio"
    args=(--journal /run/tovsim/gpio.journal --pins "$TOVSIM_GPIO_PINS")
    for input in $TOVSIM_GPIO_INPUTS; do
        args+=(--input "$input")
    done
    if [[ -n $TOVSIM_GPIO_SCRIPT_TEXT ]]; then
        printf '%s' "$TOVSIM_GPIO_SCRIPT_TEXT" >/run/tovsim/gpio.script
        args+=(--script /run/tovsim/gpio.script)
    fi
    touch /run/tovsim/gpio.journal
    mkdir -p "$GPIO_CONTROL"
    "$emulator" "$GPIO_CONTROL" "${args[@]}" </dev/null &
    GPIO_PID=$!
    local tries
    for ((tries = 0; tries < 1000; tries++)); do
        [[ -d $GPIO_CONTROL/sysfs ]] && break
        kill -0 "$GPIO_PID" 2>/dev/null || { wait "$GPIO_PID" || true; die "the GPIO emulator did not start"; }
        sleep 0.01
    done
    [[ -d $GPIO_CONTROL/sysfs ]] || die "the GPIO emulator is not ready after 10 s"
    mount --bind "$GPIO_CONTROL/sysfs" /sys/class/gpio
}

# Inside the unit, after COMMAND: unmounts and ends the emulator.
gpio_stop() {
    [[ -n $GPIO_PID ]] || return 0
    umount -l /sys/class/gpio 2>/dev/null || true
    # On TERM the emulator unmounts itself, even when a leftover process still has a file open.
    kill -TERM "$GPIO_PID" 2>/dev/null || true
    wait "$GPIO_PID" || true
    GPIO_PID=""
}

# The first process at or under PID that lives in another mount namespace than ours: the unit
# itself when PID is "tovsim exec" (or anything that started it), PID when it is in the unit.
gpio_unit_process() {
    local own queue=("$1") pid
    own=$(readlink /proc/self/ns/mnt)
    while [[ ${#queue[@]} -gt 0 ]]; do
        pid=${queue[0]}
        queue=("${queue[@]:1}")
        local ns
        ns=$(readlink "/proc/$pid/ns/mnt" 2>/dev/null) || continue
        if [[ $ns != "$own" ]]; then
            printf '%s\n' "$pid"
            return 0
        fi
        queue+=($(pgrep -P "$pid" || true))
    done
    return 1
}

# tovsim gpio [--unit PID] [PIN | PIN=LEVEL]...
cmd_gpio() {
    if [[ ${1-} == --unit ]]; then
        [[ $# -ge 2 && $2 =~ ^[0-9]+$ ]] || die "--unit takes the pid of a process of the unit"
        local pid=$2
        shift 2
        [[ $(id -u) -eq 0 ]] || die "reaching a unit needs root"
        pid=$(gpio_unit_process "$pid") || die "no simulated unit at or under pid $2"
        exec nsenter -t "$pid" -m -- "$SELF" gpio "$@"
    fi
    [[ -e /run/tovsim/unit ]] || die "not inside a simulated unit: give --unit PID"
    [[ -d $GPIO_CONTROL/pins ]] || die "this unit has no GPIO"
    if [[ $# -eq 0 ]]; then
        cat "$GPIO_CONTROL/state"
        return
    fi
    local arg pin
    for arg in "$@"; do
        pin=${arg%%=*}
        [[ $pin =~ ^[0-9]+$ && -e $GPIO_CONTROL/pins/$pin ]] || die "no pin '$pin' on the board"
        if [[ $arg == *=* ]]; then
            [[ ${arg#*=} =~ ^-?[0-9]+$ ]] || die "'$arg': the level must be a number"
            printf '%s' "${arg#*=}" >"$GPIO_CONTROL/pins/$pin" || die "cannot set pin $pin"
        else
            cat "$GPIO_CONTROL/pins/$pin"
        fi
    done
}

#!/usr/bin/env bash
# The simulated unit's launcher, seen from this machine: nothing of a unit reaches this machine or
# stays behind, /home is saved between runs, and the cable is pulled from outside. What the unit
# shows its command is proven by the tests that run in it. Usage: test_tovsim.sh CASE (see the functions below).
set -uo pipefail

TOVSIM=$(dirname "$(readlink -f "$0")")/../../sim/tovsim
SCRATCH=$(mktemp -d /tmp/tovsim-test.XXXXXX)
trap 'rm -rf "$SCRATCH"' EXIT
failures=0
# A sleep no other program runs at the same time, to find this run's processes.
NAP="sleep 600.$$$RANDOM"

check() { # check DESCRIPTION EXPECTED ACTUAL
    if [[ $2 == "$3" ]]; then
        printf 'ok   %s\n' "$1"
    else
        printf 'FAIL %s\n  expected: %q\n  actual:   %q\n' "$1" "$2" "$3"
        failures=$((failures + 1))
    fi
}

host_state() {
    findmnt -rn -o TARGET | sort
    ls -d /ramdisk /home/TOV /etc/network /media/usb_drive /usr/lib/librefprop.so.9.12 2>&1
    ls -A /mnt
    # Only what tovsim itself could leave: other programs use /tmp while this runs.
    ls -A /tmp | grep '^tovsim\.' || true
    md5sum /usr/sbin/reboot /usr/bin/dmesg 2>&1
    ip -o link show | awk -F': ' '{print $2}'
    ls -A /run/netns 2>&1
    # A WATCHTOWER server its unit left behind is an orphan; those of units other tests run are not.
    pgrep -x -P 1 sshd
}

# The unit's helper programs, started through links private to this run: a helper left behind is
# then found by its path, not confused with those of units that other tests run at the same time.
BIN=$SCRATCH/bin
mkdir "$BIN"
for program in gpiofs tov_tcplisten module_emulator; do
    ln -s "$(readlink -f "${TOVSIM_BIN_DIR:-$(dirname "$TOVSIM")/../build/host/sim}")/$program" "$BIN/"
done
export TOVSIM_BIN_DIR=$BIN
left_behind() { pgrep -f "^$BIN/$1( |\$)" || true; }

case_leaves_nothing_behind() {
    local before
    before=$(host_state)
    "$TOVSIM" exec -- sh -c 'echo x >/home/TOV/x; echo y >/ramdisk/y; echo z >/etc/network/interfaces
        echo w >/usr/lib/w; /sbin/reboot; '"$NAP"' & exit 5'
    check "exit status of the command" 5 "$?"
    check "machine unchanged after a run" "$before" "$(host_state)"
    check "no process of the unit left" "" "$(pgrep -fx "$NAP" || true)"
    # With a server and a stick, and a process of the unit still holding a GPIO file open: none of
    # them may keep anything up.
    "$TOVSIM" exec --watchtower up --usb "$SCRATCH" -- sh -c 'pgrep -x sshd >/dev/null || exit 9
        echo 202 >/sys/class/gpio/export; '"$NAP"' </sys/class/gpio/gpio202/value & exit 0'
    check "the WATCHTOWER server ran in the unit" 0 "$?"
    check "machine unchanged after a run with a server, a stick and a held GPIO file" "$before" "$(host_state)"
    check "no emulator or listener of the unit left" "" "$(left_behind gpiofs; left_behind tov_tcplisten)"
    "$TOVSIM" exec -- /no/such/command 2>/dev/null
    check "a command that cannot start" 127 "$?"
    check "machine unchanged after a failed start" "$before" "$(host_state)"
}

case_home_kept_between_runs() {
    local store=$SCRATCH/home out
    mkdir "$store"
    "$TOVSIM" exec --home "$store" -- sh -c 'printf "1\n0\n192.0.2.10\n" >/home/TOV/tov_test.cfg
        sed -i s/tov_test/tovQT/ /home/TOV/tov_starter'
    check "saved /home, without the ballast" ".tovsim-home
TOV
TOV/tov_starter
TOV/tov_test.cfg" "$(cd "$store" && find . -mindepth 1 | sed 's|^\./||' | sort)"
    out=$("$TOVSIM" exec --home "$store" --home-used 50 -- sh -c 'cat /home/TOV/tov_test.cfg
        grep ^TOV_BIN_NAME= /home/TOV/tov_starter; rm /home/TOV/tov_test.cfg; df -B1M --output=used /home | tail -1')
    check "a later run sees what an earlier one wrote" "1
0
192.0.2.10
TOV_BIN_NAME=tovQT
   50" "$out"
    check "deletions are saved too" "tov_starter" "$(ls "$store/TOV")"

    mkdir "$SCRATCH/foreign" && touch "$SCRATCH/foreign/precious"
    "$TOVSIM" exec --home "$SCRATCH/foreign" -- true 2>/dev/null
    check "refuses a folder it did not save" 2 "$?"
    check "foreign folder untouched" "precious" "$(ls -A "$SCRATCH/foreign")"
}

case_stop_ends_the_unit() {
    local store=$SCRATCH/home pid status
    mkdir "$store"
    "$TOVSIM" exec --home "$store" -- sh -c 'echo started >/home/mark; exec '"$NAP" &
    pid=$!
    for _ in $(seq 100); do pgrep -fx "$NAP" >/dev/null && break; sleep 0.1; done
    kill -TERM "$pid"
    wait "$pid"
    status=$?
    check "stopped command's status" 143 "$status"
    check "home saved after a stop" "started" "$(cat "$store/mark" 2>&1)"
    check "no process of the unit left" "" "$(pgrep -fx "$NAP" || true)"
}

case_cable_from_this_machine() {
    local name=tovsim-test-$$ pid
    "$TOVSIM" exec --name "$name" -- sh -c 'carrier() { cat /sys/class/net/eth0/carrier; }
        echo "carrier $(carrier)"
        for i in $(seq 600); do [ "$(carrier)" = 0 ] && break; sleep 0.05; done; echo "carrier $(carrier)"
        for i in $(seq 600); do [ "$(carrier)" = 1 ] && break; sleep 0.05; done; echo "carrier $(carrier)"' \
        >"$SCRATCH/out" &
    pid=$!
    # Each step waits for the command to have seen the previous one.
    lines_out() { for _ in $(seq 600); do [[ $(grep -c . "$SCRATCH/out") -ge $1 ]] && return; sleep 0.05; done; }
    lines_out 1
    "$TOVSIM" cable "$name" unplugged
    check "cable command status" 0 "$?"
    "$TOVSIM" exec --name "$name" -- true 2>/dev/null
    check "a second unit with the same name refused" 2 "$?"
    lines_out 2
    "$TOVSIM" cable "$name" plugged
    wait "$pid"
    check "the running command saw the cable pulled and put back" "carrier 1
carrier 0
carrier 1" "$(cat "$SCRATCH/out")"
    "$TOVSIM" cable --wait 1 "$name" plugged 2>/dev/null
    check "no unit of that name any more" 2 "$?"
}

# A peer of the unit that ends at its start stops the unit at once, with the peer's own words and
# status, before the command runs.
case_peer_that_fails_to_start() {
    local peer program options out status
    for peer in "tov_tcplisten --watchtower down" "module_emulator --module v2"; do
        read -r program options <<<"$peer"
        mv "$BIN/$program" "$BIN/$program.kept"
        printf '#!/bin/sh\necho "%s: cannot start" >&2\nexit 3\n' "$program" >"$BIN/$program"
        chmod +x "$BIN/$program"
        # shellcheck disable=SC2086 # the options are words
        out=$(timeout 20 "$TOVSIM" exec $options -- touch "$SCRATCH/ran" 2>&1)
        status=$?
        mv "$BIN/$program.kept" "$BIN/$program"
        check "$program: the unit stops" 2 "$status"
        check "$program: the command never ran" "no" "$([[ -e $SCRATCH/ran ]] && echo yes || echo no)"
        check "$program: its words and status are shown" "yes" \
            "$([[ $out == *"$program: cannot start"* && $out == *"status 3"* ]] && echo yes || echo "no: $out")"
    done
}

# WATCHTOWER down keeps its port 22 open with nothing behind it; stopped, the port refuses.
case_watchtower_port() {
    local mode
    for mode in "down open" "stopped refused"; do
        read -r mode want <<<"$mode"
        check "--watchtower $mode: port 22 $want" "$want" "$("$TOVSIM" exec --watchtower "$mode" -- \
            bash -c 'exec 3<>/dev/tcp/192.0.2.10/22 && echo open || echo refused' 2>/dev/null)"
    done
}

# The module's probes pulled off and plugged back while the unit runs: the weight a data request
# (command 13) gets back, as the wire carries it (the first float of the answer's payload).
case_module_sensors() {
    local out
    # shellcheck disable=SC2016 # expanded in the unit
    out=$("$TOVSIM" exec --module v2 -- bash -c '
        exec 3<>/dev/ttySAC1
        stty 9600 raw -echo <&3
        weight() {
            printf "\x01\x00\x00\x0d\x00\x00\x00" >&3
            timeout 5 head -c 34 <&3 | od -An -tx1 -j6 -N4 | tr -d " \n"
            echo
        }
        weight
        /run/tovsim/module faulty && weight
        /run/tovsim/module as-started && weight
        /run/tovsim/module pulled 2>/dev/null || echo "refused $?"
        grep "^sensors" /run/tovsim/module.log' 2>&1)
    check "as started, faulty (-999.0), as started again; a wrong word refused" "0000fb42
00c079c4
0000fb42
refused 2
sensors faulty
sensors as started" "$out"
}

"case_$1"
[[ $failures -eq 0 ]]

#!/usr/bin/env bash
# The simulated unit's launcher, seen from this machine: what the unit shows its command, and that
# nothing of it stays behind. Usage: test_tovsim.sh CASE (see the functions below).
set -uo pipefail

TOVSIM=$(dirname "$(readlink -f "$0")")/../../sim/tovsim
SCRATCH=$(mktemp -d /tmp/tovsim-test.XXXXXX)
trap 'rm -rf "$SCRATCH"' EXIT
failures=0

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
    ls -A /mnt /tmp | grep -v "^$(basename "$SCRATCH")\$"
    md5sum /usr/sbin/reboot /usr/bin/dmesg 2>&1
}

case_leaves_nothing_behind() {
    local before after
    before=$(host_state)
    "$TOVSIM" exec -- sh -c 'echo x >/home/TOV/x; echo y >/ramdisk/y; echo z >/etc/network/interfaces
        echo w >/usr/lib/w; /sbin/reboot; sleep 60 & exit 5'
    check "exit status of the command" 5 "$?"
    after=$(host_state)
    check "machine unchanged after a run" "$before" "$after"
    check "no process of the unit left" "" "$(pgrep -fx 'sleep 60' || true)"
    "$TOVSIM" exec -- /no/such/command 2>/dev/null
    check "a command that cannot start" 127 "$?"
    check "machine unchanged after a failed start" "$before" "$(host_state)"
}

case_unit_layout() {
    local out
    out=$("$TOVSIM" exec -- sh -c 'cat /home/TOV/tov_starter; stat -f -c "%b %a %S" /home
        ls /usr/lib/librefprop.so.9.12; ls /run/tovsim/unit; test -d /ramdisk && echo ramdisk
        cat /etc/network/interfaces; ip -o link show | cut -d: -f2')
    check "unit layout" "#!/bin/sh
# Starts the unit's application at boot.
TOV_BIN_NAME=tov_test
cd /home/TOV && exec \"./\$TOV_BIN_NAME\"
32768 16384 4096
/usr/lib/librefprop.so.9.12
/run/tovsim/unit
ramdisk
auto lo
iface lo inet loopback

auto eth0
allow-hotplug eth0
iface eth0 inet dhcp

 lo" "$out"
    out=$("$TOVSIM" exec --no-refprop --no-ramdisk --home-used 44 --home-size 100 -- sh -c \
        'ls /usr/lib/librefprop.so.9.12 /ramdisk 2>&1 | wc -l; df -B1M --output=size,used /home | tail -1 | tr -s " "')
    check "options leave things out and size /home" "2
 100 44" "$out"
}

case_journal() {
    local journal=$SCRATCH/journal
    echo "earlier line" >"$journal"
    "$TOVSIM" exec --journal "$journal" --eth-chip none -- sh -c '/sbin/reboot; /sbin/ifconfig eth0 down
        /etc/init.d/networking restart; dmesg | grep -ci dm9000; reboot -f'
    check "journal appended with one line per call" "earlier line
/sbin/reboot
/sbin/ifconfig eth0 down
/etc/init.d/networking restart
dmesg
/sbin/reboot -f" "$(cat "$journal")"
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
    "$TOVSIM" exec --home "$store" -- sh -c 'echo started >/home/mark; exec sleep 60' &
    pid=$!
    for _ in $(seq 100); do pgrep -fx 'sleep 60' >/dev/null && break; sleep 0.1; done
    kill -TERM "$pid"
    wait "$pid"
    status=$?
    check "stopped command's status" 143 "$status"
    check "home saved after a stop" "started" "$(cat "$store/mark" 2>&1)"
    check "no process of the unit left" "" "$(pgrep -fx 'sleep 60' || true)"
}

case_bad_usage() {
    "$TOVSIM" exec --eth-chip dm9000c -- true 2>/dev/null
    check "unknown chip refused" 2 "$?"
    "$TOVSIM" exec --home-used 200 -- true 2>/dev/null
    check "more used than the size refused" 2 "$?"
    "$TOVSIM" exec 2>/dev/null
    check "missing command refused" 2 "$?"
}

case_module() {
    local out
    out=$("$TOVSIM" exec --module v2 --module-version 1.5 -- sh -c 'test -c /dev/ttySAC1 && echo port
        test -c /dev/rs485_Ctrl && echo ctrl; grep ^module= /run/tovsim/unit
        pgrep -x module_emulator >/dev/null && echo emulator')
    check "module scenario, port and control node" "port
ctrl
module=v2
emulator" "$out"
    check "no emulator left" "" "$(pgrep -x module_emulator || true)"
    out=$("$TOVSIM" exec -- sh -c 'grep ^module= /run/tovsim/unit; test -c /dev/ttySAC1 && echo port')
    check "by default the port is there and no module answers" "module=none
port" "$out"
    "$TOVSIM" exec --module v3 -- true 2>/dev/null
    check "unknown scenario refused" 2 "$?"
    "$TOVSIM" exec --module v1 --module-values 'a;b' -- true 2>/dev/null
    check "values that are not numbers refused" 2 "$?"
    "$TOVSIM" exec --module v1 --module-values 1,2 -- true 2>/dev/null
    check "values the emulator cannot use refused" 2 "$?"
    TOVSIM_BIN_DIR=$SCRATCH "$TOVSIM" exec --module v1 -- true 2>/dev/null
    check "a module without its emulator refused" 2 "$?"
    check "no module emulator in the default unit without it" "no port" \
        "$(TOVSIM_BIN_DIR=$SCRATCH "$TOVSIM" exec -- sh -c 'test -e /dev/ttySAC1 && echo port || echo no port')"
}

"case_$1"
[[ $failures -eq 0 ]]

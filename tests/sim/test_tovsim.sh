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
    ip -o link show | awk -F': ' '{print $2}'
    ls -A /run/netns 2>&1
}

LISTENER=${TOVSIM_BIN_DIR:-$(dirname "$TOVSIM")/../build/host/sim}/tov_tcplisten

case_leaves_nothing_behind() {
    local before after
    before=$(host_state)
    "$TOVSIM" exec -- sh -c 'echo x >/home/TOV/x; echo y >/ramdisk/y; echo z >/etc/network/interfaces
        echo w >/usr/lib/w; /sbin/reboot; sleep 60 & exit 5'
    check "exit status of the command" 5 "$?"
    after=$(host_state)
    check "machine unchanged after a run" "$before" "$after"
    check "no process of the unit left" "" "$(pgrep -fx 'sleep 60' || true)"
    check "no server of the unit left" "" "$(pgrep -f "$LISTENER" || true)"
    "$TOVSIM" exec -- /no/such/command 2>/dev/null
    check "a command that cannot start" 127 "$?"
    check "machine unchanged after a failed start" "$before" "$(host_state)"
}

case_unit_layout() {
    local out
    out=$("$TOVSIM" exec -- sh -c 'cat /home/TOV/tov_starter; stat -f -c "%b %a %S" /home
        ls /usr/lib/librefprop.so.9.12; ls /run/tovsim/unit; test -d /ramdisk && echo ramdisk
        cat /etc/network/interfaces; ls /sys/class/net')
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

eth0
lo
wlan0" "$out"
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
    check "no server of the unit left" "" "$(pgrep -f "$LISTENER" || true)"
}

# Prints what the unit's network looks like from inside: links and their carriers, addresses,
# routes, and whether the server's port 22 answers.
NET_PROBE='for i in eth0 wlan0; do printf "%s " "$i"; cat /sys/class/net/$i/carrier 2>&1 | sed "s/.*No such.*/none/"; done
    ip -o -4 addr show dev eth0 | awk "{print \$4}"; ip route
    timeout 5 bash -c "exec 3<>/dev/tcp/192.0.2.10/22" 2>/dev/null && echo "port 22 open" || echo "port 22 shut"
    grep -E "^(cable|dongle|server)=" /run/tovsim/unit'

case_network() {
    local out
    out=$("$TOVSIM" exec -- sh -c "$NET_PROBE")
    check "default network" "eth0 1
wlan0 0
192.0.2.2/24
default via 192.0.2.10 dev eth0 
192.0.2.0/24 dev eth0 proto kernel scope link src 192.0.2.2 
port 22 open
cable=plugged
dongle=present
server=up" "$out"
    out=$("$TOVSIM" exec --cable unplugged --dongle absent -- sh -c "$NET_PROBE")
    check "cable unplugged, no dongle" "eth0 0
wlan0 none
192.0.2.2/24
default via 192.0.2.10 dev eth0 linkdown 
192.0.2.0/24 dev eth0 proto kernel scope link src 192.0.2.2 linkdown 
port 22 shut
cable=unplugged
dongle=absent
server=up" "$out"
    out=$("$TOVSIM" exec --server down -- sh -c "$NET_PROBE" | sed -n '1p;6p;9p')
    check "server cut off, cable in" "eth0 1
port 22 shut
server=down" "$out"
    out=$("$TOVSIM" exec -- sh -c '/run/tovsim/cable unplugged; cat /sys/class/net/eth0/carrier
        /run/tovsim/cable plugged; cat /sys/class/net/eth0/carrier; /run/tovsim/cable loose; echo $?' 2>/dev/null)
    check "cable control inside the unit" "0
1
2" "$out"
}

case_networking_applies_static_eth0() {
    local out
    out=$("$TOVSIM" exec -- sh -c 'printf "auto eth0\niface eth0 inet static\n address 192.0.2.77\n netmask 255.255.255.128\n gateway 192.0.2.1\n" >/etc/network/interfaces
        /etc/init.d/networking stop; ip -o -4 addr show dev eth0 | awk "{print \$4}"
        /etc/init.d/networking restart; ip -o -4 addr show dev eth0 | awk "{print \$4}"; ip route; cat /run/tovsim/journal')
    check "static eth0 applied on restart only" "192.0.2.2/24
192.0.2.77/25
default via 192.0.2.1 dev eth0 
192.0.2.0/25 dev eth0 proto kernel scope link src 192.0.2.77 
/etc/init.d/networking stop
/etc/init.d/networking restart" "$out"
}

case_cable_from_this_machine() {
    local name=tovsim-test-$$ pid
    "$TOVSIM" exec --name "$name" -- sh -c 'carrier() { cat /sys/class/net/eth0/carrier; }
        echo "carrier $(carrier)"
        for i in $(seq 200); do [ "$(carrier)" = 0 ] && break; sleep 0.05; done; echo "carrier $(carrier)"
        for i in $(seq 200); do [ "$(carrier)" = 1 ] && break; sleep 0.05; done; echo "carrier $(carrier)"' \
        >"$SCRATCH/out" &
    pid=$!
    # The cable command waits for the unit to be up.
    "$TOVSIM" cable "$name" unplugged
    check "cable command status" 0 "$?"
    "$TOVSIM" exec --name "$name" -- true 2>/dev/null
    check "a second unit with the same name refused" 2 "$?"
    "$TOVSIM" cable "$name" plugged
    wait "$pid"
    check "the running command saw the cable pulled and put back" "carrier 1
carrier 0
carrier 1" "$(cat "$SCRATCH/out")"
    "$TOVSIM" cable "$name" plugged 2>/dev/null
    check "no unit of that name any more" 2 "$?"
    "$TOVSIM" cable "$name" loose 2>/dev/null
    check "unknown cable state refused" 2 "$?"
}

case_bad_usage() {
    "$TOVSIM" exec --eth-chip dm9000c -- true 2>/dev/null
    check "unknown chip refused" 2 "$?"
    "$TOVSIM" exec --home-used 200 -- true 2>/dev/null
    check "more used than the size refused" 2 "$?"
    "$TOVSIM" exec 2>/dev/null
    check "missing command refused" 2 "$?"
    "$TOVSIM" exec --dongle maybe -- true 2>/dev/null
    check "unknown dongle state refused" 2 "$?"
    "$TOVSIM" exec --server sideways -- true 2>/dev/null
    check "unknown server state refused" 2 "$?"
    "$TOVSIM" exec --name 'a b' -- true 2>/dev/null
    check "bad unit name refused" 2 "$?"
}

"case_$1"
[[ $failures -eq 0 ]]

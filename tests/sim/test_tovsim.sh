#!/usr/bin/env bash
# The simulated unit's launcher, seen from this machine: what the unit shows its command, and that
# nothing of it stays behind. Usage: test_tovsim.sh CASE (see the functions below).
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
    local before after
    before=$(host_state)
    "$TOVSIM" exec -- sh -c 'echo x >/home/TOV/x; echo y >/ramdisk/y; echo z >/etc/network/interfaces
        echo w >/usr/lib/w; /sbin/reboot; '"$NAP"' & exit 5'
    check "exit status of the command" 5 "$?"
    after=$(host_state)
    check "machine unchanged after a run" "$before" "$after"
    check "no process of the unit left" "" "$(pgrep -fx "$NAP" || true)"
    "$TOVSIM" exec --watchtower up --usb "$SCRATCH" -- sh -c 'pgrep -x sshd >/dev/null'
    check "the WATCHTOWER server runs in the unit" 0 "$?"
    check "machine unchanged after a run with a server and a stick" "$before" "$(host_state)"
    check "no server left" "" "$(pgrep -x sshd || true)"
    check "no GPIO emulator left" "" "$(left_behind gpiofs)"
    # A process of the unit still holding a GPIO file open must not keep the emulator up.
    "$TOVSIM" exec -- sh -c 'echo 202 >/sys/class/gpio/export
        '"$NAP"' </sys/class/gpio/gpio202/value & exit 0'
    check "exit status with a GPIO file held open" 0 "$?"
    check "machine unchanged after a held GPIO file" "$before" "$(host_state)"
    check "no GPIO emulator left after a held file" "" "$(left_behind gpiofs)"
    check "no server of the unit left" "" "$(left_behind tov_tcplisten)"
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

case_boot_loop() {
    # A stand-in for the bench: one phase per boot, then the hand-over of a passed third phase.
    local bench=$SCRATCH/bench store=$SCRATCH/home out=$SCRATCH/out
    cat >"$bench" <<'EOF'
#!/bin/sh
phase=$(head -n 1 /home/TOV/tov_test.cfg 2>/dev/null || echo 0)
ls /ramdisk >>/home/ramdisk-seen
touch /ramdisk/left-by-phase-$phase
if [ "$phase" -ge 2 ]; then
    sed -i 's/^TOV_BIN_NAME=tov_test/TOV_BIN_NAME=tovQT/' /home/TOV/tov_starter
    rm /home/TOV/tov_test.cfg
else
    printf '%s\n0\n192.0.2.10\n' $((phase + 1)) >/home/TOV/tov_test.cfg
fi
/sbin/reboot
exec sleep 600
EOF
    chmod +x "$bench"
    mkdir "$store" "$out"
    "$TOVSIM" exec --home "$store" --bind "$out" -- "$(dirname "$TOVSIM")/tovboot" --bench "$bench" --out "$out" >/dev/null
    check "boot loop ends with the hand-over" 0 "$?"
    check "boot log" "boot 1: phase file none, starter runs 'tov_test'
  reboot requested
boot 2: phase file 1, starter runs 'tov_test'
  reboot requested
boot 3: phase file 2, starter runs 'tov_test'
  reboot requested
boot 4: phase file none, starter runs 'tovQT'
outcome: handed over to 'tovQT'
journal of the unit:
  /sbin/reboot
  /sbin/reboot
  /sbin/reboot" "$(cat "$out/boots.log")"
    check "/ramdisk is empty at each boot" "" "$(cat "$store/ramdisk-seen")"
    check "the starter is kept switched" "TOV_BIN_NAME=tovQT" "$(grep '^TOV_BIN_NAME=' "$store/TOV/tov_starter")"
    check "no server of the unit left" "" "$(left_behind tov_tcplisten)"
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
    "$TOVSIM" cable --wait x "$name" plugged 2>/dev/null
    check "a wait that is no number refused" 2 "$?"
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
    "$TOVSIM" exec --gpio-input 99=0 -- true 2>/dev/null
    check "input of a pin the board lacks refused" 2 "$?"
    "$TOVSIM" exec --gpio-input 202=high -- true 2>/dev/null
    check "input level that is no number refused" 2 "$?"
    "$TOVSIM" exec --gpio-script "$SCRATCH/none" -- true 2>/dev/null
    check "missing GPIO script refused" 2 "$?"
    printf '1.0 202\n' >"$SCRATCH/bad-script"
    "$TOVSIM" exec --gpio-script "$SCRATCH/bad-script" -- true 2>/dev/null
    check "GPIO script without a level refused" 2 "$?"
    "$TOVSIM" exec --gpio-pins 1,,2 -- true 2>/dev/null
    check "malformed pin list refused" 2 "$?"
    TOVSIM_BIN_DIR=$SCRATCH "$TOVSIM" exec -- true 2>/dev/null
    check "missing GPIO emulator refused" 2 "$?"
    check "without the emulators, --no-gpio and --server down still run" 0 \
        "$(TOVSIM_BIN_DIR=$SCRATCH "$TOVSIM" exec --no-gpio --server down -- true; echo $?)"
    "$TOVSIM" exec --server down --watchtower up -- true 2>/dev/null
    check "an SFTP server without a server side refused" 2 "$?"
    "$TOVSIM" gpio 202 2>/dev/null
    check "gpio command outside a unit without --unit refused" 2 "$?"
}

case_gpio_layout() {
    local out
    out=$("$TOVSIM" exec -- sh -c 'ls /sys/class/gpio; ls /sys/class/net; grep gpio= /run/tovsim/unit
        echo 136 >/sys/class/gpio/export; ls /sys/class/gpio/gpio136
        echo out >/sys/class/gpio/gpio136/direction; echo 1 >/sys/class/gpio/gpio136/value
        echo 136 >/sys/class/gpio/unexport; test -e /sys/class/gpio/gpio136 || echo removed
        cat /run/tovsim/gpio.journal')
    check "GPIO beside the unit's network class" "export
unexport
eth0
lo
wlan0
gpio=1
direction
value
removed
export 136
direction 136 out
value 136 1
unexport 136" "$out"
    out=$("$TOVSIM" exec --no-gpio -- sh -c 'ls /sys/class/gpio 2>&1 | wc -l; ls /sys/class/net
        grep gpio= /run/tovsim/unit; ls /run/tovsim | grep gpio')
    check "--no-gpio leaves GPIO out" "1
eth0
lo
wlan0
gpio=0" "$out"
    out=$("$TOVSIM" exec --gpio-input 200=0 --gpio-input 41=2 -- sh -c "$TOVSIM gpio; $TOVSIM gpio 41 202=0 202")
    check "initial inputs and the gpio command inside the unit" "138 in 1
135 in 1
136 in 1
230 in 1
232 in 1
200 in 0
201 in 1
202 in 1
41 in 2
42 in 1
2
0" "$out"
}

# A scenario on this machine drives an input of a running unit and reads an output back.
case_gpio_control_from_outside() {
    local out=$SCRATCH/out pid
    "$TOVSIM" exec -- sh -c 'echo 202 >/sys/class/gpio/export; echo 135 >/sys/class/gpio/export
        echo high >/sys/class/gpio/gpio135/direction
        i=0; while [ "$(cat /sys/class/gpio/gpio202/value)" = 1 ] && [ $i -lt 300 ]; do
            sleep 0.05; i=$((i + 1)); done
        echo "seen $(cat /sys/class/gpio/gpio202/value)"; exec sleep 30' >"$out" &
    pid=$!
    # The unit is named by its launcher's pid; it answers once its command has set pin 135 up.
    for _ in $(seq 100); do
        [[ $("$TOVSIM" gpio --unit "$pid" 2>/dev/null | grep ^135) == "135 out 1 exported" ]] && break
        sleep 0.1
    done
    check "output level read from outside" 1 "$("$TOVSIM" gpio --unit "$pid" 135)"
    "$TOVSIM" gpio --unit "$pid" 202=0
    for _ in $(seq 100); do grep -q seen "$out" && break; sleep 0.1; done
    check "input set from outside seen inside" "seen 0" "$(cat "$out")"
    check "state read from outside" "202 in 0 exported" \
        "$("$TOVSIM" gpio --unit "$pid" | grep ^202)"
    "$TOVSIM" gpio --unit "$pid" 99=1 2>/dev/null
    check "unknown pin refused from outside" 2 "$?"
    kill -TERM "$pid"
    wait "$pid"
    "$TOVSIM" exec --dongle maybe -- true 2>/dev/null
    check "unknown dongle state refused" 2 "$?"
    "$TOVSIM" exec --server sideways -- true 2>/dev/null
    check "unknown server state refused" 2 "$?"
    "$TOVSIM" exec --name 'a b' -- true 2>/dev/null
    check "bad unit name refused" 2 "$?"
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
    check "no emulator left" "" "$(left_behind module_emulator)"
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
        "$(TOVSIM_BIN_DIR=$SCRATCH "$TOVSIM" exec --no-gpio --server down -- sh -c 'test -e /dev/ttySAC1 && echo port || echo no port')"
}

"case_$1"
[[ $failures -eq 0 ]]

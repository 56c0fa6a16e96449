# The simulated unit's network, sourced by tovsim.
#
# The unit's network namespace gets eth0, one end of a veth pair whose other end, srv0, lives in a
# second network namespace: the WATCHTOWER server side, at 192.0.2.10/24 with a TCP listener on
# port 22. The unit has 192.0.2.2/24 and a default route via the server. The cable is the server
# end: srv0 down makes eth0's carrier read 0. The dongle is a second veth, wlan0, whose far end
# stays down (no access point), so its carrier reads 0. "--server down" leaves the server side
# without its address and listener: nothing answers at 192.0.2.10, although the cable is in.
#
# Both namespaces belong to processes of the unit's pid namespace (the server side is held by a
# sleeping process), so they, their veths and their services vanish with the unit: nothing is
# named, mounted or left on this machine.

NET_UNIT_ADDR=192.0.2.2
NET_SERVER_ADDR=192.0.2.10
NET_PREFIX=24
NET_SERVER_PID_FILE=/run/tovsim/server.pid
NET_CABLE_SCRIPT=/run/tovsim/cable

# net_check_option OPTION VALUE: dies unless VALUE is one the option takes.
net_check_option() {
    case $1:$2 in
        --cable:plugged|--cable:unplugged|--dongle:present|--dongle:absent|--server:up|--server:down) ;;
        --name:*) [[ $2 =~ ^[A-Za-z0-9_.-]+$ ]] || die "a unit name takes letters, digits, '.', '_', '-'" ;;
        *) die "$1 does not take '$2'" ;;
    esac
}

# --- On this machine ---------------------------------------------------------------------------

# The host pid of the first process of the running unit named NAME, on standard output.
net_find_unit() {
    local name=$1 pid found=""
    for pid in $(pgrep -f -- '/tovsim __unit '); do
        {
            [[ $(tr '\0' '\n' <"/proc/$pid/cmdline" | sed -n 3p) == __unit ]] &&
                [[ $(awk '/^NSpid:/ {print $NF}' "/proc/$pid/status") == 1 ]] &&
                tr '\0' '\n' <"/proc/$pid/environ" | grep -qxF "TOVSIM_NAME=$name"
        } 2>/dev/null || continue
        [[ -z $found ]] || return 1
        found=$pid
    done
    [[ -n $found ]] && printf '%s\n' "$found"
}

# tovsim cable [--wait SECONDS] NAME plugged|unplugged
cmd_cable() {
    # A unit just started may not be up yet (a loaded machine takes seconds to start its servers):
    # it is given time to appear with its cable, 30 s unless told.
    local wait=30
    if [[ ${1-} == --wait ]]; then
        [[ ${2-} =~ ^[0-9]+$ ]] || die "--wait takes a number of seconds"
        wait=$2
        shift 2
    fi
    [[ $# -eq 2 ]] || usage
    net_check_option --name "$1"
    net_check_option --cable "$2"
    [[ $(id -u) -eq 0 ]] || die "the simulated unit needs root"
    local pid="" deadline=$((SECONDS + wait))
    while :; do
        pid=$(net_find_unit "$1") && nsenter -t "$pid" -m -r -- test -x "$NET_CABLE_SCRIPT" 2>/dev/null &&
            break
        pid=""
        ((SECONDS < deadline)) || break
        sleep 0.1
    done
    [[ -n $pid ]] || die "no single running unit named '$1'"
    nsenter -t "$pid" -m -p -r -w -- "$NET_CABLE_SCRIPT" "$2"
}

# --- Inside the unit ---------------------------------------------------------------------------

net_server_pid() { cat "$NET_SERVER_PID_FILE"; }

# net_server_exec COMMAND...: runs COMMAND in the server side's network namespace.
net_server_exec() {
    nsenter --net="/proc/$(net_server_pid)/ns/net" -- "$@"
}

# net_server_start COMMAND...: starts a service on the server side, in the background (its pid in
# NET_SERVER_STARTED). It ends with the unit.
net_server_start() {
    net_server_exec "$@" </dev/null &
    NET_SERVER_STARTED=$!
}

# net_server_wait_port PORT: waits until something listens on PORT of the server side; a service
# that ended first stops the unit at once, its own words above.
net_server_wait_port() {
    local hex tries status
    hex=$(printf '%04X' "$1")
    for tries in $(seq 200); do
        awk -v p=":$hex" '$2 ~ p"$" && $4 == "0A" {found=1} END {exit !found}' \
            "/proc/$(net_server_pid)/net/tcp" && return 0
        if ! kill -0 "$NET_SERVER_STARTED" 2>/dev/null; then
            wait "$NET_SERVER_STARTED" && status=0 || status=$?
            die "the server for port $1 of the server side ended at its start with status $status"
        fi
        sleep 0.02
    done
    die "nothing listens on port $1 of the server side"
}

net_start_server_side() {
    local pid self
    unshare --net -- sleep infinity </dev/null &
    pid=$!
    self=$(readlink /proc/self/ns/net)
    until [[ -e /proc/$pid/ns/net && $(readlink "/proc/$pid/ns/net") != "$self" ]]; do
        kill -0 "$pid" 2>/dev/null || die "cannot start the server side"
        sleep 0.01
    done
    printf '%s\n' "$pid" >"$NET_SERVER_PID_FILE"
    net_server_exec ip link set lo up
}

# Port 22 of the server side: the SFTP server when one is asked for, else a bare listener.
net_start_services() {
    if [[ $TOVSIM_WATCHTOWER == stopped ]]; then
        return 0
    elif [[ $TOVSIM_WATCHTOWER != down ]]; then
        watchtower_start "$NET_SERVER_ADDR" "$TOVSIM_WATCHTOWER"
    else
        local listener=$TOVSIM_BIN_DIR/tov_tcplisten
        [[ -x $listener ]] || die "no $listener: build the project first"
        net_server_start "$listener" 22
    fi
    net_server_wait_port 22
}

install_cable_script() {
    cat >"$NET_CABLE_SCRIPT" <<EOF
#!/bin/sh
# Simulated unit: plugs or unplugs eth0's cable by raising or dropping the server end of the link.
case \${1-} in
    plugged) state=up ;;
    unplugged) state=down ;;
    *) echo "usage: $NET_CABLE_SCRIPT plugged|unplugged" >&2; exit 2 ;;
esac
exec nsenter --net=/proc/\$(cat $NET_SERVER_PID_FILE)/ns/net -- ip link set srv0 "\$state"
EOF
    chmod 0755 "$NET_CABLE_SCRIPT"
}

# Body of the fake /etc/init.d/networking: start and restart give eth0 the static address,
# netmask and gateway of /etc/network/interfaces, so that a reconfiguration shows on the link.
net_networking_body() {
    cat <<'EOF'
case ${1-} in
    start|restart)
        static=$(awk '$1 == "iface" { on = ($2 == "eth0" && $3 == "inet" && $4 == "static") }
            on && $1 == "address" { a = $2 } on && $1 == "netmask" { m = $2 }
            on && $1 == "gateway" { g = $2 } END { if (a != "") print a, (m == "" ? 24 : m), g }' \
            /etc/network/interfaces 2>/dev/null)
        if [ -n "$static" ] && [ -e /sys/class/net/eth0 ]; then
            set -- $static
            ip addr flush dev eth0
            ip addr add "$1/$2" dev eth0 2>/dev/null
            ip link set eth0 up
            [ -z "${3-}" ] || ip route replace default via "$3" dev eth0 2>/dev/null
        fi ;;
esac
EOF
}

setup_network() {
    net_start_server_side
    ip link add eth0 type veth peer name srv0 netns "$(net_server_pid)"
    ip addr add "$NET_UNIT_ADDR/$NET_PREFIX" dev eth0
    ip link set eth0 up
    net_server_exec ip link set srv0 up
    ip route add default via "$NET_SERVER_ADDR" dev eth0
    if [[ $TOVSIM_DONGLE == present ]]; then
        ip link add wlan0 type veth peer name wsrv0 netns "$(net_server_pid)"
        ip link set wlan0 up
    fi
    if [[ $TOVSIM_SERVER == up ]]; then
        net_server_exec ip addr add "$NET_SERVER_ADDR/$NET_PREFIX" dev srv0
        net_start_services
    fi
    install_cable_script
    [[ $TOVSIM_CABLE == plugged ]] || "$NET_CABLE_SCRIPT" unplugged
    printf 'cable=%s\ndongle=%s\nserver=%s\n' "$TOVSIM_CABLE" "$TOVSIM_DONGLE" "$TOVSIM_SERVER" \
        >>/run/tovsim/unit
}

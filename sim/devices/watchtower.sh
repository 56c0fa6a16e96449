# WATCHTOWER, the maker's SFTP server as a unit meets it: a real OpenSSH sshd with the account
# "Watchtower" (password "Tomar#81kwy") whose home holds TOV/tests_tov. Sourced by tovsim.
#
# The server runs in a mount namespace of its own, so that its account and its state exist nowhere
# else. Its disk (the account's home folder) is also shown in the unit at WATCHTOWER_DISK, for tests
# to look at what arrived.
#
# Modes: up (default); bad-password (the account has another password); full (its home is a tiny
# file system where uploads fail); no-dir (no TOV/tests_tov folder); down (no SFTP server: a bare
# listener keeps port 22 open); stopped (sshd stopped: nothing listens on port 22).

WATCHTOWER_USER=Watchtower
WATCHTOWER_PASSWORD='Tomar#81kwy'
WATCHTOWER_UID=2000
WATCHTOWER_DISK=/run/tovsim/watchtower

watchtower_valid_mode() {
    case $1 in up|bad-password|full|no-dir|down|stopped) return 0 ;; *) return 1 ;; esac
}

# Starts the server on the server side of the unit's network (sim/unit/net.sh), listening on ADDRESS
# port 22; the caller waits for the port.
watchtower_start() {
    local address=$1 mode=$2
    [[ $mode != down ]] || return 0
    local home_size=16m
    [[ $mode != full ]] || home_size=64k
    mkdir -p "$WATCHTOWER_DISK"
    mount -t tmpfs -o "mode=0755,size=$home_size" watchtower-disk "$WATCHTOWER_DISK"
    [[ $mode == no-dir ]] || mkdir -p "$WATCHTOWER_DISK/TOV/tests_tov"
    chown -R "$WATCHTOWER_UID:$WATCHTOWER_UID" "$WATCHTOWER_DISK"
    net_server_start unshare --mount --propagation private -- "$SELF" __watchtower "$address" "$mode"
}

# In the server's own mount namespace: account, home, host key, then sshd in the foreground.
watchtower_serve() {
    local address=$1 mode=$2 state=/run/watchtower password=$WATCHTOWER_PASSWORD
    [[ $mode != bad-password ]] || password='not-the-bench-password'
    mkdir -p "$state" /run/sshd
    mount -t tmpfs -o mode=0755,size=4m watchtower-state "$state"
    cp /etc/passwd /etc/shadow /etc/group "$state/"
    printf '%s:x:%d:%d:WATCHTOWER:/home/%s:/bin/sh\n' "$WATCHTOWER_USER" "$WATCHTOWER_UID" \
        "$WATCHTOWER_UID" "$WATCHTOWER_USER" >>"$state/passwd"
    printf '%s:%s:19000:0:99999:7:::\n' "$WATCHTOWER_USER" "$(openssl passwd -6 "$password")" >>"$state/shadow"
    printf '%s:x:%d:\n' "$WATCHTOWER_USER" "$WATCHTOWER_UID" >>"$state/group"
    local file
    for file in passwd shadow group; do
        mount --bind "$state/$file" "/etc/$file"
    done

    mount -t tmpfs -o mode=0755,size=1m watchtower-home /home
    mkdir "/home/$WATCHTOWER_USER"
    mount --bind "$WATCHTOWER_DISK" "/home/$WATCHTOWER_USER"

    ssh-keygen -q -t ed25519 -N '' -f "$state/host_key"
    # The unit sees the server's public key, as a factory that pins it would.
    cp "$state/host_key.pub" /run/tovsim/watchtower_host_key.pub
    cat >"$state/sshd_config" <<CONFIG
ListenAddress $address
Port 22
HostKey $state/host_key
PidFile $state/sshd.pid
UsePAM no
PasswordAuthentication yes
KbdInteractiveAuthentication no
PermitRootLogin no
AuthorizedKeysFile none
StrictModes no
Subsystem sftp internal-sftp
LogLevel QUIET
CONFIG
    exec /usr/sbin/sshd -D -e -f "$state/sshd_config"
}

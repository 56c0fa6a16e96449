# Sourced by sim/tovsim: a unit whose programs come from another root file system (--root DIR),
# such as a busybox-only root for the board's architecture. The unit itself is built as always
# (its /home, /dev, network, GPIO, module and WATCHTOWER); COMMAND then runs chrooted into an
# overlay of DIR that shows those same mounts, so the board's programs meet the unit's peers.
# ARM programs run through qemu-arm-static, registered with the kernel's binfmt_misc as
# "tovsim-arm" (with its interpreter opened at registration, so that it works inside DIR); the
# entry is left registered for the next unit. QEMU_CPU in the environment picks the processor.

FOREIGN_TOP=/tovsim-foreign
FOREIGN_BINFMT=tovsim-arm
# Any 32-bit little-endian ARM ELF program (the magic and mask qemu's own registration uses).
FOREIGN_MAGIC='\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x28\x00'
FOREIGN_MASK='\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'

foreign_check_option() {
    [[ -x $1/bin/sh ]] || die "--root takes a root file system with a /bin/sh, not '$1'"
}

foreign_register_arm() {
    local misc=/proc/sys/fs/binfmt_misc
    [[ -e $misc/register ]] || mount -t binfmt_misc binfmt_misc "$misc"
    [[ -e $misc/$FOREIGN_BINFMT ]] && return 0
    local qemu
    qemu=$(command -v qemu-arm-static) || die "--root needs qemu-arm-static (scripts/deps arm)"
    printf ':%s:M::%s:%s:%s:PF\n' "$FOREIGN_BINFMT" "$FOREIGN_MAGIC" "$FOREIGN_MASK" "$qemu" \
        >"$misc/register" 2>/dev/null || [[ -e $misc/$FOREIGN_BINFMT ]] # another unit was first
}

# Builds the foreign view of the unit; prints nothing, dies on failure.
foreign_prepare() {
    local top=$FOREIGN_TOP dir
    mkdir -p "$top"
    mount -t tmpfs -o mode=0755 tovsim-foreign "$top"
    mkdir -p "$top/up" "$top/wk" "$top/root"
    mount -t overlay overlay -o "lowerdir=$TOVSIM_ROOT,upperdir=$top/up,workdir=$top/wk" "$top/root"
    local binds
    mapfile -t binds <<<"$TOVSIM_BINDS"
    for dir in /home /etc/network /dev /proc /sys /run/tovsim /media/usb_drive /ramdisk "${binds[@]}"; do
        [[ -n $dir && -e $dir ]] || continue
        mkdir -p "$top/root$dir"
        mount --rbind "$dir" "$top/root$dir"
    done
    mkdir -p "$top/root/tmp" "$top/root/usr/lib" "$top/root/sbin" "$top/root/bin" "$top/root/etc/init.d"
    [[ ! -e /usr/lib/librefprop.so.9.12 ]] || cp /usr/lib/librefprop.so.9.12 "$top/root/usr/lib/"
    install_fakes "$top/root"
    foreign_register_arm
}

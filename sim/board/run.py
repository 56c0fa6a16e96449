#!/usr/bin/python3
"""The board's harness, run inside a simulated unit (sim/tovsim exec) by sim/board/board.

The unit gives the board its peers: WATCHTOWER's real sshd on the server side of the unit's
network, the module emulator at the unit's /dev/ttySAC1 (a pty), and namespaces that keep every
packet inside. Here the unit's eth0 is bridged to the board's tap, a DHCP server answers on the
server side, QEMU boots the board, and the steps asked for run; everything lands in --out.

    run.py --out DIR --kernel FILE --initrd FILE --disk FILE [--manual]
           [--steps first-screen|touch|phase|cycle|first-frame] [--first-frame PROGRAM] [--run COMMAND]...

first-frame: the seconds from QEMU's start to the first full frame of PROGRAM (its binary in the
bundle, default tov_test), which the starter starts (firstframe.py).
"""
import os
import subprocess
import sys
import time

from screen import wait_for_screen
from deadline import Deadline
from machine import Machine, StartError, board_arguments, log_tail
from cycle import Cycle
from firstframe import PERIOD, first_frame
import starter


SERVER_ADDR = "192.0.2.10"
BOARD_ADDR = "192.0.2.2"
TAPS = ("tap-eth0", "tap-wlan0")
DHCP_PORT = 67


def sh(*command):
    subprocess.run(command, check=True)


def server_pid():
    with open("/run/tovsim/server.pid") as f:
        return f.read().strip()


def server_ns():
    return f"/proc/{server_pid()}/ns/net"


def make_tun():
    """The unit's private /dev lacks the node QEMU opens for its taps."""
    os.makedirs("/dev/net", exist_ok=True)
    if not os.path.exists("/dev/net/tun"):
        sh("mknod", "/dev/net/tun", "c", "10", "200")


STICK = os.path.join(os.path.dirname(os.path.realpath(__file__)), "..", "devices", "stick")


def make_stick(out):
    """The customer's USB stick: a FAT disk holding sim/devices/stick's folders."""
    image = os.path.join(out, "stick.img")
    if os.path.exists(image):
        os.remove(image)
    sh("mkfs.vfat", "-C", "-n", "STICK", image, "16384")
    sh("mcopy", "-s", "-i", image, *[os.path.join(STICK, name) for name in sorted(os.listdir(STICK))], "::/")
    return image


def setup_network(out):
    """The unit's eth0 (whose far end is WATCHTOWER's side) and the board's eth0 tap on one bridge;
    wlan0's tap stays alone, a dongle with no access point in reach."""
    make_tun()
    sh("ip", "addr", "flush", "dev", "eth0")
    sh("ip", "link", "add", "br0", "type", "bridge")
    sh("ip", "link", "set", "eth0", "master", "br0")
    for tap in TAPS:
        sh("ip", "tuntap", "add", tap, "mode", "tap")
    sh("ip", "link", "set", TAPS[0], "master", "br0")
    for link in ("br0", *TAPS):
        sh("ip", "link", "set", link, "up")
    config = os.path.join(out, "udhcpd.conf")
    with open(config, "w") as f:
        f.write(f"start {BOARD_ADDR}\nend {BOARD_ADDR}\ninterface srv0\n"
                f"lease_file {out}/udhcpd.leases\npidfile {out}/udhcpd.pid\n"
                f"option subnet 255.255.255.0\noption router {SERVER_ADDR}\noption lease 3600\n")
    open(os.path.join(out, "udhcpd.leases"), "w").close()
    start_dhcp_server(config, os.path.join(out, "udhcpd.log"))


def start_dhcp_server(config, log):
    """udhcpd on the server side, up once it listens on the DHCP port; one that ends first stops the
    run with its own words. The unit's own peers leave with it: the server ends with its side."""
    server = subprocess.Popen(["nsenter", f"--net={server_ns()}", "--", "busybox", "udhcpd", "-f", config],
                              stdin=subprocess.DEVNULL, stdout=open(log, "wb"), stderr=subprocess.STDOUT)
    deadline = Deadline(10)
    while not listens_on_udp(DHCP_PORT):
        if server.poll() is not None:
            raise StartError(f"the DHCP server ended at its start with status {server.returncode}: "
                             + log_tail(log), "udhcpd", server.returncode, log_tail(log))
        if deadline.expired():
            raise StartError(f"the DHCP server does not listen on port {DHCP_PORT} after "
                             f"{deadline.seconds:.0f} s: " + log_tail(log), "udhcpd", None, log_tail(log))
        time.sleep(0.05)


def listens_on_udp(port):
    with open(f"/proc/{server_pid()}/net/udp") as f:
        return any(line.split()[1].endswith(f":{port:04X}") for line in list(f)[1:])


# What the board's devices look like from inside, kept with each run.
DEVICES = ("ls -l /dev/fb0 /dev/input/ /dev/ttyS0 /dev/ttySAC1 /dev/rs485_Ctrl /dev/vda; "
           "ls /sys/class/net /sys/class/gpio; ip addr; ip route; df -k /home /etc/network; "
           "cat /proc/cmdline; dmesg | grep -i dm9000")


def first_screen(board, out):
    boots = board.wait_boot()
    print(f"board: boot {boots}: {board.run('uname -r')[1].strip()}, "
          f"starter runs '{starter.program(board.read(starter.PATH))}'")
    form = wait_for_screen(board, out, f"boot{boots}-form")
    with open(os.path.join(out, f"boot{boots}-devices.txt"), "w") as f:
        f.write(board.run(DEVICES, check=False)[1])
    print(f"board: the bench's first page is on the screen: {out}/boot{boots}-form.png")
    return form


def keep_guest_logs(board, out):
    """The board's own logs of this boot, into the run's folder, while its shell answers."""
    for path in ("/run/board/bench.log", "/run/board/modules.err", "/run/board/rs485.journal"):
        try:
            _, text = board.run(f"cat {path}", seconds=10, check=False)
        except Exception:
            return
        with open(os.path.join(out, os.path.basename(path)), "w") as f:
            f.write(text)


def main():
    parser = board_arguments()
    parser.add_argument("--manual", action="store_true")
    parser.add_argument("--steps", default="first-screen")
    parser.add_argument("--run", action="append", default=[])
    parser.add_argument("--scenario", default="good")
    parser.add_argument("--first-frame", default="tov_test")
    args = parser.parse_args()
    out = args.out
    try:
        setup_network(out)
    except StartError as error:
        print(f"board: FAILED: {error}", file=sys.stderr)
        return 1
    # No wireless dongle: the board has no wlan0 at all. No network: the cable is out from the start.
    taps = TAPS[:1] if args.scenario == "no-network" else TAPS
    stick = make_stick(out) if args.scenario == "usb-restore" else None
    board = Machine(args.kernel, args.initrd, args.disk, out, "/dev/ttySAC1", taps, window=args.manual,
                    stick=stick)
    status = 0
    try:
        board.start()
        if args.scenario == "no-network":
            board.set_link("eth0", False)
        if args.steps == "first-frame":
            # Before anything else asks the guest for anything: the boot as the unit's.
            program = args.first_frame
            seconds, coloured, dumps = first_frame(board, out, program, board.started)
            print(f"board: first full frame of {program}: {seconds:.2f} s after QEMU's start "
                  f"({dumps} screendumps, one every {PERIOD} s; the first many-coloured one at {coloured:.2f} s)")
            return status
        form = first_screen(board, out)
        if args.manual:
            print("board: QEMU's window is the unit's screen and the mouse the finger; close the "
                  "window to stop", flush=True)
            print(f"board: QEMU closed after {board.wait_closed()} boot(s)")
        elif args.steps == "touch":
            Cycle(board, out).tick_and_untick(form)
        elif args.steps in ("phase", "cycle"):
            Cycle(board, out, phases=1 if args.steps == "phase" else 3, scenario=args.scenario).run(1, form)
        for command in args.run:
            code, output = board.run(command, check=False)
            print(f"board$ {command}\n{output}board: status {code}")
    except Exception as error:  # the run's folder says what happened
        print(f"board: FAILED: {error}\nboard: logs in {out} (console.log, qemu.log)", file=sys.stderr)
        status = 1
    finally:
        keep_guest_logs(board, out)
        board.stop()
        # The screendumps the steps compared; what is worth keeping was saved as PNG.
        for name in os.listdir(out):
            if name.endswith(".ppm"):
                os.remove(os.path.join(out, name))
    return status


if __name__ == "__main__":
    sys.exit(main())

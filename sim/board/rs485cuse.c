/* rs485cuse: the board's RS-485 direction device, "/dev/rs485_Ctrl", as a character device of an
 * emulated board, served from user space through CUSE (/dev/cuse, module cuse).
 *
 *   rs485cuse [--journal FILE] [--port DEVICE [--ack]] [--debug]
 *   rs485cuse request N...
 *
 * The first form serves the device in the foreground until killed. It takes the two requests of
 * the board's driver, 1 (transmitter on) and 0 (receiver on), issued as ioctl(fd, N, 0), refuses
 * any other with ENOTTY as the board's driver does, and records each request, in order, one line
 * each, as the simulated unit's journal spells them:
 *
 *   TX            request 1
 *   RX            request 0
 *   ioctl N       any other request, refused
 *
 * --journal FILE appends each line to FILE (opened per line with O_APPEND, so the file may be
 * truncated or removed meanwhile); --port DEVICE writes it to DEVICE, a serial (set raw) or
 * virtio-serial port kept open, before the request is answered. With --ack the answer further waits for one
 * byte read back from DEVICE: a peer that appends the line to a log of its own before it
 * acknowledges gets that log in the order of the requests and of whatever the board did after
 * them (the bytes it then sends on its serial port, say). --debug prints CUSE's traffic.
 *
 * The second form opens "/dev/rs485_Ctrl" as the bench does and issues ioctl(fd, N, 0) for each N,
 * printing "ioctl N ok" or "ioctl N ERRNAME" (e.g. "ioctl 5 ENOTTY"); it exits 1 if one failed.
 *
 * Requests are served one at a time (single-threaded session), so the journal's order is the
 * order in which the kernel handed them over.
 */
#define _GNU_SOURCE
#define FUSE_USE_VERSION 31
#include <fuse3/cuse_lowlevel.h>
#include <fuse3/fuse_lowlevel.h>

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

static const char kDevice[] = "/dev/rs485_Ctrl";

static const char* journalPath;
static int portFd = -1;
static int portAck;

static int writeAll(int fd, const char* data, size_t length)
{
    while (length > 0) {
        const ssize_t written = write(fd, data, length);
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return -1;
        data += written;
        length -= (size_t)written;
    }
    return 0;
}

/* A serial port would echo the acknowledgements back and turn "\n" into "\r\n". */
static void makeRaw(int fd)
{
    struct termios mode;
    if (tcgetattr(fd, &mode) != 0)
        return;
    cfmakeraw(&mode);
    tcsetattr(fd, TCSANOW, &mode);
}

static void awaitAck(void)
{
    char ack;
    ssize_t got;
    do
        got = read(portFd, &ack, 1);
    while (got < 0 && errno == EINTR);
    if (got != 1)
        fprintf(stderr, "rs485cuse: no acknowledgement on the port (%s)\n",
                got == 0 ? "end of file" : strerror(errno));
}

static void record(const char* line)
{
    const size_t length = strlen(line);
    if (journalPath != NULL) {
        const int fd = open(journalPath, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0 || writeAll(fd, line, length) < 0)
            fprintf(stderr, "rs485cuse: cannot journal to %s: %s\n", journalPath, strerror(errno));
        if (fd >= 0)
            close(fd);
    }
    if (portFd >= 0) {
        if (writeAll(portFd, line, length) < 0)
            fprintf(stderr, "rs485cuse: cannot journal to the port: %s\n", strerror(errno));
        else if (portAck)
            awaitAck();
    }
}

static void deviceOpen(fuse_req_t req, struct fuse_file_info* fi)
{
    fuse_reply_open(req, fi);
}

static void deviceIoctl(fuse_req_t req, int cmd, void* arg, struct fuse_file_info* fi,
                        unsigned flags, const void* in, size_t inSize, size_t outSize)
{
    (void)arg, (void)fi, (void)flags, (void)in, (void)inSize, (void)outSize;
    if (cmd == 1 || cmd == 0) {
        record(cmd == 1 ? "TX\n" : "RX\n");
        fuse_reply_ioctl(req, 0, NULL, 0);
        return;
    }
    char line[32];
    snprintf(line, sizeof line, "ioctl %u\n", (unsigned)cmd);
    record(line);
    fuse_reply_err(req, ENOTTY);
}

static const struct cuse_lowlevel_ops kOperations = {
    .open = deviceOpen,
    .ioctl = deviceIoctl,
};

static int usage(void)
{
    fprintf(stderr, "usage: rs485cuse [--journal FILE] [--port DEVICE [--ack]] [--debug]\n"
                    "       rs485cuse request N...\n");
    return 2;
}

static int request(int count, char** numbers)
{
    const int fd = open(kDevice, O_RDWR | O_NOCTTY | O_NDELAY);
    if (fd < 0) {
        fprintf(stderr, "rs485cuse: cannot open %s: %s\n", kDevice, strerror(errno));
        return 1;
    }
    int status = 0;
    for (int i = 0; i < count; ++i) {
        const unsigned long number = strtoul(numbers[i], NULL, 0);
        if (ioctl(fd, number, 0) == 0) {
            printf("ioctl %lu ok\n", number);
        } else {
            printf("ioctl %lu %s\n", number, strerrorname_np(errno));
            status = 1;
        }
    }
    close(fd);
    return status;
}

static int serve(int argc, char** argv)
{
    int debug = 0;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--journal") == 0 && i + 1 < argc) {
            journalPath = argv[++i];
        } else if (strcmp(argv[i], "--port") == 0 && i + 1 < argc) {
            portFd = open(argv[++i], O_RDWR | O_NOCTTY | O_CLOEXEC);
            if (portFd < 0) {
                fprintf(stderr, "rs485cuse: cannot open the port %s: %s\n", argv[i], strerror(errno));
                return 1;
            }
            makeRaw(portFd);
        } else if (strcmp(argv[i], "--ack") == 0) {
            portAck = 1;
        } else if (strcmp(argv[i], "--debug") == 0) {
            debug = 1;
        } else {
            return usage();
        }
    }
    if (portAck && portFd < 0)
        return usage();

    const char* deviceInfo[] = {"DEVNAME=rs485_Ctrl"};
    const struct cuse_info info = {.dev_info_argc = 1, .dev_info_argv = deviceInfo};
    /* Foreground, single-threaded: the requests are journalled in the order they are served. */
    char* fuseArgs[] = {argv[0], "-f", "-s", debug ? "-d" : NULL, NULL};
    int multithreaded = 0;
    struct fuse_session* session = cuse_lowlevel_setup(debug ? 4 : 3, fuseArgs, &info, &kOperations,
                                                       &multithreaded, NULL);
    if (session == NULL)
        return 1;
    const int result = fuse_session_loop(session);
    cuse_lowlevel_teardown(session);
    return result < 0 ? 1 : 0;
}

int main(int argc, char** argv)
{
    if (argc >= 2 && strcmp(argv[1], "request") == 0)
        return argc >= 3 ? request(argc - 2, argv + 2) : usage();
    return serve(argc, argv);
}

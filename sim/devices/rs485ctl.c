/* rs485ctl: the board's RS-485 direction device for the programs of a simulated unit, preloaded
 * by sim/tovsim into COMMAND.
 *
 * The unit's "/dev/rs485_Ctrl" is a bind of /dev/null, which refuses every ioctl. No file can
 * take the board driver's requests in its place: on a plain or FUSE file the kernel answers
 * request 1 itself (FIBMAP). So on a descriptor of that node this library answers the two
 * requests of the board's driver, 1 (transmitter on) and 0 (receiver on), and records them in
 * /run/tovsim/rs485.journal together with what the unit does on its serial ports, in call order,
 * one line each:
 *
 *   TX            request 1 on the direction device
 *   RX            request 0 on the direction device
 *   ioctl N       any other request on it, refused as the board refuses it (ENOTTY)
 *   write HEX     bytes written to "/dev/ttySAC1" or "/dev/ttyUSB0" ("01 02 39 0d 00")
 *   drain         tcdrain on one of those ports, once it has returned
 *
 * Descriptors are recognised by the path they were opened with. The journal is opened for each
 * line with O_APPEND, so lines of several threads or processes never mix.
 */
#define _GNU_SOURCE
#undef _FORTIFY_SOURCE /* the wrappers below replace the functions fortified headers inline */
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

enum { MAX_FD = 4096, MAX_LOGGED_BYTES = 512 };
enum { PLAIN = 0, CONTROL = 1, PORT = 2 };

static const char kJournal[] = "/run/tovsim/rs485.journal";
static unsigned char kinds[MAX_FD];

static int kindOf(int fd)
{
    return fd >= 0 && fd < MAX_FD ? __atomic_load_n(&kinds[fd], __ATOMIC_ACQUIRE) : PLAIN;
}

static void setKind(int fd, int kind)
{
    if (fd >= 0 && fd < MAX_FD)
        __atomic_store_n(&kinds[fd], (unsigned char)kind, __ATOMIC_RELEASE);
}

static void noteOpened(int fd, const char* path)
{
    if (fd < 0 || path == NULL)
        return;
    if (strcmp(path, "/dev/rs485_Ctrl") == 0)
        setKind(fd, CONTROL);
    else if (strcmp(path, "/dev/ttySAC1") == 0 || strcmp(path, "/dev/ttyUSB0") == 0)
        setKind(fd, PORT);
    else
        setKind(fd, PLAIN);
}

/* Straight system calls: the journal must not come back through the wrappers below. */
static void record(const char* line, size_t length)
{
    const int saved = errno;
    const long fd = syscall(SYS_openat, AT_FDCWD, kJournal, O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd >= 0) {
        if (syscall(SYS_write, fd, line, length) < 0) {
            /* nothing to do: a unit without its journal only loses the record */
        }
        syscall(SYS_close, fd);
    }
    errno = saved;
}

static void recordWrite(const void* buf, ssize_t count)
{
    static const char digits[] = "0123456789abcdef";
    char line[sizeof "write" + 3 * MAX_LOGGED_BYTES + sizeof " ...\n"];
    size_t at = 0;
    const unsigned char* bytes = buf;
    memcpy(line, "write", 5);
    at = 5;
    for (ssize_t i = 0; i < count && i < MAX_LOGGED_BYTES; ++i) {
        line[at++] = ' ';
        line[at++] = digits[bytes[i] >> 4];
        line[at++] = digits[bytes[i] & 0x0F];
    }
    if (count > MAX_LOGGED_BYTES) {
        memcpy(line + at, " ...", 4);
        at += 4;
    }
    line[at++] = '\n';
    record(line, at);
}

static void* next(const char* name)
{
    return dlsym(RTLD_NEXT, name);
}

/* The next definition of name after this library's: the C library's, or a sanitizer's. */
#define REAL(name) \
    static __typeof__(&name) real_##name; \
    if (real_##name == NULL) \
        real_##name = (__typeof__(&name))next(#name)

int __open_2(const char* path, int flags);
int __open64_2(const char* path, int flags);

static mode_t modeArgument(int flags, va_list args)
{
    return (flags & (O_CREAT | O_TMPFILE)) ? va_arg(args, mode_t) : 0;
}

int open(const char* path, int flags, ...)
{
    REAL(open);
    va_list args;
    va_start(args, flags);
    const mode_t mode = modeArgument(flags, args);
    va_end(args);
    const int fd = real_open(path, flags, mode);
    noteOpened(fd, path);
    return fd;
}

int open64(const char* path, int flags, ...)
{
    REAL(open64);
    va_list args;
    va_start(args, flags);
    const mode_t mode = modeArgument(flags, args);
    va_end(args);
    const int fd = real_open64(path, flags, mode);
    noteOpened(fd, path);
    return fd;
}

int openat(int dir, const char* path, int flags, ...)
{
    REAL(openat);
    va_list args;
    va_start(args, flags);
    const mode_t mode = modeArgument(flags, args);
    va_end(args);
    const int fd = real_openat(dir, path, flags, mode);
    noteOpened(fd, path);
    return fd;
}

int openat64(int dir, const char* path, int flags, ...)
{
    REAL(openat64);
    va_list args;
    va_start(args, flags);
    const mode_t mode = modeArgument(flags, args);
    va_end(args);
    const int fd = real_openat64(dir, path, flags, mode);
    noteOpened(fd, path);
    return fd;
}

/* What fortified builds call for an open without a mode. */
int __open_2(const char* path, int flags)
{
    REAL(__open_2);
    const int fd = real___open_2(path, flags);
    noteOpened(fd, path);
    return fd;
}

int __open64_2(const char* path, int flags)
{
    REAL(__open64_2);
    const int fd = real___open64_2(path, flags);
    noteOpened(fd, path);
    return fd;
}

int close(int fd)
{
    REAL(close);
    setKind(fd, PLAIN);
    return real_close(fd);
}

/* A descriptor numbered over a port or the direction device is no longer one. */
int dup2(int fd, int target)
{
    REAL(dup2);
    const int result = real_dup2(fd, target);
    if (result >= 0 && result != fd)
        setKind(result, kindOf(fd));
    return result;
}

int dup3(int fd, int target, int flags)
{
    REAL(dup3);
    const int result = real_dup3(fd, target, flags);
    if (result >= 0)
        setKind(result, kindOf(fd));
    return result;
}

int ioctl(int fd, unsigned long request, ...)
{
    REAL(ioctl);
    va_list args;
    va_start(args, request);
    void* argument = va_arg(args, void*);
    va_end(args);
    if (kindOf(fd) == CONTROL) {
        if (request == 1) {
            record("TX\n", 3);
            return 0;
        }
        if (request == 0) {
            record("RX\n", 3);
            return 0;
        }
        char line[32];
        const int length = snprintf(line, sizeof line, "ioctl %lu\n", request);
        record(line, (size_t)length);
        errno = ENOTTY;
        return -1;
    }
    return real_ioctl(fd, request, argument);
}

ssize_t write(int fd, const void* buf, size_t count)
{
    REAL(write);
    const ssize_t written = real_write(fd, buf, count);
    if (written >= 0 && kindOf(fd) == PORT)
        recordWrite(buf, written);
    return written;
}

int tcdrain(int fd)
{
    REAL(tcdrain);
    const int result = real_tcdrain(fd);
    if (kindOf(fd) == PORT)
        record("drain\n", 6);
    return result;
}

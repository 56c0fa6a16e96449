/* firstpaint: an LD_PRELOAD shim that tells a benchmark when a Qt program first sends a picture
 * of a window to the X server, without touching the program.
 *
 * Qt's xcb backing store hands each painted frame to the server with xcb_shm_put_image (shared
 * memory) or xcb_put_image (into a pixmap, then copied onto the window), and pushes the request
 * out with xcb_flush. The first xcb_flush that follows an image put is the moment the first
 * painted frame leaves the program for the screen. The shim writes that moment, as
 * CLOCK_MONOTONIC nanoseconds in decimal followed by a line feed, once, to the file descriptor
 * named by BENCH_PAINT_FD. Without BENCH_PAINT_FD it only passes the calls on.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>
#include <xcb/xcb.h>

/* The shared-memory extension's header is not needed at build time: the one call is declared
 * here as libxcb-shm defines it. */
typedef uint32_t firstpaint_shm_seg_t;

static int g_put;      /* an image has been put */
static int g_reported; /* the moment has been written */

static void report(void)
{
    const char* fdText = getenv("BENCH_PAINT_FD");
    if (g_reported || !g_put || fdText == NULL)
        return;
    g_reported = 1;
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    char line[32];
    const int length = snprintf(line, sizeof line, "%lld\n",
                                (long long)now.tv_sec * 1000000000LL + now.tv_nsec);
    const int fd = atoi(fdText);
    if (write(fd, line, (size_t)length) < 0) {
        /* Nobody listens any more: the benchmark gave up on this run. */
    }
    close(fd);
}

/* The real NAME of LIBRARY. Qt's xcb plugin is loaded with its own libraries out of the global
 * scope, where RTLD_NEXT does not look: then the library is asked directly. */
static void* next(const char* name, const char* library)
{
    void* real = dlsym(RTLD_NEXT, name);
    if (real == NULL) {
        void* handle = dlopen(library, RTLD_LAZY | RTLD_NOLOAD);
        if (handle == NULL)
            handle = dlopen(library, RTLD_LAZY);
        real = handle != NULL ? dlsym(handle, name) : NULL;
    }
    if (real == NULL) {
        fprintf(stderr, "firstpaint: no %s in %s\n", name, library);
        abort();
    }
    return real;
}

xcb_void_cookie_t xcb_shm_put_image(xcb_connection_t* c, xcb_drawable_t drawable, xcb_gcontext_t gc,
                                    uint16_t total_width, uint16_t total_height, uint16_t src_x,
                                    uint16_t src_y, uint16_t src_width, uint16_t src_height,
                                    int16_t dst_x, int16_t dst_y, uint8_t depth, uint8_t format,
                                    uint8_t send_event, firstpaint_shm_seg_t shmseg, uint32_t offset)
{
    typedef xcb_void_cookie_t (*fn_t)(xcb_connection_t*, xcb_drawable_t, xcb_gcontext_t, uint16_t,
                                      uint16_t, uint16_t, uint16_t, uint16_t, uint16_t, int16_t,
                                      int16_t, uint8_t, uint8_t, uint8_t, firstpaint_shm_seg_t,
                                      uint32_t);
    static fn_t real;
    if (real == NULL)
        real = (fn_t)next("xcb_shm_put_image", "libxcb-shm.so.0");
    g_put = 1;
    return real(c, drawable, gc, total_width, total_height, src_x, src_y, src_width, src_height,
                dst_x, dst_y, depth, format, send_event, shmseg, offset);
}

xcb_void_cookie_t xcb_put_image(xcb_connection_t* c, uint8_t format, xcb_drawable_t drawable,
                                xcb_gcontext_t gc, uint16_t width, uint16_t height, int16_t dst_x,
                                int16_t dst_y, uint8_t left_pad, uint8_t depth, uint32_t data_len,
                                const uint8_t* data)
{
    typedef xcb_void_cookie_t (*fn_t)(xcb_connection_t*, uint8_t, xcb_drawable_t, xcb_gcontext_t,
                                      uint16_t, uint16_t, int16_t, int16_t, uint8_t, uint8_t,
                                      uint32_t, const uint8_t*);
    static fn_t real;
    if (real == NULL)
        real = (fn_t)next("xcb_put_image", "libxcb.so.1");
    g_put = 1;
    return real(c, format, drawable, gc, width, height, dst_x, dst_y, left_pad, depth, data_len,
                data);
}

int xcb_flush(xcb_connection_t* c)
{
    typedef int (*fn_t)(xcb_connection_t*);
    static fn_t real;
    if (real == NULL)
        real = (fn_t)next("xcb_flush", "libxcb.so.1");
    const int result = real(c);
    report();
    return result;
}

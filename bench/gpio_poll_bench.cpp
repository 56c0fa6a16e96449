// Polling speed of the relay and input stage: passes per second of its loop (five
// gpioV2::getGPIO_State reads a pass, each change acted on) against the floor of a raw
// open/read/close of the same five value files. The stage polls without sleeping for 40 s, so the
// pin layer's overhead over the bare system calls is what decides how fast it sees an input move.
//
// Run it in the simulated unit (it exports the board's pins), from the source folder:
//
//   sim/tovsim exec -- "$PWD/build/host/bench/gpio_poll_bench" [SECONDS]
//
// SECONDS per measured loop (default 3). Each loop runs twice, alternately, and the better run
// counts. On a real board add --on-board.
#include "gpio/gpiov2.h"
#include "mesure/rwktimer.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

const int kInputs[5] = {200, 201, 202, 42, 41};

// The stage's loop body: read each input and act when it changed.
long stageLoop(gpioV2& board, int ms)
{
    int last[5] = {-1, -1, -1, -1, -1};
    long passes = 0, changes = 0;
    rwkTimer timer;
    const int end = timer.elapsed() + ms;
    while (timer.elapsed() < end) {
        for (int i = 0; i < 5; ++i) {
            const int value = board.getGPIO_State(kInputs[i]);
            if (value != last[i]) {
                last[i] = value;
                ++changes;
            }
        }
        ++passes;
    }
    timer.stop();
    return changes > 0 ? passes : -1;
}

long rawLoop(int ms)
{
    std::string paths[5];
    for (int i = 0; i < 5; ++i)
        paths[i] = "/sys/class/gpio/gpio" + std::to_string(kInputs[i]) + "/value";
    int last[5] = {-1, -1, -1, -1, -1};
    long passes = 0, changes = 0;
    rwkTimer timer;
    const int end = timer.elapsed() + ms;
    while (timer.elapsed() < end) {
        for (int i = 0; i < 5; ++i) {
            const int fd = open(paths[i].c_str(), O_RDONLY);
            if (fd < 0)
                return -1;
            char buf[16];
            const ssize_t n = read(fd, buf, sizeof(buf) - 1);
            close(fd);
            buf[n > 0 ? n : 0] = '\0';
            const int value = atoi(buf);
            if (value != last[i]) {
                last[i] = value;
                ++changes;
            }
        }
        ++passes;
    }
    timer.stop();
    return changes > 0 ? passes : -1;
}

} // namespace

int main(int argc, char** argv)
{
    int seconds = 3;
    bool onBoard = false;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--on-board") == 0)
            onBoard = true;
        else if (atoi(argv[i]) > 0)
            seconds = atoi(argv[i]);
        else {
            fprintf(stderr, "usage: %s [SECONDS] [--on-board]\n", argv[0]);
            return 2;
        }
    }
    if (!onBoard && access("/run/tovsim/unit", F_OK) != 0) {
        fprintf(stderr, "This benchmark exports the board's GPIO pins: run it through "
                        "\"sim/tovsim exec -- %s\", or add --on-board on a real board.\n", argv[0]);
        return 2;
    }
    gpioV2 board;
    const int ms = seconds * 1000;
    long stage = 0, raw = 0;
    for (int round = 0; round < 2; ++round) {
        const long s = stageLoop(board, ms);
        const long r = rawLoop(ms);
        if (s < 0 || r < 0) {
            fprintf(stderr, "the input pins cannot be read: is /sys/class/gpio there?\n");
            return 1;
        }
        stage = s > stage ? s : stage;
        raw = r > raw ? r : raw;
    }
    const double stageRate = static_cast<double>(stage) / seconds;
    const double rawRate = static_cast<double>(raw) / seconds;
    printf("stage loop (gpioV2::getGPIO_State, 5 inputs a pass): %10.0f passes/s\n", stageRate);
    printf("raw loop (open/read/close of the 5 value files):      %10.0f passes/s\n", rawRate);
    printf("ratio stage/raw: %.2f (goal: at least 0.80)\n", stageRate / rawRate);
    return 0;
}

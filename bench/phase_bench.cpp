// Wall time of one test phase of tov_test, from its start to its call of /sbin/reboot, against
// the waits the phase must make: the 40 s relay and input test, the 5 s after "AutoTest
// Terminer!" and the 5 s before the reboot (50 s). What remains is the bench's own overhead.
//
// Runs in a good simulated unit, from the source folder:
//
//   sim/tovsim exec --watchtower up --module v2 [--clock-speed N] -- "$PWD/build/host/bench/phase_bench"
//
// It writes the phase file "1\n0\n192.0.2.10\n" (phase 1, testing starts at once), runs the
// unchanged tov_test (QT_QPA_PLATFORM=offscreen unless set) and watches the unit from outside:
// the first pin export and the first unexport in /run/tovsim/gpio.journal bound the relay test,
// /run/tovsim/module.log shows the module exchanges, the phase file changes when the phase ends,
// and the fake /sbin/reboot writes its line in /run/tovsim/journal.
//
// With --clock-speed N the program runs under libfaketime, its waits taking 1/N of the time. This
// benchmark takes itself out of libfaketime to time on the real clock, and scales back: a segment
// that must wait M s and took D s took D - M/N s more than its wait, and that excess is counted as
// it would be at real speed. The program's other timeouts and sleeps (those of the module link)
// shrink too, so a sped-up overhead is a lower bound; run the unit at real speed for the figure
// that counts.
#include "bench/benchops.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

const char* const kPhaseFile = "/home/TOV/tov_test.cfg";
const char* const kPhaseOne = "1\n0\n192.0.2.10\n";
const double kRelayWait = 40.0, kEndWait = 5.0, kRebootWait = 5.0;
const double kOverheadGoal = 2.0;
const int kPollMs = 2;

// Moments seen from outside the program, in ns of the real clock; 0 until seen.
struct Moments {
    long long start = 0, pinsExported = 0, pinsUnexported = 0, moduleFirst = 0, moduleLast = 0,
              phaseWritten = 0, reboot = 0;
};

bool hasLineStarting(const std::string& text, const char* prefix)
{
    const std::string needle = prefix;
    return text.compare(0, needle.size(), needle) == 0 || text.find("\n" + needle) != std::string::npos;
}

// Under libfaketime this program would time on the fake clock: it starts itself again without
// it and hands the library on to tov_test only.
void leaveFaketime(char** argv)
{
    const char* preload = getenv("LD_PRELOAD");
    if (preload == nullptr || strstr(preload, "faketime") == nullptr)
        return;
    setenv("BENCH_CHILD_PRELOAD", preload, 1);
    unsetenv("LD_PRELOAD");
    execv("/proc/self/exe", argv);
    perror("phase_bench: cannot start again without libfaketime");
    exit(2);
}

// Watches the unit until the reboot call, the end of the program or TIMEOUT_S.
bool watch(const benchops::Child& child, double timeoutS, Moments& seen)
{
    size_t moduleBytes = 0;
    const long long deadline = seen.start + static_cast<long long>(timeoutS * 1e9);
    while (benchops::monotonicNs() < deadline) {
        const long long now = benchops::monotonicNs();
        if (seen.pinsUnexported == 0) {
            const std::string pins = benchops::readText("/run/tovsim/gpio.journal");
            if (seen.pinsExported == 0 && hasLineStarting(pins, "export "))
                seen.pinsExported = now;
            if (seen.pinsExported != 0 && hasLineStarting(pins, "unexport "))
                seen.pinsUnexported = now;
        }
        const size_t bytes = benchops::readText("/run/tovsim/module.log").size();
        if (bytes != moduleBytes) {
            moduleBytes = bytes;
            seen.moduleLast = now;
            if (seen.moduleFirst == 0)
                seen.moduleFirst = now;
        }
        if (seen.phaseWritten == 0 && benchops::readText(kPhaseFile) != kPhaseOne)
            seen.phaseWritten = now;
        if (hasLineStarting(benchops::readText("/run/tovsim/journal"), "/sbin/reboot")) {
            seen.reboot = now;
            return true;
        }
        int status = 0;
        if (waitpid(child.pid, &status, WNOHANG) == child.pid) {
            fprintf(stderr, "phase_bench: tov_test ended without calling /sbin/reboot\n");
            return false;
        }
        benchops::sleepMs(kPollMs);
    }
    fprintf(stderr, "phase_bench: no reboot within %.0f s (did the phase fail?)\n", timeoutS);
    return false;
}

double seconds(long long from, long long to)
{
    return (to - from) / 1e9;
}

} // namespace

int main(int argc, char** argv)
{
    leaveFaketime(argv);
    if (argc > 1) {
        fprintf(stderr, "usage: phase_bench (options go to sim/tovsim exec)\n");
        return 2;
    }
    if (!benchops::insideUnit("phase_bench"))
        return 2;
    const char* speedText = getenv("TOVSIM_CLOCK_SPEED");
    const int speed = speedText != nullptr && atoi(speedText) > 0 ? atoi(speedText) : 1;
    const char* preload = getenv("BENCH_CHILD_PRELOAD");
    if (speed != 1 && preload == nullptr) {
        fprintf(stderr, "phase_bench: the unit's clock speed is %d but libfaketime is not loaded\n", speed);
        return 2;
    }
    const std::string tov = benchops::programDir() + "/../app/tov_test";
    if (access(tov.c_str(), X_OK) != 0) {
        fprintf(stderr, "phase_bench: %s is missing: build the host preset first\n", tov.c_str());
        return 2;
    }
    FILE* phase = fopen(kPhaseFile, "w");
    if (phase == nullptr || fputs(kPhaseOne, phase) < 0 || fclose(phase) != 0) {
        fprintf(stderr, "phase_bench: cannot write %s\n", kPhaseFile);
        return 2;
    }

    std::vector<std::string> env;
    if (preload != nullptr)
        env.push_back(std::string("LD_PRELOAD=") + preload);
    if (getenv("QT_QPA_PLATFORM") == nullptr)
        env.push_back("QT_QPA_PLATFORM=offscreen");
    const double mandated = kRelayWait + kEndWait + kRebootWait;
    Moments seen;
    const benchops::Child child = benchops::spawn({tov}, env, "/home/TOV");
    seen.start = child.startNs;
    const bool rebooted = watch(child, mandated / speed + 60.0, seen);
    benchops::killAndReap(child);
    if (!rebooted)
        return 1;
    if (seen.pinsExported == 0 || seen.pinsUnexported == 0 || seen.phaseWritten == 0) {
        fprintf(stderr, "phase_bench: the relay test or the end of the phase was not seen\n");
        return 1;
    }

    struct Segment {
        const char* what;
        long long from, to;
        double wait;
    };
    const Segment segments[] = {
        {"start to relay test (start-up, stages before)", seen.start, seen.pinsExported, 0.0},
        {"relay and input test (40 s)", seen.pinsExported, seen.pinsUnexported, kRelayWait},
        {"module stage, end of run (5 s)", seen.pinsUnexported, seen.phaseWritten, kEndWait},
        {"phase written to reboot (5 s)", seen.phaseWritten, seen.reboot, kRebootWait},
    };
    if (speed == 1)
        printf("phase 1 of a good unit at real speed\n");
    else
        printf("phase 1 of a good unit at clock speed %d, figures scaled back to real speed\n", speed);
    printf("  %-48s %9s %9s %9s\n", "segment", "wall s", "waits s", "over s");
    double overhead = 0;
    for (const Segment& segment : segments) {
        const double excess = seconds(segment.from, segment.to) - segment.wait / speed;
        overhead += excess;
        printf("  %-48s %9.3f %9.1f %9.3f\n", segment.what, segment.wait + excess, segment.wait, excess);
    }
    const double moduleS = seen.moduleFirst != 0 ? seconds(seen.pinsUnexported, seen.moduleLast) : 0.0;
    printf("  %-48s %9.3f %9.1f %9.3f\n", "whole phase, start to /sbin/reboot", mandated + overhead,
           mandated, overhead);
    printf("  of which the module stage (relay test end to last module answer): %.3f s%s\n",
           moduleS, speed == 1 ? "" : " on the real clock");
    if (speed != 1)
        printf("  note: at clock speed %d the module link's own timeouts and sleeps shrink too;"
               " the overhead is a lower bound (real speed: scripts/benchmarks --real-time)\n", speed);
    printf("  overhead beyond the mandated waits: %.3f s; goal under %.0f s: %s\n", overhead,
           kOverheadGoal, overhead < kOverheadGoal ? "PASS" : "MISS");
    return 0;
}

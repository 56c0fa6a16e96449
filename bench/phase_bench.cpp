// Wall time of one test phase of tov_test, from its start to its call of /sbin/reboot, against
// the waits the phase must make: the 40 s relay and input test, the V1 probe that a V2 unit lets
// run out (one exchange of three tries, each given 1500 ms to answer, then 10 ms), the 5 s after
// "AutoTest Terminer!" and the 5 s before the reboot (54.51 s). What remains is the bench's own
// overhead.
//
// Runs in a good simulated unit, from the source folder:
//
//   sim/tovsim exec --watchtower up --module v2 [--clock-speed N] -- "$PWD/build/host/bench/phase_bench"
//
// It writes the phase file "1\n0\n192.0.2.10\n" (phase 1, testing starts at once), runs the
// unchanged tov_test (QT_QPA_PLATFORM=offscreen unless set) and watches the unit from outside,
// every 2 ms: "/home/tov_test.msr" appears and stops growing (NAND write), its copy arrives on the
// WATCHTOWER server (upload), the first pin export in /run/tovsim/gpio.journal starts the relay
// test, the module emulator's first line in /run/tovsim/module.log ends it, its last line ends the
// module stage, the phase file changes when the run has ended, and the fake /sbin/reboot writes
// its line in /run/tovsim/journal.
//
// With --clock-speed N the program runs under libfaketime, its waits taking 1/N of the time. This
// benchmark takes itself out of libfaketime to time on the real clock, and scales back: a segment
// that must wait M s and took D s took D - M/N s more than its wait, and that excess is counted as
// it would be at real speed. The module stage is the exception: its time is the link's own
// timeouts and frame delays, which shrink with the clock, so it is multiplied by N whole. The
// result is an estimate; run the unit at real speed for the figure that counts.
#include "bench/benchops.h"

#include <signal.h>
#include <sys/stat.h>
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
const double kV1ProbeWait = 3 * 1.5 + 0.010;
const double kOverheadGoal = 2.0;
const int kPollMs = 2;

const char* const kMeasureFile = "/home/tov_test.msr";
const char* const kUploadedFile = "/run/tovsim/watchtower/TOV/tests_tov/tov_test.msr";

// Moments seen from outside the program, in ns of the real clock; 0 until seen.
struct Moments {
    long long start = 0, measureFirst = 0, measureLast = 0, uploaded = 0, pinsExported = 0,
              moduleFirst = 0, moduleLast = 0, phaseWritten = 0, reboot = 0;
};

// Size of PATH, -1 when it does not exist.
long long fileSize(const char* path)
{
    struct stat info {};
    return stat(path, &info) == 0 ? info.st_size : -1;
}

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
    long long measureBytes = -1, moduleBytes = 0;
    const long long deadline = seen.start + static_cast<long long>(timeoutS * 1e9);
    while (benchops::monotonicNs() < deadline) {
        const long long now = benchops::monotonicNs();
        const long long measure = fileSize(kMeasureFile);
        if (measure != measureBytes && seen.uploaded == 0) {
            measureBytes = measure;
            seen.measureLast = now;
            if (seen.measureFirst == 0)
                seen.measureFirst = now;
        }
        if (seen.uploaded == 0 && measureBytes > 0 && fileSize(kUploadedFile) == measureBytes)
            seen.uploaded = now;
        if (seen.pinsExported == 0
            && hasLineStarting(benchops::readText("/run/tovsim/gpio.journal"), "export "))
            seen.pinsExported = now;
        const long long module = fileSize("/run/tovsim/module.log");
        if (module > 0 && module != moduleBytes) {
            moduleBytes = module;
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
    if (preload != nullptr) {
        env.push_back(std::string("LD_PRELOAD=") + preload);
        // libfaketime also shifts the times stat() reports, which makes fontconfig find its caches
        // stale and rebuild them at every start (most of a second): a cost of the simulation the
        // board never pays.
        env.push_back("NO_FAKE_STAT=1");
    }
    if (getenv("QT_QPA_PLATFORM") == nullptr)
        env.push_back("QT_QPA_PLATFORM=offscreen");
    const double mandated = kRelayWait + kV1ProbeWait + kEndWait + kRebootWait;
    Moments seen;
    const benchops::Child child = benchops::spawn({tov}, env, "/home/TOV");
    seen.start = child.startNs;
    const bool rebooted = watch(child, mandated / speed + 30.0, seen);
    benchops::killAndReap(child);
    if (!rebooted)
        return 1;
    const long long marks[] = {seen.measureFirst, seen.uploaded, seen.pinsExported,
                               seen.moduleFirst, seen.phaseWritten};
    for (long long mark : marks) {
        if (mark == 0) {
            fprintf(stderr, "phase_bench: a stage of the phase was not seen (measurement file, upload, "
                            "pins, module or phase file): not a good unit?\n");
            return 1;
        }
    }

    // A segment on the program's clock is made of the program's own timed waits (the module
    // link's read timeouts and frame delays): sped up, it shrinks with the clock and is scaled back
    // whole. The others are work, which the clock does not speed up.
    struct Segment {
        const char* what;
        long long from, to;
        double wait;
        bool programClock;
    };
    const Segment segments[] = {
        {"start-up, identity, storage, network probes", seen.start, seen.measureFirst, 0.0, false},
        {"NAND write (256 lines)", seen.measureFirst, seen.measureLast, 0.0, false},
        {"NAND read, SFTP upload", seen.measureLast, seen.uploaded, 0.0, false},
        {"library check, pin export", seen.uploaded, seen.pinsExported, 0.0, false},
        {"relay and input test (40 s)", seen.pinsExported, seen.moduleFirst, kRelayWait, false},
        {"module stage (V1 probe runs out, V2 exchange)", seen.moduleFirst, seen.moduleLast, kV1ProbeWait, true},
        {"\"AutoTest Terminer!\" to phase written (5 s)", seen.moduleLast, seen.phaseWritten, kEndWait, false},
        {"phase written to /sbin/reboot (5 s)", seen.phaseWritten, seen.reboot, kRebootWait, false},
    };
    if (speed == 1)
        printf("phase 1 of a good unit at real speed\n");
    else
        printf("phase 1 of a good unit at clock speed %d, figures scaled back to real speed\n", speed);
    printf("  %-48s %9s %9s %9s\n", "segment", "wall s", "waits s", "over s");
    double overhead = 0, moduleStage = 0;
    for (const Segment& segment : segments) {
        const double wall = seconds(segment.from, segment.to);
        const double excess = segment.programClock ? wall * speed - segment.wait : wall - segment.wait / speed;
        overhead += excess;
        if (segment.programClock)
            moduleStage = excess;
        printf("  %-48s %9.3f %9.2f %9.3f%s\n", segment.what, segment.wait + excess, segment.wait, excess,
               segment.programClock && speed != 1 ? " *" : "");
    }
    printf("  %-48s %9.3f %9.2f %9.3f\n", "whole phase, start to /sbin/reboot", mandated + overhead,
           mandated, overhead);
    if (speed != 1)
        printf("  measured at clock speed %d: waits scaled back by %d, other time counted as measured,\n"
               "  * whole time scaled by %d (the module link's own timeouts); an estimate:"
               " scripts/benchmarks --real-time measures it\n", speed, speed, speed);
    printf("  of which the module stage beyond its V1 probe (frame delays, V2 answers) %.3f s, the rest %.3f s\n",
           moduleStage, overhead - moduleStage);
    printf("  overhead beyond the mandated waits: %.3f s; goal under %.0f s: %s\n", overhead,
           kOverheadGoal, overhead < kOverheadGoal ? "PASS" : "MISS");
    return 0;
}

// Start-up to the first painted frame, and peak memory, of tov_test against a bare Qt window
// (bare_window --text: one 640x480 QWidget showing one line of text), both on the same X server in
// the same run.
//
// Runs in a simulated unit, from the source folder:
//
//   sim/tovsim exec -- "$PWD/build/host/bench/startup_bench" [--runs N] [--verbose]
//
// It starts its own Xvfb (640x480, 24 bits) in the unit and runs each program with
// QT_QPA_PLATFORM=xcb and QT_XCB_GL_INTEGRATION=none (neither paints with OpenGL, and the board's
// linuxfb has none: loading Mesa's software renderer would add ~50 MB and ~0.3 s to both). The
// programs take turns, N times each (default 11) after one warm-up run each that is not counted.
// The yardstick shows text because every screen of the bench does: the first word on a screen
// loads the font machinery (fontconfig, FreeType, HarfBuzz, about 4 MB and a quarter more
// start-up), a cost of Qt and not of the bench. bare_window without text, which loads none of it,
// runs too, for information.
// tov_test runs unchanged, with no phase file: it paints the network form and waits, as at the
// first boot of a unit. The first painted frame is seen from outside the program by the firstpaint
// shim (LD_PRELOAD, see firstpaint.c): the first flush of a window picture to the X server.
// Start-up is the time from the fork to that flush. The program is then left 300 ms to settle and
// killed; its peak resident set is the kernel's ru_maxrss of the reaped child.
//
// --verbose lets the programs' own output through.
//
// Goals: start-up at most 1.3 times the bare window's, peak resident set at most the bare
// window's plus 6 MB (medians). A missed goal prints MISS; the exit status says only whether the
// measurements could be taken.
#include "bench/benchops.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

using benchops::Child;

namespace {

const int kSettleMs = 300;
const int kPaintTimeoutMs = 20000;
const double kStartupGoal = 1.3;
const double kMemoryGoalMb = 6.0;

using Mappings = std::map<std::string, long>; // resident kB per mapped file, "[anon]" etc.

struct Program {
    const char* label;
    std::vector<std::string> argv;
    std::vector<double> startupMs;
    std::vector<double> peakMb;
    Mappings resident; // at the end of the last run
};

// Resident kB of each mapping of PID, summed per file (anonymous memory as "[anon]").
Mappings residentMappings(pid_t pid)
{
    Mappings resident;
    std::istringstream smaps(benchops::readText("/proc/" + std::to_string(pid) + "/smaps"));
    std::string line, name;
    while (std::getline(smaps, line)) {
        std::istringstream fields(line);
        std::string first;
        fields >> first;
        if (first == "Rss:") {
            long kb = 0;
            fields >> kb;
            resident[name] += kb;
        } else if (first.find('-') != std::string::npos && first.back() != ':') {
            std::string perms, offset, device, inode;
            name.clear();
            fields >> perms >> offset >> device >> inode >> name;
            if (name.empty())
                name = "[anon]";
        }
    }
    return resident;
}

int sharedObjects(const Mappings& resident)
{
    int count = 0;
    for (const auto& entry : resident) {
        const std::string& name = entry.first;
        const size_t so = name.rfind(".so");
        count += so != std::string::npos && (so + 3 == name.size() || name[so + 3] == '.');
    }
    return count;
}

// The mappings that make most of the difference in resident memory between two programs.
void printLargestDifferences(const Mappings& from, const Mappings& to, size_t count)
{
    std::vector<std::pair<long, std::string>> differences;
    for (const auto& [name, kb] : to) {
        const auto other = from.find(name);
        const long difference = kb - (other == from.end() ? 0 : other->second);
        if (difference > 0)
            differences.emplace_back(difference, name);
    }
    std::sort(differences.rbegin(), differences.rend());
    long shown = 0;
    for (size_t i = 0; i < differences.size() && i < count; ++i) {
        const std::string& name = differences[i].second;
        printf("    %+7.1f MB  %s\n", differences[i].first / 1024.0,
               name.substr(name.rfind('/') == std::string::npos ? 0 : name.rfind('/') + 1).c_str());
        shown += differences[i].first;
    }
    long rest = 0;
    for (size_t i = count; i < differences.size(); ++i)
        rest += differences[i].first;
    printf("    %+7.1f MB  %zu other mappings\n", rest / 1024.0,
           differences.size() > count ? differences.size() - count : 0);
}

struct Display {
    Child server;
    std::string name; // ":N"
    int pipe = -1;
};

// Starts Xvfb on a free display; it writes the display number and a line feed on a pipe once it
// accepts clients. The pipe stays open while Xvfb runs: Xvfb ends when it cannot write there.
bool startXvfb(Display& display, bool verbose)
{
    int fds[2];
    if (pipe(fds) != 0)
        return false;
    display.server = benchops::spawn({"/usr/bin/Xvfb", "-displayfd", std::to_string(fds[1]), "-screen",
                                      "0", "640x480x24", "-nolisten", "tcp", "-noreset"},
                                     {}, "", fds[1], verbose);
    close(fds[1]);
    display.pipe = fds[0];
    std::string number;
    pollfd ready{fds[0], POLLIN, 0};
    char c = 0;
    while (poll(&ready, 1, 10000) == 1 && read(fds[0], &c, 1) == 1 && c != '\n')
        number += c;
    if (c != '\n' || number.empty()) {
        fprintf(stderr, "startup_bench: Xvfb did not start\n");
        return false;
    }
    display.name = ":" + number;
    return true;
}

void stopXvfb(Display& display)
{
    benchops::killAndReap(display.server);
    if (display.pipe >= 0)
        close(display.pipe);
}

// One run: start-up in ms and peak resident set in MB, or false when no frame came.
bool runOnce(const std::vector<std::string>& argv, const std::string& shim, const std::string& displayName,
             bool verbose, double& startupMs, double& peakMb, Mappings& resident)
{
    int fds[2];
    if (pipe(fds) != 0)
        return false;
    const Child child = benchops::spawn(argv, {"LD_PRELOAD=" + shim, "BENCH_PAINT_FD=" + std::to_string(fds[1]),
                                                 "QT_QPA_PLATFORM=xcb", "QT_XCB_GL_INTEGRATION=none",
                                                 "DISPLAY=" + displayName},
                                        "/home/TOV", fds[1], verbose);
    close(fds[1]);
    pollfd paint{fds[0], POLLIN, 0};
    char line[32] = {};
    const bool painted = poll(&paint, 1, kPaintTimeoutMs) == 1 && read(fds[0], line, sizeof line - 1) > 0;
    close(fds[0]);
    if (painted) {
        startupMs = (atoll(line) - child.startNs) / 1e6;
        benchops::sleepMs(kSettleMs);
        resident = residentMappings(child.pid);
    }
    std::string ending;
    peakMb = benchops::killAndReap(child, &ending) / 1024.0;
    if (!painted)
        fprintf(stderr, "startup_bench: %s painted nothing (%s)\n", argv[0].c_str(), ending.c_str());
    return painted;
}

const char* verdict(bool met)
{
    return met ? "PASS" : "MISS";
}

} // namespace

int main(int argc, char** argv)
{
    int runs = 11;
    bool verbose = false;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--verbose") == 0) {
            verbose = true;
        } else if (strcmp(argv[i], "--runs") == 0 && i + 1 < argc && atoi(argv[i + 1]) > 0) {
            runs = atoi(argv[++i]);
        } else {
            fprintf(stderr, "usage: startup_bench [--runs N] [--verbose]\n");
            return 2;
        }
    }
    if (!benchops::insideUnit("startup_bench"))
        return 2;
    const std::string dir = benchops::programDir();
    const std::string shim = dir + "/libfirstpaint.so";
    Program empty{"empty Qt window", {dir + "/bare_window"}, {}, {}, {}};
    Program bare{"bare Qt window", {dir + "/bare_window", "--text"}, {}, {}, {}};
    Program tov{"tov_test", {dir + "/../app/tov_test"}, {}, {}, {}};
    for (const std::string& path : {shim, bare.argv[0], tov.argv[0]}) {
        if (access(path.c_str(), R_OK) != 0) {
            fprintf(stderr, "startup_bench: %s is missing: build the host preset first\n", path.c_str());
            return 2;
        }
    }
    unlink("/home/TOV/tov_test.cfg"); // no phase file: the network form, as at a first boot
    Display display;
    if (!startXvfb(display, verbose)) {
        stopXvfb(display);
        return 2;
    }

    bool ok = true;
    for (int run = 0; run <= runs && ok; ++run) {
        for (Program* program : {&empty, &bare, &tov}) {
            double startupMs = 0, peakMb = 0;
            ok = runOnce(program->argv, shim, display.name, verbose, startupMs, peakMb,
                         program->resident) && ok;
            if (run == 0)
                continue; // warm-up: caches and fonts, not counted
            program->startupMs.push_back(startupMs);
            program->peakMb.push_back(peakMb);
        }
    }
    stopXvfb(display);
    if (!ok)
        return 1;

    printf("Xvfb 640x480x24, QT_QPA_PLATFORM=xcb without OpenGL; %d runs each after one warm-up, in turns\n", runs);
    printf("  %-16s %21s   %21s\n", "", "start-up min / median", "peak RSS min / median");
    for (const Program* program : {&empty, &bare, &tov}) {
        printf("  %-16s %9.1f / %6.1f ms   %10.1f / %5.1f MB\n", program->label,
               benchops::minimum(program->startupMs), benchops::median(program->startupMs),
               benchops::minimum(program->peakMb), benchops::median(program->peakMb));
    }
    const double ratio = benchops::median(tov.startupMs) / benchops::median(bare.startupMs);
    const double ratioMin = benchops::minimum(tov.startupMs) / benchops::minimum(bare.startupMs);
    const double extraMb = benchops::median(tov.peakMb) - benchops::median(bare.peakMb);
    printf("  start-up tov_test / bare: %.2f (median), %.2f (min); goal at most %.1f: %s\n", ratio,
           ratioMin, kStartupGoal, verdict(ratio <= kStartupGoal));
    printf("  peak RSS tov_test - bare: %+.1f MB (median); goal at most +%.0f MB: %s\n", extraMb,
           kMemoryGoalMb, verdict(extraMb <= kMemoryGoalMb));
    printf("  for information, against the empty window (no fonts loaded): start-up %.2f, peak RSS %+.1f MB"
           " (medians)\n", benchops::median(tov.startupMs) / benchops::median(empty.startupMs),
           benchops::median(tov.peakMb) - benchops::median(empty.peakMb));
    printf("  shared objects mapped: bare %d, tov_test %d\n", sharedObjects(bare.resident),
           sharedObjects(tov.resident));
    printf("  where tov_test's extra resident memory is (last run, per mapping):\n");
    printLargestDifferences(bare.resident, tov.resident, 8);
    return 0;
}

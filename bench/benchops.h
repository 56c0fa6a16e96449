// Helpers the benchmark programs share: the real clock, simple statistics, reading small files,
// starting a program and finding the programs of this build.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace benchops {

// CLOCK_MONOTONIC in nanoseconds.
long long monotonicNs();

// Sleeps for MS milliseconds of the real clock.
void sleepMs(int ms);

double minimum(const std::vector<double>& values);
double median(std::vector<double> values);

// The whole content of PATH, or "" when it cannot be read.
std::string readText(const std::string& path);

// The folder that holds the running program.
std::string programDir();

// True inside a simulated unit; prints why not and returns false otherwise.
bool insideUnit(const char* program);

struct Child {
    pid_t pid = -1;
    long long startNs = 0; // just before the fork
};

// Starts ARGV[0] with ARGV in folder DIR (none when empty), with ENV added to the environment and
// its standard output and error sent to /dev/null unless KEEP_OUTPUT. KEEP_FD stays open in the
// child; every other descriptor above 2 is closed.
Child spawn(const std::vector<std::string>& argv, const std::vector<std::string>& env,
            const std::string& dir, int keepFd = -1, bool keepOutput = false);

// Kills CHILD with SIGKILL and reaps it; returns its peak resident set in kilobytes (ru_maxrss).
// STATUS, when given, receives how it ended ("killed" when it was still running).
long killAndReap(const Child& child, std::string* status = nullptr);

} // namespace benchops

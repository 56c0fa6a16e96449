#include "bench/benchops.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace benchops {

long long monotonicNs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

void sleepMs(int ms)
{
    timespec wait{ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&wait, &wait) != 0) {
    }
}

double minimum(const std::vector<double>& values)
{
    return values.empty() ? 0.0 : *std::min_element(values.begin(), values.end());
}

double median(std::vector<double> values)
{
    if (values.empty())
        return 0.0;
    std::sort(values.begin(), values.end());
    const size_t half = values.size() / 2;
    return values.size() % 2 ? values[half] : (values[half - 1] + values[half]) / 2.0;
}

std::string readText(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string programDir()
{
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0)
        return ".";
    path[length] = '\0';
    std::string dir(path);
    return dir.substr(0, dir.rfind('/'));
}

bool insideUnit(const char* program)
{
    if (access("/run/tovsim/unit", F_OK) == 0)
        return true;
    fprintf(stderr, "%s: runs only inside a simulated unit (sim/tovsim exec -- ...)\n", program);
    return false;
}

Child spawn(const std::vector<std::string>& argv, const std::vector<std::string>& env,
            const std::string& dir, int keepFd, bool keepOutput)
{
    std::vector<char*> args;
    for (const std::string& arg : argv)
        args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    Child child;
    child.startNs = monotonicNs();
    child.pid = fork();
    if (child.pid != 0)
        return child;
    for (const std::string& entry : env)
        putenv(const_cast<char*>(entry.c_str()));
    if (!keepOutput) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(null, 2);
    }
    const int maxFd = static_cast<int>(sysconf(_SC_OPEN_MAX));
    for (int fd = 3; fd < maxFd && fd < 1024; ++fd) {
        if (fd != keepFd)
            close(fd);
    }
    if (!dir.empty() && chdir(dir.c_str()) != 0)
        _exit(126);
    execv(args[0], args.data());
    fprintf(stderr, "cannot start %s: %s\n", args[0], strerror(errno));
    _exit(127);
}

long killAndReap(const Child& child, std::string* status)
{
    if (child.pid <= 0)
        return 0;
    int result = 0;
    rusage usage{};
    pid_t reaped = wait4(child.pid, &result, WNOHANG, &usage);
    const bool running = reaped == 0;
    if (running) {
        kill(child.pid, SIGKILL);
        while ((reaped = wait4(child.pid, &result, 0, &usage)) < 0 && errno == EINTR) {
        }
    }
    if (status != nullptr) {
        if (running)
            *status = "killed";
        else if (WIFEXITED(result))
            *status = "exited with status " + std::to_string(WEXITSTATUS(result));
        else if (WIFSIGNALED(result))
            *status = std::string("ended by signal ") + strsignal(WTERMSIG(result));
        else
            *status = "ended";
    }
    return usage.ru_maxrss;
}

} // namespace benchops

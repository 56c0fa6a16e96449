// SFTP upload of the measurement file by the bench's own client (Curl_Wrapper::Upload, called as
// the test thread calls it) against `curl -T` of the same file to the same server, in the same
// unit. Each upload is a whole transfer: connection, authentication, file. Goal: the bench's speed
// at least 0.9 of curl's.
//
// Runs in a simulated unit with the WATCHTOWER server up, from the source folder:
//
//   sim/tovsim exec --watchtower up -- "$PWD/build/host/bench/sftp_bench" [--runs N]
//
// The file is made of 256 lines of the same form and size as the test's; its copy on the server
// is checked after every upload.
#include "bench/benchops.h"
#include "sftp/curl_wrapper.h"

#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

const char* const kMeasureFile = "/home/tov_test.msr";
const char* const kUploadedFile = "/run/tovsim/watchtower/TOV/tests_tov/tov_test.msr";
const char* const kServer = "192.0.2.10";
const char* const kUser = "Watchtower";
const char* const kPassword = "Tomar#81kwy";
const double kGoal = 0.9;

long long fileSize(const char* path)
{
    struct stat info {};
    return stat(path, &info) == 0 ? info.st_size : -1;
}

bool writeMeasureFile()
{
    FILE* out = fopen(kMeasureFile, "w");
    if (out == nullptr)
        return false;
    for (int n = 0; n < 256; ++n) {
        fprintf(out, "07/03/2014_15:04:09;%d;", n);
        for (int i = 0; i < 256; ++i)
            fprintf(out, "%d;%.2f;", n, n * 0.2);
        fputc('\n', out);
    }
    return fclose(out) == 0;
}

// Seconds of one upload by the bench's client; negative when it failed.
double uploadByBench()
{
    remove(kUploadedFile);
    Curl_Wrapper::UploadMap files{{{kMeasureFile, "~/TOV/tests_tov"}, false}};
    Curl_Wrapper curl;
    const long long start = benchops::monotonicNs();
    const bool done = curl.Upload(std::string("sftp://") + kServer, kUser, kPassword, files);
    const double seconds = (benchops::monotonicNs() - start) / 1e9;
    return done && fileSize(kUploadedFile) == fileSize(kMeasureFile) ? seconds : -1;
}

// Seconds of one `curl -T` of the same file; negative when it failed. -k as the bench's client
// does not check host keys either.
double uploadByCurl()
{
    remove(kUploadedFile);
    const std::vector<std::string> argv = {"/usr/bin/curl", "-sS", "-k", "-T", kMeasureFile, "-u",
                                           std::string(kUser) + ":" + kPassword,
                                           std::string("sftp://") + kServer + "/~/TOV/tests_tov/"};
    const benchops::Child child = benchops::spawn(argv, {}, "", -1, true);
    int status = 0;
    waitpid(child.pid, &status, 0);
    const double seconds = (benchops::monotonicNs() - child.startNs) / 1e9;
    const bool done = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return done && fileSize(kUploadedFile) == fileSize(kMeasureFile) ? seconds : -1;
}

} // namespace

int main(int argc, char** argv)
{
    int runs = 9;
    if (argc == 3 && strcmp(argv[1], "--runs") == 0 && atoi(argv[2]) > 0) {
        runs = atoi(argv[2]);
    } else if (argc != 1) {
        fprintf(stderr, "usage: sftp_bench [--runs N] (in a unit with --watchtower up)\n");
        return 2;
    }
    if (!benchops::insideUnit("sftp_bench"))
        return 2;
    if (!writeMeasureFile()) {
        fprintf(stderr, "sftp_bench: cannot write %s\n", kMeasureFile);
        return 2;
    }
    // The first of each loads its libraries and warms the server: not counted.
    if (uploadByBench() < 0 || uploadByCurl() < 0) {
        fprintf(stderr, "sftp_bench: an upload failed: is the unit's WATCHTOWER server up?\n");
        return 1;
    }
    std::vector<double> bench, curl;
    for (int i = 0; i < runs; ++i) {
        bench.push_back(uploadByBench());
        curl.push_back(uploadByCurl());
        if (bench.back() < 0 || curl.back() < 0) {
            fprintf(stderr, "sftp_bench: an upload failed in run %d\n", i + 1);
            return 1;
        }
    }
    const double megabytes = fileSize(kMeasureFile) / 1e6;
    const double benchS = benchops::median(bench), curlS = benchops::median(curl);
    printf("upload of the measurement file (%.3f MB) to the unit's WATCHTOWER server, median of %d\n",
           megabytes, runs);
    printf("  %-34s %9s %9s %9s\n", "client", "median s", "min s", "MB/s");
    printf("  %-34s %9.3f %9.3f %9.2f\n", "bench (Curl_Wrapper::Upload)", benchS, benchops::minimum(bench),
           megabytes / benchS);
    printf("  %-34s %9.3f %9.3f %9.2f\n", "curl -T", curlS, benchops::minimum(curl), megabytes / curlS);
    const double ratio = curlS / benchS;
    printf("  bench speed / curl speed: %.2f; goal at least %.1f: %s\n", ratio, kGoal, ratio >= kGoal ? "PASS" : "MISS");
    return 0;
}

// Time of module exchanges through the RS-485 link against the emulated module, compared with the
// time the same frames take on the wire (10 bits a byte). It opens "/dev/ttySAC1", so it runs in
// a simulated unit only (from the source folder; the unit starts in /):
//
//   sim/tovsim exec --module v1 -- "$PWD/build/host/bench/bench_modules" v1 [COUNT]
//   sim/tovsim exec --module v2 -- "$PWD/build/host/bench/bench_modules" v2 [COUNT]
//
// v1: the V1 poll (5 bytes) and its answer (33 bytes) at 2400 baud; v2: the V2 data poll
// (command 13, 8 bytes) and its answer (34 bytes) at 9600 baud. A pty does not pace what the unit
// writes: only the module's answer takes its wire time there.
#include "mesure/ccomrs485.h"
#include "mesure/mesv1modul.h"
#include "mesure/mesv2modul.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Figures {
    double min = 0, mean = 0, max = 0;
    int failures = 0;
};

Figures measure(int count, const std::function<bool()>& exchange)
{
    std::vector<double> ms;
    Figures f;
    for (int i = 0; i < count; ++i) {
        const auto start = Clock::now();
        const bool ok = exchange();
        ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        if (!ok)
            ++f.failures;
    }
    f.min = *std::min_element(ms.begin(), ms.end());
    f.max = *std::max_element(ms.begin(), ms.end());
    for (double v : ms)
        f.mean += v / ms.size();
    return f;
}

void report(FILE* out, const char* what, int baud, int bytes, int count, const Figures& f)
{
    const double wire = bytes * 10.0 * 1000.0 / baud;
    fprintf(out, "%s at %d baud, %d exchanges (%d failed)\n", what, baud, count, f.failures);
    fprintf(out, "  wire time of %d bytes: %8.2f ms\n", bytes, wire);
    fprintf(out, "  exchange min / mean / max: %8.2f / %8.2f / %8.2f ms\n", f.min, f.mean, f.max);
    fprintf(out, "  ratio mean / wire: %.2f\n", f.mean / wire);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || (strcmp(argv[1], "v1") != 0 && strcmp(argv[1], "v2") != 0)) {
        fprintf(stderr, "usage: %s v1|v2 [COUNT]\n", argv[0]);
        return 2;
    }
    if (access("/run/tovsim/unit", F_OK) != 0) {
        fprintf(stderr, "%s opens /dev/ttySAC1: run it in a simulated unit (sim/tovsim exec)\n",
                argv[0]);
        return 2;
    }
    const int count = argc > 2 ? std::max(1, atoi(argv[2])) : 20;
    // The drivers talk on stdout at every request; keep the figures readable.
    FILE* figures = fdopen(dup(STDOUT_FILENO), "w");
    if (figures == nullptr || freopen("/dev/null", "w", stdout) == nullptr)
        return 1;

    CComRS485 link;
    Figures f;
    if (strcmp(argv[1], "v1") == 0) {
        MesV1Modul v1(&link);
        f = measure(count, [&] { return v1.CM1_sendTo() == 1; });
        report(figures, "V1 poll and answer", 2400, MesV1Modul::POLL_LENGTH + MesV1Modul::ANSWER_LENGTH,
               count, f);
    } else {
        MesV2Modul v2(&link);
        if (!v2.CMinit_Comm()) {
            fprintf(stderr, "no V2 module answers: start the unit with --module v2\n");
            return 1;
        }
        f = measure(count, [&] { return v2.CM_sendTo(13) == 0; });
        report(figures, "V2 data poll (13) and answer", 9600, 8 + 34, count, f);
    }
    fclose(figures);
    return 0;
}

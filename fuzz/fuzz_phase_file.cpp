// The phase file as the main window reads it at start: any bytes, judged by parsePhaseText and
// read back from a file by tovReadPhaseFile. What it accepts must survive the window's own rewrite
// of the file unchanged, and nothing it rejects may move the bench off its first phase.
#include "app/phasefile.h"
#include "fuzz/fuzzinput.h"

#include <QString>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

std::string g_dir;
std::string g_path;

void removeScratch()
{
    unlink(g_path.c_str());
    rmdir(g_dir.c_str());
}

void writeBytes(const std::string& bytes)
{
    FILE* file = fopen(g_path.c_str(), "wb");
    if (file == nullptr)
        abort();
    if (!bytes.empty() && fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size())
        abort();
    fclose(file);
}

bool same(const TovPhaseState& a, const TovPhaseState& b)
{
    return a.phase == b.phase && a.restoreChoice == b.restoreChoice && a.serverAddress == b.serverAddress;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // A scratch file of our own; memory-backed when the machine has /dev/shm.
    const char* tmp = getenv("TMPDIR");
    struct stat shm;
    std::string base = tmp != nullptr && *tmp != '\0' ? tmp
        : (stat("/dev/shm", &shm) == 0 && S_ISDIR(shm.st_mode) && access("/dev/shm", W_OK) == 0) ? "/dev/shm"
                                                                                                 : "/tmp";
    std::string pattern = base + "/tov-fuzz-phase.XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr)
        abort();
    g_dir = pattern;
    g_path = g_dir + "/tov_test.cfg";
    atexit(removeScratch);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzInput in(data, size);
    const std::string text = in.rest();
    TovPhaseState state;
    const bool accepted = parsePhaseText(text, state);

    // The file reader agrees with the text rule.
    writeBytes(text);
    TovPhaseState fromFile;
    if (tovReadPhaseFile(g_path, fromFile) != accepted || !same(fromFile, state))
        abort();

    if (!accepted) {
        if (!same(state, TovPhaseState()))
            abort();
        return 0;
    }
    if (state.phase < 0 || state.phase > 2)
        abort();
    (void)QString::fromLocal8Bit(state.serverAddress.c_str());

    // The window writes phase, choice and address back one per line, each with a line feed.
    const std::string rewritten = std::to_string(state.phase) + "\n" + std::to_string(state.restoreChoice)
        + "\n" + state.serverAddress + "\n";
    TovPhaseState again;
    if (!parsePhaseText(rewritten, again) || !same(again, state))
        abort();
    return 0;
}

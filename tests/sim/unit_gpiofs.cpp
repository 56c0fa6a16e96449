// The simulated unit's /sys/class/gpio (sim/devices/gpiofs) against the kernel's rules the bench relies on,
// through plain system calls, each case in a fresh unit.
#include "gpiosim.h"
#include "testfiles.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

using namespace tovtest;

namespace {

const std::string kGpio = "/sys/class/gpio/";

int statErrno(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? (S_ISDIR(st.st_mode) ? 0 : ENOTDIR) : errno;
}

} // namespace

// Nothing may be cached: the bench stats gpioN, writes export, then opens gpioN's files at once.
TEST(GpioSysfs, ExportShowsThePinAtOnceAndUnexportTakesItAway)
{
    const unsigned long accesses = gpioAccesses();
    EXPECT_EQ(statErrno(kGpio + "gpio202"), ENOENT);
    ASSERT_EQ(gpioWrite("export", "202"), 0);
    EXPECT_EQ(statErrno(kGpio + "gpio202"), 0);
    EXPECT_EQ(readText(kGpio + "gpio202/direction"), "in\n");
    EXPECT_EQ(readText(kGpio + "gpio202/value"), "1\n") << "idle inputs are high";
    EXPECT_GT(gpioAccesses(), accesses);
    const unsigned long counted = gpioAccesses();
    EXPECT_EQ(gpioLevel(202), 1);
    EXPECT_EQ(gpioAccesses(), counted) << "the emulator's own files are not counted";

    ASSERT_EQ(gpioWrite("unexport", "202\n"), 0);
    EXPECT_EQ(statErrno(kGpio + "gpio202"), ENOENT);
    EXPECT_EQ(statErrno(kGpio + "gpio202/value"), ENOENT);
}

TEST(GpioSysfs, RefusesWhatTheKernelRefusesAndJournalsEveryWrite)
{
    struct Write {
        const char* name;
        const char* text;
        int error;
        const char* journal;
    };
    const Write writes[] = {
        {"export", "99", EINVAL, "export 99 EINVAL"},  // not a pin of the board
        {"export", "abc", EINVAL, "export abc EINVAL"},
        {"unexport", "201", EINVAL, "unexport 201 EINVAL"},  // not exported
        {"export", "202", 0, "export 202"},
        {"export", "202", EBUSY, "export 202 EBUSY"},
        {"gpio202/value", "1", EPERM, "value 202 1 EPERM"},  // an input
        {"gpio202/direction", "sideways", EINVAL, "direction 202 sideways EINVAL"},
        {"gpio201/value", "1", ENOENT, nullptr},
    };
    std::string journal;
    for (const Write& w : writes) {
        EXPECT_EQ(gpioWrite(w.name, w.text), w.error) << w.name << " " << w.text;
        if (w.journal)
            journal += std::string(w.journal) + "\n";
    }
    EXPECT_EQ(gpioJournal(), journal);
}

// Each write truncates on opening, as the bench's output streams do.
TEST(GpioSysfs, DirectionAndValueFollowTheWrites)
{
    ASSERT_EQ(gpioWrite("export", "136"), 0);
    struct Step {
        const char* file;
        const char* text;
        int error;
        const char* direction;
        const char* value;
    };
    const Step steps[] = {
        {"direction", "out", 0, "out\n", "0\n"},
        {"value", "1", 0, "out\n", "1\n"},
        {"value", "0", 0, "out\n", "0\n"},
        {"value", "7\n", 0, "out\n", "1\n"},  // any non-zero value drives high
        {"value", "on", EINVAL, "out\n", "1\n"},
        {"direction", "low\n", 0, "out\n", "0\n"},
        {"direction", "high", 0, "out\n", "1\n"},
        {"direction", "in", 0, "in\n", "1\n"},  // an input shows its electrical level
    };
    for (const Step& s : steps) {
        EXPECT_EQ(gpioWrite(std::string("gpio136/") + s.file, s.text), s.error) << s.file << " " << s.text;
        EXPECT_EQ(readText(kGpio + "gpio136/direction"), s.direction) << s.file << " " << s.text;
        EXPECT_EQ(readText(kGpio + "gpio136/value"), s.value) << s.file << " " << s.text;
    }
    setGpioLevel(136, 0);
    EXPECT_EQ(readText(kGpio + "gpio136/value"), "0\n");
}

// gpio_script.txt: "export+0.4 202=0", then "export+0.8 202=1 200=0".
TEST(GpioSysfsScript, ChangesInputsAtTheirTimesAfterTheFirstExport)
{
    using Clock = std::chrono::steady_clock;
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(gpioLevel(202), 1) << "nothing changes before the first export";
    const Clock::time_point exported = Clock::now();
    ASSERT_EQ(gpioWrite("export", "202"), 0);
    auto secondsUntil = [&](const std::string& value) {
        while (readText(kGpio + "gpio202/value") != value && Clock::now() - exported < std::chrono::seconds(10))
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return std::chrono::duration<double>(Clock::now() - exported).count();
    };
    EXPECT_GE(secondsUntil("0\n"), 0.39);
    EXPECT_GE(secondsUntil("1\n"), 0.79);
    // Of the many reads only the first after the export is journaled.
    EXPECT_EQ(gpioJournal(), "export 202\nread 202 1\ninput 202 0\ninput 202 1\ninput 200 0\n");
}

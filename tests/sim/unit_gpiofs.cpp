// The simulated unit's /sys/class/gpio (sim/gpiofs) against the kernel's rules, through plain
// system calls, each case in a fresh unit.
#include "gpiosim.h"
#include "testfiles.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <chrono>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

using namespace tovtest;

namespace {

const std::string kGpio = "/sys/class/gpio/";

// errno of writing TEXT to PATH in one write(2), 0 on success.
int writeErrno(const std::string& path, const std::string& text)
{
    const int fd = open(path.c_str(), O_WRONLY | O_TRUNC);
    if (fd < 0)
        return errno;
    const ssize_t written = write(fd, text.data(), text.size());
    const int error = written < 0 ? errno : 0;
    close(fd);
    if (written >= 0 && static_cast<size_t>(written) != text.size())
        return -1;
    return error;
}

bool isDirectory(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int statErrno(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? 0 : errno;
}

std::vector<std::string> listDir(const std::string& path)
{
    std::vector<std::string> names;
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr)
        return names;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.')
            names.push_back(entry->d_name);
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace

TEST(GpioSysfs, ExportCreatesThePinAtOnceAndUnexportRemovesIt)
{
    EXPECT_EQ(listDir(kGpio), (std::vector<std::string>{"export", "unexport"}));
    ASSERT_EQ(writeErrno(kGpio + "export", "202"), 0);
    EXPECT_TRUE(isDirectory(kGpio + "gpio202"));
    EXPECT_EQ(listDir(kGpio + "gpio202"), (std::vector<std::string>{"direction", "value"}));
    EXPECT_EQ(readText(kGpio + "gpio202/direction"), "in\n");
    EXPECT_EQ(readText(kGpio + "gpio202/value"), "1\n");
    EXPECT_EQ(listDir(kGpio), (std::vector<std::string>{"export", "gpio202", "unexport"}));

    ASSERT_EQ(writeErrno(kGpio + "unexport", "202\n"), 0);
    EXPECT_EQ(statErrno(kGpio + "gpio202"), ENOENT);
    EXPECT_EQ(statErrno(kGpio + "gpio202/value"), ENOENT);
    EXPECT_EQ(listDir(kGpio), (std::vector<std::string>{"export", "unexport"}));
}

TEST(GpioSysfs, RefusesWhatTheKernelRefuses)
{
    EXPECT_EQ(writeErrno(kGpio + "export", "99"), EINVAL) << "not a pin of the board";
    EXPECT_EQ(writeErrno(kGpio + "export", "abc"), EINVAL);
    EXPECT_EQ(writeErrno(kGpio + "unexport", "201"), EINVAL) << "not exported";
    ASSERT_EQ(writeErrno(kGpio + "export", "202"), 0);
    EXPECT_EQ(writeErrno(kGpio + "export", "202"), EBUSY);
    EXPECT_EQ(writeErrno(kGpio + "gpio202/value", "1"), EPERM) << "an input";
    EXPECT_EQ(writeErrno(kGpio + "gpio202/direction", "sideways"), EINVAL);
    EXPECT_EQ(writeErrno(kGpio + "gpio201/value", "1"), ENOENT);

    EXPECT_LT(open((kGpio + "newfile").c_str(), O_WRONLY | O_CREAT, 0644), 0);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(mkdir((kGpio + "gpio201").c_str(), 0755), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_LT(open((kGpio + "export").c_str(), O_RDONLY), 0);
    EXPECT_EQ(errno, EACCES);
}

TEST(GpioSysfs, DirectionAndValueFollowTheWrites)
{
    ASSERT_EQ(writeErrno(kGpio + "export", "136"), 0);
    ASSERT_EQ(writeErrno(kGpio + "gpio136/direction", "out"), 0);
    EXPECT_EQ(readText(kGpio + "gpio136/direction"), "out\n");
    EXPECT_EQ(readText(kGpio + "gpio136/value"), "0\n") << "out drives low";
    {
        // What the bench does: a truncating stream, one word, no line end.
        std::ofstream out(kGpio + "gpio136/value", std::ios::out | std::ios::trunc);
        ASSERT_TRUE(out.is_open());
        out << 1;
    }
    EXPECT_EQ(readText(kGpio + "gpio136/value"), "1\n");
    EXPECT_EQ(gpioLevel(136), 1);
    EXPECT_EQ(writeErrno(kGpio + "gpio136/value", "7\n"), 0);
    EXPECT_EQ(readText(kGpio + "gpio136/value"), "1\n") << "any non-zero value drives high";
    EXPECT_EQ(writeErrno(kGpio + "gpio136/value", "0"), 0);
    EXPECT_EQ(gpioLevel(136), 0);
    EXPECT_EQ(writeErrno(kGpio + "gpio136/value", "on"), EINVAL);
    EXPECT_EQ(writeErrno(kGpio + "gpio136/direction", "high"), 0);
    EXPECT_EQ(readText(kGpio + "gpio136/value"), "1\n");
    EXPECT_EQ(writeErrno(kGpio + "gpio136/direction", "low\n"), 0);
    EXPECT_EQ(readText(kGpio + "gpio136/value"), "0\n");
    EXPECT_EQ(writeErrno(kGpio + "gpio136/direction", "in"), 0);
    EXPECT_EQ(readText(kGpio + "gpio136/value"), "1\n") << "an input shows its electrical level";
}

TEST(GpioSysfs, JournalHasOneLinePerWrite)
{
    writeErrno(kGpio + "export", "138");
    writeErrno(kGpio + "gpio138/direction", "out");
    writeErrno(kGpio + "gpio138/value", "1");
    readText(kGpio + "gpio138/value");
    writeErrno(kGpio + "export", "138");
    writeErrno(kGpio + "export", "1 2");
    writeErrno(kGpio + "export", "41");
    writeErrno(kGpio + "gpio41/value", "0\n");
    setGpioLevel(41, 0);
    writeErrno(kGpio + "unexport", "138");
    writeErrno(kGpio + "unexport", "138");
    EXPECT_EQ(gpioJournal(), "export 138\n"
                             "direction 138 out\n"
                             "value 138 1\n"
                             "export 138 EBUSY\n"
                             "export 1_2 EINVAL\n"
                             "export 41\n"
                             "value 41 0 EPERM\n"
                             "input 41 0\n"
                             "unexport 138\n"
                             "unexport 138 EINVAL\n");
}

TEST(GpioSysfs, ControlsSetInputsAndShowEveryPin)
{
    ASSERT_EQ(writeErrno(kGpio + "export", "202"), 0);
    ASSERT_EQ(writeErrno(kGpio + "export", "135"), 0);
    ASSERT_EQ(writeErrno(kGpio + "gpio135/direction", "high"), 0);
    setGpioLevel(202, 0);
    EXPECT_EQ(readText(kGpio + "gpio202/value"), "0\n");
    setGpioLevel(202, 2);
    EXPECT_EQ(readText(kGpio + "gpio202/value"), "2\n");
    setGpioLevel(200, 0);
    EXPECT_EQ(writeErrno("/run/tovsim/gpio/pins/200", "low"), EINVAL);
    EXPECT_EQ(statErrno("/run/tovsim/gpio/pins/99"), ENOENT);
    EXPECT_EQ(gpioState(), "138 in 1\n"
                           "135 out 1 exported\n"
                           "136 in 1\n"
                           "230 in 1\n"
                           "232 in 1\n"
                           "200 in 0\n"
                           "201 in 1\n"
                           "202 in 2 exported\n"
                           "41 in 1\n"
                           "42 in 1\n");
    // An output keeps its level after the bench lets it go, so a scenario can still read it.
    ASSERT_EQ(writeErrno(kGpio + "unexport", "135"), 0);
    EXPECT_EQ(gpioLevel(135), 1);
}

TEST(GpioSysfs, AccessesCountRequestsToTheGpioFolderOnly)
{
    const unsigned long before = gpioAccesses();
    readText("/run/tovsim/gpio/pins/202");
    readText("/run/tovsim/gpio/state");
    EXPECT_EQ(gpioAccesses(), before);
    statErrno(kGpio + "gpio202");
    EXPECT_GT(gpioAccesses(), before);
}

TEST(GpioSysfs, NetworkClassStillShowsTheUnitsInterfaces)
{
    EXPECT_TRUE(isDirectory("/sys/class/net/lo"));
    EXPECT_EQ(readText("/sys/class/net/lo/operstate"), "unknown\n");
    EXPECT_TRUE(isDirectory("/sys/class/net/eth0"));
    EXPECT_NE(statErrno("/sys/class/net/eth1"), 0) << "this unit has no eth1 yet";
    EXPECT_TRUE(isDirectory("/sys/class/tty"));
    // Interfaces made later show up too, with a carrier once both ends are up.
    ASSERT_EQ(system("ip link add eth1 type veth peer name peer1 && ip link set eth1 up && "
                     "ip link set peer1 up"), 0);
    EXPECT_TRUE(isDirectory("/sys/class/net/eth1"));
    EXPECT_EQ(readText("/sys/class/net/eth1/carrier"), "1\n");
}

TEST(GpioSysfsInitialInputs, StartAtTheGivenLevels)
{
    EXPECT_EQ(gpioLevel(200), 0);
    EXPECT_EQ(gpioLevel(41), 5);
    EXPECT_EQ(gpioLevel(201), 1);
    ASSERT_EQ(writeErrno(kGpio + "export", "41"), 0);
    EXPECT_EQ(readText(kGpio + "gpio41/value"), "5\n");
}

TEST(GpioSysfsOtherPins, OnlyTheGivenPinsExport)
{
    EXPECT_EQ(writeErrno(kGpio + "export", "138"), EINVAL);
    EXPECT_EQ(writeErrno(kGpio + "export", "7"), 0);
    EXPECT_TRUE(isDirectory(kGpio + "gpio7"));
    EXPECT_EQ(gpioState(), "7 in 1 exported\n5 in 1\n");
}

// gpio_script.txt: "export+0.4 202=0", then "export+0.8 202=1 200=0".
TEST(GpioSysfsScript, ChangesInputsAtTheirTimes)
{
    using Clock = std::chrono::steady_clock;
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(gpioLevel(202), 1) << "nothing changes before the first export";
    const Clock::time_point exported = Clock::now();
    ASSERT_EQ(writeErrno(kGpio + "export", "202"), 0);
    auto waitFor = [&](const std::string& text) {
        while (readText(kGpio + "gpio202/value") != text) {
            if (Clock::now() - exported > std::chrono::seconds(10))
                return -1.0;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return std::chrono::duration<double>(Clock::now() - exported).count();
    };
    const double low = waitFor("0\n");
    EXPECT_GE(low, 0.39);
    const double high = waitFor("1\n");
    EXPECT_GE(high, 0.79);
    EXPECT_EQ(gpioLevel(200), 0);
    EXPECT_EQ(gpioJournal(), "export 202\ninput 202 0\ninput 202 1\ninput 200 0\n");
}

TEST(GpioSysfsAbsent, NoGpioFolderButTheNetworkClass)
{
    EXPECT_EQ(statErrno("/sys/class/gpio"), ENOENT);
    EXPECT_EQ(statErrno("/run/tovsim/gpio/pins"), ENOENT);
    EXPECT_TRUE(isDirectory("/sys/class/net/lo"));
    EXPECT_EQ(writeErrno(kGpio + "export", "202"), ENOENT);
}

// Shell capture, system queries and the starter edit, each case in a fresh simulated unit (they
// write /ramdisk/_0tov, read /home and rewrite /home/TOV/tov_starter).
#include "utils/systemops.h"

#include "testfiles.h"
#include "utils/fileops.h"

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

using tovtest::fileMode;
using tovtest::readText;
using tovtest::unitJournal;
using tovtest::writeText;

namespace {

const char* const kStarter = "/home/TOV/tov_starter";

void replaceDmesg(const std::string& output)
{
    writeText("/bin/dmesg", "#!/bin/sh\ncat <<'EOF'\n" + output + "EOF\n");
    ASSERT_EQ(chmod("/bin/dmesg", 0755), 0);
}

} // namespace

TEST(CommandCapture, KeepsOutputUnchangedAndRemovesTheCaptureFile)
{
    EXPECT_EQ(getStdoutFromCommand("printf 'a\\nb\\n'"), "a\nb\n");
    EXPECT_FALSE(tovFileExist("/ramdisk/_0tov"));
    EXPECT_EQ(getStdoutFromCommand("echo a | tr a b"), "b\n");
    EXPECT_EQ(getStdoutFromCommand("printf 'no newline'"), "no newline");
}

TEST(CommandCapture, SilentCommandsAndStandardErrorGiveNothing)
{
    writeText("/ramdisk/_0tov", "stale output of an earlier run");
    EXPECT_EQ(getStdoutFromCommand("true"), "");
    EXPECT_FALSE(tovFileExist("/ramdisk/_0tov"));
    EXPECT_EQ(getStdoutFromCommand("(echo to-stderr >&2)"), "");
    EXPECT_EQ(getStdoutFromCommand("exit 4"), "");
}

TEST(CommandCapture, WithoutRamdiskCapturesAreEmpty)
{
    ASSERT_EQ(umount2("/ramdisk", MNT_DETACH), 0);
    ASSERT_EQ(rmdir("/ramdisk"), 0);
    EXPECT_EQ(getStdoutFromCommand("echo lost"), "");
    EXPECT_EQ(read_KernelVersion(), "");
    EXPECT_EQ(read_DM9000_version(), "DM9000-X");
}

TEST(KernelVersion, ReleaseWithoutAnyNewline)
{
    struct utsname names;
    ASSERT_EQ(uname(&names), 0);
    EXPECT_EQ(read_KernelVersion(), names.release);
}

// The four chip cases run in units started with the matching --eth-chip (see CMakeLists.txt).
TEST(EthChipDm9000a, ReportsRevisionA)
{
    EXPECT_EQ(read_DM9000_version(), "DM9000-A");
    EXPECT_EQ(unitJournal(), "dmesg\n");
}

TEST(EthChipDm9000b, ReportsRevisionB)
{
    EXPECT_EQ(read_DM9000_version(), "DM9000-B");
}

TEST(EthChipCapitals, KernelSpellingInCapitalsIsNotRecognised)
{
    ASSERT_NE(getStdoutFromCommand("dmesg | grep -i dm9000"), "");
    EXPECT_EQ(read_DM9000_version(), "DM9000-X");
}

TEST(EthChipNone, NoChipIsRevisionX)
{
    EXPECT_EQ(read_DM9000_version(), "DM9000-X");
}

TEST(EthChipBoth, FirstTestWins)
{
    replaceDmesg("dm9000b at c4870000\ndm9000a at c4880000\n");
    EXPECT_EQ(read_DM9000_version(), "DM9000-A");
}

// Default unit: /home of 128 MB with 64 MB in use.
TEST(Storage, TotalAndFreeOfHome)
{
    int32_t total = -1, free = -1;
    EXPECT_EQ(getStorageInfoSize(&total, &free), 64);
    EXPECT_EQ(total, 128);
    EXPECT_EQ(free, 64);
    EXPECT_EQ(getStorageInfoSize(nullptr, nullptr), 64);
}

TEST(Storage44, UsedMegabytesAsTheUnitWasStarted)
{
    int32_t total = 0, free = 0;
    getStorageInfoSize(&total, &free);
    EXPECT_EQ(total - free, 44);
}

TEST(Storage45, UsedMegabytesAsTheUnitWasStarted)
{
    int32_t total = 0, free = 0;
    getStorageInfoSize(&total, &free);
    EXPECT_EQ(total - free, 45);
}

TEST(Storage, MegabytesAreWholeMebibytesTruncated)
{
    const char* mnt = "/ramdisk/onemeg";
    ASSERT_EQ(mkdir(mnt, 0755), 0);
    ASSERT_EQ(mount("tmpfs", mnt, "tmpfs", 0, "size=1m"), 0);
    EXPECT_EQ(getDISK_FreeSpace(mnt), 1048576);
    EXPECT_EQ(getDISK_TotalSpace(mnt), 1048576);
    EXPECT_EQ(getFreeDiskSize(mnt), 1);

    writeText(std::string(mnt) + "/page", "x"); // takes one 4096-byte page
    EXPECT_EQ(getDISK_FreeSpace(mnt), 1048576 - 4096);
    EXPECT_EQ(getFreeDiskSize(mnt), 0);
    EXPECT_EQ(getTotalDiskSize(mnt), 1);

    testing::internal::CaptureStdout();
    EXPECT_EQ(PrintSystemSpace(mnt), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "******************************************\n"
              "Detail de la partition de '/ramdisk/onemeg' :\n"
              "total      : 1 MB\n"
              "free       : 0 MB\n"
              "******************************************\n");
    umount2(mnt, MNT_DETACH);
}

TEST(StarterScript, SwitchesTheBenchToTheProductionApplication)
{
    const std::string before = readText(kStarter);
    ASSERT_NE(before.find("\nTOV_BIN_NAME=tov_test\n"), std::string::npos);
    const mode_t mode = fileMode(kStarter);

    EXPECT_TRUE(modifyTOVstarterFile("TOV_BIN_NAME=tov_test", "TOV_BIN_NAME=tovQT"));
    std::string expected = before;
    expected.replace(expected.find("TOV_BIN_NAME=tov_test"), 21, "TOV_BIN_NAME=tovQT");
    EXPECT_EQ(readText(kStarter), expected);
    EXPECT_EQ(fileMode(kStarter), mode);
}

TEST(StarterScript, EveryMatchingLineIsReplacedWhole)
{
    writeText(kStarter, "#!/bin/sh\nTOV_BIN_NAME=tov_test --opt\nx\nTOV_BIN_NAME=tov_test\n");
    EXPECT_TRUE(modifyTOVstarterFile("TOV_BIN_NAME=tov_test", "TOV_BIN_NAME=tovQT"));
    EXPECT_EQ(readText(kStarter), "#!/bin/sh\nTOV_BIN_NAME=tovQT\nx\nTOV_BIN_NAME=tovQT\n");
}

TEST(StarterScript, WithoutMatchLinesAreRewrittenEachWithNewline)
{
    writeText(kStarter, "a\n\n TOV_BIN_NAME=tov_test\nlast");
    EXPECT_TRUE(modifyTOVstarterFile("TOV_BIN_NAME=tov_test", "TOV_BIN_NAME=tovQT"));
    EXPECT_EQ(readText(kStarter), "a\n\n TOV_BIN_NAME=tov_test\nlast\n");
}

TEST(StarterScript, MissingScriptIsNotCreated)
{
    ASSERT_EQ(unlink(kStarter), 0);
    EXPECT_FALSE(modifyTOVstarterFile("TOV_BIN_NAME=tov_test", "TOV_BIN_NAME=tovQT"));
    EXPECT_FALSE(tovFileExist(kStarter));
}

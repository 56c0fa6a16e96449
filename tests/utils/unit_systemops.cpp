// Shell capture, system queries and the starter edit, each case in a fresh simulated unit (they
// write /ramdisk/_0tov and /bin/dmesg, read /home and rewrite /home/TOV/tov_starter).
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
using tovtest::writeText;

static const char* const kStarter = "/home/TOV/tov_starter";

TEST(CommandCapture, KeepsStandardOutputAsItIsAndRemovesTheCaptureFile)
{
    const std::pair<const char*, const char*> cases[] = {
        {"printf 'a\\nb\\n'", "a\nb\n"}, {"printf 'no newline'", "no newline"},
        {"true", ""}, {"(echo to-stderr >&2)", ""}, {"exit 4", ""}};
    for (const auto& c : cases) {
        writeText("/ramdisk/_0tov", "stale output of an earlier run");
        EXPECT_EQ(getStdoutFromCommand(c.first), c.second) << c.first;
        EXPECT_FALSE(tovFileExist("/ramdisk/_0tov"));
    }
    struct utsname names;
    ASSERT_EQ(uname(&names), 0);
    EXPECT_EQ(read_KernelVersion(), names.release);
}

TEST(CommandCapture, WithoutRamdiskCapturesAreEmpty)
{
    ASSERT_EQ(umount2("/ramdisk", MNT_DETACH), 0);
    ASSERT_EQ(rmdir("/ramdisk"), 0);
    EXPECT_EQ(getStdoutFromCommand("echo lost"), "");
    EXPECT_EQ(read_KernelVersion(), "");
}

// Only the lower-case names count, and A wins over B.
TEST(EthChip, RevisionFromTheKernelLog)
{
    const std::pair<const char*, const char*> cases[] = {
        {"dm9000 dm9000a at c4880000", "DM9000-A"}, {"eth0: dm9000b at c4870000", "DM9000-B"},
        {"dm9000b at c4870000\ndm9000a at c4880000", "DM9000-A"}, {"DM9000A at c4880000", "DM9000-X"},
        {"eth0: link up", "DM9000-X"}};
    for (const auto& c : cases) {
        writeText("/bin/dmesg", std::string("#!/bin/sh\ncat <<'EOF'\n") + c.first + "\nEOF\n");
        ASSERT_EQ(chmod("/bin/dmesg", 0755), 0);
        EXPECT_EQ(read_DM9000_version(), c.second) << c.first;
    }
}

// Default unit: /home of 128 MB with 64 MB in use.
TEST(Storage, MegabytesAreWholeMebibytesTruncated)
{
    int32_t total = -1, free = -1;
    EXPECT_EQ(getStorageInfoSize(&total, &free), 64);
    EXPECT_EQ(total, 128);
    EXPECT_EQ(free, 64);

    const char* mnt = "/ramdisk/onemeg";
    ASSERT_EQ(mkdir(mnt, 0755), 0);
    ASSERT_EQ(mount("tmpfs", mnt, "tmpfs", 0, "size=1m"), 0);
    EXPECT_EQ(getDISK_FreeSpace(mnt), 1048576);
    EXPECT_EQ(getFreeDiskSize(mnt), 1);
    writeText(std::string(mnt) + "/page", "x"); // takes one 4096-byte page
    EXPECT_EQ(getDISK_FreeSpace(mnt), 1048576 - 4096);
    EXPECT_EQ(getDISK_TotalSpace(mnt), 1048576);

    testing::internal::CaptureStdout();
    EXPECT_EQ(PrintSystemSpace(mnt), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "******************************************\n"
              "Detail de la partition de '/ramdisk/onemeg' :\n"
              "total      : 1 MB\n"
              "free       : 0 MB\n"
              "******************************************\n");
}

TEST(StarterScript, EveryMatchingLineIsReplacedWholeAndEveryLineEndsWithANewline)
{
    const mode_t mode = fileMode(kStarter);
    const std::pair<const char*, const char*> cases[] = {
        {"#!/bin/sh\nTOV_BIN_NAME=tov_test --opt\nx\nTOV_BIN_NAME=tov_test\n",
         "#!/bin/sh\nTOV_BIN_NAME=tovQT\nx\nTOV_BIN_NAME=tovQT\n"},
        {"a\n\n TOV_BIN_NAME=tov_test\nlast", "a\n\n TOV_BIN_NAME=tov_test\nlast\n"}};
    for (const auto& c : cases) {
        writeText(kStarter, c.first);
        EXPECT_TRUE(modifyTOVstarterFile("TOV_BIN_NAME=tov_test", "TOV_BIN_NAME=tovQT"));
        EXPECT_EQ(readText(kStarter), c.second);
        EXPECT_EQ(fileMode(kStarter), mode);
    }
    ASSERT_EQ(unlink(kStarter), 0);
    EXPECT_FALSE(modifyTOVstarterFile("TOV_BIN_NAME=tov_test", "TOV_BIN_NAME=tovQT"));
    EXPECT_FALSE(tovFileExist(kStarter));
}

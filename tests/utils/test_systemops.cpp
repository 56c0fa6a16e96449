// System queries and time stamps that need none of the unit's fixed paths.
#include "utils/systemops.h"

#include <gtest/gtest.h>

#include <sys/time.h>

TEST(SystemOps, RawShellStatusAndFailedSpaceQueries)
{
    EXPECT_EQ(systemCommand("exit 3"), 3 << 8);
    const std::string missing = "/no/such/path/for/statfs";
    EXPECT_EQ(getDISK_FreeSpace(missing), -1);
    EXPECT_EQ(getDISK_TotalSpace(missing), -1);
    EXPECT_EQ(getFreeDiskSize(missing), 0);
    EXPECT_EQ(getTotalDiskSize(missing), 0);
}

TEST(SystemOps, TimeStamps)
{
    struct timeval before, after;
    gettimeofday(&before, nullptr);
    const double ms = _get_time_ms();
    const int32_t msecs = _getTimeStampInMSecs(); // whole seconds despite the name
    gettimeofday(&after, nullptr);
    EXPECT_GE(ms, before.tv_sec * 1000.0 + before.tv_usec / 1000.0 - 0.001);
    EXPECT_LE(ms, after.tv_sec * 1000.0 + after.tv_usec / 1000.0 + 0.001);
    EXPECT_GE(msecs, before.tv_sec);
    EXPECT_LE(msecs, after.tv_sec);
}

// Run under faketime at 2014-03-07 15:04:09 UTC (see CMakeLists.txt); fails without it.
TEST(FakeClock, DateTimeStringAndSeconds)
{
    EXPECT_EQ(_getSysDateTime_string(), "07/03/2014_15:04:09");
    EXPECT_GE(_getTimeStampInSecs(), 1394204649);
    EXPECT_LE(_getTimeStampInSecs(), 1394204650);
}

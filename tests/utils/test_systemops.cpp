// System queries and time stamps that need none of the unit's fixed paths.
#include "utils/systemops.h"

#include <gtest/gtest.h>

#include <sys/time.h>

#include <cmath>
#include <cstdlib>
#include <regex>

TEST(SystemCommand, PassesTheRawShellStatusThrough)
{
    EXPECT_EQ(systemCommand("true"), 0);
    EXPECT_EQ(systemCommand("exit 3"), 3 << 8);
}

TEST(DiskSpace, MissingPathGivesMinusOneBytesAndZeroMegabytes)
{
    const std::string missing = "/no/such/path/for/statfs";
    EXPECT_EQ(getDISK_FreeSpace(missing), -1);
    EXPECT_EQ(getDISK_TotalSpace(missing), -1);
    EXPECT_EQ(getFreeDiskSize(missing), 0);
    EXPECT_EQ(getTotalDiskSize(missing), 0);
}

TEST(TimeStamps, MSecsVariantReturnsSeconds)
{
    // Retry across a second boundary rather than compare two different seconds.
    for (int attempt = 0; attempt < 3; ++attempt) {
        const int32_t secs = _getTimeStampInSecs();
        const int32_t msecs = _getTimeStampInMSecs();
        if (secs == _getTimeStampInSecs()) {
            EXPECT_EQ(msecs, secs);
            return;
        }
    }
    FAIL() << "the seconds kept changing";
}

TEST(TimeStamps, MillisecondsAsDoubleFollowTheWallClock)
{
    struct timeval before, after;
    gettimeofday(&before, nullptr);
    const double ms = _get_time_ms();
    gettimeofday(&after, nullptr);
    const double lo = before.tv_sec * 1000.0 + before.tv_usec / 1000.0;
    const double hi = after.tv_sec * 1000.0 + after.tv_usec / 1000.0;
    EXPECT_GE(ms, lo - 0.001);
    EXPECT_LE(ms, hi + 0.001);
}

TEST(TimeStamps, DateTimeStringShape)
{
    EXPECT_TRUE(std::regex_match(_getSysDateTime_string(),
                                 std::regex(R"([0-3][0-9]/[01][0-9]/[0-9]{4}_[0-2][0-9]:[0-5][0-9]:[0-6][0-9])")));
}

// Run under faketime at 2014-03-07 15:04:09 UTC (see CMakeLists.txt); fails without it.
TEST(FakeClock, DateTimeStringAndSeconds)
{
    EXPECT_EQ(_getSysDateTime_string(), "07/03/2014_15:04:09");
    const int32_t secs = _getTimeStampInSecs();
    EXPECT_GE(secs, 1394204649);
    EXPECT_LE(secs, 1394204650);
}

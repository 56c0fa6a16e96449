// The millisecond stopwatch and countdown.
#include "mesure/rwktimer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using std::chrono::milliseconds;
using std::this_thread::sleep_for;

TEST(RwkTimer, FreshStopwatchStartsItselfOnFirstReading)
{
    rwkTimer timer;
    EXPECT_FALSE(timer.isStarted());
    EXPECT_LE(timer.elapsed(), 5);
    EXPECT_TRUE(timer.isStarted());
    sleep_for(milliseconds(30));
    const int later = timer.elapsed();
    EXPECT_GE(later, 29);
    EXPECT_LT(later, 5000);
}

TEST(RwkTimer, CountdownReachesZeroAndStops)
{
    rwkTimer timer;
    timer.start(1);
    EXPECT_TRUE(timer.isStarted());
    sleep_for(milliseconds(3));
    EXPECT_EQ(timer.elapsed(), 0);
    EXPECT_FALSE(timer.isStarted());
}

TEST(RwkTimer, CountdownCountsRemainingMilliseconds)
{
    rwkTimer timer;
    timer.start(10000);
    const int remaining = timer.elapsed();
    EXPECT_GT(remaining, 9000);
    EXPECT_LE(remaining, 10000);
    sleep_for(milliseconds(20));
    EXPECT_LT(timer.elapsed(), remaining);
}

TEST(RwkTimer, StopAndRestart)
{
    rwkTimer timer;
    timer.stop(); // not started: nothing happens
    EXPECT_FALSE(timer.isStarted());

    timer.start(50);
    timer.stop();
    EXPECT_FALSE(timer.isStarted());
    // Stopped, the timer is a stopwatch again and restarts from zero.
    EXPECT_LE(timer.elapsed(), 5);

    timer.start(60000);
    sleep_for(milliseconds(20));
    timer.restart();
    EXPECT_GT(timer.elapsed(), 59000); // the same duration again, from now
}

TEST(RwkTimer, WaitTimeout)
{
    rwkTimer timer;
    EXPECT_FALSE(timer.waitTimeout(0));
    EXPECT_FALSE(timer.waitTimeout(-3));
    EXPECT_FALSE(timer.isStarted());

    rwkTimer watch;
    watch.start();
    EXPECT_TRUE(timer.waitTimeout(20));
    EXPECT_GE(watch.elapsed(), 19);
    EXPECT_FALSE(timer.isStarted());
}

TEST(RwkTimer, MilliSpanIsNeverNegativeForAStartInThePast)
{
    const int start = rwkTimer::getMilliCount();
    EXPECT_GE(rwkTimer::getMilliSpan(start), 0);
    EXPECT_GE(rwkTimer::getMilliCount(), 0);
    EXPECT_LT(rwkTimer::getMilliCount(), 0x3E800000);
}

// Run under faketime one second before the millisecond count wraps (see CMakeLists.txt): the
// stopwatch must run on across the wrap.
TEST(FakeClockAtWrap, StopwatchRunsAcrossTheWrapOfTheCount)
{
    rwkTimer timer;
    timer.start();
    const int startCount = rwkTimer::getMilliCount();
    ASSERT_GE(startCount, 1048575000) << "not started one second before the wrap";
    sleep_for(milliseconds(1500));
    ASSERT_LT(rwkTimer::getMilliCount(), startCount) << "the count did not wrap";
    const int span = timer.elapsed();
    EXPECT_GE(span, 1400);
    EXPECT_LT(span, 5000);
    EXPECT_NEAR(rwkTimer::getMilliSpan(startCount), span, 50);
}

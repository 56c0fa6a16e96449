// The millisecond stopwatch and countdown.
#include "mesure/rwktimer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using std::chrono::milliseconds;
using std::this_thread::sleep_for;

TEST(RwkTimer, AStopwatchStartsItselfOnItsFirstReadingAndAfterEachStop)
{
    rwkTimer timer;
    EXPECT_FALSE(timer.isStarted());
    EXPECT_LE(timer.elapsed(), 5);
    EXPECT_TRUE(timer.isStarted());
    sleep_for(milliseconds(30));
    EXPECT_GE(timer.elapsed(), 29);
    timer.start(50);
    timer.stop();
    EXPECT_FALSE(timer.isStarted());
    EXPECT_LE(timer.elapsed(), 5);
}

TEST(RwkTimer, ACountdownCountsDownToZeroThenStopsARestartTakesItsDurationAgain)
{
    rwkTimer timer;
    timer.start(10000);
    const int remaining = timer.elapsed();
    EXPECT_GT(remaining, 9000);
    sleep_for(milliseconds(20));
    EXPECT_LT(timer.elapsed(), remaining);
    timer.restart();
    EXPECT_GE(timer.elapsed(), remaining - 5); // not the 20 ms less it had
    timer.start(1);
    sleep_for(milliseconds(3));
    EXPECT_EQ(timer.elapsed(), 0);
    EXPECT_FALSE(timer.isStarted());
    EXPECT_FALSE(timer.waitTimeout(0)); // nothing to wait for
    EXPECT_TRUE(timer.waitTimeout(20));
    EXPECT_FALSE(timer.isStarted());
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

// The phase file's text rules, on any text.
#include "app/phasefile.h"

#include "testfiles.h"

#include <gtest/gtest.h>

TEST(PhaseFile, ThreeLinesEachEndedGiveTheStateTheBenchWrote)
{
    TovPhaseState state;
    ASSERT_TRUE(parsePhaseText("2\n1\n192.0.2.10\n", state));
    EXPECT_EQ(state.phase, 2);
    EXPECT_EQ(state.restoreChoice, 1);
    EXPECT_EQ(state.serverAddress, "192.0.2.10");

    ASSERT_TRUE(parsePhaseText("0\n0\n\n", state));
    EXPECT_EQ(state.phase, 0);
    EXPECT_EQ(state.serverAddress, "");
}

TEST(PhaseFile, AnythingElseLeavesTheFirstPhase)
{
    const char* const rejected[] = {
        "",
        "1\n0\n",                        // cut after the second line
        "1\n0\n192.0",                   // cut inside the address
        "1\n0\n192.0.2.10\nextra\n",     // four lines
        "3\n0\n192.0.2.10\n",            // the bench never writes phase 3
        "-1\n0\n192.0.2.10\n",
        "99999999999999999999\n0\nx\n",  // out of long's range: strtol saturates
    };
    for (const char* text : rejected) {
        TovPhaseState state;
        state.serverAddress = "untouched";
        EXPECT_FALSE(parsePhaseText(text, state)) << text;
        EXPECT_EQ(state.phase, 0) << text;
        EXPECT_EQ(state.serverAddress, "untouched") << text;
    }
}

TEST(PhaseFile, GarbageInTheFirstLineReadsAsPhaseZero)
{
    // strtol stops at the first non-digit: kept, the bench has always read its phase so.
    TovPhaseState state;
    ASSERT_TRUE(parsePhaseText("\x01\x02zz\n\xff\n\n", state));
    EXPECT_EQ(state.phase, 0);
    ASSERT_TRUE(parsePhaseText("1abc\n0\nsrv\n", state));
    EXPECT_EQ(state.phase, 1);
}

TEST(PhaseFile, FileIsReadWholeWithItsLastLineFeed)
{
    tovtest::TempDir dir;
    const std::string path = dir.path() + "/tov_test.cfg";
    TovPhaseState state;
    EXPECT_FALSE(tovReadPhaseFile(path, state));
    tovtest::writeText(path, std::string("1\n0\nsrv\0x\n", 10));
    ASSERT_TRUE(tovReadPhaseFile(path, state));
    EXPECT_EQ(state.serverAddress, std::string("srv\0x", 5));
    tovtest::writeText(path, "1\n0\nsrv");
    EXPECT_FALSE(tovReadPhaseFile(path, state));
}

// The phase file's text rules, on any text.
#include "app/phasefile.h"

#include "testfiles.h"

#include <gtest/gtest.h>

TEST(PhaseFile, OnlyThreeEndedLinesWithAPhaseTheBenchWritesAreTaken)
{
    struct Row {
        std::string text;
        bool taken;
        int phase, restore;
        std::string server;
    };
    const Row rows[] = {
        {"2\n1\n192.0.2.10\n", true, 2, 1, "192.0.2.10"},
        {"0\n0\n\n", true, 0, 0, ""},
        {std::string("1\n0\nsrv\0x\n", 10), true, 1, 0, std::string("srv\0x", 5)},
        // strtol stops at the first non-digit: kept, the bench has always read its phase so.
        {"\x01\x02zz\n\xff\n\n", true, 0, 0, ""},
        {"1abc\n0\nsrv\n", true, 1, 0, "srv"},
        {"", false, 0, 0, "untouched"},
        {"1\n0\n", false, 0, 0, "untouched"},                       // cut after the second line
        {"1\n0\n192.0", false, 0, 0, "untouched"},                  // cut inside the address
        {"1\n0\n192.0.2.10\nextra\n", false, 0, 0, "untouched"},    // four lines
        {"3\n0\n192.0.2.10\n", false, 0, 0, "untouched"},           // the bench never writes phase 3
        {"-1\n0\n192.0.2.10\n", false, 0, 0, "untouched"},
        {"99999999999999999999\n0\nx\n", false, 0, 0, "untouched"}, // strtol saturates
    };
    for (const Row& row : rows) {
        TovPhaseState state;
        state.serverAddress = "untouched";
        EXPECT_EQ(parsePhaseText(row.text, state), row.taken) << row.text;
        EXPECT_EQ(state.phase, row.phase) << row.text;
        EXPECT_EQ(state.restoreChoice, row.restore) << row.text;
        EXPECT_EQ(state.serverAddress, row.server) << row.text;
    }
}

TEST(PhaseFile, FileIsReadWhole)
{
    tovtest::TempDir dir;
    const std::string path = dir.path() + "/tov_test.cfg";
    TovPhaseState state;
    EXPECT_FALSE(tovReadPhaseFile(path, state));
    tovtest::writeText(path, std::string("1\n0\nsrv\0x\n", 10));
    ASSERT_TRUE(tovReadPhaseFile(path, state));
    EXPECT_EQ(state.serverAddress, std::string("srv\0x", 5));
}

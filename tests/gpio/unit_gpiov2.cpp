// The board's map of relays and inputs against the simulated unit's /sys/class/gpio, each case in
// a fresh unit.
#include "gpio/gpiov2.h"

#include "gpiosim.h"
#include "testfiles.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

using namespace tovtest;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

const std::vector<int> kTable = {138, 135, 136, 230, 232, 200, 201, 202, 41, 42};

void sysfsWrite(const std::string& name, const std::string& text)
{
    std::ofstream out("/sys/class/gpio/" + name);
    out << text << "\n";
}

std::string unexportLines(const std::vector<int>& pins)
{
    std::string lines;
    for (int pin : pins)
        lines += "unexport " + std::to_string(pin) + "\n";
    return lines;
}

} // namespace

TEST(BoardMap, TableHoldsTheTenPinsInBoardOrder)
{
    EXPECT_EQ(std::vector<int>(CFG_GPIO_PIN, CFG_GPIO_PIN + 10), kTable);
}

TEST(BoardMap, ConstructionExportsAndConfiguresTheTenPinsInTableOrder)
{
    CaptureStdout();
    gpioV2 board;
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(gpioJournal(), "export 138\ndirection 138 out\n"
                             "export 135\ndirection 135 out\n"
                             "export 136\ndirection 136 out\n"
                             "export 230\ndirection 230 out\n"
                             "export 232\ndirection 232 out\n"
                             "export 200\nexport 201\nexport 202\nexport 41\nexport 42\n");
    EXPECT_EQ(gpioState(), "138 out 0 exported\n135 out 0 exported\n136 out 0 exported\n"
                           "230 out 0 exported\n232 out 0 exported\n200 in 1 exported\n"
                           "201 in 1 exported\n202 in 1 exported\n41 in 1 exported\n"
                           "42 in 1 exported\n");
}

TEST(BoardMap, PinsLeftExportedByAnEarlierRunAreNotExportedAgain)
{
    sysfsWrite("export", "138");
    sysfsWrite("gpio138/direction", "out");
    sysfsWrite("export", "202");
    const std::string before = gpioJournal();
    {
        gpioV2 board;
        const std::string lines = gpioJournalSince(before);
        EXPECT_EQ(lines.find("138"), std::string::npos) << lines;
        EXPECT_EQ(lines.find("202"), std::string::npos) << lines;
        EXPECT_NE(lines.find("export 135\ndirection 135 out\n"), std::string::npos) << lines;
    }
    // Taken over, they are released with the others.
    EXPECT_NE(gpioJournal().find(unexportLines(kTable)), std::string::npos);
}

TEST(BoardMap, InputsReadInvertedByNumber)
{
    gpioV2 board;
    setGpioLevel(202, 0);
    setGpioLevel(41, 2);
    EXPECT_EQ(board.getGPIO_State(202), 1);
    EXPECT_EQ(board.getGPIO_State(200), 0) << "idle inputs read 0";
    EXPECT_EQ(board.getGPIO_State(41), 0);
    setGpioLevel(202, 1);
    setGpioLevel(42, 0);
    EXPECT_EQ(board.getGPIO_State(202), 0);
    EXPECT_EQ(board.getGPIO_State(42), 1);
}

TEST(BoardMap, SameRelayValueTwiceWritesTheFileOnce)
{
    gpioV2 board;
    const std::string before = gpioJournal();
    EXPECT_EQ(board.setGPIO_State(136, 1), 1);
    EXPECT_EQ(board.setGPIO_State(136, 1), 1);
    EXPECT_EQ(board.setGPIO_State(135, 1), 1);
    EXPECT_EQ(board.setGPIO_State(136, 0), 1);
    EXPECT_EQ(gpioJournalSince(before), "value 136 1\nvalue 135 1\nvalue 136 0\n");
    EXPECT_EQ(gpioLevel(136), 0);
    EXPECT_EQ(gpioLevel(135), 1);
    EXPECT_EQ(board.getGPIO_State(135), 1);
}

TEST(BoardMap, UnknownNumbersTouchNothing)
{
    gpioV2 board;
    const std::string before = gpioJournal();
    const unsigned long accesses = gpioAccesses();
    CaptureStdout();
    EXPECT_EQ(board.getGPIO_State(99), -1);
    EXPECT_EQ(board.setGPIO_State(99, 1), 0);
    EXPECT_EQ(board.getGPIO_State(0), -1);
    EXPECT_EQ(board.setGPIO_State(-1, 0), 0);
    EXPECT_EQ(board.getGPIO_State(7), -1) << "the table's positions are no pin numbers";
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(gpioAccesses(), accesses);
    EXPECT_EQ(gpioJournalSince(before), "");
}

TEST(BoardMap, DestructionUnexportsTheTenPinsInTableOrder)
{
    auto board = std::make_unique<gpioV2>();
    const std::string before = gpioJournal();
    CaptureStdout();
    board.reset();
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(gpioJournalSince(before), unexportLines(kTable));
    EXPECT_EQ(gpioState().find("exported"), std::string::npos);
}

// What the relay and input stage does with the RESERVE input: its reading mirrored on three relays.
TEST(BoardMap, ReserveInputDrivenByTheTestMirrorsOnTheRelays)
{
    gpioV2 board;
    for (int level : {0, 1, 0}) {
        setGpioLevel(202, level);
        const int value = board.getGPIO_State(202);
        EXPECT_EQ(value, 1 - level);
        for (int relay : {136, 138, 135})
            EXPECT_EQ(board.setGPIO_State(relay, value), 1);
        for (int relay : {136, 138, 135})
            EXPECT_EQ(gpioLevel(relay), value) << "relay " << relay;
    }
}

TEST(BoardMapMissingPin, PinTheBoardLacksStaysUnconfiguredAndIsNotReleased)
{
    CaptureStdout();
    auto board = std::make_unique<gpioV2>();
    EXPECT_EQ(GetCapturedStdout(), " OPERATION FAILED: Unable to get value of GPIO_232\n"
                                   " OPERATION FAILED: Unable to set direction of GPIO_232\n");
    CaptureStdout();
    EXPECT_EQ(board->setGPIO_State(232, 1), 0);
    EXPECT_EQ(board->getGPIO_State(232), -1);
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(board->setGPIO_State(230, 1), 1);

    const std::string before = gpioJournal();
    board.reset();
    EXPECT_EQ(gpioJournalSince(before), unexportLines({138, 135, 136, 230, 200, 201, 202, 41, 42}));
}

TEST(BoardMapAbsent, EveryReadFailsAndEveryWriteGivesZeroAfterTheExportMessages)
{
    CaptureStdout();
    auto board = std::make_unique<gpioV2>();
    EXPECT_EQ(GetCapturedStdout(), " OPERATION FAILED: Unable to export GPIO_138\n"
                                   " OPERATION FAILED: Unable to export GPIO_135\n"
                                   " OPERATION FAILED: Unable to export GPIO_136\n"
                                   " OPERATION FAILED: Unable to export GPIO_230\n"
                                   " OPERATION FAILED: Unable to export GPIO_232\n"
                                   " OPERATION FAILED: Unable to export GPIO_200\n"
                                   " OPERATION FAILED: Unable to export GPIO_201\n"
                                   " OPERATION FAILED: Unable to export GPIO_202\n"
                                   " OPERATION FAILED: Unable to export GPIO_41\n"
                                   " OPERATION FAILED: Unable to export GPIO_42\n");
    CaptureStdout();
    for (int pin : kTable) {
        EXPECT_EQ(board->getGPIO_State(pin), -1) << pin;
        EXPECT_EQ(board->setGPIO_State(pin, 1), 0) << pin;
        EXPECT_EQ(board->setGPIO_State(pin, 0), 0) << pin;
    }
    board.reset();
    EXPECT_EQ(GetCapturedStdout(), "");
}

// gpio_reserve_script.txt toggles RESERVE (202) low then high again after the first export. The
// loop is the relay and input stage's: five inputs polled without sleeping, 202 mirrored on the
// relays 136, 138 and 135 whenever it changes.
TEST(BoardMapScenario, TimedReserveTogglesReachTheRelays)
{
    using Clock = std::chrono::steady_clock;
    gpioV2 board;
    std::vector<std::string> lines;
    int last[5] = {-1, -1, -1, -1, -1};
    const int inputs[5] = {200, 201, 202, 42, 41};
    int reserveChanges = 0;
    const Clock::time_point end = Clock::now() + std::chrono::seconds(15);
    while (reserveChanges < 3 && Clock::now() < end) {
        for (int i = 0; i < 5; ++i) {
            const int value = board.getGPIO_State(inputs[i]);
            if (value == last[i])
                continue;
            last[i] = value;
            lines.push_back(std::to_string(inputs[i]) + "=" + std::to_string(value));
            if (inputs[i] != 202)
                continue;
            ++reserveChanges;
            for (int relay : {136, 138, 135}) {
                board.setGPIO_State(relay, value);
                lines.push_back("relay " + std::to_string(relay) + "=" + std::to_string(value));
            }
        }
    }
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "200=0", "201=0", "202=0", "relay 136=0", "relay 138=0", "relay 135=0",
                         "42=0", "41=0", "202=1", "relay 136=1", "relay 138=1", "relay 135=1",
                         "202=0", "relay 136=0", "relay 138=0", "relay 135=0"}));
    // Outputs are never written at start, so the first mirror writes its 0 too.
    std::string writes;
    std::istringstream journal(gpioJournal());
    for (std::string line; std::getline(journal, line);) {
        if (line.compare(0, 6, "value ") == 0 || line.compare(0, 6, "input ") == 0)
            writes += line + "\n";
    }
    EXPECT_EQ(writes, "value 136 0\nvalue 138 0\nvalue 135 0\n"
                      "input 202 0\nvalue 136 1\nvalue 138 1\nvalue 135 1\n"
                      "input 202 1\nvalue 136 0\nvalue 138 0\nvalue 135 0\n");
    for (int relay : {136, 138, 135})
        EXPECT_EQ(gpioLevel(relay), 0) << "relay " << relay;
}

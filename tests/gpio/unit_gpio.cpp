// One sysfs GPIO pin and the board's map of relays and inputs, against the simulated unit's
// /sys/class/gpio (the GPIO emulator, with the kernel's rules), each case in a fresh unit.
#include "gpio/gpiotovv2.h"
#include "gpio/gpiov2.h"

#include "boardpins.h"
#include "gpiosim.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

using namespace tovtest;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

std::string failed(const std::string& what, int pin)
{
    return " OPERATION FAILED: Unable to " + what + " GPIO_" + std::to_string(pin) + "\n";
}

} // namespace

// Building a pin writes only what the kernel does not already hold (a pin left exported by an
// earlier run is taken over); destroying it releases it in every case.
TEST(GpioPin, BuildingWritesWhatIsMissingAndDestroyingReleases)
{
    struct Case {
        int pin, direction;
        bool exported;         // left exported by an earlier run
        const char* turned;    // direction that run wrote, if any
        const char* built;     // journal of the construction
    };
    const Case cases[] = {
        {138, 0, false, nullptr, "export 138\ndirection 138 out\n"},
        {202, 1, false, nullptr, "export 202\n"},  // an exported pin starts as an input
        {135, 0, true, nullptr, "direction 135 out\n"},
        {136, 0, true, "out", ""},
        {201, 1, true, "high", "direction 201 in\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.pin);
        const std::string number = std::to_string(c.pin);
        if (c.exported)
            gpioWrite("export", number);
        if (c.turned)
            gpioWrite("gpio" + number + "/direction", c.turned);
        std::string before = gpioJournal();
        CaptureStdout();
        auto pin = std::make_unique<gpioTOVv2>(c.pin, c.direction);
        EXPECT_EQ(GetCapturedStdout(), "");
        EXPECT_TRUE(pin->is_pinConfigured());
        EXPECT_EQ(gpioJournalSince(before), c.built);
        before = gpioJournal();
        pin.reset();
        EXPECT_EQ(gpioJournalSince(before), "unexport " + number + "\n");
    }
}

TEST(GpioPin, OutputIsWrittenAsGivenAndOnlyWhenItChanges)
{
    gpioTOVv2 pin(136, 0);
    const std::string before = gpioJournal();
    for (int value : {1, 1, 0, 1})
        EXPECT_EQ(pin.setval_gpio(value), 1);
    EXPECT_EQ(gpioJournalSince(before), "value 136 1\nvalue 136 0\nvalue 136 1\n");
    EXPECT_EQ(gpioLevel(136), 1);
    EXPECT_EQ(pin.getval_gpio(), 1);
}

// A relay whose write failed (its pin taken away under the bench) is written again by the next call.
TEST(GpioPin, FailedWriteIsTriedAgain)
{
    gpioTOVv2 pin(138, 0);
    ASSERT_EQ(pin.setval_gpio(1), 1);
    gpioWrite("unexport", "138");
    CaptureStdout();
    EXPECT_EQ(pin.setval_gpio(0), 0);
    EXPECT_EQ(pin.getval_gpio(), -1);
    EXPECT_EQ(GetCapturedStdout(), failed("set value of", 138) + failed("get value of", 138));
    EXPECT_EQ(pin.get_pinLastState(), 1);

    gpioWrite("export", "138");
    gpioWrite("gpio138/direction", "high");
    EXPECT_EQ(pin.setval_gpio(0), 1);
    EXPECT_EQ(gpioLevel(138), 0);
}

TEST(GpioPin, InputsReadInverted)
{
    gpioTOVv2 pin(201, 1);
    const std::pair<long, int> readings[] = {{0, 1}, {1, 0}, {0, 1}, {2, 0}, {-1, 0}};
    for (const auto& [level, value] : readings) {
        setGpioLevel(201, level);
        EXPECT_EQ(pin.getval_gpio(), value) << "level " << level;
        EXPECT_EQ(pin.get_pinLastState(), value) << "level " << level;
    }
}

// Each input is read as soon as it is exported, which primes its last state; relays are not written
// before the test drives them.
TEST(BoardMap, DrivesEachRelayAndReadsEachInputByItsNumber)
{
    auto board = std::make_unique<gpioV2>();
    EXPECT_EQ(gpioJournal(), boardBuiltJournal());
    for (const BoardPin& role : kBoardPins) {
        for (int level : {1, 0}) {
            if (role.relay) {
                EXPECT_EQ(board->setGPIO_State(role.pin, level), 1) << role.pin;
                EXPECT_EQ(gpioLevel(role.pin), level) << role.pin;
            } else {
                setGpioLevel(role.pin, level);
                EXPECT_EQ(board->getGPIO_State(role.pin), 1 - level) << role.pin;
            }
        }
    }
    // 7 is a position in the board's order, not a pin: nothing is touched.
    const unsigned long accesses = gpioAccesses();
    EXPECT_EQ(board->getGPIO_State(7), -1);
    EXPECT_EQ(board->setGPIO_State(7, 1), 0);
    EXPECT_EQ(gpioAccesses(), accesses);

    const std::string before = gpioJournal();
    board.reset();
    EXPECT_EQ(gpioJournalSince(before), boardReleasedJournal());
}

// The unit of this case lacks pin 232.
TEST(BoardMapMissingPin, OnlyThatPinFailsAndItIsNotReleased)
{
    CaptureStdout();
    auto board = std::make_unique<gpioV2>();
    EXPECT_EQ(GetCapturedStdout(), failed("get value of", 232) + failed("set direction of", 232));
    EXPECT_EQ(board->setGPIO_State(232, 1), 0);
    EXPECT_EQ(board->getGPIO_State(232), -1);
    EXPECT_EQ(board->setGPIO_State(230, 1), 1);
    board.reset();
    EXPECT_EQ(gpioJournal().find("unexport 232"), std::string::npos) << gpioJournal();
}

// The unit of this case has no /sys/class/gpio.
TEST(BoardMapAbsent, EveryPinFailsItsExportOnceAndNothingElseIsTried)
{
    CaptureStdout();
    auto board = std::make_unique<gpioV2>();
    std::string messages;
    for (const BoardPin& role : kBoardPins)
        messages += failed("export", role.pin);
    EXPECT_EQ(GetCapturedStdout(), messages);
    CaptureStdout();
    for (const BoardPin& role : kBoardPins) {
        EXPECT_EQ(board->getGPIO_State(role.pin), -1) << role.pin;
        EXPECT_EQ(board->setGPIO_State(role.pin, 1), 0) << role.pin;
    }
    board.reset();
    EXPECT_EQ(GetCapturedStdout(), "");
}

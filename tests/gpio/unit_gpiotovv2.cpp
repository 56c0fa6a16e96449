// One sysfs GPIO pin against the simulated unit's /sys/class/gpio, each case in a fresh unit.
#include "gpio/gpiotovv2.h"

#include "gpiosim.h"
#include "testfiles.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <fstream>
#include <memory>
#include <string>

using namespace tovtest;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

const std::string kGpio = "/sys/class/gpio/";

// Writes as a shell script of an earlier run would have.
void sysfsWrite(const std::string& name, const std::string& text)
{
    std::ofstream out(kGpio + name);
    out << text << "\n";
}

bool exported(int pin)
{
    struct stat st;
    return stat((kGpio + "gpio" + std::to_string(pin)).c_str(), &st) == 0;
}

} // namespace

TEST(GpioPin, OutputIsExportedAndTurnedOut)
{
    CaptureStdout();
    auto pin = std::make_unique<gpioTOVv2>(138, 0);
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_TRUE(pin->is_pinConfigured());
    EXPECT_EQ(pin->get_pinNum(), 138);
    EXPECT_EQ(pin->get_pinLastState(), -1);
    EXPECT_EQ(pin->is_pinReady(), 1);
    EXPECT_EQ(pin->get_direction_gpio(), 0);
    EXPECT_EQ(gpioJournal(), "export 138\ndirection 138 out\n");

    const std::string before = gpioJournal();
    pin.reset();
    EXPECT_EQ(gpioJournalSince(before), "unexport 138\n");
    EXPECT_FALSE(exported(138));
}

TEST(GpioPin, InputAlreadyInIsNotRewrittenButConfigured)
{
    gpioTOVv2 pin(202, 1);
    EXPECT_TRUE(pin.is_pinConfigured());
    EXPECT_EQ(pin.get_direction_gpio(), 1);
    EXPECT_EQ(pin.set_direction_gpio(), 1);
    EXPECT_EQ(gpioJournal(), "export 202\n");
}

TEST(GpioPin, PinExportedByAnEarlierRunIsTakenOverWithoutWrites)
{
    sysfsWrite("export", "136");
    sysfsWrite("gpio136/direction", "out");
    const std::string before = gpioJournal();
    {
        gpioTOVv2 pin(136, 0);
        EXPECT_TRUE(pin.is_pinConfigured());
        EXPECT_EQ(pin.export_gpio(), 1);
        EXPECT_EQ(gpioJournalSince(before), "");
    }
    EXPECT_EQ(gpioJournalSince(before), "unexport 136\n");
}

TEST(GpioPin, ExportedPinWithTheWrongDirectionIsTurned)
{
    sysfsWrite("export", "135");
    const std::string before = gpioJournal();
    gpioTOVv2 pin(135, 0);
    EXPECT_TRUE(pin.is_pinConfigured());
    EXPECT_EQ(gpioJournalSince(before), "direction 135 out\n");
}

TEST(GpioPin, SameOutputValueTwiceWritesTheFileOnce)
{
    gpioTOVv2 pin(136, 0);
    const std::string before = gpioJournal();
    EXPECT_EQ(pin.setval_gpio(1), 1);
    EXPECT_EQ(pin.setval_gpio(1), 1);
    EXPECT_EQ(pin.get_pinLastState(), 1);
    EXPECT_EQ(gpioLevel(136), 1);
    EXPECT_EQ(pin.setval_gpio(0), 1);
    EXPECT_EQ(pin.setval_gpio(1), 1);
    EXPECT_EQ(gpioJournalSince(before), "value 136 1\nvalue 136 0\nvalue 136 1\n");
    // Outputs are not inverted, in either direction.
    EXPECT_EQ(pin.getval_gpio(), 1);
    EXPECT_EQ(pin.get_pinLastState(), 1);
}

TEST(GpioPin, OutputValueIsWrittenAsGiven)
{
    gpioTOVv2 pin(230, 0);
    const std::string before = gpioJournal();
    EXPECT_EQ(pin.setval_gpio(5), 1);
    EXPECT_EQ(pin.get_pinLastState(), 5);
    EXPECT_EQ(gpioJournalSince(before), "value 230 1\n") << "the kernel drives any non-zero high";
    EXPECT_EQ(pin.getval_gpio(), 1);
}

TEST(GpioPin, FailedWriteKeepsTheLastStateSoTheNextCallTriesAgain)
{
    gpioTOVv2 pin(138, 0);
    ASSERT_EQ(pin.setval_gpio(1), 1);
    sysfsWrite("unexport", "138");

    CaptureStdout();
    EXPECT_EQ(pin.setval_gpio(0), 0);
    EXPECT_EQ(pin.getval_gpio(), -1);
    EXPECT_EQ(GetCapturedStdout(), " OPERATION FAILED: Unable to set value of GPIO_138\n"
                                   " OPERATION FAILED: Unable to get value of GPIO_138\n");
    EXPECT_EQ(pin.get_pinLastState(), 1);

    sysfsWrite("export", "138");
    sysfsWrite("gpio138/direction", "high");
    const std::string before = gpioJournal();
    EXPECT_EQ(pin.setval_gpio(0), 1);
    EXPECT_EQ(gpioJournalSince(before), "value 138 0\n");
    EXPECT_EQ(gpioLevel(138), 0);
}

TEST(GpioPin, InputsReadInverted)
{
    gpioTOVv2 pin(201, 1);
    setGpioLevel(201, 0);
    EXPECT_EQ(pin.getval_gpio(), 1);
    EXPECT_EQ(pin.get_pinLastState(), 1);
    setGpioLevel(201, 1);
    EXPECT_EQ(pin.getval_gpio(), 0);
    EXPECT_EQ(pin.get_pinLastState(), 0);
    setGpioLevel(201, 0);
    EXPECT_EQ(pin.getval_gpio(), 1);
    setGpioLevel(201, 2);
    EXPECT_EQ(pin.getval_gpio(), 0);
    EXPECT_EQ(pin.get_pinLastState(), 0);
    setGpioLevel(201, -1);
    EXPECT_EQ(pin.getval_gpio(), 0);
}

TEST(GpioPin, InputValueIsNotWrittenByTheKernel)
{
    gpioTOVv2 pin(41, 1);
    const std::string before = gpioJournal();
    // The file opens, so the pin reports success; the kernel's refusal only shows in its journal.
    EXPECT_EQ(pin.setval_gpio(1), 1);
    EXPECT_EQ(gpioJournalSince(before), "value 41 1 EPERM\n");
}

TEST(GpioPin, PinNumberBelowOneNeverTouchesSysfs)
{
    const unsigned long accesses = gpioAccesses();
    CaptureStdout();
    {
        gpioTOVv2 zero(0, 0);
        gpioTOVv2 negative(-3, 1);
        EXPECT_FALSE(zero.is_pinConfigured());
        EXPECT_EQ(zero.getval_gpio(), -1);
        EXPECT_EQ(zero.setval_gpio(1), 0);
        EXPECT_EQ(zero.unexport_gpio(), 0);
        EXPECT_EQ(negative.getval_gpio(), -1);
        EXPECT_EQ(negative.setval_gpio(0), 0);
        EXPECT_EQ(negative.get_pinLastState(), -1);
    }
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(gpioAccesses(), accesses);
    EXPECT_EQ(gpioJournal(), "");
}

TEST(GpioPin, PinNotOnTheBoardFailsAtItsDirectionAndIsNeverUnexported)
{
    CaptureStdout();
    {
        gpioTOVv2 pin(99, 0);
        EXPECT_FALSE(pin.is_pinConfigured());
        EXPECT_EQ(pin.getval_gpio(), -1);
        EXPECT_EQ(pin.setval_gpio(1), 0);
    }
    EXPECT_EQ(GetCapturedStdout(), " OPERATION FAILED: Unable to get value of GPIO_99\n"
                                   " OPERATION FAILED: Unable to set direction of GPIO_99\n");
    EXPECT_EQ(gpioJournal(), "export 99 EINVAL\n");
}

TEST(GpioPinAbsent, ExportFailsAndThePinStaysUnconfigured)
{
    CaptureStdout();
    {
        gpioTOVv2 pin(138, 0);
        EXPECT_FALSE(pin.is_pinConfigured());
        EXPECT_EQ(pin.is_pinReady(), 0);
        EXPECT_EQ(pin.getval_gpio(), -1);
        EXPECT_EQ(pin.setval_gpio(1), 0);
        EXPECT_EQ(pin.get_pinLastState(), -1);
    }
    EXPECT_EQ(GetCapturedStdout(), " OPERATION FAILED: Unable to export GPIO_138\n");
    CaptureStdout();
    gpioTOVv2 pin(202, 1);
    EXPECT_EQ(pin.get_direction_gpio(), -1);
    EXPECT_EQ(pin.set_direction_gpio(), 0);
    EXPECT_EQ(GetCapturedStdout(), " OPERATION FAILED: Unable to export GPIO_202\n"
                                   " OPERATION FAILED: Unable to get value of GPIO_202\n"
                                   " OPERATION FAILED: Unable to get value of GPIO_202\n"
                                   " OPERATION FAILED: Unable to set direction of GPIO_202\n");
}

// The link's frame CRC and delays, and the serial layer's refusals, none of which reach a device.
#include "mesure/ccomrs485.h"
#include "mesure/rs232.h"

#include "moduletest.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

TEST(Crc, CheckValueAndAnyFrameAsTheBitwiseDefinitionGivesIt)
{
    EXPECT_EQ(CComRS485::calculateCRC(reinterpret_cast<const unsigned char*>("123456789"), 9), 0x31C3);
    EXPECT_EQ(CComRS485::calculateCRC(reinterpret_cast<const unsigned char*>("x"), 0), 0);
    std::mt19937 random(7);
    for (int round = 0; round < 600; ++round) {
        // Every single byte first, then frames of any length.
        tovtest::Bytes frame(round < 256 ? 1 : random() % 300);
        for (size_t i = 0; i < frame.size(); ++i)
            frame[i] = static_cast<unsigned char>(round < 256 ? round : random());
        ASSERT_EQ(CComRS485::calculateCRC(frame.data(), static_cast<unsigned>(frame.size())),
                  tovtest::xmodemCrc(frame.data(), frame.size())) << "round " << round;
    }
}

TEST(Rs485Delays, OneAndAHalfAndThreeAndAHalfCharacterTimesUpTo19200)
{
    const struct { unsigned baud, chr, frame; } cases[] = {
        {9600, 1562, 3645}, {19200, 781, 1822}, {38400, 750, 1750}, {115200, 750, 1750},
    };
    for (const auto& c : cases) {
        unsigned chr = 0, frame = 0;
        CComRS485::delaysForBaud(c.baud, &chr, &frame);
        EXPECT_EQ(chr, c.chr) << c.baud;
        EXPECT_EQ(frame, c.frame) << c.baud;
    }
}

TEST(Rs232Open, RefusalsInTheOrderTheArgumentsAreChecked)
{
    const struct { int port, baud; const char* mode; const char* out; } cases[] = {
        {2, 1234, "xx", "illegal comport number\n"}, // the port before anything else
        {0, 1234, "9Z9", "invalid baudrate\n"},      // the baud rate before the mode
        {1, 14400, "8N1", "invalid baudrate\n"},
        {1, 9600, "8N", "invalid mode \"8N\"\n"},
        {1, 9600, "8N12", "invalid mode \"8N12\"\n"},
        {1, 9600, "4N1", "invalid number of data-bits '4'\n"},
        {1, 9600, "8M1", "invalid parity 'M'\n"},
        {1, 9600, "8N3", "invalid number of stop bits '3'\n"},
    };
    for (const auto& c : cases) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(RS232_OpenComport(c.port, c.baud, c.mode), 1) << c.mode;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.out);
    }
}

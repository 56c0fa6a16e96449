// The RS-485 link's frame CRC and its delays, and the serial layer's refusals (none of these
// reach a device).
#include "mesure/ccomrs485.h"
#include "mesure/rs232.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

// Reference CRC-16/XMODEM, bit by bit.
unsigned short bitwiseCrc(const unsigned char* data, size_t len)
{
    unsigned crc = 0;
    for (size_t i = 0; i < len; ++i) {
        crc ^= static_cast<unsigned>(data[i]) << 8;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x8000) ? ((crc << 1) ^ 0x1021) & 0xFFFF : (crc << 1) & 0xFFFF;
    }
    return static_cast<unsigned short>(crc);
}

std::string refusal(int port, int baud, const char* mode)
{
    CaptureStdout();
    const int result = RS232_OpenComport(port, baud, mode);
    std::string out = GetCapturedStdout();
    return std::to_string(result) + ":" + out;
}

} // namespace

TEST(Crc, CheckValueAndEmptyInput)
{
    const char* check = "123456789";
    EXPECT_EQ(CComRS485::calculateCRC(reinterpret_cast<const unsigned char*>(check), 9), 0x31C3);
    const unsigned char none[1] = {0xFF};
    EXPECT_EQ(CComRS485::calculateCRC(none, 0), 0);
    EXPECT_EQ(CComRS485::calculateCRC(nullptr, 4), 0);
}

TEST(Crc, MatchesTheBitwiseDefinitionOnEveryByteAndRandomFrames)
{
    for (unsigned b = 0; b < 256; ++b) {
        const unsigned char byte = static_cast<unsigned char>(b);
        ASSERT_EQ(CComRS485::calculateCRC(&byte, 1), bitwiseCrc(&byte, 1)) << "byte " << b;
    }
    std::mt19937 random(7);
    unsigned char frame[300];
    for (int round = 0; round < 200; ++round) {
        const size_t len = random() % sizeof frame;
        for (size_t i = 0; i < len; ++i)
            frame[i] = static_cast<unsigned char>(random());
        ASSERT_EQ(CComRS485::calculateCRC(frame, static_cast<unsigned>(len)), bitwiseCrc(frame, len));
    }
}

TEST(Rs485Delays, FromTheBaudRate)
{
    unsigned chr = 0, frame = 0;
    CComRS485::delaysForBaud(9600, &chr, &frame);
    EXPECT_EQ(chr, 1562u);
    EXPECT_EQ(frame, 3645u);
    CComRS485::delaysForBaud(2400, &chr, &frame);
    EXPECT_EQ(chr, 6250u);
    EXPECT_EQ(frame, 14583u);
    CComRS485::delaysForBaud(19200, &chr, &frame);
    EXPECT_EQ(chr, 781u);
    EXPECT_EQ(frame, 1822u);
    CComRS485::delaysForBaud(38400, &chr, &frame);
    EXPECT_EQ(chr, 750u);
    EXPECT_EQ(frame, 1750u);
    CComRS485::delaysForBaud(115200, &chr, &frame);
    EXPECT_EQ(chr, 750u);
    EXPECT_EQ(frame, 1750u);
}

TEST(Rs232Open, PortNumberIsCheckedFirst)
{
    EXPECT_EQ(refusal(2, 9600, "8N1"), "1:illegal comport number\n");
    EXPECT_EQ(refusal(2, 1234, "xx"), "1:illegal comport number\n");
    EXPECT_EQ(refusal(-1, 9600, "8N1"), "1:illegal comport number\n");
}

TEST(Rs232Open, UnknownBaudRatesRefused)
{
    for (int baud : {0, 300, 1200, 14400, 28800, 76800, 230400, -9600})
        EXPECT_EQ(refusal(1, baud, "8N1"), "1:invalid baudrate\n") << baud;
    // The baud rate comes before the mode.
    EXPECT_EQ(refusal(0, 1234, "9Z9"), "1:invalid baudrate\n");
}

TEST(Rs232Open, ModeStringsRefusedWithTheirMessages)
{
    EXPECT_EQ(refusal(1, 9600, "8N"), "1:invalid mode \"8N\"\n");
    EXPECT_EQ(refusal(1, 9600, "8N12"), "1:invalid mode \"8N12\"\n");
    EXPECT_EQ(refusal(1, 9600, ""), "1:invalid mode \"\"\n");
    EXPECT_EQ(refusal(1, 9600, "9N1"), "1:invalid number of data-bits '9'\n");
    EXPECT_EQ(refusal(1, 9600, "4N1"), "1:invalid number of data-bits '4'\n");
    EXPECT_EQ(refusal(1, 9600, "8X1"), "1:invalid parity 'X'\n");
    EXPECT_EQ(refusal(1, 9600, "8M1"), "1:invalid parity 'M'\n");
    EXPECT_EQ(refusal(1, 9600, "8N3"), "1:invalid number of stop bits '3'\n");
    EXPECT_EQ(refusal(1, 9600, "8N0"), "1:invalid number of stop bits '0'\n");
}

TEST(Rs232Open, DeviceTable)
{
    EXPECT_STREQ(comports[0], "/dev/ttyUSB0");
    EXPECT_STREQ(comports[1], "/dev/ttySAC1");
    EXPECT_EQ(sizeof comports[0], 16u);
}

// V1 driver without a bus: answers decoded, readings converted, counted and flagged, records.
#include "mesure/mesv1modul.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

const char* const kGood = "00100,07410,06500,08000,12000";
const char* const kBad = "99999,99999,06500,08000,00000"; // temperature 1 and pressure out of range

// Five comma-separated fields applied as a good poll cycle applies them (each read up to 5 characters).
void apply(MesV1Modul& modul, const std::string& f)
{
    modul.CMv1_applyReadings(f.c_str(), f.c_str() + 6, f.c_str() + 12, f.c_str() + 18, f.c_str() + 24);
}

std::string flags(MesV1Modul& modul)
{
    std::string out;
    for (int i = 0; i < 5; ++i)
        out += static_cast<char>('0' + modul.CMv1sensorError(i));
    return out;
}

} // namespace

TEST(MesV1Modul, StartAndCloseLines)
{
    CaptureStdout();
    MesV1Modul(nullptr).closeMesV1Modul();
    EXPECT_EQ(GetCapturedStdout(), "[MesV1Modul] Started\n[MesV1Modul] initMesV1Modul OK\n[MesV1Modul] Closed\n");
}

// Each row follows a reading of kGood: a value out of range keeps the one before.
TEST(MesV1Readings, ConvertedWhenInRangeKeptOtherwise)
{
    const float t1 = 23.333f, t2 = 15.556f, t3 = 28.376f; // 7410, 6500, 8000 counts
    const struct { const char* fields; float weight, t1, t2, t3, pressure, p20 = 30, p4 = 0; } cases[] = {
        {kGood, 100, t1, t2, t3, 15.0f},
        {"00500,07410,00000,08000,12000", 500, t1, -40.0f, t3, 15.0f},
        {"99999,-0585,15795,08000,03700", 99999, -45.0f, 95.0f, t3, -0.5625f}, // edges accepted
        {"00000,-0586,15796,08000,03699", 0, t1, t2, t3, 15.0f},                // just beyond: kept
        {"00000,07410,06500,08000,22000", 0, t1, t2, t3, 33.75f},
        {"00000,07410,06500,08000,22001", 0, t1, t2, t3, 15.0f},
        {"00000,07410,06500,08000,20000", 0, t1, t2, t3, 50.0f, 50, 10},       // configured range
        {"00000,07410,06500,08000,04000", 0, t1, t2, t3, 10.0f, 50, 10},
    };
    for (const auto& c : cases) {
        MesV1Modul modul(nullptr);
        cmV1_config_t config;
        MesV1Modul::cfg_initCMv1_Config(&config);
        config.pressure20mA = c.p20;
        config.pressure4mA = c.p4;
        modul.cfg_setCMv1_Config(&config);
        apply(modul, kGood);
        apply(modul, c.fields);
        const float expected[5] = {c.weight, c.t1, c.t2, c.t3, c.pressure};
        for (int i = 0; i < 5; ++i)
            EXPECT_NEAR(modul.CMv1_getMesureValue(i), expected[i], 0.001f) << c.fields << " value " << i;
        EXPECT_EQ(flags(modul), "00000") << c.fields;
    }
}

TEST(MesV1Flags, SixtyFiveBadReadingsInARowFlagASensorAndAGoodOneClearsIt)
{
    MesV1Modul modul(nullptr);
    apply(modul, kGood);
    for (int i = 0; i < 64; ++i)
        apply(modul, kBad);
    EXPECT_EQ(flags(modul), "00000");
    apply(modul, kBad);
    EXPECT_EQ(flags(modul), "01001"); // the weight is never checked
    EXPECT_EQ(modul.CMv1_getMesureValue(1), MesV1Modul::FLAGGED_VALUE);
    EXPECT_EQ(modul.CMv1_getMesureValue(4), MesV1Modul::FLAGGED_VALUE);
    apply(modul, kGood);
    EXPECT_EQ(flags(modul), "00000");
    EXPECT_NEAR(modul.CMv1_getMesureValue(1), 23.333f, 0.001f);
}

TEST(MesV1Flags, AFlaggedSensorStillOutOfRangeIsFlaggedAgainAfterSixtyFiveMore)
{
    MesV1Modul modul(nullptr);
    for (int i = 0; i < 65 + 65; ++i)
        apply(modul, kBad);
    // The first bad reading after the flag only took the counter from -1 to 0: the sensor is not
    // flagged anew yet, so a good reading is stored but does not clear the old flag.
    apply(modul, kGood);
    EXPECT_NEAR(modul.CMv1_getMesureValue(1), 23.333f, 0.001f);
    EXPECT_EQ(flags(modul), "01001");
    apply(modul, kBad);
    EXPECT_EQ(modul.CMv1_getMesureValue(1), MesV1Modul::FLAGGED_VALUE);
    apply(modul, kGood);
    EXPECT_EQ(flags(modul), "00000");
}

// Without a bus every exchange goes unanswered: a connected module is lost at the 65th in a row.
TEST(MesV1Link, LostAtTheSixtyFifthFailedExchangeInARow)
{
    MesV1Modul modul(nullptr);
    apply(modul, kGood);
    for (int failed = 1; failed <= 65; ++failed) {
        ASSERT_EQ(modul.CM1_sendTo(), MesV1Modul::RES_NO_ANSWER);
        EXPECT_EQ(modul.isCMv1connected(), failed < 65 ? 1 : 2) << failed << " failed";
    }
}

TEST(MesV1Records, ByIdentifier)
{
    MesV1Modul modul(nullptr);
    float value = 12.5f;
    int state = 2, flag = 1;
    modul.setDATA_struct(3, &value);
    modul.setDATA_struct(0, &state);
    modul.setDATA_struct(10, &flag);
    EXPECT_EQ(modul.CMv1_getMesureValue(2), 12.5f);
    EXPECT_EQ(flags(modul), "00001");
    EXPECT_EQ(modul.getDATA_struct(3).value.f, 12.5f);
    EXPECT_EQ(modul.getDATA_struct(0).iValue, 2);
    EXPECT_EQ(modul.getDATA_struct(10).iValue, 1);
    // A lost module (state 2) is found again by a good cycle, its failures forgotten.
    modul.setCMv1commCounter(70);
    apply(modul, kGood);
    EXPECT_EQ(modul.isCMv1connected(), 1);
    EXPECT_EQ(modul.CMv1commCounter(), 0);
}

// Answers as the link hands them over; the real exchanges are in unit_modules.cpp.
TEST(MesV1Decode, FieldsHandedOverWithTheResultEvenUnderAWrongHeader)
{
    const std::string body = "00500,07410,06500,08000,12000\r\n", fields = body.substr(0, 29);
    const std::string untouched = "xxxxx,xxxxx,xxxxx,xxxxx,xxxxx";
    const struct { std::string answer; int count, result; std::string fields; } cases[] = {
        {"\x01\x02" + body, 33, MesV1Modul::RES_OK, fields},
        {"\x03\x02" + body, 33, MesV1Modul::RES_BAD_HEADER, fields},
        {"\x01\x03" + body, 33, MesV1Modul::RES_BAD_HEADER, fields},
        {std::string("\x01\x02\x39\x0D", 4) + body.substr(0, 29), 33, MesV1Modul::RES_ECHO, untouched},
        {"\x01\x02" + body, 32, MesV1Modul::RES_BAD_LENGTH, untouched},
        {"\x01\x02" + body, 0, MesV1Modul::RES_NO_ANSWER, untouched},
    };
    for (const auto& c : cases) {
        char f[5][MesV1Modul::FIELD_SIZE] = {"xxxxx", "xxxxx", "xxxxx", "xxxxx", "xxxxx"};
        EXPECT_EQ(MesV1Modul::CMv1_decodeAnswer(c.answer.data(), c.count, f[0], f[1], f[2], f[3], f[4]),
                  c.result) << c.count;
        EXPECT_EQ(std::string(f[0]) + "," + f[1] + "," + f[2] + "," + f[3] + "," + f[4], c.fields);
    }
}

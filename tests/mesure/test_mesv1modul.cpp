// V1 driver without a bus: conversions, range counting and flagging, records and accessors.
#include "mesure/mesv1modul.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

void apply(MesV1Modul& modul, const char* weight, const char* t1, const char* t2, const char* t3,
           const char* pressure)
{
    modul.CMv1_applyReadings(weight, t1, t2, t3, pressure);
}

void applyGood(MesV1Modul& modul)
{
    apply(modul, "00100", "07410", "06500", "08000", "12000");
}

} // namespace

TEST(MesV1Records, SizesAndDefaults)
{
    CaptureStdout();
    MesV1Modul modul(nullptr);
    EXPECT_EQ(GetCapturedStdout(), "[MesV1Modul] Started\n[MesV1Modul] initMesV1Modul OK\n");
    cmV1_config_t config;
    memset(&config, 0xAB, sizeof config);
    modul.cfg_getCMv1_Config(&config);
    EXPECT_EQ(+config.baudrate, 2400u);
    EXPECT_FLOAT_EQ(config.pressure20mA, 30.0f);
    EXPECT_FLOAT_EQ(config.pressure4mA, 0.0f);
    for (uint8_t b : config.reserved)
        EXPECT_EQ(b, 0);
    cmV1_proc_values_t proc;
    memset(&proc, 0xAB, sizeof proc);
    MesV1Modul::cfg_initCMv1_ProcValue(&proc);
    EXPECT_EQ(+proc.commCounter, 0);
    EXPECT_EQ(modul.isCMv1connected(), 0);
    CaptureStdout();
    modul.closeMesV1Modul();
    EXPECT_EQ(GetCapturedStdout(), "[MesV1Modul] Closed\n");
}

TEST(MesV1Conversions, TemperaturesPressureAndWeight)
{
    MesV1Modul modul(nullptr);
    apply(modul, "00500", "07410", "00000", "08000", "12000");
    cmV1_datas_t data;
    modul.cfg_getCMv1_Data(&data);
    EXPECT_FLOAT_EQ(data.values[0], 500.0f);
    EXPECT_NEAR(data.values[1], 23.33f, 0.005f);
    EXPECT_FLOAT_EQ(data.values[2], -40.0f); // 00000 is in range
    EXPECT_NEAR(data.values[3], 28.376f, 0.001f);
    EXPECT_FLOAT_EQ(data.values[4], 15.0f);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(modul.CMv1sensorError(i), 0);
    EXPECT_EQ(modul.isCMv1connected(), 1);
    EXPECT_FLOAT_EQ(modul.CMv1_getMesureValue(4), 15.0f);
    EXPECT_FLOAT_EQ(modul.getDATA_struct(2).value.f, data.values[1]);
    EXPECT_EQ(modul.getDATA_struct(0).iValue, 1);
}

TEST(MesV1Conversions, PressureFollowsTheConfiguredRange)
{
    MesV1Modul modul(nullptr);
    cmV1_config_t config;
    MesV1Modul::cfg_initCMv1_Config(&config);
    config.pressure20mA = 50.0f;
    config.pressure4mA = 10.0f;
    modul.cfg_setCMv1_Config(&config);
    apply(modul, "00000", "07410", "07410", "07410", "20000");
    EXPECT_FLOAT_EQ(modul.CMv1_getMesureValue(4), 50.0f);
    apply(modul, "00000", "07410", "07410", "07410", "04000");
    EXPECT_FLOAT_EQ(modul.CMv1_getMesureValue(4), 10.0f);
    apply(modul, "00000", "07410", "07410", "07410", "03700"); // lower edge accepted
    EXPECT_FLOAT_EQ(modul.CMv1_getMesureValue(4), 9.25f);
}

TEST(MesV1Conversions, RangeEdges)
{
    MesV1Modul modul(nullptr);
    // -45.0 C is -585 counts, 95.0 C is 15795: both accepted.
    apply(modul, "00000", "-0585", "15795", "07410", "22000");
    EXPECT_FLOAT_EQ(modul.CMv1_getMesureValue(1), -45.0f);
    EXPECT_FLOAT_EQ(modul.CMv1_getMesureValue(2), 95.0f);
    EXPECT_FLOAT_EQ(modul.CMv1_getMesureValue(4), 33.75f);
    // Out of range: values kept.
    apply(modul, "00000", "-0586", "15796", "07410", "22001");
    EXPECT_FLOAT_EQ(modul.CMv1_getMesureValue(1), -45.0f);
    EXPECT_FLOAT_EQ(modul.CMv1_getMesureValue(2), 95.0f);
    EXPECT_FLOAT_EQ(modul.CMv1_getMesureValue(4), 33.75f);
    apply(modul, "00000", "07410", "07410", "07410", "03699");
    EXPECT_FLOAT_EQ(modul.CMv1_getMesureValue(4), 33.75f);
}

TEST(MesV1Flags, SixtyFourBadReadingsDoNotFlagTheSixtyFifthDoes)
{
    MesV1Modul modul(nullptr);
    applyGood(modul);
    const float before = modul.CMv1_getMesureValue(1);
    for (int i = 0; i < 64; ++i)
        apply(modul, "00100", "99999", "06500", "08000", "00000");
    EXPECT_EQ(modul.CMv1sensorError(1), 0);
    EXPECT_EQ(modul.CMv1sensorError(4), 0);
    EXPECT_FLOAT_EQ(modul.CMv1_getMesureValue(1), before);
    apply(modul, "00100", "99999", "06500", "08000", "00000");
    EXPECT_EQ(modul.CMv1sensorError(1), 1);
    EXPECT_EQ(modul.CMv1sensorError(4), 1);
    EXPECT_EQ(modul.CMv1sensorError(2), 0);
    EXPECT_FLOAT_EQ(modul.CMv1_getMesureValue(1), 999.0f);
    EXPECT_FLOAT_EQ(modul.CMv1_getMesureValue(4), 999.0f);
    EXPECT_EQ(modul.getDATA_struct(7).iValue, 1);
    // A good reading right after the flag clears it.
    applyGood(modul);
    EXPECT_EQ(modul.CMv1sensorError(1), 0);
    EXPECT_NEAR(modul.CMv1_getMesureValue(1), 23.33f, 0.005f);
}

TEST(MesV1Flags, AFlaggedSensorStillOutOfRangeCountsAgain)
{
    MesV1Modul modul(nullptr);
    for (int i = 0; i < 65; ++i)
        apply(modul, "00100", "99999", "06500", "08000", "12000");
    ASSERT_EQ(modul.CMv1sensorError(1), 1);
    // Counting restarts from the flag (-1): 65 more bad readings reach 64 only, so a good reading
    // now is stored but does not clear the flag; only a counter at -1 does.
    for (int i = 0; i < 65; ++i)
        apply(modul, "00100", "99999", "06500", "08000", "12000");
    EXPECT_FLOAT_EQ(modul.CMv1_getMesureValue(1), 999.0f);
    applyGood(modul);
    EXPECT_NEAR(modul.CMv1_getMesureValue(1), 23.33f, 0.005f);
    EXPECT_EQ(modul.CMv1sensorError(1), 1);
    // The next one is the 66th bad reading since the flag (the first only brought the counter
    // from -1 to 0): flagged again, counter back to -1.
    apply(modul, "00100", "99999", "06500", "08000", "12000");
    EXPECT_FLOAT_EQ(modul.CMv1_getMesureValue(1), 999.0f);
    applyGood(modul);
    EXPECT_EQ(modul.CMv1sensorError(1), 0);
}

TEST(MesV1Flags, WeightIsNeverChecked)
{
    MesV1Modul modul(nullptr);
    for (int i = 0; i < 100; ++i)
        apply(modul, "99999", "07410", "07410", "07410", "12000");
    EXPECT_FLOAT_EQ(modul.CMv1_getMesureValue(0), 99999.0f);
    EXPECT_EQ(modul.CMv1sensorError(0), 0);
}

TEST(MesV1Exchange, WithoutALinkCountsAsNoAnswer)
{
    MesV1Modul modul(nullptr);
    EXPECT_EQ(modul.CM1_sendTo(), MesV1Modul::RES_NO_ANSWER);
    EXPECT_EQ(modul.CMv1commCounter(), 1);
    modul.setCMv1commCounter(64);
    EXPECT_EQ(modul.CM1_sendTo(), MesV1Modul::RES_NO_ANSWER);
    EXPECT_EQ(modul.isCMv1connected(), 2); // lost after 65 failures in a row
    applyGood(modul);
    EXPECT_EQ(modul.isCMv1connected(), 1);
    EXPECT_EQ(modul.CMv1commCounter(), 0);
    EXPECT_FALSE(modul.CMV1_initComm());
}

TEST(MesV1Robustness, AnyTextInTheFieldsIsHarmless)
{
    MesV1Modul modul(nullptr);
    std::mt19937 random(3);
    char fields[5][5]; // no terminating zero on purpose
    for (int round = 0; round < 2000; ++round) {
        for (auto& field : fields)
            for (char& c : field)
                c = static_cast<char>(random());
        modul.CMv1_applyReadings(fields[0], fields[1], fields[2], fields[3], fields[4]);
    }
    modul.CMv1_applyReadings(nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_FLOAT_EQ(modul.CMv1_getMesureValue(0), 0.0f);
    EXPECT_FLOAT_EQ(modul.CMv1_getMesureValue(5), 0.0f);
    EXPECT_FLOAT_EQ(modul.CMv1_getMesureValue(-1), 0.0f);
    EXPECT_EQ(modul.CMv1sensorError(9), 0);
}

TEST(MesV1Records, GenericAccessByIdentifier)
{
    MesV1Modul modul(nullptr);
    float value = 12.5f;
    EXPECT_TRUE(modul.setDATA_struct(3, &value));
    EXPECT_FLOAT_EQ(modul.getDATA_struct(3).value.f, 12.5f);
    EXPECT_FLOAT_EQ(modul.CMv1_getMesureValue(2), 12.5f);
    int state = 2;
    EXPECT_TRUE(modul.setDATA_struct(0, &state));
    EXPECT_EQ(modul.isCMv1connected(), 2);
    EXPECT_TRUE(modul.setDATA_struct(42, &value));
    EXPECT_TRUE(modul.setDATA_struct(1, nullptr));
    const cmParamValue_t unknown = modul.getDATA_struct(42);
    EXPECT_EQ(unknown.iValue, 0);
    EXPECT_EQ(unknown.value.i, 0);
    EXPECT_STREQ(unknown.text, "");
}

namespace {

// A 33-byte answer: header, five fields separated by commas, two trailing bytes.
std::string answerOf(const std::string& header, const std::string& fields)
{
    return header + fields + "\r\n";
}

} // namespace

TEST(MesV1Decode, GoodAnswerFillsTheFieldsWrongHeaderToo)
{
    const std::string good = answerOf("\x01\x02", "00500,07410,06500,08000,12000");
    ASSERT_EQ(good.size(), 33u);
    char f[5][6];
    memset(f, 'x', sizeof f);
    EXPECT_EQ(MesV1Modul::CMv1_decodeAnswer(good.data(), 33, f[0], f[1], f[2], f[3], f[4]), MesV1Modul::RES_OK);
    EXPECT_STREQ(f[0], "00500");
    EXPECT_STREQ(f[1], "07410");
    EXPECT_STREQ(f[4], "12000");

    const std::string wrong = answerOf("\x02\x02", "11111,22222,33333,44444,55555");
    EXPECT_EQ(MesV1Modul::CMv1_decodeAnswer(wrong.data(), 33, f[0], f[1], f[2], f[3], f[4]),
              MesV1Modul::RES_BAD_HEADER);
    EXPECT_STREQ(f[0], "11111");
    EXPECT_STREQ(f[3], "44444");
}

TEST(MesV1Decode, EchoShortLongAndSilentAnswersLeaveTheFieldsAlone)
{
    // The module's own poll heard back, padded to an answer's length.
    std::string echo("\x01\x02\x39\x0D", 4);
    echo.append(29, '\0');
    ASSERT_EQ(echo.size(), 33u);
    char f[5][6];
    memset(f, 'x', sizeof f);
    EXPECT_EQ(MesV1Modul::CMv1_decodeAnswer(echo.data(), 33, f[0], f[1], f[2], f[3], f[4]), MesV1Modul::RES_ECHO);
    const std::string good = answerOf("\x01\x02", "00500,07410,06500,08000,12000");
    EXPECT_EQ(MesV1Modul::CMv1_decodeAnswer(good.data(), 32, f[0], f[1], f[2], f[3], f[4]),
              MesV1Modul::RES_BAD_LENGTH);
    EXPECT_EQ(MesV1Modul::CMv1_decodeAnswer(good.data(), 34, f[0], f[1], f[2], f[3], f[4]),
              MesV1Modul::RES_BAD_LENGTH);
    EXPECT_EQ(MesV1Modul::CMv1_decodeAnswer(good.data(), 0, f[0], f[1], f[2], f[3], f[4]),
              MesV1Modul::RES_NO_ANSWER);
    EXPECT_EQ(MesV1Modul::CMv1_decodeAnswer(good.data(), -1, f[0], f[1], f[2], f[3], f[4]),
              MesV1Modul::RES_NO_ANSWER);
    for (const auto& field : f)
        EXPECT_EQ(std::string(field, 6), "xxxxxx");
    // Null fields are skipped, not written through.
    EXPECT_EQ(MesV1Modul::CMv1_decodeAnswer(good.data(), 33, nullptr, nullptr, nullptr, nullptr, nullptr),
              MesV1Modul::RES_OK);
}

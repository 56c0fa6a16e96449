// V2 driver without a bus: request frames, answer checks and their effects, records, refusals.
#include "mesure/mesv2modul.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

using Bytes = std::vector<unsigned char>;

unsigned short xmodem(const Bytes& data)
{
    unsigned crc = 0;
    for (unsigned char byte : data) {
        crc ^= static_cast<unsigned>(byte) << 8;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x8000) ? ((crc << 1) ^ 0x1021) & 0xFFFF : (crc << 1) & 0xFFFF;
    }
    return static_cast<unsigned short>(crc);
}

// An answer as a module builds it; lengthDelta falsifies the length field after the CRC.
Bytes answer(unsigned char cmd, const Bytes& payload, int lengthDelta = 0, unsigned char address = 1)
{
    const unsigned n = static_cast<unsigned>(static_cast<int>(payload.size()) + lengthDelta);
    const unsigned short crc = xmodem(payload);
    Bytes frame = {address, static_cast<unsigned char>(n & 0xFF), static_cast<unsigned char>(n >> 8),
                   cmd, static_cast<unsigned char>(crc & 0xFF), static_cast<unsigned char>(crc >> 8)};
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

Bytes floats(std::initializer_list<float> values)
{
    Bytes out;
    for (float f : values) {
        unsigned char raw[4];
        memcpy(raw, &f, 4);
        out.insert(out.end(), raw, raw + 4);
    }
    return out;
}

int parse(MesV2Modul& modul, const Bytes& frame)
{
    return modul.CM_parseRX_Datas(frame.data(), static_cast<int>(frame.size()));
}

Bytes request(MesV2Modul& modul, unsigned char cmd, int* expected = nullptr)
{
    unsigned char frame[MesV2Modul::MAX_FRAME];
    memset(frame, 0xEE, sizeof frame);
    int answerLength = -7;
    const int len = modul.buildRequest(cmd, frame, &answerLength);
    if (expected)
        *expected = answerLength;
    return Bytes(frame, frame + len);
}

Bytes infoPayload(unsigned char configured, float version)
{
    Bytes info = {configured};
    const Bytes v = floats({version});
    info.insert(info.end(), v.begin(), v.end());
    return info;
}

} // namespace

TEST(MesV2Records, DefaultsAndMessages)
{
    CaptureStdout();
    MesV2Modul modul(nullptr);
    EXPECT_EQ(GetCapturedStdout(), "[MesV2Modul] Started\n[MesV2Modul] initMesV2Modul OK\n");
    EXPECT_EQ(modul.lastCommandSent(), 10);
    const cm_proc_values_t proc = modul.procValues();
    EXPECT_EQ(+proc.state, 0);
    EXPECT_EQ(+proc.nextCommand, 12);
    EXPECT_EQ(+proc.moduleAddress, 1);
    EXPECT_EQ(+proc.pt100CalibChannel, -1);
    EXPECT_EQ(+proc.gaugeCalibChannel, -1);
    cm_config_t config;
    modul.cfg_getCM_Config(&config);
    EXPECT_EQ(+config.format, 1);
    EXPECT_EQ(+config.configured, 0);
    EXPECT_FLOAT_EQ(config.setting118, 20.0f);
    EXPECT_FLOAT_EQ(config.setting119, 2.0f);
    EXPECT_FLOAT_EQ(config.setting121, 30.0f);
    EXPECT_EQ(+config.setting129, 2400);
    EXPECT_EQ(+config.busBaudrate, 9600);
    EXPECT_EQ(modul.getCFG_struct(115).iValue2, 1);
    EXPECT_EQ(modul.getCFG_struct(130).iValue2, 9600);
    EXPECT_EQ(modul.getCFG_struct(129).iValue2, 2400);
    EXPECT_FLOAT_EQ(modul.getCFG_struct(121).value.f, 30.0f);
    EXPECT_EQ(modul.getCFG_struct(116).iValue, 0);
    CaptureStdout();
    modul.closeMesV2Modul();
    EXPECT_EQ(GetCapturedStdout(), "[MesV2Modul] Closed\n");
}

TEST(MesV2Frames, RequestsCarryTheCommandCrcAndOneExtraZero)
{
    MesV2Modul modul(nullptr);
    int expected = 0;
    EXPECT_EQ(request(modul, 12, &expected), (Bytes{0x01, 0x01, 0x00, 0x0C, 0x8C, 0xC1, 0x0C, 0x00}));
    EXPECT_EQ(expected, 11);
    EXPECT_EQ(request(modul, 13, &expected), (Bytes{0x01, 0x01, 0x00, 0x0D, 0xAD, 0xD1, 0x0D, 0x00}));
    EXPECT_EQ(expected, 34);
    request(modul, 14, &expected);
    EXPECT_EQ(expected, 61);
    request(modul, 27, &expected);
    EXPECT_EQ(expected, 12);
    for (unsigned char cmd : {16, 17, 18, 20, 21}) {
        request(modul, cmd, &expected);
        EXPECT_EQ(expected, 7) << int(cmd);
    }
    for (unsigned char cmd : {25, 26, 28}) {
        EXPECT_EQ(request(modul, cmd, &expected).size(), 8u);
        EXPECT_EQ(expected, 0) << int(cmd);
    }
}

TEST(MesV2Frames, ConfigurationWriteForcesTheConfiguredMarker)
{
    MesV2Modul modul(nullptr);
    float setting = 42.5f;
    modul.setCFG_struct(121, &setting);
    int expected = 0;
    const Bytes frame = request(modul, 15, &expected);
    ASSERT_EQ(frame.size(), 6u + 55u + 1u);
    EXPECT_EQ(expected, 7);
    EXPECT_EQ(frame[1], 55);
    EXPECT_EQ(frame[2], 0);
    cm_config_t sent;
    memcpy(&sent, frame.data() + 6, sizeof sent);
    EXPECT_EQ(+sent.configured, 1);
    EXPECT_FLOAT_EQ(sent.setting121, 42.5f);
    EXPECT_EQ(frame.back(), 0);
    const Bytes payload(frame.begin() + 6, frame.end() - 1);
    EXPECT_EQ(frame[4] | (frame[5] << 8), xmodem(payload));
    EXPECT_EQ(modul.isCMconfigured(), 0); // the unit's own record is unchanged
}

TEST(MesV2Frames, RefusedCommandsSendNothing)
{
    MesV2Modul modul(nullptr);
    // Without a link, a command that would go out fails for want of an answer: a refused one is
    // the only way to get 0 here.
    EXPECT_EQ(modul.CM_sendTo(12), -4);
    for (unsigned char cmd : {0, 1, 10, 11, 23, 24, 29, 255}) {
        EXPECT_EQ(request(modul, cmd).size(), 0u) << int(cmd);
        EXPECT_EQ(modul.CM_sendTo(cmd), 0) << int(cmd);
    }
    modul.sendCalibPT100(4);
    EXPECT_EQ(request(modul, 22).size(), 0u);
    EXPECT_EQ(modul.CM_sendTo(22), 0);
    modul.sendCalibPT100(3);
    EXPECT_EQ(request(modul, 22), (Bytes{0x01, 0x01, 0x00, 0x16, 0x63, 0x30, 0x03, 0x00}));
    EXPECT_EQ(modul.CM_sendTo(22), -4);
    modul.sendCalibJauge(3);
    EXPECT_EQ(modul.CM_sendTo(19), 0);
    modul.sendCalibJauge(2);
    EXPECT_EQ(request(modul, 19).at(6), 2);
    // No calibration pending: nothing to send.
    MesV2Modul fresh(nullptr);
    EXPECT_EQ(fresh.CM_sendTo(19), 0);
    EXPECT_EQ(fresh.CM_sendTo(22), 0);
}

TEST(MesV2Parse, ConnectAnswerStoresTheModuleInformation)
{
    MesV2Modul modul(nullptr);
    EXPECT_EQ(parse(modul, answer(11, infoPayload(1, 3.25f))), 0);
    EXPECT_EQ(modul.isCMconnected(), 1);
    EXPECT_EQ(modul.getCMcmdToSend(), 13);
    EXPECT_FLOAT_EQ(modul.getCFG_struct(114).valueAsFloat(), 3.25f);
    EXPECT_EQ(+modul.procValues().module.configured, 1);
    EXPECT_NE(modul.CMcommCounter(), 0); // the time of the answer
}

TEST(MesV2Parse, LengthFieldOneTooLargeOrSmallIsRejected)
{
    MesV2Modul modul(nullptr);
    const Bytes data = floats({1, 2, 3, 4, 5, 6, 7});
    EXPECT_EQ(parse(modul, answer(13, data, +1)), -1);
    EXPECT_EQ(parse(modul, answer(13, data, -1)), -1);
    EXPECT_EQ(parse(modul, answer(11, infoPayload(1, 2.0f), +1)), -1);
    EXPECT_EQ(modul.isCMconnected(), 0);
    EXPECT_EQ(modul.CMcommCounter(), 0);
    EXPECT_FLOAT_EQ(modul.CM_getMesureValue(0), 0.0f);
    EXPECT_EQ(parse(modul, answer(13, data)), 0);
    EXPECT_FLOAT_EQ(modul.CM_getMesureValue(0), 1.0f);
    EXPECT_FLOAT_EQ(modul.CM_getMesureValue(6), 7.0f);
    EXPECT_FLOAT_EQ(modul.CM_getMesureValue(9), 7.0f); // above 5 reads value 6
}

TEST(MesV2Parse, WrongAddressOrCrcIsRejected)
{
    MesV2Modul modul(nullptr);
    const Bytes data = floats({1, 2, 3, 4, 5, 6, 7});
    EXPECT_EQ(parse(modul, answer(13, data, 0, 2)), -1);
    Bytes corrupt = answer(13, data);
    corrupt[10] ^= 0x01;
    EXPECT_EQ(parse(modul, corrupt), -1);
    corrupt = answer(13, data);
    corrupt[4] ^= 0x80;
    EXPECT_EQ(parse(modul, corrupt), -1);
    EXPECT_EQ(modul.CM_parseRX_Datas(nullptr, 34), -1);
    EXPECT_EQ(parse(modul, Bytes{}), -1);
    EXPECT_EQ(parse(modul, Bytes{1, 0, 0, 13, 0}), -1);
    EXPECT_FLOAT_EQ(modul.CM_getMesureValue(0), 0.0f);
}

TEST(MesV2Parse, KnownAnswersWithTheWrongPayloadSizeAreRejected)
{
    MesV2Modul modul(nullptr);
    // Consistent frames whose payload does not fit the record of their command.
    EXPECT_EQ(parse(modul, answer(13, Bytes(5, 0x41))), -1);
    EXPECT_EQ(parse(modul, answer(11, Bytes(28, 0x41))), -1);
    EXPECT_EQ(parse(modul, answer(14, Bytes(7, 0x41))), -1);
    EXPECT_EQ(parse(modul, answer(27, Bytes(1, 0x41))), -1);
    EXPECT_EQ(modul.isCMconnected(), 0);
    // Unknown answers are accepted without effect.
    EXPECT_EQ(parse(modul, answer(99, Bytes(3, 0x41))), 0);
    EXPECT_EQ(parse(modul, answer(13, Bytes{})), -1);
}

TEST(MesV2Parse, ConfigurationAnswerReplacesTheUnitsRecord)
{
    MesV2Modul modul(nullptr);
    cm_config_t config;
    MesV2Modul::cfg_initCM_Config(&config);
    config.configured = 1;
    config.setting118 = 17.5f;
    config.busBaudrate = 19200;
    Bytes payload(sizeof config);
    memcpy(payload.data(), &config, sizeof config);
    EXPECT_EQ(parse(modul, answer(14, payload)), 0);
    EXPECT_EQ(modul.getCMcmdToSend(), 13);
    EXPECT_EQ(modul.isCMconfigured(), 1);
    EXPECT_FLOAT_EQ(modul.getCFG_struct(118).value.f, 17.5f);
    EXPECT_EQ(modul.getCFG_struct(130).iValue2, 19200);
}

TEST(MesV2Parse, CalibrationAcknowledgeAndState)
{
    MesV2Modul modul(nullptr);
    modul.sendCalibPT100(1);
    EXPECT_EQ(modul.cfg_getCM_SensorCalibState(2), 1);
    EXPECT_EQ(parse(modul, answer(25, Bytes{0})), 0);
    EXPECT_EQ(+modul.procValues().pt100CalibChannel, -1);
    EXPECT_EQ(modul.getCMcmdToSend(), 27);
    // Still calibrating: next command unchanged.
    EXPECT_EQ(parse(modul, answer(27, Bytes{0xFF, 0, 0, 0, 1, 0})), 0);
    EXPECT_EQ(modul.getCMcmdToSend(), 27);
    EXPECT_EQ(modul.cfg_getCM_SensorCalibState(0), -1);
    EXPECT_EQ(modul.cfg_getCM_SensorCalibState(3), 1);
    EXPECT_EQ(parse(modul, answer(27, Bytes{0xFF, 0, 7, 0, 0, 0})), 0);
    EXPECT_EQ(modul.getCMcmdToSend(), 14);
    EXPECT_EQ(modul.cfg_getCM_SensorCalibState(5), -2);

    modul.sendCalibJauge(2);
    EXPECT_EQ(modul.cfg_getCM_SensorCalibState(0), 2);
    EXPECT_EQ(parse(modul, answer(25, Bytes{0})), 0);
    EXPECT_EQ(+modul.procValues().gaugeCalibChannel, -1);
    EXPECT_EQ(modul.getCMcmdToSend(), 27);
    modul.setCMcmdToSend(13);
    EXPECT_EQ(parse(modul, answer(25, Bytes{0})), 0);
    EXPECT_EQ(modul.getCMcmdToSend(), 13);
    EXPECT_EQ(parse(modul, answer(18, Bytes{0})), 0);
    EXPECT_EQ(modul.getCMcmdToSend(), 18);
}

TEST(MesV2Parse, NoiseNeverOverrunsOrChangesTheRecords)
{
    MesV2Modul modul(nullptr);
    std::mt19937 random(11);
    for (int round = 0; round < 20000; ++round) {
        const int len = static_cast<int>(random() % 80);
        // A fresh heap block of exactly len bytes: ASan sees any read beyond it.
        std::vector<unsigned char> frame(static_cast<size_t>(len));
        for (auto& b : frame)
            b = static_cast<unsigned char>(random());
        if (len >= 6 && round % 2 == 0) {
            frame[0] = 1; // address right, length field consistent or off by little
            const int n = len - 6 + static_cast<int>(random() % 3) - 1;
            frame[1] = static_cast<unsigned char>(n & 0xFF);
            frame[2] = static_cast<unsigned char>((n >> 8) & 0xFF);
            frame[3] = static_cast<unsigned char>(11 + random() % 20);
        }
        EXPECT_EQ(modul.CM_parseRX_Datas(frame.data(), len), -1);
    }
    EXPECT_EQ(modul.isCMconnected(), 0);
    EXPECT_FLOAT_EQ(modul.CM_getMesureValue(0), 0.0f);
}

TEST(MesV2Parse, WellFramedAnswersOfAnySizeAreSafe)
{
    MesV2Modul modul(nullptr);
    std::mt19937 random(5);
    for (int round = 0; round < 5000; ++round) {
        Bytes payload(random() % 70);
        for (auto& b : payload)
            b = static_cast<unsigned char>(random());
        const Bytes frame = answer(static_cast<unsigned char>(random() % 32), payload);
        std::vector<unsigned char> exact(frame.begin(), frame.end());
        const int result = modul.CM_parseRX_Datas(exact.data(), static_cast<int>(exact.size()));
        EXPECT_TRUE(result == 0 || result == -1);
    }
}

TEST(MesV2Records, ConfigurationByIdentifier)
{
    MesV2Modul modul(nullptr);
    int configured = 1, setting = 4, baud = 19200, other = 3000;
    float f = 7.75f;
    EXPECT_TRUE(modul.setCFG_struct(116, &configured));
    EXPECT_TRUE(modul.setCFG_struct(117, &setting));
    EXPECT_TRUE(modul.setCFG_struct(130, &baud));
    EXPECT_TRUE(modul.setCFG_struct(129, &other));
    for (int id = 118; id <= 128; ++id) {
        EXPECT_TRUE(modul.setCFG_struct(id, &f));
        f += 1.0f;
    }
    EXPECT_TRUE(modul.setCFG_struct(131, &f));
    EXPECT_TRUE(modul.setCFG_struct(118, nullptr));
    cm_config_t config;
    modul.cfg_getCM_Config(&config);
    EXPECT_EQ(+config.configured, 1);
    EXPECT_EQ(+config.setting117, 4);
    EXPECT_EQ(+config.busBaudrate, 19200);
    EXPECT_EQ(+config.setting129, 3000);
    EXPECT_FLOAT_EQ(config.setting118, 7.75f);
    EXPECT_FLOAT_EQ(config.setting128, 17.75f);
    EXPECT_EQ(modul.getCFG_struct(116).iValue, 1);
    EXPECT_EQ(modul.getCFG_struct(117).iValue, 4);
    EXPECT_FLOAT_EQ(modul.getCFG_struct(123).value.f, 12.75f);
    const cmParamValue_t unknown = modul.getCFG_struct(113);
    EXPECT_EQ(unknown.iValue, 0);
    EXPECT_EQ(unknown.iValue2, 0);
    EXPECT_EQ(unknown.value.i, 0);
}

TEST(MesV2Records, DataByIdentifierAndAccessorsOutOfRange)
{
    MesV2Modul modul(nullptr);
    float v = 3.5f;
    EXPECT_TRUE(modul.setDATA_struct(1, &v));
    v = 9.0f;
    EXPECT_TRUE(modul.setDATA_struct(7, &v));
    EXPECT_FLOAT_EQ(modul.getDATA_struct(1).value.f, 3.5f);
    EXPECT_FLOAT_EQ(modul.getDATA_struct(7).value.f, 9.0f);
    cm_datas_t data;
    modul.cfg_getCM_Data(&data);
    EXPECT_FLOAT_EQ(data.values[0], 3.5f);
    EXPECT_FLOAT_EQ(data.values[6], 9.0f);
    EXPECT_FLOAT_EQ(modul.CM_getMesureValue(-3), 0.0f);
    EXPECT_EQ(modul.CM_sensorError(6), 0);
    EXPECT_EQ(modul.CM_sensorError(-1), 0);
    modul.cfg_getCM_Data(nullptr);
    modul.cfg_setCM_Config(true, nullptr);
}

TEST(MesV2StateMachine, DisconnectAndRebootRequests)
{
    MesV2Modul modul(nullptr);
    modul.rebootMODULE(); // not connected: ignored
    EXPECT_EQ(modul.getCMcmdToSend(), 12);
    EXPECT_EQ(parse(modul, answer(11, infoPayload(0, 1.0f))), 0);
    modul.rebootMODULE();
    EXPECT_EQ(modul.getCMcmdToSend(), 16);
    modul.CMdisconnect(2);
    EXPECT_EQ(modul.isCMconnected(), 2);
    EXPECT_EQ(modul.getCMcmdToSend(), 12);
    EXPECT_EQ(modul.lastCommandSent(), 12);
    EXPECT_EQ(modul.CMcommCounter(), 0);
    // Not connected: the cycle answers -4 whatever happens on the bus.
    EXPECT_EQ(modul.CM_sendToTOV(), -4);
    MesV2Modul idle(nullptr);
    EXPECT_EQ(idle.CMstart_FirmUpdate(), 0);
}

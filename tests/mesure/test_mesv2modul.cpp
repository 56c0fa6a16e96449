// V2 driver without a bus: request frames, answers checked and applied, records by identifier.
#include "mesure/mesv2modul.h"

#include "moduletest.h"

#include <gtest/gtest.h>

#include <cstring>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using tovtest::Bytes;
using tovtest::v2Answer;

namespace {

template <size_t N>
Bytes floats(const float (&values)[N])
{
    return tovtest::bytesOf(values, sizeof values);
}

int parse(MesV2Modul& modul, const Bytes& frame)
{
    return modul.CM_parseRX_Datas(frame.data(), static_cast<int>(frame.size()));
}

Bytes request(MesV2Modul& modul, unsigned char cmd)
{
    unsigned char frame[MesV2Modul::MAX_FRAME];
    int expected = 0;
    return Bytes(frame, frame + modul.buildRequest(cmd, frame, &expected));
}

// A request is framed as an answer is, with one zero byte more.
Bytes requestOf(unsigned char cmd, const Bytes& payload)
{
    Bytes frame = v2Answer(cmd, payload);
    frame.push_back(0);
    return frame;
}

} // namespace

TEST(MesV2Modul, StartAndCloseLines)
{
    CaptureStdout();
    MesV2Modul modul(nullptr);
    modul.closeMesV2Modul();
    EXPECT_EQ(GetCapturedStdout(), "[MesV2Modul] Started\n[MesV2Modul] initMesV2Modul OK\n[MesV2Modul] Closed\n");
    EXPECT_EQ(modul.lastCommandSent(), 10);
}

// The module emulator, which takes only frames whose CRC is right, hears 12 to 16, 18, 22, 25 and 27 too.
TEST(MesV2Frames, RequestsCarryTheirPayloadItsCrcAndOneZeroMore)
{
    MesV2Modul modul(nullptr);
    for (unsigned char cmd : {12, 13, 14, 16, 17, 18, 20, 21, 25, 26, 27, 28})
        EXPECT_EQ(request(modul, cmd), requestOf(cmd, {cmd})) << int(cmd);
    modul.sendCalibPT100(3);
    EXPECT_EQ(request(modul, 22), (Bytes{0x01, 0x01, 0x00, 0x16, 0x63, 0x30, 0x03, 0x00}));
    modul.sendCalibJauge(2);
    EXPECT_EQ(request(modul, 19), requestOf(19, {2}));
}

TEST(MesV2Frames, RefusedCommandsSendNothing)
{
    MesV2Modul modul(nullptr), idle(nullptr);
    // Without a link a command that goes out finds no answer: RES_OK here means nothing was sent.
    EXPECT_EQ(modul.CM_sendTo(13), MesV2Modul::RES_BAD_LENGTH);
    for (unsigned char cmd : {0, 1, 10, 11, 23, 24, 29, 255})
        EXPECT_EQ(modul.CM_sendTo(cmd), MesV2Modul::RES_OK) << int(cmd);
    modul.sendCalibPT100(4);
    modul.sendCalibJauge(3);
    for (MesV2Modul* m : {&idle, &modul}) // no calibration asked for, or of a channel beyond
        EXPECT_EQ(m->CM_sendTo(19) + m->CM_sendTo(22), MesV2Modul::RES_OK);
}

TEST(MesV2Parse, RejectedAnswersLeaveTheRecordsAlone)
{
    const Bytes data = floats({1, 2, 3, 4, 5, 6, 7});
    Bytes badPayload = v2Answer(13, data), badCrc = v2Answer(13, data);
    badPayload[10] ^= 0x01;
    badCrc[4] ^= 0x80;
    const Bytes cases[] = {
        v2Answer(13, data, +1), v2Answer(13, data, -1), v2Answer(11, floats({2}), +1),
        v2Answer(13, data, 0, 2), badPayload, badCrc, Bytes{}, Bytes{1, 0, 0, 13, 0},
        // well framed, but not the size of their command's record
        v2Answer(13, {}), v2Answer(13, Bytes(5)), v2Answer(11, Bytes(28)), v2Answer(14, Bytes(7)),
        v2Answer(27, Bytes(1)),
    };
    MesV2Modul modul(nullptr);
    for (const Bytes& frame : cases)
        EXPECT_EQ(parse(modul, frame), MesV2Modul::RES_REJECTED) << testing::PrintToString(frame);
    EXPECT_EQ(modul.CM_parseRX_Datas(nullptr, 34), MesV2Modul::RES_REJECTED);
    EXPECT_EQ(modul.isCMconnected(), 0);
    EXPECT_EQ(modul.CMcommCounter(), 0);
    EXPECT_EQ(modul.CM_getMesureValue(0), 0.0f);
    EXPECT_EQ(modul.getCMcmdToSend(), 12);
}

// Connection, data, configuration and a whole PT100 calibration are also run against the module
// emulator; here the answers it never gives.
TEST(MesV2Parse, AcceptedAnswersAndTheCommandEachLeadsTo)
{
    MesV2Modul modul(nullptr);
    EXPECT_EQ(parse(modul, v2Answer(13, floats({1, 2, 3, 4, 5, 6, 7}))), MesV2Modul::RES_OK);
    EXPECT_EQ(modul.CM_getMesureValue(9), 7.0f); // above 5 reads value 6
    modul.sendCalibPT100(1);
    modul.sendCalibJauge(2);
    EXPECT_EQ(modul.cfg_getCM_SensorCalibState(0), 2);
    EXPECT_EQ(modul.cfg_getCM_SensorCalibState(2), 1);
    const struct { Bytes answer; int nextBefore, nextAfter; } steps[] = {
        {v2Answer(25, {0}), 19, 27}, // the gauge's acknowledgement
        {v2Answer(27, {0xFF, 0, 0, 0, 1, 0}), 27, 27}, // a PT100 still calibrating
        {v2Answer(27, {0xFF, 0, 7, 0, 0, 0}), 27, 14}, // over: byte 2 does not hold it back
        {v2Answer(25, {0}), 13, 13},
        {v2Answer(18, {0}), 13, 18},
        {v2Answer(99, {0}), 13, 13}, // unknown answers are taken without effect
    };
    for (const auto& step : steps) {
        modul.setCMcmdToSend(static_cast<unsigned char>(step.nextBefore));
        EXPECT_EQ(parse(modul, step.answer), MesV2Modul::RES_OK);
        EXPECT_EQ(modul.getCMcmdToSend(), step.nextAfter);
    }
    EXPECT_EQ(modul.procValues().gaugeCalibChannel, -1);
    EXPECT_EQ(modul.procValues().pt100CalibChannel, 1);
}

// The rest of the cycle runs against the module emulator.
TEST(MesV2StateMachine, NeverConnectedNothingIsSent)
{
    MesV2Modul modul(nullptr);
    modul.rebootMODULE();
    EXPECT_EQ(modul.getCMcmdToSend(), 12);
    EXPECT_EQ(modul.CMstart_FirmUpdate(), 0);
    EXPECT_EQ(modul.CM_sendToTOV(), MesV2Modul::RES_NOT_CONNECTED);
}

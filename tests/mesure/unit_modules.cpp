// The serial layer, the RS-485 link and both module drivers against the module emulator, through
// the unit's real pty "/dev/ttySAC1". Each case runs in a fresh unit whose --module scenario
// CMakeLists.txt gives by test suite name. The emulator writes what it hears and says to
// /run/tovsim/module.log.
#include "mesure/ccomrs485.h"
#include "mesure/mesv1modul.h"
#include "mesure/mesv2modul.h"
#include "mesure/rs232.h"

#include "testfiles.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

// Lines of the emulator's log that begin with kind ("request", "garbled", "answer").
std::vector<std::string> moduleLog(const std::string& kind)
{
    usleep(100000); // the silent module logs what it heard after 20 ms of quiet
    std::istringstream log(tovtest::readText("/run/tovsim/module.log"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(log, line);)
        if (line.compare(0, kind.size() + 1, kind + " ") == 0)
            lines.push_back(line.substr(kind.size() + 1));
    return lines;
}

// The command byte of each V2 request the module heard.
std::vector<std::string> v2Commands()
{
    std::vector<std::string> commands;
    for (const std::string& frame : moduleLog("request"))
        commands.push_back(frame.substr(9, 2));
    return commands;
}

size_t count(const std::string& text, const std::string& part)
{
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++n;
    return n;
}

const float kV1Tolerance = 0.001f;

} // namespace

// --module none
TEST(SerialPort, OpensThePtyWithEachModeAndSends)
{
    ASSERT_EQ(RS232_OpenComport(1, 2400, "8n1"), 0);
    struct termios tio;
    ASSERT_EQ(tcgetattr(Cport[1], &tio), 0);
    EXPECT_EQ(tio.c_cflag & (CSIZE | PARENB | CSTOPB | CLOCAL | CREAD), tcflag_t(CS8 | CLOCAL | CREAD));
    EXPECT_EQ(tio.c_iflag, tcflag_t(IGNPAR));
    EXPECT_EQ(tio.c_lflag, 0u);
    EXPECT_EQ(cfgetospeed(&tio), speed_t(B2400));
    EXPECT_EQ(tio.c_cc[VMIN], 0);
    unsigned char byte = 0;
    EXPECT_EQ(RS232_PollComport(1, &byte, 1), 0); // nothing waiting
    const unsigned char frame[5] = {'h', 'e', 'l', 'l', 'o'};
    EXPECT_EQ(RS232_SendBuf(1, frame, 5), 5);
    EXPECT_EQ(RS232_SendBuf(1, frame, 1), 1);
    EXPECT_EQ(RS232_SendByte(1, '!'), 0);
    RS232_cputs(1, "ab");
    RS232_CloseComport(1);
    EXPECT_EQ(moduleLog("request"), std::vector<std::string>{"68 65 6c 6c 6f 68 21 61 62"});

    // A pty forces 8 bits without parity on its side: the settings written are checked in the
    // layer's own record.
    ASSERT_EQ(RS232_OpenComport(1, 115200, "8E2"), 0);
    EXPECT_EQ(new_port_settings.c_cflag & (CSIZE | PARENB | PARODD | CSTOPB | CLOCAL | CREAD),
              tcflag_t(CS8 | PARENB | CSTOPB | CLOCAL | CREAD));
    EXPECT_EQ(new_port_settings.c_iflag, tcflag_t(INPCK));
    ASSERT_EQ(tcgetattr(Cport[1], &tio), 0);
    EXPECT_EQ(tio.c_iflag, tcflag_t(INPCK));
    EXPECT_EQ(cfgetispeed(&tio), speed_t(B115200));
    RS232_CloseComport(1);
    ASSERT_EQ(RS232_OpenComport(1, 9600, "7o1"), 0);
    EXPECT_EQ(new_port_settings.c_cflag & (CSIZE | PARENB | PARODD | CSTOPB),
              tcflag_t(CS7 | PARENB | PARODD));
    RS232_CloseComport(1);
    // Closing restores what the port had before (the silent module's 9600 baud).
    const int watcher = open("/dev/ttySAC1", O_RDWR | O_NOCTTY | O_NONBLOCK);
    ASSERT_GE(watcher, 0);
    ASSERT_EQ(RS232_OpenComport(1, 2400, "8N1"), 0);
    ASSERT_EQ(tcgetattr(watcher, &tio), 0);
    EXPECT_EQ(cfgetospeed(&tio), speed_t(B2400));
    RS232_CloseComport(1);
    ASSERT_EQ(tcgetattr(watcher, &tio), 0);
    EXPECT_EQ(cfgetospeed(&tio), speed_t(B9600));
    close(watcher);
}

TEST(SerialPort, LinkMessagesWithoutADirectionDevice)
{
    CaptureStdout();
    CComRS485 link;
    EXPECT_EQ(GetCapturedStdout(), "rs485 set ctl to low failed!\r");
    char tx[2] = {'x', 'y'};
    char rx[4];
    CaptureStdout();
    // No try at all: the port opens and closes, nothing goes out.
    EXPECT_EQ(link.sendWaitForRespAuto(9600, tx, 2, rx, 4, 0), -1);
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_FALSE(link.GetComPortOpenStatus());
    CaptureStdout();
    // rxLen 1 asks for nothing: the first try counts as a complete answer.
    EXPECT_EQ(link.sendWaitForRespAuto(9600, tx, 2, rx, 1, 3), 0);
    EXPECT_EQ(GetCapturedStdout(), "rs485 set ctl to high failed!\rrs485 set ctl to low failed!\r");
    EXPECT_EQ(moduleLog("request"), std::vector<std::string>{"78 79"});
    EXPECT_EQ(link.OpenComPort(230400), 0);
    EXPECT_EQ(link.charDelayUs(), 750u);
}

TEST(NoModule, NeitherGenerationIsDetected)
{
    CComRS485 link;
    MesV1Modul v1(&link);
    EXPECT_FALSE(v1.CMV1_initComm());
    EXPECT_EQ(v1.isCMv1connected(), 0);
    EXPECT_EQ(v1.CMv1commCounter(), 1);
    MesV2Modul v2(&link);
    EXPECT_FALSE(v2.CMinit_Comm());
    EXPECT_EQ(v2.isCMconnected(), 0);
    const std::vector<std::string> heard = moduleLog("request");
    ASSERT_EQ(heard.size(), 6u) << tovtest::readText("/run/tovsim/module.log"); // three tries each
    EXPECT_EQ(heard[0], "01 02 39 0d 00");
    EXPECT_EQ(heard[3], "01 01 00 0c 8c c1 0c 00");
}

// --module v1 --module-values 00500,07410,06500,08000,12000
TEST(ModuleV1, DetectedThenReadingsInTheTestStageOrder)
{
    CComRS485 link;
    MesV1Modul v1(&link);
    ASSERT_TRUE(v1.CMV1_initComm());
    EXPECT_EQ(v1.isCMv1connected(), 1);
    EXPECT_EQ(v1.CM1_sendTo(), 1);
    cmV1_datas_t data;
    v1.cfg_getCMv1_Data(&data);
    // "Poids= %1, PR= %2, T_SOR= %3, T_ENT= %4, T_EXT= %5" takes V1 indexes 0, 4, 1, 3, 2.
    EXPECT_FLOAT_EQ(data.values[0], 500.0f);                 // field 1, raw
    EXPECT_FLOAT_EQ(data.values[4], 15.0f);                  // field 5, 12000 uA
    EXPECT_NEAR(data.values[1], 23.333f, kV1Tolerance);     // field 2
    EXPECT_NEAR(data.values[3], 28.376f, kV1Tolerance);     // field 4
    EXPECT_NEAR(data.values[2], 15.556f, kV1Tolerance);     // field 3
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(v1.CMv1sensorError(i), 0);
    EXPECT_EQ(moduleLog("request"),
              std::vector<std::string>(2, "01 02 39 0d 00")); // one try each
    EXPECT_EQ(moduleLog("answer").size(), 2u);
}

TEST(ModuleV1, AnswerFieldsReachTheCaller)
{
    CComRS485 link;
    MesV1Modul v1(&link);
    char f[5][MesV1Modul::FIELD_SIZE];
    memset(f, 'z', sizeof f);
    EXPECT_EQ(v1.acquisition_carteV1(2400, f[0], f[1], f[2], f[3], f[4]), 1);
    EXPECT_STREQ(f[0], "00500");
    EXPECT_STREQ(f[1], "07410");
    EXPECT_STREQ(f[2], "06500");
    EXPECT_STREQ(f[3], "08000");
    EXPECT_STREQ(f[4], "12000");
    // The module only speaks at 2400 baud: at 9600 it hears noise and stays silent.
    EXPECT_EQ(v1.acquisition_carteV1(9600, f[0], f[1], f[2], f[3], f[4]), -4);
    EXPECT_EQ(v1.CMv1commCounter(), 1);
    EXPECT_EQ(moduleLog("garbled").size(), 3u);
}

// --module v1-echo
TEST(ModuleV1Echo, EchoedPollIsNotAModule)
{
    CComRS485 link;
    MesV1Modul v1(&link);
    v1.setCMv1commCounter(5);
    char f[5][MesV1Modul::FIELD_SIZE] = {};
    EXPECT_EQ(v1.acquisition_carteV1(2400, f[0], f[1], f[2], f[3], f[4]), -2);
    EXPECT_EQ(v1.CMv1commCounter(), 5);
    EXPECT_STREQ(f[0], "");
    EXPECT_FALSE(v1.CMV1_initComm());
    EXPECT_EQ(v1.isCMv1connected(), 0);
    EXPECT_EQ(moduleLog("request").size(), 2u);
}

// --module v1-bad-header
TEST(ModuleV1BadHeader, FieldsCopiedButRefused)
{
    CComRS485 link;
    MesV1Modul v1(&link);
    v1.setCMv1commCounter(7);
    char f[5][MesV1Modul::FIELD_SIZE] = {};
    EXPECT_EQ(v1.acquisition_carteV1(2400, f[0], f[1], f[2], f[3], f[4]), -1);
    EXPECT_STREQ(f[1], "07410");
    EXPECT_EQ(v1.CMv1commCounter(), 0);
    EXPECT_FALSE(v1.CMV1_initComm());
    EXPECT_EQ(v1.CM1_sendTo(), -1);
    EXPECT_FLOAT_EQ(v1.CMv1_getMesureValue(1), 0.0f);
}

// --module v1-init-only
TEST(ModuleV1InitOnly, DetectedButTheExchangeFails)
{
    CComRS485 link;
    MesV1Modul v1(&link);
    ASSERT_TRUE(v1.CMV1_initComm());
    const int result = v1.CM1_sendTo();
    EXPECT_EQ(result, MesV1Modul::RES_NO_ANSWER);
    EXPECT_NE(result, 1);
    EXPECT_EQ(v1.CMv1commCounter(), 1);
    EXPECT_EQ(v1.isCMv1connected(), 1); // still connected: V2 is not tried after this
    EXPECT_EQ(moduleLog("request").size(), 4u);
    EXPECT_EQ(moduleLog("answer").size(), 1u);
}

// --module v1-cut
TEST(ModuleV1Cut, ShortAnswerIsAWrongLength)
{
    CComRS485 link;
    MesV1Modul v1(&link);
    EXPECT_EQ(v1.CM1_sendTo(), MesV1Modul::RES_BAD_LENGTH);
    EXPECT_EQ(v1.CMv1commCounter(), 0);
    EXPECT_EQ(v1.isCMv1connected(), 0);
}

// --module v2 --module-version 3.25 --module-values 125.5,12.25,21.5,35.75,8.5,1.5,-2.5
TEST(ModuleV2, TestStageFindsNoV1ThenTheV2WithItsVersionAndReadings)
{
    CComRS485 link;
    MesV1Modul v1(&link);
    EXPECT_FALSE(v1.CMV1_initComm());
    EXPECT_EQ(v1.isCMv1connected(), 0);
    MesV2Modul v2(&link);
    ASSERT_TRUE(v2.CMinit_Comm());
    EXPECT_FLOAT_EQ(v2.getCFG_struct(114).valueAsFloat(), 3.25f);
    EXPECT_EQ(v2.CM_sendTo(13), 0);
    cm_datas_t data;
    v2.cfg_getCM_Data(&data);
    // "Poids= %1, PR= %2, T_SOR= %3, T_ENT= %4, T_EXT= %5" takes V2 indexes 0, 1, 3, 2, 4.
    EXPECT_FLOAT_EQ(data.values[0], 125.5f);
    EXPECT_FLOAT_EQ(data.values[1], 12.25f);
    EXPECT_FLOAT_EQ(data.values[3], 35.75f);
    EXPECT_FLOAT_EQ(data.values[2], 21.5f);
    EXPECT_FLOAT_EQ(data.values[4], 8.5f);
    EXPECT_FLOAT_EQ(data.values[6], -2.5f);
    EXPECT_FALSE(v2.CMinit_Comm()); // already connected
    EXPECT_EQ(moduleLog("garbled"), std::vector<std::string>(3, "01 02 39 0d 00"));
    EXPECT_EQ(moduleLog("request"),
              (std::vector<std::string>{"01 01 00 0c 8c c1 0c 00", "01 01 00 0d ad d1 0d 00"}));
}

TEST(ModuleV2, ConfiguredModuleGivesItsConfigurationToANewUnit)
{
    CComRS485 link;
    MesV2Modul v2(&link);
    ASSERT_TRUE(v2.CMinit_Comm());
    CaptureStdout();
    EXPECT_TRUE(v2.CMcheckIfConfiged());
    const std::string out = GetCapturedStdout();
    EXPECT_EQ(count(out, " +++ CMv2_Receive Config from Modul for new TOV OK\n"), 1u) << out;
    EXPECT_EQ(v2.isCMconfigured(), 1);
    EXPECT_EQ(v2.getCFG_struct(117).iValue, 3);
    EXPECT_FLOAT_EQ(v2.getCFG_struct(118).value.f, 18.5f);
    EXPECT_FLOAT_EQ(v2.getCFG_struct(121).value.f, 25.0f);
    EXPECT_EQ(v2.getCMcmdToSend(), 13);
    // Both configured now: nothing more to exchange.
    EXPECT_TRUE(v2.CMcheckIfConfiged());
    EXPECT_EQ(v2Commands(), (std::vector<std::string>{"0c", "0e"}));
}

TEST(ModuleV2, CycleRunsACalibrationThroughToTheConfiguration)
{
    CComRS485 link;
    MesV2Modul v2(&link);
    ASSERT_TRUE(v2.CMinit_Comm());
    EXPECT_EQ(v2.CM_sendToTOV(), 0);
    EXPECT_EQ(v2.lastCommandSent(), 13);
    EXPECT_FLOAT_EQ(v2.CM_getMesureValue(0), 125.5f);
    v2.sendCalibPT100(1);
    EXPECT_EQ(v2.CM_sendToTOV(), 0); // 22, acknowledged by 25
    EXPECT_EQ(v2.getCMcmdToSend(), 27);
    EXPECT_EQ(v2.procValues().pt100CalibChannel, -1);
    EXPECT_EQ(v2.CM_sendToTOV(), 0); // 27: calibration finished
    EXPECT_EQ(v2.getCMcmdToSend(), 14);
    EXPECT_EQ(v2.CM_sendToTOV(), 0); // 14, then back to the data
    EXPECT_EQ(v2.getCMcmdToSend(), 13);
    EXPECT_EQ(v2.isCMconnected(), 1);
    EXPECT_EQ(v2Commands(), (std::vector<std::string>{"0c", "0d", "16", "1b", "0e"}));
}

TEST(ModuleV2, RefusedCommandsLeaveTheBusSilent)
{
    CComRS485 link;
    MesV2Modul v2(&link);
    EXPECT_EQ(v2.CM_sendTo(23), 0);
    v2.sendCalibPT100(4);
    EXPECT_EQ(v2.CM_sendTo(22), 0);
    v2.sendCalibJauge(3);
    EXPECT_EQ(v2.CM_sendTo(19), 0);
    EXPECT_TRUE(moduleLog("request").empty());
    // 25 goes out but gets no answer to check: -2 by construction.
    EXPECT_EQ(v2.CM_sendTo(25), -2);
    EXPECT_EQ(v2Commands(), std::vector<std::string>{"19"});
}

TEST(ModuleV2, FirmwareUpdateDisconnects)
{
    CComRS485 link;
    MesV2Modul v2(&link);
    ASSERT_TRUE(v2.CMinit_Comm());
    EXPECT_EQ(v2.CMstart_FirmUpdate(), 1);
    EXPECT_EQ(v2.isCMconnected(), 0);
    EXPECT_EQ(v2.getCMcmdToSend(), 12);
    EXPECT_EQ(v2.lastCommandSent(), 12);
    EXPECT_EQ(v2.CMcommCounter(), 0);
    EXPECT_EQ(v2Commands(), (std::vector<std::string>{"0c", "12"}));
}

// --module v2-faulty
TEST(ModuleV2Faulty, MarkersReachTheTestStageAndFlagAfterSixtySixPolls)
{
    CComRS485 link;
    MesV2Modul v2(&link);
    ASSERT_TRUE(v2.CMinit_Comm());
    ASSERT_EQ(v2.CM_sendTo(13), 0);
    cm_datas_t data;
    v2.cfg_getCM_Data(&data);
    // The test stage compares exactly: weight -999.0, the others 999.0.
    EXPECT_TRUE(data.values[0] == -999.0f);
    EXPECT_TRUE(data.values[1] == 999.0f);
    EXPECT_TRUE(data.values[3] == 999.0f);
    EXPECT_TRUE(data.values[2] == 999.0f);
    EXPECT_TRUE(data.values[4] == 999.0f);
    for (int poll = 1; poll <= 65; ++poll)
        ASSERT_EQ(v2.CM_sendToTOV(), 0) << poll;
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(v2.CM_sensorError(i), 0) << i;
    EXPECT_EQ(v2.procValues().markerCounter[0], 65);
    ASSERT_EQ(v2.CM_sendToTOV(), 0);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(v2.CM_sensorError(i), 1) << i;
    EXPECT_EQ(v2.CM_sensorError(5), 0);
    EXPECT_EQ(v2.procValues().markerCounter[4], -1);
}

// --module v2-unconfigured
TEST(ModuleV2Unconfigured, ConfiguredUnitPushesItsConfiguration)
{
    CComRS485 link;
    MesV2Modul v2(&link);
    int configured = 1;
    float setting = 42.5f;
    v2.setCFG_struct(116, &configured);
    v2.setCFG_struct(121, &setting);
    ASSERT_TRUE(v2.CMinit_Comm());
    EXPECT_EQ(v2.procValues().module.configured, 0);
    CaptureStdout();
    EXPECT_TRUE(v2.CMcheckIfConfiged());
    const std::string out = GetCapturedStdout();
    EXPECT_EQ(count(out, " +++ CMv2_Send Config from TOV to new Modul OK\n"), 1u) << out;
    // Read back what the module now holds.
    MesV2Modul fresh(&link);
    ASSERT_TRUE(fresh.CMinit_Comm());
    EXPECT_EQ(fresh.CM_sendTo(14), 0);
    EXPECT_FLOAT_EQ(fresh.getCFG_struct(121).value.f, 42.5f);
    EXPECT_EQ(fresh.isCMconfigured(), 1);
    EXPECT_EQ(v2Commands(), (std::vector<std::string>{"0c", "0f", "0c", "0e"}));
}

TEST(ModuleV2Unconfigured, NothingToExchangeBetweenTwoNewcomers)
{
    CComRS485 link;
    MesV2Modul v2(&link);
    ASSERT_TRUE(v2.CMinit_Comm());
    CaptureStdout();
    EXPECT_TRUE(v2.CMcheckIfConfiged());
    EXPECT_EQ(count(GetCapturedStdout(), "+++"), 0u);
    EXPECT_EQ(v2Commands(), std::vector<std::string>{"0c"});
}

// --module v2-cut
TEST(ModuleV2Cut, ShortAnswersAreNotAConnection)
{
    CComRS485 link;
    MesV2Modul v2(&link);
    EXPECT_FALSE(v2.CMinit_Comm());
    EXPECT_EQ(v2.isCMconnected(), 0);
    EXPECT_EQ(moduleLog("answer").size(), 3u);
}

// --module noise
TEST(LineNoise, DriversStayStandingAndFindNothing)
{
    CComRS485 link;
    MesV1Modul v1(&link);
    EXPECT_FALSE(v1.CMV1_initComm());
    MesV2Modul v2(&link);
    EXPECT_FALSE(v2.CMinit_Comm());
    EXPECT_NE(v2.CM_sendTo(13), 0);
    EXPECT_EQ(v2.isCMconnected(), 0);
    EXPECT_FLOAT_EQ(v2.CM_getMesureValue(0), 0.0f);
    EXPECT_GE(moduleLog("answer").size(), 3u);
}

// The serial layer, the RS-485 link and both module drivers against the module emulator on the
// unit's pty "/dev/ttySAC1", with the unit's direction device "/dev/rs485_Ctrl". Each case runs in
// a fresh unit with the options CMakeLists.txt gives its suite (and, in the tables, its row). The
// emulator logs what it hears and says to /run/tovsim/module.log; the direction device journals
// its requests and the port's writes and drains to /run/tovsim/rs485.journal.
#include "mesure/ccomrs485.h"
#include "mesure/mesv1modul.h"
#include "mesure/mesv2modul.h"
#include "mesure/rs232.h"

#include "testfiles.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mount.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using Lines = std::vector<std::string>;

namespace {

const std::string kModuleLog = "/run/tovsim/module.log", kJournal = "/run/tovsim/rs485.journal";

// Lines of the emulator's log that begin with kind ("request", "garbled", "answer").
Lines moduleLog(const std::string& kind)
{
    usleep(100000); // the silent module logs what it heard after 20 ms of quiet
    std::istringstream log(tovtest::readText(kModuleLog));
    Lines lines;
    for (std::string line; std::getline(log, line);)
        if (line.compare(0, kind.size() + 1, kind + " ") == 0)
            lines.push_back(line.substr(kind.size() + 1));
    return lines;
}

// The command byte of each V2 request the module heard.
Lines v2Commands()
{
    Lines commands;
    for (const std::string& frame : moduleLog("request"))
        commands.push_back(frame.substr(9, 2));
    return commands;
}

// One request as the direction device sees it: transmitter on, the bytes, the drain, receiver on.
std::string exchange(const std::string& hex)
{
    return "TX\nwrite " + hex + "\ndrain\nRX\n";
}

// Seconds on the unit's clock, which --clock-speed speeds up for this process too.
double unitNow()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec) + now.tv_nsec / 1e9;
}

// A table row's name as the test's.
const auto rowName = [](const auto& info) { return std::string(info.param.name); };

// A V2 driver on the unit's link, as the test stage makes one.
class V2Link : public testing::Test {
protected:
    CComRS485 link;
    MesV2Modul v2{&link};
};

} // namespace

// --module none
TEST(SerialPort, OpensThePtyInEachModeRestoresItAtCloseAndSendsWithADrain)
{
    const struct { int baud; const char* mode; speed_t speed; tcflag_t cflag, iflag; } modes[] = {
        {2400, "8n1", B2400, CS8, IGNPAR},
        {115200, "8E2", B115200, CS8 | PARENB | CSTOPB, INPCK},
        {9600, "7o1", B9600, CS7 | PARENB | PARODD, INPCK},
    };
    for (const auto& m : modes) {
        ASSERT_EQ(RS232_OpenComport(1, m.baud, m.mode), 0) << m.mode;
        // A pty keeps 8 bits without parity on its side: the layer's own record shows the rest.
        EXPECT_EQ(new_port_settings.c_cflag & (CSIZE | PARENB | PARODD | CSTOPB | CLOCAL | CREAD),
                  m.cflag | CLOCAL | CREAD) << m.mode;
        EXPECT_EQ(new_port_settings.c_iflag, m.iflag) << m.mode;
        termios tio;
        ASSERT_EQ(tcgetattr(Cport[1], &tio), 0);
        EXPECT_EQ(cfgetospeed(&tio), m.speed) << m.mode;
        RS232_CloseComport(1);
    }
    // Closed, the port has what it had before: the 9600 baud the silent module set on its side.
    termios tio;
    const int other = open("/dev/ttySAC1", O_RDWR | O_NOCTTY | O_NONBLOCK);
    ASSERT_EQ(tcgetattr(other, &tio), 0);
    EXPECT_EQ(cfgetospeed(&tio), speed_t(B9600));
    close(other);
    ASSERT_EQ(RS232_OpenComport(1, 2400, "8N1"), 0);
    unsigned char byte = 0;
    EXPECT_EQ(RS232_PollComport(1, &byte, 1), 0); // nothing waiting
    const unsigned char frame[5] = {'h', 'e', 'l', 'l', 'o'};
    EXPECT_EQ(RS232_SendBuf(1, frame, 5), 5);
    EXPECT_EQ(RS232_SendBuf(1, frame, 1), 1);
    EXPECT_EQ(RS232_SendByte(1, '!'), 0);
    RS232_cputs(1, "ab");
    EXPECT_EQ(tovtest::readText(kJournal),
              "write 68 65 6c 6c 6f\ndrain\nwrite 68\ndrain\nwrite 21\ndrain\nwrite 61\ndrain\nwrite 62\ndrain\n");
    RS232_CloseComport(1);
    EXPECT_EQ(moduleLog("request"), Lines{"68 65 6c 6c 6f 68 21 61 62"});
}

TEST(Rs485Link, WithoutItsDirectionDeviceTheLinkSaysSoAndStillTransfers)
{
    ASSERT_EQ(umount2(CComRS485::CTRL_DEVICE, MNT_DETACH), 0);
    ASSERT_EQ(unlink(CComRS485::CTRL_DEVICE), 0);
    CaptureStdout();
    CComRS485 link;
    char tx[2] = {'x', 'y'}, rx[4];
    EXPECT_EQ(link.sendWaitForRespAuto(9600, tx, 2, rx, 4, 0), -1); // no try: nothing goes out
    // rxLen 1 asks for nothing: the first try counts as a whole answer.
    EXPECT_EQ(link.sendWaitForRespAuto(9600, tx, 2, rx, 1, 3), 0);
    EXPECT_EQ(GetCapturedStdout(),
              "Open /dev/rs485_Ctrl faild\nrs485 set ctl to high failed!\rrs485 set ctl to low failed!\r");
    EXPECT_FALSE(link.GetComPortOpenStatus());
    EXPECT_EQ(moduleLog("request"), Lines{"78 79"});
    EXPECT_EQ(tovtest::readText(kJournal), "write 78 79\ndrain\n");
}

// --module none --clock-speed 10
TEST(Rs485Deadline, ASilentModuleIsGivenUpOneAndAHalfSecondsAfterTheRequest)
{
    CComRS485 link;
    char poll[5] = {0x01, 0x02, 0x39, 0x0D, 0x00}, rx[34];
    const double start = unitNow();
    EXPECT_EQ(link.sendWaitForRespAuto(2400, poll, 5, rx, 34, 1), 0);
    const double waited = unitNow() - start;
    EXPECT_GE(waited, 1.5);
    EXPECT_LT(waited, 2.0);
}

// One unit per scenario (--module SCENARIO --clock-speed 10): the V1 probe of the test stage,
// then one poll cycle, after 63 failed exchanges: two more lose the module. Every try is framed
// alike by the direction device, answered or not.
struct V1Case {
    const char* name; // the scenario, '_' for '-'
    bool found;
    int result, counter, state;
    size_t polls; // heard by the module: 1 per answered try, 3 per failed exchange
};
const V1Case kV1Cases[] = {
    {"none", false, MesV1Modul::RES_NO_ANSWER, 65, 2, 6},
    {"v1", true, MesV1Modul::RES_OK, 0, 1, 2},
    {"v1_echo", false, MesV1Modul::RES_ECHO, 63, 0, 2},
    {"v1_bad_header", false, MesV1Modul::RES_BAD_HEADER, 0, 0, 2},
    {"v1_init_only", true, MesV1Modul::RES_NO_ANSWER, 1, 1, 4},
    {"v1_cut", false, MesV1Modul::RES_BAD_LENGTH, 63, 0, 6},
};
class ModuleV1Exchange : public testing::TestWithParam<V1Case> {};

TEST_P(ModuleV1Exchange, ProbeThenOneCycle)
{
    const V1Case* c = &GetParam();
    CComRS485 link;
    MesV1Modul v1(&link);
    v1.setCMv1commCounter(63);
    EXPECT_EQ(v1.CMV1_initComm(), c->found);
    EXPECT_EQ(v1.CM1_sendTo(), c->result);
    EXPECT_EQ(v1.CMv1commCounter(), c->counter);
    EXPECT_EQ(v1.isCMv1connected(), c->state);
    EXPECT_EQ(moduleLog("request"), Lines(c->polls, "01 02 39 0d 00")) << tovtest::readText(kModuleLog);
    std::string tries = "RX\n";
    for (size_t i = 0; i < c->polls; ++i)
        tries += exchange("01 02 39 0d 00");
    EXPECT_EQ(tovtest::readText(kJournal), tries);
    // The emulator's fields 00500,07410,...: weight first, then the temperatures from 7410 counts.
    EXPECT_EQ(v1.CMv1_getMesureValue(0), c->result == MesV1Modul::RES_OK ? 500.0f : 0.0f);
    EXPECT_NEAR(v1.CMv1_getMesureValue(1), c->result == MesV1Modul::RES_OK ? 23.333f : 0.0f, 0.001f);
}
INSTANTIATE_TEST_SUITE_P(Scenario, ModuleV1Exchange, testing::ValuesIn(kV1Cases), rowName);

// --module v2 --module-version 3.25 --module-values 125.5,12.25,21.5,35.75,8.5,1.5,-2.5
// --clock-speed 10
using ModuleV2 = V2Link;

TEST_F(ModuleV2, FoundAfterTheV1ProbeWithItsVersionAndValues)
{
    EXPECT_FALSE(MesV1Modul(&link).CMV1_initComm());
    ASSERT_TRUE(v2.CMinit_Comm());
    EXPECT_FALSE(v2.CMinit_Comm()); // already connected
    EXPECT_EQ(v2.getCFG_struct(114).valueAsFloat(), 3.25f);
    EXPECT_EQ(v2.CM_sendTo(MesV2Modul::CMD_DATA), MesV2Modul::RES_OK);
    const float expected[7] = {125.5f, 12.25f, 21.5f, 35.75f, 8.5f, 1.5f, -2.5f};
    for (int i = 0; i < 7; ++i)
        EXPECT_EQ(v2.CM_getMesureValue(i), expected[i]) << i;
    // A module at 9600 baud hears the 2400-baud probe as noise and keeps quiet.
    EXPECT_EQ(moduleLog("garbled"), Lines(3, "01 02 39 0d 00"));
    EXPECT_EQ(moduleLog("request"), (Lines{"01 01 00 0c 8c c1 0c 00", "01 01 00 0d ad d1 0d 00"}));
    const std::string probe = exchange("01 02 39 0d 00");
    EXPECT_EQ(tovtest::readText(kJournal), "RX\n" + probe + probe + probe + exchange("01 01 00 0c 8c c1 0c 00")
                             + exchange("01 01 00 0d ad d1 0d 00"));
}

// A session: the configuration of a configured module for the new unit, a PT100 calibration (22
// acknowledged by 25, 27 finds it over, 14 reads the configuration, then data), a reboot, after
// which the same cycle connects again, and a firmware update.
TEST_F(ModuleV2, ConfigurationCalibrationRebootAndFirmwareUpdate)
{
    ASSERT_TRUE(v2.CMinit_Comm());
    CaptureStdout();
    EXPECT_TRUE(v2.CMcheckIfConfiged());
    EXPECT_TRUE(v2.CMcheckIfConfiged()); // both configured now: nothing more to exchange
    EXPECT_EQ(GetCapturedStdout(), " +++ CMv2_Receive Config from Modul for new TOV OK\n");
    EXPECT_EQ(v2.isCMconfigured(), 1);
    EXPECT_EQ(v2.getCFG_struct(118).value.f, 18.5f);
    v2.sendCalibPT100(1);
    for (int next : {27, 14, 13, 13}) {
        EXPECT_EQ(v2.CM_sendToTOV(), MesV2Modul::RES_OK);
        EXPECT_EQ(v2.getCMcmdToSend(), next);
    }
    v2.rebootMODULE();
    EXPECT_EQ(v2.CM_sendToTOV(), MesV2Modul::RES_OK);
    EXPECT_EQ(v2.isCMconnected(), 1);
    // 25 gets no answer, so it can never pass the check of one.
    EXPECT_EQ(v2.CM_sendTo(MesV2Modul::CMD_ACK), MesV2Modul::RES_BAD_ANSWER);
    EXPECT_EQ(v2.CMstart_FirmUpdate(), 1);
    EXPECT_EQ(v2.isCMconnected(), 0);
    EXPECT_EQ(v2.getCMcmdToSend(), 12);
    EXPECT_EQ(v2.lastCommandSent(), 12);
    EXPECT_EQ(v2Commands(), (Lines{"0c", "0e", "16", "1b", "0e", "0d", "10", "0c", "19", "12"}));
}

// --module v2 ... --clock-speed 30. Command 23 is refused without a word on the bus: from the
// connection on, the module hears nothing, while each cycle still consults the watchdog.
using ModuleV2Watchdog = V2Link;

TEST_F(ModuleV2Watchdog, MoreThan180SecondsWithoutAnAnswerDisconnectsThenReconnects)
{
    ASSERT_TRUE(v2.CMinit_Comm());
    const double answered = unitNow();
    std::string printed;
    // Silence at the start of the last cycle that kept quiet, and at the end of the one that spoke:
    // a stalled machine may stretch a cycle, but not move the watchdog out of these bounds.
    double quietStart = 0, firedEnd = 0;
    while (printed.find("Reconnecte") == std::string::npos && unitNow() - answered < 400) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        v2.setCMcmdToSend(23);
        const double start = unitNow() - answered;
        CaptureStdout();
        v2.CM_sendToTOV();
        printed += GetCapturedStdout();
        if (printed.empty())
            quietStart = start;
        else if (firedEnd == 0)
            firedEnd = unitNow() - answered;
    }
    // A reconnection the loaded machine made late would come a cycle after: still one line each.
    EXPECT_EQ(printed, "MESUREv2 Deconnecte via WATCHDOG, erreur RS485\nMESUREv2 Reconnecte via WATCHDOG, OK\n");
    EXPECT_GT(firedEnd, 179.9);
    EXPECT_LT(quietStart, 182.0);
    EXPECT_EQ(v2.isCMconnected(), 1);
}

// One unit per sensor: --module v2 ... --module-fault SENSOR --clock-speed 10.
struct Fault {
    const char* name; // the sensor
    int index;
    float marker;
};
const Fault kFaults[] = {
    {"weight", 0, MesV2Modul::MARKER_WEIGHT}, {"pressure", 1, MesV2Modul::MARKER_SENSOR},
    {"inlet", 2, MesV2Modul::MARKER_SENSOR},  {"outlet", 3, MesV2Modul::MARKER_SENSOR},
    {"outside", 4, MesV2Modul::MARKER_SENSOR},
};
class ModuleV2Fault : public V2Link, public testing::WithParamInterface<Fault> {};

TEST_P(ModuleV2Fault, OnlyThatSensorReadsFaultyAndIsFlaggedAtTheSixtySixthPoll)
{
    const Fault* f = &GetParam();
    ASSERT_TRUE(v2.CMinit_Comm());
    ASSERT_EQ(v2.CM_sendTo(MesV2Modul::CMD_DATA), MesV2Modul::RES_OK);
    const float healthy[5] = {125.5f, 12.25f, 21.5f, 35.75f, 8.5f};
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(v2.CM_getMesureValue(i), i == f->index ? f->marker : healthy[i]) << i;
    std::string flags, expected = "00000 00000 ";
    expected[6 + f->index] = '1';
    for (int poll = 1; poll <= 66; ++poll) {
        ASSERT_EQ(v2.CM_sendToTOV(), MesV2Modul::RES_OK);
        for (int i = 0; poll >= 65 && i <= 5; ++i)
            flags += i < 5 ? static_cast<char>('0' + v2.CM_sensorError(i)) : ' ';
    }
    EXPECT_EQ(flags, expected);
}
INSTANTIATE_TEST_SUITE_P(Sensor, ModuleV2Fault, testing::ValuesIn(kFaults), rowName);

// --module v2-unconfigured --clock-speed 10
using ModuleV2Unconfigured = V2Link;

TEST_F(ModuleV2Unconfigured, NothingPassesBetweenNewcomersAConfiguredUnitPushesItsConfiguration)
{
    MesV2Modul fresh(&link);
    ASSERT_TRUE(v2.CMinit_Comm());
    CaptureStdout();
    EXPECT_TRUE(v2.CMcheckIfConfiged());
    // By identifier, each in its place in the record: 116 and 117 as bytes, 121 a float, 129 an int.
    int configured = 1, setting117 = 7, setting129 = 4800;
    float setting121 = 42.5f;
    v2.setCFG_struct(116, &configured);
    v2.setCFG_struct(117, &setting117);
    v2.setCFG_struct(121, &setting121);
    v2.setCFG_struct(129, &setting129);
    EXPECT_TRUE(v2.CMcheckIfConfiged());
    EXPECT_EQ(GetCapturedStdout(), " +++ CMv2_Send Config from TOV to new Modul OK\n");
    // What the module holds now.
    ASSERT_TRUE(fresh.CMinit_Comm());
    EXPECT_EQ(fresh.CM_sendTo(MesV2Modul::CMD_READ_CONFIG), MesV2Modul::RES_OK);
    EXPECT_EQ(fresh.isCMconfigured(), 1);
    EXPECT_EQ(fresh.getCFG_struct(117).iValue, 7);
    EXPECT_EQ(fresh.getCFG_struct(121).value.f, 42.5f);
    EXPECT_EQ(fresh.getCFG_struct(129).iValue2, 4800);
    EXPECT_EQ(v2Commands(), (Lines{"0c", "0f", "0c", "0e"}));
}

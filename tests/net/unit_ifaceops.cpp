// Carriers, probes, addresses and flags of the simulated unit's real interfaces: eth0 cabled to
// the server side (192.0.2.10, port 22 open), wlan0 present without a link.
#include "net/ifaceops.h"

#include "tests/support/testfiles.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/ip.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

namespace {

const char* const SERVER = "192.0.2.10";
// In the unit's subnet, but nobody answers there.
const char* const NOBODY = "192.0.2.99";

void sh(const std::string& command)
{
    ASSERT_EQ(0, system(command.c_str())) << command;
}

std::string trimmed(std::string text)
{
    while (!text.empty() && isspace(static_cast<unsigned char>(text.back())))
        text.pop_back();
    return text;
}

double secondsOf(void (*probe)(int&), int& result)
{
    auto start = std::chrono::steady_clock::now();
    probe(result);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

TEST(Carrier, CablePluggedReadsOne)
{
    EXPECT_EQ(1, isETH0_Cable_Plugged());
}

TEST(Carrier, CablePulledAndPutBackWhileRunning)
{
    sh("/run/tovsim/cable unplugged");
    EXPECT_EQ(0, isETH0_Cable_Plugged());
    sh("/run/tovsim/cable plugged");
    EXPECT_EQ(1, isETH0_Cable_Plugged());
}

TEST(Carrier, UnreadableCarrierOfADownEth0ReadsZero)
{
    sh("ip link set eth0 down");
    EXPECT_EQ(0, isETH0_Cable_Plugged());
}

TEST(Carrier, NoCarrierFileReadsZero)
{
    sh("ip link del eth0");
    ASSERT_NE(0, access("/sys/class/net/eth0/carrier", F_OK));
    EXPECT_EQ(0, isETH0_Cable_Plugged());
}

TEST(Carrier, CableUnpluggedAtStartReadsZero)
{
    EXPECT_EQ(0, isETH0_Cable_Plugged());
    EXPECT_EQ("0", trimmed(tovtest::readText("/sys/class/net/eth0/carrier")));
}

TEST(Wifi, DonglePresentWithoutLinkIsStarted)
{
    ASSERT_EQ("0", trimmed(tovtest::readText("/sys/class/net/wlan0/carrier")));
    EXPECT_EQ(1, isWifi_Started());
}

TEST(Wifi, DongleRemovedIsNotStarted)
{
    sh("ip link del wlan0");
    EXPECT_EQ(0, isWifi_Started());
}

TEST(Wifi, NoDongleAtStartIsNotStarted)
{
    EXPECT_EQ(0, isWifi_Started());
    EXPECT_EQ(1, isETH0_Cable_Plugged());
}

TEST(CheckInternet, ServerPortOpen)
{
    CaptureStderr();
    EXPECT_EQ(1, checkInternet_Status(SERVER, "22"));
    EXPECT_EQ("", GetCapturedStderr());
}

TEST(CheckInternet, ClosedPortReportsThroughPerror)
{
    CaptureStderr();
    EXPECT_EQ(0, checkInternet_Status(SERVER, "23"));
    EXPECT_EQ("192.0.2.10: Connection refused\n", GetCapturedStderr());
}

TEST(CheckInternet, UnknownServiceFailsSilently)
{
    CaptureStderr();
    CaptureStdout();
    EXPECT_EQ(0, checkInternet_Status(SERVER, "no-such-service"));
    EXPECT_EQ("", GetCapturedStdout());
    EXPECT_EQ("", GetCapturedStderr());
}

TEST(CheckInternet, ServerDownIsZero)
{
    CaptureStderr();
    EXPECT_EQ(0, checkInternet_Status(SERVER, "22"));
    EXPECT_EQ("192.0.2.10: No route to host\n", GetCapturedStderr());
}

TEST(CheckInternet, CableUnpluggedIsZero)
{
    CaptureStderr();
    EXPECT_EQ(0, checkInternet_Status(SERVER, "22"));
    EXPECT_NE("", GetCapturedStderr());
}

TEST(CheckIp, OpenPort)
{
    CaptureStdout();
    EXPECT_EQ(1, if_check_ip(SERVER, "22"));
    EXPECT_EQ("Connection to 192.0.2.10:22 OK\n", GetCapturedStdout());
}

TEST(CheckIp, ClosedPortOfALiveHost)
{
    CaptureStdout();
    EXPECT_EQ(2, if_check_ip(SERVER, "23"));
    EXPECT_EQ("Connection to 192.0.2.10:23 OK but Port NOT respond!\n", GetCapturedStdout());
}

TEST(CheckIp, UnreachableAddressGivesUpAfterTwoSeconds)
{
    int result = -1;
    CaptureStdout();
    double seconds = secondsOf([](int& r) { r = if_check_ip(NOBODY, "22"); }, result);
    EXPECT_EQ(0, result);
    EXPECT_EQ("NO Network/Server Connection!\n", GetCapturedStdout());
    EXPECT_GE(seconds, 1.9);
    EXPECT_LT(seconds, 5.0);
}

TEST(CheckIp, ServerDownGivesZero)
{
    CaptureStdout();
    EXPECT_EQ(0, if_check_ip(SERVER, "22"));
    EXPECT_EQ("NO Network/Server Connection!\n", GetCapturedStdout());
}

TEST(Ping, LoopbackAcceptsItsOwnEchoRequest)
{
    CaptureStdout();
    EXPECT_EQ(1, if_ping("127.0.0.1"));
    EXPECT_EQ("Reply 8\n", GetCapturedStdout());
}

TEST(Ping, ServerAnswers)
{
    CaptureStdout();
    EXPECT_EQ(1, if_ping(SERVER));
    EXPECT_EQ("Reply 0\n", GetCapturedStdout());
}

TEST(Ping, NobodyAnswersIsMinusOne)
{
    CaptureStdout();
    EXPECT_EQ(-1, if_ping(NOBODY));
    EXPECT_EQ("", GetCapturedStdout());
}

TEST(Ping, PacketOnTheWire)
{
    // An independent raw socket sees the request as it crosses the loopback.
    int watcher = socket(AF_INET, SOCK_RAW, IPPROTO_ICMP);
    ASSERT_GE(watcher, 0);
    CaptureStdout();
    ASSERT_EQ(1, if_ping("127.0.0.1"));
    GetCapturedStdout();
    struct pollfd pfd = {watcher, POLLIN, 0};
    ASSERT_EQ(1, poll(&pfd, 1, 2000));
    unsigned char packet[512];
    ssize_t count = recv(watcher, packet, sizeof packet, 0);
    close(watcher);
    int hlen = (packet[0] & 0x0F) * 4;
    ASSERT_EQ(hlen + 64, count);
    const unsigned char* icmp = packet + hlen;

    unsigned char expected[64] = {8, 0, 0, 0, 0, 0};
    const unsigned short sequence = 1; // host order, as the unit has always sent it
    memcpy(expected + 6, &sequence, 2);
    for (int i = 16; i < 64; ++i)
        expected[i] = static_cast<unsigned char>(i - 8);
    // RFC 1071 checksum computed here, independently of in_cksum.
    uint32_t sum = 0;
    for (int i = 0; i < 64; i += 2)
        sum += static_cast<uint32_t>(expected[i] << 8 | expected[i + 1]);
    while (sum >> 16)
        sum = (sum & 0xFFFF) + (sum >> 16);
    expected[2] = static_cast<unsigned char>(~sum >> 8);
    expected[3] = static_cast<unsigned char>(~sum);

    EXPECT_EQ(0, memcmp(expected, icmp, 64));
    EXPECT_EQ(0, memcmp(expected, outpack, 64));
}

TEST(Ifconfig, RunsTheCommandAndReturnsItsStatus)
{
    EXPECT_EQ(0, IFCONFIG_DOWN("wlan0"));
    EXPECT_EQ(0, IFCONFIG_UP("eth0"));
    EXPECT_EQ("/sbin/ifconfig wlan0 down\n/sbin/ifconfig eth0 up\n", tovtest::unitJournal());
}

TEST(Readers, AddressMaskOfEth0)
{
    EXPECT_EQ(inet_addr("192.0.2.2"), if_get_addr("eth0"));
    EXPECT_EQ(inet_addr("255.255.255.0"), if_get_mask("eth0"));
    EXPECT_EQ("192.0.2.2", if_getKernel_IfaceInfo("eth0", 0));
    EXPECT_EQ("255.255.255.0", if_getKernel_IfaceInfo("eth0", 1));
    EXPECT_EQ("192.0.2.10", if_getKernel_IfaceInfo("eth0", 2));
    EXPECT_EQ("0.0.0.0", if_getKernel_IfaceInfo("eth0", 3));
}

TEST(Readers, FailuresReadAsZero)
{
    CaptureStdout();
    CaptureStderr();
    EXPECT_EQ(0u, if_get_addr("wlan0")); // no address
    EXPECT_EQ("0.0.0.0", if_getKernel_IfaceInfo("nosuch0", 0));
    EXPECT_EQ("0.0.0.0", if_getKernel_IfaceInfo("nosuch0", 1));
    EXPECT_EQ("0.0.0.0", if_getKernel_IfaceInfo("wlan0", 2));
    EXPECT_EQ("", GetCapturedStdout());
    EXPECT_EQ("", GetCapturedStderr());
}

TEST(Readers, MacAddressOfEachInterface)
{
    for (const char* name : {"eth0", "wlan0"}) {
        std::string expected = trimmed(tovtest::readText(std::string("/sys/class/net/") + name + "/address"));
        std::transform(expected.begin(), expected.end(), expected.begin(),
                       [](unsigned char c) { return static_cast<char>(toupper(c)); });
        ASSERT_EQ(17u, expected.size());
        EXPECT_EQ(expected, get_iface_macAddr(name)) << name;
    }
    sh("ip link set eth0 address 02:0a:bc:00:ff:01");
    EXPECT_EQ("02:0A:BC:00:FF:01", get_iface_macAddr("eth0"));
    unsigned char mac[6];
    ASSERT_EQ(0, if_get_macadress("eth0", mac));
    const unsigned char expected[6] = {0x02, 0x0a, 0xbc, 0x00, 0xff, 0x01};
    EXPECT_EQ(0, memcmp(expected, mac, 6));
}

TEST(Readers, MacAddressFailures)
{
    unsigned char mac[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(-1, if_get_macadress(nullptr, mac));
    EXPECT_EQ(-1, if_get_macadress("eth0", nullptr));
    EXPECT_NE(0, if_get_macadress("nosuch0", mac));
    const unsigned char untouched[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(0, memcmp(untouched, mac, 6));
    EXPECT_EQ("", get_iface_macAddr("nosuch0"));
    // A long name is cut like any other request, never copied past the record.
    EXPECT_NE(0, if_get_macadress(std::string(300, 'e').c_str(), mac));
}

TEST(Setters, AddressAndMaskThroughTheStringLevel)
{
    EXPECT_EQ(0, if_setKernel_IfaceConfig("wlan0", 0, "10.77.0.5"));
    EXPECT_EQ(0, if_setKernel_IfaceConfig("wlan0", 1, "255.255.0.0"));
    EXPECT_EQ("10.77.0.5", if_getKernel_IfaceInfo("wlan0", 0));
    EXPECT_EQ("255.255.0.0", if_getKernel_IfaceInfo("wlan0", 1));
    EXPECT_EQ(inet_addr("10.77.0.5"), if_get_addr("wlan0"));
    EXPECT_EQ(0, if_set_mask("wlan0", inet_addr("255.255.255.0")));
    EXPECT_EQ("255.255.255.0", if_getKernel_IfaceInfo("wlan0", 1));
}

TEST(Setters, UnknownItemTouchesNothing)
{
    EXPECT_EQ(-1, if_setKernel_IfaceConfig("eth0", 3, "10.1.1.1"));
    EXPECT_EQ(-1, if_setKernel_IfaceConfig("eth0", -1, "10.1.1.1"));
    EXPECT_EQ("192.0.2.2", if_getKernel_IfaceInfo("eth0", 0));
    EXPECT_EQ("255.255.255.0", if_getKernel_IfaceInfo("eth0", 1));
}

TEST(Setters, FailuresReturnTheIoctlResult)
{
    EXPECT_EQ(-1, if_set_addr("nosuch0", inet_addr("10.1.1.1")));
    EXPECT_EQ(-1, if_setKernel_IfaceConfig("nosuch0", 1, "255.0.0.0"));
}

TEST(Flags, EnableAndDisable)
{
    auto isUp = [] {
        unsigned flags = static_cast<unsigned>(strtoul(tovtest::readText("/sys/class/net/wlan0/flags").c_str(), nullptr, 16));
        return (flags & IFF_UP) != 0;
    };
    ASSERT_TRUE(isUp());
    EXPECT_EQ(0, if_disable("wlan0"));
    EXPECT_FALSE(isUp());
    EXPECT_EQ(0, if_enable("wlan0"));
    EXPECT_TRUE(isUp());
    EXPECT_EQ(-1, if_enable("nosuch0"));
    EXPECT_EQ(-1, if_disable("nosuch0"));
}

TEST(Toip, LocalNames)
{
    EXPECT_EQ("127.0.0.1", toip("localhost"));
    EXPECT_EQ("192.0.2.10", toip("192.0.2.10"));
}

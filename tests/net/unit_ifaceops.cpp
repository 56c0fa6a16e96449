// The interface layer against the simulated unit's real interfaces, routes and server side: eth0
// cabled to the server (192.0.2.10, port 22 open), wlan0 present without a link. Each probe runs
// in a fresh unit, after the shell line that puts the unit in the state it needs.
#include "net/ifaceops.h"

#include "tests/support/testfiles.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

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
const char* const NOBODY = "192.0.2.99"; // in the unit's subnet, but nobody answers there
const std::string IN_SERVER_SIDE = "nsenter --net=/proc/$(cat /run/tovsim/server.pid)/ns/net ";
// Nothing answers at the server's address any more, although the cable is in.
const std::string SERVER_DOWN = IN_SERVER_SIDE + "ip addr flush dev srv0 && ip neigh flush all";
// wlan0 with an address and a link, so that routes can go through it.
const std::string WLAN_UP = IN_SERVER_SIDE + "ip link set wsrv0 up && ip addr add 10.5.0.2/24 dev wlan0";

// What COMMAND prints, both streams.
std::string sh(const std::string& command)
{
    const std::string path = "/ramdisk/net-test-out";
    system((command + " >" + path + " 2>&1").c_str());
    return tovtest::readText(path);
}

std::string n(long value) { return std::to_string(value); }

// The parts joined by blanks; the braces make them run in the order written.
std::string seq(std::initializer_list<std::string> parts)
{
    std::string text;
    for (const std::string& part : parts)
        text += (text.empty() ? "" : " ") + part;
    return text;
}

std::string dotted(in_addr_t address)
{
    struct in_addr a;
    a.s_addr = address;
    return inet_ntoa(a);
}

struct Probe {
    const char* name;
    std::string setup;                 // shell line run first, in the unit
    std::string (*run)();              // the calls, and what they changed
    std::string result;
    std::string output;                // what the calls printed, standard output then error
    double minSeconds;
};

const Probe PROBES[] = {
    {"CablePlugged", "", [] { return n(isETH0_Cable_Plugged()); }, "1", "", 0},
    {"CableUnplugged", "/run/tovsim/cable unplugged", [] { return n(isETH0_Cable_Plugged()); }, "0", "", 0},
    {"CarrierOfADownEth0Unreadable", "ip link set eth0 down", [] { return n(isETH0_Cable_Plugged()); }, "0", "", 0},
    {"NoEth0", "ip link del eth0", [] { return n(isETH0_Cable_Plugged()); }, "0", "", 0},
    {"DongleWithoutLink", "", [] { return n(isWifi_Started()); }, "1", "", 0},
    {"NoDongle", "ip link del wlan0", [] { return n(isWifi_Started()); }, "0", "", 0},
    {"ServerPortOpen", "", [] { return n(checkInternet_Status(SERVER, "22")); }, "1", "", 0},
    {"ServerPortClosed", "", [] { return n(checkInternet_Status(SERVER, "23")); }, "0",
     "192.0.2.10: Connection refused\n", 0},
    {"UnknownService", "", [] { return n(checkInternet_Status(SERVER, "no-such-service")); }, "0", "", 0},
    {"ServerDown", SERVER_DOWN, [] { return n(checkInternet_Status(SERVER, "22")); }, "0",
     "192.0.2.10: No route to host\n", 0},
    {"CheckIpOpen", "", [] { return n(if_check_ip(SERVER, "22")); }, "1", "Connection to 192.0.2.10:22 OK\n", 0},
    {"CheckIpClosedPort", "", [] { return n(if_check_ip(SERVER, "23")); }, "2",
     "Connection to 192.0.2.10:23 OK but Port NOT respond!\n", 0},
    {"CheckIpNobodyGivesUpAfterTwoSeconds", "", [] { return n(if_check_ip(NOBODY, "22")); }, "0",
     "NO Network/Server Connection!\n", 1.9},
    {"CheckIpServerDown", SERVER_DOWN, [] { return n(if_check_ip(SERVER, "22")); }, "0",
     "NO Network/Server Connection!\n", 0},
    {"PingLoopbackSeesItsOwnRequest", "", [] { return n(if_ping("127.0.0.1")); }, "1", "Reply 8\n", 0},
    {"PingServer", "", [] { return n(if_ping(SERVER)); }, "1", "Reply 0\n", 0},
    {"PingNobody", "", [] { return n(if_ping(NOBODY)); }, "-1", "", 1.9},
    {"Gateways", "", [] { return seq({if_getKernel_IfaceInfo("eth0", 2), if_getKernel_IfaceInfo("wlan0", 2)}); },
     "192.0.2.10 0.0.0.0", "", 0},
    {"DefaultRouteOnWlan0Only", WLAN_UP + " && ip route del default && ip route add default via 10.5.0.1",
     [] { return seq({if_getKernel_IfaceInfo("eth0", 2), if_getKernel_IfaceInfo("wlan0", 2)}); },
     "0.0.0.0 10.5.0.1", "", 0},
    {"FirstOfTwoDefaultRoutes", "ip route add default via 192.0.2.11 metric 100",
     [] { return seq({if_getKernel_IfaceInfo("eth0", 2), sh("ip route show default")}); },
     "192.0.2.10 default via 192.0.2.10 dev eth0 \ndefault via 192.0.2.11 dev eth0 metric 100 \n", "", 0},
    {"FirstOfTwoDefaultRoutesSwapped",
     "ip route add default via 192.0.2.11 metric 100 && ip route del default via 192.0.2.10"
     " && ip route add default via 192.0.2.10 metric 200",
     [] { return seq({if_getKernel_IfaceInfo("eth0", 2), sh("ip route show default")}); },
     "192.0.2.11 default via 192.0.2.11 dev eth0 metric 100 \ndefault via 192.0.2.10 dev eth0 metric 200 \n", "", 0},
    {"DefaultRouteWithoutGatewayIgnored", "ip route del default && ip route add default dev eth0",
     [] { return seq({dotted(if_get_default_route("eth0")), n(if_remove_host_routes("eth0")), sh("ip route show default")}); },
     "0.0.0.0 0 default dev eth0 scope link \n", "", 0},
    {"RemoveEveryGatewayRouteOfTheInterface",
     WLAN_UP + " && ip route add 198.51.100.7 via 192.0.2.10 && ip route add 203.0.113.0/24 via 192.0.2.10"
               " && ip route add 198.51.100.64/26 via 10.5.0.1",
     [] { return seq({n(if_remove_host_routes("eth0")), sh("ip -4 route show")}); },
     "0 10.5.0.0/24 dev wlan0 proto kernel scope link src 10.5.0.2 \n"
     "192.0.2.0/24 dev eth0 proto kernel scope link src 192.0.2.2 \n"
     "198.51.100.64/26 via 10.5.0.1 dev wlan0 \n", "", 0},
    {"SetDefaultRoute", "ip route del default",
     [] { return seq({n(if_setKernel_IfaceConfig("wlan0", 2, "192.0.2.10")), sh("ip route show default")}); },
     "0 default via 192.0.2.10 dev eth0 \n", "", 0},
    {"SetDefaultRouteTwice", "", [] { return n(if_set_default_route(inet_addr(SERVER))); }, "-1",
     "ioctl: File exists\n", 0},
    {"SetDefaultRouteOffLink", "ip route del default",
     [] { return seq({n(if_set_default_route(inet_addr("203.0.113.1"))), sh("ip route show default")}); },
     "-1 ", "ioctl: Network is unreachable\n", 0},
    {"SetAddressAndMask", "",
     [] { return seq({n(if_setKernel_IfaceConfig("wlan0", 0, "10.77.0.5")), n(if_setKernel_IfaceConfig("wlan0", 1, "255.255.0.0")),
                      n(if_setKernel_IfaceConfig("eth0", 3, "10.1.1.1")), n(if_set_addr("nosuch0", inet_addr("10.1.1.1"))),
                      sh("ip -o -4 addr show | awk '{print $2, $4}'")}); },
     "0 0 -1 -1 lo 127.0.0.1/8\neth0 192.0.2.2/24\nwlan0 10.77.0.5/16\n", "", 0},
    {"DisableAndEnable", "",
     [] { return seq({n(if_disable("wlan0")), sh("cat /sys/class/net/wlan0/flags"), n(if_enable("wlan0")),
                      sh("cat /sys/class/net/wlan0/flags"), n(if_enable("nosuch0")), n(if_disable("nosuch0"))}); },
     "0 0x1002\n 0 0x1003\n -1 -1", "", 0},
    {"IfconfigCommands", "",
     [] { return seq({n(IFCONFIG_DOWN("wlan0")), n(IFCONFIG_UP("eth0")), tovtest::unitJournal()}); },
     "0 0 /sbin/ifconfig wlan0 down\n/sbin/ifconfig eth0 up\n", "", 0},
    {"Toip", "", [] { return seq({toip("localhost"), toip(SERVER)}); }, "127.0.0.1 192.0.2.10", "", 0},
};

void PrintTo(const Probe& probe, std::ostream* out) { *out << probe.name; }

class NetProbe : public testing::TestWithParam<Probe> {};

} // namespace

TEST_P(NetProbe, Answers)
{
    const Probe& probe = GetParam();
    if (!probe.setup.empty()) {
        ASSERT_EQ("", sh(probe.setup)) << probe.setup;
    }
    CaptureStdout();
    CaptureStderr();
    const auto start = std::chrono::steady_clock::now();
    const std::string result = probe.run();
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    const std::string output = GetCapturedStdout() + GetCapturedStderr();
    EXPECT_EQ(probe.result, result);
    EXPECT_EQ(probe.output, output);
    EXPECT_GE(seconds.count(), probe.minSeconds);
    EXPECT_LT(seconds.count(), 5.0);
}

INSTANTIATE_TEST_SUITE_P(Unit, NetProbe, testing::ValuesIn(PROBES),
                         [](const testing::TestParamInfo<Probe>& info) { return std::string(info.param.name); });

TEST(NetPing, PacketOnTheWire)
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
    EXPECT_EQ(0, memcmp(expected, packet + hlen, 64));
}

// The kernel never lists a route it cannot delete, so the message is seen on crafted table text.
TEST(NetRoutes, RemovalFailureMessage)
{
    std::string text = "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n"
                       "eth0\t006433C6\t0A0200C0\t0003\t0\t0\t0\t00FFFFFF\t0\t0\t0\n"
                       "eth0\t00000000\t0A0200C0\t0001\t0\t0\t0\t00000000\t0\t0\t0\n"
                       "wlan0\t00000000\t0105000A\t0003\t0\t0\t0\t00000000\t0\t0\t0\n"
                       "eth0\t077164CB\t0A0200C0\t0007\t0\t0\t0\tFFFFFFFF\t0\t0\t0\n";
    FILE* routes = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
    CaptureStdout();
    EXPECT_EQ(0, if_scan_remove_host_routes(routes, "eth0"));
    fclose(routes);
    EXPECT_EQ("failed to remove route for eth0 to 198.51.100.0: No such process\n"
              "failed to remove route for eth0 to 203.100.113.7: No such process\n",
              GetCapturedStdout());
    EXPECT_EQ("default via 192.0.2.10 dev eth0 \n", sh("ip route show default"));
}

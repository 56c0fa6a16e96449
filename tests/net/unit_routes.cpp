// Route tables built for real in the unit's network namespace, read and changed through the
// ioctl layer; plus the removal message on crafted table text.
#include "net/ifaceops.h"

#include "tests/support/testfiles.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstdlib>
#include <sstream>
#include <string>

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

namespace {

void sh(const std::string& command)
{
    ASSERT_EQ(0, system(command.c_str())) << command;
}

std::string shOut(const std::string& command)
{
    std::string path = "/ramdisk/net-test-out";
    system((command + " >" + path + " 2>&1").c_str());
    return tovtest::readText(path);
}

// Gives wlan0 an address and a link, so routes can go through it.
void wlanUp()
{
    sh("nsenter --net=/proc/$(cat /run/tovsim/server.pid)/ns/net ip link set wsrv0 up");
    ASSERT_EQ(0, if_set_addr("wlan0", inet_addr("10.5.0.2")));
    ASSERT_EQ(0, if_set_mask("wlan0", inet_addr("255.255.255.0")));
}

// Gateway of the first default route of IFACE in /proc/net/route, read here field by field.
std::string firstDefaultGatewayInTable(const std::string& iface)
{
    std::istringstream table(tovtest::readText("/proc/net/route"));
    std::string line;
    std::getline(table, line);
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string name, dest, gw, flags;
        fields >> name >> dest >> gw >> flags;
        if (name == iface && dest == "00000000" && (std::stoul(flags, nullptr, 16) & 3) == 3) {
            struct in_addr addr;
            addr.s_addr = static_cast<in_addr_t>(std::stoul(gw, nullptr, 16));
            return inet_ntoa(addr);
        }
    }
    return "none";
}

} // namespace

TEST(Routes, DefaultRouteOfTheUnit)
{
    EXPECT_EQ(inet_addr("192.0.2.10"), if_get_default_route("eth0"));
    EXPECT_EQ(0u, if_get_default_route("wlan0"));
    EXPECT_EQ(0u, if_get_default_route("lo"));
}

TEST(Routes, DefaultRouteOnWlan0Only)
{
    wlanUp();
    sh("ip route del default");
    EXPECT_EQ(0, if_setKernel_IfaceConfig("eth0", 2, "10.5.0.1")); // the name plays no part
    EXPECT_EQ("default via 10.5.0.1 dev wlan0 \n", shOut("ip route show default"));
    EXPECT_EQ(0u, if_get_default_route("eth0"));
    EXPECT_EQ("0.0.0.0", if_getKernel_IfaceInfo("eth0", 2));
    EXPECT_EQ("10.5.0.1", if_getKernel_IfaceInfo("wlan0", 2));
}

TEST(Routes, TwoDefaultRoutesGiveTheFirstLine)
{
    sh("ip route add default via 192.0.2.11 dev eth0 metric 100");
    EXPECT_EQ("192.0.2.10", firstDefaultGatewayInTable("eth0"));
    EXPECT_EQ("192.0.2.10", if_getKernel_IfaceInfo("eth0", 2));
    sh("ip route del default via 192.0.2.10 dev eth0 && ip route add default via 192.0.2.10 dev eth0 metric 200");
    EXPECT_EQ("192.0.2.11", firstDefaultGatewayInTable("eth0"));
    EXPECT_EQ("192.0.2.11", if_getKernel_IfaceInfo("eth0", 2));
}

TEST(Routes, UpButNotGatewayIsIgnored)
{
    sh("ip route del default && ip route add default dev eth0");
    ASSERT_NE(std::string::npos, tovtest::readText("/proc/net/route").find("eth0\t00000000\t00000000\t0001"));
    EXPECT_EQ(0u, if_get_default_route("eth0"));
    CaptureStdout();
    EXPECT_EQ(0, if_remove_host_routes("eth0"));
    EXPECT_EQ("", GetCapturedStdout());
    EXPECT_EQ("default dev eth0 scope link \n", shOut("ip route show default"));
}

TEST(Routes, RemoveHostRoutesRemovesEveryGatewayRouteOfTheInterface)
{
    wlanUp();
    sh("ip route add 198.51.100.7 via 192.0.2.10 && ip route add 203.0.113.0/24 via 192.0.2.10"
       " && ip route add 198.51.100.64/26 via 10.5.0.1");
    CaptureStdout();
    EXPECT_EQ(0, if_remove_host_routes("eth0"));
    EXPECT_EQ("", GetCapturedStdout());
    EXPECT_EQ("10.5.0.0/24 dev wlan0 proto kernel scope link src 10.5.0.2 \n"
              "192.0.2.0/24 dev eth0 proto kernel scope link src 192.0.2.2 \n"
              "198.51.100.64/26 via 10.5.0.1 dev wlan0 \n",
              shOut("ip -4 route show"));
    EXPECT_EQ(0u, if_get_default_route("eth0"));
}

TEST(Routes, RemovalFailureMessageOnCraftedTable)
{
    std::string text =
        "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n"
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
    // The real default route was not in the crafted text and stays.
    EXPECT_EQ(inet_addr("192.0.2.10"), if_get_default_route("eth0"));
}

TEST(Routes, SetDefaultRoute)
{
    sh("ip route del default");
    EXPECT_EQ(0, if_set_default_route(inet_addr("192.0.2.10")));
    EXPECT_EQ("default via 192.0.2.10 dev eth0 \n", shOut("ip route show default"));
    CaptureStderr();
    EXPECT_EQ(-1, if_set_default_route(inet_addr("192.0.2.10")));
    EXPECT_EQ("ioctl: File exists\n", GetCapturedStderr());
}

TEST(Routes, SetDefaultRouteToAnOffLinkGateway)
{
    sh("ip route del default");
    CaptureStderr();
    EXPECT_EQ(-1, if_set_default_route(inet_addr("203.0.113.1")));
    EXPECT_EQ("ioctl: Network is unreachable\n", GetCapturedStderr());
    EXPECT_EQ("", shOut("ip route show default"));
}

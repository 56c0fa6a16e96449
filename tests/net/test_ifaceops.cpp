// Pure parts of the interface layer: request preparation, the Internet checksum and the route
// scanner on crafted /proc/net/route text.
#include "net/ifaceops.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstring>
#include <string>

namespace {

const char* const HEADING =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";

// Runs the default-route scanner on TEXT as if it were /proc/net/route.
in_addr_t scanDefault(const std::string& text, const char* name)
{
    FILE* routes = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
    in_addr_t gateway = if_scan_default_route(routes, name);
    fclose(routes);
    return gateway;
}

std::string line(const char* iface, const char* dest, const char* gw, const char* flags,
                 const char* mask = "00000000")
{
    return std::string(iface) + "\t" + dest + "\t" + gw + "\t" + flags + "\t0\t0\t0\t" + mask
        + "\t0\t0\t0\n";
}

} // namespace

TEST(IfcInitIfr, ZeroesTheWholeRecordAndCopiesTheName)
{
    struct ifreq ifr;
    memset(&ifr, 0xAB, sizeof ifr);
    ifc_init_ifr("eth0", &ifr);
    EXPECT_STREQ("eth0", ifr.ifr_name);
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&ifr);
    for (size_t i = 4; i < sizeof ifr; ++i)
        ASSERT_EQ(0, bytes[i]) << "byte " << i;
}

TEST(IfcInitIfr, CutsLongNamesToFifteenCharacters)
{
    struct ifreq ifr;
    ifc_init_ifr("abcdefghijklmnop", &ifr); // 16 characters
    EXPECT_STREQ("abcdefghijklmno", ifr.ifr_name);
    ifc_init_ifr("a-name-much-longer-than-any-interface", &ifr);
    EXPECT_STREQ("a-name-much-lon", ifr.ifr_name);
    ifc_init_ifr("exactly15chars!", &ifr);
    EXPECT_STREQ("exactly15chars!", ifr.ifr_name);
}

TEST(InitSockaddrIn, FamilyTwoPortZeroAddressAsGiven)
{
    struct sockaddr_in sin;
    memset(&sin, 0xFF, sizeof sin);
    init_sockaddr_in(&sin, inet_addr("192.0.2.10"));
    EXPECT_EQ(2, sin.sin_family);
    EXPECT_EQ(0, sin.sin_port);
    EXPECT_EQ(inet_addr("192.0.2.10"), sin.sin_addr.s_addr);
}

// The checksum as it lands in memory, so the expectations hold on either byte order.
static std::string checksumBytes(const unsigned char* data, int len)
{
    unsigned short sum = static_cast<unsigned short>(in_cksum(reinterpret_cast<const unsigned short*>(data), len));
    unsigned char bytes[2];
    memcpy(bytes, &sum, 2);
    char text[8];
    snprintf(text, sizeof text, "%02x %02x", bytes[0], bytes[1]);
    return text;
}

TEST(InCksum, MatchesTheWorkedExampleOfRfc1071)
{
    // RFC 1071 section 3: the words 0001 f203 f4f5 f6f7 sum to ddf2, so the checksum is 220d.
    const unsigned char data[] = {0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7};
    EXPECT_EQ("22 0d", checksumBytes(data, 8));
}

TEST(InCksum, OddLastBytePaddedWithZero)
{
    const unsigned char odd[] = {0x00, 0x01, 0xf2, 0x03, 0xf4};
    const unsigned char even[] = {0x00, 0x01, 0xf2, 0x03, 0xf4, 0x00};
    EXPECT_EQ(checksumBytes(even, 6), checksumBytes(odd, 5));
    // 0001 + f203 + f400 = 1e604, folded e605, complement 19fa.
    EXPECT_EQ("19 fa", checksumBytes(odd, 5));
}

TEST(InCksum, FoldsCarriesTwice)
{
    // ffff + ffff + 0001 = 1ffff; one fold gives 10000, the second 0001: the checksum is fffe.
    const unsigned char data[] = {0xff, 0xff, 0xff, 0xff, 0x00, 0x01};
    EXPECT_EQ("ff fe", checksumBytes(data, 6));
    int sum = in_cksum(reinterpret_cast<const unsigned short*>(data), 6);
    EXPECT_EQ(sum & 0xFFFF, sum);
    // A buffer that carries its own checksum sums to zero.
    unsigned char withSum[8];
    memcpy(withSum, data, 6);
    unsigned short stored = static_cast<unsigned short>(sum);
    memcpy(withSum + 6, &stored, 2);
    EXPECT_EQ("00 00", checksumBytes(withSum, 8));
    const unsigned char zeros[4] = {0, 0, 0, 0};
    EXPECT_EQ("ff ff", checksumBytes(zeros, 4));
}

TEST(RouteScan, DefaultRouteOfTheNamedInterfaceOnly)
{
    std::string text = HEADING + line("wlan0", "00000000", "0105A8C0", "0003")
        + line("eth0", "0002000A", "00000000", "0001", "00FFFFFF");
    EXPECT_EQ(0u, scanDefault(text, "eth0"));
    EXPECT_EQ(inet_addr("192.168.5.1"), scanDefault(text, "wlan0"));
}

TEST(RouteScan, FirstOfTwoDefaultRoutesWins)
{
    std::string text = HEADING + line("eth0", "00000000", "0A0200C0", "0003")
        + line("eth0", "00000000", "0B0200C0", "0003");
    EXPECT_EQ(inet_addr("192.0.2.10"), scanDefault(text, "eth0"));
}

TEST(RouteScan, UpWithoutGatewayAndGatewayWithoutUpAreIgnored)
{
    std::string text = HEADING + line("eth0", "00000000", "0A0200C0", "0001")
        + line("eth0", "00000000", "0A0200C0", "0002") + line("eth0", "00000000", "0C0200C0", "0007");
    // Flags 7 (up, gateway, host) still qualify: only the two low bits are tested.
    EXPECT_EQ(inet_addr("192.0.2.12"), scanDefault(text, "eth0"));
}

TEST(RouteScan, NonZeroDestinationIsNotADefaultRoute)
{
    std::string text = HEADING + line("eth0", "0071A8C0", "0A0200C0", "0003", "00FFFFFF");
    EXPECT_EQ(0u, scanDefault(text, "eth0"));
}

TEST(RouteScan, NameMustMatchExactly)
{
    std::string text = HEADING + line("eth0", "00000000", "0A0200C0", "0003");
    EXPECT_EQ(0u, scanDefault(text, "eth"));
    EXPECT_EQ(0u, scanDefault(text, "eth00"));
}

TEST(RouteScan, StopsAtTheFirstMalformedLine)
{
    std::string text = std::string(HEADING) + "eth0\t00000000\tnot-hex\t0003\t0\t0\t0\t00000000\t0\t0\t0\n"
        + line("eth0", "00000000", "0A0200C0", "0003");
    EXPECT_EQ(0u, scanDefault(text, "eth0"));
}

TEST(RouteScan, EmptyTableAndHeadingOnly)
{
    EXPECT_EQ(0u, scanDefault("", "eth0"));
    EXPECT_EQ(0u, scanDefault(HEADING, "eth0"));
    FILE* empty = fmemopen(const_cast<char*>(""), 0, "r");
    EXPECT_EQ(-1, if_scan_remove_host_routes(empty, "eth0"));
    fclose(empty);
}

TEST(RouteScan, OverlongInterfaceFieldDoesNotOverrun)
{
    std::string name(200, 'x');
    std::string text = HEADING + line(name.c_str(), "00000000", "0A0200C0", "0003");
    EXPECT_EQ(0u, scanDefault(text, name.c_str()));
}

// The parts of the interface layer that need no interface: the request record and the checksum.
#include "net/ifaceops.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

TEST(NetRequest, NameCutToFifteenCharactersInAZeroedRecord)
{
    for (const char* name : {"exactly15chars!", "abcdefghijklmnop", "a-name-much-longer-than-any-interface"}) {
        struct ifreq ifr;
        memset(&ifr, 0xAB, sizeof ifr);
        ifc_init_ifr(name, &ifr);
        EXPECT_EQ(std::string(name).substr(0, 15), ifr.ifr_name);
        const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&ifr);
        for (size_t i = 15; i < sizeof ifr; ++i)
            ASSERT_EQ(0, bytes[i]) << name << ", byte " << i;
    }
}

// The checksum as it lands in memory, so the expectations hold on either byte order.
TEST(NetChecksum, Rfc1071)
{
    const struct {
        std::string data, checksum;
    } cases[] = {
        {std::string("\x00\x01\xf2\x03\xf4\xf5\xf6\xf7", 8), "22 0d"}, // the worked example of RFC 1071
        {std::string("\x00\x01\xf2\x03\xf4", 5), "19 fa"},             // odd last byte, padded with 0
        {std::string("\xff\xff\xff\xff\x00\x01", 6), "ff fe"},         // 1ffff: carries folded twice
        {std::string("\xff\xff\xff\xff\x00\x01\xff\xfe", 8), "00 00"}, // with its own checksum
        {std::string(4, '\0'), "ff ff"},
    };
    for (const auto& c : cases) {
        const int sum = in_cksum(reinterpret_cast<const unsigned short*>(c.data.data()), int(c.data.size()));
        unsigned char bytes[2];
        const unsigned short low = static_cast<unsigned short>(sum);
        memcpy(bytes, &low, 2);
        char text[8];
        snprintf(text, sizeof text, "%02x %02x", bytes[0], bytes[1]);
        EXPECT_EQ(c.checksum, text);
        EXPECT_EQ(sum & 0xFFFF, sum);
    }
}

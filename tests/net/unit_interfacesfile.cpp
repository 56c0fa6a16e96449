// /etc/network/interfaces as the writer composes it for the settings the form does not reach, and
// what it refuses to write. The form's own settings, from its widgets to the file, are checked in
// unit_fnetworkconf.cpp.
#include "net/interfacesfile.h"

#include "tests/support/testfiles.h"

#include <gtest/gtest.h>

#include <string>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using tovtest::readText;

namespace {

const std::string HEAD = "# interfaces(5) file used by ifup(8) and ifdown(8)\n"
                         "auto lo\n"
                         "iface lo inet loopback\n"
                         "\n";

std::string written() { return readText("/etc/network/interfaces"); }

} // namespace

TEST(NetInterfacesFile, Written)
{
    const std::string key245(245, 'k'); // " wpa-psk " + key + "\n": 255 bytes, the longest line that fits
    const struct {
        const char* iface;
        int dhcp;
        std::string ssid, key, body;
    } cases[] = {
        {"eth0", 1, "net", "key", "auto eth0\nallow-hotplug eth0\niface eth0 inet dhcp\n\n"},
        {"usb0", 0, "net", "key",
         "auto usb0\nallow-hotplug usb0\niface usb0 inet static\n address 172.16.0.2\n netmask 255.255.0.0\n"
         " gateway 172.16.0.1\n dns-nameservers 172.16.0.1\n\n"},
        {"wlan00", 7, "net", "", "auto wlan00\nallow-hotplug wlan00\niface wlan00 inet dhcp\n\n"},
        {"wlan0", 7, "net", key245,
         "auto wlan0\nallow-hotplug wlan0\niface wlan0 inet dhcp\n wpa-ssid net\n wpa-psk " + key245 + "\n\n"},
    };
    for (const auto& c : cases) {
        CaptureStdout();
        EXPECT_TRUE(CreateInterfacesFile(c.iface, c.dhcp, "172.16.0.2", "255.255.0.0", "172.16.0.1", c.ssid, c.key));
        EXPECT_EQ(" ** Create interfaces file\n", GetCapturedStdout());
        EXPECT_EQ(HEAD + c.body, written()) << c.iface;
    }
}

TEST(NetInterfacesFile, OverlongValuesRefusedAndTheOldFileKept)
{
    const std::string before = written();
    const std::string tooLong(246, 'x');
    const struct {
        std::string iface, address, ssid, key;
    } cases[] = {
        {"wlan0", "", "Atelier", tooLong},
        {"wlan0", "", tooLong, "key"},
        {"wlan0", "", tooLong, ""},
        {"eth0", tooLong, "", ""},
        {std::string(100000, 'i'), "", "", ""},
    };
    for (const auto& c : cases) {
        CaptureStdout();
        EXPECT_FALSE(CreateInterfacesFile(c.iface, c.address.empty(), c.address, "255.0.0.0", "10.0.0.1", c.ssid, c.key));
        EXPECT_EQ(" ** Create interfaces file\n"
                  " ** Interfaces file NOT written: a line would exceed 255 bytes\n",
                  GetCapturedStdout());
        EXPECT_EQ(before, written());
    }
}

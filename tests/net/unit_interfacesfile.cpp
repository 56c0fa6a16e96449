// /etc/network/interfaces as the unit writes it, and the restart sequence seen in the journal.
#include "net/interfacesfile.h"

#include "net/ifaceops.h"
#include "tests/support/testfiles.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <string>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using tovtest::readText;
using tovtest::unitJournal;

namespace {

const std::string HEAD = "# interfaces(5) file used by ifup(8) and ifdown(8)\n"
                         "auto lo\n"
                         "iface lo inet loopback\n"
                         "\n";

const std::string DOWN_AND_STOP = "/sbin/ifconfig wlan0 down\n"
                                  "/sbin/ifconfig eth0 down\n"
                                  "/etc/init.d/networking stop\n";

std::string written() { return readText("/etc/network/interfaces"); }

bool create(const std::string& iface, int dhcp, const std::string& address, const std::string& mask,
            const std::string& gateway, const std::string& ssid, const std::string& key)
{
    CaptureStdout();
    bool ok = CreateInterfacesFile(iface, dhcp, address, mask, gateway, ssid, key);
    EXPECT_EQ(" ** Create interfaces file\n", GetCapturedStdout());
    return ok;
}

void makeFileUnwritable()
{
    ASSERT_EQ(0, unlink("/etc/network/interfaces"));
    ASSERT_EQ(0, mkdir("/etc/network/interfaces", 0755));
}

} // namespace

TEST(InterfacesFile, StaticEthernet)
{
    ASSERT_TRUE(create("eth0", 0, "192.168.1.100", "255.255.255.0", "192.168.1.1", "ignored", "ignored"));
    EXPECT_EQ(HEAD + "auto eth0\n"
                     "allow-hotplug eth0\n"
                     "iface eth0 inet static\n"
                     " address 192.168.1.100\n"
                     " netmask 255.255.255.0\n"
                     " gateway 192.168.1.1\n"
                     " dns-nameservers 192.168.1.1\n"
                     "\n",
              written());
}

TEST(InterfacesFile, DhcpEthernetIgnoresAddressesAndWireless)
{
    ASSERT_TRUE(create("eth0", 1, "192.168.1.100", "255.255.255.0", "192.168.1.1", "net", "key"));
    EXPECT_EQ(HEAD + "auto eth0\n"
                     "allow-hotplug eth0\n"
                     "iface eth0 inet dhcp\n"
                     "\n",
              written());
}

TEST(InterfacesFile, WirelessDhcpWithKey)
{
    ASSERT_TRUE(create("wlan0", 7, "", "", "", "Usine TOV", "secret phrase 42"));
    EXPECT_EQ(HEAD + "auto wlan0\n"
                     "allow-hotplug wlan0\n"
                     "iface wlan0 inet dhcp\n"
                     " wpa-ssid Usine TOV\n"
                     " wpa-psk secret phrase 42\n"
                     "\n",
              written());
}

TEST(InterfacesFile, WirelessOpenNetwork)
{
    ASSERT_TRUE(create("wlan0", 1, "", "", "", "Atelier", ""));
    EXPECT_EQ(HEAD + "auto wlan0\n"
                     "allow-hotplug wlan0\n"
                     "iface wlan0 inet dhcp\n"
                     " wireless-mode managed\n"
                     " wireless-essid Atelier\n"
                     " wireless-key off\n"
                     "\n",
              written());
}

TEST(InterfacesFile, WirelessStaticWithKey)
{
    ASSERT_TRUE(create("wlan0", 0, "10.0.0.5", "255.0.0.0", "10.0.0.1", "Atelier", "k3y"));
    EXPECT_EQ(HEAD + "auto wlan0\n"
                     "allow-hotplug wlan0\n"
                     "iface wlan0 inet static\n"
                     " address 10.0.0.5\n"
                     " netmask 255.0.0.0\n"
                     " gateway 10.0.0.1\n"
                     " dns-nameservers 10.0.0.1\n"
                     " wpa-ssid Atelier\n"
                     " wpa-psk k3y\n"
                     "\n",
              written());
}

TEST(InterfacesFile, UnknownInterfaceIsWrittenLikeEthernet)
{
    ASSERT_TRUE(create("usb0", 0, "172.16.0.2", "255.255.0.0", "172.16.0.1", "Atelier", "k3y"));
    EXPECT_EQ(HEAD + "auto usb0\n"
                     "allow-hotplug usb0\n"
                     "iface usb0 inet static\n"
                     " address 172.16.0.2\n"
                     " netmask 255.255.0.0\n"
                     " gateway 172.16.0.1\n"
                     " dns-nameservers 172.16.0.1\n"
                     "\n",
              written());
    // "wlan0" must match exactly for the wireless lines.
    ASSERT_TRUE(create("wlan00", 1, "", "", "", "Atelier", ""));
    EXPECT_EQ(HEAD + "auto wlan00\nallow-hotplug wlan00\niface wlan00 inet dhcp\n\n", written());
}

TEST(InterfacesFile, LongestLineThatFitsIsWrittenWhole)
{
    // " wpa-psk " + key + "\n" is 255 bytes: the buffer's limit with its terminator.
    std::string key(245, 'k');
    ASSERT_TRUE(create("wlan0", 1, "", "", "", "Atelier", key));
    EXPECT_EQ(HEAD + "auto wlan0\nallow-hotplug wlan0\niface wlan0 inet dhcp\n wpa-ssid Atelier\n wpa-psk "
                  + key + "\n\n",
              written());
}

TEST(InterfacesFile, OverlongValuesAreRefusedAndTheOldFileKept)
{
    const std::string before = written();
    const std::string longText(246, 'x');
    const struct {
        const char* iface;
        int dhcp;
        std::string address, ssid, key;
    } cases[] = {
        {"wlan0", 1, "", "Atelier", longText},
        {"wlan0", 1, "", longText, "key"},
        {"wlan0", 1, "", longText, ""},
        {"eth0", 0, longText, "", ""},
    };
    for (const auto& c : cases) {
        CaptureStdout();
        EXPECT_FALSE(CreateInterfacesFile(c.iface, c.dhcp, c.address, "255.0.0.0", "10.0.0.1", c.ssid, c.key));
        EXPECT_EQ(" ** Create interfaces file\n"
                  " ** Interfaces file NOT written: a line would exceed 255 bytes\n",
                  GetCapturedStdout());
        EXPECT_EQ(before, written());
    }
    CaptureStdout();
    EXPECT_FALSE(CreateInterfacesFile(std::string(100000, 'i'), 1, "", "", "", "", ""));
    GetCapturedStdout();
    EXPECT_EQ(before, written());
}

TEST(InterfacesFile, UnwritableFileGivesFalse)
{
    makeFileUnwritable();
    EXPECT_FALSE(create("eth0", 1, "", "", "", "", ""));
}

TEST(ReconfigureNetwork, UnwritableFileStopsWithoutRestart)
{
    makeFileUnwritable();
    CaptureStdout();
    time_t start = time(nullptr);
    EXPECT_EQ(0, reconfigureNetwork("eth0", 1, "", "", "", "", ""));
    EXPECT_LT(time(nullptr) - start, 5);
    EXPECT_EQ(" ** Create interfaces file\n", GetCapturedStdout());
    EXPECT_EQ(DOWN_AND_STOP, unitJournal());
}

TEST(ReconfigureNetwork, OverlongValueStopsWithoutRestart)
{
    const std::string before = written();
    CaptureStdout();
    EXPECT_EQ(0, reconfigureNetwork("wlan0", 1, "", "", "", "Atelier", std::string(300, 'k')));
    GetCapturedStdout();
    EXPECT_EQ(DOWN_AND_STOP, unitJournal());
    EXPECT_EQ(before, written());
}

// Run with the clock sped up (see CMakeLists.txt): the restart waits 10 seconds of that clock.
TEST(ReconfigureNetwork, RestartsInOrderAndWaits)
{
    CaptureStdout();
    time_t start = time(nullptr);
    EXPECT_EQ(1, reconfigureNetwork("wlan0", 1, "", "", "", "Atelier", "k3y"));
    EXPECT_GE(time(nullptr) - start, 10);
    EXPECT_EQ(" ** Create interfaces file\n", GetCapturedStdout());
    EXPECT_EQ(DOWN_AND_STOP + "/etc/init.d/networking restart\n", unitJournal());
    EXPECT_EQ(HEAD + "auto wlan0\nallow-hotplug wlan0\niface wlan0 inet dhcp\n wpa-ssid Atelier\n"
                     " wpa-psk k3y\n\n",
              written());
}

TEST(ReconfigureNetwork, RestartAppliesStaticEth0)
{
    CaptureStdout();
    EXPECT_EQ(1, reconfigureNetwork("eth0", 0, "192.0.2.77", "255.255.255.128", "192.0.2.10", "", ""));
    GetCapturedStdout();
    EXPECT_EQ("192.0.2.77", if_getKernel_IfaceInfo("eth0", 0));
    EXPECT_EQ("255.255.255.128", if_getKernel_IfaceInfo("eth0", 1));
    EXPECT_EQ("192.0.2.10", if_getKernel_IfaceInfo("eth0", 2));
    EXPECT_EQ(1, checkInternet_Status("192.0.2.10", "22"));
}

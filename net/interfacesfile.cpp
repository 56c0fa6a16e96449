#include "net/interfacesfile.h"

#include "net/ifaceops.h"
#include "utils/fileops.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

const char* const TOV_INTERFACES_FILE = "/etc/network/interfaces";

namespace {

const unsigned NETWORK_SETTLE_SECONDS = 10;

// Each line goes through a fixed 256-byte buffer. A value that would not fit is refused rather
// than cut: a truncated key or address would leave the unit silently misconfigured.
class LineWriter {
public:
    bool overflow() const { return m_overflow; }
    const std::string& text() const { return m_text; }

    void raw(const char* text) { m_text += text; }

    void line(const char* format, ...) __attribute__((format(printf, 2, 3)))
    {
        char buffer[256];
        va_list args;
        va_start(args, format);
        int length = vsnprintf(buffer, sizeof buffer, format, args);
        va_end(args);
        if (length < 0 || static_cast<size_t>(length) >= sizeof buffer)
            m_overflow = true;
        else
            m_text += buffer;
    }

private:
    std::string m_text;
    bool m_overflow = false;
};

} // namespace

bool CreateInterfacesFile(const std::string& iface, int dhcp, const std::string& address,
                          const std::string& netmask, const std::string& gateway,
                          const std::string& ssid, const std::string& key)
{
    puts(" ** Create interfaces file");
    LineWriter file;
    file.raw("# interfaces(5) file used by ifup(8) and ifdown(8)\n");
    file.raw("auto lo\niface lo inet loopback\n\n");
    file.line("auto %s\n", iface.c_str());
    file.line("allow-hotplug %s\n", iface.c_str());
    if (dhcp == 0) {
        file.line("iface %s inet static\n", iface.c_str());
        file.line(" address %s\n", address.c_str());
        file.line(" netmask %s\n", netmask.c_str());
        file.line(" gateway %s\n", gateway.c_str());
        // The gateway is the only name server on purpose: the factory network has no other.
        file.line(" dns-nameservers %s\n", gateway.c_str());
    } else {
        file.line("iface %s inet dhcp\n", iface.c_str());
    }
    if (iface == "wlan0") {
        if (!key.empty()) {
            file.line(" wpa-ssid %s\n", ssid.c_str());
            file.line(" wpa-psk %s\n", key.c_str());
        } else {
            file.line(" wireless-mode managed\n");
            file.line(" wireless-essid %s\n", ssid.c_str());
            file.line(" wireless-key off\n");
        }
    }
    file.line("\n");
    if (file.overflow()) {
        puts(" ** Interfaces file NOT written: a line would exceed 255 bytes");
        return false;
    }
    return writeToFile(TOV_INTERFACES_FILE, file.text(), false, false);
}

int reconfigureNetwork(std::string iface, int dhcp, std::string address, std::string netmask,
                       std::string gateway, std::string ssid, std::string key)
{
    IFCONFIG_DOWN("wlan0");
    IFCONFIG_DOWN("eth0");
    system("/etc/init.d/networking stop");
    if (!CreateInterfacesFile(iface, dhcp, address, netmask, gateway, ssid, key)) {
        // No restart with the old file, on purpose: the caller sees 0 and the network stays
        // stopped until a setting that can be written is applied.
        return 0;
    }
    system("/etc/init.d/networking restart");
    sleep(NETWORK_SETTLE_SECONDS);
    return 1;
}

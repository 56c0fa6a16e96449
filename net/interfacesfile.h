// The unit's /etc/network/interfaces and the network restart that applies it. Arguments, in order:
// interface ("eth0" or "wlan0"), DHCP (0 static, else DHCP), address, netmask, gateway (also the
// only name server), wireless SSID and key (wlan0 only; an empty key is an open network).
#ifndef TOV_NET_INTERFACESFILE_H
#define TOV_NET_INTERFACESFILE_H

#include <string>

extern const char* const TOV_INTERFACES_FILE; // "/etc/network/interfaces"

// Replaces the whole file; false when it cannot be written, or when a value is so long that one
// of its lines would exceed 255 bytes (then nothing is written and the old file stays).
bool CreateInterfacesFile(const std::string& iface, int dhcp, const std::string& address,
                          const std::string& netmask, const std::string& gateway,
                          const std::string& ssid, const std::string& key);

// Brings wlan0 and eth0 down, stops networking, writes the file and restarts networking, then
// waits 10 seconds: 1. When the file cannot be written it returns 0 at once and leaves the network
// stopped. Blocks the caller for the whole time.
int reconfigureNetwork(std::string iface, int dhcp, std::string address, std::string netmask,
                       std::string gateway, std::string ssid, std::string key);

#endif

// Interface control and connectivity probes: ioctl on an AF_INET datagram socket, the text of
// /proc/net/route, the carrier files under /sys/class/net, raw ICMP and TCP probes. Every function
// blocks, returns a plain code and never throws; diagnostics go to stdout or through perror.
// if_ping (static packet buffer) and the readers that return inet_ntoa text are not reentrant.
#ifndef TOV_NET_IFACEOPS_H
#define TOV_NET_IFACEOPS_H

#include <net/if.h>
#include <netinet/in.h>

#include <cstdint>
#include <cstdio>
#include <string>

// The echo request of the last if_ping: one buffer for all calls (not reentrant).
constexpr int IF_PING_PACKET_SIZE = 64;
extern unsigned char outpack[IF_PING_PACKET_SIZE];

// Low level: C strings, IPv4 values in network byte order.
void ifc_init_ifr(const char* name, struct ifreq* ifr);
void init_sockaddr_in(struct sockaddr_in* sin, in_addr_t addr);
int ifc_set_flags(const char* name, int sock, unsigned set, unsigned clr);
int if_enable(const char* name);
int if_disable(const char* name);
int if_set_addr(const char* name, in_addr_t addr);
int if_set_mask(const char* name, in_addr_t mask);
in_addr_t if_get_addr(const char* name);
in_addr_t if_get_mask(const char* name);
int if_set_default_route(in_addr_t gw);
in_addr_t if_get_default_route(const char* name);
int if_remove_host_routes(const char* name);
int if_get_macadress(const char* name, unsigned char* out);
int in_cksum(const unsigned short* buf, int len);
int if_ping(const char* ip);
int if_check_ip(const char* ip, const char* port);
std::string toip(const char* host);

// The route scanners behind if_get_default_route and if_remove_host_routes, on any text laid out
// like /proc/net/route (heading line first). The public functions call them on that file.
in_addr_t if_scan_default_route(FILE* routes, const char* name);
int if_scan_remove_host_routes(FILE* routes, const char* name);

// String level. Items: 0 address, 1 netmask, 2 default gateway of the interface.
std::string if_getKernel_IfaceInfo(std::string name, int item);
int if_setKernel_IfaceConfig(std::string name, int item, const std::string& value);
// "" when the hardware address cannot be read.
std::string get_iface_macAddr(std::string name);
// 1 when wlan0 exists (dongle plugged, driver loaded), whatever its link says.
int isWifi_Started();
// eth0's carrier: 1 with a cable; 0 without, or when unknown.
int isETH0_Cable_Plugged();
int checkInternet_Status(const char* host, const char* service);
int IFCONFIG_DOWN(const char* name);
int IFCONFIG_UP(const char* name);

#endif

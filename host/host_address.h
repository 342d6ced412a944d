// The host's network checks: which IPv4 address to serve on, and whether a
// port is free there.
#ifndef DMS_HOST_HOST_ADDRESS_H
#define DMS_HOST_HOST_ADDRESS_H

#include <string>

// The first IPv4 address of an interface that is up and not loopback, else
// 127.0.0.1.
std::string firstNetworkAddress();

// The interface of the IPv4 default route (the first, from
// /proc/net/route); empty when there is none.
std::string defaultRouteInterface();

// The IPv4 address of the interface named `name`; empty when it has none.
std::string interfaceAddress(const std::string &name);

// True when `address` is an IPv4 address of one of this machine's interfaces.
bool isLocalAddress(const std::string &address);

// True when nothing listens on address:port yet.
bool portIsFree(const std::string &address, int port);

#endif  // DMS_HOST_HOST_ADDRESS_H

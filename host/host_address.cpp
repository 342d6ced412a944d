#include "host_address.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>

namespace {

// Calls `visit` with each interface's name, flags and IPv4 address (dotted)
// until it returns true; true when one did.
bool findInterface(const std::function<bool(const char *, unsigned, const std::string &)> &visit) {
  ifaddrs *list = nullptr;
  if (getifaddrs(&list) != 0) return false;
  bool found = false;
  for (ifaddrs *entry = list; entry != nullptr && !found; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
    char text[INET_ADDRSTRLEN] = {0};
    const auto *address = reinterpret_cast<const sockaddr_in *>(entry->ifa_addr);
    if (inet_ntop(AF_INET, &address->sin_addr, text, sizeof text) == nullptr) continue;
    found = visit(entry->ifa_name, entry->ifa_flags, text);
  }
  freeifaddrs(list);
  return found;
}

}  // namespace

std::string firstNetworkAddress() {
  std::string found = "127.0.0.1";
  findInterface([&](const char *, unsigned flags, const std::string &address) {
    if ((flags & IFF_UP) == 0 || (flags & IFF_LOOPBACK) != 0) return false;
    found = address;
    return true;
  });
  return found;
}

std::string defaultRouteInterface() {
  std::FILE *routes = std::fopen("/proc/net/route", "re");
  if (routes == nullptr) return {};
  // "Iface Destination Gateway Flags ...", hexadecimal; the default route
  // has destination 0 and mask 0 and is up (flag 1).
  char line[512];
  std::string found;
  while (found.empty() && std::fgets(line, sizeof line, routes) != nullptr) {
    char name[64] = {0};
    unsigned long destination = 1, gateway = 0, flags = 0, mask = 1;
    int refs = 0, use = 0, metric = 0;
    if (std::sscanf(line, "%63s %lx %lx %lx %d %d %d %lx", name, &destination, &gateway, &flags, &refs, &use,
                    &metric, &mask) == 8 &&
        destination == 0 && mask == 0 && (flags & 1UL) != 0) {
      found = name;
    }
  }
  std::fclose(routes);
  return found;
}

std::string interfaceAddress(const std::string &name) {
  std::string found;
  findInterface([&](const char *interface, unsigned, const std::string &address) {
    if (name != interface) return false;
    found = address;
    return true;
  });
  return found;
}

bool isLocalAddress(const std::string &address) {
  return findInterface([&](const char *, unsigned, const std::string &own) { return own == address; });
}

// The probe may share the port with sockets in TIME_WAIT (the last answers
// of a server that just stopped): only a real listener makes the port busy,
// so a restart works at once.
bool portIsFree(const std::string &address, int port) {
  int probe = ::socket(AF_INET, SOCK_STREAM, 0);
  if (probe < 0) return true;
  const int reuse = 1;
  ::setsockopt(probe, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
  sockaddr_in where{};
  where.sin_family = AF_INET;
  where.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, address.c_str(), &where.sin_addr);
  bool free = ::bind(probe, reinterpret_cast<sockaddr *>(&where), sizeof where) == 0 || errno != EADDRINUSE;
  ::close(probe);
  return free;
}

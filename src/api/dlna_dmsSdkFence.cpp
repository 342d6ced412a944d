#include "api/dlna_dmsSdkFence.h"

#include <dirent.h>
#include <linux/filter.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <arpa/inet.h>
#include <unistd.h>

#include <cstdlib>
#include <random>

#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dlna_dmsApi.c";

namespace {

bool isListenerOn(int fd, uint16_t port, uint16_t port6) {
  int type = 0;
  int listening = 0;
  socklen_t size = sizeof type;
  if (::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_STREAM) return false;
  size = sizeof listening;
  if (::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) != 0 || listening == 0) return false;
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  if (::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0) return false;
  if (address.ss_family == AF_INET) return ntohs(reinterpret_cast<sockaddr_in *>(&address)->sin_port) == port;
  if (address.ss_family == AF_INET6 && port6 != 0) {
    return ntohs(reinterpret_cast<sockaddr_in6 *>(&address)->sin6_port) == port6;
  }
  return false;
}

// A socket filter that keeps nothing: every segment, the connection
// requests included, is dropped before the socket sees it.
bool dropEverything(int fd) {
  static sock_filter program[] = {BPF_STMT(BPF_RET | BPF_K, 0)};
  const sock_fprog filter{1, program};
  return ::setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) == 0;
}

// Whether a socket of `family` can bind `port` on `where` now.
bool bindable(int family, const sockaddr *where, socklen_t length) {
  const int fd = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return family == AF_INET6;  // no IPv6 here: nothing to collide with
  const bool free = ::bind(fd, where, length) == 0;
  ::close(fd);
  return free;
}

}  // namespace

uint16_t dmsFreeSdkPort(const char *address) {
  std::random_device seed;
  std::minstd_rand pick(seed());
  for (int attempt = 0; attempt < 64; ++attempt) {
    const auto port = static_cast<uint16_t>(49152 + pick() % 16383);
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(port);
    if (::inet_pton(AF_INET, address, &v4.sin_addr) != 1) return 0;
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(port);
    v6.sin6_addr = in6addr_any;
    if (bindable(AF_INET, reinterpret_cast<sockaddr *>(&v4), sizeof v4) &&
        bindable(AF_INET6, reinterpret_cast<sockaddr *>(&v6), sizeof v6)) {
      return port;
    }
  }
  return 0;
}

int dmsFenceSdkListeners(uint16_t port, uint16_t port6) {
  DIR *descriptors = ::opendir("/proc/self/fd");
  if (descriptors == nullptr) return 0;
  int fenced = 0;
  while (const dirent *entry = ::readdir(descriptors)) {
    char *end = nullptr;
    const long fd = std::strtol(entry->d_name, &end, 10);
    if (end == entry->d_name || *end != '\0' || fd == ::dirfd(descriptors)) continue;
    if (isListenerOn(static_cast<int>(fd), port, port6) && dropEverything(static_cast<int>(fd))) ++fenced;
  }
  ::closedir(descriptors);
  DMS_TRACE(OSAL_TRACE_INFO, "SDK listeners fenced: %d (port %d)\n", fenced, static_cast<int>(port));
  return fenced;
}

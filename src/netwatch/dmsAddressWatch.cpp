#include "netwatch/dmsAddressWatch.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "util/dmsThreadName.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

namespace {

constexpr char kTraceFile[] = "dmsAddressWatch.cpp";
// How often the addresses are read again without a notice.
constexpr int kPollMilliseconds = 2000;

// The IPv4 addresses (dotted) of every interface, as (interface, address)
// pairs in the kernel's order.
std::vector<std::pair<std::string, std::string>> ipv4Addresses() {
  std::vector<std::pair<std::string, std::string>> found;
  ifaddrs *list = nullptr;
  if (::getifaddrs(&list) != 0) return found;
  for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET || entry->ifa_name == nullptr) continue;
    char text[INET_ADDRSTRLEN] = {0};
    const auto *address = reinterpret_cast<const sockaddr_in *>(entry->ifa_addr);
    if (::inet_ntop(AF_INET, &address->sin_addr, text, sizeof text) != nullptr) {
      found.emplace_back(entry->ifa_name, text);
    }
  }
  ::freeifaddrs(list);
  return found;
}

// A descriptor closed when it goes out of scope.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(const Descriptor &) = delete;
  Descriptor &operator=(const Descriptor &) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// A netlink socket that receives the kernel's IPv4 address notices, or -1
// (the watch then only polls).
int openNotices() {
  const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  if (fd < 0) return -1;
  sockaddr_nl where{};
  where.nl_family = AF_NETLINK;
  where.nl_groups = RTMGRP_IPV4_IFADDR;
  if (::bind(fd, reinterpret_cast<sockaddr *>(&where), sizeof where) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

// Reads and drops every notice waiting: they only say "look again".  An
// overflow (ENOBUFS) says the same.
void drain(int fd) {
  char buffer[8192];
  for (int round = 0; round < 64; ++round) {
    if (::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT) < 0 && errno != ENOBUFS && errno != EINTR) return;
  }
}

}  // namespace

std::string dmsInterfaceOfAddress(const std::string &address) {
  for (const auto &[interface, own] : ipv4Addresses()) {
    if (own == address) return interface;
  }
  return {};
}

std::string dmsAddressToFollow(const std::string &interface, const std::string &current) {
  std::string first;
  for (const auto &[name, address] : ipv4Addresses()) {
    if (name != interface) continue;
    if (address == current) return {};
    if (first.empty()) first = address;
  }
  return first;
}

// Owned by the watch; read only by its thread once started, but for `stop`.
struct dmsAddressWatch::State {
  std::string interface;
  std::string address;
  Listener listener;
  Descriptor notices{openNotices()};
  Descriptor stop{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  std::thread thread;

  void run() {
    dmsNameThread("dms-address");
    for (;;) {
      pollfd waits[2] = {{stop.get(), POLLIN, 0}, {notices.get(), POLLIN, 0}};
      const int ready = ::poll(waits, notices.get() >= 0 ? 2 : 1, kPollMilliseconds);
      if (ready < 0 && errno != EINTR) return;
      if ((waits[0].revents & POLLIN) != 0) return;
      if (notices.get() >= 0 && waits[1].revents != 0) drain(notices.get());
      const std::string moved = dmsAddressToFollow(interface, address);
      if (moved.empty()) continue;
      DMS_TRACE(OSAL_TRACE_INFO, "Address of %s moved: %s -> %s\n", interface.c_str(), address.c_str(),
                moved.c_str());
      address = moved;
      dmsGuardVoid("dmsAddressWatch listener", [&] { listener(moved); });
    }
  }
};

dmsAddressWatch::dmsAddressWatch(std::string interface, std::string address, Listener listener)
    : state_(std::make_unique<State>()) {
  state_->interface = std::move(interface);
  state_->address = std::move(address);
  state_->listener = std::move(listener);
  if (state_->stop.get() < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  State *state = state_.get();
  state_->thread = std::thread([state] { dmsGuardVoid("dmsAddressWatch", [state] { state->run(); }); });
}

dmsAddressWatch::~dmsAddressWatch() {
  const uint64_t one = 1;
  if (::write(state_->stop.get(), &one, sizeof one) < 0) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", errno, "write");
  }
  if (state_->thread.joinable()) state_->thread.join();
}

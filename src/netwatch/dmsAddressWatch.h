// Follows the IPv4 address of one network interface.
//
// A DHCP renewal or a Wi-Fi reconnect can give the interface a server
// listens on another address; a device that keeps announcing the old one
// vanishes from every player.  The watch tells its owner when that happens,
// through the listener it was given; moving is the owner's business.
//
// A thread of its own waits for the kernel's address notices (netlink,
// RTMGRP_IPV4_IFADDR) and, in case those are not available or some were
// lost, looks again every two seconds.  The notices only wake it: it reads
// the interface's addresses itself, so nothing of a message is parsed.
#ifndef DMS_NETWATCH_DMS_ADDRESS_WATCH_H
#define DMS_NETWATCH_DMS_ADDRESS_WATCH_H

#include <functional>
#include <memory>
#include <string>

// The interface that carries IPv4 `address` (dotted), or "" when none does.
std::string dmsInterfaceOfAddress(const std::string &address);

// The address to move to from `current` on `interface`: "" while `current`
// is still one of the interface's IPv4 addresses, or while the interface
// has none (a reconnect in progress); else the interface's first IPv4
// address.
std::string dmsAddressToFollow(const std::string &interface, const std::string &current);

class dmsAddressWatch {
 public:
  // Called from the watch's thread with the new address; it must not
  // destroy the watch.
  using Listener = std::function<void(const std::string &address)>;

  // Starts following `address` on `interface`.  When the address has left
  // the interface and another has come, the listener is called once with
  // it, and the watch follows the new address from then on.
  dmsAddressWatch(std::string interface, std::string address, Listener listener);
  // Stops the thread: the listener is not called once this returns.
  ~dmsAddressWatch();

  dmsAddressWatch(const dmsAddressWatch &) = delete;
  dmsAddressWatch &operator=(const dmsAddressWatch &) = delete;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

#endif  // DMS_NETWATCH_DMS_ADDRESS_WATCH_H

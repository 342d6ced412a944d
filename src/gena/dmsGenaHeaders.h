// The header values of a SUBSCRIBE as the event hub reads them: the
// subscriber's address, the CALLBACK URL, the TIMEOUT, and new SIDs.
#ifndef DMS_GENA_DMS_GENA_HEADERS_H
#define DMS_GENA_DMS_GENA_HEADERS_H

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "gena/dmsGena.h"

// An IP address as numbers, so that two spellings of one address compare
// equal.  An IPv4-mapped IPv6 address is held as the IPv4 address.
struct dmsGenaAddress {
  int family = 0;  // AF_INET or AF_INET6
  std::array<uint8_t, 16> bytes{};
  bool operator==(const dmsGenaAddress &) const = default;
};

// Reads an IPv4 or IPv6 literal (no brackets, no zone).  False when `text`
// is not one.
bool dmsGenaParseAddress(std::string_view text, dmsGenaAddress &address);

// The URL NOTIFY messages go to, made from the first URL of a CALLBACK
// header ("<http://host:port/path>..."): only when it is an http: URL whose
// host is the literal address `subscriber`, without user information, with
// a port from 1 to 65535 (80 when absent) and a path of visible characters
// ("/" when absent).  The result names the host and port in a canonical
// form.  Empty when the header is refused (also when it is longer than
// 1 KB).
std::string dmsGenaCallbackUrl(const char *callback, const dmsGenaAddress &subscriber);

// The time a subscription lasts: "Second-N" or "Second-infinite" (the
// "Second-" in any case); absent or unreadable means the longest.  Clamped
// to the limits.
uint32_t dmsGenaTimeoutSeconds(const char *timeout, const dmsGenaLimits &limits);

// A new subscription id: "uuid:" and a random (version 4) UUID.
std::string dmsGenaNewSid();

#endif  // DMS_GENA_DMS_GENA_HEADERS_H

#include "gena/dmsGenaHeaders.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "util/dlnaUtil_uuid.h"

namespace {

// Longest CALLBACK header read; a longer one is refused whole.
constexpr size_t kMaxCallbackBytes = 1024;
// Longest TIMEOUT header read ("Second-" and ten digits fit many times).
constexpr size_t kMaxTimeoutBytes = 64;

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; };
           return lower(x) == lower(y);
         });
}

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && equalsIgnoringCase(text.substr(0, prefix.size()), prefix);
}

bool allDigits(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// An address literal of one family; IPv4-mapped IPv6 reads as IPv4.
bool parseLiteral(std::string_view text, int family, dmsGenaAddress &address) {
  if (text.empty() || text.size() >= INET6_ADDRSTRLEN) return false;
  const std::string terminated(text);
  dmsGenaAddress parsed;
  if (inet_pton(family, terminated.c_str(), parsed.bytes.data()) != 1) return false;
  parsed.family = family;
  static constexpr uint8_t kMappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
  if (family == AF_INET6 && std::memcmp(parsed.bytes.data(), kMappedPrefix, sizeof kMappedPrefix) == 0) {
    parsed.family = AF_INET;
    std::copy_n(parsed.bytes.begin() + 12, 4, parsed.bytes.begin());
    std::fill(parsed.bytes.begin() + 4, parsed.bytes.end(), uint8_t{0});
  }
  address = parsed;
  return true;
}

// The host of a URL as written into the URL again: "a.b.c.d" or "[v6]".
std::string hostText(const dmsGenaAddress &address) {
  char text[INET6_ADDRSTRLEN] = {0};
  inet_ntop(address.family, address.bytes.data(), text, sizeof text);
  return address.family == AF_INET6 ? "[" + std::string(text) + "]" : std::string(text);
}

// "host", "host:port", "[v6]" or "[v6]:port" into the address and port.
bool parseAuthority(std::string_view authority, dmsGenaAddress &address, uint32_t &port) {
  if (authority.find('@') != std::string_view::npos) return false;  // user information
  std::string_view portText;
  bool hasPort = false;
  if (!authority.empty() && authority.front() == '[') {
    const size_t close = authority.find(']');
    if (close == std::string_view::npos || !parseLiteral(authority.substr(1, close - 1), AF_INET6, address)) {
      return false;
    }
    const std::string_view rest = authority.substr(close + 1);
    if (!rest.empty() && rest.front() != ':') return false;
    hasPort = !rest.empty();
    if (hasPort) portText = rest.substr(1);
  } else {
    const size_t colon = authority.find(':');
    if (!parseLiteral(authority.substr(0, colon), AF_INET, address)) return false;
    hasPort = colon != std::string_view::npos;
    if (hasPort) portText = authority.substr(colon + 1);
  }
  port = 80;
  if (!hasPort) return true;
  if (!allDigits(portText) || portText.size() > 5) return false;
  port = static_cast<uint32_t>(std::stoul(std::string(portText)));
  return port >= 1 && port <= 65535;
}

}  // namespace

bool dmsGenaParseAddress(std::string_view text, dmsGenaAddress &address) {
  return parseLiteral(text, AF_INET, address) || parseLiteral(text, AF_INET6, address);
}

std::string dmsGenaCallbackUrl(const char *callback, const dmsGenaAddress &subscriber) {
  if (callback == nullptr) return {};
  const std::string_view header(callback, strnlen(callback, kMaxCallbackBytes + 1));
  if (header.size() > kMaxCallbackBytes) return {};
  const size_t open = header.find_first_not_of(" \t");
  if (open == std::string_view::npos || header[open] != '<') return {};
  const size_t close = header.find('>', open);
  if (close == std::string_view::npos) return {};
  std::string_view url = header.substr(open + 1, close - open - 1);  // the first URL only
  static constexpr std::string_view kScheme = "http://";
  if (!startsWithIgnoringCase(url, kScheme)) return {};
  url.remove_prefix(kScheme.size());
  const size_t slash = url.find('/');
  const std::string_view path = slash == std::string_view::npos ? "/" : url.substr(slash);
  const bool visible = std::all_of(path.begin(), path.end(), [](char c) { return c > ' ' && c < 0x7F; });
  dmsGenaAddress host;
  uint32_t port = 0;
  if (!visible || !parseAuthority(url.substr(0, slash), host, port) || !(host == subscriber)) return {};
  return "http://" + hostText(host) + ":" + std::to_string(port) + std::string(path);
}

uint32_t dmsGenaTimeoutSeconds(const char *timeout, const dmsGenaLimits &limits) {
  uint64_t seconds = limits.maxTimeoutSeconds;
  if (timeout != nullptr) {
    std::string_view text = trimmed(std::string_view(timeout, strnlen(timeout, kMaxTimeoutBytes)));
    static constexpr std::string_view kPrefix = "Second-";
    if (startsWithIgnoringCase(text, kPrefix)) {
      text.remove_prefix(kPrefix.size());
      if (allDigits(text)) {
        seconds = 0;
        for (char digit : text) {
          seconds = std::min<uint64_t>(seconds * 10 + uint64_t(digit - '0'), UINT32_MAX);
        }
      }
    }
  }
  seconds = std::max<uint64_t>(seconds, limits.minTimeoutSeconds);
  return static_cast<uint32_t>(std::min<uint64_t>(seconds, limits.maxTimeoutSeconds));
}

std::string dmsGenaNewSid() {
  uint8_t b[16] = {0};
  dlnaUtilGetRandomBytes(b, sizeof b);
  b[6] = uint8_t((b[6] & 0x0F) | 0x40);  // version 4: random
  b[8] = uint8_t((b[8] & 0x3F) | 0x80);  // the usual variant
  char text[48] = {0};
  std::snprintf(text, sizeof text,
                "uuid:%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", b[0], b[1],
                b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
  return text;
}

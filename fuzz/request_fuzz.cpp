// libFuzzer target for the HTTP request side that is ours (the HTTP library
// reads the request line and headers; what it hands over is fuzzed here):
//   - the Range header reader, against lengths from empty to the largest,
//     with the invariants of its answer (a part lies inside the length and
//     is not empty) and, for the plain forms "a-b", "a-" and "-n", the bytes
//     it must name;
//   - a whole request head ("METHOD URL VERSION", header lines, a blank
//     line, a body): the Host check, the route lookup of method and path,
//     the media, picture and fixed-file URL readers (checked against their
//     documented forms), the Range header of the request, the GENA headers
//     of a SUBSCRIBE, and for a control POST the SOAP control of the
//     service with the client's User-Agent, X-AV-Client-Info and
//     FriendlyName.DLNA.ORG carried to the services as the front door
//     carries them (and written into the trace, which goes to /dev/null).
// The client's headers themselves are read from the HTTP library's
// connection, which needs a running daemon: not fuzzed here.
//
// Input layout: byte 0 even: byte 1 chooses the length and the rest is a
// Range header value; byte 0 odd: the rest is a request head.
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "art/dmsArt.h"
#include "content/dmsClmApi.h"
#include "gena/dmsGenaHeaders.h"
#include "http/dmsAvtHttpHandler.h"
#include "http/dmsAvtHttpMedia.h"
#include "http/dmsHttpRoutes.h"
#include "http/dmsMediaServer.h"
#include "http/dmsSoap.h"
#include "services/dmsCdsMgrApi.h"
#include "services/dmsCmsApi.h"
#include "services/dmsDeviceEventMgr.h"
#include "services/dmsMsMrsApi.h"
#include "util/osal_trace.h"

extern "C" {
int KVSUPPORT_XR_VAL = 0;
}

namespace {

constexpr char kServerAddress[] = "192.168.1.20";

[[noreturn]] void fail(const char *what, std::string_view input) {
  std::fprintf(stderr, "request_fuzz: %s for [%.*s]\n", what, static_cast<int>(input.size()), input.data());
  std::abort();
}

// The three services over a library of one folder and one file, and the
// fixed files (empty) in a scratch folder, made once.
struct Services {
  dmsDevEventMgr *mgr = nullptr;
  dmsContentListInfo *list = nullptr;
  dmsCdsMgrHandle *cds = nullptr;
  dmsCmsInstance *cms = nullptr;
  dmsMsMrsInstance *mrs = nullptr;
};

Services &services() {
  static Services made = [] {
    Services s;
    char pattern[] = "/tmp/request_fuzz_XXXXXX";
    if (::mkdtemp(pattern) == nullptr) std::abort();
    const std::string folder = pattern;
    ::mkdir((folder + "/Music").c_str(), 0755);
    if (FILE *file = std::fopen((folder + "/Music/a.pcm").c_str(), "wb")) {
      const char samples[4096] = {0};
      std::fwrite(samples, 1, sizeof samples, file);
      std::fclose(file);
    }
    const std::string www = folder + "/www";
    ::mkdir(www.c_str(), 0755);
    for (const char *name : {"dmsCdsConfiguration.xml", "dmsCmsConfiguration.xml", "dmsPresentationPage.html",
                             "dmsMsMrsConfiguration.xml", "48x48-icon.jpg", "120x120-icon.jpg", "48x48-icon.png",
                             "120x120-icon.png"}) {
      if (FILE *file = std::fopen((www + "/" + name).c_str(), "wb")) std::fclose(file);
    }
    if (dmsAvtHttp_init(www.c_str(), nullptr) != 0) std::abort();
    std::string music = folder + "/Music";
    char *paths[] = {music.data()};
    dmsClmCreateContentList(&s.list, paths, 1, 100);
    static const char udn[] = "00000000-0000-0000-0000-000000000000";
    dmsDevEventMgrInit(&s.mgr, -1, udn);
    dmsCdsMgrInit(&s.cds, s.mgr, s.list, kServerAddress, 49152);
    dmsCmsInit(&s.cms, s.mgr);
    dmsMsMrsInit(&s.mrs, s.mgr);
    return s;
  }();
  return made;
}

// ---- Range ---------------------------------------------------------------

constexpr int64_t kLengths[] = {
    0, 1, 2, 3, 10, 100, 4096, 999999, int64_t{1} << 31, int64_t{1} << 32, 1000000000000000000,
    std::numeric_limits<int64_t>::max() - 1, std::numeric_limits<int64_t>::max(),
};

// Digits of `text` from `at` as a number; nullopt when there are none or
// the value passes int64 (the reader takes such a header as no range).
std::optional<int64_t> plainNumber(std::string_view text, size_t &at) {
  const size_t start = at;
  int64_t value = 0;
  bool tooLarge = false;
  for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
    if (value > (std::numeric_limits<int64_t>::max() - (text[at] - '0')) / 10) tooLarge = true;
    if (!tooLarge) value = value * 10 + (text[at] - '0');
  }
  if (at == start || tooLarge) return std::nullopt;
  return value;
}

// The range the plain forms "bytes=a-b", "bytes=a-" and "bytes=-n" (with
// nothing after them) must give; nullopt for any other header.
std::optional<std::pair<dmsHttpRangeAnswer, dmsHttpByteRange>> expectedRange(std::string_view header,
                                                                              int64_t length) {
  if (header.substr(0, 6) != "bytes=") return std::nullopt;
  size_t at = 6;
  using Answer = dmsHttpRangeAnswer;
  if (at < header.size() && header[at] == '-') {
    ++at;
    const auto suffix = plainNumber(header, at);
    if (!suffix || at != header.size()) return std::nullopt;
    if (*suffix == 0 || length == 0) return std::make_pair(Answer::kUnsatisfiable, dmsHttpByteRange{});
    const int64_t count = std::min(*suffix, length);
    return std::make_pair(Answer::kPart, dmsHttpByteRange{length - count, count});
  }
  const auto first = plainNumber(header, at);
  if (!first || at >= header.size() || header[at] != '-') return std::nullopt;
  ++at;
  std::optional<int64_t> last;
  if (at < header.size()) {
    last = plainNumber(header, at);
    if (!last || at != header.size() || *last < *first) return std::nullopt;
  }
  if (*first >= length) return std::make_pair(Answer::kUnsatisfiable, dmsHttpByteRange{});
  const int64_t end = last && *last < length ? *last + 1 : length;
  return std::make_pair(Answer::kPart, dmsHttpByteRange{*first, end - *first});
}

void checkRange(const char *header, int64_t length) {
  dmsHttpByteRange range{-7, -7};
  const dmsHttpRangeAnswer answer = dmsHttpParseRange(header, length, range);
  const std::string_view text = header != nullptr ? header : "(none)";
  switch (answer) {
    case dmsHttpRangeAnswer::kWhole:
      if (range.first != 0 || range.count != length) fail("a whole answer that is not the whole length", text);
      break;
    case dmsHttpRangeAnswer::kPart:
      // start <= end < length, with end = first + count - 1.
      if (range.first < 0 || range.count < 1 || range.first >= length || range.count > length - range.first) {
        fail("a part outside the length", text);
      }
      if (header == nullptr || std::strncmp(header, "bytes=", 6) != 0) fail("a part without bytes=", text);
      break;
    case dmsHttpRangeAnswer::kUnsatisfiable:
      if (header == nullptr || std::strncmp(header, "bytes=", 6) != 0) fail("unsatisfiable without bytes=", text);
      break;
    default:
      fail("an unknown answer", text);
  }
  if (header == nullptr) return;
  if (const auto expected = expectedRange(header, length)) {
    if (expected->first != answer) fail("a plain range answered otherwise", text);
    if (answer == dmsHttpRangeAnswer::kPart &&
        (expected->second.first != range.first || expected->second.count != range.count)) {
      fail("a plain range read wrong", text);
    }
  }
}

// ---- URLs ----------------------------------------------------------------

// "/web/" and digits at the start of `url`: their value (saturated past 32
// bits) and where they end; nullopt without them.
std::optional<std::pair<uint64_t, size_t>> webDigits(std::string_view url) {
  if (url.substr(0, 5) != "/web/") return std::nullopt;
  size_t at = 5;
  uint64_t value = 0;
  for (; at < url.size() && url[at] >= '0' && url[at] <= '9'; ++at) {
    value = std::min<uint64_t>(value * 10 + static_cast<uint64_t>(url[at] - '0'), uint64_t{1} << 40);
  }
  if (at == 5) return std::nullopt;
  return std::make_pair(value, at);
}

bool endsHere(std::string_view url, size_t at) { return at == url.size() || url[at] == '?'; }

void checkUrls(const char *url) {
  const std::string_view text(url);
  const auto digits = webDigits(text);
  const bool fitsId = digits && digits->first <= std::numeric_limits<uint32_t>::max();

  // Media: "/web/<id>" and an optional extension of letters and digits.
  bool mediaForm = false;
  if (fitsId) {
    size_t at = digits->second;
    if (at < text.size() && text[at] == '.') {
      for (++at; at < text.size() && std::isalnum(static_cast<unsigned char>(text[at])); ++at) {
      }
    }
    mediaForm = endsHere(text, at);
  }
  uint32_t id = 0xdeadbeef;
  const bool media = dmsAvtHttpParseMediaId(url, &id);
  if (media != mediaForm) fail("media URL read against its form", text);
  if (media && id != digits->first) fail("media URL with the wrong id", text);

  // Pictures: "/web/<id>.tn.jpg", ".sm.jpg" or ".art.jpg".
  bool artForm = false;
  dmsArtKind expectedKind = dmsArtKind::kThumbnail;
  if (fitsId) {
    const std::string_view rest = text.substr(digits->second);
    const std::pair<std::string_view, dmsArtKind> forms[] = {
        {".tn.jpg", dmsArtKind::kThumbnail}, {".sm.jpg", dmsArtKind::kSmall}, {".art.jpg", dmsArtKind::kAlbum}};
    for (const auto &[suffix, kind] : forms) {
      if (rest.substr(0, suffix.size()) == suffix && endsHere(rest, suffix.size())) {
        artForm = true;
        expectedKind = kind;
      }
    }
  }
  dmsArtKind kind = dmsArtKind::kSmall;
  id = 0xdeadbeef;
  const bool art = dmsArtParseUrl(url, &id, &kind);
  if (art != artForm) fail("picture URL read against its form", text);
  if (art && (id != digits->first || kind != expectedKind)) fail("picture URL with the wrong id or kind", text);
  if (dmsMediaServerIsMediaUrl(url) != (media || art)) fail("media URL test disagrees with its readers", text);

  dmsAvtHttpFixed fixed;
  const bool isFixed = dmsAvtHttpIsFixedPath(url);
  if (dmsAvtHttpFixedFile(url, fixed) != isFixed) fail("fixed path test disagrees with the lookup", text);
  if (isFixed && (fixed.path.empty() || fixed.contentType == nullptr)) fail("fixed file without a path or type", text);
}

// ---- A request head ------------------------------------------------------

struct Request {
  std::string method;
  std::string url;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;

  // The first header of that name, in any case, as the HTTP library looks
  // headers up; NULL when there is none.
  const char *header(const char *name) const {
    for (const auto &[key, value] : headers) {
      if (::strcasecmp(key.c_str(), name) == 0) return value.c_str();
    }
    return nullptr;
  }
};

// "METHOD URL VERSION" CRLF, "Name: value" CRLF each, CRLF, the body (bare
// LF ends a line too; a line without a colon is dropped).
Request readRequest(std::string_view text) {
  Request request;
  size_t at = 0;
  auto line = [&]() -> std::optional<std::string> {
    if (at >= text.size()) return std::nullopt;
    size_t end = text.find('\n', at);
    if (end == std::string_view::npos) end = text.size();
    std::string got(text.substr(at, end - at));
    if (!got.empty() && got.back() == '\r') got.pop_back();
    at = end + 1;
    return got;
  };
  const std::string first = line().value_or("");
  const size_t blank = first.find(' ');
  request.method = first.substr(0, blank);
  if (blank != std::string::npos) {
    const size_t second = first.find(' ', blank + 1);
    request.url = first.substr(blank + 1, second == std::string::npos ? std::string::npos : second - blank - 1);
  }
  while (auto header = line()) {
    if (header->empty()) break;
    const size_t colon = header->find(':');
    if (colon == std::string::npos) continue;
    size_t value = colon + 1;
    while (value < header->size() && (*header)[value] == ' ') ++value;
    request.headers.emplace_back(header->substr(0, colon), header->substr(value));
  }
  if (at < text.size()) request.body = std::string(text.substr(at));
  return request;
}

// What the front door carries of a client's headers (kept short, as it does).
dmsClientInfo clientOf(const Request &request) {
  dmsClientInfo client;
  client.address = "192.168.1.30";
  auto copy = [&request](const char *name) {
    const char *value = request.header(name);
    return value != nullptr ? std::string(value).substr(0, 256) : std::string();
  };
  client.userAgent = copy("User-Agent");
  client.avClientInfo = copy("X-AV-Client-Info");
  client.friendlyName = copy("FriendlyName.DLNA.ORG");
  return client;
}

void fuzzRequest(std::string_view text) {
  const Request request = readRequest(text);
  const char *url = request.url.c_str();
  const char *method = request.method.c_str();

  // The server's own address, with a port or without, is always let in.
  const char *host = request.header("Host");
  const bool allowed = dmsHttpHostAllowed(host, kServerAddress);
  if (host != nullptr && std::strncmp(host, kServerAddress, sizeof kServerAddress - 1) == 0) {
    const std::string_view port(host + sizeof kServerAddress - 1);
    const bool plain =
        port.empty() || (port[0] == ':' && port.find_first_not_of("0123456789", 1) == std::string_view::npos);
    if (plain && !allowed) fail("the server's own address refused", text);
  }

  unsigned status = 0;
  const dmsHttpRoute *route = dmsHttpFindRoute(method, url, &status);
  if (route == nullptr && status != 404 && status != 405) fail("no route without 404 or 405", text);
  if (route != nullptr) {
    const bool fits = std::strcmp(route->method, method) == 0 ||
                      (std::strcmp(route->method, "GET") == 0 && std::strcmp(method, "HEAD") == 0);
    if (!fits || !route->matches(url)) fail("a route that does not fit the request", text);
  }
  checkUrls(url);

  // A media answer reads the Range header against the file's length.
  const char *range = request.header("Range");
  checkRange(range, 4096);
  checkRange(range, 0);

  if (request.method == "SUBSCRIBE" || request.method == "UNSUBSCRIBE") {
    dmsGenaAddress subscriber;
    dmsGenaParseAddress("192.168.1.30", subscriber);
    if (const char *callback = request.header("CALLBACK")) dmsGenaCallbackUrl(callback, subscriber);
    const dmsGenaLimits limits;
    const uint32_t seconds = dmsGenaTimeoutSeconds(request.header("TIMEOUT"), limits);
    if (seconds < limits.minTimeoutSeconds || seconds > limits.maxTimeoutSeconds) {
      fail("a subscription time outside the limits", text);
    }
  }

  const size_t service = dmsServiceByControlPath(url);
  if (request.method == "POST" && service < DMS_SERVICE_COUNT && request.body.size() <= 16384) {
    const dmsSoapAnswer answer =
        dmsSoapControl(services().mgr, service, request.header("SOAPACTION"), request.body, clientOf(request));
    if (answer.status != 200 && answer.status != 400 && answer.status != 500) fail("an unexpected status", text);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  ::setenv("DMS_TRACE_LEVEL", "0x0000", 1);
  osal_traceInitialize();
  services();
  // Traces of the requests (the client's texts among them) are formatted and
  // written, to nowhere.
  const int null = ::open("/dev/null", O_WRONLY);
  if (null >= 0) {
    ::dup2(null, STDOUT_FILENO);
    ::close(null);
  }
  g_u32_osalTraceLevel = OSAL_TRACE_ERR | OSAL_TRACE_WARN | OSAL_TRACE_INFO;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  if (data[0] % 2 == 0) {
    const std::string header(reinterpret_cast<const char *>(data) + 2, size - 2);
    const int64_t length = kLengths[data[1] % std::size(kLengths)];
    checkRange(header.c_str(), length);
    if (data[1] == 0xff) checkRange(nullptr, length);
    return 0;
  }
  fuzzRequest(std::string_view(reinterpret_cast<const char *>(data) + 1, size - 1));
  return 0;
}

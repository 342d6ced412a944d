// libFuzzer target for ContentDirectory Search: an arbitrary SearchCriteria,
// Filter and SortCriteria go, escaped, into a well-formed Search request and
// through SOAP control over a small library of fixtures (views on): an MP3 whose tags
// hold "&" and text past ASCII, LPCM, a JPEG, a GIF, an MPEG-1 program
// stream, and a folder and file whose names hold markup, control bytes and
// bytes that are not UTF-8.  The answer (200 or a fault) must be
// well-formed, namespace-correct XML, and so must the DIDL-Lite document of
// its Result; NumberReturned must not pass the RequestedCount.
//
// Input layout: byte 0 chooses the ContainerID (low four bits) and whether
// a SOAPACTION header comes (bit 4), byte 1 StartingIndex (low four bits)
// and RequestedCount (high four bits); then the SearchCriteria up to the
// first line feed, the Filter up to the next, and the SortCriteria.
#include <expat.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz_support.h"
#include "http/dmsSoap.h"

namespace {

[[noreturn]] void fail(const char *what, const std::string &answer) {
  std::fprintf(stderr, "criteria_fuzz: %s\n--- answer ---\n%s\n--------------\n", what, answer.c_str());
  std::abort();
}

// `text` as XML character data: printable ASCII as it is but for markup,
// every other character as a reference; a byte that starts no valid UTF-8
// character, and a character XML does not allow, become U+FFFD.
std::string xmlText(std::string_view text) {
  static constexpr uint32_t kLeast[] = {0, 0x80, 0x800, 0x10000};
  std::string out;
  for (size_t at = 0; at < text.size();) {
    const auto byte = static_cast<unsigned char>(text[at++]);
    if (byte >= 0x20 && byte < 0x7f && byte != '<' && byte != '&' && byte != '>') {
      out += static_cast<char>(byte);
      continue;
    }
    const size_t more = byte < 0xc0 ? 0 : byte < 0xe0 ? 1 : byte < 0xf0 ? 2 : byte < 0xf8 ? 3 : 0;
    uint32_t point = byte < 0x80 ? byte : more == 0 ? 0xfffd : byte & (0x7fu >> (more + 1));
    for (size_t got = 0; got < more; ++got) {
      if (at >= text.size() || (static_cast<unsigned char>(text[at]) & 0xc0) != 0x80) {
        point = 0xfffd;
        break;
      }
      point = point << 6 | (static_cast<unsigned char>(text[at++]) & 0x3f);
      if (got + 1 == more && point < kLeast[more]) point = 0xfffd;
    }
    const bool allowed = point == '\t' || point == '\n' || point == '\r' || (point >= 0x20 && point < 0xd800) ||
                         (point >= 0xe000 && point < 0xfffe) || (point >= 0x10000 && point <= 0x10ffff);
    out += "&#" + std::to_string(allowed ? point : 0xfffd) + ";";
  }
  return out;
}

// Whether `xml` is well-formed with every prefix bound; the text of each
// element whose local name is in `texts` is put there.
bool wellFormed(const std::string &xml, std::map<std::string, std::string> &texts) {
  struct State {
    std::map<std::string, std::string> &texts;
    std::string *into = nullptr;
  } state{texts};
  std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> parser(XML_ParserCreateNS(nullptr, '|'),
                                                                       &XML_ParserFree);
  XML_SetUserData(parser.get(), &state);
  XML_SetElementHandler(
      parser.get(),
      [](void *data, const XML_Char *name, const XML_Char **) {
        auto &s = *static_cast<State *>(data);
        const char *bar = std::strrchr(name, '|');
        const auto found = s.texts.find(bar != nullptr ? bar + 1 : name);
        s.into = found != s.texts.end() ? &found->second : nullptr;
      },
      [](void *data, const XML_Char *) { static_cast<State *>(data)->into = nullptr; });
  XML_SetCharacterDataHandler(parser.get(), [](void *data, const XML_Char *text, int length) {
    if (auto *into = static_cast<State *>(data)->into) into->append(text, static_cast<size_t>(length));
  });
  return XML_Parse(parser.get(), xml.data(), static_cast<int>(xml.size()), XML_TRUE) == XML_STATUS_OK;
}

// The root, ids around the library's first ones, and ids that are no
// objects or no numbers.
// Folders, files and the views' containers (1 Music, 4 All Tracks, 5 Artists).
constexpr const char *kContainerIds[] = {"0",    "1",    "1000", "1001", "1002", "1003", "1004", "1005",
                                         "1006", "1007", "4",    "5",    "1010", "-1",   "abc",  "2147483648"};
constexpr int kCounts[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 100, 2147483647, -1};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  fuzzServices({{"Music/Café & Crème.mp3", "tagged/id3v24-utf8.mp3"},
                {"Music/Sub/a.pcm", "audio/pcm/plain.pcm"},
                {"Photos/small.jpg", "art/photo/small.jpg"},
                {"Photos/pic.gif", "image/gif87a-64x48.gif"},
                {"Video/clip.mpg", "video/ps-mpeg1-352x240-mp2.mpg"},
                {"Odd <&> \"folder\" \xfe/\x01 bell\x07 & 'q' ]]> \xff.pcm", "audio/pcm/plain.pcm"}});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  std::string_view parts[3];  // SearchCriteria, Filter, SortCriteria
  std::string_view rest(reinterpret_cast<const char *>(data) + 2, size - 2);
  for (size_t part = 0; part < 3 && !rest.empty(); ++part) {
    const size_t end = part < 2 ? rest.find('\n') : std::string_view::npos;
    parts[part] = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
  }
  const int requested = kCounts[data[1] >> 4];
  const std::string body =
      "<?xml version=\"1.0\"?><s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
      "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body>"
      "<u:Search xmlns:u=\"urn:schemas-upnp-org:service:ContentDirectory:1\">"
      "<ContainerID>" + std::string(kContainerIds[data[0] % 16]) + "</ContainerID>"
      "<SearchCriteria>" + xmlText(parts[0]) + "</SearchCriteria><Filter>" + xmlText(parts[1]) + "</Filter>"
      "<StartingIndex>" + std::to_string(kCounts[data[1] & 15]) + "</StartingIndex>"
      "<RequestedCount>" + std::to_string(requested) + "</RequestedCount>"
      "<SortCriteria>" + xmlText(parts[2]) + "</SortCriteria></u:Search></s:Body></s:Envelope>";
  const char *soapAction = data[0] & 16 ? "\"urn:schemas-upnp-org:service:ContentDirectory:1#Search\"" : nullptr;
  dmsClientInfo client;
  client.address = "127.0.0.1";
  static const size_t directory = dmsServiceByControlPath("/web/cds_control");
  const dmsSoapAnswer answer = dmsSoapControl(fuzzServices(), directory, soapAction, body, client);
  if (answer.status != 200 && answer.status != 500) fail("a well-formed Search request not answered", answer.body);
  std::map<std::string, std::string> texts{{"Result", ""}, {"NumberReturned", ""}};
  if (!wellFormed(answer.body, texts)) fail("an answer that is not well-formed XML", answer.body);
  if (answer.status == 500) return 0;
  std::map<std::string, std::string> none;
  if (!wellFormed(texts["Result"], none)) fail("a Result that is not well-formed XML", texts["Result"]);
  if (requested > 0 && std::atoll(texts["NumberReturned"].c_str()) > requested) fail("more than requested", answer.body);
  return 0;
}

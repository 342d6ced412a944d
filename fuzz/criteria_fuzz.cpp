// libFuzzer target for ContentDirectory Search: an arbitrary SearchCriteria,
// Filter and SortCriteria go into a well-formed Search request (escaped, so
// that the envelope reader lets them through) and through SOAP control over
// a small real library: folders nested two deep, an empty one, a tagged MP3
// whose title, artist and album hold markup characters, LPCM files, a JPEG,
// a GIF and an MPEG-1 video, and names with control bytes, quotes and bytes
// that are not UTF-8.  Every answer must be well-formed, namespace-correct
// XML, and so must the DIDL-Lite document of its Result; NumberReturned must
// count the objects in it and neither pass TotalMatches nor the
// RequestedCount.  The same criteria text, unescaped and raw, also goes to
// the criteria parser alone and its terms are matched against a few items.
//
// Input layout: byte 0 chooses the ContainerID, byte 1 StartingIndex (low
// four bits) and RequestedCount (high four bits); then the SearchCriteria
// up to the first line feed, the Filter up to the next, and the
// SortCriteria.  CRITERIA_FUZZ_PRINT=1 prints each answer.
#include <expat.h>
#include <sys/stat.h>
#include <turbojpeg.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "content/dmsClmApi.h"
#include "http/dmsSoap.h"
#include "services/dmsCdsMgrApi.h"
#include "services/dmsCdsMgrSearch.h"
#include "services/dmsCmsApi.h"
#include "services/dmsDeviceEventMgr.h"
#include "services/dmsMsMrsApi.h"
#include "util/osal_trace.h"

extern "C" {
int KVSUPPORT_XR_VAL = 0;
}

namespace {

bool g_print = false;

[[noreturn]] void fail(const char *what, const std::string &answer) {
  std::fprintf(stderr, "criteria_fuzz: %s\n--- answer ---\n%s\n--------------\n", what, answer.c_str());
  std::abort();
}

// ---- The library -----------------------------------------------------------

void writeFile(const std::string &path, const std::string &bytes) {
  if (FILE *file = std::fopen(path.c_str(), "wb")) {
    std::fwrite(bytes.data(), 1, bytes.size(), file);
    std::fclose(file);
  }
}

std::string bigEndian32(uint32_t value) {
  return {static_cast<char>(value >> 24), static_cast<char>(value >> 16), static_cast<char>(value >> 8),
          static_cast<char>(value)};
}

// An MP3: an ID3v2.4 tag with UTF-8 title, artist and album, then twenty
// silent MPEG-1 Layer III frames (128 kbit/s, 44.1 kHz).
std::string taggedMp3() {
  auto frame = [](const char *id, const std::string &text) {
    const std::string data = "\x03" + text;
    return std::string(id) + bigEndian32(static_cast<uint32_t>(data.size())) + std::string(2, '\0') + data;
  };
  const std::string frames = frame("TIT2", "Tom & Jerry <live> \"x\"") + frame("TPE1", "Ann O'Neil & Co") +
                             frame("TALB", "Best <of> ]]>");
  const auto size = static_cast<uint32_t>(frames.size());
  std::string tag = std::string("ID3\x04\x00\x00", 6);
  for (int shift : {21, 14, 7, 0}) tag += static_cast<char>((size >> shift) & 0x7f);
  std::string audio;
  for (int i = 0; i < 20; ++i) audio += std::string("\xff\xfb\x90\x00", 4) + std::string(417 - 4, '\0');
  return tag + frames + audio;
}

// An MPEG-1 video elementary stream, 320x240.
std::string mpegVideo() {
  const std::string sequence("\x00\x00\x01\xb3\x14\x00\xf0\x13\xff\xff\xe0\xa0", 12);
  const std::string group("\x00\x00\x01\xb8\x00\x08\x00\x00", 8);
  const std::string picture = std::string("\x00\x00\x01\x00\x00\x00\xff\xf8", 8) + std::string(64, '\0');
  std::string stream;
  for (int i = 0; i < 10; ++i) stream += sequence + group + picture;
  return stream + std::string("\x00\x00\x01\xb7", 4);
}

// A 1x1 GIF.
std::string tinyGif() {
  return std::string(
      "GIF89a\x01\x00\x01\x00\x80\x00\x00\xff\xff\xff\x00\x00\x00!\xf9\x04\x01\x00\x00\x00\x00,\x00\x00\x00\x00"
      "\x01\x00\x01\x00\x00\x02\x02\x44\x01\x00;",
      43);
}

// A 64x48 grey JPEG, made with the picture library.
std::string smallJpeg() {
  std::unique_ptr<void, int (*)(tjhandle)> compressor(tjInitCompress(), tjDestroy);
  if (!compressor) return {};
  std::vector<unsigned char> pixels(64 * 48, 0x80);
  unsigned char *jpeg = nullptr;
  unsigned long size = 0;
  if (tjCompress2(compressor.get(), pixels.data(), 64, 0, 48, TJPF_GRAY, &jpeg, &size, TJSAMP_GRAY, 80, 0) != 0) {
    tjFree(jpeg);
    return {};
  }
  std::string bytes(reinterpret_cast<char *>(jpeg), size);
  tjFree(jpeg);
  return bytes;
}

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
    char pattern[] = "/tmp/criteria_fuzz_XXXXXX";
    if (::mkdtemp(pattern) == nullptr) std::abort();
    // A folder of a fixed name: the root folder's title is matched too.
    std::string root = std::string(pattern) + "/Library";
    ::mkdir(root.c_str(), 0755);
    const std::string lpcm(4096, '\0');
    for (const char *folder : {"/Music", "/Music/Sub", "/Music/Sub/Deeper", "/Photos", "/Video", "/Empty",
                               "/Odd <&> \"folder\" \xfe"}) {
      ::mkdir((root + folder).c_str(), 0755);
    }
    writeFile(root + "/Music/song.mp3", taggedMp3());
    writeFile(root + "/Music/a.pcm", lpcm);
    writeFile(root + "/Music/\x01 bell\x07 & 'q' \"dq\" \xff\xfe.pcm", lpcm);
    writeFile(root + "/Music/Sub/b.pcm", lpcm);
    writeFile(root + "/Music/Sub/Deeper/]]> end.pcm", lpcm);
    writeFile(root + "/Photos/pic.gif", tinyGif());
    writeFile(root + "/Photos/small \xe2\x82\xac.jpg", smallJpeg());
    writeFile(root + "/Video/clip.mpg", mpegVideo());
    writeFile(root + "/Odd <&> \"folder\" \xfe/c.pcm", lpcm);
    char *paths[] = {root.data()};
    dmsClmCreateContentList(&s.list, paths, 1, 100);
    static const char udn[] = "00000000-0000-0000-0000-000000000000";
    dmsDevEventMgrInit(&s.mgr, -1, udn);
    dmsCdsMgrInit(&s.cds, s.mgr, s.list, "127.0.0.1", 49152);
    dmsCmsInit(&s.cms, s.mgr);
    dmsMsMrsInit(&s.mrs, s.mgr);
    return s;
  }();
  return made;
}

// ---- The request -----------------------------------------------------------

void appendUtf8(std::string &out, uint32_t point) {
  if (point < 0x80) {
    out += static_cast<char>(point);
  } else if (point < 0x800) {
    out += static_cast<char>(0xc0 | (point >> 6));
    out += static_cast<char>(0x80 | (point & 0x3f));
  } else if (point < 0x10000) {
    out += static_cast<char>(0xe0 | (point >> 12));
    out += static_cast<char>(0x80 | ((point >> 6) & 0x3f));
    out += static_cast<char>(0x80 | (point & 0x3f));
  } else {
    out += static_cast<char>(0xf0 | (point >> 18));
    out += static_cast<char>(0x80 | ((point >> 12) & 0x3f));
    out += static_cast<char>(0x80 | ((point >> 6) & 0x3f));
    out += static_cast<char>(0x80 | (point & 0x3f));
  }
}

// The next code point of `text` at `at` (advanced past it); a byte that
// starts no valid UTF-8 sequence becomes U+0100 plus the byte, so that it
// still reaches the parser as something.
uint32_t nextPoint(std::string_view text, size_t &at) {
  const auto byte = static_cast<unsigned char>(text[at]);
  size_t length = 0;
  uint32_t point = 0;
  uint32_t least = 0;
  if (byte < 0x80) return ++at, byte;
  if (byte >= 0xc2 && byte <= 0xdf) length = 2, point = byte & 0x1f, least = 0x80;
  else if (byte >= 0xe0 && byte <= 0xef) length = 3, point = byte & 0x0f, least = 0x800;
  else if (byte >= 0xf0 && byte <= 0xf4) length = 4, point = byte & 0x07, least = 0x10000;
  if (length != 0 && at + length <= text.size()) {
    bool good = true;
    for (size_t i = 1; i < length && good; ++i) {
      const auto next = static_cast<unsigned char>(text[at + i]);
      good = (next & 0xc0) == 0x80;
      point = (point << 6) | (next & 0x3f);
    }
    if (good && point >= least && point <= 0x10ffff && !(point >= 0xd800 && point <= 0xdfff)) {
      at += length;
      return point;
    }
  }
  ++at;
  return 0x100 + byte;
}

// `text` as XML character data: markup escaped, characters XML does not
// allow left out.
std::string xmlText(std::string_view text) {
  std::string out;
  for (size_t at = 0; at < text.size();) {
    const uint32_t point = nextPoint(text, at);
    switch (point) {
      case '&': out += "&amp;"; continue;
      case '<': out += "&lt;"; continue;
      case '>': out += "&gt;"; continue;
      case '"': out += "&quot;"; continue;
      case '\'': out += "&apos;"; continue;
      case '\r': out += "&#13;"; continue;
      default: break;
    }
    const bool allowed = point == '\t' || point == '\n' || (point >= 0x20 && point <= 0xd7ff) ||
                         (point >= 0xe000 && point <= 0xfffd) || point >= 0x10000;
    if (allowed) appendUtf8(out, point);
  }
  return out;
}

// The root, ids below the first folder's (taken as the root), the folders
// and items, and ids that are no objects or no numbers.
constexpr const char *kContainerIds[] = {"0",    "999",  "1000", "1001", "1002", "1003", "1004", "1005",
                                         "1006", "1007", "1008", "1009", "1010", "-1",   "abc",  "2147483648"};
constexpr int kStartingIndexes[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 100, 2147483647, -1};
constexpr int kRequestedCounts[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 100, 2147483647, -1};

// ---- Checking the answer ---------------------------------------------------

// Reads a document with a namespace-aware expat: false unless well-formed
// with every prefix bound.  Collects the text of the elements named in
// `wanted` (local names) and counts the elements at depth 2 (the children
// of the root) by local name.
struct Reading {
  bool wellFormed = false;
  std::string error;
  std::string rootLocalName;
  std::vector<std::pair<std::string, std::string>> texts;  // local name, text
  size_t items = 0;
  size_t containers = 0;
};

Reading readXml(const std::string &document, const std::vector<std::string> &wanted) {
  struct State {
    Reading *reading;
    const std::vector<std::string> *wanted;
    int depth = 0;
    int collecting = -1;  // index into texts being filled, or -1
  };
  Reading reading;
  std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> parser(XML_ParserCreateNS(nullptr, '|'),
                                                                       &XML_ParserFree);
  if (!parser) std::abort();
  State state{&reading, &wanted};
  XML_SetUserData(parser.get(), &state);
  XML_SetElementHandler(
      parser.get(),
      [](void *data, const XML_Char *name, const XML_Char **) {
        auto *s = static_cast<State *>(data);
        const char *bar = std::strrchr(name, '|');
        const std::string local = bar != nullptr ? bar + 1 : name;
        ++s->depth;
        if (s->depth == 1) s->reading->rootLocalName = local;
        if (s->depth == 2 && local == "item") ++s->reading->items;
        if (s->depth == 2 && local == "container") ++s->reading->containers;
        for (const std::string &one : *s->wanted) {
          if (local == one) {
            s->reading->texts.emplace_back(local, std::string());
            s->collecting = static_cast<int>(s->reading->texts.size()) - 1;
          }
        }
      },
      [](void *data, const XML_Char *) {
        auto *s = static_cast<State *>(data);
        --s->depth;
        s->collecting = -1;
      });
  XML_SetCharacterDataHandler(parser.get(), [](void *data, const XML_Char *text, int length) {
    auto *s = static_cast<State *>(data);
    if (s->collecting >= 0) s->reading->texts[static_cast<size_t>(s->collecting)].second.append(text, length);
  });
  reading.wellFormed =
      XML_Parse(parser.get(), document.data(), static_cast<int>(document.size()), XML_TRUE) == XML_STATUS_OK;
  if (!reading.wellFormed) reading.error = XML_ErrorString(XML_GetErrorCode(parser.get()));
  return reading;
}

const std::string *textOf(const Reading &reading, const char *name) {
  for (const auto &[local, text] : reading.texts) {
    if (local == name) return &text;
  }
  return nullptr;
}

long long numberOf(const Reading &reading, const char *name, const std::string &answer) {
  const std::string *text = textOf(reading, name);
  if (text == nullptr || text->empty()) fail("a number missing from the answer", answer);
  char *end = nullptr;
  const long long value = std::strtoll(text->c_str(), &end, 10);
  if (*end != '\0' || value < 0) fail("a number that is not one", answer);
  return value;
}

void checkAnswer(const dmsSoapAnswer &answer, int requestedCount) {
  if (g_print) std::fprintf(stderr, "%u %s\n", answer.status, answer.body.c_str());
  if (answer.status == 400) fail("a well-formed Search request answered 400", answer.body);
  if (answer.status != 200 && answer.status != 500) fail("an unexpected status", answer.body);
  const Reading envelope = readXml(answer.body, {"Result", "NumberReturned", "TotalMatches", "UpdateID", "errorCode"});
  if (!envelope.wellFormed) fail(("an answer that is not well-formed XML: " + envelope.error).c_str(), answer.body);
  if (envelope.rootLocalName != "Envelope") fail("an answer that is no envelope", answer.body);
  if (answer.status == 500) {
    if (textOf(envelope, "errorCode") == nullptr) fail("a fault without an error code", answer.body);
    return;
  }
  const std::string *result = textOf(envelope, "Result");
  if (result == nullptr) fail("a Search answer without a Result", answer.body);
  const long long returned = numberOf(envelope, "NumberReturned", answer.body);
  const long long total = numberOf(envelope, "TotalMatches", answer.body);
  numberOf(envelope, "UpdateID", answer.body);
  const Reading didl = readXml(*result, {});
  if (!didl.wellFormed) fail(("a Result that is not well-formed XML: " + didl.error).c_str(), *result);
  if (didl.rootLocalName != "DIDL-Lite") fail("a Result that is no DIDL-Lite", *result);
  if (static_cast<long long>(didl.items + didl.containers) != returned) {
    fail("NumberReturned does not count the objects of the Result", answer.body);
  }
  if (returned > total) fail("more objects returned than matched", answer.body);
  if (requestedCount > 0 && returned > requestedCount) fail("more objects returned than requested", answer.body);
}

// ---- The criteria parser alone ---------------------------------------------

void parseAlone(const std::string &criteria) {
  dmsCdsSearchState state;
  if (parseSearchCapabilities(criteria.c_str(), &state) != 0) return;
  for (size_t index = 0; index < state.terms.size(); ++index) {
    const dmsCdsSearchTermEntry &entry = state.terms[index];
    if (entry.entryType != DMS_CDS_SEARCH_ENTRY_TERM && entry.entryType != DMS_CDS_SEARCH_ENTRY_AND) {
      fail("a term joined by neither or nor and", criteria);
    }
    if (index == 0 && entry.entryType != DMS_CDS_SEARCH_ENTRY_TERM) fail("a first term joined by and", criteria);
    const uint32_t property = entry.term.property;
    if (property != DMS_CDS_SEARCH_PROPERTY_TITLE && property != DMS_CDS_SEARCH_PROPERTY_CLASS &&
        property != DMS_CDS_SEARCH_PROPERTY_CREATOR) {
      fail("a term without a known property", criteria);
    }
  }
  static const char *const kClasses[] = {"object.item.audioItem.musicTrack", "object.item.imageItem.photo",
                                         "object.item.videoItem", nullptr};
  static const char *const kTexts[] = {"Song", "", "a \"b\" c", nullptr};
  for (size_t i = 0; i < 4; ++i) {
    dlnaUtilDidlItem item{};
    item.upnpClass = kClasses[i];
    item.title = kTexts[i];
    item.creator = kTexts[3 - i];
    for (const dmsCdsSearchTermEntry &entry : state.terms) {
      const int32_t match = dmsCdsCheckForContentMatch(&item, criteria.c_str(), &entry.term);
      if (match != 0 && match != 1) fail("a match that is neither 0 nor 1", criteria);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  ::setenv("DMS_TRACE_LEVEL", "0x0000", 1);
  osal_traceInitialize();
  g_print = std::getenv("CRITERIA_FUZZ_PRINT") != nullptr;
  services();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  const std::string_view text(reinterpret_cast<const char *>(data) + 2, size - 2);
  const size_t criteriaEnd = std::min(text.find('\n'), text.size());
  const std::string_view criteria = text.substr(0, criteriaEnd);
  std::string_view rest = criteriaEnd < text.size() ? text.substr(criteriaEnd + 1) : std::string_view();
  const size_t filterEnd = std::min(rest.find('\n'), rest.size());
  const std::string_view filter = rest.substr(0, filterEnd);
  const std::string_view sort = filterEnd < rest.size() ? rest.substr(filterEnd + 1) : std::string_view();

  parseAlone(std::string(criteria));

  const int requestedCount = kRequestedCounts[data[1] >> 4];
  const std::string body =
      "<?xml version=\"1.0\"?><s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
      "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body>"
      "<u:Search xmlns:u=\"urn:schemas-upnp-org:service:ContentDirectory:1\">"
      "<ContainerID>" + std::string(kContainerIds[data[0] % 16]) + "</ContainerID>"
      "<SearchCriteria>" + xmlText(criteria) + "</SearchCriteria>"
      "<Filter>" + xmlText(filter) + "</Filter>"
      "<StartingIndex>" + std::to_string(kStartingIndexes[data[1] & 15]) + "</StartingIndex>"
      "<RequestedCount>" + std::to_string(requestedCount) + "</RequestedCount>"
      "<SortCriteria>" + xmlText(sort) + "</SortCriteria>"
      "</u:Search></s:Body></s:Envelope>";
  const char *soapAction = data[0] & 16 ? "\"urn:schemas-upnp-org:service:ContentDirectory:1#Search\"" : nullptr;
  dmsClientInfo client;
  client.address = "127.0.0.1";
  static const size_t directory = dmsServiceByControlPath("/web/cds_control");
  checkAnswer(dmsSoapControl(services().mgr, directory, soapAction, body, client), requestedCount);
  return 0;
}

#include "http/dmsMediaServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "dlna_dms.h"
#include "art/dmsArt.h"
#include "content/dmsClmShares.h"
#include "clients/dmsClients.h"
#include "facts/dmsFacts.h"
#include "services/dmsCdsQuirks.h"
#include "subtitles/dmsSubtitles.h"
#include "http/dmsAvtHttpMedia.h"
#include "util/dlnaUtil_didl.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsMediaServer.c";


namespace {

// LPCM pieces are swapped in buffers of this size; one per paused LPCM client.
constexpr size_t kSwapBlock = 64 * 1024;


// Owns a descriptor until a response takes it over.
class FileDescriptor {
 public:
  explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
  FileDescriptor(const FileDescriptor &) = delete;
  FileDescriptor &operator=(const FileDescriptor &) = delete;
  ~FileDescriptor() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }
  int get() const { return descriptor_; }
  int release() {
    int descriptor = descriptor_;
    descriptor_ = -1;
    return descriptor;
  }

 private:
  int descriptor_;
};

using ByteRange = dmsHttpByteRange;
using RangeAnswer = dmsHttpRangeAnswer;

// What the LPCM reader needs; owned by its response and freed with it.
struct SwapReader {
  explicit SwapReader(int descriptor) : file(descriptor) {}
  FileDescriptor file;
  int64_t start = 0;       // file position of the answer's first byte
  int64_t dataOffset = 0;  // sample pairs are counted from here
  std::vector<char> scratch;
};

ssize_t readSwapped(void *cls, uint64_t position, char *buffer, size_t count) {
  return dmsGuard("dmsMediaServerReadSwapped", static_cast<ssize_t>(MHD_CONTENT_READER_END_WITH_ERROR), [&] {
    auto *reader = static_cast<SwapReader *>(cls);
    size_t got = dmsAvtHttpReadSwapped(reader->file.get(), buffer, count,
                                       reader->start + static_cast<int64_t>(position),
                                       reader->dataOffset, reader->scratch);
    // The length was promised: a file that shrank ends the connection.
    return got == 0 ? static_cast<ssize_t>(MHD_CONTENT_READER_END_WITH_ERROR) : static_cast<ssize_t>(got);
  });
}

void freeSwapReader(void *cls) {
  dmsGuardVoid("dmsMediaServerFreeReader", [&] { std::unique_ptr<SwapReader> owned(static_cast<SwapReader *>(cls)); });
}

// Adds "Name: value\r\n" lines to `response`.
void addHeaderLines(MHD_Response *response, const std::string &lines) {
  for (size_t begin = 0; begin < lines.size();) {
    size_t end = lines.find("\r\n", begin);
    if (end == std::string::npos) end = lines.size();
    size_t colon = lines.find(": ", begin);
    if (colon < end) {
      MHD_add_response_header(response, lines.substr(begin, colon - begin).c_str(),
                              lines.substr(colon + 2, end - colon - 2).c_str());
    }
    begin = end + 2;
  }
}

// The response for `count` bytes of `media` from file position `position`;
// takes `file` over when it succeeds.
MHD_Response *bodyResponse(const dmsAvtHttpMediaFile &media, FileDescriptor &file, int64_t position,
                           int64_t count) {
  MHD_Response *response = nullptr;
  if (!media.swapSamples) {
    // sendfile: the kernel copies from the page cache to the socket.  A file
    // cut short under the stream leaves the body short; the library then
    // waits for the socket, and the idle timeout ends the connection.
    response = MHD_create_response_from_fd_at_offset64(static_cast<uint64_t>(count), file.get(),
                                                       static_cast<uint64_t>(position));
    if (response != nullptr) file.release();
    return response;
  }
  auto reader = std::make_unique<SwapReader>(file.release());
  reader->start = position;
  reader->dataOffset = media.dataOffset;
  response = MHD_create_response_from_callback(static_cast<uint64_t>(count), kSwapBlock, readSwapped,
                                               reader.get(), freeSwapReader);
  if (response != nullptr) reader.release();
  return response;
}

// Adds the range answer's headers; the status code to answer with.
unsigned rangeHeaders(MHD_Response *response, RangeAnswer answer, const ByteRange &range, int64_t length) {
  MHD_add_response_header(response, MHD_HTTP_HEADER_ACCEPT_RANGES, "bytes");
  if (answer != RangeAnswer::kPart) return MHD_HTTP_OK;
  const std::string contentRange = "bytes " + std::to_string(range.first) + "-" +
                                   std::to_string(range.first + range.count - 1) + "/" + std::to_string(length);
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_RANGE, contentRange.c_str());
  return MHD_HTTP_PARTIAL_CONTENT;
}

const char *rangeHeader(MHD_Connection *connection) {
  return MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_RANGE);
}

MHD_Result answerArt(dmsContentListInfo *contentList, dmsArtCache *artCache, MHD_Connection *connection, uint32_t id, dmsArtKind kind) {
  const dmsArtCache::Picture picture = dmsArtGet(contentList, artCache, id, kind, nullptr);
  if (picture == nullptr) return dmsHttpQueueEmpty(connection, MHD_HTTP_NOT_FOUND);
  const auto length = static_cast<int64_t>(picture->size());
  ByteRange range;
  const RangeAnswer answer = dmsHttpParseRange(rangeHeader(connection), length, range);
  if (answer == RangeAnswer::kUnsatisfiable) {
    return dmsHttpQueueEmpty(connection, MHD_HTTP_RANGE_NOT_SATISFIABLE, MHD_HTTP_HEADER_CONTENT_RANGE,
                      "bytes */" + std::to_string(length));
  }
  // Pictures are small: the answer takes a copy of its bytes, so the cache
  // may drop the picture meanwhile.
  MHD_Response *response = MHD_create_response_from_buffer(
      static_cast<size_t>(range.count), const_cast<char *>(picture->data() + range.first), MHD_RESPMEM_MUST_COPY);
  if (response == nullptr) return MHD_NO;
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "image/jpeg");
  MHD_add_response_header(response, "contentFeatures.dlna.org",
                          kind == dmsArtKind::kSmall ? DLNA_UTIL_JPEG_SM_FEATURES : DLNA_UTIL_JPEG_TN_FEATURES);
  MHD_add_response_header(response, "transferMode.dlna.org", "Interactive");
  const unsigned code = rangeHeaders(response, answer, range, length);
  return dmsHttpQueue(connection, code, response);
}

// Sends the file open on `descriptor` (taken over) whole as `type`, with
// its DLNA features when given; 404 when it is not a regular file.  A file
// of a shared folder fills `watch`, so that one cut short under the answer
// ends it; NULL for the server's own files.
MHD_Result answerWholeFile(MHD_Connection *connection, int descriptor, const char *type, const char *features,
                           dmsMediaWatch *watch) {
  FileDescriptor file(descriptor);
  struct stat status {};
  if (file.get() < 0 || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return dmsHttpQueueEmpty(connection, MHD_HTTP_NOT_FOUND);
  }
  if (watch != nullptr) {
    watch->fd = ::fcntl(file.get(), F_DUPFD_CLOEXEC, 0);
    watch->end = status.st_size;
  }
  MHD_Response *response = MHD_create_response_from_fd64(static_cast<uint64_t>(status.st_size), file.get());
  if (response == nullptr) return MHD_NO;
  file.release();
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, type);
  if (features != nullptr) MHD_add_response_header(response, "contentFeatures.dlna.org", features);
  return dmsHttpQueue(connection, MHD_HTTP_OK, response);
}

// A video's sidecar subtitle, "/web/<id>.<n>.<extension>", whole.
MHD_Result answerSubtitle(dmsContentListInfo *list, MHD_Connection *connection, uint32_t id, uint32_t index,
                          uint32_t quirks, dmsMediaWatch *watch) {
  std::string path;
  const char *type = nullptr;
  {
    auto reading = dmsClmReadLock(list);
    dmsContentEntry *entry = nullptr;
    dmsClmGetContentEntryById(list, &entry, id);
    if (entry != nullptr && entry->type == DMS_CLM_TYPE_ITEM) {
      const std::vector<dmsSubtitle> subtitles = dmsCdsSubtitlesOf(*entry);
      if (index < subtitles.size()) {
        path = dmsClmEntryPath(entry->parent) + "/" + subtitles[index].name;
        type = dmsCdsSubtitleType(quirks, *subtitles[index].format);
      }
    }
  }
  if (type == nullptr) return dmsHttpQueueEmpty(connection, MHD_HTTP_NOT_FOUND);
  return answerWholeFile(connection, dmsClmOpenShared(list, path), type, nullptr, watch);
}

// Samsung asks with "getCaptionInfo.sec: 1" where a video's subtitle is;
// the answer names the first, at the address the player used.
void addCaptionHeader(dmsContentListInfo *list, MHD_Connection *connection, uint32_t id, MHD_Response *response) {
  const char *asked = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "getCaptionInfo.sec");
  const char *host = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_HOST);
  if (asked == nullptr || std::strcmp(asked, "1") != 0 || host == nullptr) return;
  std::string url;
  {
    auto reading = dmsClmReadLock(list);
    dmsContentEntry *entry = nullptr;
    dmsClmGetContentEntryById(list, &entry, id);
    if (entry == nullptr || entry->type != DMS_CLM_TYPE_ITEM) return;
    const std::vector<dmsSubtitle> subtitles = dmsCdsSubtitlesOf(*entry);
    if (subtitles.empty()) return;
    url = "http://" + std::string(host) + "/web/" + std::to_string(id) + ".0" + subtitles.front().format->extension;
  }
  MHD_add_response_header(response, "CaptionInfo.sec", url.c_str());
}

MHD_Result answerMedia(dmsContentListInfo *contentList, dmsArtCache *artCache, MHD_Connection *connection,
                       const char *url, dmsFacts *facts, uint32_t quirks, dmsMediaWatch *watch) {
  uint32_t id = 0;
  uint32_t index = 0;
  dmsArtKind kind = dmsArtKind::kThumbnail;
  if (dmsArtParseUrl(url, &id, &kind)) return answerArt(contentList, artCache, connection, id, kind);
  if (dmsSubtitleParseUrl(url, &id, &index)) return answerSubtitle(contentList, connection, id, index, quirks, watch);
  dmsAvtHttpMediaFile media;
  if (!dmsAvtHttpParseMediaId(url, &id) || !dmsAvtHttpFindMedia(contentList, id, media)) {
    return dmsHttpQueueEmpty(connection, MHD_HTTP_NOT_FOUND);
  }
  // Never blocks on a FIFO swapped in, never leaves the shares.
  FileDescriptor file(dmsClmOpenShared(contentList, media.path));
  struct stat status {};
  if (file.get() < 0 || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    DMS_TRACE(OSAL_TRACE_INFO, "File [%s] cannot be accessed\n", media.path.c_str());
    return dmsHttpQueueEmpty(connection, MHD_HTTP_NOT_FOUND);
  }
  // Read ahead generously.  The pages are not dropped here as the /web path
  // does at open: a player that probes and then plays, or two players of one
  // file, would lose the pages the other is about to send.
  ::posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  const int64_t length = dmsAvtHttpServedLength(media, status.st_size);
  ByteRange range;
  const RangeAnswer answer = dmsHttpParseRange(rangeHeader(connection), length, range);
  if (answer == RangeAnswer::kUnsatisfiable) {
    return dmsHttpQueueEmpty(connection, MHD_HTTP_RANGE_NOT_SATISFIABLE, MHD_HTTP_HEADER_CONTENT_RANGE,
                      "bytes */" + std::to_string(length));
  }
  // A copy of the descriptor for the front door to watch the file's size:
  // sendfile would wait on a file cut short under it.
  if (watch != nullptr && !media.swapSamples) {
    watch->fd = ::fcntl(file.get(), F_DUPFD_CLOEXEC, 0);
    watch->end = media.dataOffset + range.first + range.count;
  }
  MHD_Response *response = bodyResponse(media, file, media.dataOffset + range.first, range.count);
  if (response == nullptr) return MHD_NO;
  // A play starts at the first byte (the facts leave out the repeats of one start).
  if (facts != nullptr && range.first == 0) facts->countPlay(id, static_cast<int64_t>(std::time(nullptr)));
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, dmsCdsFitMimeType(quirks, media.mimeType).c_str());
  if (quirks & DMS_QUIRK_CAPTION_HEADER) addCaptionHeader(contentList, connection, id, response);
  addHeaderLines(response, dmsAvtHttpMediaHeaders(media));
  const unsigned code = rangeHeaders(response, answer, range, length);
  return dmsHttpQueue(connection, code, response);
}

}  // namespace

MHD_Result dmsHttpQueue(MHD_Connection *connection, unsigned status, MHD_Response *response) {
  if (response == nullptr) return MHD_NO;
  MHD_add_response_header(response, "Server", dmsHttpServerHeader());
  const MHD_Result queued = MHD_queue_response(connection, status, response);
  MHD_destroy_response(response);
  return queued;
}

MHD_Result dmsHttpQueueEmpty(MHD_Connection *connection, unsigned status, const char *name, const std::string &value) {
  MHD_Response *response = MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT);
  if (response != nullptr && name != nullptr) MHD_add_response_header(response, name, value.c_str());
  return dmsHttpQueue(connection, status, response);
}

MHD_Result dmsHttpQueueText(MHD_Connection *connection, unsigned status, const char *contentType, std::string text) {
  // The answer owns the text until it has been sent.
  auto owned = std::make_unique<std::string>(std::move(text));
  MHD_Response *response = MHD_create_response_from_buffer_with_free_callback_cls(
      owned->size(), owned->data(), [](void *cls) { std::unique_ptr<std::string> gone(static_cast<std::string *>(cls)); },
      owned.get());
  if (response == nullptr) return MHD_NO;
  owned.release();
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, contentType);
  return dmsHttpQueue(connection, status, response);
}

dmsHttpRangeAnswer dmsHttpParseRange(const char *header, int64_t length, dmsHttpByteRange &range) {
  range = {0, length};
  if (header == nullptr || std::strncmp(header, "bytes=", 6) != 0) return RangeAnswer::kWhole;
  const char *cursor = header + 6;
  auto number = [&cursor](int64_t &value) {
    const char *start = cursor;
    value = 0;
    for (; *cursor >= '0' && *cursor <= '9'; ++cursor) {
      const int digit = *cursor - '0';
      if (value > (INT64_MAX - digit) / 10) return false;  // past int64: not understood
      value = value * 10 + digit;
    }
    return cursor != start;
  };
  int64_t first = 0;
  int64_t last = 0;
  if (*cursor == '-') {  // the last n bytes
    ++cursor;
    if (!number(last) || (*cursor != '\0' && *cursor != ',')) return RangeAnswer::kWhole;
    if (last == 0 || length == 0) return RangeAnswer::kUnsatisfiable;
    range.count = std::min(last, length);
    range.first = length - range.count;
    return RangeAnswer::kPart;
  }
  if (!number(first) || *cursor++ != '-') return RangeAnswer::kWhole;
  bool open = *cursor == '\0' || *cursor == ',';
  if (!open && (!number(last) || (*cursor != '\0' && *cursor != ',') || last < first)) {
    return RangeAnswer::kWhole;
  }
  if (first >= length) return RangeAnswer::kUnsatisfiable;
  range.first = first;
  range.count = (open || last >= length ? length : last + 1) - first;
  return RangeAnswer::kPart;
}

bool dmsMediaServerIsMediaUrl(const char *url) {
  uint32_t id = 0;
  dmsArtKind kind = dmsArtKind::kThumbnail;
  uint32_t index = 0;
  return dmsArtParseUrl(url, &id, &kind) || dmsSubtitleParseUrl(url, &id, &index) || dmsAvtHttpParseMediaId(url, &id);
}

MHD_Result dmsMediaServerAnswer(MHD_Connection *connection, const char *url, dmsContentListInfo *contentList,
                                dmsArtCache *artCache, dmsFacts *facts, uint32_t quirks, dmsMediaWatch *watch) {
  return answerMedia(contentList, artCache, connection, url, facts, quirks, watch);
}

MHD_Result dmsMediaServerAnswerFixed(MHD_Connection *connection, const dmsAvtHttpFixed &file) {
  return answerWholeFile(connection, ::open(file.path.c_str(), O_RDONLY | O_CLOEXEC), file.contentType,
                         file.contentFeatures, nullptr);
}

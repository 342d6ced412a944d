#include "http/dmsAvtHttpMedia.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <limits>

#include "content/dmsClmApi.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsAvtHttpHandler.c";

namespace {

constexpr char kWebPrefix[] = "/web/";
constexpr char kDefaultFeatures[] = "DLNA.ORG_OP=01;DLNA.ORG_CI=0";

}  // namespace

bool dmsAvtHttpParseMediaId(const char *path, uint32_t *id) {
  if (path == nullptr || id == nullptr) return false;
  if (std::strncmp(path, kWebPrefix, sizeof kWebPrefix - 1) != 0) return false;
  const char *cursor = path + sizeof kWebPrefix - 1;
  uint64_t value = 0;
  const char *digitsStart = cursor;
  while (*cursor >= '0' && *cursor <= '9') {
    value = value * 10 + static_cast<uint64_t>(*cursor - '0');
    if (value > std::numeric_limits<uint32_t>::max()) return false;
    ++cursor;
  }
  if (cursor == digitsStart) return false;
  if (*cursor == '.') {
    // An extension: letters and digits only, no further dot or slash.
    ++cursor;
    while (*cursor != '\0' && *cursor != '?' && std::isalnum(static_cast<unsigned char>(*cursor))) {
      ++cursor;
    }
  }
  if (*cursor != '\0' && *cursor != '?') return false;
  *id = static_cast<uint32_t>(value);
  return true;
}

bool dmsAvtHttpFindMedia(dmsContentListInfo *list, uint32_t id, dmsAvtHttpMediaFile &out) {
  if (list == nullptr) return false;
  auto reading = dmsClmReadLock(list);
  dmsContentEntry *entry = nullptr;
  if (dmsClmGetContentEntryById(list, &entry, id) != 0 || entry == nullptr) return false;
  if (entry->type != DMS_CLM_TYPE_ITEM) return false;
  mfdMediaInfo media{};
  dmsClmGetMediaInfoForEntry(entry, nullptr, &media, nullptr, nullptr);
  out.path = dmsClmEntryPath(entry);
  DMS_TRACE(OSAL_TRACE_INFO, "File [%s] is requested to be read by Client\n", out.path.c_str());
  out.mimeType = media.mimeType != nullptr ? media.mimeType : "";
  out.contentFeatures =
      media.profileName != nullptr && media.profileName[0] != '\0' ? media.profileName : kDefaultFeatures;
  out.streaming = media.mediaClass != MFD_CLASS_IMAGE;
  out.dataOffset = media.dataOffset;
  out.declaredSize = media.dataOffset > 0 ? media.fileSize : 0;
  out.swapSamples = media.formatId == MFD_FORMAT_WAV && media.profileName != nullptr &&
                    std::strstr(media.profileName, "LPCM") != nullptr;
  return true;
}

int64_t dmsAvtHttpServedLength(const dmsAvtHttpMediaFile &media, int64_t fileSize) {
  int64_t length = std::max<int64_t>(0, fileSize - media.dataOffset);
  return media.declaredSize > 0 ? std::min(length, media.declaredSize) : length;
}

std::string dmsAvtHttpMediaHeaders(const dmsAvtHttpMediaFile &media) {
  return "contentFeatures.dlna.org: " + media.contentFeatures + "\r\ntransferMode.dlna.org: " +
         (media.streaming ? "Streaming" : "Interactive") + "\r\n";
}

size_t dmsAvtHttpReadSwapped(int descriptor, char *buffer, size_t count, int64_t position,
                             int64_t dataOffset, std::vector<char> &scratch) {
  // Read whole sample pairs: from the pair's first byte when the position is
  // odd relative to the payload start, and one byte more when the end would
  // split a pair.
  size_t lead = static_cast<size_t>((position - dataOffset) & 1);
  size_t want = count + lead;
  if (want & 1) ++want;
  scratch.resize(want);
  ssize_t got = ::pread(descriptor, scratch.data(), want, position - static_cast<int64_t>(lead));
  if (got <= static_cast<ssize_t>(lead)) return 0;
  size_t pairs = static_cast<size_t>(got) / 2;
  for (size_t i = 0; i < pairs; ++i) std::swap(scratch[2 * i], scratch[2 * i + 1]);
  size_t delivered = std::min(count, static_cast<size_t>(got) - lead);
  std::memcpy(buffer, scratch.data() + lead, delivered);
  return delivered;
}

// DIDL-Lite objects of the ContentDirectory answers: one content entry
// becomes one item or container record for the writer, with the properties
// the request's Filter asks for.  Shared by Browse and Search; also sets the
// answer's output arguments.
#include <strings.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <limits>
#include <new>
#include <string>
#include <string_view>

#include "dlna_dms.h"
#include "art/dmsArt.h"
#include "clients/dmsClients.h"
#include "mfd/mfd_class.h"
#include "services/dmsCdsMgrResponseHandler.h"
#include "services/dmsCdsQuirks.h"
#include "services/dmsCdsResume.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

// These are the response handler's builders and keep its trace source.
static constexpr char kTraceFile[] = "dmsCdsMgrResponseHandler";

namespace {

constexpr int32_t kMaxImageSide = 8095;

// ---------------------------------------------------------------------------
// Item properties.

// How the bit-rate word of a format converts to bytes per second.
struct BitrateUnit {
  uint32_t formatId;
  int64_t multiplier;
  int64_t divisor;
};

constexpr BitrateUnit kBitrateUnits[] = {
    // format          x      /      word holds
    {MFD_FORMAT_MP3,   1000,  8},    // kbit/s
    {MFD_FORMAT_AC3,   1000,  8},    // kbit/s
    {MFD_FORMAT_WAV,   1,     8},    // bit/s
};

// Raw LPCM carries no header: its layout follows from the profile code.
struct LpcmLayout {
  uint32_t profileCode;
  int64_t sampleRate;
  int64_t channels;
};

constexpr int64_t kLpcmBytesPerSample = 2;
constexpr LpcmLayout kLpcmLayouts[] = {
    // profile  rate    channels
    {1,         44100,  1},
    {2,         44100,  2},
    {3,         48000,  1},
    {4,         48000,  2},
};

// Average rate over the whole file; 0 when the playing time is unknown.
int64_t bytesPerSecondFromSize(const mfdMediaInfo &info) {
  if (info.duration == 0 || info.fileSize <= 0) return 0;
  const int64_t milliseconds = info.duration;
  return info.fileSize / milliseconds * 1000 + info.fileSize % milliseconds * 1000 / milliseconds;
}

// res@bitrate in bytes per second (the UPnP unit); 0 leaves it out.
int32_t itemBitrate(const mfdMediaInfo &info) {
  if (info.mediaClass == MFD_CLASS_IMAGE) return 0;  // the word holds the width
  int64_t bytesPerSecond = 0;
  for (const BitrateUnit &unit : kBitrateUnits) {
    if (unit.formatId == info.formatId && info.bitrate > 0) {
      bytesPerSecond = info.bitrate * unit.multiplier / unit.divisor;
    }
  }
  if (info.formatId == MFD_FORMAT_LPCM) {
    for (const LpcmLayout &layout : kLpcmLayouts) {
      if (layout.profileCode == info.profileCode) {
        bytesPerSecond = layout.sampleRate * layout.channels * kLpcmBytesPerSample;
      }
    }
  }
  if (bytesPerSecond <= 0) bytesPerSecond = bytesPerSecondFromSize(info);
  return bytesPerSecond > std::numeric_limits<int32_t>::max()
             ? std::numeric_limits<int32_t>::max()
             : static_cast<int32_t>(bytesPerSecond);
}

// "WxH" for images (each side 1..8095), and for video and audio-visual
// containers with a video stream whose picture size is known; empty
// otherwise.
void fillResolution(const mfdMediaInfo &info, char (&resolution)[16]) {
  resolution[0] = '\0';
  int32_t width = 0;
  int32_t height = 0;
  if (info.mediaClass == MFD_CLASS_IMAGE) {
    if (info.width > kMaxImageSide || info.height > kMaxImageSide) return;
    width = info.width;
    height = info.height;
  } else if (info.mediaClass == MFD_CLASS_VIDEO ||
             (info.mediaClass == MFD_CLASS_AV && info.videoCodec != 0)) {
    width = info.videoWidth;
    height = info.videoHeight;
  }
  if (width < 1 || height < 1) return;
  char text[32];
  const int length = std::snprintf(text, sizeof text, "%dx%d", width, height);
  if (length > 0 && static_cast<size_t>(length) < sizeof resolution) {
    std::memcpy(resolution, text, static_cast<size_t>(length) + 1);
  }
}

// The modification time as local time, YYYY-MM-DDTHH:MM:SS.  Written by
// hand: strftime cost more than the rest of an item's text together.
void fillDate(const mfdMediaInfo &info, char (&date)[24]) {
  date[0] = '\0';
  const time_t modified = static_cast<time_t>(info.modificationTime);
  struct tm local {};
  if (localtime_r(&modified, &local) == nullptr) return;
  const long long year = local.tm_year + 1900LL;
  if (year < 0 || year > 9999) return;  // not a date a player could show
  const int fields[] = {static_cast<int>(year), local.tm_mon + 1, local.tm_mday,
                        local.tm_hour, local.tm_min, local.tm_sec};
  constexpr char kSeparators[] = "--T::";
  char *cursor = date;
  for (size_t i = 0; i < std::size(fields); ++i) {
    const int width = i == 0 ? 4 : 2;
    for (int digit = width - 1, value = fields[i]; digit >= 0; --digit, value /= 10) {
      cursor[digit] = static_cast<char>('0' + value % 10);
    }
    cursor += width;
    if (i < std::size(kSeparators) - 1) *cursor++ = kSeparators[i];
  }
  *cursor = '\0';
}

void fillMediaProperties(const mfdMediaInfo &info, const uint8_t *flags, dlnaUtilDidlItem &item) {
  if (flags[DMS_CDS_FILTER_RESOLUTION] == 0) fillResolution(info, item.resolution);
  if (flags[DMS_CDS_FILTER_DATE] == 0 && info.formatId != MFD_FORMAT_NONE) {
    fillDate(info, item.date);
  }
  item.duration = info.mediaClass == MFD_CLASS_IMAGE ? 0 : static_cast<int64_t>(info.duration);
  item.bitrate = itemBitrate(info);
  if (flags[DMS_CDS_FILTER_DURATION] != 0) item.duration = -1;
  if (flags[DMS_CDS_FILTER_BITRATE] != 0) item.bitrate = -1;
}

// What the file's own tags say: the title replaces the file name and the
// date the file's time; the artist (also as creator), the album, the genre
// and the track number are added.  A text the tags do not hold stays NULL,
// so that the DIDL-Lite leaves its element out.  Each honours the Filter.
void applyTags(const dmsTagPool &pool, const dmsMediaTags &tags, const uint8_t *flags,
               dlnaUtilDidlItem &item) {
  if (tags.empty()) return;
  const char *artist = pool.text(tags.artist);
  const char *date = pool.text(tags.date);
  if (const char *title = pool.text(tags.title)) item.title = title;
  if (flags[DMS_CDS_FILTER_CREATOR] == 0) item.creator = artist;
  if (flags[DMS_CDS_FILTER_ARTIST] == 0) item.artist = artist;
  if (flags[DMS_CDS_FILTER_ALBUM] == 0) item.album = pool.text(tags.album);
  if (flags[DMS_CDS_FILTER_GENRE] == 0) item.genre = pool.text(tags.genre);
  if (date != nullptr && flags[DMS_CDS_FILTER_DATE] == 0) std::snprintf(item.date, sizeof item.date, "%s", date);
  if (flags[DMS_CDS_FILTER_TRACK] == 0) item.originalTrackNumber = tags.track;
}

// The last component of `path`, trailing slashes ignored.
std::string_view lastComponent(std::string_view path) {
  const size_t end = path.find_last_not_of('/');
  if (end == std::string_view::npos) return path;
  const size_t slash = path.rfind('/', end);
  return path.substr(slash == std::string_view::npos ? 0 : slash + 1,
                     slash == std::string_view::npos ? end + 1 : end - slash);
}

// `id` as decimal text, assigned in place (the record's string keeps its
// room from one object to the next).
void assignNumber(std::string &out, uint32_t id) {
  char digits[16];
  const auto end = std::to_chars(digits, digits + sizeof digits, id).ptr;
  out.assign(digits, end);
}

int32_t parentIdOf(const dmsContentEntry &entry) {
  return entry.parent == nullptr ? -1 : static_cast<int32_t>(entry.parent->id);
}

}  // namespace

// ---------------------------------------------------------------------------
// Shared builders.

int32_t dmsCdsSetItemFilterFlags(const char *filter, uint8_t *filterFlags) {
  for (int32_t flag = 0; flag < DMS_CDS_FILTER_COUNT; ++flag) filterFlags[flag] = 1;
  if (filter == nullptr) return DMS_SUCCESS;
  if (std::strcmp(filter, "*") == 0) {
    for (int32_t flag = 0; flag < DMS_CDS_FILTER_COUNT; ++flag) filterFlags[flag] = 0;
    return DMS_SUCCESS;
  }
  return dmsGuard("dmsCdsSetItemFilterFlags", DMS_ERR_NO_MEMORY, [&] {
    std::string filterCopy(filter);
    return dmsCdsParseItemFilter(filterFlags, filterCopy.data());
  });
}

int32_t dmsCdsPrepareObjectRequest(const dmsCdsMgrHandle *handle, const char *filter,
                                   const uint8_t *filterFlags, bool pcmAsWav,
                                   dmsCdsObjectRequest *request) {
  *request = dmsCdsObjectRequest{handle, filter, filterFlags, false, false, pcmAsWav};
  if (filter == nullptr) return DMS_SUCCESS;
  if (std::strcmp(filter, "*") == 0) {
    request->containerChildCount = true;
    request->containerSearchable = true;
    return DMS_SUCCESS;
  }
  return dmsGuard("dmsCdsPrepareObjectRequest", DMS_ERR_NO_MEMORY, [&] {
    // The container parser marks what it is asked for on a scratch record.
    dlnaUtilDidlContainer asked{};
    asked.childCount = -1;
    asked.searchable = static_cast<uint32_t>(-1);
    std::string filterCopy(filter);
    const int32_t status = dmsCdsParseContainerFilter(&asked, filterCopy.data());
    if (status != DMS_SUCCESS) return status;
    request->containerChildCount = asked.childCount == 0;
    request->containerSearchable = asked.searchable == 0;
    return DMS_SUCCESS;
  });
}

int32_t dmsCdsGetItemClass(const mfdMediaInfo *mediaInfo, const char **classOut) {
  if (mediaInfo == nullptr || classOut == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  if ((*classOut = mfd_upnpClass(*mediaInfo)) != nullptr) return DMS_SUCCESS;
  DMS_TRACE(OSAL_TRACE_ERR, "Media Class type (%d) is NOT supported\n",
            static_cast<int>(mediaInfo->mediaClass));
  return DMS_ERR_UNSUPPORTED_CLASS;
}

int32_t dmsCdsBuildItem(const dmsCdsObjectRequest *request, dmsContentEntry *entry,
                        dmsCdsItemRecord *record) {
  if (request == nullptr || request->handle == nullptr || request->filterFlags == nullptr ||
      entry == nullptr || record == nullptr || entry->type != DMS_CLM_TYPE_ITEM) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  mfdMediaInfo info{};
  dmsClmGetMediaInfoForEntry(entry, nullptr, &info, nullptr, nullptr);
  const uint8_t *flags = request->filterFlags;
  dlnaUtilDidlItem &item = record->item;
  item = dlnaUtilDidlItem{};
  return dmsGuard("dmsCdsBuildItem", DMS_ERR_NO_MEMORY, [&]() -> int32_t {
    const std::string_view fileName = lastComponent(entry->path);
    const size_t dot = fileName.rfind('.');
    const std::string_view ownExtension =
        dot == std::string_view::npos ? std::string_view() : fileName.substr(dot + 1);
    // The URL's extension always names the format, so that every listed
    // URL passes the media servers' strict check and players that go by
    // the extension guess right.
    std::string_view extension = mfd_resourceExtension(info.formatId, ownExtension);
    if (request->pcmAsWav && strcasecmp(std::string(extension).c_str(), "pcm") == 0) extension = "wav";
    record->title.assign(fileName.substr(0, dot));
    assignNumber(record->resourceName, entry->id);
    if (!extension.empty()) record->resourceName.append(".").append(extension);
    item.id = static_cast<int32_t>(entry->id);
    item.parentID = parentIdOf(*entry);
    item.restricted = 0;
    item.title = record->title.c_str();
    item.resourceName = record->resourceName.c_str();
    const int32_t status = dmsCdsGetItemClass(&info, &item.upnpClass);
    if (status != DMS_SUCCESS) {
      DMS_TRACE(OSAL_TRACE_ERR, "Function %s Failed with error = %d\n", "dmsCdsGetItemClass", status);
      return status;
    }
    item.serverAddress = request->handle->serverAddress;
    item.serverPort = request->handle->serverPort;
    item.filter = request->filter;
    item.protocolInfo = flags[DMS_CDS_FILTER_RES] == 0 ? info.protocolInfo : nullptr;
    if (item.protocolInfo != nullptr && request->quirks != 0) {
      if (!(request->quirks & DMS_QUIRK_SONY_PN) || !dmsCdsSonyProtocol(*entry, record->protocolInfo)) {
        record->protocolInfo = dmsCdsFitProtocol(request->quirks, item.protocolInfo);
      }
      item.protocolInfo = record->protocolInfo.c_str();
    }
    item.size = flags[DMS_CDS_FILTER_SIZE] == 0 ? info.fileSize : -1;
    fillMediaProperties(info, flags, item);
    const dmsTagPool &pool = request->handle->contentList->tagPool;
    applyTags(pool, entry->tags, flags, item);
    dmsArtOffer offer;
    dmsArtOffers(entry, request->handle->artCache, offer);
    if (flags[DMS_CDS_FILTER_RES] == 0) {
      std::memcpy(item.thumbnailResolution, offer.thumbnailResolution, sizeof item.thumbnailResolution);
      std::memcpy(item.smallResolution, offer.smallResolution, sizeof item.smallResolution);
      item.picturesCiAsMain = (request->quirks & DMS_QUIRK_THUMB_CI) != 0 ? 1 : 0;
    }
    if (flags[DMS_CDS_FILTER_ALBUMART] == 0) item.albumArtId = static_cast<int32_t>(offer.albumArtId);
    dmsCdsAddResume(*request, entry->id, *record);
    dmsCdsAddSubtitles(*request, *entry, *record);
    item.extraMetadata = record->extraMetadata.empty() ? nullptr : record->extraMetadata.c_str();
    item.extraResources = record->extraResources.empty() ? nullptr : record->extraResources.c_str();
    return DMS_SUCCESS;
  });
}

int32_t dmsCdsBuildContainer(const dmsCdsObjectRequest *request, dmsContentEntry *entry,
                             dmsCdsContainerRecord *record) {
  if (request == nullptr || entry == nullptr || record == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsGuard("dmsCdsBuildContainer", DMS_ERR_NO_MEMORY, [&]() -> int32_t {
    record->title.assign(lastComponent(entry->path));
    const size_t childCount = dmsClmChildren(entry).size();
    dlnaUtilDidlContainer &container = record->container;
    container.id = static_cast<int32_t>(entry->id);
    container.parentID = parentIdOf(*entry);
    container.childCount = -1;
    if (request->containerChildCount) {
      container.childCount = childCount > static_cast<size_t>(std::numeric_limits<int32_t>::max())
                                 ? std::numeric_limits<int32_t>::max()
                                 : static_cast<int32_t>(childCount);
    }
    container.restricted = 1;
    container.searchable = request->containerSearchable ? 1 : static_cast<uint32_t>(-1);
    container.title = record->title.c_str();
    container.upnpClass = DMS_CDS_FOLDER_CLASS;
    container.albumArtId = 0;
    if (request->handle != nullptr && request->filterFlags != nullptr &&
        request->filterFlags[DMS_CDS_FILTER_ALBUMART] == 0) {
      container.serverAddress = request->handle->serverAddress;
      container.serverPort = request->handle->serverPort;
      dmsArtOffer offer;
      dmsArtOffers(entry, request->handle->artCache, offer);
      container.albumArtId = static_cast<int32_t>(offer.albumArtId);
    }
    return DMS_SUCCESS;
  });
}

bool dmsCdsItemIsValid(const dlnaUtilDidlItem &item) {
  return item.id >= 0 && (item.parentID >= 0 || item.id == 0) && item.title != nullptr &&
         item.upnpClass != nullptr;
}

bool dmsCdsContainerIsValid(const dlnaUtilDidlContainer &container) {
  return container.id >= 0 && (container.parentID >= 0 || container.id == 0) &&
         container.title != nullptr && container.upnpClass != nullptr;
}

void dmsCdsNameResultArguments(dmsCdsRespArgs *respArgs) {
  respArgs->count = 4;
  respArgs->names[DMS_CDS_RESP_RESULT] = "Result";
  respArgs->names[DMS_CDS_RESP_NUMBER_RETURNED] = "NumberReturned";
  respArgs->names[DMS_CDS_RESP_TOTAL_MATCHES] = "TotalMatches";
  respArgs->names[DMS_CDS_RESP_UPDATE_ID] = "UpdateID";
}

int32_t dmsCdsSetResultArguments(dmsCdsRespArgs *respArgs, const dlnaUtilBuffer *buffer,
                                 int32_t numberReturned, int64_t totalMatches) {
  char numberText[24];
  char totalText[24];
  std::snprintf(numberText, sizeof numberText, "%d", numberReturned);
  std::snprintf(totalText, sizeof totalText, "%lld", static_cast<long long>(totalMatches));
  char *numberValue = strdup(numberText);
  char *totalValue = strdup(totalText);
  if (numberValue == nullptr || totalValue == nullptr) {
    std::free(numberValue);
    std::free(totalValue);
    DMS_TRACE(OSAL_TRACE_ERR, "Memory Allocation Failed \n");
    return DMS_ERR_NO_MEMORY;
  }
  respArgs->values[DMS_CDS_RESP_RESULT] = buffer->data;  // not owned: the buffer's text
  respArgs->values[DMS_CDS_RESP_NUMBER_RETURNED] = numberValue;
  respArgs->values[DMS_CDS_RESP_TOTAL_MATCHES] = totalValue;
  return DMS_SUCCESS;
}

int32_t dmsCdsSetUpdateIdArgument(const dmsCdsMgrHandle *handle, dmsCdsRespArgs *respArgs) {
  char text[16];
  std::snprintf(text, sizeof text, "%u", static_cast<unsigned>(handle->notifyCount.load()));
  char *value = strdup(text);
  if (value == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Memory Allocation Failed \n");
    return DMS_ERR_NO_MEMORY;
  }
  respArgs->values[DMS_CDS_RESP_UPDATE_ID] = value;
  return DMS_SUCCESS;
}


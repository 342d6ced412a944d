#include "services/dmsCdsResume.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "clients/dmsClients.h"
#include "facts/dmsFacts.h"
#include "services/dmsCdsObjects.h"
#include "util/dlnaUtil_xmlParser.h"
#include "util/dmsErrors.h"
#include "util/osal_trace.h"
#include "views/dmsViewIds.h"

static constexpr char kTraceFile[] = "dmsCdsMgrApi";

namespace {

constexpr char kPositionOpen[] = "<upnp:lastPlaybackPosition>";
constexpr char kPositionClose[] = "</upnp:lastPlaybackPosition>";

std::string durationText(int64_t milliseconds) {
  const int64_t seconds = milliseconds / 1000;
  char text[32];
  std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", static_cast<long long>(seconds / 3600),
                static_cast<long long>(seconds % 3600 / 60), static_cast<long long>(seconds % 60));
  return text;
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && std::strchr(" \t\r\n", text.front()) != nullptr) text.remove_prefix(1);
  while (!text.empty() && std::strchr(" \t\r\n", text.back()) != nullptr) text.remove_suffix(1);
  return text;
}

// The value of a tag value that is one upnp:lastPlaybackPosition element;
// false for anything else.
bool positionElement(std::string_view text, std::string_view &value) {
  text = trimmed(text);
  if (!text.starts_with(kPositionOpen) || !text.ends_with(kPositionClose)) return false;
  value = text.substr(sizeof kPositionOpen - 1, text.size() - (sizeof kPositionOpen - 1) - (sizeof kPositionClose - 1));
  return value.find('<') == std::string_view::npos;
}

struct FreeText {
  char *text = nullptr;
  ~FreeText() { std::free(text); }
};

}  // namespace

bool dmsCdsParsePosition(const char *text, int64_t &milliseconds) {
  unsigned long long hours = 0;
  unsigned minutes = 0, seconds = 0;
  int used = 0;
  if (text == nullptr || std::sscanf(text, "%6llu:%2u:%2u%n", &hours, &minutes, &seconds, &used) != 3) return false;
  if (minutes > 59 || seconds > 59 || text[0] < '0' || text[0] > '9') return false;
  int64_t fraction = 0;
  const char *rest = text + used;
  if (*rest == '.') {
    int64_t scale = 100;
    for (++rest; *rest >= '0' && *rest <= '9'; ++rest, scale /= 10) fraction += (*rest - '0') * scale;
  }
  if (*rest != '\0') return false;
  milliseconds = static_cast<int64_t>((hours * 3600 + minutes * 60 + seconds) * 1000) + fraction;
  return true;
}

void dmsCdsAddResume(const dmsCdsObjectRequest &request, uint32_t fileId, dmsCdsItemRecord &record) {
  record.extraMetadata.clear();
  dmsFact fact;
  if (request.handle->facts == nullptr || !request.handle->facts->get(fileId, fact)) return;
  const uint8_t *flags = request.filterFlags;
  std::string &out = record.extraMetadata;
  if (flags[DMS_CDS_FILTER_RESUME] == 0 && fact.positionMs > 0) {
    out.append(kPositionOpen).append(durationText(fact.positionMs)).append(kPositionClose);
  }
  if (flags[DMS_CDS_FILTER_PLAYCOUNT] == 0 && fact.playCount > 0) {
    out.append("<upnp:playbackCount>").append(std::to_string(fact.playCount)).append("</upnp:playbackCount>");
  }
  if ((request.quirks & DMS_QUIRK_SEC_DIDL) && fact.positionMs > 0) {
    out.append("<sec:dcmInfo xmlns:sec=\"http://www.sec.co.kr/\">BM=")
        .append(std::to_string(fact.positionMs / 1000))
        .append("</sec:dcmInfo>");
  }
}

int32_t dmsCdsAnalyzeReqSetBookmark(dmsCdsMgrHandle *, dmsActionRequest *actionRequest, dmsCdsBookmarkArgs *args) {
  IXML_Document *document = actionRequest->arguments;
  int32_t position = 0;
  int32_t result = dmsUtilErrMapToDmsErr(dlnaUtil_xmlParserGetInteger(document, "ObjectID", &args->objectId));
  if (result == DMS_SUCCESS) {
    result = dmsUtilErrMapToDmsErr(dlnaUtil_xmlParserGetInteger(document, "PosSecond", &position));
  }
  if (result != DMS_SUCCESS || position < 0) return result != DMS_SUCCESS ? result : DMS_ERR_NOT_FOUND;
  const bool milliseconds = actionRequest->client != nullptr && (actionRequest->client->quirks & DMS_QUIRK_BOOKMARK_MS);
  args->positionMs = milliseconds ? position : int64_t{position} * 1000;
  return DMS_SUCCESS;
}

int32_t dmsCdsAnalyzeReqUpdateObject(dmsCdsMgrHandle *, dmsActionRequest *actionRequest, dmsCdsBookmarkArgs *args) {
  IXML_Document *document = actionRequest->arguments;
  FreeText current, wanted;
  int32_t result = dmsUtilErrMapToDmsErr(dlnaUtil_xmlParserGetInteger(document, "ObjectID", &args->objectId));
  if (result == DMS_SUCCESS) {
    result = dmsUtilErrMapToDmsErr(dlnaUtil_xmlParserGetString(document, "CurrentTagValue", &current.text));
  }
  if (result == DMS_SUCCESS) {
    result = dmsUtilErrMapToDmsErr(dlnaUtil_xmlParserGetString(document, "NewTagValue", &wanted.text));
  }
  if (result != DMS_SUCCESS) return result;
  // Only the resume position may be written; the current value, when
  // given, must be one too (whatever it says: a player's view may be old).
  std::string_view value, old;
  const bool currentFits = trimmed(current.text != nullptr ? current.text : "").empty() ||
                           positionElement(current.text, old);
  if (!currentFits || wanted.text == nullptr || !positionElement(wanted.text, value) ||
      !dmsCdsParsePosition(std::string(value).c_str(), args->positionMs)) {
    DMS_TRACE(OSAL_TRACE_WARN, "UpdateObject of anything but upnp:lastPlaybackPosition is refused\n");
    return DMS_ERR_UNSUPPORTED_ACTION;
  }
  return DMS_SUCCESS;
}

int32_t dmsCdsAnalyzeReqFeatureList(dmsCdsMgrHandle *, dmsActionRequest *actionRequest, dmsCdsBookmarkArgs *) {
  // Asked by the players whose profile says they need it; unknown to others.
  const bool asked = actionRequest->client != nullptr && (actionRequest->client->quirks & DMS_QUIRK_FEATURE_LIST);
  return asked ? DMS_SUCCESS : DMS_ERR_UNSUPPORTED_ACTION;
}

int32_t dmsCdsReleaseReqArgsBookmark(dmsCdsBookmarkArgs *args) {
  if (args != nullptr) *args = dmsCdsBookmarkArgs{};
  return DMS_SUCCESS;
}

int32_t dmsCdsCreateRespBookmark(dmsCdsMgrHandle *handle, void *requestArgs, dmsCdsRespArgs *, dlnaUtilBuffer *) {
  const auto *args = static_cast<const dmsCdsBookmarkArgs *>(requestArgs);
  if (handle == nullptr || args == nullptr || handle->facts == nullptr) return DMS_ERR_INVALID_PARAM;
  uint32_t fileId = 0;
  {
    auto reading = dmsClmReadLock(handle->contentList);
    dmsCdsObject object;
    if (args->objectId > 0 && dmsCdsFindObject(handle, static_cast<uint32_t>(args->objectId), object) &&
        object.isItem() && object.entry != nullptr) {
      fileId = object.entry->id;
    }
  }
  if (fileId == 0) return DMS_ERR_NO_SUCH_OBJECT;
  handle->facts->setPosition(fileId, args->positionMs);
  return DMS_SUCCESS;
}

int32_t dmsCdsCreateRespXFeatureList(dmsCdsMgrHandle *handle, void *, dmsCdsRespArgs *respArgs, dlnaUtilBuffer *) {
  if (handle == nullptr || respArgs == nullptr) return DMS_ERR_INVALID_PARAM;
  // The views' Music, Pictures and Video, or the root when they are off.
  const bool views = handle->views.load(std::memory_order_acquire) != nullptr;
  std::string list =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?><Features xmlns=\"urn:schemas-upnp-org:av:avs\" "
      "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" xsi:schemaLocation=\"urn:schemas-upnp-org:av:avs "
      "http://www.upnp.org/schemas/av/avs.xsd\"><Feature name=\"samsung.com_BASICVIEW\" version=\"1\">";
  const struct {
    uint32_t id;
    const char *type;
  } kinds[] = {{dmsViewIds::kMusic, "object.item.audioItem"},
               {dmsViewIds::kPictures, "object.item.imageItem"},
               {dmsViewIds::kVideo, "object.item.videoItem"}};
  for (const auto &kind : kinds) {
    list += "<container id=\"" + std::to_string(views ? kind.id : 0) + "\" type=\"" + kind.type + "\"/>";
  }
  list += "</Feature></Features>";
  respArgs->names[0] = "FeatureList";
  respArgs->values[0] = strdup(list.c_str());
  if (respArgs->values[0] == nullptr) return DMS_ERR_NO_MEMORY;
  respArgs->count = 1;
  return DMS_SUCCESS;
}

#include "services/dmsCdsQuirks.h"

#include <strings.h>

#include <cstring>
#include <string_view>

#include "clients/dmsClients.h"
#include "services/dmsCdsSort.h"
#include "views/dmsViewIds.h"

namespace {

// One change of what a player is told of a type: the flag, the type it
// applies to, the type told instead (NULL: the same) and whether the DLNA
// profile name (DLNA.ORG_PN) is left out.
struct TypeRow {
  uint32_t quirk;
  const char *mimeType;
  const char *toldAs;
  bool dropProfile;
};

constexpr TypeRow kTypeRows[] = {
    {DMS_QUIRK_MKV_X_MKV, "video/x-matroska", "video/x-mkv", false},
    {DMS_QUIRK_AVI_VIDEO_AVI, "video/x-msvideo", "video/avi", false},
    {DMS_QUIRK_NO_PN_MKV_MP4, "video/x-matroska", nullptr, true},
    {DMS_QUIRK_NO_PN_MKV_MP4, "video/mp4", nullptr, true},
};

// Takes "DLNA.ORG_PN=...;" (or the field alone) out of the fourth field.
void dropProfile(std::string &fields) {
  const size_t at = fields.find("DLNA.ORG_PN=");
  if (at == std::string::npos) return;
  size_t end = fields.find(';', at);
  end = end == std::string::npos ? fields.size() : end + 1;
  fields.erase(at, end - at);
  if (!fields.empty() && fields.back() == ';') fields.pop_back();
  if (fields.empty()) fields = "*";
}

void appendUrl(std::string &out, const dmsCdsObjectRequest &request, uint32_t id, size_t index,
               const dmsSubtitleFormat &format) {
  out.append("http://").append(request.handle->serverAddress).append(":");
  out.append(std::to_string(request.handle->serverPort.load())).append("/web/").append(std::to_string(id));
  out.append(".").append(std::to_string(index)).append(format.extension);
}

// The Xbox 360's fixed container ids and the views' containers they mean.
struct XboxRow {
  const char *xboxId;
  uint32_t viewId;
};

constexpr XboxRow kXboxRows[] = {
    {"4", dmsViewIds::kAllTracks}, {"5", dmsViewIds::kGenres}, {"6", dmsViewIds::kArtists},
    {"7", dmsViewIds::kAlbums},    {"F", dmsViewIds::kPlaylists}, {"14", dmsViewIds::kMusic},
    {"15", dmsViewIds::kVideo},    {"16", dmsViewIds::kPictures},
};

}  // namespace

std::string dmsCdsFitSortCriteria(uint32_t quirks, const char *text) {
  if (text == nullptr) return {};
  if (quirks & DMS_QUIRK_SORT_TITLE) return "+dc:title";
  if ((quirks & DMS_QUIRK_SORT_DROP_UNKNOWN) == 0) return text;
  std::string kept;
  std::string_view rest(text);
  while (!rest.empty()) {
    const size_t comma = rest.find(',');
    const std::string key(rest.substr(0, comma));
    rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
    dmsCdsSortCriteria parsed;
    if (dmsCdsParseSortCriteria(key.c_str(), parsed) != DMS_SUCCESS || parsed.keys.empty()) continue;
    if (!kept.empty()) kept += ',';
    kept += key;
  }
  return kept;
}

bool dmsCdsXboxContainer(const char *text, bool viewsOn, int32_t &id) {
  if (text == nullptr) return false;
  for (const XboxRow &row : kXboxRows) {
    if (std::strcmp(text, row.xboxId) != 0) continue;
    id = viewsOn ? static_cast<int32_t>(row.viewId) : 0;
    return true;
  }
  return false;
}

std::string dmsCdsFitProtocol(uint32_t quirks, const std::string &protocolInfo) {
  if (quirks == 0) return protocolInfo;
  // protocol:network:MIME:fields
  const size_t first = protocolInfo.find(':');
  const size_t second = first == std::string::npos ? first : protocolInfo.find(':', first + 1);
  const size_t third = second == std::string::npos ? second : protocolInfo.find(':', second + 1);
  if (third == std::string::npos) return protocolInfo;
  std::string mime = protocolInfo.substr(second + 1, third - second - 1);
  std::string fields = protocolInfo.substr(third + 1);
  bool changed = false;
  for (const TypeRow &row : kTypeRows) {
    if ((quirks & row.quirk) == 0 || mime != row.mimeType) continue;
    if (row.dropProfile) dropProfile(fields);
    if (row.toldAs != nullptr) mime = row.toldAs;
    changed = true;
  }
  return changed ? protocolInfo.substr(0, second + 1) + mime + ":" + fields : protocolInfo;
}

bool dmsCdsSonyProtocol(const dmsContentEntry &entry, std::string &out) {
  const dmsMediaRecord &media = entry.media;
  if (media.formatId != MFD_FORMAT_MPEG_TS || media.videoCodec != MFD_CODEC_AVC || media.audioCodec != MFD_FORMAT_AC3) {
    return false;
  }
  const std::string_view name = entry.path;
  const auto endsWith = [&name](std::string_view extension) {
    return name.size() >= extension.size() &&
           strncasecmp(name.data() + name.size() - extension.size(), extension.data(), extension.size()) == 0;
  };
  // 192-byte packets (a time stamp before each) are the "_T" profile.
  out = endsWith(".m2ts") || endsWith(".mts")
            ? "http-get:*:video/vnd.dlna.mpeg-tts:DLNA.ORG_PN=AVC_TS_HD_50_AC3_T;DLNA.ORG_OP=01;DLNA.ORG_CI=0"
            : "http-get:*:video/mpeg:DLNA.ORG_PN=AVC_TS_HD_50_AC3;DLNA.ORG_OP=01;DLNA.ORG_CI=0";
  return true;
}

std::string dmsCdsFitMimeType(uint32_t quirks, const std::string &mimeType) {
  for (const TypeRow &row : kTypeRows) {
    if ((quirks & row.quirk) != 0 && row.toldAs != nullptr && mimeType == row.mimeType) return row.toldAs;
  }
  return mimeType;
}

const char *dmsCdsSubtitleType(uint32_t quirks, const dmsSubtitleFormat &format) {
  const bool subrip = std::strcmp(format.extension, ".srt") == 0;
  return subrip && (quirks & DMS_QUIRK_SRT_X_SUBRIP) ? DMS_SUBTITLE_SUBRIP_ALTERNATIVE : format.mimeType;
}

std::vector<dmsSubtitle> dmsCdsSubtitlesOf(const dmsContentEntry &entry) {
  const dmsContentEntry *folder = entry.parent;
  const bool video = entry.media.mediaClass == MFD_CLASS_VIDEO || entry.media.mediaClass == MFD_CLASS_AV;
  if (!video || folder == nullptr || folder->container() == nullptr || folder->container()->subtitles.empty()) return {};
  std::string_view name = entry.path;
  name.remove_prefix(name.rfind('/') == std::string_view::npos ? 0 : name.rfind('/') + 1);
  return dmsSubtitlesFor(folder->container()->subtitles, name);
}

void dmsCdsAddSubtitles(const dmsCdsObjectRequest &request, const dmsContentEntry &entry, dmsCdsItemRecord &record) {
  record.extraResources.clear();
  const std::vector<dmsSubtitle> subtitles = dmsCdsSubtitlesOf(entry);
  if (subtitles.empty()) return;
  if (request.filterFlags[DMS_CDS_FILTER_RES] == 0) {
    for (size_t i = 0; i < subtitles.size(); ++i) {
      record.extraResources.append("<res protocolInfo=\"http-get:*:")
          .append(dmsCdsSubtitleType(request.quirks, *subtitles[i].format))
          .append(":*\">");
      appendUrl(record.extraResources, request, entry.id, i, *subtitles[i].format);
      record.extraResources.append("</res>");
    }
  }
  if (request.quirks & DMS_QUIRK_SEC_DIDL) {
    record.extraMetadata.append("<sec:CaptionInfoEx xmlns:sec=\"http://www.sec.co.kr/\" sec:type=\"")
        .append(subtitles.front().format->secType)
        .append("\">");
    appendUrl(record.extraMetadata, request, entry.id, 0, *subtitles.front().format);
    record.extraMetadata.append("</sec:CaptionInfoEx>");
  }
}

// dlna_dmsProbeFile: the server's media detection on one file, described as
// one line of JSON for the host's probe command.
#include <cstring>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "tags/dmsClmTags.h"
#include "mfd/mfd_api.h"
#include "mfd/mfd_exif.h"
#include "dlna_dms.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

namespace {

// Length of the well-formed UTF-8 sequence at the start of `text`, 0 when it
// is not one (stray continuation byte, overlong form, surrogate, beyond
// U+10FFFF, cut short).
size_t utf8SequenceLength(std::string_view text) {
  auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  unsigned char lead = byte(0);
  size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 0;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < length) return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
  }
  unsigned char second = byte(1);
  if (lead == 0xE0 && second < 0xA0) return 0;  // overlong
  if (lead == 0xED && second > 0x9F) return 0;  // surrogate
  if (lead == 0xF0 && second < 0x90) return 0;  // overlong
  if (lead == 0xF4 && second > 0x8F) return 0;  // beyond U+10FFFF
  return length;
}

void appendEscaped(std::string &out, std::string_view text) {
  out += '"';
  for (size_t i = 0; i < text.size();) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c >= 0x80) {
      size_t length = utf8SequenceLength(text.substr(i));
      if (length > 0) {
        out.append(text.substr(i, length));
        i += length;
        continue;
      }
    }
    char escape[8];
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\b': out += "\\b"; break;
      case '\f': out += "\\f"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20 || c >= 0x80) {
          // Control characters, and bytes that are not UTF-8 as the code
          // point of the same value.
          std::snprintf(escape, sizeof escape, "\\u%04X", c);
          out += escape;
        } else {
          out += static_cast<char>(c);
        }
    }
    ++i;
  }
  out += '"';
}

void appendField(std::string &out, const char *key, std::string_view text) {
  out += out.size() > 1 ? ",\"" : "\"";
  out += key;
  out += "\":";
  appendEscaped(out, text);
}

void appendFlag(std::string &out, const char *key, bool value) {
  out += out.size() > 1 ? ",\"" : "\"";
  out += key;
  out += value ? "\":true" : "\":false";
}

void appendField(std::string &out, const char *key, long long number) {
  out += out.size() > 1 ? ",\"" : "\"";
  out += key;
  out += "\":";
  out += std::to_string(number);
}

std::string describe(const char *path, int32_t result, const mfdMediaInfo &info) {
  bool image = info.mediaClass == MFD_CLASS_IMAGE;
  // Videos keep their picture size in fields of their own.
  bool video = !image && (info.videoCodec != 0 || info.videoWidth != 0);
  auto text = [](const char *value) { return std::string_view(value != nullptr ? value : ""); };
  std::string line = "{";
  appendField(line, "path", path);
  appendField(line, "result", result);
  appendField(line, "mediaClass", info.mediaClass);
  appendField(line, "formatId", info.formatId);
  appendField(line, "format", mfd_formatTag(info.formatId));
  appendField(line, "mimeType", text(info.mimeType));
  appendField(line, "profileName", text(info.profileName));
  appendField(line, "protocolInfo", text(info.protocolInfo));
  appendField(line, "bitrate", image ? 0 : info.bitrate);
  appendField(line, "sampleRate", image ? 0 : info.sampleRate);
  appendField(line, "channels", info.channels);
  appendField(line, "width", image ? info.width : video ? info.videoWidth : 0);
  appendField(line, "height", image ? info.height : video ? info.videoHeight : 0);
  appendField(line, "audioCodec", info.audioCodec);
  appendField(line, "videoCodec", info.videoCodec);
  appendField(line, "profileCode", info.profileCode);
  appendField(line, "fileSize", info.fileSize);
  appendField(line, "dataOffset", info.dataOffset);
  appendField(line, "durationMs", info.duration);
  dmsTagText tags;
  const bool tagged = result == 0 && dmsClmReadTags(path, info, tags);
  int64_t thumbnailOffset = 0;
  int64_t thumbnailLength = 0;
  const bool jpeg = info.formatId == MFD_FORMAT_JPEG || info.formatId == MFD_FORMAT_JPEG2;
  appendFlag(line, "exifThumbnail", jpeg && mfdExif_thumbnail(path, &thumbnailOffset, &thumbnailLength));
  appendFlag(line, "embeddedArt", tags.hasPicture);
  if (tagged) {
    appendField(line, "title", tags.title);
    appendField(line, "artist", tags.artist);
    appendField(line, "albumArtist", tags.albumArtist);
    appendField(line, "album", tags.album);
    appendField(line, "genre", tags.genre);
    appendField(line, "date", tags.date);
    appendField(line, "track", tags.track);
    appendField(line, "disc", tags.disc);
  }
  line += "}\n";
  return line;
}

}  // namespace

namespace {

// Detection with every format the server registers, for one file.  0, or
// the error of setting detection up.
int32_t probe(const char *path, std::string &line) {
  mfdInstance *instance = nullptr;
  if (mfd_openInstance(&instance) != 0 || instance == nullptr) return DMS_ERR_FAILURE;
  for (uint32_t formatId : g_mfdAllServerFormatIds) mfd_registerFormat(instance, formatId);
  mfdMediaInfo info{};
  const int32_t result = mfd_detectMediaFormat(instance, path, &info);
  for (uint32_t formatId : g_mfdAllServerFormatIds) mfd_unregisterFormat(instance, formatId);
  mfd_closeInstance(instance);
  line = describe(path, result, info);
  return DMS_SUCCESS;
}

}  // namespace

extern "C" DMS_EXPORT int32_t dlna_dmsProbeFile(const char *path, char **json) {
  if (path == nullptr || json == nullptr) return DMS_ERR_INVALID_PARAM;
  *json = nullptr;
  return dmsGuard("dlna_dmsProbeFile", DMS_ERR_NO_MEMORY, [&] {
    std::string line;
    const int32_t result = probe(path, line);
    if (result != DMS_SUCCESS) return result;
    // malloc: the host releases it with free(), as the header says.
    char *copy = static_cast<char *>(std::malloc(line.size() + 1));
    if (copy == nullptr) return DMS_ERR_NO_MEMORY;
    std::memcpy(copy, line.c_str(), line.size() + 1);
    *json = copy;
    return DMS_SUCCESS;
  });
}

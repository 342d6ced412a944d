// File-name extensions by format: which extensions a file of each detected
// format may carry in its media URL, and the usual one for a file whose own
// name has none that fits (no extension, a dotted name like "Mr. Brightside",
// or a misleading one).
#include <strings.h>

#include <string_view>

#include "mfd/mfd_api.h"

namespace {

struct FormatExtensions {
  uint32_t formatId;
  const char *usual;     // given when the file's own extension does not fit
  const char *accepted;  // space-separated, besides the usual one
};

constexpr FormatExtensions kFormatExtensions[] = {
    // format                   usual   also accepted
    {MFD_FORMAT_ATRAC3,         "oma",  "omg aa3 ea3 at3"},
    {MFD_FORMAT_ATRAC3_PLUS,    "oma",  "omg aa3 ea3 at3"},
    {MFD_FORMAT_AC3,            "ac3",  "a52"},
    {MFD_FORMAT_MP1,            "mp1",  "mpa mpga mp2 mp3"},
    {MFD_FORMAT_MP2,            "mp2",  "mpa mpga mp1 mp3"},
    {MFD_FORMAT_MP3,            "mp3",  "mpa mpga mp2"},
    {MFD_FORMAT_MP4_AUDIO,      "m4a",  "mp4 m4b"},
    {MFD_FORMAT_AAC,            "aac",  "adts adt"},
    {MFD_FORMAT_AAC2,           "aac",  "adts adt"},
    {MFD_FORMAT_WMA,            "wma",  "asf"},
    {MFD_FORMAT_LPCM,           "pcm",  "lpcm l16 raw"},
    {MFD_FORMAT_WAV,            "wav",  "wave"},
    {MFD_FORMAT_MPEG1_VIDEO,    "mpg",  "mpeg mpe m1v mpv"},
    {MFD_FORMAT_MPEG2_VIDEO,    "mpg",  "mpeg mpe m2v mpv"},
    {MFD_FORMAT_MPEG4_PART2,    "m4v",  "mp4v cmp divx xvid"},
    {MFD_FORMAT_WMV,            "wmv",  "asf"},
    {MFD_FORMAT_JPEG,           "jpg",  "jpeg jpe jfif"},
    {MFD_FORMAT_JPEG2,          "jpg",  "jpeg jpe jfif"},
    {MFD_FORMAT_PNG,            "png",  ""},
    {MFD_FORMAT_GIF,            "gif",  ""},
    {MFD_FORMAT_TIFF,           "tif",  "tiff"},
    {MFD_FORMAT_ASF,            "asf",  "wma wmv"},
    {MFD_FORMAT_MPEG_PS,        "mpg",  "mpeg mpe vob dat m2p ps"},
    {MFD_FORMAT_MPEG_TS,        "ts",   "m2ts mts m2t tp trp tts"},
    {MFD_FORMAT_MP4,            "mp4",  "m4a m4v m4b mov 3gp 3g2"},
};

constexpr size_t kMaxExtensionLength = 5;

bool isShortAlphanumeric(std::string_view text) {
  if (text.empty() || text.size() > kMaxExtensionLength) return false;
  for (char c : text) {
    const bool alphanumeric = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (!alphanumeric) return false;
  }
  return true;
}

// True when `extension` is one of the space-separated words of `list`, in
// any case.
bool listHolds(std::string_view list, std::string_view extension) {
  while (!list.empty()) {
    const size_t space = list.find(' ');
    const std::string_view word = list.substr(0, space);
    if (word.size() == extension.size() && strncasecmp(word.data(), extension.data(), word.size()) == 0) {
      return true;
    }
    list = space == std::string_view::npos ? std::string_view() : list.substr(space + 1);
  }
  return false;
}

}  // namespace

std::string_view mfd_resourceExtension(uint32_t formatId, std::string_view fileExtension) {
  for (const FormatExtensions &row : kFormatExtensions) {
    if (row.formatId != formatId) continue;
    if (isShortAlphanumeric(fileExtension) &&
        (listHolds(row.usual, fileExtension) || listHolds(row.accepted, fileExtension))) {
      return fileExtension;
    }
    return row.usual;
  }
  return {};
}

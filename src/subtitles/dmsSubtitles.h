// Sidecar subtitle files: a video's subtitles are the files beside it that
// carry its name, an optional language and a subtitle extension
// ("movie.srt", "movie.en.srt", "movie.eng.ass"; "movie.sub" only with its
// "movie.idx").  One table of formats, one row each: extension, the type
// served, and the type Samsung's CaptionInfoEx names.  A subtitle file is
// never a media item.
//
// A folder keeps the names of its subtitle files (dmsContainerState), kept
// by the scan and the monitor; a video's subtitles are worked out from
// them when asked (a binary search), so a library without subtitles pays
// nothing.  Served at "/web/<video id>.<n>.<extension>", n counting from 0
// in name order.
#ifndef DMS_SUBTITLES_DMSSUBTITLES_H
#define DMS_SUBTITLES_DMSSUBTITLES_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct dmsSubtitleFormat {
  const char *extension;  // ".srt", lower case; names match in any case
  const char *mimeType;   // served and offered as
  const char *secType;    // sec:type of Samsung's CaptionInfoEx
};

// SubRip as application/x-subrip, for players that take only that type.
inline constexpr char DMS_SUBTITLE_SUBRIP_ALTERNATIVE[] = "application/x-subrip";

// The format of a subtitle file's name; NULL when it names none.
const dmsSubtitleFormat *dmsSubtitleFormatOf(std::string_view name);

struct dmsSubtitle {
  std::string name;  // the file's name in the video's folder
  const dmsSubtitleFormat *format;
};

// The subtitles of video `videoName` among `names` (a folder's subtitle
// file names, sorted byte-wise), in name order.  May throw std::bad_alloc.
std::vector<dmsSubtitle> dmsSubtitlesFor(const std::vector<std::string> &names, std::string_view videoName);

// Reads "/web/<id>.<n>.<extension>" (a subtitle's URL); false for any other
// path.
bool dmsSubtitleParseUrl(const char *path, uint32_t *id, uint32_t *index);

#endif  // DMS_SUBTITLES_DMSSUBTITLES_H

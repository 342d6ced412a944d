// libFuzzer target for sidecar subtitle matching: the input's first line is
// a video's file name, the others the names in its folder; the whole input
// is also read as a URL.  Whatever they are, every subtitle found is one of
// the folder's names, starts with the video's name up to its extension and
// has a format of the table; a URL reads or not without harm.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "subtitles/dmsSubtitles.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  std::vector<std::string> lines(1);
  for (char c : text) {
    if (c == '\n') {
      lines.emplace_back();
    } else {
      lines.back() += c;
    }
  }
  const std::string video = lines.front();
  std::vector<std::string> names(lines.begin() + 1, lines.end());
  std::sort(names.begin(), names.end());
  const size_t dot = video.rfind('.');
  for (const dmsSubtitle &subtitle : dmsSubtitlesFor(names, video)) {
    if (dot == std::string::npos || subtitle.format == nullptr) std::abort();
    if (subtitle.name.compare(0, dot + 1, video, 0, dot + 1) != 0) std::abort();
    if (!std::binary_search(names.begin(), names.end(), subtitle.name)) std::abort();
    if (dmsSubtitleFormatOf(subtitle.name) != subtitle.format) std::abort();
  }
  uint32_t id = 0, index = 0;
  dmsSubtitleParseUrl(text.c_str(), &id, &index);
  return 0;
}

#include "subtitles/dmsSubtitles.h"

#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cstring>

namespace {

constexpr dmsSubtitleFormat kFormats[] = {
    {".srt", "text/srt", "srt"},
    {".ass", "text/x-ass", "ass"},
    {".ssa", "text/x-ssa", "ssa"},
    {".smi", "application/x-sami", "smi"},
    {".vtt", "text/vtt", "vtt"},
    {".sub", "application/x-vobsub", "sub"},  // with its ".idx" only
};

constexpr size_t kMostLanguage = 16;  // "en", "eng", "pt-BR", "forced"

bool languageTag(std::string_view text) {
  return text.size() <= kMostLanguage && std::all_of(text.begin(), text.end(), [](char c) {
           return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
         });
}

bool hasIdx(const std::vector<std::string> &names, std::string_view sub) {
  std::string idx(sub.substr(0, sub.size() - 4));
  for (const char *extension : {".idx", ".IDX"}) {
    if (std::binary_search(names.begin(), names.end(), idx + extension)) return true;
  }
  return false;
}

// The row of an extension with its dot (".srt", any case); NULL for none.
const dmsSubtitleFormat *formatOfExtension(std::string_view extension) {
  for (const dmsSubtitleFormat &format : kFormats) {
    if (extension.size() == std::strlen(format.extension) &&
        strncasecmp(extension.data(), format.extension, extension.size()) == 0) {
      return &format;
    }
  }
  return nullptr;
}

}  // namespace

const dmsSubtitleFormat *dmsSubtitleFormatOf(std::string_view name) {
  const size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return nullptr;  // no extension, or a hidden file
  return formatOfExtension(name.substr(dot));
}

std::vector<dmsSubtitle> dmsSubtitlesFor(const std::vector<std::string> &names, std::string_view videoName) {
  std::vector<dmsSubtitle> found;
  const size_t dot = videoName.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return found;
  const std::string stem(videoName.substr(0, dot + 1));  // "movie."
  for (auto at = std::lower_bound(names.begin(), names.end(), stem);
       at != names.end() && at->compare(0, stem.size(), stem) == 0; ++at) {
    const dmsSubtitleFormat *format = dmsSubtitleFormatOf(*at);
    if (format == nullptr) continue;
    // Between the video's name and the extension: nothing ("movie.srt"),
    // or one language tag ("movie.en.srt").
    const size_t from = stem.size() - 1;  // the stem's dot
    const size_t extension = std::strlen(format->extension);
    if (at->size() < from + extension) continue;
    const std::string_view between = std::string_view(*at).substr(from, at->size() - from - extension);
    const bool fits = between.empty() || (between.size() > 1 && between[0] == '.' && languageTag(between.substr(1)));
    if (!fits) continue;
    if (std::strcmp(format->extension, ".sub") == 0 && !hasIdx(names, *at)) continue;
    found.push_back({*at, format});
  }
  return found;
}

bool dmsSubtitleParseUrl(const char *path, uint32_t *id, uint32_t *index) {
  constexpr std::string_view kPrefix = "/web/";
  if (path == nullptr || std::strncmp(path, kPrefix.data(), kPrefix.size()) != 0) return false;
  std::string_view rest(path + kPrefix.size());
  rest = rest.substr(0, rest.find('?'));
  const auto number = [&rest](uint32_t &value) {
    const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), value);
    if (error != std::errc() || end == rest.data() || end == rest.data() + rest.size() || *end != '.') return false;
    rest.remove_prefix(static_cast<size_t>(end - rest.data()) + 1);
    return true;
  };
  if (!number(*id) || !number(*index)) return false;
  return formatOfExtension("." + std::string(rest)) != nullptr;
}

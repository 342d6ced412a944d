// libFuzzer target for the playlist reader: the input is a playlist's text,
// read as M3U, M3U8 and PLS in turn from a shared folder.  Whatever the text,
// every path returned is absolute and normalised (no "." or ".." component,
// no empty one), holds no NUL byte, is at most DMS_PLAYLIST_MAX_PATH long,
// and there are at most DMS_PLAYLIST_MAX_ENTRIES of them.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "playlist/dmsPlaylistRead.h"

namespace {

[[noreturn]] void fail(const char *what, const std::string &path) {
  std::fprintf(stderr, "playlist_fuzz: %s: [%s]\n", what, path.c_str());
  std::abort();
}

void check(const std::string &path) {
  if (path.empty() || path[0] != '/') fail("not absolute", path);
  if (path.size() > DMS_PLAYLIST_MAX_PATH) fail("longer than the limit", path);
  if (path.find('\0') != std::string::npos) fail("a NUL byte", path);
  if (path.find("//") != std::string::npos) fail("an empty component", path);
  const std::string_view view(path);
  // "/." and "/.." at the end are components too.
  for (const std::string_view dots : {"/./", "/../"}) {
    if (view.find(dots) != std::string_view::npos || view.ends_with(dots.substr(0, dots.size() - 1))) {
      fail("a dot component", path);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string_view text(reinterpret_cast<const char *>(data), size);
  for (const dmsPlaylistFormat format : {dmsPlaylistFormat::kM3u, dmsPlaylistFormat::kM3u8, dmsPlaylistFormat::kPls}) {
    const std::vector<std::string> paths = dmsPlaylistParse(text, format, "/share/music");
    if (paths.size() > DMS_PLAYLIST_MAX_ENTRIES) std::abort();
    for (const std::string &path : paths) check(path);
  }
  return 0;
}

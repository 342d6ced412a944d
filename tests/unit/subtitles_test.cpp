// Sidecar subtitles: which files beside a video are its subtitles, and the
// URLs they are served at.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "subtitles/dmsSubtitles.h"

namespace {

using Names = std::vector<std::string>;

TEST(Subtitles, AVideosSubtitlesCarryItsNameAndAtMostALanguage) {
  Names folder = {"Film.srt",      "film.ENG.Ass", "film.en.srt", "film.en.x.srt", "film.idx",
                        "film.pt-BR.vtt", "film.smi",     "film.sub",    "film.txt",      "film2.srt",
                        "film.mkv.srt",  "other.sub"};
  std::sort(folder.begin(), folder.end());  // as a folder keeps them
  const struct {
    const char *video;
    Names expected;
  } cases[] = {
      {"film.mkv", {"film.ENG.Ass", "film.en.srt", "film.mkv.srt", "film.pt-BR.vtt", "film.smi", "film.sub"}},
      {"Film.mp4", {"Film.srt"}},
      {"film2.avi", {"film2.srt"}},
      {"other.avi", {}},  // a .sub without its .idx
      {"noextension", {}},
  };
  for (const auto &each : cases) {
    Names found;
    for (const dmsSubtitle &subtitle : dmsSubtitlesFor(folder, each.video)) found.push_back(subtitle.name);
    EXPECT_EQ(found, each.expected) << each.video;
  }
}

TEST(Subtitles, OnlySubtitleUrlsRead) {
  uint32_t id = 0, index = 0;
  EXPECT_TRUE(dmsSubtitleParseUrl("/web/1234.2.srt", &id, &index));
  EXPECT_EQ(id, 1234u);
  EXPECT_EQ(index, 2u);
  EXPECT_TRUE(dmsSubtitleParseUrl("/web/7.0.ASS?x=1", &id, &index));
  for (const char *url : {"/web/1234.srt", "/web/1234.2.mp3", "/web/1234.2.srt.x", "/web/x.2.srt", "/web/1.-2.srt",
                          "/web/99999999999.0.srt", "/web/1.0.", "/1.0.srt"}) {
    EXPECT_FALSE(dmsSubtitleParseUrl(url, &id, &index)) << url;
  }
}

}  // namespace

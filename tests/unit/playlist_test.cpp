// Playlist reading: the entries of M3U and PLS texts resolved to absolute,
// normalised paths, and playlist files read within their bounds.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <string>
#include <vector>

#include "dms_test.h"
#include "playlist/dmsPlaylistRead.h"

namespace {

using Paths = std::vector<std::string>;
using std::string_literals::operator""s;
constexpr auto kM3u = dmsPlaylistFormat::kM3u;
constexpr auto kM3u8 = dmsPlaylistFormat::kM3u8;
constexpr auto kPls = dmsPlaylistFormat::kPls;

TEST(Playlist, ParsesEntriesOfEachFormat) {
  const struct {
    const char *name;
    dmsPlaylistFormat format;
    std::string text;
    Paths paths;
  } cases[] = {
      // M3U lines
      {"comments, EXTINF, CRLF, BOM", kM3u,
       "\xEF\xBB\xBF#EXTM3U\r\n#EXTINF:123,Artist - Title\r\n  a.mp3 \t\r\n\r\n# a comment\r\nsub/b.flac\r\n",
       {"/share/music/a.mp3", "/share/music/sub/b.flac"}},
      {"CR endings, no final ending", kM3u8, "a.mp3\rb.mp3", {"/share/music/a.mp3", "/share/music/b.mp3"}},
      // entries
      {"absolute, dots, empty components", kM3u,
       "/music/./x//y.mp3\n../other/z.mp3\n../../../../up.mp3\n./a/../b.mp3\n/..\n",
       {"/music/x/y.mp3", "/share/other/z.mp3", "/up.mp3", "/share/music/b.mp3", "/"}},
      {"file URLs", kM3u,
       "file:///music/a%20b.mp3\nfile://localhost/c.mp3\nFILE://LocalHost/d%2f.mp3\nfile://nas/e.mp3\n"
       "file:///f%zz%4.mp3\nfile://localhost\n100%25.mp3\n",
       {"/music/a b.mp3", "/c.mp3", "/d/.mp3", "/f%zz%4.mp3", "/share/music/100%25.mp3"}},
      {"other schemes", kM3u, "http://h/a.mp3\nhttps://h/b\nrtsp://h/c\nmy+app.v-1://x\nhttp:\\\\h\\d\nkeep.mp3\n",
       {"/share/music/keep.mp3"}},
      {"backslashes, drive letters, shares", kM3u,
       "sub\\c.mp3\nC:\\Music\\d.mp3\nc:/Music/e.mp3\nD:\n\\\\server\\share\\f.mp3\nfile:///C:/g.mp3\n..\\h.mp3\n",
       {"/share/music/sub/c.mp3", "/share/h.mp3"}},
      {"NUL bytes", kM3u, "a\0b.mp3\nfile:///x%00y.mp3\nok.mp3\n"s, {"/share/music/ok.mp3"}},
      // text encoding
      {"Latin-1 .m3u converted", kM3u, "caf\xE9.mp3\n\xC3\xA9t\xE9.mp3\n",
       {"/share/music/caf\xC3\xA9.mp3", "/share/music/\xC3\x83\xC2\xA9t\xC3\xA9.mp3"}},
      {"UTF-8 .m3u kept", kM3u, "caf\xC3\xA9.mp3\n", {"/share/music/caf\xC3\xA9.mp3"}},
      {".m3u8 taken as UTF-8", kM3u8, "caf\xE9.mp3\n", {"/share/music/caf\xE9.mp3"}},
      // PLS
      {"PLS ordered by N, other keys ignored", kPls,
       "[playlist]\nNumberOfEntries=5\nFile3=c.mp3\nTitle3=C\nFile1=a.mp3\nLength1=10\nFile10=j.mp3\n"
       "File2=b1.mp3\nFile02=b2.mp3\nFile0=zero.mp3\nFilex=x.mp3\nFile=none.mp3\nVersion=2\n",
       {"/share/music/a.mp3", "/share/music/b1.mp3", "/share/music/b2.mp3", "/share/music/c.mp3",
        "/share/music/j.mp3"}},
      {"PLS keys and section case-insensitive", kPls, "[PlayList]\r\nfile1=/m/a.mp3\r\nFILE2 = /m/b.mp3 \r\n",
       {"/m/a.mp3", "/m/b.mp3"}},
      {"PLS entries outside the section", kPls,
       "File1=/before.mp3\n[other]\nFile2=/other.mp3\n[ playlist ]\nFile3=/in.mp3\n", {"/in.mp3"}},
      {"PLS Latin-1 converted", kPls, "[playlist]\nFile1=\xE9.mp3\n", {"/share/music/\xC3\xA9.mp3"}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(dmsPlaylistParse(c.text, c.format, "/share/music"), c.paths);
  }
}

TEST(Playlist, KeepsItsLimits) {
  std::string many;
  for (size_t i = 0; i <= DMS_PLAYLIST_MAX_ENTRIES; ++i) many += "/m/" + std::to_string(i) + ".mp3\n";
  const Paths kept = dmsPlaylistParse(many, kM3u, "/");
  ASSERT_EQ(kept.size(), DMS_PLAYLIST_MAX_ENTRIES);
  EXPECT_EQ(kept.back(), "/m/" + std::to_string(DMS_PLAYLIST_MAX_ENTRIES - 1) + ".mp3");

  const std::string longest = "/" + std::string(DMS_PLAYLIST_MAX_PATH - 1, 'a');
  const std::string text = longest + "\n" + longest + "b\n" + longest + "/../c\n" +
                           std::string(DMS_PLAYLIST_MAX_PATH, 'd') + "\n";
  EXPECT_EQ(dmsPlaylistParse(text, kM3u, "/f"), (Paths{longest, "/c"}));
}

TEST(Playlist, FormatByExtension) {
  dmsPlaylistFormat format = kPls;
  EXPECT_TRUE(dmsPlaylistFormatOf("a.M3U", format));
  EXPECT_EQ(format, kM3u);
  EXPECT_TRUE(dmsPlaylistFormatOf("/x.y/b.m3u8", format));
  EXPECT_EQ(format, kM3u8);
  EXPECT_TRUE(dmsPlaylistFormatOf("c.Pls", format));
  EXPECT_EQ(format, kPls);
  for (const char *other : {"a.mp3", "m3u", "a.m3u.bak", "a.pls/", ""}) {
    EXPECT_FALSE(dmsPlaylistFormatOf(other, format)) << other;
  }
}

TEST(Playlist, ReadsRegularFilesOnly) {
  dmstest::TempDir tree;
  Paths entries;
  ASSERT_TRUE(dmsPlaylistReadFile(tree.write("list.m3u", "#EXTM3U\na.mp3\n/abs.mp3\n"), kM3u, entries));
  EXPECT_EQ(entries, (Paths{tree / "a.mp3", "/abs.mp3"}));

  // A line across the limit is left out whole.
  const std::string last = "/last.mp3\n", cut = "/cut.mp3\n";
  const std::string filler = "#" + std::string(DMS_PLAYLIST_MAX_BYTES - last.size() - 4, 'x') + "\n";
  ASSERT_TRUE(dmsPlaylistReadFile(tree.write("big.m3u", filler + last + cut + "/more.mp3\n"), kM3u, entries));
  EXPECT_EQ(entries, (Paths{"/last.mp3"}));

  // A FIFO without a writer, a folder and a missing file: refused at once.
  ASSERT_EQ(::mkfifo((tree / "fifo.m3u").c_str(), 0644), 0);
  for (const std::string name : {"fifo.m3u", "", "missing.m3u"}) {
    const auto start = std::chrono::steady_clock::now();
    entries = {"untouched"};
    EXPECT_FALSE(dmsPlaylistReadFile(tree / name, kM3u, entries)) << name;
    EXPECT_EQ(entries, Paths{"untouched"});
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  }
}

}  // namespace

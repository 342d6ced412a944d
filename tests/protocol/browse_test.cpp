// Browse and Search as a control point sees them, over a tree of real media
// files: metadata, order, paging, filters, escaping and hostile arguments,
// each as rows of a table (Search criteria: search_test.cpp).
#include <gtest/gtest.h>

#include <iconv.h>

#include <algorithm>
#include <filesystem>

#include "dms_test.h"

using namespace dmstest;

namespace {

const char kSong[] = "audio/mp3/mpeg1-44k-cbr128.mp3";

class BrowseTest : public ServerSuite {
 protected:
  static void SetUpTestSuite() {
    tree().mkdir("Shared/Empty");
    for (const char *name : {"a", "b", "c"}) tree().copy(kSong, std::string("Shared/Music/") + name + ".mp3");
    tree().copy("image/jfif-640x480.jpg", "Shared/Photos/p.jpg");
    tree().copy(kSong, "Shared/Tom & <Jerry>.mp3");
    tree().copy(kSong, "Shared/b.song.mp3");
    tree().copy("audio/pcm/x-b-lpcm-2.pcm", "Shared/music-b-lpcm-2.pcm");
    tree().copy("audio/wav/pcm16-44100-2ch.wav", "Shared/tone.wav");
    ASSERT_TRUE(serve({tree() / "Shared"}));
    shared_ = children(port(), "0").at(0).id();
  }
  static std::string id(const std::string &titles) { return lookup(port(), "Shared/" + titles).id(); }
  static std::vector<std::string> titles(const CdsAnswer &answer) {
    std::vector<std::string> out;
    for (const DidlObject &object : answer.objects) out.push_back(object.title());
    return out;
  }
  static inline std::string shared_;
};

TEST_F(BrowseTest, MetadataOfRootFolderAndItem) {
  const std::string song = id("b.song");
  struct Row {
    std::string id;
    std::vector<std::pair<std::string, std::string>> expected;  // attribute, property or res@x
  } rows[] = {
      {"0", {{"@id", "0"}, {"@parentID", "-1"}, {"dc:title", "root"},
             {"upnp:class", "object.container.storageFolder"}, {"@childCount", "1"}}},
      {shared_, {{"@parentID", "0"}, {"dc:title", "Shared"}, {"@childCount", "7"}, {"@searchable", "1"}}},
      {id("Music"), {{"@parentID", shared_}, {"@childCount", "3"}}},
      {song, {{"@parentID", shared_}, {"upnp:class", "object.item.audioItem.musicTrack"},
              {"res@protocolInfo", "http-get:*:audio/mpeg:DLNA.ORG_PN=MP3;DLNA.ORG_OP=01;DLNA.ORG_CI=0"},
              {"res@url", "http://127.0.0.1:" + std::to_string(server().mediaPort()) + "/web/" + song + ".mp3"},
              {"res@size", std::to_string(std::filesystem::file_size(fixture(kSong)))},
              {"res@duration", "0:00:01.044"}, {"res@bitrate", "16000"}}},
      {id("Photos/p"), {{"upnp:class", "object.item.imageItem.photo"}, {"res@resolution", "640x480"}}},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.id);
    CdsAnswer answer = browse(port(), row.id, "BrowseMetadata");
    ASSERT_EQ(answer.objects.size(), 1u);
    EXPECT_EQ(answer.numberReturned, 1);
    EXPECT_EQ(answer.totalMatches, 1);
    const DidlObject &object = answer.objects[0];
    for (const auto &[name, value] : row.expected) {
      if (name[0] == '@') {
        EXPECT_EQ(object.attr(name.substr(1)), value) << name;
      } else if (name.rfind("res@", 0) == 0) {
        ASSERT_GE(object.res.size(), 1u);  // a photo's own res, then its thumbnails
        EXPECT_EQ(object.res[0].count(name.substr(4)) ? object.res[0].at(name.substr(4)) : "", value) << name;
      } else {
        EXPECT_EQ(object.prop(name), value) << name;
      }
    }
  }
}

TEST_F(BrowseTest, ChildrenInByteOrderWithTitlesThatRoundTrip) {
  CdsAnswer answer = browse(port(), shared_, "BrowseDirectChildren");
  ASSERT_TRUE(answer.wellFormed);
  EXPECT_EQ(titles(answer), (std::vector<std::string>{"Empty", "Music", "Photos", "Tom & <Jerry>",
                                                      "b.song", "music-b-lpcm-2", "tone"}));
  EXPECT_EQ(answer.result.find("Tom & <"), std::string::npos);  // the raw Result was escaped
}

TEST_F(BrowseTest, PagingPicksTheRequestedSlice) {
  const std::string music = id("Music"), shared = shared_;
  struct Row {
    std::string id;
    int start, count;
    std::vector<std::string> titles;
    int total;  // -1: a fault
  } rows[] = {
      {music, 0, 0, {"a", "b", "c"}, 3}, {music, 0, 10, {"a", "b", "c"}, 3}, {music, 0, 1, {"a"}, 3},
      {music, 1, 1, {"b"}, 3},           {music, 1, 2, {"b", "c"}, 3},       {music, 2, 5, {"c"}, 3},
      {shared, 5, 2, {"music-b-lpcm-2", "tone"}, 7},                         {music, 3, 1, {}, -1},
      {id("Empty"), 0, 0, {}, 0},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(std::to_string(row.start) + "+" + std::to_string(row.count));
    CdsAnswer answer = browse(port(), row.id, "BrowseDirectChildren", row.start, row.count);
    EXPECT_EQ(answer.status, row.total < 0 ? 500 : 200);
    if (row.total < 0) continue;
    EXPECT_EQ(titles(answer), row.titles);
    EXPECT_EQ(answer.numberReturned, static_cast<int>(row.titles.size()));
    EXPECT_EQ(answer.totalMatches, row.total);
  }
}

TEST_F(BrowseTest, FilterChoosesTheProperties) {
  struct Row {
    const char *filter;
    bool res, size, duration, childCount;
  } rows[] = {
      {"*", true, true, true, true},
      {"dc:title", false, false, false, false},
      {"dc:title,res@duration", true, false, true, false},
      {"res@size,@childCount", true, true, false, true},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.filter);
    CdsAnswer answer = browse(port(), shared_, "BrowseDirectChildren", 0, 0, row.filter);
    ASSERT_EQ(answer.objects.size(), 7u);
    EXPECT_EQ(!answer.objects[1].attr("childCount").empty(), row.childCount);  // Music
    const DidlObject &song = answer.objects[4];                              // b.song
    ASSERT_EQ(!song.res.empty(), row.res);
    if (!row.res) continue;
    EXPECT_EQ(song.res[0].count("size") == 1, row.size);
    EXPECT_EQ(song.res[0].count("duration") == 1, row.duration);
  }
}

TEST_F(BrowseTest, HostileArgumentsGetFaultsAndTheServerGoesOn) {
  const std::string music = id("Music");
  struct Row {
    std::string action, arguments;
    int status;
    const char *errorCode;  // "" for a success
  } rows[] = {
      {"Browse", browseArguments("99999", "BrowseDirectChildren"), 500, "720"},
      // Ids are read as numbers: what they read as is answered, well-formed.
      {"Browse", browseArguments("-1", "BrowseMetadata"), 200, ""},
      {"Browse", browseArguments("1001abc", "BrowseMetadata"), 200, ""},
      {"Browse", browseArguments(std::string(5000, '9'), "BrowseMetadata"), 500, "720"},  // held at 2^31-1
      {"Browse", browseArguments(music, "BrowseSideways"), 500, "501"},
      {"Browse", browseArguments(music, "BrowseDirectChildren", "-1"), 500, "501"},
      {"Browse", browseArguments(music, "BrowseDirectChildren", "0", "-5"), 500, "501"},
      {"Browse", browseArguments(music, "BrowseDirectChildren", "99999999999"), 500, "501"},
      {"Browse", browseArguments(music, "BrowseDirectChildren", "0", "4294967296"), 200, ""},
      {"Browse", browseArguments(music, "BrowseDirectChildren", "zero", "ten"), 200, ""},
      {"Browse", "<ObjectID>0</ObjectID><Filter>*</Filter>", 500, "402"},
      {"Search", "<ContainerID>0</ContainerID>", 500, "402"},
      {"Search", "<ContainerID>77777</ContainerID><SearchCriteria>*</SearchCriteria><Filter>*</Filter>"
                 "<StartingIndex>0</StartingIndex><RequestedCount>0</RequestedCount><SortCriteria/>", 500, "720"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.arguments.substr(0, 80));
    HttpResponse response = soap(port(), Service::kCds, row.action, row.arguments);
    EXPECT_EQ(response.status, row.status);
    EXPECT_EQ(elementText(response.body, "errorCode"), row.errorCode);
    if (row.status == 200 && row.action == "Browse") {
      bool ok = false;
      parseDidl(elementText(response.body, "Result"), &ok);
      EXPECT_TRUE(ok);
    }
  }
  EXPECT_EQ(browse(port(), music, "BrowseDirectChildren").numberReturned, 3);
}

// Paging through a big folder in odd-sized pages meets every child exactly
// once and in order, for Browse and for Search alike.
TEST(BrowsePages, EveryChildOnceAcrossPages) {
  TempDir tree;
  std::vector<std::string> names(250);
  for (size_t i = 0; i < names.size(); ++i) names[i] = std::to_string(1000 + i).substr(1);  // "000" on
  const std::string song = tree.copy(kSong, "big/000.mp3");
  for (size_t i = 1; i < names.size(); ++i) std::filesystem::create_hard_link(song, tree / ("big/" + names[i] + ".mp3"));
  RunningServer server;
  ASSERT_TRUE(server.start({tree / "big"}));
  const std::string folder = children(server.port(), "0").at(0).id();
  const int files = static_cast<int>(names.size());
  for (bool searching : {false, true}) {
    SCOPED_TRACE(searching ? "Search" : "Browse");
    std::vector<std::string> seen;
    for (int start = 0; start < files + 10; start += 7) {
      CdsAnswer page = searching ? search(server.port(), folder, "dc:title contains \"\"", start, 7)
                                 : browse(server.port(), folder, "BrowseDirectChildren", start, 7);
      EXPECT_EQ(page.status, start >= files && !searching ? 500 : 200);  // past the end of a folder
      if (page.status != 200) continue;
      EXPECT_EQ(page.totalMatches, files);
      for (const DidlObject &object : page.objects) seen.push_back(object.title());
    }
    EXPECT_EQ(seen, names);
  }
}

// True when `text` is UTF-8 that a strict XML 1.0 parser reads: glibc's
// converter refuses any ill-formed sequence, and no decoded character may
// be one XML forbids.
bool isStrictXmlText(const std::string &text) {
  iconv_t converter = iconv_open("UTF-32LE", "UTF-8");
  std::string input = text;
  std::u32string output(text.size() + 1, U'\0');
  char *in = input.data();
  char *out = reinterpret_cast<char *>(output.data());
  size_t inLeft = input.size(), outLeft = output.size() * sizeof(char32_t);
  const bool converted = iconv(converter, &in, &inLeft, &out, &outLeft) != static_cast<size_t>(-1);
  iconv_close(converter);
  if (!converted) return false;
  output.resize(output.size() - outLeft / sizeof(char32_t));
  for (char32_t c : output) {
    if ((c < 0x20 && c != '\t' && c != '\n' && c != '\r') || c == 0xFFFE || c == 0xFFFF) return false;
  }
  return true;
}

// Names as old disks and other systems write them: no extension, dots
// inside, a misleading extension, Latin-1 bytes and control characters.
// Every page stays readable by a strict parser and every item plays from
// the URL its page gives.
TEST(OddFileNames, PagesStayWellFormedAndEveryUrlPlays) {
  struct Row {
    std::string name;
    std::string title;      // as the page shows it
    std::string extension;  // of the URL
  } rows[] = {
      {"Mr. Brightside", "Mr", ".mp3"},
      {"01. Intro.final", "01. Intro", ".mp3"},
      {"LOUD.MP3", "LOUD", ".MP3"},
      {"song.mp3.part", "song.mp3", ".mp3"},
      {"caf\xE9.mp3", "caf\xC3\xA9", ".mp3"},
      {"caf\xC3\xA9 ok.mp3", "caf\xC3\xA9 ok", ".mp3"},
      {"bell\x01" "esc\x1B.mp3", "bellesc", ".mp3"},
      {"half\xE2\x82.mp3", "half\xC3\xA2\xEF\xBF\xBD", ".mp3"},
      {"tab\tname.mp3", "tab\tname", ".mp3"},
  };
  TempDir tree;
  const std::string song = tree.copy(kSong, "odd/" + rows[0].name);
  for (const Row &row : rows) {
    if (row.name != rows[0].name) std::filesystem::create_hard_link(song, tree / ("odd/" + row.name));
  }
  RunningServer server;
  ASSERT_TRUE(server.start({tree / "odd"}));
  const std::string folder = children(server.port(), "0").at(0).id();
  const std::string bytes = readFile(song);
  for (const CdsAnswer &page : {browse(server.port(), folder, "BrowseDirectChildren"),
                                search(server.port(), folder, "dc:title contains \"\"")}) {
    ASSERT_TRUE(page.wellFormed);
    EXPECT_TRUE(isStrictXmlText(page.result));
    ASSERT_EQ(page.objects.size(), std::size(rows));
    for (const Row &row : rows) {
      SCOPED_TRACE(row.name);
      auto found = std::find_if(page.objects.begin(), page.objects.end(),
                                [&](const DidlObject &object) { return object.title() == row.title; });
      ASSERT_NE(found, page.objects.end());
      const std::string path = found->path();
      EXPECT_EQ(path.substr(path.rfind('.')), row.extension);
      const HttpResponse answer = httpGet(server.mediaPort(), path);
      EXPECT_EQ(answer.status, 200);
      EXPECT_EQ(answer.body, bytes);
      EXPECT_EQ(httpGet(server.port(), path).status, 200);
      EXPECT_TRUE(isStrictXmlText(browse(server.port(), found->id(), "BrowseMetadata").result));
    }
  }
}

}  // namespace

// The views as a TV walks them: Music by artist, album and genre, pictures
// by date, all videos; each virtual item a reference to its folder's item
// that plays from the same URL; Search answering each file once; and the
// views following files copied in, retagged and deleted, with events.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <ctime>
#include <filesystem>
#include <set>

#include <taglib/fileref.h>
#include <taglib/tpropertymap.h>

#include "dms_test.h"

using namespace dmstest;
namespace fs = std::filesystem;

namespace {

struct Track {
  const char *file, *title, *artist, *album, *genre;
  int track, disc;
};

// The library: the expected answers below are written from this table.
const Track kTracks[] = {
    // file             title        artist   album           genre      track disc
    {"z/borealis.mp3",  "Borealis",  "Zeta",  "Emerald City", "Ambient", 2,    1},
    {"z/tin.mp3",       "Tin Man",   "Zeta",  "Emerald City", "Ambient", 10,   1},
    {"z/aurora.mp3",    "Aurora",    "zeta",  "Emerald City", "Ambient", 1,    2},
    {"z/intro.mp3",     "Intro",     "Zeta",  "",             "Rock",    0,    0},
    {"a/s10.mp3",       "Song 10",   "alpha", "Greatest",     "Rock",    1,    0},
    {"a/s2.mp3",        "song 2",    "",      "",             "",        0,    0},
};

void writeTags(const std::string &path, const Track &track) {
  TagLib::FileRef file(path.c_str());
  ASSERT_FALSE(file.isNull()) << path;
  TagLib::PropertyMap properties;
  const auto put = [&](const char *key, const std::string &value) {
    if (!value.empty()) properties[key] = TagLib::StringList(TagLib::String(value, TagLib::String::UTF8));
  };
  put("TITLE", track.title);
  put("ARTIST", track.artist);
  put("ALBUM", track.album);
  put("GENRE", track.genre);
  if (track.track > 0) put("TRACKNUMBER", std::to_string(track.track));
  if (track.disc > 0) put("DISCNUMBER", std::to_string(track.disc));
  file.file()->setProperties(properties);
  ASSERT_TRUE(file.save()) << path;
}

std::vector<std::string> titles(const std::vector<DidlObject> &objects) {
  std::vector<std::string> out;
  for (const DidlObject &object : objects) out.push_back(object.title());
  return out;
}

class ViewsTest : public ServerSuite {
 protected:
  static void SetUpTestSuite() {
    for (const Track &track : kTracks) writeTags(tree().copy("tagged/mp3-no-tags.mp3", "share/" + std::string(track.file)), track);
    tree().copy("tagged/photo-exif-date.jpg", "share/p/exif.jpg");
    const std::string plain = tree().copy("art/photo/small.jpg", "share/p/plain.jpg");
    struct tm july {};
    july.tm_year = 2024 - 1900, july.tm_mon = 6, july.tm_mday = 15, july.tm_hour = 12;
    const time_t when = std::mktime(&july);
    const struct utimbuf times{when, when};
    utime(plain.c_str(), &times);
    tree().copy("containers/mkv-h264-aac.mkv", "share/v/film.mkv");
    server_ = std::make_unique<RunningServer>();
    ASSERT_TRUE(server_->create({tree() / "share"}));
    ASSERT_EQ(dlna_dmsSetViews(server_->handle(), 1), DMS_SUCCESS);
    ASSERT_TRUE(server_->startCreated());
  }
  static void TearDownTestSuite() {
    server_.reset();
    ServerSuite::TearDownTestSuite();
  }
  static int port() { return server_->port(); }
  std::vector<std::string> titlesAt(const std::string &path) { return titles(children(port(), lookup(port(), path).id())); }

  static inline std::unique_ptr<RunningServer> server_;
};

TEST_F(ViewsTest, EachListHoldsWhatItsNameSays) {
  const std::vector<std::string> root = titlesAt("");
  ASSERT_EQ(root.size(), 4u);
  EXPECT_EQ(std::vector<std::string>(root.begin(), root.begin() + 3), (std::vector<std::string>{"Music", "Pictures", "Video"}));
  struct Row {
    const char *path;
    std::vector<std::string> titles;
  } rows[] = {
      {"Music", {"All Tracks", "Artists", "Albums", "Genres", "Playlists"}},
      {"Music/All Tracks", {"Aurora", "Borealis", "Intro", "song 2", "Song 10", "Tin Man"}},
      {"Music/Artists", {"alpha", "Unknown Artist", "Zeta", "zeta"}},  // equal but for case: bytes decide
      {"Music/Artists/Zeta", {"Emerald City", "Intro"}},
      {"Music/Artists/Zeta/Emerald City", {"Borealis", "Tin Man"}},
      {"Music/Artists/Unknown Artist", {"song 2"}},
      {"Music/Albums", {"Emerald City", "Greatest"}},
      {"Music/Albums/Emerald City", {"Borealis", "Tin Man", "Aurora"}},  // disc 1 track 2, disc 1 track 10, disc 2
      {"Music/Genres", {"Ambient", "Rock"}},
      {"Music/Genres/Rock", {"Intro", "Song 10"}},
      {"Pictures", {"All Pictures", "By Date"}},
      {"Pictures/All Pictures", {"exif", "plain"}},
      {"Pictures/By Date", {"2019", "2024"}},
      {"Pictures/By Date/2019", {"2019-07"}},
      {"Pictures/By Date/2024/2024-07", {"plain"}},
      {"Video/All Videos", {"film"}},
  };
  for (const Row &row : rows) EXPECT_EQ(titlesAt(row.path), row.titles) << row.path;
  EXPECT_EQ(lookup(port(), "Music/Artists/Zeta").attr("childCount"), "2");
  EXPECT_EQ(lookup(port(), "Music/Albums/Greatest").prop("upnp:class"), "object.container.album.musicAlbum");
}

TEST_F(ViewsTest, EveryVirtualItemNamesItsFolderItemAndPlaysFromItsUrl) {
  int checked = 0;
  std::vector<std::string> pending{"1", "2", "3"};
  while (!pending.empty()) {
    const std::string id = pending.back();
    pending.pop_back();
    for (const DidlObject &object : children(port(), id)) {
      if (object.container) {
        pending.push_back(object.id());
        continue;
      }
      EXPECT_EQ(object.attr("parentID"), id);
      const CdsAnswer meta = browse(port(), object.id(), "BrowseMetadata");
      ASSERT_EQ(meta.objects.size(), 1u) << object.id();
      EXPECT_EQ(meta.objects[0].attr("refID"), object.attr("refID"));
      const CdsAnswer target = browse(port(), object.attr("refID"), "BrowseMetadata");
      ASSERT_EQ(target.objects.size(), 1u) << object.attr("refID");
      EXPECT_TRUE(target.objects[0].attr("refID").empty());
      EXPECT_EQ(target.objects[0].title(), object.title());
      EXPECT_EQ(target.objects[0].res.at(0).at("url"), object.res.at(0).at("url"));
      ++checked;
    }
  }
  EXPECT_EQ(checked, 6 + 5 + 5 + 5 + 2 + 2 + 1);  // tracks in their four lists, pictures in two, videos in one
  const DidlObject track = children(port(), "4").at(0);
  EXPECT_EQ(httpGet(port(), track.path()).status, 200);
}

TEST_F(ViewsTest, SearchAnswersEachFileOnce) {
  struct Row {
    const char *container, *criteria;
    int matches;
  } rows[] = {
      {"0", "dc:title contains \"borea\"", 1},  // the folder's item, not one per view
      {"1", "dc:title contains \"borea\"", 1},  // below Music: its All Tracks item
      {"1", "upnp:class = \"object.item.audioItem.musicTrack\"", 6},
      {"6", "upnp:class = \"object.container.album.musicAlbum\"", 2},
      {"5", "upnp:artist = \"zeta\"", 4},
      {"7", "upnp:genre = \"Rock\"", 2},
      {"2", "upnp:class derivedfrom \"object.item.imageItem\"", 2},
      {"0", "*", 9},
  };
  for (const Row &row : rows) {
    const CdsAnswer answer = search(port(), row.container, row.criteria);
    EXPECT_EQ(answer.totalMatches, row.matches) << row.container << " " << row.criteria;
  }
  const CdsAnswer inViews = search(port(), "4", "dc:title = \"Borealis\"");
  ASSERT_EQ(inViews.objects.size(), 1u);
  EXPECT_FALSE(inViews.objects[0].attr("refID").empty());
  const CdsAnswer sorted = browse(port(), "4", "BrowseDirectChildren", 0, 2, "*", "-dc:title");
  EXPECT_EQ(titles(sorted.objects), (std::vector<std::string>{"Tin Man", "Song 10"}));
}

TEST(ViewsSwitch, OffByDefaultInTheLibraryAndSwitchedAtRunTime) {
  TempDir disk;
  disk.copy("tagged/id3v24-utf8.mp3", "share/a.mp3");
  RunningServer server;
  ASSERT_TRUE(server.start({disk / "share"}));
  EXPECT_EQ(children(server.port(), "0").size(), 1u);
  EXPECT_EQ(browse(server.port(), "1", "BrowseMetadata").errorCode, browse(server.port(), "999999", "BrowseMetadata").errorCode);
  EXPECT_FALSE(browse(server.port(), "1", "BrowseMetadata").errorCode.empty());
  ASSERT_EQ(dlna_dmsSetViews(server.handle(), 1), DMS_SUCCESS);
  EXPECT_EQ(children(server.port(), "0").size(), 4u);
  EXPECT_EQ(children(server.port(), "4").size(), 1u);
  ASSERT_EQ(dlna_dmsSetViews(server.handle(), 0), DMS_SUCCESS);
  EXPECT_EQ(children(server.port(), "0").size(), 1u);
  EXPECT_EQ(dlna_dmsSetViews(nullptr, 1), DMS_ERR_INVALID_PARAM);
}

TEST(ViewsFollow, FilesCopiedRetaggedAndDeletedMoveInTheViewsWithEvents) {
  TempDir disk;
  const std::string first = disk.copy("tagged/mp3-no-tags.mp3", "share/one.mp3");
  writeTags(first, {"", "One", "Solo", "First", "Pop", 1, 0});
  RunningServer server;
  ASSERT_TRUE(server.create({disk / "share"}));
  ASSERT_EQ(dlna_dmsSetViews(server.handle(), 1), DMS_SUCCESS);
  ASSERT_TRUE(server.startCreated());
  const int port = server.port();
  Subscriber subscriber(port, "/web/cds_event");
  ASSERT_FALSE(subscriber.next(5000).empty());  // the initial event
  const auto artists = [port] { return titles(children(port, "5")); };
  const std::string staged = disk.copy("tagged/mp3-no-tags.mp3", "two.mp3");
  writeTags(staged, {"", "Two", "Duo", "Second", "Pop", 1, 0});
  fs::rename(staged, disk / "share/two.mp3");
  ASSERT_TRUE(eventually([&] { return artists() == std::vector<std::string>{"Duo", "Solo"}; }));
  const std::string event = subscriber.next(5000);
  const std::string ids = "," + elementText(event.substr(event.find("\r\n\r\n")), "ContainerUpdateIDs") + ",";
  for (const char *changed : {",4,", ",5,", ",6,"}) EXPECT_NE(ids.find(changed), std::string::npos) << ids;
  EXPECT_EQ(titles(children(port, lookup(port, "Music/Genres/Pop").id())), (std::vector<std::string>{"One", "Two"}));
  // Retagged in place: it leaves its old artist, which goes once empty.
  const std::string retag = disk.copy("tagged/mp3-no-tags.mp3", "three.mp3");
  writeTags(retag, {"", "One", "Trio", "First", "Jazz", 1, 0});
  fs::rename(retag, disk / "share/one.mp3");
  ASSERT_TRUE(eventually([&] { return artists() == std::vector<std::string>{"Duo", "Trio"}; }));
  EXPECT_EQ(titles(children(port, "7")), (std::vector<std::string>{"Jazz", "Pop"}));
  fs::remove(disk / "share/two.mp3");
  ASSERT_TRUE(eventually([&] { return artists() == std::vector<std::string>{"Trio"}; }));
  EXPECT_EQ(titles(children(port, "4")), (std::vector<std::string>{"One"}));
  EXPECT_EQ(titles(children(port, "7")), (std::vector<std::string>{"Jazz"}));
}

}  // namespace

namespace {

TEST(ViewsPlaylists, ListedInTheirFolderAndBelowPlaylistsWithEntriesInShares) {
  TempDir disk;
  disk.copy("tagged/id3v24-utf8.mp3", "share/m/a.mp3");
  disk.copy("tagged/flac-no-tags.flac", "share/m/b.flac");
  disk.copy("tagged/flac-no-tags.flac", "outside/c.flac");
  disk.write("share/lists/mix.m3u", "#EXTM3U\n#EXTINF:1,B\r\n../m/b.flac\r\n" + (disk / "share/m/a.mp3") +
                                        "\n" + (disk / "outside/c.flac") + "\nmissing.mp3\nfile://" +
                                        (disk / "share/m/b.flac") + "\nhttp://host/x.mp3\n../m\n");
  disk.write("share/top.pls", "[playlist]\nFile2=m/a.mp3\nfile1=m/b.flac\nNumberOfEntries=2\n");
  RunningServer server;
  ASSERT_TRUE(server.create({disk / "share"}));
  ASSERT_EQ(dlna_dmsSetViews(server.handle(), 1), DMS_SUCCESS);
  ASSERT_TRUE(server.startCreated());
  const int port = server.port();
  EXPECT_EQ(titles(children(port, "8")), (std::vector<std::string>{"mix", "top"}));
  const DidlObject inFolder = lookup(port, "share/lists/mix");
  ASSERT_FALSE(inFolder.id().empty());
  EXPECT_EQ(inFolder.prop("upnp:class"), "object.container.playlistContainer");
  const std::string a = lookup(port, "share/m/Café & Crème — Ünïcode").id(), b = lookup(port, "share/m/b").id();
  std::vector<std::string> refs;
  for (const DidlObject &entry : children(port, inFolder.id())) refs.push_back(entry.attr("refID"));
  EXPECT_EQ(refs, (std::vector<std::string>{b, a, b}));  // outside the shares, missing, URLs and folders skipped
  refs.clear();
  for (const DidlObject &entry : children(port, lookup(port, "Music/Playlists/top").id())) refs.push_back(entry.attr("refID"));
  EXPECT_EQ(refs, (std::vector<std::string>{b, a}));  // PLS by entry number
  // Search does not descend into playlists: each file once.
  EXPECT_EQ(search(port, "0", "*").totalMatches, 2);
  EXPECT_EQ(search(port, "8", "*").totalMatches, 0);
  // Rewritten: read again, same id; deleted: gone from both places.
  const std::string staged = disk.write("top.pls", "[playlist]\nFile1=m/a.mp3\n");
  fs::rename(staged, disk / "share/top.pls");
  ASSERT_TRUE(eventually([&] { return children(port, lookup(port, "share/top").id()).size() == 1; }));
  EXPECT_EQ(lookup(port, "Music/Playlists/top").attr("childCount"), "1");
  fs::remove(disk / "share/lists/mix.m3u");
  ASSERT_TRUE(eventually([&] { return titles(children(port, "8")) == std::vector<std::string>{"top"}; }));
  EXPECT_TRUE(lookup(port, "share/lists/mix").id().empty());
}

}  // namespace

// SortCriteria over SOAP: each sortable key both ways over a folder of
// tagged and untagged files and a sub-folder, two keys, blanks and missing
// signs, refused criteria, sorted Search, and a page of a sorted folder of
// a thousand files against the whole sorted list, and a sorted folder that
// changes.
#include <gtest/gtest.h>

#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "dms_test.h"

using namespace dmstest;

namespace {

using Titles = std::vector<std::string>;

// An ID3v2.3 tag of Latin-1 text frames followed by `padding` zero bytes.
std::string id3(const std::vector<std::pair<std::string, std::string>> &frames, size_t padding) {
  Bytes body;
  for (const auto &[frame, text] : frames) body.text(frame).be32(uint32_t(text.size() + 1)).u8({0, 0, 0}).text(text);
  body.zeros(padding);
  const size_t n = body.size();
  return Bytes().text("ID3").u8({3, 0, 0, int(n >> 21 & 0x7F), int(n >> 14 & 0x7F), int(n >> 7 & 0x7F), int(n & 0x7F)})
      .text(body.str()).str();
}

class SortTest : public ServerSuite {
 protected:
  // lib/Sort: three tagged tracks (sizes growing with their padding), an
  // untagged track, a short WAV, a photo and an empty folder; untagged files
  // are dated by their times.  lib/Many: a thousand copies of one file named
  // "Track 1" to "Track 1000", made in a shuffled order.
  static void SetUpTestSuite() {
    const std::string mp3 = readFile(fixture("tagged/mp3-no-tags.mp3"));
    struct Tagged { std::string name, title, artist, album, genre, track, year; size_t padding; } tagged[] = {
        {"Track 10", "Track 10", "beta", "Zed", "Rock", "10", "2001", 4000},
        {"Track 2", "Track 2", "Alpha", "mid", "jazz", "2", "1999", 0},
        {"track 1", "track 1", "alpha", "Apple", "Pop", "1", "2010", 2000},
    };
    for (const Tagged &t : tagged) {
      tree().write("lib/Sort/" + t.name + ".mp3", id3({{"TIT2", t.title}, {"TPE1", t.artist}, {"TALB", t.album},
                                                      {"TCON", t.genre}, {"TRCK", t.track}, {"TYER", t.year}},
                                                     t.padding) + mp3);
    }
    tree().mkdir("lib/Sort/Folder");
    const struct { std::string fixture, name; time_t time; } untagged[] = {
        {"tagged/mp3-no-tags.mp3", "bare.mp3", 1623758400},       // 2021-06-15
        {"audio/wav/pcm16-44100-2ch.wav", "tone.wav", 645451200},  // 1990-06-15
        {"image/jfif-640x480.jpg", "p.jpg", 1118836800},           // 2005-06-15
    };
    for (const auto &file : untagged) {
      const utimbuf times{file.time, file.time};
      ASSERT_EQ(utime(tree().copy(file.fixture, "lib/Sort/" + file.name).c_str(), &times), 0);
    }
    std::vector<int> numbers(1000);
    for (int i = 0; i < 1000; ++i) numbers[i] = i + 1;
    std::shuffle(numbers.begin(), numbers.end(), std::mt19937(7));
    const std::string one = tree().copy("tagged/mp3-no-tags.mp3", "one.mp3");
    tree().copy("tagged/mp3-no-tags.mp3", "lib/Live/b.mp3");
    tree().mkdir("lib/Many");
    for (int n : numbers) ASSERT_EQ(link(one.c_str(), (tree() / ("lib/Many/Track " + std::to_string(n) + ".mp3")).c_str()), 0);
    ASSERT_TRUE(serve({tree() / "lib"}));
  }
  static Titles titles(const CdsAnswer &answer) {
    Titles out;
    for (const DidlObject &object : answer.objects) out.push_back(object.title());
    return out;
  }
  static Titles sorted(const std::string &id, const std::string &sort, int start = 0, int count = 0) {
    return titles(browse(port(), id, "BrowseDirectChildren", start, count, "*", sort));
  }
};

TEST_F(SortTest, CapabilitiesNameTheSortableKeys) {
  const HttpResponse answer = soap(port(), Service::kCds, "GetSortCapabilities", "");
  EXPECT_EQ(elementText(answer.body, "SortCaps"),
            "dc:title,dc:creator,upnp:artist,upnp:album,upnp:genre,upnp:originalTrackNumber,dc:date,upnp:class,"
            "res@size,res@duration");
}

TEST_F(SortTest, EachKeyBothWays) {
  DMS_NEEDS(TAGLIB);
  const std::string folder = lookup(port(), "lib/Sort").id();
  struct Row { std::string key; Titles ascending, descending; } rows[] = {
      {"dc:title", {"bare", "Folder", "p", "tone", "track 1", "Track 2", "Track 10"},
                   {"Track 10", "Track 2", "track 1", "tone", "p", "Folder", "bare"}},
      {"dc:creator", {"Folder", "bare", "p", "tone", "Track 2", "track 1", "Track 10"},
                     {"Track 10", "Track 2", "track 1", "Folder", "bare", "p", "tone"}},
      {"upnp:artist", {"Folder", "bare", "p", "tone", "Track 2", "track 1", "Track 10"},
                      {"Track 10", "Track 2", "track 1", "Folder", "bare", "p", "tone"}},
      {"upnp:album", {"Folder", "bare", "p", "tone", "track 1", "Track 2", "Track 10"},
                     {"Track 10", "Track 2", "track 1", "Folder", "bare", "p", "tone"}},
      {"upnp:genre", {"Folder", "bare", "p", "tone", "Track 2", "track 1", "Track 10"},
                     {"Track 10", "track 1", "Track 2", "Folder", "bare", "p", "tone"}},
      {"upnp:originalTrackNumber", {"Folder", "bare", "p", "tone", "track 1", "Track 2", "Track 10"},
                                   {"Track 10", "Track 2", "track 1", "Folder", "bare", "p", "tone"}},
      {"dc:date", {"Folder", "tone", "Track 2", "Track 10", "p", "track 1", "bare"},
                  {"bare", "track 1", "p", "Track 10", "Track 2", "tone", "Folder"}},
      {"upnp:class", {"Folder", "Track 10", "Track 2", "bare", "tone", "track 1", "p"},
                     {"p", "Track 10", "Track 2", "bare", "tone", "track 1", "Folder"}},
      {"res@size", {"Folder", "p", "bare", "Track 2", "tone", "track 1", "Track 10"},
                   {"Track 10", "track 1", "tone", "Track 2", "bare", "p", "Folder"}},
      {"res@duration", {"Folder", "p", "tone", "Track 10", "Track 2", "bare", "track 1"},
                       {"Track 10", "Track 2", "bare", "track 1", "tone", "Folder", "p"}},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.key);
    EXPECT_EQ(sorted(folder, "+" + row.key), row.ascending);
    EXPECT_EQ(sorted(folder, row.key), row.ascending);
    EXPECT_EQ(sorted(folder, "-" + row.key), row.descending);
  }
}

TEST_F(SortTest, LaterKeysBreakTiesAndBlanksAreIgnored) {
  const std::string folder = lookup(port(), "lib/Sort").id();
  const Titles byArtistThenTitle = {"bare", "Folder", "p", "tone", "track 1", "Track 2", "Track 10"};
  for (const std::string &sort : Titles{"+upnp:artist,+dc:title", " upnp:artist , dc:title ", "+upnp:artist,\t+dc:title"}) {
    EXPECT_EQ(sorted(folder, sort), byArtistThenTitle) << sort;
  }
  EXPECT_EQ(sorted(folder, "-upnp:class,-dc:title"), Titles({"p", "Track 10", "Track 2", "track 1", "tone", "bare", "Folder"}));
  EXPECT_EQ(sorted(folder, "-dc:title", 2, 3), Titles({"track 1", "tone", "p"}));
}

TEST_F(SortTest, UnknownKeysAndMalformedListsAreRefused) {
  const std::string folder = lookup(port(), "lib/Sort").id();
  std::string seventeen = "+dc:title";
  for (int i = 0; i < 16; ++i) seventeen += ",-dc:date";
  for (const std::string &sort : Titles{"+dc:nope", "+res@bitrate", "+dc:title,", ",+dc:title", "+", "+dc:title;-dc:date",
                                 "+ dc:title", "*", seventeen}) {
    SCOPED_TRACE(sort);
    EXPECT_EQ(browse(port(), folder, "BrowseDirectChildren", 0, 0, "*", sort).errorCode, "709");
    EXPECT_EQ(search(port(), folder, "*", 0, 0, sort).errorCode, "709");
  }
  EXPECT_EQ(browse(port(), folder, "BrowseDirectChildren", 0, 0, "*", seventeen.substr(0, seventeen.rfind(','))).errorCode, "");
}

TEST_F(SortTest, SearchSortsItsMatchesBeforePaging) {
  DMS_NEEDS(TAGLIB);
  const std::string folder = lookup(port(), "lib/Sort").id();
  const std::string criteria = "upnp:class derivedfrom \"object.item.audioItem\" and "
                               "(upnp:artist exists false or upnp:genre = \"pop\")";
  struct Row { std::string sort; int start, count; Titles titles; } rows[] = {
      {"-dc:title", 0, 0, {"track 1", "tone", "bare"}},
      {"+upnp:originalTrackNumber,-res@size", 0, 0, {"tone", "bare", "track 1"}},
      {"+dc:title", 1, 1, {"tone"}},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.sort);
    const CdsAnswer answer = search(port(), folder, criteria, row.start, row.count, row.sort);
    EXPECT_EQ(titles(answer), row.titles);
    EXPECT_EQ(answer.totalMatches, 3);
  }
}

TEST_F(SortTest, PageOfALargeSortedFolderIsTheSliceOfTheWhole) {
  const std::string many = lookup(port(), "lib/Many").id();
  Titles whole;
  for (int start = 0; start < 1000; start += 250) {
    const Titles page = sorted(many, "+dc:title", start, 250);
    whole.insert(whole.end(), page.begin(), page.end());
  }
  ASSERT_EQ(whole.size(), 1000u);
  for (int n = 1; n <= 1000; n += 111) EXPECT_EQ(whole[n - 1], "Track " + std::to_string(n));
  EXPECT_EQ(sorted(many, "+dc:title", 480, 40), Titles(whole.begin() + 480, whole.begin() + 520));
  EXPECT_EQ(sorted(many, "-dc:title", 0, 2), Titles({"Track 1000", "Track 999"}));
}

TEST_F(SortTest, AChangeToTheListIsSortedIn) {
  const std::string live = lookup(port(), "lib/Live").id();
  ASSERT_EQ(sorted(live, "-dc:title"), Titles({"b"}));
  tree().copy("tagged/mp3-no-tags.mp3", "lib/Live/c.mp3");
  EXPECT_TRUE(eventually([&] { return sorted(live, "-dc:title") == Titles({"c", "b"}); }));
}

}  // namespace

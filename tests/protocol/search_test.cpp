// Search over SOAP against a small library of tagged and untagged files:
// every operator, "and" before "or", parentheses, escapes, case beyond
// ASCII, numbers, dates and playing times, properties a file lacks or the
// server does not know, '*', paging and criteria that do not parse, each a
// row of criteria and the titles found, in the order of the walk.
#include <gtest/gtest.h>

#include <utime.h>

#include <string>
#include <vector>

#include "dms_test.h"

using namespace dmstest;

namespace {

const std::string kSay = "Say \"Hi\" \\ Bye", kStrasse = "Straße", kV1 = "Café & Crème v1",
                  kV24 = "Café & Crème — Ünïcode", kArger = "Ärger", kOmega = "Ωμέγα", kBorei = "Борей",
                  kExif = "exif", kClip = "clip";
const std::vector<std::string> kItems = {kSay, kStrasse, kV1, kV24, kArger, kOmega, kBorei, kExif, kClip};
const std::vector<std::string> kAudio = {kSay, kStrasse, kV1, kV24, kArger, kOmega, kBorei};
const std::vector<std::string> kUntagged = {kSay, kStrasse, kArger, kOmega, kBorei, kClip};

class SearchTest : public ServerSuite {
 protected:
  // lib/Music: two tagged tracks and five untagged ones; lib/Photos: a
  // photo with an Exif date; lib/Video: a video whose tags the server does
  // not read.  Untagged files are titled by their names and dated by their
  // time, set to 2021-06-15 12:00 UTC (the video's to 2040-01-02, past
  // where a 32-bit time_t ends).
  static void SetUpTestSuite() {
    tree().copy("tagged/id3v24-utf8.mp3", "lib/Music/v24.mp3");
    tree().copy("tagged/id3v1-only.mp3", "lib/Music/v1.mp3");
    tree().copy("tagged/photo-exif-date.jpg", "lib/Photos/exif.jpg");
    for (const std::string &title : kUntagged) {
      const std::string path = title == kClip ? tree().copy("containers/mkv-h264-aac.mkv", "lib/Video/clip.mkv")
                                              : tree().copy("tagged/mp3-no-tags.mp3", "lib/Music/" + title + ".mp3");
      const time_t when = title == kClip ? 2209118400 : 1623758400;
      const utimbuf times{when, when};
      ASSERT_EQ(utime(path.c_str(), &times), 0);
    }
    ASSERT_TRUE(serve({tree() / "lib"}));
  }
  static std::string nested(int depth, const std::string &inner) {
    return std::string(depth, '(') + inner + std::string(depth, ')');
  }
};

TEST_F(SearchTest, CriteriaFindWhatTheyName) {
  DMS_NEEDS(TAGLIB);
  const std::string exif = lookup(port(), "lib/Photos/exif").id(), photos = lookup(port(), "lib/Photos").id();
  std::string manyTerms;
  for (int i = 0; i < 300; ++i) manyTerms += "dc:title = \"x\" or ";
  struct Row {
    std::string criteria;
    std::vector<std::string> titles;
    std::string fault = "";
    int start = 0, count = 0, total = -1;  // total -1: as many as the titles
  } rows[] = {
      {"*", kItems},
      {"dc:title contains \"café\"", {kV1, kV24}},
      {"dc:title contains \"CAFÉ\"", {kV1, kV24}},
      {"dc:title contains \"ÜNÏ\"", {kV24}},
      {"dc:title contains \"rge\"", {kArger}},
      {"dc:title = \"ärger\"", {kArger}},
      {"dc:title = \"ÄRGER\"", {kArger}},
      {"dc:title = \"ärg\"", {}},
      {"dc:title = \"STRASSE\"", {kStrasse}},
      {"dc:title = \"STRAẞE\"", {kStrasse}},
      {"dc:title = \"ΩΜΈΓΑ\"", {kOmega}},
      {"dc:title contains \"БОР\"", {kBorei}},
      {"dc:title doesNotContain \"a\"", {kArger, kOmega, kBorei, kExif, kClip}},
      {"dc:title != \"EXIF\"", {kSay, kStrasse, kV1, kV24, kArger, kOmega, kBorei, kClip}},
      {"dc:creator = \"ZOË ÅNGSTRÖM\"", {kV1, kV24}},
      {"dc:creator exists false", {kSay, kStrasse, kArger, kOmega, kBorei, kExif, kClip}},
      {"upnp:artist exists true", {kV1, kV24}},
      {"upnp:album = \"tëst fixtures\"", {kV1, kV24}},
      {"upnp:genre contains \"AZ\"", {kV1, kV24}},
      {"upnp:genre != \"Rock\"", {kV1, kV24}},
      {"upnp:class derivedfrom \"object.item\"", kItems},
      {"upnp:class derivedfrom \"object.item.audioItem\"", kAudio},
      {"upnp:class derivedfrom \"OBJECT.ITEM.IMAGEITEM\"", {kExif}},
      {"upnp:class derivedfrom \"object.item.audio\"", {}},
      {"upnp:class = \"object.item.videoItem\"", {kClip}},
      {"upnp:class derivedfrom \"object.container\"", {"lib", "Music", "Photos", "Video"}},
      {"upnp:class derivedfrom \"object\"",
       {"lib", "Music", kSay, kStrasse, kV1, kV24, kArger, kOmega, kBorei, "Photos", kExif, "Video", kClip}},
      {"upnp:class = \"object.container.storageFolder\" and dc:title = \"photos\"", {"Photos"}},
      {"dc:date = \"2019-07-14\"", {kV24}},
      {"dc:date < \"2020\"", {kV1, kV24, kExif}},
      {"dc:date > \"2019-07-14\" and dc:date < \"2019-07-15\"", {kExif}},
      {"dc:date >= \"2021-06-15\" and dc:date <= \"2021-06-16\"", {kSay, kStrasse, kArger, kOmega, kBorei}},
      {"dc:date > \"2039\"", {kClip}},
      {"dc:date = \"14.07.2019\"", {}},
      {"upnp:originalTrackNumber = \"03\"", {kV1, kV24}},
      {"upnp:originalTrackNumber > \"3\"", {}},
      {"upnp:originalTrackNumber = \"three\"", {}},
      {"res@size < \"1000\"", {kExif}},
      {"res@size > \"8600\"", {kV1, kV24, kClip}},
      {"res@duration > \"0:00:01.030\"", kAudio},
      {"res@duration < \"0:00:01.030\"", {kClip}},
      {"res@protocolInfo contains \"IMAGE/JPEG\"", {kExif}},
      {"@id = \"" + exif + "\"", {kExif}},
      {"@parentID = \"" + photos + "\"", {kExif}},
      {"@refID exists false", kItems},
      {"@refID exists true", {}},
      {"upnp:rating = \"5\"", {}},
      {"upnp:rating exists false", {}},
      {"upnp:rating = \"5\" or dc:title = \"exif\"", {kExif}},
      {"dc:title = \"exif\" or dc:title = \"Ärger\" and upnp:genre = \"Jazz\"", {kExif}},
      {"(dc:title = \"exif\" or dc:title = \"Ärger\") and upnp:class derivedfrom \"object.item.audioItem\"", {kArger}},
      {"dc:title = \"exif\" and upnp:genre = \"Jazz\" or dc:title = \"Борей\"", {kBorei}},
      {nested(64, "dc:title = \"exif\""), {kExif}},
      {"\tdc:title\n= \"exif\" ", {kExif}},
      {"dc:title=\"exif\"or(dc:title=\"Борей\")", {kBorei, kExif}},
      {"dc:title = \"Say \\\"Hi\\\" \\\\ Bye\"", {kSay}},
      {"dc:title contains \"\\\"\"", {kSay}},
      {"dc:title CONTAINS \"exif\" AND upnp:class DERIVEDFROM \"object.item\"", {kExif}},
      {"upnp:class derivedfrom \"object.item.audioItem\"", {kStrasse, kV1}, "", 1, 2, 7},
      {"upnp:class derivedfrom \"object.item.audioItem\"", {kBorei}, "", 6, 5, 7},
      {"dc:title contains \"\"", {}, "", 9, 0, 9},
      {"dc:title = exif", {}, "708"},
      {"dc:title contains \"exif", {}, "708"},
      {"(dc:title = \"exif\"", {}, "708"},
      {"dc:title = \"exif\" and", {}, "708"},
      {"dc:title exists maybe", {}, "708"},
      {"dc:title ~ \"exif\"", {}, "708"},
      {"dc:title = \"\\x\"", {}, "708"},
      {"* or dc:title = \"exif\"", {}, "708"},
      {"dc:title = \"a\" dc:title = \"b\"", {}, "708"},
      {nested(65, "dc:title = \"exif\""), {}, "708"},
      {manyTerms + "dc:title = \"exif\"", {}, "708"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.criteria.substr(0, 100));
    const CdsAnswer answer = search(port(), "0", row.criteria, row.start, row.count);
    EXPECT_EQ(answer.status, row.fault.empty() ? 200 : 500);
    EXPECT_EQ(answer.errorCode, row.fault);
    if (!row.fault.empty()) continue;
    EXPECT_TRUE(answer.wellFormed);
    std::vector<std::string> titles;
    for (const DidlObject &object : answer.objects) titles.push_back(object.title());
    EXPECT_EQ(titles, row.titles);
    EXPECT_EQ(answer.numberReturned, static_cast<int>(row.titles.size()));
    EXPECT_EQ(answer.totalMatches, row.total < 0 ? static_cast<int>(row.titles.size()) : row.total);
  }
}

// The capabilities name every property the criteria table knows; an item
// without tags carries no creator, album or genre at all.
TEST_F(SearchTest, CapabilitiesAndPropertiesLeftOut) {
  EXPECT_EQ(elementText(soap(port(), Service::kCds, "GetSearchCapabilities", "").body, "SearchCaps"),
            "dc:title,dc:creator,upnp:artist,upnp:album,upnp:genre,upnp:class,dc:date,upnp:originalTrackNumber,"
            "@id,@parentID,@refID,res@protocolInfo,res@size,res@duration");
  const std::string result = browse(port(), lookup(port(), "lib/Music/" + kArger).id(), "BrowseMetadata").result;
  for (const char *element : {"<dc:creator", "<upnp:album", "<upnp:genre", "<upnp:artist", "Unknown"}) {
    EXPECT_EQ(result.find(element), std::string::npos) << element;
  }
}

}  // namespace

// Tags over SOAP: tagged files made by real encoders and taggers show their
// title, artist, album, genre, date and track number in Browse and honour
// the Filter.  What each file holds is the fixture script's own record
// (tests/fixtures/tagged.tsv).
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "dms_test.h"

using namespace dmstest;

namespace {

struct TaggedFile {
  std::string path, title, artist, album, genre, date, track;
};

// The rows of tagged.tsv for formats the server lists today.
std::vector<TaggedFile> taggedFiles() {
  std::vector<TaggedFile> files;
  for (const auto &f : fixtureTable("tagged.tsv")) {
    const bool listed = f.size() == 14 && f[0].rfind("tagged/", 0) == 0 &&
                        (f[1] == "MP3" || f[1] == "MP4" || f[1] == "ASF" || f[1] == "WAV" ||
                         f[1] == "FLAC" || f[1] == "OGG" || f[1] == "JPEG");
    if (listed) files.push_back({f[0], f[8], f[9], f[10], f[11], f[12], f[13]});
  }
  return files;
}

std::string fileTitle(const std::string &path) {
  const std::string name = path.substr(path.rfind('/') + 1);
  return name.substr(0, name.rfind('.'));
}

// The date as an ISO 8601 text: "2019", "2019-07-14", or for a photo's
// Exif "2019:07:14 15:30:00" the date and time "2019-07-14T15:30:00".
std::string isoDate(std::string date) {
  if (date == "-") return "";
  if (date.size() == 19 && date[4] == ':') {
    date[4] = date[7] = '-';
    date[10] = 'T';
    return date;
  }
  return date.substr(0, 10);
}

// "3/12" -> "3".
std::string trackNumber(const std::string &track) {
  return track == "-" ? "" : track.substr(0, track.find('/'));
}

class TagsTest : public ServerSuite {
 protected:
  static void SetUpTestSuite() {
    for (const TaggedFile &file : taggedFiles()) tree().copy(file.path, "music/" + file.path.substr(7));
    ASSERT_TRUE(serve({tree() / "music"}));
    folder_ = children(port(), "0").at(0).id();
  }
  static inline std::string folder_;
};

TEST_F(TagsTest, BrowseShowsWhatTheTagsSay) {
  const std::vector<TaggedFile> files = taggedFiles();
  ASSERT_GE(files.size(), 16u);
  const std::vector<DidlObject> listed = children(port(), folder_);
  ASSERT_EQ(listed.size(), files.size());
  // Children come in the byte order of their file names.
  std::vector<TaggedFile> byName = files;
  std::sort(byName.begin(), byName.end(),
            [](const TaggedFile &a, const TaggedFile &b) { return a.path < b.path; });
  for (size_t i = 0; i < byName.size(); ++i) {
    const TaggedFile &file = byName[i];
    SCOPED_TRACE(file.path);
    const bool tagged = file.title != "-";
    const DidlObject *object = &listed[i];
    EXPECT_EQ(object->title(), tagged ? file.title : fileTitle(file.path));
    if (file.date != "-") {  // without one, the file's time
      EXPECT_EQ(object->prop("dc:date"), isoDate(file.date));
    }
    if (!tagged) {
      EXPECT_EQ(object->properties.count("dc:creator"), 0u);  // left out, not "Unknown"
      EXPECT_EQ(object->prop("upnp:originalTrackNumber"), "");
      continue;
    }
    EXPECT_EQ(object->prop("dc:creator"), file.artist);
    EXPECT_EQ(object->prop("upnp:artist"), file.artist);
    EXPECT_EQ(object->prop("upnp:album"), file.album);
    EXPECT_EQ(object->prop("upnp:genre"), file.genre);
    EXPECT_EQ(object->prop("upnp:originalTrackNumber"), trackNumber(file.track));
  }
}

TEST_F(TagsTest, FilterChoosesTheTags) {
  const std::vector<TaggedFile> files = taggedFiles();
  size_t tagged = 0;
  for (const TaggedFile &file : files) tagged += file.artist != "-" ? 1 : 0;
  // Only what the Filter names (the title always comes).
  for (const DidlObject &object : browse(port(), folder_, "BrowseDirectChildren", 0, 0, "dc:title").objects) {
    EXPECT_EQ(object.prop("upnp:artist"), "");
    EXPECT_EQ(object.prop("upnp:originalTrackNumber"), "");
    EXPECT_EQ(object.prop("dc:creator"), "");
  }
  CdsAnswer named =
      browse(port(), folder_, "BrowseDirectChildren", 0, 0, "upnp:artist,upnp:originalTrackNumber");
  size_t withArtist = 0;
  for (const DidlObject &object : named.objects) withArtist += object.prop("upnp:artist").empty() ? 0 : 1;
  EXPECT_EQ(withArtist, tagged);  // (Search by the tags is the search test's.)
}

}  // namespace

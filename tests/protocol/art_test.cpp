// Thumbnails and album art over SOAP and HTTP, on real pictures and tagged
// files (tests/fixtures/art.tsv says what each holds): every offered picture
// is a JPEG that decodes to the size its res or profile promises (a camera's
// own thumbnail of that size handed out as it is), broken
// pictures stop being offered after one try, covers come from tags and from
// a folder's file, and the cache answers repeats within its budget.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "dms_test.h"

using namespace dmstest;

namespace {

struct ArtRow {
  std::string path;  // relative to media/art
  int width, height;
  bool exifThumbnail, decodable;
  bool photo() const { return width > 0; }
};

std::vector<ArtRow> artRows() {
  std::vector<ArtRow> rows;
  for (const auto &f : fixtureTable("art.tsv")) {
    if (f.size() == 6) rows.push_back({f[0].substr(4), std::stoi(f[1]), std::stoi(f[2]), f[3] != "-", f[5] == "yes"});
  }
  return rows;
}

// "WxH" of the picture in a box, aspect kept, never enlarged.
std::string fitted(int width, int height, int boxWidth, int boxHeight) {
  if (width <= boxWidth && height <= boxHeight) return std::to_string(width) + "x" + std::to_string(height);
  const double scale = std::min(double(boxWidth) / width, double(boxHeight) / height);
  const int w = std::max(1, int(width * scale + 0.5)), h = std::max(1, int(height * scale + 0.5));
  return std::to_string(w) + "x" + std::to_string(h);
}

// The res of `object` whose protocolInfo names `profile`; empty map if none.
std::map<std::string, std::string> resOf(const DidlObject &object, const std::string &profile) {
  for (const auto &res : object.res) {
    if (res.count("protocolInfo") && res.at("protocolInfo").find("DLNA.ORG_PN=" + profile + ";") != std::string::npos) return res;
  }
  return {};
}

class ArtTest : public ServerSuite {
 protected:
  static void SetUpTestSuite() {
    for (const ArtRow &row : artRows()) {
      if (row.path == "album/02-track.mp3") continue;  // the album folder holds one track
      tree().copy("art/" + row.path, "art/" + folderOf(row.path) + row.path.substr(row.path.rfind('/')));
    }
    ASSERT_TRUE(serve({tree() / "art"}));
  }
  static bool isTrack(const std::string &path) {
    const std::string extension = path.substr(path.rfind('.'));
    return extension == ".mp3" || extension == ".m4a" || extension == ".flac";
  }
  // Tracks are titled by their tags, not their names: each music file has a
  // folder of its own, and a track is found as its folder's audio item.
  static std::string folderOf(const std::string &path) {
    if (!isTrack(path) || path.rfind("album/", 0) == 0) return path.substr(0, path.rfind('/'));
    return path.substr(0, path.rfind('.'));
  }
  static DidlObject object(const std::string &path) {
    if (!isTrack(path)) return lookup(port(), "art/" + path.substr(0, path.rfind('.')));
    for (const DidlObject &child : children(port(), lookup(port(), "art/" + folderOf(path)).id())) {
      if (child.prop("upnp:class").rfind("object.item.audioItem", 0) == 0) return child;
    }
    return {};
  }
  static dmsArtCacheStats stats() {
    dmsArtCacheStats figures{};
    EXPECT_EQ(dlna_dmsGetArtCacheStats(server().handle(), &figures), DMS_SUCCESS);
    return figures;
  }
};

TEST_F(ArtTest, PhotosOfferThumbnailsThatDecodeToTheirPromisedSize) {
  for (const ArtRow &row : artRows()) {
    if (!row.photo() || !row.decodable) continue;
    SCOPED_TRACE(row.path);
    const DidlObject photo = object(row.path);
    ASSERT_FALSE(photo.id().empty());
    ASSERT_GE(photo.res.size(), 2u);
    EXPECT_EQ(photo.res[0].at("url").find(".tn.jpg"), std::string::npos) << "the item's own res comes first";
    struct Profile { const char *name; int box[2]; } profiles[] = {{"JPEG_TN", {160, 160}}, {"JPEG_SM", {640, 480}}};
    for (const Profile &profile : profiles) {
      const auto res = resOf(photo, profile.name);
      const bool large = row.width > profile.box[0] || row.height > profile.box[1];
      if (std::string(profile.name) == "JPEG_SM" && !large) {
        EXPECT_TRUE(res.empty()) << "no small picture of a small photo";
        continue;
      }
      ASSERT_FALSE(res.empty()) << profile.name;
      const std::string size = fitted(row.width, row.height, profile.box[0], profile.box[1]);
      EXPECT_EQ(res.at("resolution"), size);
      const HttpResponse answer = httpGet(server().mediaPort(), urlPath(res.at("url")));
      ASSERT_EQ(answer.status, 200);
      EXPECT_EQ(answer.header("content-type"), "image/jpeg");
      EXPECT_EQ(answer.header("contentfeatures.dlna.org").rfind(std::string("DLNA.ORG_PN=") + profile.name + ";", 0), 0u);
      EXPECT_EQ(decodedJpegSize(answer.body), size);
      if (row.exifThumbnail) {  // a camera's thumbnail of the size wanted is handed out as it is
        EXPECT_EQ(readFile(fixture("art/" + row.path)).find(answer.body) != std::string::npos,
                  std::string(profile.name) == "JPEG_TN");
      }
    }
  }
}

TEST_F(ArtTest, BrokenPhotosStopBeingOfferedAfterOneTry) {
  for (const ArtRow &row : artRows()) {
    if (!row.photo() || row.decodable) continue;
    SCOPED_TRACE(row.path);
    const DidlObject before = object(row.path);
    if (before.id().empty()) continue;  // not even listed
    const auto res = resOf(before, "JPEG_TN");
    if (res.empty()) continue;
    const uint64_t failures = stats().failures;
    EXPECT_EQ(httpGet(server().mediaPort(), urlPath(res.at("url"))).status, 404);
    EXPECT_EQ(stats().failures, failures + 1);
    EXPECT_TRUE(resOf(object(row.path), "JPEG_TN").empty());
    EXPECT_EQ(httpGet(server().mediaPort(), urlPath(res.at("url"))).status, 404);
    EXPECT_EQ(stats().failures, failures + 1) << "tried once only";
  }
}

TEST_F(ArtTest, TracksShowTheCoverInTheirTagsOrTheirFolder) {
  const struct { const char *path; bool cover; } tracks[] = {
      {"music/cover-id3.mp3", true}, {"music/cover-mp4.m4a", true}, {"music/cover-flac.flac", true},
      {"music/no-cover.mp3", false}, {"album/01-track.mp3", true}};
  for (const auto &track : tracks) {
    SCOPED_TRACE(track.path);
    const DidlObject item = object(track.path);
    ASSERT_FALSE(item.id().empty());
    const std::string art = item.prop("upnp:albumArtURI");
    // Without TagLib only the folder's cover file is found.
    const bool cover = track.cover && (DMS_WITH_TAGLIB || std::string(track.path).starts_with("album/"));
    ASSERT_EQ(!art.empty(), cover);
    if (!cover) continue;
    EXPECT_EQ(art.substr(art.rfind('/') + 1), item.id() + ".art.jpg");
    const HttpResponse answer = httpGet(server().mediaPort(), urlPath(art));
    ASSERT_EQ(answer.status, 200);
    EXPECT_EQ(decodedJpegSize(answer.body), "160x160");  // square covers, all larger than the box
  }
  const CdsAnswer folder = browse(port(), lookup(port(), "art/album").id(), "BrowseMetadata");
  EXPECT_NE(folder.result.find("xmlns:dlna=\"urn:schemas-dlna-org:metadata-1-0/\""), std::string::npos);
  EXPECT_NE(folder.result.find("<upnp:albumArtURI dlna:profileID=\"JPEG_TN\">"), std::string::npos);
  EXPECT_EQ(folder.objects.at(0).prop("upnp:albumArtURI"), object("album/01-track.mp3").prop("upnp:albumArtURI"));
  // The Filter leaves the cover out unless it names it.
  const std::string id = object("album/01-track.mp3").id();
  EXPECT_TRUE(browse(port(), id, "BrowseMetadata", 0, 0, "dc:title").objects.at(0).prop("upnp:albumArtURI").empty());
  EXPECT_FALSE(browse(port(), id, "BrowseMetadata", 0, 0, "upnp:albumArtURI").objects.at(0).prop("upnp:albumArtURI").empty());
}

TEST_F(ArtTest, RepeatsComeFromTheCacheWithRangesAndHead) {
  const std::string url = urlPath(resOf(object("photo/progressive.jpg"), "JPEG_TN").at("url"));
  const HttpResponse first = httpGet(server().mediaPort(), url);
  ASSERT_EQ(first.status, 200);
  const dmsArtCacheStats before = stats();
  EXPECT_EQ(httpGet(server().mediaPort(), url).body, first.body);
  EXPECT_EQ(stats().hits, before.hits + 1);
  EXPECT_EQ(stats().made, before.made);
  const HttpResponse part = httpGet(server().mediaPort(), url, "Range: bytes=2-11\r\n");
  EXPECT_EQ(part.status, 206);
  EXPECT_EQ(part.body, first.body.substr(2, 10));
  EXPECT_EQ(part.header("content-range"), "bytes 2-11/" + std::to_string(first.body.size()));
  const HttpResponse head = httpGet(server().mediaPort(), url, "", "HEAD");
  EXPECT_EQ(head.status, 200);
  EXPECT_TRUE(head.body.empty());
  EXPECT_EQ(httpGet(server().mediaPort(), "/web/" + object("photo/progressive.jpg").id() + ".tn.jpgx").status, 404);
  EXPECT_EQ(httpGet(server().mediaPort(), "/web/" + object("music/no-cover.mp3").id() + ".art.jpg").status, 404);
}

TEST(ArtCache, StaysWithinItsBudgetOverManyPictures) {
  TempDir tree;
  tree.mkdir("grid");
  const std::string source = fixture("art/photo/no-thumb-landscape.jpg");
  for (int i = 0; i < 500; ++i) ASSERT_EQ(::link(source.c_str(), (tree / ("grid/p" + std::to_string(1000 + i) + ".jpg")).c_str()), 0);
  RunningServer server;
  ASSERT_TRUE(server.start({tree / "grid"}, "Grid", 1000));
  constexpr uint64_t kBudget = 64 * 1024;
  ASSERT_EQ(dlna_dmsSetArtCacheSize(server.handle(), kBudget), DMS_SUCCESS);
  // Pages of 100, as a TV asks: one answer of 500 photos is slow under the sanitizers.
  const std::string folder = children(server.port(), "0").at(0).id();
  std::vector<DidlObject> photos;
  for (int start = 0; start < 500; start += 100) {
    const CdsAnswer page = browse(server.port(), folder, "BrowseDirectChildren", start, 100);
    photos.insert(photos.end(), page.objects.begin(), page.objects.end());
  }
  ASSERT_EQ(photos.size(), 500u);
  dmsArtCacheStats figures{};
  for (const DidlObject &photo : photos) {
    ASSERT_EQ(httpGet(server.mediaPort(), urlPath(resOf(photo, "JPEG_TN").at("url"))).status, 200);
    ASSERT_EQ(dlna_dmsGetArtCacheStats(server.handle(), &figures), DMS_SUCCESS);
    ASSERT_LE(figures.bytes, kBudget);
  }
  EXPECT_EQ(figures.made, 500u);
  EXPECT_GT(figures.pictures, 0u);
  EXPECT_LT(figures.pictures, 500u);
}

}  // namespace

// What players leave and what their families need: a resume position set by
// one player shows to every player and lasts across a restart, plays are
// counted, and the answers fitted to a client profile go only to that
// family (an unknown player gets the same answers as before).
#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "dms_test.h"

using namespace dmstest;

namespace {

const char kSamsung[] = "User-Agent: DLNADOC/1.50 SEC_HHP_[TV] UE40D7000/1.0\r\n";
const char kSamsungQ[] = "User-Agent: DLNADOC/1.50 SEC_HHP_[TV] Samsung Q7 Series (55)/1.0\r\n";

HttpResponse bookmark(int port, const std::string &id, const std::string &position, const char *headers) {
  return soap(port, Service::kCds, "X_SetBookmark",
              "<CategoryType>VIDEO</CategoryType><RID>0</RID><ObjectID>" + id + "</ObjectID><PosSecond>" + position +
                  "</PosSecond>",
              headers);
}

HttpResponse updatePosition(int port, const std::string &id, const std::string &current, const std::string &wanted) {
  return soap(port, Service::kCds, "UpdateObject",
              "<ObjectID>" + id + "</ObjectID><CurrentTagValue>" + current + "</CurrentTagValue><NewTagValue>" +
                  wanted + "</NewTagValue>");
}

DidlObject metadata(int port, const std::string &id, const std::string &filter = "*", const std::string &headers = "") {
  const CdsAnswer answer = cdsAnswer(soap(port, Service::kCds, "Browse",
                                          browseArguments(id, "BrowseMetadata", "0", "0", filter), headers));
  return answer.objects.empty() ? DidlObject{} : answer.objects.front();
}

class ClientsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    disk_.copy("video/avi-mpeg4-mp3-320x240.avi", "films/film.avi");
    disk_.copy("audio/mp3/mpeg1-44k-cbr128.mp3", "films/song.mp3");
    disk_.copy("art/photo/small.jpg", "films/zz.jpg");
    disk_.copy("video/ts-h264-ac3-320x240.m2ts", "films/tv.m2ts");
  }
  TempDir disk_;
  TempDir state_;
};

TEST_F(ClientsTest, AResumePositionShowsToEveryPlayerAndLastsAcrossARestart) {
  ASSERT_EQ(dlna_dmsSetStateDir(nullptr, (state_ / "dms").c_str()), 0);
  std::string film;
  {
    RunningServer server;
    ASSERT_TRUE(server.start({disk_ / "films"}));
    const int port = server.port();
    film = lookup(port, "films/film").id();
    EXPECT_EQ(metadata(port, film).prop("upnp:lastPlaybackPosition"), "");
    // An unknown player sets it; Samsung's own property is only Samsung's.
    const std::string at90 = "&lt;upnp:lastPlaybackPosition&gt;0:01:30&lt;/upnp:lastPlaybackPosition&gt;";
    EXPECT_EQ(updatePosition(port, film, "", at90).status, 200);
    EXPECT_EQ(metadata(port, film).prop("upnp:lastPlaybackPosition"), "0:01:30");
    EXPECT_EQ(metadata(port, film, "dc:title").prop("upnp:lastPlaybackPosition"), "");  // not asked for
    EXPECT_EQ(metadata(port, film, "upnp:lastPlaybackPosition").prop("upnp:lastPlaybackPosition"), "0:01:30");
    EXPECT_EQ(metadata(port, film).prop("sec:dcmInfo"), "");
    EXPECT_EQ(bookmark(port, film, "95", kSamsung).status, 200);
    EXPECT_EQ(metadata(port, film, "*", kSamsung).prop("sec:dcmInfo"), "BM=95");
    // A Q series TV counts in milliseconds.
    EXPECT_EQ(bookmark(port, film, "3723000", kSamsungQ).status, 200);
    EXPECT_EQ(metadata(port, film).prop("upnp:lastPlaybackPosition"), "1:02:03");
    // UpdateObject may set the position, and nothing else.
    const std::string old = "&lt;upnp:lastPlaybackPosition&gt;1:02:03&lt;/upnp:lastPlaybackPosition&gt;";
    const std::string at42 = "&lt;upnp:lastPlaybackPosition&gt;0:00:42.5&lt;/upnp:lastPlaybackPosition&gt;";
    EXPECT_EQ(updatePosition(port, film, old, at42).status, 200);
    EXPECT_EQ(metadata(port, film).prop("upnp:lastPlaybackPosition"), "0:00:42");
    for (const char *wanted : {"&lt;dc:title&gt;x&lt;/dc:title&gt;",
                               "&lt;upnp:lastPlaybackPosition&gt;soon&lt;/upnp:lastPlaybackPosition&gt;", ""}) {
      EXPECT_EQ(elementText(updatePosition(port, film, "", wanted).body, "errorCode"), "401") << wanted;
    }
    EXPECT_EQ(elementText(bookmark(port, "987654", "5", kSamsung).body, "errorCode"), "720");
    EXPECT_EQ(elementText(bookmark(port, film, "-5", kSamsung).body, "errorCode"), "402");
    // A play counts once however often the player opens the file to start it.
    const std::string url = metadata(port, film).path();
    EXPECT_EQ(httpGet(port, url, "", "HEAD").status, 200);  // a look, not a play
    EXPECT_EQ(metadata(port, film).prop("upnp:playbackCount"), "");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(httpGet(port, url, "Range: bytes=0-99\r\n").status, 206);
    EXPECT_EQ(httpGet(port, url, "Range: bytes=100-199\r\n").status, 206);
    EXPECT_EQ(metadata(port, film).prop("upnp:playbackCount"), "1");
  }
  if (DMS_WITH_INDEX) {  // without the index they last as long as the server
    RunningServer again;
    ASSERT_TRUE(again.start({disk_ / "films"}));
    EXPECT_EQ(metadata(again.port(), film).prop("upnp:lastPlaybackPosition"), "0:00:42");
    EXPECT_EQ(metadata(again.port(), film).prop("upnp:playbackCount"), "1");
  }
  dlna_dmsSetStateDir(nullptr, nullptr);
}

TEST_F(ClientsTest, AnswersFittedToAFamilyGoOnlyToIt) {
  RunningServer server;
  ASSERT_TRUE(server.start({disk_ / "films"}));
  const int port = server.port();
  // Samsung's feature list: the root while the views are off, then the views.
  EXPECT_EQ(elementText(soap(port, Service::kCds, "X_GetFeatureList", "").body, "errorCode"), "401");
  EXPECT_NE(elementText(soap(port, Service::kCds, "X_GetFeatureList", "", kSamsung).body, "FeatureList")
                .find("<container id=\"0\" type=\"object.item.videoItem\"/>"),
            std::string::npos);
  if (DMS_WITH_VIEWS) {
    ASSERT_EQ(dlna_dmsSetViews(server.handle(), 1), 0);
    const std::string features =
        elementText(soap(port, Service::kCds, "X_GetFeatureList", "", kSamsung).body, "FeatureList");
    EXPECT_NE(features.find("samsung.com_BASICVIEW"), std::string::npos);
    EXPECT_NE(features.find("<container id=\"3\" type=\"object.item.videoItem\"/>"), std::string::npos);
  } else {
    EXPECT_EQ(dlna_dmsSetViews(server.handle(), 1), DMS_ERR_UNSUPPORTED_ACTION);
  }
  // Windows Media Player 12 asks Search for fewer than it wants.
  const std::string criteria = "<ContainerID>0</ContainerID><SearchCriteria>upnp:class derivedfrom "
                               "&quot;object.item&quot;</SearchCriteria><Filter>*</Filter><StartingIndex>0"
                               "</StartingIndex><RequestedCount>1</RequestedCount><SortCriteria></SortCriteria>";
  EXPECT_EQ(cdsAnswer(soap(port, Service::kCds, "Search", criteria)).numberReturned, 1);
  EXPECT_EQ(cdsAnswer(soap(port, Service::kCds, "Search", criteria,
                           "User-Agent: Windows-Media-Player/12.0.7601.17514\r\n")).numberReturned, 4);
  // Panasonic's fixed SortCriteria gives way to title order.
  const std::string folder = lookup(port, "films").id();
  const auto titles = [&](const std::string &headers) {
    const std::string arguments = "<ObjectID>" + folder + "</ObjectID><BrowseFlag>BrowseDirectChildren</BrowseFlag>"
                                  "<Filter>*</Filter><StartingIndex>0</StartingIndex><RequestedCount>0"
                                  "</RequestedCount><SortCriteria>-dc:title</SortCriteria>";
    std::string out;
    for (const DidlObject &object : cdsAnswer(soap(port, Service::kCds, "Browse", arguments, headers)).objects) {
      out += object.title() + " ";
    }
    return out;
  };
  EXPECT_EQ(titles(""), "zz tv song film ");
  const std::string panasonic = "User-Agent: Panasonic MIL DLNA CP UPnP/1.0 DLNADOC/1.50\r\n";
  EXPECT_EQ(titles(panasonic), "film song tv zz ");
  // Its pictures' DLNA.ORG_CI as the main resource's.
  const DidlObject picture = metadata(port, lookup(port, "films/zz").id(), "*", panasonic);
  ASSERT_GE(picture.res.size(), DMS_WITH_PICTURES ? 2u : 1u);
  if (DMS_WITH_PICTURES) {
    EXPECT_NE(picture.res[1].at("protocolInfo").find("DLNA.ORG_CI=0"), std::string::npos);
  }
  if (DMS_WITH_VIEWS) {  // the ids name containers of the views
    // The Xbox 360: its own container ids, its own sort keys dropped, every
    // container a storage folder.
    const char kXbox[] = "User-Agent: Xbox/2.0.4552.0 UPnP/1.0 Xbox/2.0.4552.0\r\n";
    const std::string xboxSearch = "<ContainerID>4</ContainerID><SearchCriteria>upnp:class derivedfrom "
                                   "&quot;object.item.audioItem&quot;</SearchCriteria><Filter>*</Filter>"
                                   "<StartingIndex>0</StartingIndex><RequestedCount>0</RequestedCount>"
                                   "<SortCriteria>+upnp:artist,+microsoft:sourceURL</SortCriteria>";
    const CdsAnswer tracks = cdsAnswer(soap(port, Service::kCds, "Search", xboxSearch, kXbox));
    ASSERT_EQ(tracks.numberReturned, 1);
    EXPECT_EQ(tracks.objects.front().attr("parentID"), "4");  // All Tracks of the views
    const std::string artists = "<ContainerID>6</ContainerID><BrowseFlag>BrowseDirectChildren</BrowseFlag>"
                                "<Filter>*</Filter><StartingIndex>0</StartingIndex><RequestedCount>0</RequestedCount>"
                                "<SortCriteria></SortCriteria>";
    const CdsAnswer listed = cdsAnswer(soap(port, Service::kCds, "Browse", artists, kXbox));
    ASSERT_EQ(listed.numberReturned, 1);
    EXPECT_EQ(listed.objects.front().prop("upnp:class"), "object.container.storageFolder");
  }
  // The host's rule goes before the built-in profiles.
  const char *rule = "ua=SEC_HHP :";
  ASSERT_EQ(dlna_dmsSetClientRules(server.handle(), &rule, 1), 0);
  EXPECT_EQ(elementText(soap(port, Service::kCds, "X_GetFeatureList", "", kSamsung).body, "errorCode"), "401");
  const char *bad = "ua=SEC_HHP : no-such-flag";
  EXPECT_EQ(dlna_dmsSetClientRules(server.handle(), &bad, 1), DMS_ERR_INVALID_PARAM);
}

// Each family's own headers on what it asks first: the item's metadata and
// then a media request that names nobody, answered as for the family that
// the address last named.  Before any family, and for players no row knows,
// the answers are the same as ever.
TEST_F(ClientsTest, EachFamilyIsKnownByItsHeadersAndThenByItsAddress) {
  disk_.copy("video/mp4-h264bl-aac-320x240.mp4", "films/clip.mp4");
  disk_.copy("containers/mkv-h264-aac.mkv", "films/matroska.mkv");
  RunningServer server;
  ASSERT_TRUE(server.start({disk_ / "films"}));
  const int port = server.port();
  const auto type = [&](const char *file, const std::string &headers) {
    const DidlObject item = metadata(port, lookup(port, std::string("films/") + file).id(), "*", headers);
    return item.res.empty() ? std::string() : item.res.front().at("protocolInfo");
  };
  const std::string avi = type("film", ""), mkv = type("matroska", ""), mp4 = type("clip", "");
  const std::string m2ts = type("tv", "");
  ASSERT_EQ(avi.rfind("http-get:*:video/x-msvideo:", 0), 0u);
  ASSERT_NE(mp4.find("DLNA.ORG_PN="), std::string::npos) << mp4;
  const struct {
    const char *headers;
    const char *title;
    const char *starts;   // what its protocolInfo starts with, or
    const char *lacks;    // what it lacks
    const char *served;   // the Content-Type of a media request with no headers that follows
  } families[] = {
      {"User-Agent: VLC/3.0.18 LibVLC/3.0.18\r\n", "film", "http-get:*:video/x-msvideo:", "", "video/x-msvideo"},
      {"User-Agent: Linux/2.6.39 UPnP/1.0 LGE_DLNA_SDK/1.6.0 [TV][LG]42LW5700/04.02.01 DLNADOC/1.50\r\n", "film",
       "http-get:*:video/avi:", "", "video/avi"},
      {"User-Agent: Linux/3.10 UPnP/1.0 LGE WebOS TV LGE_DLNA_SDK/1.6.0/04.30.13 DLNADOC/1.50\r\n", "clip",
       "http-get:*:video/mp4:", "DLNA.ORG_PN=", ""},
      {"User-Agent: Web0S; Linux/SmartTV\r\n", "clip", "http-get:*:video/mp4:", "DLNA.ORG_PN=", ""},
      {"User-Agent: SamsungWiselinkPro/1.0\r\n", "matroska", "http-get:*:video/x-mkv:", "", "video/x-mkv"},
      {"User-Agent: DLNADOC/1.50 SEC_HHP_[TV] UE40/1.0 Tizen\r\n", "matroska", "http-get:*:video/x-mkv:", "", ""},
      {"X-AV-Client-Info: av=5.0; cn=\"Sony Computer Entertainment Inc.\"; mn=\"PLAYSTATION 3\"; mv=\"1.0\"\r\n",
       "tv", "http-get:*:video/vnd.dlna.mpeg-tts:DLNA.ORG_PN=AVC_TS_HD_50_AC3_T;", "", ""},
      {"User-Agent: NSPlayer/12.0.7601.17514 WMFSDK/12.0\r\n", "film", "http-get:*:video/x-msvideo:", "", ""},
      {"X-AV-Client-Info: av=5.0; cn=\"Sony Corporation\"; mn=\"BRAVIA KDL-40EX\"\r\n", "tv",
       "http-get:*:video/vnd.dlna.mpeg-tts:DLNA.ORG_PN=AVC_TS_HD_50_AC3_T;DLNA.ORG_OP=01;DLNA.ORG_CI=0", "", ""},
  };
  for (const auto &family : families) {
    const std::string got = type(family.title, family.headers);
    EXPECT_EQ(got.rfind(family.starts, 0), 0u) << family.headers << got;
    if (*family.lacks != '\0') {
      EXPECT_EQ(got.find(family.lacks), std::string::npos) << family.headers;
    }
    if (*family.served == '\0') continue;
    const HttpResponse media = httpGet(port, metadata(port, lookup(port, std::string("films/") + family.title).id(),
                                                      "*", family.headers).path(), "", "HEAD");
    EXPECT_EQ(media.header("content-type"), family.served) << family.headers;
  }
  // A host's rule with no flags makes a player ordinary; setting rules
  // forgets the addresses, so what follows gets today's answers again.
  const char *rule = "ip=127.0.0.1 :";
  ASSERT_EQ(dlna_dmsSetClientRules(server.handle(), &rule, 1), 0);
  EXPECT_EQ(type("film", families[1].headers), avi);
  ASSERT_EQ(dlna_dmsSetClientRules(server.handle(), nullptr, 0), 0);
  EXPECT_EQ(type("matroska", ""), mkv);
  EXPECT_EQ(type("tv", ""), m2ts);
}

TEST(Subtitles, AVideosSidecarsAreOfferedServedAndFollowed) {
  TempDir disk;
  disk.copy("containers/mkv-h264-aac.mkv", "films/film.mkv");
  for (const char *name : {"film.srt", "film.en.srt", "film.ass", "film.fr.srt"}) {
    disk.copy(std::string("subtitles/") + name, std::string("films/") + name);
  }
  disk.copy("subtitles/film.srt", "films/other.srt");  // another video's (names: the unit test's)
  RunningServer server;
  ASSERT_TRUE(server.start({disk / "films"}));
  const int port = server.port();
  const std::vector<DidlObject> listed = children(port, lookup(port, "films").id());
  ASSERT_EQ(listed.size(), 1u);  // no subtitle is an item
  const DidlObject film = listed.front();
  const struct {
    const char *file;
    const char *type;
  } offered[] = {{"film.ass", "text/x-ass"}, {"film.en.srt", "text/srt"}, {"film.fr.srt", "text/srt"},
                 {"film.srt", "text/srt"}};
  ASSERT_EQ(film.res.size(), 1 + std::size(offered));
  for (size_t i = 0; i < std::size(offered); ++i) {
    const auto &res = film.res[1 + i];
    EXPECT_EQ(res.at("protocolInfo"), std::string("http-get:*:") + offered[i].type + ":*");
    const HttpResponse served = httpGet(port, urlPath(res.at("url")));
    EXPECT_EQ(served.status, 200) << offered[i].file;
    EXPECT_EQ(served.header("content-type"), offered[i].type);
    EXPECT_EQ(served.body, readFile(disk / (std::string("films/") + offered[i].file))) << offered[i].file;  // as it is
  }
  // Samsung: the subtitle in the item and on its media request, Matroska as video/x-mkv.
  const DidlObject seen = metadata(port, film.id(), "*", kSamsung);
  EXPECT_EQ(urlPath(seen.prop("sec:CaptionInfoEx")), urlPath(film.res[1].at("url")));
  EXPECT_EQ(seen.res.at(0).at("protocolInfo").rfind("http-get:*:video/x-mkv:", 0), 0u);
  EXPECT_EQ(film.res.at(0).at("protocolInfo").rfind("http-get:*:video/x-matroska:", 0), 0u);
  const HttpResponse media = httpGet(port, film.path(), std::string(kSamsung) + "getCaptionInfo.sec: 1\r\n", "HEAD");
  EXPECT_EQ(urlPath(media.header("captioninfo.sec")), urlPath(film.res[1].at("url")));
  EXPECT_EQ(media.header("content-type"), "video/x-mkv");
  // One copied in later is offered; one deleted is not.
  disk.copy("subtitles/film.srt", "films/film.es.srt");
  std::filesystem::remove(disk / "films/film.ass");
  EXPECT_TRUE(eventually([&] {
    const DidlObject now = metadata(port, film.id());
    return now.res.size() == 5 && now.res[1].at("url").find(".0.srt") != std::string::npos;
  }));
}

}  // namespace

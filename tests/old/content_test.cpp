// Browse, Search and media downloads as a control point sees them, over a
// tree of real media files.
#include <ixml.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "server_fixture.h"

using namespace dmstest;
namespace fs = std::filesystem;

namespace {

constexpr char kCdsType[] = "urn:schemas-upnp-org:service:ContentDirectory:1";

fs::path fixture(const std::string &relative) {
  return fs::path(DMS_TEST_FIXTURES) / "media" / relative;
}

std::string readFile(const fs::path &path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// One object of a DIDL-Lite Result.
struct DidlObject {
  bool container = false;
  std::string id, parentId, title, upnpClass, childCount, searchable;
  std::string res, protocolInfo, size, duration, bitrate;
};

std::string attribute(IXML_Element *element, const char *name) {
  const char *value = ixmlElement_getAttribute(element, name);
  return value != nullptr ? value : "";
}

std::string childText(IXML_Node *node, const char *name) {
  for (IXML_Node *child = ixmlNode_getFirstChild(node); child; child = ixmlNode_getNextSibling(child)) {
    if (std::string(ixmlNode_getNodeName(child)) != name) continue;
    IXML_Node *text = ixmlNode_getFirstChild(child);
    return text && ixmlNode_getNodeValue(text) ? ixmlNode_getNodeValue(text) : "";
  }
  return "";
}

// Parses a Result; a document that does not parse fails the test.
std::vector<DidlObject> parseDidl(const std::string &result) {
  std::vector<DidlObject> objects;
  IXML_Document *document = ixmlParseBuffer(result.c_str());
  EXPECT_NE(document, nullptr) << result;
  if (document == nullptr) return objects;
  IXML_Node *root = ixmlNode_getFirstChild(reinterpret_cast<IXML_Node *>(document));
  for (IXML_Node *node = ixmlNode_getFirstChild(root); node; node = ixmlNode_getNextSibling(node)) {
    DidlObject object;
    auto *element = reinterpret_cast<IXML_Element *>(node);
    object.container = std::string(ixmlNode_getNodeName(node)) == "container";
    object.id = attribute(element, "id");
    object.parentId = attribute(element, "parentID");
    object.childCount = attribute(element, "childCount");
    object.searchable = attribute(element, "searchable");
    object.title = childText(node, "dc:title");
    object.upnpClass = childText(node, "upnp:class");
    object.res = childText(node, "res");
    for (IXML_Node *child = ixmlNode_getFirstChild(node); child; child = ixmlNode_getNextSibling(child)) {
      if (std::string(ixmlNode_getNodeName(child)) != "res") continue;
      auto *res = reinterpret_cast<IXML_Element *>(child);
      object.protocolInfo = attribute(res, "protocolInfo");
      object.size = attribute(res, "size");
      object.duration = attribute(res, "duration");
      object.bitrate = attribute(res, "bitrate");
    }
    objects.push_back(object);
  }
  ixmlDocument_free(document);
  return objects;
}

struct BrowseAnswer {
  int status = 0;
  std::vector<DidlObject> objects;
  int numberReturned = -1, totalMatches = -1;
  std::string errorCode;
};

class ContentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = fs::path(folder_.path()) / "Shared";
    fs::create_directories(root_ / "Music");
    fs::create_directories(root_ / "Photos");
    fs::create_directories(root_ / "Empty");
    for (const char *name : {"a.mp3", "b.mp3", "c.mp3"}) {
      fs::copy_file(fixture("audio/mp3/mpeg1-44k-cbr128.mp3"), root_ / "Music" / name);
    }
    fs::copy_file(fixture("image/jfif-640x480.jpg"), root_ / "Photos" / "p.jpg");
    fs::copy_file(fixture("audio/mp3/mpeg1-44k-cbr128.mp3"), root_ / "Tom & <Jerry>.mp3");
    fs::copy_file(fixture("audio/mp3/mpeg1-44k-cbr128.mp3"), root_ / "b.song.mp3");
    fs::copy_file(fixture("audio/pcm/x-b-lpcm-2.pcm"), root_ / "music-b-lpcm-2.pcm");
    fs::copy_file(fixture("audio/wav/pcm16-44100-2ch.wav"), root_ / "tone.wav");
    ASSERT_TRUE(server_.Start({root_.string()}));
  }
  void TearDown() override { server_.Stop(); }

  BrowseAnswer answer(const HttpResponse &response) {
    BrowseAnswer out;
    out.status = response.status;
    out.errorCode = elementText(response.body, "errorCode");
    if (response.status != 200) return out;
    out.objects = parseDidl(elementText(response.body, "Result"));
    out.numberReturned = std::atoi(elementText(response.body, "NumberReturned").c_str());
    out.totalMatches = std::atoi(elementText(response.body, "TotalMatches").c_str());
    return out;
  }
  BrowseAnswer browse(const std::string &id, const std::string &flag, int start = 0, int count = 0,
                      const std::string &filter = "*") {
    std::string args = "<ObjectID>" + id + "</ObjectID><BrowseFlag>" + flag + "</BrowseFlag><Filter>" +
                       filter + "</Filter><StartingIndex>" + std::to_string(start) +
                       "</StartingIndex><RequestedCount>" + std::to_string(count) +
                       "</RequestedCount><SortCriteria></SortCriteria>";
    return answer(soapAction(kHost, server_.port(), "/web/cds_control", kCdsType, "Browse", args));
  }
  BrowseAnswer search(const std::string &id, const std::string &criteria, int start = 0, int count = 0) {
    std::string escaped;
    for (char c : criteria) escaped += c == '"' ? std::string("&quot;") : std::string(1, c);
    std::string args = "<ContainerID>" + id + "</ContainerID><SearchCriteria>" + escaped +
                       "</SearchCriteria><Filter>*</Filter><StartingIndex>" + std::to_string(start) +
                       "</StartingIndex><RequestedCount>" + std::to_string(count) +
                       "</RequestedCount><SortCriteria></SortCriteria>";
    return answer(soapAction(kHost, server_.port(), "/web/cds_control", kCdsType, "Search", args));
  }
  // The object of the shared folder titled `title`.
  DidlObject child(const std::string &title) {
    for (const DidlObject &object : browse(sharedId(), "BrowseDirectChildren").objects) {
      if (object.title == title) return object;
    }
    ADD_FAILURE() << "no child " << title;
    return {};
  }
  std::string sharedId() { return browse("0", "BrowseDirectChildren").objects.at(0).id; }
  // The path part of a res URL.
  static std::string pathOf(const std::string &url) { return url.substr(url.find("/web/")); }

  TempFolder folder_;
  fs::path root_;
  RunningServer server_;
};

TEST_F(ContentTest, RootFolderAndItemMetadata) {
  BrowseAnswer root = browse("0", "BrowseMetadata");
  ASSERT_EQ(root.status, 200);
  ASSERT_EQ(root.objects.size(), 1u);
  EXPECT_TRUE(root.objects[0].container);
  EXPECT_EQ(root.objects[0].id, "0");
  EXPECT_EQ(root.objects[0].parentId, "-1");
  EXPECT_EQ(root.objects[0].title, "root");
  EXPECT_EQ(root.objects[0].upnpClass, "object.container.storageFolder");
  EXPECT_EQ(root.numberReturned, 1);
  EXPECT_EQ(root.totalMatches, 1);

  BrowseAnswer shared = browse(sharedId(), "BrowseMetadata");
  ASSERT_EQ(shared.objects.size(), 1u);
  EXPECT_EQ(shared.objects[0].title, "Shared");
  EXPECT_EQ(shared.objects[0].parentId, "0");

  DidlObject song = child("b.song");
  BrowseAnswer item = browse(song.id, "BrowseMetadata");
  ASSERT_EQ(item.objects.size(), 1u);
  EXPECT_FALSE(item.objects[0].container);
  EXPECT_EQ(item.objects[0].upnpClass, "object.item.audioItem.musicTrack");
  EXPECT_EQ(item.objects[0].protocolInfo,
            "http-get:*:audio/mpeg:DLNA.ORG_PN=MP3;DLNA.ORG_OP=01;DLNA.ORG_CI=0");
  EXPECT_EQ(item.objects[0].res, "http://127.0.0.1:" + std::to_string(server_.port()) + "/web/" +
                                     song.id + ".mp3");
  EXPECT_EQ(item.objects[0].size, std::to_string(fs::file_size(root_ / "b.song.mp3")));
  EXPECT_EQ(item.objects[0].duration.rfind("0:00:01.", 0), 0u) << item.objects[0].duration;
  EXPECT_EQ(item.objects[0].bitrate, "16000");  // 128 kbit/s in bytes per second
}

TEST_F(ContentTest, ChildrenInNameOrderWithTitlesThatRoundTrip) {
  BrowseAnswer shared = browse(sharedId(), "BrowseDirectChildren");
  ASSERT_EQ(shared.status, 200);
  std::vector<std::string> titles;
  for (const DidlObject &object : shared.objects) titles.push_back(object.title);
  EXPECT_EQ(titles, (std::vector<std::string>{"Empty", "Music", "Photos", "Tom & <Jerry>", "b.song",
                                              "music-b-lpcm-2", "tone"}));
  EXPECT_EQ(shared.numberReturned, 7);
  EXPECT_EQ(shared.totalMatches, 7);
  EXPECT_EQ(child("Music").childCount, "3");
  EXPECT_EQ(child("Music").searchable, "1");
}

TEST_F(ContentTest, DirectChildrenPaging) {
  std::string music = child("Music").id;
  BrowseAnswer all = browse(music, "BrowseDirectChildren", 0, 10);
  EXPECT_EQ(all.numberReturned, 3);
  EXPECT_EQ(all.totalMatches, 3);
  BrowseAnswer tail = browse(music, "BrowseDirectChildren", 2, 5);
  ASSERT_EQ(tail.objects.size(), 1u);
  EXPECT_EQ(tail.objects[0].title, "c");
  EXPECT_EQ(tail.totalMatches, 3);
  BrowseAnswer past = browse(music, "BrowseDirectChildren", 3, 1);
  EXPECT_EQ(past.status, 500);
  BrowseAnswer empty = browse(child("Empty").id, "BrowseDirectChildren");
  EXPECT_EQ(empty.status, 200);
  EXPECT_EQ(empty.numberReturned, 0);
  EXPECT_EQ(empty.totalMatches, 0);
}

TEST_F(ContentTest, FilterChoosesTheProperties) {
  std::string id = sharedId();
  BrowseAnswer titles = browse(id, "BrowseDirectChildren", 0, 0, "dc:title");
  for (const DidlObject &object : titles.objects) {
    EXPECT_TRUE(object.res.empty()) << object.title;
    EXPECT_TRUE(object.childCount.empty()) << object.title;
  }
  BrowseAnswer durations = browse(id, "BrowseDirectChildren", 0, 0, "dc:title,res@duration");
  for (const DidlObject &object : durations.objects) {
    if (object.title != "b.song") continue;
    EXPECT_FALSE(object.res.empty());
    EXPECT_FALSE(object.duration.empty());
    EXPECT_TRUE(object.size.empty());
  }
}

TEST_F(ContentTest, PcmIsServedAsWavByBrowseAndAsPcmBySearch) {
  DidlObject pcm = child("music-b-lpcm-2");
  EXPECT_TRUE(pcm.res.ends_with("/web/" + pcm.id + ".wav")) << pcm.res;
  BrowseAnswer found = search(sharedId(), "dc:title contains \"music-b\"");
  ASSERT_EQ(found.objects.size(), 1u);
  EXPECT_TRUE(found.objects[0].res.ends_with("/web/" + pcm.id + ".pcm")) << found.objects[0].res;
}

TEST_F(ContentTest, SearchByClassAndTitleWithPaging) {
  std::string id = sharedId();
  BrowseAnswer audio = search(id, "upnp:class derivedfrom \"object.item.audioItem\"");
  ASSERT_EQ(audio.status, 200);
  EXPECT_EQ(audio.totalMatches, 7);
  EXPECT_EQ(audio.numberReturned, 7);
  BrowseAnswer page = search(id, "upnp:class derivedfrom \"object.item.audioItem\"", 1, 2);
  EXPECT_EQ(page.numberReturned, 2);
  EXPECT_EQ(page.totalMatches, 7);
  EXPECT_EQ(search(id, "upnp:class derivedfrom \"object.item.imageItem\"").totalMatches, 1);
  BrowseAnswer titled = search(id, "dc:title contains \"b\"");
  EXPECT_EQ(titled.totalMatches, 2);  // "b" and "b.song": prefixes, case-sensitive
  BrowseAnswer past = search(id, "dc:title contains \"b\"", 5, 0);
  EXPECT_EQ(past.status, 200);
  EXPECT_EQ(past.numberReturned, 0);
  BrowseAnswer empty = search(child("Empty").id, "dc:title contains \"b\"");
  EXPECT_EQ(empty.status, 200);
  EXPECT_EQ(empty.totalMatches, 0);
}

TEST_F(ContentTest, FaultsForUnknownObjectsAndMissingArguments) {
  EXPECT_EQ(browse("99999", "BrowseDirectChildren").errorCode, "720");
  std::string args = "<ObjectID>0</ObjectID><Filter>*</Filter><StartingIndex>0</StartingIndex>"
                     "<RequestedCount>0</RequestedCount><SortCriteria></SortCriteria>";
  HttpResponse missing = soapAction(kHost, server_.port(), "/web/cds_control", kCdsType, "Browse", args);
  EXPECT_EQ(missing.status, 500);
  EXPECT_EQ(elementText(missing.body, "errorCode"), "402");
  HttpResponse caps = soapAction(kHost, server_.port(), "/web/cds_control", kCdsType, "GetSearchCapabilities", "");
  EXPECT_EQ(elementText(caps.body, "SearchCaps"), "dc:title,upnp:class,dc:creator,res@protocolInfo");
}

TEST_F(ContentTest, DownloadsWithExactLengthsRangesAndDlnaHeaders) {
  DidlObject song = child("b.song");
  std::string path = pathOf(song.res);
  std::string file = readFile(root_ / "b.song.mp3");
  HttpResponse whole = httpGet(kHost, server_.port(), path);
  ASSERT_EQ(whole.status, 200);
  EXPECT_EQ(whole.body, file);
  EXPECT_EQ(whole.header("content-type"), "audio/mpeg");
  EXPECT_EQ(whole.header("contentfeatures.dlna.org"), "DLNA.ORG_PN=MP3;DLNA.ORG_OP=01;DLNA.ORG_CI=0");
  EXPECT_EQ(whole.header("transfermode.dlna.org"), "Streaming");

  HttpResponse head = httpGet(kHost, server_.port(), path, "", "HEAD");
  EXPECT_EQ(head.status, 200);
  EXPECT_EQ(head.header("content-length"), std::to_string(file.size()));
  EXPECT_TRUE(head.body.empty());

  size_t size = file.size();
  struct Case { std::string range; size_t from, length; };
  for (const Case &c : {Case{"bytes=0-9", 0, 10}, Case{"bytes=100-199", 100, 100},
                        Case{"bytes=" + std::to_string(size - 5) + "-", size - 5, 5},
                        Case{"bytes=-50", size - 50, 50}}) {
    HttpResponse part = httpGet(kHost, server_.port(), path, "Range: " + c.range + "\r\n");
    EXPECT_EQ(part.status, 206) << c.range;
    EXPECT_EQ(part.body, file.substr(c.from, c.length)) << c.range;
  }
  DidlObject photo = browse(child("Photos").id, "BrowseDirectChildren").objects.at(0);
  HttpResponse image = httpGet(kHost, server_.port(), pathOf(photo.res));
  EXPECT_EQ(image.header("transfermode.dlna.org"), "Interactive");
  EXPECT_EQ(image.header("contentfeatures.dlna.org"), "DLNA.ORG_PN=JPEG_SM;DLNA.ORG_OP=01;DLNA.ORG_CI=0");
}

TEST_F(ContentTest, LpcmGoesOutInNetworkByteOrder) {
  DidlObject tone = child("tone");
  std::string file = readFile(root_ / "tone.wav");
  std::string samples = file.substr(44);
  for (size_t i = 0; i + 1 < samples.size(); i += 2) std::swap(samples[i], samples[i + 1]);
  HttpResponse whole = httpGet(kHost, server_.port(), pathOf(tone.res));
  ASSERT_EQ(whole.status, 200);
  EXPECT_EQ(whole.header("content-type"), "audio/L16;rate=44100;channels=2");
  EXPECT_EQ(whole.body, samples);
  HttpResponse odd = httpGet(kHost, server_.port(), pathOf(tone.res), "Range: bytes=101-200\r\n");
  EXPECT_EQ(odd.status, 206);
  EXPECT_EQ(odd.body, samples.substr(101, 100));
}

TEST_F(ContentTest, HostilePathsAnswerNotFound) {
  for (const char *path : {"/web/../etc/passwd", "/web/0", "/web/abc", "/web/99999999999999999999",
                           "/web/1001", "/web/%2e%2e/%2e%2e/etc/passwd", "/web/1003.mp3/../../x"}) {
    HttpResponse response = httpGet(kHost, server_.port(), path);
    EXPECT_EQ(response.status, 404) << path;
    EXPECT_EQ(response.body.find("root:"), std::string::npos) << path;
  }
}

// Eight clients browse and download while the host adds and removes a shared
// folder: only the expected answers, and the server is whole afterwards.
TEST_F(ContentTest, ConcurrentClientsWhileSharedFoldersChange) {
  TempFolder extra;
  fs::copy_file(fixture("audio/mp3/mpeg1-44k-cbr128.mp3"), fs::path(extra.path()) / "x.mp3");
  std::string song = pathOf(child("b.song").res);
  std::string id = sharedId();
  std::atomic<bool> stop{false};
  std::atomic<int> unexpected{0};
  std::vector<std::thread> clients;
  for (int client = 0; client < 8; ++client) {
    clients.emplace_back([&, client] {
      for (int round = 0; round < 1000 && !stop; ++round) {
        if (client % 2 == 0) {
          BrowseAnswer answer = browse(id, "BrowseDirectChildren");
          if (answer.status != 200 && answer.status != 500 && answer.status != 404) ++unexpected;
        } else {
          HttpResponse response = httpGet(kHost, server_.port(), song);
          if (response.status != 200 && response.status != 404) ++unexpected;
        }
      }
    });
  }
  std::string extraPath = extra.path();
  for (int change = 0; change < 4; ++change) {
    EXPECT_EQ(dlna_dmsAddSharedPath(server_.handle(), extraPath.data()), 0);
    EXPECT_EQ(dlna_dmsDeleteSharedPath(server_.handle(), extraPath.c_str()), 0);
  }
  stop = true;
  for (std::thread &client : clients) client.join();
  EXPECT_EQ(unexpected.load(), 0);
  EXPECT_EQ(browse(id, "BrowseDirectChildren").numberReturned, 7);
}

}  // namespace

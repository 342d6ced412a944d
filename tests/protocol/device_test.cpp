// The device as a control point sees it: description, fixed files, the
// ConnectionManager and registrar actions, faults, eventing and the life
// cycle through the public API.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ixml.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <sstream>
#include <thread>

#include "dms_test.h"

using namespace dmstest;

namespace {

class DeviceTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    folder_ = new TempDir;
    folder_->copy("audio/mp3/mpeg1-44k-cbr128.mp3", "Music/a.mp3");
    server_ = new RunningServer;
    ASSERT_TRUE(server_->start({folder_->path()}, "Den & Co <1>"));
  }
  static void TearDownTestSuite() {
    delete server_;  // asserts a clean shutdown
    delete folder_;
  }
  static int port() { return server_->port(); }
  static inline TempDir *folder_ = nullptr;
  static inline RunningServer *server_ = nullptr;
};

TEST_F(DeviceTest, DescriptionNamesTheDeviceAndItsServices) {
  HttpResponse description = httpGet(port(), "/description.xml");
  ASSERT_EQ(description.status, 200);
  const std::string &xml = description.body;
  EXPECT_EQ(elementText(xml, "deviceType"), "urn:schemas-upnp-org:device:MediaServer:1");
  EXPECT_EQ(elementText(xml, "friendlyName"), "Den & Co <1>: DMS");
  EXPECT_EQ(elementText(xml, "manufacturer"), "Test Maker");
  EXPECT_EQ(elementText(xml, "X_DLNADOC"), "DMS-1.50");
  EXPECT_EQ(elementText(xml, "UDN").rfind("uuid:", 0), 0u);
  // Every URL the description names is served.
  for (const char *tag : {"SCPDURL", "presentationURL"}) {
    std::string url = elementText(xml, tag);
    EXPECT_EQ(httpGet(port(), url).status, 200) << url;
  }
  for (Service service : {Service::kCds, Service::kCms, Service::kMrs}) {
    EXPECT_NE(xml.find(serviceType(service)), std::string::npos);
    EXPECT_NE(xml.find(controlPath(service)), std::string::npos);
  }
}

TEST_F(DeviceTest, FixedFilesAnswerWithTheirTypes) {
  struct Row {
    const char *path;
    int status;
    const char *type;
    const char *profile;
  } rows[] = {
      {"/web/cds.xml", 200, "text/xml", nullptr},
      {"/web/cms.xml", 200, "text/xml", nullptr},
      {"/web/ms_mrs.xml", 200, "text/xml", nullptr},
      {"/web/index.html", 200, "text/html", nullptr},
      {"/web/KV-icon-48x48.jpg", 200, "image/jpeg", "JPEG_SM_ICO"},
      {"/web/KV-icon-120x120.jpg", 200, "image/jpeg", "JPEG_LRG_ICO"},
      {"/web/KV-icon-48x48.png", 200, "image/png", "PNG_SM_ICO"},
      {"/web/KV-icon-120x120.png", 200, "image/png", "PNG_LRG_ICO"},
      {"/web/nothing.xml", 404, nullptr, nullptr},
      {"/web/cds.xml/", 404, nullptr, nullptr},
      {"/etc/passwd", 404, nullptr, nullptr},
      {"/web/../../etc/passwd", 404, nullptr, nullptr},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.path);
    HttpResponse response = httpGet(port(), row.path);
    EXPECT_EQ(response.status, row.status);
    if (row.status != 200) continue;
    EXPECT_EQ(response.header("content-type").rfind(row.type, 0), 0u);
    EXPECT_EQ(response.header("content-length"), std::to_string(response.body.size()));
    std::string features = response.header("contentfeatures.dlna.org");
    if (row.profile != nullptr) {
      EXPECT_NE(features.find(row.profile), std::string::npos);
    }
    if (std::string(row.type) == "text/xml") {
      bool ok = false;
      parseDidl(response.body, &ok);
      EXPECT_TRUE(ok);
    }
  }
}

// Each row: service, action, arguments, then the answer's expected element
// texts ("errorCode" for faults).
struct ActionRow {
  Service service;
  const char *action;
  const char *arguments;
  int status;
  std::vector<std::pair<const char *, const char *>> expected;
};

TEST_F(DeviceTest, ActionsAnswerAsTheServicesPromise) {
  const ActionRow rows[] = {
      {Service::kCms, "GetCurrentConnectionIDs", "", 200, {{"ConnectionIDs", "0"}}},
      {Service::kCms, "GetCurrentConnectionInfo", "<ConnectionID>0</ConnectionID>", 200,
       {{"RcsID", "-1"}, {"AVTransportID", "-1"}, {"Direction", "Output"}, {"Status", "OK"}}},
      {Service::kCms, "GetCurrentConnectionInfo", "", 500, {{"errorCode", "402"}}},
      {Service::kCms, "getprotocolinfo", "", 500, {{"errorCode", "401"}}},
      {Service::kMrs, "IsAuthorized", "<DeviceID></DeviceID>", 200, {{"Result", "1"}}},
      {Service::kMrs, "IsValidated", "<DeviceID>abc</DeviceID>", 200, {{"Result", "1"}}},
      {Service::kMrs, "RegisterDevice", "<RegistrationReqMsg>AAAA</RegistrationReqMsg>", 200,
       {{"RegistrationRespMsg", "respAccepted1"}}},
      {Service::kMrs, "Unregister", "", 500, {{"errorCode", "401"}}},
      {Service::kCds, "GetSearchCapabilities", "", 200, {{"SearchCaps", "dc:title,upnp:class,dc:creator,res@protocolInfo"}}},
      {Service::kCds, "Browse", "<ObjectID>424242</ObjectID><BrowseFlag>BrowseMetadata</BrowseFlag>"
                                "<Filter>*</Filter><StartingIndex>0</StartingIndex>"
                                "<RequestedCount>0</RequestedCount><SortCriteria></SortCriteria>",
       500, {{"errorCode", "720"}}},
  };
  for (const ActionRow &row : rows) {
    SCOPED_TRACE(row.action);
    HttpResponse response = soap(port(), row.service, row.action, row.arguments);
    EXPECT_EQ(response.status, row.status) << response.body;
    for (const auto &[element, text] : row.expected) EXPECT_EQ(elementText(response.body, element), text);
  }
}

// Every action a service description lists is one the service answers, and
// a success carries every out argument the description names.
TEST_F(DeviceTest, EveryDescribedActionIsAnswered) {
  const std::pair<Service, const char *> descriptions[] = {
      {Service::kCds, "/web/cds.xml"}, {Service::kCms, "/web/cms.xml"}, {Service::kMrs, "/web/ms_mrs.xml"}};
  for (const auto &[service, path] : descriptions) {
    IXML_Document *scpd = ixmlParseBuffer(httpGet(port(), path).body.c_str());
    ASSERT_NE(scpd, nullptr) << path;
    IXML_NodeList *actions = ixmlDocument_getElementsByTagName(scpd, "action");
    ASSERT_NE(actions, nullptr) << path;
    for (unsigned long a = 0; a < ixmlNodeList_length(actions); ++a) {
      auto *action = reinterpret_cast<IXML_Element *>(ixmlNodeList_item(actions, a));
      IXML_NodeList *names = ixmlElement_getElementsByTagName(action, "name");
      IXML_NodeList *directions = ixmlElement_getElementsByTagName(action, "direction");
      auto text = [](IXML_NodeList *list, unsigned long i) {
        IXML_Node *value = ixmlNode_getFirstChild(ixmlNodeList_item(list, i));
        return std::string(value != nullptr ? ixmlNode_getNodeValue(value) : "");
      };
      const std::string name = text(names, 0);
      SCOPED_TRACE(name);
      HttpResponse answer = soap(port(), service, name, "");
      EXPECT_NE(elementText(answer.body, "errorCode"), "401");
      for (unsigned long i = 0; answer.status == 200 && i < ixmlNodeList_length(directions); ++i) {
        if (text(directions, i) != "out") continue;
        const std::string argument = text(names, i + 1);
        EXPECT_NE(answer.body.find("<" + argument), std::string::npos) << argument;
      }
      ixmlNodeList_free(names);
      ixmlNodeList_free(directions);
    }
    ixmlNodeList_free(actions);
    ixmlDocument_free(scpd);
  }
}

TEST_F(DeviceTest, ProtocolInfoListsEveryProfileTheServerServes) {
  HttpResponse response = soap(port(), Service::kCms, "GetProtocolInfo", "");
  ASSERT_EQ(response.status, 200);
  const std::string source = elementText(response.body, "Source");
  // The 45 profiles of the written list, then the formats added beyond it
  // (no profile; operation and flags fields).
  std::vector<std::string> entries;
  std::stringstream list(source);
  for (std::string entry; std::getline(list, entry, ',');) entries.push_back(entry);
  ASSERT_EQ(entries.size(), 53u);
  for (size_t i = 0; i < entries.size(); ++i) {
    EXPECT_EQ(entries[i].find("DLNA.ORG_FLAGS=") != std::string::npos, i >= 45) << entries[i];
  }
  // What Browse publishes for an item is among what the server says it serves.
  DidlObject song = lookup(port(), std::filesystem::path(folder_->path()).filename().string() + "/Music/a");
  ASSERT_EQ(song.res.size(), 1u);
  EXPECT_NE(source.find(song.res[0]["protocolInfo"]), std::string::npos);
  EXPECT_EQ(elementText(response.body, "Sink"), "");
}

TEST_F(DeviceTest, MalformedRequestsGetAnAnswerAndTheServerGoesOn) {
  const std::string body = "<s:Envelope><s:Body><u:GetProtocolInfo>";  // cut short
  const std::pair<std::string, bool> requests[] = {  // request, may it succeed
      {"POST /web/cms_control HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: text/xml\r\n"
       "SOAPACTION: \"" + std::string(serviceType(Service::kCms)) + "#GetProtocolInfo\"\r\n"
       "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body, false},
      {"POST /web/cds.xml HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 4\r\n\r\nabcd", false},
      {"GET /web/cds.xml HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Long: " + std::string(70000, 'a') +
       "\r\n\r\n", true},
      {"GET /web/cds.xml HTTP/1.1\r\n" + std::string(2000, 'h') + ": x\r\n\r\n", true},
      {"BREW /web/cds.xml HTCPCP/1.0\r\n\r\n", false},
  };
  for (const auto &[request, maySucceed] : requests) {
    SCOPED_TRACE(request.substr(0, 60));
    HttpResponse response = sendRaw(port(), request);
    EXPECT_NE(response.status, 0);
    if (!maySucceed) {
      EXPECT_NE(response.status, 200);
    }
    EXPECT_EQ(soap(port(), Service::kCms, "GetCurrentConnectionIDs", "").status, 200);
  }
}

TEST_F(DeviceTest, SubscribersReceiveTheInitialEventOfEachService) {
  const std::pair<const char *, const char *> services[] = {
      {"/web/cms_event", "CurrentConnectionIDs"}, {"/web/cds_event", "SystemUpdateID"}};
  for (const auto &[path, variable] : services) {
    Subscriber subscriber(port(), path);
    const HttpResponse &response = subscriber.subscription();
    ASSERT_EQ(response.status, 200) << path;
    EXPECT_EQ(response.header("sid").rfind("uuid:", 0), 0u);
    std::string notify = subscriber.next(5000);
    EXPECT_NE(notify.find("SEQ: 0"), std::string::npos) << notify;
    EXPECT_NE(notify.find(variable), std::string::npos) << notify;
  }
}

// ---- life cycle through the public API ---------------------------------------

TEST(ServerLifecycle, ReconfigurationIsSeenByControlPoints) {
  TempDir first, second;
  first.copy("audio/mp3/mpeg1-44k-cbr128.mp3", "one.mp3");
  second.copy("image/jfif-640x480.jpg", "two.jpg");
  RunningServer server;
  ASSERT_TRUE(server.start({first.path()}));
  dmsHandle *handle = server.handle();
  ASSERT_NE(dlna_dmsGetContentList(handle), nullptr);
  EXPECT_EQ(dlna_dmsGetContentList(nullptr), nullptr);
  EXPECT_EQ(dmsClmLockContentList(dlna_dmsGetContentList(handle)), 0);
  EXPECT_EQ(dmsClmUnlockContentList(dlna_dmsGetContentList(handle)), 0);

  EXPECT_EQ(dlna_dmsUpdateFriendlyName(handle, "Kitchen"), 0);
  EXPECT_EQ(elementText(httpGet(server.port(), "/description.xml").body, "friendlyName"), "Kitchen: DMS");
  EXPECT_NE(dlna_dmsUpdateFriendlyName(handle, std::string(300, 'x').c_str()), 0);
  EXPECT_EQ(dlna_dmsRestart(handle), 0);
  EXPECT_EQ(children(server.port(), "0").size(), 1u);

  std::string added = second.path();
  EXPECT_EQ(dlna_dmsAddSharedPath(handle, added.data()), 0);
  std::vector<DidlObject> shares = children(server.port(), "0");
  ASSERT_EQ(shares.size(), 2u);
  EXPECT_EQ(children(server.port(), shares[1].id()).at(0).title(), "two");
  EXPECT_EQ(dlna_dmsDeleteSharedPath(handle, first.path().c_str()), 0);
  shares = children(server.port(), "0");
  ASSERT_EQ(shares.size(), 1u);
  EXPECT_EQ(children(server.port(), shares[0].id()).at(0).title(), "two");
  std::string missing = first / "no-such-folder";
  EXPECT_NE(dlna_dmsAddSharedPath(handle, missing.data()), 0);
  EXPECT_EQ(dlna_dmsRestart(nullptr), DMS_ERR_INVALID_PARAM);
}

// Collects the SSDP messages multicast on loopback.
class SsdpListener {
 public:
  SsdpListener() : fd_(::socket(AF_INET, SOCK_DGRAM, 0)) {
    const int on = 1;
    ::setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(1900);
    EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr *>(&any), sizeof any), 0);
    ip_mreq group{};
    inet_pton(AF_INET, "239.255.255.250", &group.imr_multiaddr);
    inet_pton(AF_INET, "127.0.0.1", &group.imr_interface);
    EXPECT_EQ(::setsockopt(fd_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group), 0);
  }
  ~SsdpListener() { ::close(fd_); }
  SsdpListener(const SsdpListener &) = delete;
  SsdpListener &operator=(const SsdpListener &) = delete;
  // Every message that arrives within timeoutMs of the one before.
  std::vector<std::string> drain(int timeoutMs) {
    std::vector<std::string> messages;
    pollfd ready{fd_, POLLIN, 0};
    while (::poll(&ready, 1, timeoutMs) == 1) {
      char datagram[2048];
      const ssize_t length = ::recv(fd_, datagram, sizeof datagram, 0);
      if (length <= 0) break;
      messages.emplace_back(datagram, static_cast<size_t>(length));
    }
    return messages;
  }

 private:
  int fd_;
};

// A starting server announces no departure, and from the moment its
// description answers, so does its ContentDirectory.
TEST(ServerLifecycle, StartingSaysNoByebyeAndServesEverythingAtOnce) {
  TempDir folder;
  folder.copy("audio/mp3/mpeg1-44k-cbr128.mp3", "one.mp3");
  SsdpListener ssdp;
  RunningServer server;
  const bool created = server.create({folder.path()});
  // Probed from create's return on: while create runs, the SDK's own web
  // server is still being set up.
  std::atomic<bool> done{false};
  std::atomic<int> described{0}, unanswered{0};
  std::thread prober([&] {
    while (!done) {
      if (httpGet(kPort, "/description.xml").status == 200) {
        ++described;
        if (browse(kPort, "0", "BrowseMetadata").status != 200) ++unanswered;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const bool started = created && server.startCreated();
  std::vector<std::string> messages = ssdp.drain(1000);
  done = true;
  prober.join();
  ASSERT_TRUE(started);
  auto isAlive = [](const std::string &m) { return m.find("ssdp:alive") != std::string::npos; };
  EXPECT_TRUE(std::any_of(messages.begin(), messages.end(), isAlive));
  for (const std::string &message : messages) EXPECT_EQ(message.find("ssdp:byebye"), std::string::npos);
  EXPECT_GT(described.load(), 0);
  EXPECT_EQ(unanswered.load(), 0);
}

// Calls out of order or with bad arguments are refused with their codes and
// leave the server as it was.
TEST(ServerLifecycle, MisuseIsRefusedAndHarmless) {
  TempDir folder;
  folder.copy("audio/mp3/mpeg1-44k-cbr128.mp3", "a.mp3");
  RunningServer server;
  ASSERT_TRUE(server.start({folder.path()}));
  dmsHandle *handle = server.handle();
  std::string file = folder / "a.mp3", missing = folder / "none";
  const std::pair<std::function<int32_t()>, int32_t> rows[] = {
      {[&] { return dlna_dmsUpdateFriendlyName(handle, std::string(256, 'n').c_str()); }, 0},
      {[&] { return dlna_dmsUpdateFriendlyName(handle, std::string(257, 'n').c_str()); }, DMS_ERR_INVALID_PARAM},
      {[&] { return dlna_dmsUpdateFriendlyName(handle, nullptr); }, DMS_ERR_INVALID_PARAM},
      {[&] { return dlna_dmsAddSharedPath(handle, file.data()); }, DMS_ERR_INVALID_PARAM},
      {[&] { return dlna_dmsAddSharedPath(handle, missing.data()); }, DMS_ERR_INVALID_PARAM},
      {[&] { return dlna_dmsAddSharedPath(handle, nullptr); }, DMS_ERR_INVALID_PARAM},
      {[&] { return dlna_dmsDeleteSharedPath(nullptr, file.c_str()); }, DMS_ERR_INVALID_PARAM},
      {[&] { return dlna_dmsStop(handle); }, 0},
      {[&] { return dlna_dmsRestart(handle); }, DMS_ERR_NOT_STARTED},
      {[&] { return dlna_dmsStart(handle); }, 0},
      {[&] { return dlna_dmsRestart(handle); }, 0},
  };
  for (size_t i = 0; i < std::size(rows); ++i) EXPECT_EQ(rows[i].first(), rows[i].second) << "row " << i;
  EXPECT_EQ(children(server.port(), children(server.port(), "0").at(0).id()).size(), 1u);
}

// Clients browse, search and stream while files and folders churn on disk
// and the monitor changes the list under them: every answer is whole.
TEST(ServerLifecycle, BrowseSearchAndStreamWhileFilesChurn) {
  TempDir steady, churn;
  for (int i = 0; i < 20; ++i) steady.copy("audio/mp3/mpeg1-44k-cbr128.mp3", "s" + std::to_string(i) + ".mp3");
  churn.copy("audio/mp3/mpeg1-44k-cbr128.mp3", "source.bin");
  churn.mkdir("share");
  RunningServer server;
  ASSERT_TRUE(server.start({steady.path(), churn / "share"}));
  const std::string shareId = children(server.port(), "0").at(0).id();
  const std::string url = children(server.port(), shareId).at(0).res.at(0)["url"];
  const std::string path = url.substr(url.find("/web/"));
  std::atomic<bool> done{false};
  std::atomic<int> failures{0}, answers{0};
  std::vector<std::thread> clients;
  for (int c = 0; c < 3; ++c) {
    clients.emplace_back([&, c] {
      while (!done) {
        int found = c == 2 ? search(server.port(), "0", "*").totalMatches : 0;
        bool ok = c == 0   ? httpGet(server.port(), path).status == 200
                  : c == 1 ? browse(server.port(), shareId, "BrowseDirectChildren").numberReturned == 20
                           : found >= 20;
        ++(ok ? answers : failures);
      }
    });
  }
  for (int round = 0; round < 20; ++round) {
    const std::string folder = churn / ("share/f" + std::to_string(round));
    std::filesystem::create_directories(folder + "/sub");
    std::filesystem::copy_file(churn / "source.bin", folder + "/sub/a.mp3");
    std::filesystem::copy_file(churn / "source.bin", churn / "share/loose.mp3",
                               std::filesystem::copy_options::overwrite_existing);
    if (round % 2 == 1) std::filesystem::remove_all(churn / ("share/f" + std::to_string(round - 1)));
  }
  EXPECT_TRUE(eventually([&] { return search(server.port(), "0", "*").totalMatches == 20 + 10 + 1; }));
  done = true;
  for (std::thread &client : clients) client.join();
  EXPECT_EQ(failures, 0);
  EXPECT_GT(answers, 0);
}

TEST(ServerLifecycle, CreateFailuresUndoEverythingAndCyclesLeaveNothing) {
  TempDir empty;
  dmsHandle *handle = nullptr;
  dmsConfig config{};
  EXPECT_EQ(dlna_dmsCreate(nullptr, &config, nullptr), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dlna_dmsCreate(&handle, nullptr, nullptr), DMS_ERR_INVALID_PARAM);
  for (auto call : {dlna_dmsStart, dlna_dmsStop, dlna_dmsDestroy}) EXPECT_EQ(call(nullptr), DMS_ERR_INVALID_PARAM);
  // No description files in the working directory: create fails cleanly.
  ASSERT_EQ(::chdir(empty.path().c_str()), 0);
  std::snprintf(config.ipAddress, sizeof config.ipAddress, "127.0.0.1");
  config.port = kPort;
  std::string path = empty.path();
  char *paths[] = {path.data()};
  config.sharedPaths = paths;
  config.numSharedPaths = 1;
  config.maxContent = 100;
  EXPECT_EQ(dlna_dmsCreate(&handle, &config, nullptr), DMS_ERR_FAILURE);
  EXPECT_EQ(handle, nullptr);
  for (int cycle = 0; cycle < 5; ++cycle) {
    RunningServer server;
    ASSERT_TRUE(server.start({empty.path()})) << cycle;
    EXPECT_EQ(httpGet(server.port(), "/web/cds.xml").status, 200) << cycle;
  }
}

}  // namespace

// The device as a control point sees it: description, fixed files, the
// ConnectionManager and registrar actions, faults, eventing and the life
// cycle through the public API.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <regex>
#include <thread>

#include "dms_test.h"

using namespace dmstest;

namespace {

class DeviceTest : public ServerSuite {
 protected:
  static void SetUpTestSuite() {
    tree().copy("audio/mp3/mpeg1-44k-cbr128.mp3", "Music/a.mp3");
    ASSERT_TRUE(serve({tree().path()}, "Den & Co <1>"));
  }
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
      {Service::kCms, "GetProtocolInfo", "", 200, {{"Sink", ""}}},
      {Service::kCms, "getprotocolinfo", "", 500, {{"errorCode", "401"}}},
      {Service::kMrs, "IsAuthorized", "<DeviceID></DeviceID>", 200, {{"Result", "1"}}},
      {Service::kMrs, "IsValidated", "<DeviceID>abc</DeviceID>", 200, {{"Result", "1"}}},
      {Service::kMrs, "RegisterDevice", "<RegistrationReqMsg>AAAA</RegistrationReqMsg>", 200,
       {{"RegistrationRespMsg", "respAccepted1"}}},
      {Service::kMrs, "Unregister", "", 500, {{"errorCode", "401"}}},
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
  const std::regex outArgument("<name>([^<]+)</name>\\s*<direction>out<");
  size_t described = 0;
  for (const auto &[service, path] : descriptions) {
    const std::string scpd = httpGet(port(), path).body;
    for (size_t at = scpd.find("<action>"); at != std::string::npos; at = scpd.find("<action>", at + 1), ++described) {
      const std::string action = scpd.substr(at, scpd.find("</action>", at) - at);
      const std::string name = elementText(action + "</action>", "name");
      SCOPED_TRACE(name);
      const HttpResponse answer = soap(port(), service, name, "");
      EXPECT_NE(elementText(answer.body, "errorCode"), "401");
      for (std::sregex_iterator out(action.begin(), action.end(), outArgument), end; answer.status == 200 && out != end; ++out) {
        EXPECT_NE(answer.body.find("<" + (*out)[1].str()), std::string::npos) << (*out)[1];
      }
    }
  }
  EXPECT_GE(described, 13u);
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

// (The ContentDirectory's events are the monitor test's.)
TEST_F(DeviceTest, SubscribersReceiveTheConnectionManagersInitialEvent) {
  Subscriber subscriber(port(), "/web/cms_event");
  ASSERT_EQ(subscriber.subscription().status, 200);
  const std::string notify = subscriber.next(5000);
  EXPECT_NE(notify.find("SEQ: 0"), std::string::npos) << notify;
  EXPECT_EQ(elementText(notify.substr(std::min(notify.size(), notify.find("\r\n\r\n") + 4)), "CurrentConnectionIDs"), "0");
}

// ---- life cycle through the public API ---------------------------------------

// The SSDP messages multicast on loopback from the start of `action` until
// none came for quietMs.
std::vector<std::string> ssdpDuring(const std::function<void()> &action, int quietMs) {
  const int fd = ::socket(AF_INET, SOCK_DGRAM, 0), on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in any{};
  any.sin_family = AF_INET;
  any.sin_port = htons(1900);
  EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr *>(&any), sizeof any), 0);
  ip_mreq group{};
  inet_pton(AF_INET, "239.255.255.250", &group.imr_multiaddr);
  inet_pton(AF_INET, "127.0.0.1", &group.imr_interface);
  EXPECT_EQ(::setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group), 0);
  action();
  std::vector<std::string> messages;
  char datagram[2048];
  for (pollfd ready{fd, POLLIN, 0}; ::poll(&ready, 1, quietMs) == 1;) {
    const ssize_t length = ::recv(fd, datagram, sizeof datagram, 0);
    if (length <= 0) break;
    messages.emplace_back(datagram, static_cast<size_t>(length));
  }
  ::close(fd);
  return messages;
}

// A starting server announces no departure, and from the moment its
// description answers, so does its ContentDirectory.
TEST(ServerLifecycle, StartingSaysNoByebyeAndServesEverythingAtOnce) {
  TempDir folder;
  folder.copy("audio/mp3/mpeg1-44k-cbr128.mp3", "one.mp3");
  RunningServer server;
  std::atomic<bool> done{false};
  std::atomic<int> described{0}, unanswered{0};
  std::thread prober;
  bool started = false;
  const std::vector<std::string> messages = ssdpDuring([&] {
    const bool created = server.create({folder.path()});
    // Probed from create's return on: while create runs, the SDK's own web
    // server is still being set up.
    prober = std::thread([&] {
      for (; !done; std::this_thread::sleep_for(std::chrono::milliseconds(2))) {
        if (httpGet(kPort, "/description.xml").status != 200) continue;
        ++described;
        if (browse(kPort, "0", "BrowseMetadata").status != 200) ++unanswered;
      }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    started = created && server.startCreated();
  }, 1000);
  done = true;
  prober.join();
  ASSERT_TRUE(started);
  auto isAlive = [](const std::string &m) { return m.find("ssdp:alive") != std::string::npos; };
  EXPECT_TRUE(std::any_of(messages.begin(), messages.end(), isAlive));
  for (const std::string &message : messages) EXPECT_EQ(message.find("ssdp:byebye"), std::string::npos);
  EXPECT_GT(described.load(), 0);
  EXPECT_EQ(unanswered.load(), 0);
}

// Shares added and removed and a new name are seen by control points; calls
// out of order or with bad arguments are refused with their codes and leave
// the server as it was.
TEST(ServerLifecycle, ReconfigurationIsSeenAndMisuseIsRefused) {
  TempDir first, second;
  first.copy("audio/mp3/mpeg1-44k-cbr128.mp3", "one.mp3");
  second.copy("image/jfif-640x480.jpg", "two.jpg");
  RunningServer server;
  ASSERT_TRUE(server.start({first.path()}));
  dmsHandle *handle = server.handle();
  EXPECT_EQ(dlna_dmsGetContentList(nullptr), nullptr);
  EXPECT_EQ(dlna_dmsUpdateFriendlyName(handle, "Kitchen"), 0);
  EXPECT_EQ(elementText(httpGet(server.port(), "/description.xml").body, "friendlyName"), "Kitchen: DMS");
  EXPECT_EQ(dlna_dmsRestart(handle), 0);
  EXPECT_EQ(children(server.port(), "0").size(), 1u);
  std::string added = second.path(), file = second / "two.jpg", missing = first / "none";
  EXPECT_EQ(dlna_dmsAddSharedPath(handle, added.data()), 0);
  std::vector<DidlObject> shares = children(server.port(), "0");
  ASSERT_EQ(shares.size(), 2u);
  EXPECT_EQ(children(server.port(), shares[1].id()).at(0).title(), "two");
  EXPECT_EQ(dlna_dmsDeleteSharedPath(handle, first.path().c_str()), 0);
  const std::pair<std::function<int32_t()>, int32_t> rows[] = {
      {[&] { return dlna_dmsUpdateFriendlyName(handle, std::string(256, 'n').c_str()); }, 0},
      {[&] { return dlna_dmsUpdateFriendlyName(handle, std::string(257, 'n').c_str()); }, DMS_ERR_INVALID_PARAM},
      {[&] { return dlna_dmsUpdateFriendlyName(handle, nullptr); }, DMS_ERR_INVALID_PARAM},
      {[&] { return dlna_dmsAddSharedPath(handle, file.data()); }, DMS_ERR_INVALID_PARAM},
      {[&] { return dlna_dmsAddSharedPath(handle, missing.data()); }, DMS_ERR_INVALID_PARAM},
      {[&] { return dlna_dmsAddSharedPath(handle, nullptr); }, DMS_ERR_INVALID_PARAM},
      {[&] { return dlna_dmsDeleteSharedPath(nullptr, file.c_str()); }, DMS_ERR_INVALID_PARAM},
      {[&] { return dlna_dmsRestart(nullptr); }, DMS_ERR_INVALID_PARAM},
      {[&] { return dlna_dmsStop(handle); }, 0},
      {[&] { return dlna_dmsRestart(handle); }, DMS_ERR_NOT_STARTED},
      {[&] { return dlna_dmsStart(handle); }, 0},
      {[&] { return dlna_dmsRestart(handle); }, 0},
  };
  for (size_t i = 0; i < std::size(rows); ++i) EXPECT_EQ(rows[i].first(), rows[i].second) << "row " << i;
  shares = children(server.port(), "0");
  ASSERT_EQ(shares.size(), 1u);
  EXPECT_EQ(children(server.port(), shares[0].id()).at(0).title(), "two");
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
  const std::string path = children(server.port(), shareId).at(0).path();
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

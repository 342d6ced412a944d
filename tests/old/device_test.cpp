// The device as a control point sees it: description, service descriptions,
// icons, ConnectionManager and registrar actions, faults and eventing.
#include <arpa/inet.h>
#include <ixml.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "server_fixture.h"

using namespace dmstest;

namespace {

constexpr char kCmsType[] = "urn:schemas-upnp-org:service:ConnectionManager:1";
constexpr char kMrsType[] = "urn:microsoft.com:service:X_MS_MediaReceiverRegistrar:1";

class DeviceTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server_.Start({folder_.path()}, "Den & Co", "Box <1>")); }
  void TearDown() override { server_.Stop(); }

  HttpResponse get(const std::string &path) { return httpGet(kHost, server_.port(), path); }
  HttpResponse cms(const std::string &action, const std::string &args = "") {
    return soapAction(kHost, server_.port(), "/web/cms_control", kCmsType, action, args);
  }
  HttpResponse mrs(const std::string &action, const std::string &args = "") {
    return soapAction(kHost, server_.port(), "/web/mrs_control", kMrsType, action, args);
  }

  TempFolder folder_;
  RunningServer server_;
};

// "uuid:" and a time-based UUID: 8-4-4-4-12 lower-case hex digits, version 1,
// RFC 4122 variant.
bool isVersion1Udn(const std::string &udn) {
  const std::string digits = "0123456789abcdef";
  if (udn.size() != 41 || udn.rfind("uuid:", 0) != 0) return false;
  std::string uuid = udn.substr(5);
  for (size_t i = 0; i < uuid.size(); ++i) {
    bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? uuid[i] != '-' : digits.find(uuid[i]) == std::string::npos) return false;
  }
  return uuid[14] == '1' && std::string("89ab").find(uuid[19]) != std::string::npos;
}

// Text of the first element named `name` below `node`.
std::string domText(IXML_Document *document, const char *name, int index = 0) {
  IXML_NodeList *nodes = ixmlDocument_getElementsByTagName(document, name);
  std::string text;
  IXML_Node *node = nodes ? ixmlNodeList_item(nodes, index) : nullptr;
  if (node != nullptr) {
    IXML_Node *child = ixmlNode_getFirstChild(node);
    if (child != nullptr && ixmlNode_getNodeValue(child) != nullptr) text = ixmlNode_getNodeValue(child);
  }
  if (nodes) ixmlNodeList_free(nodes);
  return text;
}

TEST_F(DeviceTest, DescriptionNamesTheDeviceAndItsServices) {
  HttpResponse response = get("/description.xml");
  ASSERT_EQ(response.status, 200);
  IXML_Document *document = ixmlParseBuffer(response.body.c_str());
  ASSERT_NE(document, nullptr) << response.body;
  EXPECT_EQ(domText(document, "deviceType"), "urn:schemas-upnp-org:device:MediaServer:1");
  EXPECT_EQ(domText(document, "friendlyName"), "Den & Co: DMS");
  EXPECT_EQ(domText(document, "modelName"), "Windows Media Connect Compatible (Box <1>)");
  EXPECT_EQ(domText(document, "manufacturer"), "Test Maker");
  EXPECT_EQ(domText(document, "dlna:X_DLNADOC"), "DMS-1.50");
  std::string udn = domText(document, "UDN");
  EXPECT_TRUE(isVersion1Udn(udn)) << udn;
  const char *expected[3][5] = {
      {kCmsType, "urn:upnp-org:serviceId:ConnectionManager", "/web/cms.xml", "/web/cms_control",
       "/web/cms_event"},
      {"urn:schemas-upnp-org:service:ContentDirectory:1", "urn:upnp-org:serviceId:ContentDirectory",
       "/web/cds.xml", "/web/cds_control", "/web/cds_event"},
      {kMrsType, "urn:microsoft.com:serviceId:X_MS_MediaReceiverRegistrar", "/web/ms_mrs.xml",
       "/web/mrs_control", "/web/mrs_event"}};
  const char *fields[5] = {"serviceType", "serviceId", "SCPDURL", "controlURL", "eventSubURL"};
  for (int service = 0; service < 3; ++service) {
    for (int field = 0; field < 5; ++field) {
      EXPECT_EQ(domText(document, fields[field], service), expected[service][field]);
    }
  }
  EXPECT_EQ(domText(document, "presentationURL"), "/web/index.html");
  EXPECT_EQ(domText(document, "url", 3), "/web/KV-icon-120x120.png");
  ixmlDocument_free(document);
}

TEST_F(DeviceTest, FixedFilesAnswerWithTheirTypes) {
  const char *files[][3] = {
      {"/web/cds.xml", "text/xml", ""},
      {"/web/cms.xml", "text/xml", ""},
      {"/web/ms_mrs.xml", "text/xml", ""},
      {"/web/index.html", "text/html", ""},
      {"/web/KV-icon-48x48.jpg", "image/jpeg", "DLNA.ORG_PN=JPEG_SM_ICO;DLNA.ORG_OP=01;DLNA.ORG_CI=0"},
      {"/web/KV-icon-120x120.jpg", "image/jpeg", "DLNA.ORG_PN=JPEG_LRG_ICO;DLNA.ORG_OP=01;DLNA.ORG_CI=0"},
      {"/web/KV-icon-48x48.png", "image/png", "DLNA.ORG_PN=PNG_SM_ICO;DLNA.ORG_OP=01;DLNA.ORG_CI=0"},
      {"/web/KV-icon-120x120.png", "image/png", "DLNA.ORG_PN=PNG_LRG_ICO;DLNA.ORG_OP=01;DLNA.ORG_CI=0"}};
  for (const auto &file : files) {
    HttpResponse response = get(file[0]);
    EXPECT_EQ(response.status, 200) << file[0];
    EXPECT_EQ(response.header("content-type").rfind(file[1], 0), 0u) << file[0];
    EXPECT_EQ(response.header("contentfeatures.dlna.org"), file[2]) << file[0];
    EXPECT_EQ(std::to_string(response.body.size()), response.header("content-length")) << file[0];
    if (std::string(file[1]) == "text/xml") {
      IXML_Document *document = ixmlParseBuffer(response.body.c_str());
      EXPECT_NE(document, nullptr) << file[0];
      if (document) ixmlDocument_free(document);
    }
  }
  EXPECT_EQ(get("/web/KV-icon-48x48.png").body.substr(1, 3), "PNG");
  EXPECT_EQ(get("/web/nothing.xml").status, 404);
  EXPECT_EQ(get("/web/cds.xml/").status, 404);
}

TEST_F(DeviceTest, GetProtocolInfoListsEveryProfileInOrder) {
  HttpResponse response = cms("GetProtocolInfo");
  ASSERT_EQ(response.status, 200) << response.body;
  std::string source = elementText(response.body, "Source");
  EXPECT_EQ(std::count(source.begin(), source.end(), ','), 44);
  EXPECT_EQ(source.rfind("http-get:*:audio/x-sony-oma:DLNA.ORG_PN=ATRAC3plus;DLNA.ORG_OP=01;DLNA.ORG_CI=0,"
                         "http-get:*:audio/mpeg:DLNA.ORG_PN=MP3;", 0), 0u);
  EXPECT_NE(source.find(",http-get:*:video/mp4:DLNA.ORG_PN=AVC_MP4_MP_SD_AC3,"), std::string::npos);
  EXPECT_TRUE(source.ends_with("video/x-ms-wmv:DLNA.ORG_PN=WMVMED_PRO;DLNA.ORG_OP=01;DLNA.ORG_CI=0"));
  EXPECT_NE(response.body.find("<Sink"), std::string::npos);
  EXPECT_EQ(elementText(response.body, "Sink"), "");
}

TEST_F(DeviceTest, ConnectionActionsAnswerForTheOneConnection) {
  HttpResponse ids = cms("GetCurrentConnectionIDs");
  ASSERT_EQ(ids.status, 200);
  EXPECT_EQ(elementText(ids.body, "ConnectionIDs"), "0");
  for (const char *id : {"0", "5"}) {
    HttpResponse info = cms("GetCurrentConnectionInfo", std::string("<ConnectionID>") + id + "</ConnectionID>");
    ASSERT_EQ(info.status, 200) << info.body;
    EXPECT_EQ(elementText(info.body, "RcsID"), "-1");
    EXPECT_EQ(elementText(info.body, "AVTransportID"), "-1");
    EXPECT_EQ(elementText(info.body, "PeerConnectionID"), "-1");
    EXPECT_EQ(elementText(info.body, "Direction"), "Output");
    EXPECT_EQ(elementText(info.body, "Status"), "OK");
  }
  HttpResponse missing = cms("GetCurrentConnectionInfo");
  EXPECT_EQ(missing.status, 500);
  EXPECT_EQ(elementText(missing.body, "errorCode"), "402");
  EXPECT_EQ(elementText(missing.body, "errorDescription"), "Invalid Args");
}

TEST_F(DeviceTest, RegistrarAuthorisesEveryone) {
  HttpResponse authorized = mrs("IsAuthorized", "<DeviceID></DeviceID>");
  ASSERT_EQ(authorized.status, 200) << authorized.body;
  EXPECT_EQ(elementText(authorized.body, "Result"), "1");
  HttpResponse validated = mrs("IsValidated", "<DeviceID>abc</DeviceID>");
  EXPECT_EQ(elementText(validated.body, "Result"), "1");
  HttpResponse registered = mrs("RegisterDevice", "<RegistrationReqMsg>AAAA</RegistrationReqMsg>");
  EXPECT_EQ(elementText(registered.body, "RegistrationRespMsg"), "respAccepted1");
}

TEST_F(DeviceTest, UnknownActionsAnswerTheInvalidActionFault) {
  HttpResponse response = cms("getprotocolinfo");
  EXPECT_EQ(response.status, 500);
  EXPECT_EQ(elementText(response.body, "errorCode"), "401");
  EXPECT_EQ(elementText(response.body, "errorDescription"), "Invalid Action");
  EXPECT_EQ(elementText(mrs("Unregister").body, "errorCode"), "401");
}

TEST_F(DeviceTest, MalformedSoapIsRefusedAndTheServerGoesOn) {
  std::string body = "<s:Envelope><s:Body><u:GetProtocolInfo>";  // cut short
  std::string request = "POST /web/cms_control HTTP/1.1\r\nHost: 127.0.0.1\r\n"
                        "Content-Type: text/xml\r\nSOAPACTION: \"" + std::string(kCmsType) +
                        "#GetProtocolInfo\"\r\nContent-Length: " + std::to_string(body.size()) +
                        "\r\n\r\n" + body;
  HttpResponse response = sendRaw(kHost, server_.port(), request);
  EXPECT_NE(response.status, 200);
  HttpResponse posted = sendRaw(kHost, server_.port(),
                                "POST /web/cds.xml HTTP/1.1\r\nHost: 127.0.0.1\r\n"
                                "Content-Length: 4\r\n\r\nabcd");
  EXPECT_NE(posted.status, 200);
  EXPECT_EQ(cms("GetCurrentConnectionIDs").status, 200);
}

// Accepts one NOTIFY on a loopback port and keeps its body.
class EventListener {
 public:
  EventListener() {
    socket_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, kHost, &address.sin_addr);
    ::bind(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address);
    socklen_t length = sizeof address;
    ::getsockname(socket_, reinterpret_cast<sockaddr *>(&address), &length);
    port_ = ntohs(address.sin_port);
    ::listen(socket_, 4);
  }
  ~EventListener() { ::close(socket_); }

  int port() const { return port_; }

  // The first NOTIFY message received within `timeoutMs`, or empty.
  std::string awaitNotify(int timeoutMs) {
    pollfd waitFor{socket_, POLLIN, 0};
    if (::poll(&waitFor, 1, timeoutMs) <= 0) return {};
    int connection = ::accept(socket_, nullptr, nullptr);
    std::string message;
    char buffer[8192];
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (std::chrono::steady_clock::now() < deadline) {
      pollfd readable{connection, POLLIN, 0};
      if (::poll(&readable, 1, 100) <= 0) {
        if (message.find("</e:propertyset>") != std::string::npos) break;
        continue;
      }
      ssize_t n = ::recv(connection, buffer, sizeof buffer, 0);
      if (n <= 0) break;
      message.append(buffer, static_cast<size_t>(n));
    }
    const char ok[] = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
    ::send(connection, ok, sizeof ok - 1, MSG_NOSIGNAL);
    ::close(connection);
    return message;
  }

 private:
  int socket_ = -1;
  int port_ = 0;
};

TEST_F(DeviceTest, SubscribersReceiveTheInitialEvent) {
  EventListener listener;
  std::string request = "SUBSCRIBE /web/cms_event HTTP/1.1\r\nHost: 127.0.0.1:" +
                        std::to_string(server_.port()) + "\r\nCALLBACK: <http://127.0.0.1:" +
                        std::to_string(listener.port()) +
                        "/notify>\r\nNT: upnp:event\r\nTIMEOUT: Second-300\r\n\r\n";
  HttpResponse response = sendRaw(kHost, server_.port(), request);
  ASSERT_EQ(response.status, 200);
  EXPECT_EQ(response.header("sid").rfind("uuid:", 0), 0u);
  std::string notify = listener.awaitNotify(5000);
  ASSERT_FALSE(notify.empty());
  EXPECT_NE(notify.find("SEQ: 0"), std::string::npos) << notify;
  EXPECT_EQ(elementText(notify, "SourceProtocolInfo"), "http-get:*:*:*");
  EXPECT_EQ(elementText(notify, "CurrentConnectionIDs"), "0");
}

// Creation and destruction leave nothing behind: twenty cycles in one
// process, each reachable, each shut down cleanly (the sanitizer build checks
// for leaks at exit).
TEST(ServerLifecycle, TwentyCyclesInOneProcess) {
  TempFolder folder;
  for (int cycle = 0; cycle < 20; ++cycle) {
    RunningServer server;
    ASSERT_TRUE(server.Start({folder.path()})) << "cycle " << cycle;
    EXPECT_EQ(httpGet(kHost, server.port(), "/web/cds.xml").status, 200) << "cycle " << cycle;
    server.Stop();
  }
}

TEST(ServerLifecycle, BadArgumentsAreRefused) {
  dmsHandle *handle = nullptr;
  dmsConfig config{};
  EXPECT_EQ(dlna_dmsCreate(nullptr, &config, nullptr), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dlna_dmsCreate(&handle, nullptr, nullptr), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(handle, nullptr);
  EXPECT_EQ(dlna_dmsStart(nullptr), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dlna_dmsStop(nullptr), DMS_ERR_INVALID_PARAM);
  EXPECT_EQ(dlna_dmsDestroy(nullptr), DMS_ERR_INVALID_PARAM);
}

TEST(ServerLifecycle, MissingServerFileFailsCreateAndAllowsAnother) {
  TempFolder empty;
  ASSERT_EQ(::chdir(empty.path().c_str()), 0);
  dmsConfig config{};
  std::snprintf(config.ipAddress, sizeof config.ipAddress, "%s", kHost);
  config.port = kPort;
  std::string path = empty.path();
  char *paths[] = {path.data()};
  config.sharedPaths = paths;
  config.numSharedPaths = 1;
  config.maxContent = 100;
  dmsHandle *handle = nullptr;
  EXPECT_EQ(dlna_dmsCreate(&handle, &config, nullptr), DMS_ERR_FAILURE);
  EXPECT_EQ(handle, nullptr);
  // Everything was undone: the next create in this process succeeds.
  RunningServer server;
  EXPECT_TRUE(server.Start({empty.path()}));
}

}  // namespace

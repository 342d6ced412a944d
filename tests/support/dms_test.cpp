#include "dms_test.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ixml.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>

namespace fs = std::filesystem;

namespace dmstest {

namespace {

template <typename Map>
std::string valueOf(const Map &map, const std::string &key) {
  auto found = map.find(key);
  return found == map.end() ? std::string() : found->second;
}

}  // namespace

std::string fixture(const std::string &relative) {
  return std::string(DMS_TEST_FIXTURES) + "/media/" + relative;
}

std::vector<std::vector<std::string>> fixtureTable(const std::string &name) {
  std::ifstream in(std::string(DMS_TEST_FIXTURES) + "/" + name);
  std::vector<std::vector<std::string>> rows;
  std::string line;
  std::getline(in, line);  // the column names
  while (std::getline(in, line)) {
    std::stringstream fields(line);
    rows.emplace_back();
    for (std::string field; std::getline(fields, field, '\t');) rows.back().push_back(field);
  }
  return rows;
}

std::string readFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

TempDir::TempDir() {
  char pattern[] = "/tmp/dms_test_XXXXXX";
  const char *made = ::mkdtemp(pattern);
  path_ = made != nullptr ? made : "/nonexistent";
}

TempDir::~TempDir() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string TempDir::mkdir(const std::string &relative) const {
  fs::create_directories(*this / relative);
  return *this / relative;
}

std::string TempDir::copy(const std::string &fixtureRelative, const std::string &relative) const {
  fs::create_directories(fs::path(*this / relative).parent_path());
  fs::copy_file(fixture(fixtureRelative), *this / relative, fs::copy_options::overwrite_existing);
  return *this / relative;
}

std::string TempDir::write(const std::string &relative, const std::string &bytes) const {
  fs::create_directories(fs::path(*this / relative).parent_path());
  std::ofstream(*this / relative, std::ios::binary | std::ios::trunc) << bytes;
  return *this / relative;
}

Bytes &Bytes::u8(std::initializer_list<int> values) {
  for (int value : values) data_.push_back(static_cast<char>(value));
  return *this;
}

// ---- HTTP ------------------------------------------------------------------

std::string HttpResponse::header(const std::string &name) const { return valueOf(headers, name); }

namespace {

using Clock = std::chrono::steady_clock;

// An HTTP message's head and body; the status of an answer (0: a request).
HttpResponse parseMessage(const std::string &raw) {
  HttpResponse message;
  const size_t headEnd = raw.find("\r\n\r\n");
  if (headEnd == std::string::npos) return message;
  if (raw.compare(0, 5, "HTTP/") == 0) message.status = std::atoi(raw.c_str() + raw.find(' ') + 1);
  for (size_t line = raw.find("\r\n") + 2; line < headEnd;) {
    size_t end = raw.find("\r\n", line);
    std::string text = raw.substr(line, end - line);
    size_t colon = text.find(':');
    if (colon != std::string::npos) {
      std::string name = text.substr(0, colon);
      std::transform(name.begin(), name.end(), name.begin(), ::tolower);
      size_t value = text.find_first_not_of(' ', colon + 1);
      message.headers[name] = value == std::string::npos ? "" : text.substr(value);
    }
    line = end + 2;
  }
  message.body = raw.substr(headEnd + 4);
  return message;
}

// Where the message at the start of `raw` ends: after its head and the body
// its Content-Length (or last chunk) promises, none for the answer to HEAD,
// a 204 or a 304; npos until all of it is there, or when only the peer's
// closing can end it.
size_t messageEnd(const std::string &raw, bool toHead) {
  const size_t headEnd = raw.find("\r\n\r\n");
  if (headEnd == std::string::npos) return std::string::npos;
  const HttpResponse head = parseMessage(raw.substr(0, headEnd + 4));
  size_t end = std::string::npos;
  if (toHead || head.status == 204 || head.status == 304) {
    end = headEnd + 4;
  } else if (!head.header("content-length").empty()) {
    end = headEnd + 4 + std::stoull(head.header("content-length"));
  } else if (head.header("transfer-encoding") == "chunked" && raw.find("\r\n0\r\n\r\n", headEnd) != std::string::npos) {
    end = raw.find("\r\n0\r\n\r\n", headEnd) + 7;
  }
  return end <= raw.size() ? end : std::string::npos;
}

// Reads from `fd` into `into` until `done(into)`, the peer closes or
// timeoutMs passes; false when the peer closed.
bool readUntil(int fd, std::string &into, const std::function<bool(const std::string &)> &done, int timeoutMs) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  char buffer[65536];
  while (!done(into) && Clock::now() < deadline) {
    pollfd waitFor{fd, POLLIN, 0};
    if (::poll(&waitFor, 1, 20) <= 0) continue;
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) return false;
    into.append(buffer, static_cast<size_t>(n));
  }
  return true;
}

// Takes the message at the start of `pending` off it, reading from `fd`
// until it is whole; all that came when the peer closed first.
std::string takeMessage(int fd, std::string &pending, int timeoutMs, bool toHead = false) {
  readUntil(fd, pending, [&](const std::string &raw) { return messageEnd(raw, toHead) != std::string::npos; }, timeoutMs);
  const size_t end = std::min(messageEnd(pending, toHead), pending.size());
  std::string message = pending.substr(0, end);
  pending.erase(0, end);
  return message;
}

// Connects `fd` to 127.0.0.1:port, giving up after two seconds (a port that
// drops connection requests would otherwise hold the test for minutes).
bool connectWithin(int fd, int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  timeval limit{2, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  const bool connected = ::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
  limit = {0, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  return connected;
}

}  // namespace

HttpResponse sendRaw(int port, const std::string &request, int timeoutMs) {
  RawConnection connection(port);
  if (!connection.connected()) return {};
  connection.send(request);  // an answer may come before all of a long request went
  return connection.response(timeoutMs, request.rfind("HEAD", 0) == 0);
}

HttpResponse httpGet(int port, const std::string &path, const std::string &extra,
                     const std::string &method) {
  return sendRaw(port, method + " " + path + " HTTP/1.1\r\nHost: 127.0.0.1:" +
                           std::to_string(port) + "\r\n" + extra + "Connection: close\r\n\r\n");
}

std::string urlPath(const std::string &url) { return url.substr(url.find('/', url.find("//") + 2)); }

RawConnection::RawConnection(int port, const std::string &from, int receiveBuffer) {
  fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) return;
  if (receiveBuffer > 0) ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  inet_pton(AF_INET, from.c_str(), &local.sin_addr);
  connected_ = ::bind(fd_, reinterpret_cast<sockaddr *>(&local), sizeof local) == 0 && connectWithin(fd_, port);
}

RawConnection::~RawConnection() {
  if (fd_ >= 0) ::close(fd_);
}

bool RawConnection::send(const std::string &bytes) {
  return connected_ && ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

std::string RawConnection::receive(size_t count, int timeoutMs) {
  if (connected_) readUntil(fd_, pending_, [&](const std::string &raw) { return raw.size() >= count; }, timeoutMs);
  std::string out = pending_.substr(0, count);
  pending_.erase(0, out.size());
  return out;
}

HttpResponse RawConnection::response(int timeoutMs, bool toHead) {
  return parseMessage(takeMessage(fd_, pending_, connected_ ? timeoutMs : 0, toHead));
}

bool RawConnection::closedByPeer(int timeoutMs) {
  return !readUntil(fd_, pending_, [](const std::string &) { return false; }, timeoutMs);
}

namespace {

// Each service's type and control URL, in the order of Service.
const char *const kServices[][2] = {
    {"urn:schemas-upnp-org:service:ContentDirectory:1", "/web/cds_control"},
    {"urn:schemas-upnp-org:service:ConnectionManager:1", "/web/cms_control"},
    {"urn:microsoft.com:service:X_MS_MediaReceiverRegistrar:1", "/web/mrs_control"}};

}  // namespace

const char *serviceType(Service service) { return kServices[static_cast<int>(service)][0]; }
const char *controlPath(Service service) { return kServices[static_cast<int>(service)][1]; }

HttpResponse soap(int port, Service service, const std::string &action, const std::string &arguments,
                  const std::string &headers) {
  const std::string type = serviceType(service);
  std::string body =
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n"
      "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
      "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body>"
      "<u:" + action + " xmlns:u=\"" + type + "\">" + arguments + "</u:" + action +
      "></s:Body></s:Envelope>\r\n";
  return sendRaw(port, std::string("POST ") + controlPath(service) +
                           " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
                           "\r\nContent-Type: text/xml; charset=\"utf-8\"\r\nSOAPACTION: \"" +
                           type + "#" + action + "\"\r\n" + headers + "Content-Length: " +
                           std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body);
}

namespace {

std::string xmlEscape(const std::string &text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default: out += c;
    }
  }
  return out;
}

std::string textOf(IXML_Node *node) {
  IXML_Node *text = ixmlNode_getFirstChild(node);
  return text != nullptr && ixmlNode_getNodeValue(text) != nullptr ? ixmlNode_getNodeValue(text) : "";
}

}  // namespace

std::string elementText(const std::string &xml, const std::string &name) {
  // Through the DOM parser, so that entities and CDATA decode as a client's.
  IXML_Document *document = ixmlParseBuffer(xml.c_str());
  if (document == nullptr) return {};
  std::string text;
  IXML_NodeList *nodes = ixmlDocument_getElementsByTagName(document, "*");
  for (unsigned long i = 0; nodes != nullptr && i < ixmlNodeList_length(nodes); ++i) {
    IXML_Node *node = ixmlNodeList_item(nodes, i);
    const char *local = ixmlNode_getLocalName(node);
    std::string nodeName = local != nullptr ? local : ixmlNode_getNodeName(node);
    if (nodeName != name && ixmlNode_getNodeName(node) != name) continue;
    text = textOf(node);
    break;
  }
  ixmlNodeList_free(nodes);
  ixmlDocument_free(document);
  return text;
}

// ---- DIDL-Lite -------------------------------------------------------------

std::string DidlObject::attr(const std::string &name) const { return valueOf(attributes, name); }
std::string DidlObject::prop(const std::string &name) const { return valueOf(properties, name); }

namespace {

std::map<std::string, std::string> attributesOf(IXML_Node *node) {
  std::map<std::string, std::string> out;
  IXML_NamedNodeMap *map = ixmlNode_getAttributes(node);
  for (unsigned long i = 0; map != nullptr && i < ixmlNamedNodeMap_getLength(map); ++i) {
    IXML_Node *attribute = ixmlNamedNodeMap_item(map, i);
    out[ixmlNode_getNodeName(attribute)] = ixmlNode_getNodeValue(attribute);
  }
  if (map != nullptr) ixmlNamedNodeMap_free(map);
  return out;
}

}  // namespace

std::vector<DidlObject> parseDidl(const std::string &xml, bool *ok) {
  std::vector<DidlObject> objects;
  IXML_Document *document = ixmlParseBuffer(xml.c_str());
  if (ok != nullptr) *ok = document != nullptr;
  if (document == nullptr) return objects;
  IXML_Node *root = ixmlNode_getFirstChild(reinterpret_cast<IXML_Node *>(document));
  for (IXML_Node *node = ixmlNode_getFirstChild(root); node; node = ixmlNode_getNextSibling(node)) {
    DidlObject object;
    object.container = std::string(ixmlNode_getNodeName(node)) == "container";
    object.attributes = attributesOf(node);
    for (IXML_Node *child = ixmlNode_getFirstChild(node); child; child = ixmlNode_getNextSibling(child)) {
      std::string name = ixmlNode_getNodeName(child);
      if (name == "res") {
        object.res.push_back(attributesOf(child));
        object.res.back()["url"] = textOf(child);
      }
      object.properties.emplace(name, textOf(child));
    }
    objects.push_back(std::move(object));
  }
  ixmlDocument_free(document);
  return objects;
}

CdsAnswer cdsAnswer(const HttpResponse &response) {
  CdsAnswer out;
  out.status = response.status;
  out.errorCode = elementText(response.body, "errorCode");
  if (response.status != 200) return out;
  out.result = elementText(response.body, "Result");
  out.objects = parseDidl(out.result, &out.wellFormed);
  out.numberReturned = std::atoi(elementText(response.body, "NumberReturned").c_str());
  out.totalMatches = std::atoi(elementText(response.body, "TotalMatches").c_str());
  return out;
}

namespace {

std::string paging(const std::string &start, const std::string &count, const std::string &sort = "") {
  return "<StartingIndex>" + start + "</StartingIndex><RequestedCount>" + count + "</RequestedCount><SortCriteria>" +
         xmlEscape(sort) + "</SortCriteria>";
}

}  // namespace

std::string browseArguments(const std::string &id, const std::string &flag, const std::string &start,
                            const std::string &count, const std::string &filter) {
  return "<ObjectID>" + id + "</ObjectID><BrowseFlag>" + flag + "</BrowseFlag><Filter>" + filter + "</Filter>" +
         paging(start, count);
}

CdsAnswer browse(int port, const std::string &id, const std::string &flag, int start, int count,
                 const std::string &filter, const std::string &sort) {
  return cdsAnswer(soap(port, Service::kCds, "Browse",
                        "<ObjectID>" + id + "</ObjectID><BrowseFlag>" + flag + "</BrowseFlag><Filter>" + filter +
                            "</Filter>" + paging(std::to_string(start), std::to_string(count), sort)));
}

CdsAnswer search(int port, const std::string &container, const std::string &criteria, int start,
                 int count, const std::string &sort) {
  return cdsAnswer(soap(port, Service::kCds, "Search",
                        "<ContainerID>" + container + "</ContainerID><SearchCriteria>" +
                            xmlEscape(criteria) + "</SearchCriteria><Filter>*</Filter>" +
                            paging(std::to_string(start), std::to_string(count), sort)));
}

std::vector<DidlObject> children(int port, const std::string &id) {
  // Pages as a control point does: one answer holds a bounded number.
  std::vector<DidlObject> all;
  for (;;) {
    CdsAnswer page = browse(port, id, "BrowseDirectChildren", static_cast<int>(all.size()), 0);
    all.insert(all.end(), page.objects.begin(), page.objects.end());
    if (page.objects.empty() || static_cast<int>(all.size()) >= page.totalMatches) return all;
  }
}

DidlObject lookup(int port, const std::string &titles) {
  std::string id = "0";
  DidlObject found;
  for (size_t begin = 0; begin <= titles.size();) {
    size_t end = std::min(titles.find('/', begin), titles.size());
    std::string title = titles.substr(begin, end - begin);
    begin = end + 1;
    found = {};
    for (DidlObject &object : children(port, id)) {
      if (object.title() == title) found = object;
    }
    if (found.id().empty()) return found;
    id = found.id();
  }
  return found;
}

// ---- GENA ---------------------------------------------------------------------

Listener::Listener(const std::string &address, bool listening)
    : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), address_(address) {
  sockaddr_in where{};
  where.sin_family = AF_INET;
  ::inet_pton(AF_INET, address.c_str(), &where.sin_addr);
  ::bind(fd_, reinterpret_cast<sockaddr *>(&where), sizeof where);
  socklen_t length = sizeof where;
  ::getsockname(fd_, reinterpret_cast<sockaddr *>(&where), &length);
  port_ = ntohs(where.sin_port);
  if (listening) ::listen(fd_, 64);
}

Listener::~Listener() { ::close(fd_); }

std::string Listener::callback(const std::string &path) const {
  return "<http://" + address_ + ":" + std::to_string(port_) + path + ">";
}

bool Listener::contacted(int timeoutMs) {
  pollfd waitFor{fd_, POLLIN, 0};
  if (::poll(&waitFor, 1, timeoutMs) <= 0) return false;
  ::close(::accept(fd_, nullptr, nullptr));
  return true;
}

std::string Listener::request(int timeoutMs, int status) {
  pollfd waitFor{fd_, POLLIN, 0};
  if (::poll(&waitFor, 1, timeoutMs) <= 0) return {};
  const int connection = ::accept(fd_, nullptr, nullptr);
  std::string pending;
  const std::string request = takeMessage(connection, pending, 2000);
  const std::string answer = "HTTP/1.1 " + std::to_string(status) + " X\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
  ::send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
  ::close(connection);
  return request;
}

Subscriber::Subscriber(int serverPort, const std::string &eventPath)
    : subscription_(sendRaw(serverPort, "SUBSCRIBE " + eventPath + " HTTP/1.1\r\nHost: 127.0.0.1:" +
                                            std::to_string(serverPort) + "\r\nCALLBACK: " + listener_.callback("/notify") +
                                            "\r\nNT: upnp:event\r\nTIMEOUT: Second-300\r\n\r\n")) {}

// ---- a running server ------------------------------------------------------

bool RunningServer::create(const std::vector<std::string> &folders, const std::string &name,
                           int maxContent) {
  EXPECT_EQ(::chdir(DMS_TEST_WWW), 0);
  EXPECT_EQ(dlna_dmsInit(), 0);
  std::vector<std::string> copies(folders);
  std::vector<char *> paths;
  for (std::string &folder : copies) paths.push_back(folder.data());
  dmsConfig config{};
  dmsDeviceInfo info{};
  std::snprintf(config.friendlyName, sizeof config.friendlyName, "%s", name.c_str());
  std::snprintf(config.ipAddress, sizeof config.ipAddress, "127.0.0.1");
  config.port = kPort;
  config.sharedPaths = paths.data();
  config.numSharedPaths = static_cast<int32_t>(paths.size());
  config.maxContent = maxContent;
  std::snprintf(info.manufacturer, sizeof info.manufacturer, "Test Maker");
  std::snprintf(info.modelName, sizeof info.modelName, "Model X");
  std::snprintf(info.serialNumber, sizeof info.serialNumber, "0001");
  const int32_t created = dlna_dmsCreate(&handle_, &config, &info);
  EXPECT_EQ(created, 0);
  if (created != 0) {
    handle_ = nullptr;
    return false;
  }
  port_ = config.port;
  return true;
}

bool RunningServer::startCreated() {
  const int32_t started = dlna_dmsStart(handle_);
  EXPECT_EQ(started, 0);
  return started == 0;
}

void RunningServer::stop() {
  if (handle_ == nullptr) return;
  EXPECT_EQ(dlna_dmsStop(handle_), 0);
  EXPECT_EQ(dlna_dmsDestroy(handle_), 0);
  std::free(handle_);
  handle_ = nullptr;
  EXPECT_EQ(dlna_dmsDeinit(), 0);
}

}  // namespace dmstest

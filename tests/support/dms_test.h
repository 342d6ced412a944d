// The one support library of the tests: fixture paths, temporary folders,
// byte builders, an HTTP/SOAP client, a DIDL-Lite parser and a running
// server.  It uses only the public header, so black-box tests link the shared
// library and unit tests the internal one with the same helpers.
#ifndef DMS_TESTS_SUPPORT_DMS_TEST_H
#define DMS_TESTS_SUPPORT_DMS_TEST_H

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "dlna_dms.h"

// Skips the test in a build without the optional feature (TAGLIB, PICTURES,
// INDEX or VIEWS; tests/CMakeLists.txt defines DMS_WITH_<FEATURE> as 0 or 1).
#define DMS_NEEDS(feature) \
  if (!DMS_WITH_##feature) GTEST_SKIP() << "built without " #feature

namespace dmstest {

// ---- files ---------------------------------------------------------------

// tests/fixtures/media/<relative>.
std::string fixture(const std::string &relative);
// The rows of tests/fixtures/<name> under its line of column names, each
// split at its tabs.
std::vector<std::vector<std::string>> fixtureTable(const std::string &name);
std::string readFile(const std::string &path);

// A temporary folder removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;
  const std::string &path() const { return path_; }
  // path()/relative.
  std::string operator/(const std::string &relative) const { return path_ + "/" + relative; }
  // Creates relative (and its parents); returns its path.
  std::string mkdir(const std::string &relative) const;
  // Copies a fixture (relative to fixtures/media) to relative, making parents.
  std::string copy(const std::string &fixtureRelative, const std::string &relative) const;
  std::string write(const std::string &relative, const std::string &bytes) const;

 private:
  std::string path_;
};

// ---- bytes ---------------------------------------------------------------

// Builds binary content field by field: Bytes().text("RIFF").le32(36)...
class Bytes {
 public:
  Bytes &u8(std::initializer_list<int> values);
  Bytes &be16(uint32_t v) { return u8({int(v >> 8 & 0xFF), int(v & 0xFF)}); }
  Bytes &be32(uint32_t v) { return be16(v >> 16).be16(v & 0xFFFF); }
  Bytes &le16(uint32_t v) { return u8({int(v & 0xFF), int(v >> 8 & 0xFF)}); }
  Bytes &le32(uint32_t v) { return le16(v & 0xFFFF).le16(v >> 16); }
  Bytes &text(const std::string &t) { data_ += t; return *this; }
  Bytes &zeros(size_t n) { data_.append(n, '\0'); return *this; }
  const std::string &str() const { return data_; }
  size_t size() const { return data_.size(); }

 private:
  std::string data_;
};

// ---- HTTP and SOAP ---------------------------------------------------------

struct HttpResponse {
  int status = 0;  // 0: no answer
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;
  std::string header(const std::string &name) const;
};

// Sends a complete request to 127.0.0.1:port and reads until the server
// closes or timeoutMs passes.
HttpResponse sendRaw(int port, const std::string &request, int timeoutMs = 5000);
// One request with "Connection: close"; extra is header lines ending in CRLF.
HttpResponse httpGet(int port, const std::string &path, const std::string &extra = "",
                     const std::string &method = "GET");
// The path of an URL: "http://127.0.0.1:4/web/1.mp3" -> "/web/1.mp3".
std::string urlPath(const std::string &url);
// "WxH" of a JPEG that decodes completely; empty otherwise.  Only in a
// build with pictures (jpeg_size.cpp).
std::string decodedJpegSize(const std::string &jpeg);

// A TCP connection to 127.0.0.1:port from the loopback address `from`
// (127.0.0.x: one client address each), closed by the destructor.  A small
// `receiveBuffer` makes a client that stops reading stall the server soon.
class RawConnection {
 public:
  explicit RawConnection(int port, const std::string &from = "127.0.0.1", int receiveBuffer = 0);
  ~RawConnection();
  RawConnection(const RawConnection &) = delete;
  RawConnection &operator=(const RawConnection &) = delete;
  bool connected() const { return connected_; }
  bool send(const std::string &bytes);
  // Reads until `count` bytes arrived, the peer closed or timeoutMs passed.
  std::string receive(size_t count, int timeoutMs = 5000);
  // Reads one whole answer: its header and the body its Content-Length (or
  // last chunk) promises, none for the answer to HEAD; without either, all
  // that comes until the server closes.
  HttpResponse response(int timeoutMs = 5000, bool toHead = false);
  // True when the peer closes (or resets) within timeoutMs.
  bool closedByPeer(int timeoutMs = 2000);

 private:
  int fd_ = -1;
  bool connected_ = false;
  std::string pending_;  // bytes read past the last answer
};

// A TCP port on `address`, chosen by the system: listening (connections
// wait in the backlog, never accepted or read) or only bound (connections
// are refused).  Closed by the destructor.
class Listener {
 public:
  explicit Listener(const std::string &address = "127.0.0.1", bool listening = true);
  ~Listener();
  Listener(const Listener &) = delete;
  Listener &operator=(const Listener &) = delete;
  int fd() const { return fd_; }
  int port() const { return port_; }
  // "<http://address:port/path>", as a CALLBACK header names it.
  std::string callback(const std::string &path = "/ev") const;
  // Whether anybody connects within timeoutMs (the connection is dropped).
  bool contacted(int timeoutMs);
  // The next request (head and Content-Length body) that comes within
  // timeoutMs, answered `status`; empty when none came.
  std::string request(int timeoutMs, int status = 200);

 private:
  int fd_ = -1;
  int port_ = 0;
  std::string address_;
};

enum class Service { kCds, kCms, kMrs };
const char *serviceType(Service service);
const char *controlPath(Service service);
// `headers`: more header lines, each ending in "\r\n" ("User-Agent: x\r\n").
HttpResponse soap(int port, Service service, const std::string &action, const std::string &arguments,
                  const std::string &headers = "");

// Text of the first element named `name` (any prefix), entities decoded.
std::string elementText(const std::string &xml, const std::string &name);

// ---- DIDL-Lite -------------------------------------------------------------

struct DidlObject {
  bool container = false;
  std::map<std::string, std::string> attributes;  // of the object element
  std::map<std::string, std::string> properties;  // child element -> its text (first)
  std::vector<std::map<std::string, std::string>> res;  // each res: attributes + "url"
  std::string attr(const std::string &name) const;
  std::string prop(const std::string &name) const;
  std::string id() const { return attr("id"); }
  std::string title() const { return prop("dc:title"); }
  // The path of its first res URL.
  std::string path() const { return urlPath(res.at(0).at("url")); }
};

// Parses a DIDL-Lite document; *ok is false when it is not well-formed.
std::vector<DidlObject> parseDidl(const std::string &xml, bool *ok = nullptr);

// The answer to Browse or Search.
struct CdsAnswer {
  int status = 0;
  std::string result;     // the Result text, unescaped
  std::vector<DidlObject> objects;
  int numberReturned = -1, totalMatches = -1;
  bool wellFormed = false;
  std::string errorCode;  // a fault's UPnP error code; empty for an answer
};
// Browse's or Search's answer read from a SOAP answer.
CdsAnswer cdsAnswer(const HttpResponse &response);
// The arguments of Browse as a control point sends them.
std::string browseArguments(const std::string &id, const std::string &flag, const std::string &start = "0",
                            const std::string &count = "0", const std::string &filter = "*");
// `sort`: the SortCriteria sent (empty: none).
CdsAnswer browse(int port, const std::string &id, const std::string &flag, int start = 0,
                 int count = 0, const std::string &filter = "*", const std::string &sort = "");
CdsAnswer search(int port, const std::string &container, const std::string &criteria,
                 int start = 0, int count = 0, const std::string &sort = "");
// The children of `id`, all of them.
std::vector<DidlObject> children(int port, const std::string &id);
// The object reached from the root by titles ("Shared/Music/a"); empty id
// when absent.
DidlObject lookup(int port, const std::string &titles);

// ---- GENA ---------------------------------------------------------------------

// A subscriber on a loopback port: subscribes to `eventPath` of the server
// and receives its NOTIFY messages.
class Subscriber {
 public:
  Subscriber(int serverPort, const std::string &eventPath);
  const HttpResponse &subscription() const { return subscription_; }  // the SUBSCRIBE answer
  // The next NOTIFY (headers and body) within timeoutMs, answered 200; empty
  // when none came.
  std::string next(int timeoutMs) { return listener_.request(timeoutMs); }

 private:
  Listener listener_;
  HttpResponse subscription_;
};

// ---- a running server ------------------------------------------------------

inline constexpr int kPort = 49300;

// Creates and starts a server on 127.0.0.1 over `folders`.  stop() (also run
// by the destructor) asserts a clean shutdown.
class RunningServer {
 public:
  RunningServer() = default;
  ~RunningServer() { stop(); }
  RunningServer(const RunningServer &) = delete;
  RunningServer &operator=(const RunningServer &) = delete;
  // False (with a test failure) when create or start fails.
  bool start(const std::vector<std::string> &folders, const std::string &name = "Test Server",
             int maxContent = 10000) {
    return create(folders, name, maxContent) && startCreated();
  }
  // The two halves of start, for tests of what happens in between.
  bool create(const std::vector<std::string> &folders, const std::string &name = "Test Server",
              int maxContent = 10000);
  bool startCreated();
  void stop();
  int port() const { return port_; }
  int mediaPort() const { return dlna_dmsGetMediaPort(handle_); }
  dmsHandle *handle() const { return handle_; }

 private:
  dmsHandle *handle_ = nullptr;
  int port_ = 0;
};

// A suite of tests that share one server over one temporary tree: the
// suite's SetUpTestSuite fills tree() and calls serve(); the server stops
// and the tree goes after its last test.
class ServerSuite : public ::testing::Test {
 protected:
  static void TearDownTestSuite() {
    server_.reset();
    tree_.reset();
  }
  static TempDir &tree() {
    if (tree_ == nullptr) tree_ = std::make_unique<TempDir>();
    return *tree_;
  }
  static bool serve(const std::vector<std::string> &folders, const std::string &name = "Test Server") {
    server_ = std::make_unique<RunningServer>();
    return server_->start(folders, name);
  }
  static RunningServer &server() { return *server_; }
  static int port() { return server_->port(); }

 private:
  static inline std::unique_ptr<TempDir> tree_;
  static inline std::unique_ptr<RunningServer> server_;
};

// Polls `condition` every 20 ms for at most timeoutMs; true once it holds.
template <typename Condition>
bool eventually(Condition condition, int timeoutMs = 5000) {
  for (int waited = 0;; waited += 20) {
    if (condition()) return true;
    if (waited >= timeoutMs) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

}  // namespace dmstest

#endif  // DMS_TESTS_SUPPORT_DMS_TEST_H

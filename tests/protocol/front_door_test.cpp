// The front door as a hostile LAN and a hostile web page see it: the Host
// check, body and nesting limits, subscriptions that cannot be aimed at
// anyone else, a dead subscriber beside a live one, the SDK's own port, and
// a crowd of idle and half-sent connections beside real players.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <memory>
#include <thread>

#include "dms_test.h"

using namespace dmstest;
using Clock = std::chrono::steady_clock;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr double kP99LimitMs = 1000;  // the sanitizers slow every request tenfold
constexpr size_t kGrowthKiB = 16384;  // and keep shadow memory for what is touched
#else
constexpr double kP99LimitMs = 100;
constexpr size_t kGrowthKiB = 4096;
#endif


size_t residentKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stoul(line.substr(6));
  }
  return 0;
}

class FrontDoorTest : public ServerSuite {
 protected:
  static void SetUpTestSuite() {
    tree().copy("audio/mp3/mpeg1-44k-cbr128.mp3", "share/Music/a.mp3");
    tree().copy("image/jfif-640x480.jpg", "share/Pictures/p.jpg");
    ASSERT_TRUE(serve({tree() / "share"}));
    song_ = lookup(port(), "share/Music/a").path();
  }
  static std::string subscribe(const std::string &from, const std::string &callback) {
    RawConnection connection(port(), from);
    connection.send("SUBSCRIBE /web/cds_event HTTP/1.1\r\nHost: 127.0.0.1\r\nCALLBACK: " + callback +
                    "\r\nNT: upnp:event\r\nTIMEOUT: Second-300\r\n\r\n");
    const HttpResponse answer = connection.response();
    return answer.status == 200 ? answer.header("sid") : "status " + std::to_string(answer.status);
  }
  static int renew(const std::string &sid) {
    return sendRaw(port(), "SUBSCRIBE /web/cds_event HTTP/1.1\r\nHost: 127.0.0.1\r\nSID: " + sid +
                               "\r\nTIMEOUT: Second-300\r\n\r\n").status;
  }
  static inline std::string song_;
};

TEST_F(FrontDoorTest, ForeignHostsAreRefusedOnEveryRoute) {
  const std::string soapBody = "<?xml version=\"1.0\"?><s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\">"
                               "<s:Body><u:GetSystemUpdateID xmlns:u=\"urn:schemas-upnp-org:service:ContentDirectory:1\"/>"
                               "</s:Body></s:Envelope>";
  const std::string requests[] = {
      "GET /description.xml HTTP/1.1\r\n",
      "GET /web/index.html HTTP/1.1\r\n",
      "GET " + song_ + " HTTP/1.1\r\n",
      "POST /web/cds_control HTTP/1.1\r\nSOAPACTION: \"urn:schemas-upnp-org:service:ContentDirectory:1#"
      "GetSystemUpdateID\"\r\nContent-Length: " + std::to_string(soapBody.size()) + "\r\n",
      "SUBSCRIBE /web/cds_event HTTP/1.1\r\nCALLBACK: <http://127.0.0.1:9/>\r\nNT: upnp:event\r\n",
  };
  const std::pair<std::string, bool> hosts[] = {  // Host header line, answered
      {"Host: evil.example\r\n", false},          {"Host: 127.0.0.1.evil.example\r\n", false},
      {"Host: 10.1.2.3\r\n", false},              {"Host: evil.example:" + std::to_string(port()) + "\r\n", false},
      {"Host: 127.0.0.1\r\n", true},              {"Host: 127.0.0.1:" + std::to_string(port()) + "\r\n", true},
      {"Host: [::1]:" + std::to_string(port()) + "\r\n", true},
  };
  for (const std::string &request : requests) {
    for (const auto &[host, answered] : hosts) {
      SCOPED_TRACE(request.substr(0, 30) + host);
      const bool post = request.rfind("POST", 0) == 0;
      const HttpResponse response = sendRaw(port(), request + host + "\r\n" + (post ? soapBody : ""));
      EXPECT_EQ(response.status == 403, !answered) << response.status;
      if (!answered) {
        EXPECT_EQ(response.body, "");
      }
    }
  }
  // An HTTP/1.0 player without Host is answered.
  EXPECT_EQ(sendRaw(port(), "GET " + song_ + " HTTP/1.0\r\n\r\n").status, 200);
}

TEST_F(FrontDoorTest, OversizedAndDeepBodiesAreRefusedBeforeTheyAreKept) {
  const std::string head = "POST /web/cds_control HTTP/1.1\r\nHost: 127.0.0.1\r\nSOAPACTION: "
                           "\"urn:schemas-upnp-org:service:ContentDirectory:1#Browse\"\r\n";
  // Announced too large: refused on the header alone.
  const auto start = Clock::now();
  EXPECT_EQ(sendRaw(port(), head + "Content-Length: 104857600\r\n\r\n<s:Envelope>").status, 413);
  EXPECT_LT(std::chrono::duration<double>(Clock::now() - start).count(), 2.0);
  // Chunked past the limit: refused as it passes, memory stays flat.
  const size_t before = residentKiB();
  const std::string chunk = std::string(65536, 'a');
  std::string chunked = head + "Transfer-Encoding: chunked\r\n\r\n";
  for (int i = 0; i < 16; ++i) chunked += "10000\r\n" + chunk + "\r\n";  // 1 MiB
  chunked += "0\r\n\r\n";
  EXPECT_EQ(sendRaw(port(), chunked).status, 413);
  EXPECT_LT(residentKiB(), before + kGrowthKiB);
  // Nested 10,000 deep: no DOM is built.
  std::string deep;
  for (int i = 0; i < 10000; ++i) deep += "<a>";
  EXPECT_EQ(sendRaw(port(), head + "Content-Length: " + std::to_string(deep.size()) + "\r\n\r\n" + deep).status, 400);
  // The door still works.
  EXPECT_EQ(browse(port(), "0", "BrowseDirectChildren").status, 200);
}

TEST_F(FrontDoorTest, SoapNamesTheActionOnceAndAnswersQueries) {
  auto post = [](const std::string &soapAction, const std::string &action, const std::string &ns) {
    const std::string body = "<?xml version=\"1.0\"?><s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\"><s:Body>"
                             "<u:" + action + " xmlns:u=\"" + ns + "\"><u:varName>SystemUpdateID</u:varName></u:" +
                             action + "></s:Body></s:Envelope>";
    return sendRaw(port(), "POST /web/cds_control HTTP/1.1\r\nHost: 127.0.0.1\r\n" + soapAction +
                               "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
  };
  const std::string cds = "urn:schemas-upnp-org:service:ContentDirectory:1";
  const std::string control = "urn:schemas-upnp-org:control-1-0";
  struct Row {
    std::string header, action, ns;
    int status;
    const char *element, *text;
  } rows[] = {
      {"SOAPACTION: \"" + cds + "#GetSystemUpdateID\"\r\n", "GetSystemUpdateID", cds, 200, "Id", "0"},
      {"", "GetSystemUpdateID", cds, 200, "Id", "0"},
      {"SOAPACTION: \"" + cds + "#Browse\"\r\n", "GetSystemUpdateID", cds, 500, "errorCode", "401"},
      {"SOAPACTION: \"" + control + "#QueryStateVariable\"\r\n", "QueryStateVariable", control, 200, "return", "0"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.header + row.action);
    const HttpResponse response = post(row.header, row.action, row.ns);
    EXPECT_EQ(response.status, row.status);
    EXPECT_EQ(elementText(response.body, row.element), row.text);
  }
  EXPECT_EQ(httpGet(port(), "/web/cds_control").status, 405);
  EXPECT_EQ(sendRaw(port(), "POST /web/cds_control HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 3\r\n\r\nabc").status, 400);
}

TEST_F(FrontDoorTest, SubscriptionsGoOnlyToTheSubscriberAndAreBounded) {
  Listener elsewhere("127.0.0.2");
  const std::string foreign = elsewhere.callback("/x");
  struct Row {
    std::string from, callback;
    bool accepted;
  } rows[] = {
      {"127.0.0.1", foreign, false},  // the other refusals are the unit test's table
      {"127.0.0.1", "<http://127.0.0.1:9/a><" + foreign.substr(1), true},  // only the first URL counts
      {"127.0.0.2", foreign, true},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.from + " " + row.callback);
    const std::string sid = subscribe(row.from, row.callback);
    EXPECT_EQ(sid.rfind("uuid:", 0) == 0, row.accepted) << sid;
  }
  // Only the subscription from 127.0.0.2 itself reaches it: one initial event.
  EXPECT_TRUE(elsewhere.contacted(2000));
  EXPECT_FALSE(elsewhere.contacted(500));

  // Nine from one address: the ninth replaces the first.
  std::vector<std::string> sids;
  for (int i = 0; i < 9; ++i) sids.push_back(subscribe("127.0.0.3", "<http://127.0.0.3:9/n>"));
  EXPECT_EQ(renew(sids.front()), 412);
  for (size_t i = 1; i < sids.size(); ++i) EXPECT_EQ(renew(sids[i]), 200) << i;
  const std::string unsubscribe = "UNSUBSCRIBE /web/cds_event HTTP/1.1\r\nHost: 127.0.0.1\r\nSID: " + sids.back() + "\r\n\r\n";
  EXPECT_EQ(sendRaw(port(), unsubscribe).status, 200);
  EXPECT_EQ(sendRaw(port(), unsubscribe).status, 412);
}

TEST_F(FrontDoorTest, ADeadSubscriberDelaysNobody) {
  // Twenty subscribers that accept and never answer.
  std::vector<std::unique_ptr<Listener>> dead;
  for (int i = 0; i < 20; ++i) {
    dead.push_back(std::make_unique<Listener>("127.0.0.4"));
    subscribe("127.0.0.4", dead.back()->callback("/dead"));
  }
  Subscriber live(port(), "/web/cds_event");
  ASSERT_EQ(live.subscription().status, 200);
  EXPECT_NE(live.next(2000).find("SEQ: 0"), std::string::npos);
  std::this_thread::sleep_for(std::chrono::milliseconds(2100));  // past the event window
  const auto changed = Clock::now();
  tree().copy("audio/mp3/mpeg1-44k-cbr128.mp3", "share/Music/new.mp3");
  const std::string event = live.next(3000);
  EXPECT_NE(event.find("SEQ: 1"), std::string::npos) << event;
  EXPECT_LT(std::chrono::duration<double>(Clock::now() - changed).count(), 1.0);
}

// Every listener of the process but the front door is the SDK's: nothing
// may connect to it.
TEST_F(FrontDoorTest, TheSdkPortTakesNoConnection) {
  std::ifstream table("/proc/self/net/tcp");
  std::vector<int> ports;
  for (std::string line; std::getline(table, line);) {
    unsigned address = 0, localPort = 0, state = 0;
    if (std::sscanf(line.c_str(), " %*d: %x:%x %*x:%*x %x", &address, &localPort, &state) == 3 && state == 0x0A &&
        static_cast<int>(localPort) != port()) {
      ports.push_back(static_cast<int>(localPort));
    }
  }
  ASSERT_FALSE(ports.empty());
  for (int other : ports) {
    RawConnection attempt(other);
    EXPECT_FALSE(attempt.connected()) << other;
  }
}

TEST_F(FrontDoorTest, IdleAndHalfSentCrowdsLeavePlayersServed) {
  std::vector<std::unique_ptr<RawConnection>> crowd;
  for (int i = 0; i < 250; ++i) {
    crowd.push_back(std::make_unique<RawConnection>(port(), "127.0.0." + std::to_string(50 + i % 16)));
    if (i >= 200) crowd.back()->send("GET /web/index.html HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Slow: ");
  }
  std::vector<std::vector<double>> latencies(4);
  std::atomic<int> failures{0};
  std::vector<std::thread> players;
  for (int c = 0; c < 4; ++c) {
    players.emplace_back([&, c] {
      const std::string from = "127.0.0." + std::to_string(30 + c);
      for (int i = 0; i < 30; ++i) {
        const auto begin = Clock::now();
        int status = 0;
        if (i % 2 == 0) {
          status = browse(port(), "0", "BrowseDirectChildren").status;
        } else {
          RawConnection connection(port(), from);
          connection.send("GET " + song_ + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
          status = connection.response().status;
        }
        latencies[c].push_back(std::chrono::duration<double, std::milli>(Clock::now() - begin).count());
        if (status != 200) ++failures;
      }
    });
  }
  for (auto &player : players) player.join();
  std::vector<double> all;
  for (auto &list : latencies) all.insert(all.end(), list.begin(), list.end());
  std::sort(all.begin(), all.end());
  EXPECT_EQ(failures.load(), 0);
  EXPECT_LT(all[all.size() * 99 / 100], kP99LimitMs);
}

}  // namespace

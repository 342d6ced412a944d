// Event subscriptions: which SUBSCRIBE requests are taken, the limit in all,
// renewal and UNSUBSCRIBE, and NOTIFY delivery to real listeners on loopback
// (the limit per address and a dead subscriber beside a live one are the
// front door test's).
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "dms_test.h"
#include "gena/dmsGena.h"

namespace {

using dmstest::eventually;
using dmstest::Listener;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

std::string initial(size_t service) { return "<initial service=\"" + std::to_string(service) + "\"/>"; }

dmsGenaAnswer subscribe(dmsGena &gena, const char *address, const std::string &callback,
                        const char *timeout = nullptr) {
  return gena.subscribe({.service = 0, .subscriberAddress = address, .callback = callback.c_str(),
                         .nt = "upnp:event", .timeout = timeout});
}

dmsGenaAnswer renew(dmsGena &gena, const std::string &sid, size_t service = 0, const char *timeout = nullptr) {
  return gena.subscribe({.service = service, .subscriberAddress = "127.0.0.1", .sid = sid.c_str(), .timeout = timeout});
}

// Short NOTIFY time-outs keep the delivery tests fast.
const dmsGenaLimits kFast{.connectMs = 300, .sendMs = 500};

// One SUBSCRIBE (NT "upnp:event" and from 127.0.0.1 unless said otherwise)
// and the status and TIMEOUT it must get.
struct SubscribeCase {
  int status;
  uint32_t seconds;
  const char *callback, *timeout = nullptr, *nt = "upnp:event", *sid = nullptr, *address = "127.0.0.1";
};

TEST(GenaSubscribe, HeaderCombinationsGetTheirStatus) {
  const char *kCb = "<http://127.0.0.1:4004/ev>";
  const std::string overlong = "<http://127.0.0.1:4004/" + std::string(1100, 'a') + ">";
  const SubscribeCase cases[] = {
      {200, 1800, kCb},
      {200, 300, kCb, "Second-300"},
      {200, 60, kCb, "second-5"},
      {200, 1800, kCb, "Second-infinite"},
      {200, 1800, kCb, "Second-99999999999"},
      {200, 1800, "<HTTP://127.0.0.1>"},
      {200, 1800, "<http://127.0.0.1:1/a><http://127.0.0.2:1/b>"},
      {200, 1800, "<http://[0:0::1]:4004/>", nullptr, "upnp:event", nullptr, "::1"},
      {200, 1800, kCb, nullptr, "upnp:event", nullptr, "::ffff:127.0.0.1"},
      {412, 0, kCb, nullptr, nullptr},
      {412, 0, kCb, nullptr, "upnp:propchange"},
      {412, 0, nullptr},
      {400, 0, nullptr, nullptr, "upnp:event", "uuid:1"},
      {400, 0, kCb, nullptr, nullptr, "uuid:1"},
      {412, 0, nullptr, nullptr, nullptr, "uuid:1"},
  };
  dmsGena gena(1, dmsGenaLimits{}, initial);
  std::set<std::string> sids;
  for (const SubscribeCase &c : cases) {
    SCOPED_TRACE(std::string(c.address) + " " + (c.callback ? c.callback : "-") + " " + (c.timeout ? c.timeout : "-"));
    const dmsGenaAnswer answer = gena.subscribe({.service = 0, .subscriberAddress = c.address, .callback = c.callback,
                                                 .nt = c.nt, .sid = c.sid, .timeout = c.timeout});
    EXPECT_EQ(answer.status, c.status);
    if (c.status != 200) continue;
    EXPECT_EQ(std::tie(answer.timeoutSeconds, answer.isNew), std::make_tuple(c.seconds, true));
    EXPECT_TRUE(answer.sid.rfind("uuid:", 0) == 0 && answer.sid.size() == 41 && sids.insert(answer.sid).second)
        << answer.sid;
  }
  // Callbacks refused from 127.0.0.1: only the first URL counts, and only
  // plain http to the subscriber's own address.
  for (const char *callback :
       {"<http://127.0.0.2:1/a><http://127.0.0.1:1/b>", "<http://127.0.0.2:4004/ev>", "<http://localhost:4004/ev>",
        "<https://127.0.0.1:4004/ev>", "<http://x@127.0.0.1:4004/ev>", "<http://[::1]:4004/ev>",
        "http://127.0.0.1:4004/ev", "<http://127.0.0.1:0/ev>", "<http://127.0.0.1:65536/ev>",
        "<http://127.0.0.1:4004/a b>", overlong.c_str()}) {
    EXPECT_EQ(subscribe(gena, "127.0.0.1", callback).status, 412) << callback;
  }
  EXPECT_EQ(gena.subscriptionCount(), sids.size());
}

TEST(GenaLimits, FullTableRefusesANewAddressButNotAKnownOne) {
  dmsGena gena(1, {.perAddress = 3, .total = 4}, initial);
  const std::string first = subscribe(gena, "127.0.0.1", "<http://127.0.0.1:9/>").sid;
  for (const char *address : {"127.0.0.1", "127.0.0.2", "127.0.0.2"}) {
    EXPECT_EQ(subscribe(gena, address, "<http://" + std::string(address) + ":9/>").status, 200);
  }
  EXPECT_EQ(subscribe(gena, "127.0.0.3", "<http://127.0.0.3:9/>").status, 503);
  EXPECT_EQ(subscribe(gena, "127.0.0.1", "<http://127.0.0.1:9/>").status, 200);  // replaces `first`
  EXPECT_EQ(gena.subscriptionCount(), 4u);
  EXPECT_EQ(renew(gena, first).status, 412);
}

TEST(GenaSubscribe, RenewalUnsubscribeAndExpiry) {
  dmsGena gena(2, {.minTimeoutSeconds = 0}, initial);
  const std::string sid = subscribe(gena, "127.0.0.1", "<http://127.0.0.1:9/>").sid;
  const dmsGenaAnswer renewed = renew(gena, sid, 0, "Second-120");
  EXPECT_EQ(std::tie(renewed.status, renewed.sid, renewed.timeoutSeconds, renewed.isNew),
            std::make_tuple(200, sid, 120u, false));
  EXPECT_EQ(renew(gena, sid, 1).status, 412);  // another service's event URL
  const auto unsubscribe = [&](size_t service, const char *sid, const char *nt = nullptr) {
    return gena.unsubscribe({.service = service, .subscriberAddress = "127.0.0.1", .nt = nt, .sid = sid});
  };
  EXPECT_EQ(unsubscribe(0, sid.c_str(), "upnp:event"), 400);
  EXPECT_EQ(unsubscribe(0, nullptr), 412);
  EXPECT_EQ(unsubscribe(1, sid.c_str()), 412);
  EXPECT_EQ(unsubscribe(0, sid.c_str()), 200);
  EXPECT_EQ(unsubscribe(0, sid.c_str()), 412);
  EXPECT_EQ(renew(gena, sid).status, 412);
  const dmsGenaAnswer brief = subscribe(gena, "127.0.0.1", "<http://127.0.0.1:9/>", "Second-0");
  EXPECT_EQ(brief.timeoutSeconds, 0u);
  EXPECT_EQ(gena.subscriptionCount(), 0u);  // expired at once
  EXPECT_EQ(renew(gena, brief.sid).status, 412);
}

TEST(GenaDelivery, InitialEventComesFirstThenChangesInOrder) {
  Listener receiver;
  dmsGena gena(2, kFast, initial);
  const std::string sid = subscribe(gena, "127.0.0.1", receiver.callback("/ev/cds")).sid;
  gena.notify(0, "<e1/>");  // before the initial event: it waits for it
  gena.notify(1, "<other/>");
  gena.sendInitialEvent(sid);
  gena.notify(0, "<e2/>");
  const std::string bodies[] = {initial(0), "<e1/>", "<e2/>"};
  for (size_t i = 0; i < 3; ++i) {
    const std::string got = receiver.request(3000);
    SCOPED_TRACE(got);
    EXPECT_EQ(got.rfind("NOTIFY /ev/cds HTTP/1.1\r\n", 0), 0u);
    for (const std::string &line : {"SEQ: " + std::to_string(i), "SID: " + sid, std::string("NT: upnp:event"),
                                    std::string("NTS: upnp:propchange"),
                                    std::string("Content-Type: text/xml; charset=\"utf-8\"")}) {
      EXPECT_NE(got.find("\r\n" + line + "\r\n"), std::string::npos) << line;
    }
    EXPECT_EQ(got.substr(std::min(got.size(), got.find("\r\n\r\n") + 4)), bodies[i]);
  }
  EXPECT_EQ(receiver.request(200), "");  // nothing of service 1
}

TEST(GenaDelivery, DestructorAbandonsStalledTransfersAtOnce) {
  Listener stalled;
  auto gena = std::make_unique<dmsGena>(1, dmsGenaLimits{.perAddress = 32, .sendMs = 10000}, initial);
  for (int i = 0; i < 20; ++i) gena->sendInitialEvent(subscribe(*gena, "127.0.0.1", stalled.callback()).sid);
  std::this_thread::sleep_for(milliseconds(300));  // all connected and waiting for answers
  const auto start = Clock::now();
  gena.reset();
  EXPECT_LT(Clock::now() - start, milliseconds(1500));
}

TEST(GenaDelivery, FailuresInARowDropASubscriberAndASuccessForgivesThem) {
  Listener flaky, refusing("127.0.0.1", false);
  dmsGena gena(1, {.connectMs = 300, .sendMs = 500, .maxFailures = 2}, initial);
  gena.sendInitialEvent(subscribe(gena, "127.0.0.1", flaky.callback()).sid);     // fails (1)
  gena.sendInitialEvent(subscribe(gena, "127.0.0.1", refusing.callback()).sid);  // fails (1)
  ASSERT_NE(flaky.request(3000, 500), "");
  gena.notify(0, "<a/>");  // flaky: delivered (0); refusing: fails (2) and goes
  ASSERT_NE(flaky.request(3000, 200), "");
  EXPECT_TRUE(eventually([&] { return gena.subscriptionCount() == 1; }));
  gena.notify(0, "<b/>");  // flaky: fails (1)
  ASSERT_NE(flaky.request(3000, 500), "");
  std::this_thread::sleep_for(milliseconds(150));
  EXPECT_EQ(gena.subscriptionCount(), 1u);
  gena.notify(0, "<c/>");  // flaky: fails (2) and goes
  ASSERT_NE(flaky.request(3000, 500), "");
  EXPECT_TRUE(eventually([&] { return gena.subscriptionCount() == 0; }));
}

}  // namespace

// Media through the front door: the one port in DIDL, keep-alive, the
// per-address limit, and paused players that resume or are closed by stop.
// (Ranges and HEAD, LPCM order, files over 4 GiB and files changing under a
// stream are the streaming test's.)
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "dms_test.h"

using namespace dmstest;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int64_t kPausedSize = 8 << 20;

std::string get(const std::string &path, const std::string &extra = "") {
  return "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + extra + "\r\n";
}

class MediaServerTest : public ServerSuite {
 protected:
  static void SetUpTestSuite() {
    tree().copy("audio/mp3/mpeg1-44k-cbr128.mp3", "share/a.mp3");
    tree().copy("audio/wav/pcm16-44100-2ch.wav", "share/b.wav");
    // Raw LPCM is recognised by its name; a sparse file reads as zeroes.
    fs::resize_file(tree().write("share/c-b-lpcm-2.pcm", ""), kPausedSize);
    ASSERT_TRUE(serve({tree() / "share"}));
    items_ = children(port(), children(port(), "0").at(0).id());
  }
  // a.mp3, b.wav, then c-b-lpcm-2.pcm, in name order.
  static std::string path(int index) { return items_.at(index).path(); }
  static inline std::vector<DidlObject> items_;
};

TEST_F(MediaServerTest, DidlUrlsNameTheOnePortOfTheServer) {
  ASSERT_EQ(items_.size(), 3u);
  EXPECT_EQ(server().mediaPort(), port());
  // A separate media port is asked for in vain: one port serves everything.
  EXPECT_EQ(dlna_dmsSetMediaPort(server().handle(), 0), DMS_SUCCESS);
  EXPECT_EQ(dlna_dmsGetMediaPort(server().handle()), port());
  EXPECT_EQ(items_[0].res.at(0).at("url").find("http://127.0.0.1:" + std::to_string(port()) + "/web/"), 0u);
}

TEST_F(MediaServerTest, KeepAliveServesTwoRequestsOnOneConnectionAndHonoursClose) {
  RawConnection connection(port());
  ASSERT_TRUE(connection.send(get(path(0), "Range: bytes=0-3\r\n")));
  EXPECT_EQ(connection.response().status, 206);
  ASSERT_TRUE(connection.send(get(path(1))));
  HttpResponse second = connection.response();
  EXPECT_EQ(second.status, 200);
  EXPECT_EQ(second.body.size(), fs::file_size(fixture("audio/wav/pcm16-44100-2ch.wav")) - 44);
  ASSERT_TRUE(connection.send(get(path(0), "Connection: close\r\n")));
  EXPECT_EQ(connection.response().status, 200);
  EXPECT_TRUE(connection.closedByPeer());
}

// The total limit and its eviction are the front door test's crowd.
TEST_F(MediaServerTest, AFullAddressGetsNoMoreConnections) {
  std::vector<std::unique_ptr<RawConnection>> held;
  for (int i = 0; i < 16; ++i) {
    held.push_back(std::make_unique<RawConnection>(port(), "127.0.0.10"));
    held.back()->send("GET ");
  }
  RawConnection extra(port(), "127.0.0.10");
  EXPECT_TRUE(extra.closedByPeer());
  EXPECT_TRUE(held.back()->send(path(0) + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"));
  EXPECT_EQ(held.back()->response().status, 200);
}

// Last: it stops the server.
TEST_F(MediaServerTest, PausedPlayersResumeAndStopClosesThemAtOnce) {
  std::vector<std::unique_ptr<RawConnection>> paused;
  std::vector<std::string> heads;
  for (int i = 0; i < 16; ++i) {
    paused.push_back(std::make_unique<RawConnection>(port(), "127.0.0.2", 4096));
    ASSERT_TRUE(paused.back()->send(get(path(2), "Connection: close\r\n")));
    heads.push_back(paused.back()->receive(16384));
  }
  // Others are served meanwhile (their latency is the crowd test's).
  EXPECT_EQ(browse(port(), "0", "BrowseDirectChildren").status, 200);
  EXPECT_EQ(httpGet(port(), path(0)).status, 200);
  // Half of the paused streams resume to the last byte; the rest are still
  // paused when the server stops, which closes them at once.
  for (int i = 0; i < 8; ++i) {
    std::string all = heads[i] + paused[i]->receive(kPausedSize * 2, 10000);
    EXPECT_EQ(all.size() - all.find("\r\n\r\n") - 4, static_cast<size_t>(kPausedSize)) << i;
  }
  auto stopping = Clock::now();
  server().stop();
  EXPECT_LT(std::chrono::duration<double>(Clock::now() - stopping).count(), 2.0);
  for (int i = 8; i < 16; ++i) EXPECT_TRUE(paused[i]->closedByPeer(500)) << i;
}

}  // namespace

// Media downloads as a player makes them: whole files, HEAD and ranges with
// exact lengths, the DLNA headers, LPCM in network byte order from any
// offset, hostile URLs, a file over 4 GiB, and files that change or vanish
// while they are streamed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "dms_test.h"

using namespace dmstest;

namespace {

class StreamingTest : public ServerSuite {
 protected:
  static void SetUpTestSuite() {
    tree().copy("audio/mp3/mpeg1-44k-cbr128.mp3", "share/song.mp3");
    tree().copy("audio/wav/pcm16-44100-2ch.wav", "share/tone.wav");
    tree().copy("image/jfif-640x480.jpg", "share/photo.jpg");
    // A transport stream grown past 4 GiB without using the disk, with a
    // marker far beyond the 32-bit range.
    const std::string big = tree().copy("video/ts-mpeg2-mp2-720x576.ts", "share/big.ts");
    std::filesystem::resize_file(big, kBigSize);
    int fd = ::open(big.c_str(), O_WRONLY);
    EXPECT_EQ(::pwrite(fd, "MARKER!!", 8, kMarkerAt), 8);
    ::close(fd);
    ASSERT_TRUE(serve({tree() / "share"}));
  }
  // The path of the res URL of the shared item titled `title`.
  static std::string url(const std::string &title) { return lookup(port(), "share/" + title).path(); }
  static constexpr int64_t kBigSize = 5LL << 30;
  static constexpr int64_t kMarkerAt = (9LL << 29) + 1;  // 4.5 GiB and one
};

TEST_F(StreamingTest, WholeFilesHeadAndRangesHaveExactLengths) {
  const std::string path = url("song"), file = readFile(tree() / "share/song.mp3");
  const size_t size = file.size();
  struct Row {
    std::string method, range;
    int status;
    size_t from, length;
  } rows[] = {
      {"GET", "", 200, 0, size},
      {"HEAD", "", 200, 0, 0},
      {"GET", "bytes=0-0", 206, 0, 1},
      {"GET", "bytes=100-199", 206, 100, 100},
      {"GET", "bytes=" + std::to_string(size - 1) + "-" + std::to_string(size - 1), 206, size - 1, 1},
      {"GET", "bytes=" + std::to_string(size - 5) + "-", 206, size - 5, 5},
      {"GET", "bytes=-50", 206, size - 50, 50},
      {"GET", "bytes=10-" + std::to_string(size + 1000), 206, 10, size - 10},
      {"GET", "bytes=" + std::to_string(size) + "-", 416, 0, 0},
      {"GET", "bytes=-0", 416, 0, 0},
      {"GET", "bytes=500-100", 200, 0, size},  // not understood: the whole file
      {"GET", "bytes=0-1,5-6", 206, 0, 2},  // several ranges: the first is served
      {"GET", "bytes=abc", 200, 0, size},
      {"GET", "items=0-1", 200, 0, size},
      {"POST", "", 405, 0, 0},  // nothing is ever written to a shared file
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.method + " " + row.range);
    HttpResponse response =
        httpGet(port(), path, row.range.empty() ? "" : "Range: " + row.range + "\r\n", row.method);
    EXPECT_EQ(response.status, row.status);
    if (row.status >= 400) continue;
    EXPECT_EQ(response.body, file.substr(row.from, row.length));
    EXPECT_EQ(response.header("content-length"), std::to_string(row.method == "HEAD" ? size : row.length));
    EXPECT_EQ(response.header("content-type"), "audio/mpeg");
    EXPECT_EQ(response.header("contentfeatures.dlna.org"), "DLNA.ORG_PN=MP3;DLNA.ORG_OP=01;DLNA.ORG_CI=0");
    EXPECT_EQ(response.header("transfermode.dlna.org"), "Streaming");
    if (row.status == 206) {
      EXPECT_EQ(response.header("content-range"), "bytes " + std::to_string(row.from) + "-" +
                                                      std::to_string(row.from + row.length - 1) + "/" +
                                                      std::to_string(size));
    }
  }
  HttpResponse photo = httpGet(port(), url("photo"));
  EXPECT_EQ(photo.header("transfermode.dlna.org"), "Interactive");
  EXPECT_EQ(photo.header("contentfeatures.dlna.org"), "DLNA.ORG_PN=JPEG_SM;DLNA.ORG_OP=01;DLNA.ORG_CI=0");
}

TEST_F(StreamingTest, LpcmGoesOutInNetworkOrderFromAnyOffset) {
  std::string samples = readFile(tree() / "share/tone.wav").substr(44);
  for (size_t i = 0; i + 1 < samples.size(); i += 2) std::swap(samples[i], samples[i + 1]);
  const std::string path = url("tone");
  HttpResponse whole = httpGet(port(), path);
  EXPECT_EQ(whole.header("content-type"), "audio/L16;rate=44100;channels=2");
  EXPECT_EQ(whole.body, samples);
  for (size_t from : {size_t{1}, size_t{2}, size_t{101}, samples.size() - 3}) {
    for (size_t length : {size_t{1}, size_t{2}, size_t{3}}) {
      HttpResponse part = httpGet(port(), path, "Range: bytes=" + std::to_string(from) + "-" +
                                                    std::to_string(from + length - 1) + "\r\n");
      EXPECT_EQ(part.body, samples.substr(from, length)) << from << "+" << length;
    }
  }
}

TEST_F(StreamingTest, FilesOver4GiBAreListedAndServedByRanges) {
  DidlObject big = lookup(port(), "share/big");
  ASSERT_EQ(big.res.size(), 1u);
  EXPECT_EQ(big.res[0]["size"], std::to_string(kBigSize));
  const std::string path = big.path();
  HttpResponse head = httpGet(port(), path, "", "HEAD");
  EXPECT_EQ(head.header("content-length"), std::to_string(kBigSize));
  HttpResponse marker = httpGet(port(), path, "Range: bytes=" + std::to_string(kMarkerAt) + "-" +
                                                  std::to_string(kMarkerAt + 7) + "\r\n");
  EXPECT_EQ(marker.status, 206);
  EXPECT_EQ(marker.body, "MARKER!!");
  HttpResponse tail = httpGet(port(), path, "Range: bytes=-3\r\n");
  EXPECT_EQ(tail.body, std::string(3, '\0'));
  EXPECT_EQ(tail.header("content-range"),
            "bytes " + std::to_string(kBigSize - 3) + "-" + std::to_string(kBigSize - 1) + "/" +
                std::to_string(kBigSize));
}

TEST_F(StreamingTest, HostileUrlsAnswerNotFound) {
  const std::string song = url("song");
  const std::string id = song.substr(5, song.find('.') - 5);
  for (const std::string &path :
       {"/web/" + id + "x", "/web/" + id + "/../../etc/passwd", "/web/" + id + ".mp3/../x",
        std::string("/web/../etc/passwd"), std::string("/web/0"), "/web/" + children(port(), "0").at(0).id(),
        std::string("/web/99999"), std::string("/web/99999999999999999999"),
        std::string("/web/%2e%2e/%2e%2e/etc/passwd"), std::string("/web/") + std::string(4000, '1')}) {
    HttpResponse response = httpGet(port(), path);
    EXPECT_TRUE(response.status == 404 || response.status == 400) << path.substr(0, 60) << " " << response.status;
    EXPECT_EQ(response.body.find("root:"), std::string::npos);
  }
  EXPECT_EQ(httpGet(port(), song).status, 200);
}

TEST(StreamingChanges, FilesTruncatedDeletedOrUnsharedWhileStreamed) {
  TempDir tree;
  for (const char *name : {"cut", "gone", "unshared"}) {
    const std::string path = tree.copy("video/ts-mpeg2-mp2-720x576.ts", std::string("share/") + name + ".ts");
    std::filesystem::resize_file(path, 64 << 20);
  }
  RunningServer server;
  ASSERT_TRUE(server.start({tree / "share"}));
  auto pathOf = [&](const char *title) { return lookup(server.port(), std::string("share/") + title).path(); };
  const std::string cut = pathOf("cut"), gone = pathOf("gone"), unshared = pathOf("unshared");
  struct Row {
    std::string path;
    std::function<void()> change;
  } rows[] = {
      {cut, [&] { std::filesystem::resize_file(tree / "share/cut.ts", 1 << 20); }},
      {gone, [&] { std::filesystem::remove(tree / "share/gone.ts"); }},
      {unshared, [&] { EXPECT_EQ(dlna_dmsDeleteSharedPath(server.handle(), (tree / "share").c_str()), 0); }},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.path);
    // A player reading slowly: a small receive buffer, the first bytes only.
    RawConnection reader(server.port(), "127.0.0.1", 4096);
    reader.send("GET " + row.path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
    const size_t first = reader.receive(1).size();
    row.change();
    // The body ends (short, or whole from the open file) at once, never
    // waits for the idle time-out, and the server goes on answering.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_LE(first + reader.receive(size_t{1} << 30, 10000).size(), (size_t{64} << 20) + 4096);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(httpGet(server.port(), "/web/cds.xml").status, 200);
  }
  EXPECT_EQ(httpGet(server.port(), gone).status, 404);
  EXPECT_EQ(httpGet(server.port(), unshared).status, 404);
}

// Every fixture the server lists is published with a protocolInfo the
// server announces, and its URL serves exactly the bytes and length the
// DIDL-Lite promised.
TEST(EveryFixture, IsListedAndServedAsPublished) {
  TempDir tree;
  int copied = 0;
  for (const auto &file : std::filesystem::recursive_directory_iterator(fixture(""))) {
    if (!file.is_regular_file()) continue;
    const std::string name = file.path().string().substr(fixture("").size());
    std::string flat = name;
    for (char &c : flat) c = c == '/' ? '_' : c;
    tree.copy(name, "all/" + flat);
    ++copied;
  }
  RunningServer server;
  ASSERT_TRUE(server.start({tree / "all"}));
  const std::string sources = elementText(soap(server.port(), Service::kCms, "GetProtocolInfo", "").body, "Source");
  const std::vector<DidlObject> items = children(server.port(), children(server.port(), "0").at(0).id());
  EXPECT_GT(items.size(), size_t(copied) * 3 / 4);  // the negatives and oddities are left out
  for (const DidlObject &item : items) {
    SCOPED_TRACE(item.title());
    ASSERT_GE(item.res.size(), 1u);  // pictures' thumbnails follow their own res
    const auto &res = item.res[0];
    if (res.at("protocolInfo").find("DLNA.ORG_PN=") != std::string::npos) {  // a DLNA profile
      EXPECT_NE(sources.find(res.at("protocolInfo")), std::string::npos);
    }
    HttpResponse body = httpGet(server.port(), item.path());
    EXPECT_EQ(body.status, 200);
    EXPECT_EQ(std::to_string(body.body.size()), res.at("size"));
    EXPECT_EQ(body.header("content-length"), res.at("size"));
    EXPECT_EQ(res.at("protocolInfo").find(":" + body.header("content-type") + ":"), 10u);  // http-get:*:<mime>:
  }
}

}  // namespace

// The media half of the file server: which URLs name a shared item, and the
// byte order of LPCM samples on the wire.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "http/dmsAvtHttpMedia.h"

namespace {

TEST(HttpMediaUrl, OnlyDigitsWithAnOptionalExtensionNameAnItem) {
  uint32_t id = 0;
  EXPECT_TRUE(dmsAvtHttpParseMediaId("/web/1002.mp3", &id));
  EXPECT_EQ(id, 1002u);
  EXPECT_TRUE(dmsAvtHttpParseMediaId("/web/1003", &id));
  EXPECT_EQ(id, 1003u);
  EXPECT_TRUE(dmsAvtHttpParseMediaId("/web/1004.wav?seek=1", &id));
  EXPECT_EQ(id, 1004u);
  EXPECT_TRUE(dmsAvtHttpParseMediaId("/web/4294967295.jpg", &id));
  EXPECT_EQ(id, 4294967295u);

  const char *refused[] = {
      "/web/",           "/web/abc",          "/web/12abc",        "/web/99999999999999999999",
      "/web/4294967296", "/web/../etc/passwd", "/web/1002.mp3/x",   "/web/1002.tar.gz",
      "/etc/1002.mp3",   "/web1002.mp3",       "/web/ 1002",        "/web/-5",
      "/web/1002/",      "/web/1002.mp3.",     "",                  "/web/1002.m p3"};
  for (const char *path : refused) EXPECT_FALSE(dmsAvtHttpParseMediaId(path, &id)) << path;
  EXPECT_FALSE(dmsAvtHttpParseMediaId(nullptr, &id));
}

class SwappedRead : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/dms_swap_XXXXXX";
    descriptor_ = ::mkstemp(pattern);
    path_ = pattern;
    // A 5-byte header, then samples 0x0102, 0x0304, ... little-endian, and a
    // lone last byte.
    bytes_ = {'H', 'E', 'A', 'D', 'R'};
    for (int sample = 0; sample < 50; ++sample) {
      bytes_.push_back(static_cast<char>(2 * sample + 2));
      bytes_.push_back(static_cast<char>(2 * sample + 1));
    }
    bytes_.push_back('Z');
    ASSERT_EQ(::write(descriptor_, bytes_.data(), bytes_.size()), static_cast<ssize_t>(bytes_.size()));
  }
  void TearDown() override {
    ::close(descriptor_);
    std::remove(path_.c_str());
  }

  // What a client must receive for [position, position + count): each pair
  // (counted from the payload start) in swapped order.
  std::string expected(int64_t position, size_t count) const {
    std::string wire;
    for (size_t i = 0; i < count && position + static_cast<int64_t>(i) < static_cast<int64_t>(bytes_.size()); ++i) {
      int64_t at = position + static_cast<int64_t>(i);
      int64_t relative = at - kOffset;
      int64_t partner = relative % 2 == 0 ? at + 1 : at - 1;
      wire += partner < static_cast<int64_t>(bytes_.size()) ? bytes_[partner] : bytes_[at];
    }
    return wire;
  }

  static constexpr int64_t kOffset = 5;
  int descriptor_ = -1;
  std::string path_;
  std::vector<char> bytes_;
};

TEST_F(SwappedRead, EveryStartAndLengthGivesNetworkOrder) {
  std::vector<char> scratch;
  char buffer[256];
  for (int64_t position = kOffset; position < static_cast<int64_t>(bytes_.size()); ++position) {
    for (size_t count : {1u, 2u, 3u, 7u, 64u, 200u}) {
      size_t got = dmsAvtHttpReadSwapped(descriptor_, buffer, count, position, kOffset, scratch);
      std::string want = expected(position, count);
      ASSERT_EQ(std::string(buffer, got), want) << "position " << position << " count " << count;
    }
  }
  EXPECT_EQ(dmsAvtHttpReadSwapped(descriptor_, buffer, 10, static_cast<int64_t>(bytes_.size()), kOffset,
                                  scratch),
            0u);
}

TEST_F(SwappedRead, FirstSampleComesOutBigEndian) {
  std::vector<char> scratch;
  char buffer[4];
  ASSERT_EQ(dmsAvtHttpReadSwapped(descriptor_, buffer, 4, kOffset, kOffset, scratch), 4u);
  EXPECT_EQ(buffer[0], 1);
  EXPECT_EQ(buffer[1], 2);
  EXPECT_EQ(buffer[2], 3);
  EXPECT_EQ(buffer[3], 4);
}

}  // namespace

#include <gtest/gtest.h>

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "util/dlnaUtil_uuid.h"
#include "capture_stdout.h"

namespace {

// 8-4-4-4-12 lower-case hexadecimal digits, version digit 1, variant digit 8
// or 9.
bool isWellFormed(const std::string &uuid) {
  if (uuid.size() != 36) return false;
  for (size_t i = 0; i < uuid.size(); ++i) {
    bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    char c = uuid[i];
    if (dash != (c == '-')) return false;
    if (!dash && !((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return uuid[14] == '1' && (uuid[19] == '8' || uuid[19] == '9');
}

std::string uuidAt(long seconds, long microseconds) {
  timeval now{};
  now.tv_sec = seconds;
  now.tv_usec = microseconds;
  char text[48] = {0};
  captureStdout([&] { EXPECT_EQ(dlnaUtilGetUuidAt(&now, text), 0); });
  return text;
}

// The fourth group without its variant bits: the 13-bit clock sequence.
unsigned clockSeqOf(const std::string &uuid) {
  return static_cast<unsigned>(std::stoul(uuid.substr(19, 4), nullptr, 16)) & 0x1fffU;
}

// 100 ns steps since 1582 encoded in the first three groups.
uint64_t timeStampOf(const std::string &uuid) {
  uint64_t low = std::stoull(uuid.substr(0, 8), nullptr, 16);
  uint64_t mid = std::stoull(uuid.substr(9, 4), nullptr, 16);
  uint64_t high = std::stoull(uuid.substr(14, 4), nullptr, 16) & 0x0fffU;
  return (high << 48) | (mid << 32) | low;
}

std::string formatted(long seconds, long microseconds, uint16_t clockSeq, const uint8_t *node) {
  timeval now{};
  now.tv_sec = seconds;
  now.tv_usec = microseconds;
  char text[48];
  std::memset(text, 'X', sizeof text);
  EXPECT_EQ(dlnaUtilFormatUuid(&now, clockSeq, node, text), 0);
  EXPECT_EQ(text[36], '\0');
  EXPECT_EQ(text[37], 'X') << "wrote past the 37-byte text";
  return std::string(text);
}

}  // namespace

TEST(UuidFormat, KnownInstants) {
  const uint8_t node[6] = {0x01, 0x11, 0x22, 0x33, 0x00, 0x00};
  // The Unix epoch is 0x01B21DD213814000 steps after the Gregorian reform.
  EXPECT_EQ(formatted(0, 0, 0, node), "13814000-1dd2-11b2-8000-011122330000");
  EXPECT_EQ(formatted(1, 1, 0x1234, node), "1419d68a-1dd2-11b2-9234-011122330000");
  // 2023-11-14 22:13:20.123456 UTC.
  const uint8_t other[6] = {0xab, 0xcd, 0xef, 0x01, 0x23, 0x45};
  EXPECT_EQ(formatted(1700000000, 123456, 0x1fff, other), "04c29680-833b-11ee-9fff-abcdef012345");
}

TEST(UuidFormat, NodeFromHardwareAddress) {
  const uint8_t hwAddr[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
  uint8_t node[6];
  std::memset(node, 0xee, sizeof node);
  dlnaUtilNodeFromHwAddr(hwAddr, node);
  const uint8_t expected[6] = {0x01, 0x11, 0x22, 0x33, 0x00, 0x00};
  EXPECT_EQ(0, std::memcmp(node, expected, sizeof node));
  EXPECT_EQ(formatted(0, 0, 0, node).substr(24), "011122330000");

  const uint8_t odd[6] = {0x03, 0xfe, 0, 0, 0x44, 0x55};
  dlnaUtilNodeFromHwAddr(odd, node);
  EXPECT_EQ(node[0], 0x03);
  EXPECT_EQ(node[1], 0xfe);
}

TEST(UuidFormat, RefusesNullArguments) {
  const uint8_t node[6] = {0};
  timeval now{};
  char text[48];
  EXPECT_EQ(dlnaUtil_getUuid(nullptr), -1);
  EXPECT_EQ(dlnaUtilGetUuidAt(nullptr, text), -1);
  EXPECT_EQ(dlnaUtilGetUuidAt(&now, nullptr), -1);
  EXPECT_EQ(dlnaUtilFormatUuid(nullptr, 0, node, text), -1);
  EXPECT_EQ(dlnaUtilFormatUuid(&now, 0, nullptr, text), -1);
  EXPECT_EQ(dlnaUtilFormatUuid(&now, 0, node, nullptr), -1);
}

TEST(UuidClock, SameMicrosecondStepsClockSequence) {
  const long seconds = 1600000000;
  std::string first = uuidAt(seconds, 250000);
  std::string second = uuidAt(seconds, 250000);
  std::string third = uuidAt(seconds, 250000);
  EXPECT_EQ(first.substr(0, 18), second.substr(0, 18));
  EXPECT_EQ(clockSeqOf(second), (clockSeqOf(first) + 1) & 0x1fffU) << first << " " << second;
  EXPECT_EQ(clockSeqOf(third), (clockSeqOf(second) + 1) & 0x1fffU) << second << " " << third;
}

TEST(UuidClock, MovingForwardKeepsSequenceGoingBackSteps) {
  std::string base = uuidAt(1600000100, 1);
  std::string later = uuidAt(1600000100, 2);
  EXPECT_EQ(clockSeqOf(later), clockSeqOf(base));
  std::string muchLater = uuidAt(1600000200, 7);
  EXPECT_EQ(clockSeqOf(muchLater), clockSeqOf(base));
  std::string earlier = uuidAt(1600000150, 7);  // the clock went back
  EXPECT_EQ(clockSeqOf(earlier), (clockSeqOf(base) + 1) & 0x1fffU);
  EXPECT_NE(earlier, muchLater);
}

TEST(UuidGenerate, ShapeAndCurrentTime) {
  char text[48];
  std::memset(text, 'X', sizeof text);
  timeval before{};
  timeval after{};
  captureStdout([&] {
    gettimeofday(&before, nullptr);
    EXPECT_EQ(dlnaUtil_getUuid(text), 0);
    gettimeofday(&after, nullptr);
  });
  ASSERT_EQ(text[36], '\0');
  EXPECT_EQ(text[37], 'X');
  std::string uuid(text);
  EXPECT_TRUE(isWellFormed(uuid)) << uuid;
  auto steps = [](const timeval &t) {
    return static_cast<uint64_t>(t.tv_sec) * 10000000ULL + 0x01B21DD213814000ULL +
           static_cast<uint64_t>(t.tv_usec) * 10ULL;
  };
  EXPECT_GE(timeStampOf(uuid), steps(before)) << uuid;
  EXPECT_LE(timeStampOf(uuid), steps(after)) << uuid;
}

TEST(UuidGenerate, NodeComesFromFirstInterfaceWithHardwareAddress) {
  uint8_t node[6];
  int32_t status = -1;
  std::string out = captureStdout([&] { status = dlnaUtilGetInterfaceNode(node); });
  if (status != 0) GTEST_SKIP() << "no interface with a hardware address: " << out;
  EXPECT_NE(out.find("[INFO]The Valid s_interface Name "), std::string::npos) << out;
  EXPECT_EQ(node[0] & 0x01, 0x01);
  EXPECT_EQ(node[4], 0);
  EXPECT_EQ(node[5], 0);

  // The named interface's address, as the kernel shows it, gives these bytes.
  std::string name = out.substr(out.find("Name ") + 5);
  name = name.substr(0, name.find('\n'));
  std::ifstream addressFile("/sys/class/net/" + name + "/address");
  std::string address;
  if (addressFile >> address) {
    unsigned bytes[6] = {0};
    ASSERT_EQ(std::sscanf(address.c_str(), "%x:%x:%x:%x:%x:%x", &bytes[0], &bytes[1], &bytes[2],
                          &bytes[3], &bytes[4], &bytes[5]),
              6);
    EXPECT_EQ(node[0], (bytes[0] | 0x01U));
    EXPECT_EQ(node[1], bytes[1]);
    EXPECT_EQ(node[2], bytes[2]);
    EXPECT_EQ(node[3], bytes[3]);
  }

  char text[48] = {0};
  captureStdout([&] { EXPECT_EQ(dlnaUtil_getUuid(text), 0); });
  char expectedNode[13];
  std::snprintf(expectedNode, sizeof expectedNode, "%02x%02x%02x%02x0000", node[0], node[1],
                node[2], node[3]);
  EXPECT_EQ(std::string(text).substr(24), expectedNode);
}

TEST(UuidRandom, FillsBufferFromDevice) {
  EXPECT_EQ(dlnaUtilGetRandomBytes(nullptr, 4), -1);
  uint8_t buffer[64] = {0};
  EXPECT_EQ(dlnaUtilGetRandomBytes(buffer, 0), -1);
  EXPECT_EQ(dlnaUtilGetRandomBytes(buffer, -3), -1);
  if (::access("/dev/urandom", R_OK) != 0) GTEST_SKIP() << "no /dev/urandom";
  EXPECT_EQ(dlnaUtilGetRandomBytes(buffer, 64), 64);
  EXPECT_TRUE(std::any_of(buffer, buffer + 64, [](uint8_t b) { return b != 0; }));
}

TEST(UuidConcurrency, ThreadsGetDistinctWellFormedUuids) {
  constexpr int kThreads = 8;
  constexpr int kCallsPerThread = 1000;
  std::vector<std::vector<std::string>> results(kThreads);
  captureStdout([&] {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&results, t] {
        results[t].reserve(kCallsPerThread);
        for (int i = 0; i < kCallsPerThread; ++i) {
          char text[48] = {0};
          if (dlnaUtil_getUuid(text) != 0) text[0] = '\0';
          results[t].emplace_back(text);
        }
      });
    }
    for (std::thread &thread : threads) thread.join();
  });
  std::set<std::string> seen;
  for (const auto &perThread : results) {
    for (const std::string &uuid : perThread) {
      ASSERT_TRUE(isWellFormed(uuid)) << uuid;
      EXPECT_TRUE(seen.insert(uuid).second) << "duplicate " << uuid;
    }
  }
  EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kCallsPerThread));
}

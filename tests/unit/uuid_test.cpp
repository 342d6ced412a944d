// UUID generation: time-based UUIDs that stay distinct when the clock
// repeats, goes back or is read by several threads at once.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "util/dlnaUtil_uuid.h"

namespace {

bool wellFormed(const std::string &uuid) {
  if (uuid.size() != 36 || uuid[14] != '1') return false;  // version 1
  for (size_t i = 0; i < uuid.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash != (uuid[i] == '-') || (!dash && !std::isxdigit(static_cast<unsigned char>(uuid[i])))) return false;
  }
  return (std::stoi(uuid.substr(19, 1), nullptr, 16) & 0xC) == 0x8;  // RFC 4122 variant
}

// Instants repeated and going back, then four threads at once.
TEST(Uuid, DistinctAndWellFormedWhenTheClockRepeatsGoesBackOrIsShared) {
  const timeval instants[] = {{1600000000, 250000}, {1600000000, 250000}, {1600000000, 250000},
                              {1600000100, 1},      {1600000050, 1},      {1600000050, 1}};
  constexpr int kThreads = 4, kCalls = 500;
  std::vector<std::vector<std::string>> results(kThreads + 1);
  for (const timeval &now : instants) {
    char text[48] = {0};
    ASSERT_EQ(dlnaUtilGetUuidAt(&now, text), 0);
    results[kThreads].emplace_back(text);
  }
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&results, t] {
      for (int i = 0; i < kCalls; ++i) {
        char text[48] = {0};
        dlnaUtil_getUuid(text);
        results[t].emplace_back(text);
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  std::set<std::string> seen;
  for (const auto &list : results) {
    for (const std::string &uuid : list) {
      EXPECT_TRUE(wellFormed(uuid)) << uuid;
      EXPECT_TRUE(seen.insert(uuid).second) << "duplicate " << uuid;
    }
  }
}

}  // namespace

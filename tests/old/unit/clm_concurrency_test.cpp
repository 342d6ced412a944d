// Readers of the content list (as the ContentDirectory and the HTTP file
// server are) against writers changing it: shared folders added and removed
// at run time, and the monitor taking in changes on disk.  Meant to be run
// under ThreadSanitizer as well.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "clm_test_support.h"

namespace {

using namespace clmtest;
using Clock = std::chrono::steady_clock;

constexpr int kReaders = 8;
constexpr auto kWriteTime = std::chrono::seconds(3);
// Readers stop when the writer is done, or at the latest after this.
constexpr auto kReaderLimit = std::chrono::seconds(60);
// Between two walks a reader lets go of the lock for a moment, as a request
// handler does while it writes its answer.  (Readers that re-take the lock
// back to back keep a writer out for as long as they run: the shared mutex
// prefers readers.)
constexpr auto kReaderPause = std::chrono::microseconds(200);

// Failures seen by any thread; the first few are kept for the report.
class FailureLog {
 public:
  void add(const std::string &what) {
    if (count_.fetch_add(1) < 10) {
      std::lock_guard<std::mutex> hold(mutex_);
      messages_.push_back(what);
    }
  }
  uint64_t count() const { return count_.load(); }
  std::string text() const {
    std::lock_guard<std::mutex> hold(mutex_);
    std::string text;
    for (const std::string &message : messages_) text += message + "\n";
    return text;
  }

 private:
  std::atomic<uint64_t> count_{0};
  mutable std::mutex mutex_;
  std::vector<std::string> messages_;
};

struct ReaderTotals {
  uint64_t walks = 0;
  uint64_t entries = 0;
  uint64_t lookups = 0;
};

// Checks one container and everything below it as a reader sees it.
void checkContainer(dmsContentListInfo *list, dmsContentEntry *container, bool isRoot,
                    FailureLog &failures, ReaderTotals &totals, uint32_t &highestId) {
  int32_t count = -1;
  dmsContentEntry **children = nullptr;
  if (dmsClmGetContainerInfoForEntry(container, nullptr, nullptr, &count, &children, nullptr) != 0 ||
      count < 0 || (count > 0 && children == nullptr)) {
    failures.add("container info of " + container->path);
    return;
  }
  const std::string prefix = container->path + "/";
  for (int32_t i = 0; i < count; ++i) {
    dmsContentEntry *child = children[i];
    if (child == nullptr) {
      failures.add("empty child slot in " + container->path);
      continue;
    }
    ++totals.entries;
    uint32_t type = 0;
    uint32_t id = 0;
    dmsClmGetTypeForEntry(child, &type, &id);
    if (id > highestId) highestId = id;
    if (child->parent != container) failures.add("wrong parent of " + child->path);
    if (!isRoot && child->path.compare(0, prefix.size(), prefix) != 0)
      failures.add(child->path + " is not below " + container->path);
    dmsContentEntry *byId = nullptr;
    if (dmsClmGetContentEntryById(list, &byId, id) != 0 || byId != child)
      failures.add("id " + std::to_string(id) + " does not find " + child->path);
    if (type == DMS_CLM_TYPE_ITEM) {
      mfdMediaInfo *media = nullptr;
      dmsContentEntry *parent = nullptr;
      if (dmsClmGetMediaInfoForEntry(child, nullptr, &media, &parent, nullptr) != 0 ||
          media == nullptr || media->formatId == MFD_FORMAT_NONE || media->mimeType == nullptr ||
          parent != container)
        failures.add("media info of " + child->path);
    } else if (type == DMS_CLM_TYPE_CONTAINER) {
      int32_t wd = child->watchDescriptor;
      dmsContentEntry *byWd = nullptr;
      if (wd >= 0 && (dmsClmGetContentEntryByFsmWd(list, &byWd, wd) != 0 || byWd != child))
        failures.add("descriptor " + std::to_string(wd) + " does not find " + child->path);
      checkContainer(list, child, false, failures, totals, highestId);
    } else {
      failures.add("type " + std::to_string(type) + " of " + child->path);
    }
  }
}

// Walks the whole list and looks up random ids until `writerDone`.
void readUntilDone(dmsContentListInfo *list, const std::atomic<bool> &writerDone,
                   FailureLog &failures, ReaderTotals &totals, unsigned seed) {
  std::mt19937 random(seed);
  uint32_t highestId = DMS_CLM_FIRST_ID;
  const auto limit = Clock::now() + kReaderLimit;
  for (bool first = true; !writerDone.load() && Clock::now() < limit; first = false) {
    if (!first) std::this_thread::sleep_for(kReaderPause);
    auto lock = dmsClmReadLock(list);
    dmsContentEntry *root = nullptr;
    if (dmsClmGetContentEntryById(list, &root, 0) != 0 || root == nullptr) {
      failures.add("no root");
      continue;
    }
    checkContainer(list, root, true, failures, totals, highestId);
    for (int i = 0; i < 50; ++i) {
      uint32_t id = std::uniform_int_distribution<uint32_t>(0, highestId + 100)(random);
      dmsContentEntry *entry = nullptr;
      if (dmsClmGetContentEntryById(list, &entry, id) != 0) failures.add("lookup failed");
      if (entry != nullptr && (entry->id != id || entry->path.empty()))
        failures.add("id " + std::to_string(id) + " found a different entry");
      ++totals.lookups;
    }
    ++totals.walks;
  }
}

// A folder of media with a sub-folder, made from the fixtures.
std::string buildFolder(const TempTree &tree, const std::string &name, int files) {
  for (int i = 0; i < files; ++i) {
    char file[64];
    std::snprintf(file, sizeof file, "%s/%s%02d.%s", name.c_str(), i % 3 == 2 ? "sub/" : "", i,
                  i % 2 == 0 ? "mp3" : "png");
    tree.media(file, i % 2 == 0 ? kMp3 : kPng);
  }
  return tree.path(name);
}

class ClmConcurrency : public ::testing::Test {
 protected:
  QuietTrace quiet;
  FilterFlag flag{0};
  TempTree tree;
  ListOwner list;
  FailureLog failures;
  std::atomic<bool> writerDone{false};
  std::vector<ReaderTotals> totals = std::vector<ReaderTotals>(kReaders);

  std::vector<std::thread> startReaders() {
    std::vector<std::thread> readers;
    for (int i = 0; i < kReaders; ++i)
      readers.emplace_back(readUntilDone, list.get(), std::cref(writerDone), std::ref(failures),
                           std::ref(totals[i]), 1234u + i);
    return readers;
  }
  void expectReadersWorked() {
    for (int i = 0; i < kReaders; ++i) EXPECT_GT(totals[i].walks, 0u) << "reader " << i;
    EXPECT_EQ(0u, failures.count()) << failures.text();
  }
};

TEST_F(ClmConcurrency, ReadersWalkWhileSharedFoldersComeAndGo) {
  std::string base = buildFolder(tree, "base", 6);
  std::vector<std::string> extras;
  for (int i = 0; i < 4; ++i) extras.push_back(buildFolder(tree, "extra" + std::to_string(i), 12));
  ASSERT_EQ(0, list.create({base}, 1000000));
  const size_t baseEntries = allEntries(list.get()).size();

  std::vector<std::thread> readers = startReaders();
  std::atomic<int> writeFailures{0};
  int rounds = 0;
  std::thread writer([&] {
    // Two extra folders are shared most of the time: one added, then the
    // previous one removed.
    const auto end = Clock::now() + kWriteTime;
    for (; rounds < 5000 && Clock::now() < end; ++rounds) {
      if (dmsClmAddToContentList(list.get(), extras[rounds % 4].c_str()) != 0) ++writeFailures;
      if (rounds > 0 &&
          dmsClmRemoveFromContentList(list.get(), extras[(rounds - 1) % 4].c_str()) != 0)
        ++writeFailures;
    }
    if (rounds > 0 &&
        dmsClmRemoveFromContentList(list.get(), extras[(rounds - 1) % 4].c_str()) != 0)
      ++writeFailures;
    writerDone = true;
  });
  writer.join();
  for (std::thread &reader : readers) reader.join();

  // The writer must not be starved by the readers.
  EXPECT_GE(rounds, 10);
  EXPECT_EQ(0, writeFailures.load());
  expectReadersWorked();
  std::vector<EntryView> after = allEntries(list.get());
  EXPECT_EQ(baseEntries, after.size());
  EXPECT_EQ(base, after.front().path);
  EXPECT_EQ(static_cast<int32_t>(baseEntries), list.get()->entryCount);
  std::printf("[          ] %d rounds of add and remove; reader 0: %llu walks, %llu entries\n",
              rounds, static_cast<unsigned long long>(totals[0].walks),
              static_cast<unsigned long long>(totals[0].entries));
  EXPECT_EQ(0, list.release());
}

// The monitor thread changes the list on its own while files and folders
// appear and disappear under a shared folder.
TEST_F(ClmConcurrency, ReadersWalkWhileTheMonitorTakesInChanges) {
  std::string base = buildFolder(tree, "base", 6);
  ASSERT_EQ(0, list.create({base}, 1000000));

  std::vector<std::thread> readers = startReaders();
  int rounds = 0;
  std::thread writer([&] {
    const auto end = Clock::now() + kWriteTime;
    std::error_code error;
    for (; rounds < 500 && Clock::now() < end; ++rounds) {
      std::string name = "base/new" + std::to_string(rounds % 3);
      if (rounds % 2 == 0) {
        // A file written in place (taken in when it is closed) and a folder.
        tree.media(name + ".mp3", kMp3);
        fs::path written = tree.root() / ("base/w" + std::to_string(rounds % 3) + ".mp3");
        fs::copy_file(kOtherMp3, written, fs::copy_options::overwrite_existing, error);
        tree.media(name + "/in.png", kPng);
      } else {
        fs::remove(tree.root() / (name + ".mp3"), error);
        fs::remove(tree.root() / ("base/w" + std::to_string(rounds % 3) + ".mp3"), error);
        fs::remove_all(tree.root() / name, error);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    writerDone = true;
  });
  writer.join();
  for (std::thread &reader : readers) reader.join();

  EXPECT_GT(rounds, 0);
  expectReadersWorked();
  EXPECT_EQ(0, list.release());
}

}  // namespace

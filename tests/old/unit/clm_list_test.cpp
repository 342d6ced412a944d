// The content list: creation, the root and the first ids, lookups by id and by
// watch descriptor, the getters, run-time addition and removal of shared
// folders, the host's lock and the release of everything.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <future>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "clm_test_support.h"

namespace {

using namespace clmtest;

size_t countEntries(const char *folder) {
  size_t count = 0;
  std::error_code error;
  for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error))
    ++count;
  return count;
}

// ---------------------------------------------------------------------------
// Creation, the root and the ids

class ClmList : public ::testing::Test {
 protected:
  QuietTrace quiet;
  FilterFlag flag{0};
  TempTree tree;
  ListOwner list;
};

TEST_F(ClmList, RootIsIdZeroAndTheFirstSharedFolderIs1001) {
  std::string shared = tree.folder("shared");
  std::string song = tree.media("shared/a.mp3", kMp3);
  tree.media("shared/b.jpg", kJpeg);
  ASSERT_EQ(0, list.create({shared}, 100));
  ASSERT_NE(nullptr, list.get());

  {
    auto lock = dmsClmReadLock(list.get());
    dmsContentEntry *root = lookup(list.get(), 0);
    ASSERT_NE(nullptr, root);
    EXPECT_EQ("root", root->path);
    uint32_t type = 99;
    uint32_t id = 99;
    EXPECT_EQ(0, dmsClmGetTypeForEntry(root, &type, &id));
    EXPECT_EQ(DMS_CLM_TYPE_ROOT, type);
    EXPECT_EQ(0u, id);

    uint32_t reserved = 7;
    dmsContentEntry *parent = root;
    int32_t childCount = -1;
    dmsContentEntry **children = nullptr;
    EXPECT_EQ(0, dmsClmGetContainerInfoForEntry(root, &id, &parent, &childCount, &children,
                                                &reserved));
    EXPECT_EQ(nullptr, parent);
    EXPECT_EQ(0u, reserved);
    ASSERT_EQ(1, childCount);

    dmsContentEntry *folder = children[0];
    EXPECT_EQ(folder, lookup(list.get(), DMS_CLM_FIRST_ID));
    EXPECT_EQ(1001u, folder->id);
    EXPECT_EQ(shared, folder->path);
    EXPECT_EQ(DMS_CLM_TYPE_CONTAINER, folder->type);
    EXPECT_EQ(root, folder->parent);

    dmsContentEntry *first = lookup(list.get(), 1002);
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(song, first->path);
    EXPECT_EQ(DMS_CLM_TYPE_ITEM, first->type);
    EXPECT_EQ(folder, first->parent);
    EXPECT_EQ(static_cast<int64_t>(fs::file_size(song)), first->fileSize);
    EXPECT_EQ(-1, first->watchDescriptor);

    mfdMediaInfo *media = nullptr;
    reserved = 7;
    parent = nullptr;
    EXPECT_EQ(0, dmsClmGetMediaInfoForEntry(first, &id, &media, &parent, &reserved));
    EXPECT_EQ(1002u, id);
    EXPECT_EQ(folder, parent);
    EXPECT_EQ(0u, reserved);
    ASSERT_NE(nullptr, media);
    EXPECT_EQ(MFD_CLASS_AUDIO, media->mediaClass);
    EXPECT_EQ(MFD_FORMAT_MP3, media->formatId);

    dmsContentEntry *second = lookup(list.get(), 1003);
    ASSERT_NE(nullptr, second);
    ASSERT_NE(nullptr, second->mediaInfo);
    EXPECT_EQ(MFD_FORMAT_JPEG, second->mediaInfo->formatId);
    EXPECT_EQ(nullptr, lookup(list.get(), 1004));
  }

  int32_t containers = -1;
  int32_t items = -1;
  EXPECT_EQ(0, dmsClmGetCounts(list.get(), &containers, &items));
  EXPECT_EQ(1, containers);
  EXPECT_EQ(2, items);
  EXPECT_EQ(3, list.get()->entryCount);
  EXPECT_EQ(1004u, list.get()->nextId);
  EXPECT_EQ(0, list.release());
}

TEST_F(ClmList, IdsThatWereNeverGivenOutAreNotFound) {
  std::string shared = tree.folder("shared");
  tree.media("shared/a.mp3", kMp3);
  ASSERT_EQ(0, list.create({shared}, 100));
  {
    auto lock = dmsClmReadLock(list.get());
    for (uint32_t id : {5u, 1u, 1000u, 1003u, 0xFFFFFFFFu}) {
      dmsContentEntry *entry = reinterpret_cast<dmsContentEntry *>(0x1);
      EXPECT_EQ(0, dmsClmGetContentEntryById(list.get(), &entry, id)) << id;
      EXPECT_EQ(nullptr, entry) << id;
    }
  }
  EXPECT_EQ(0, list.release());
}

TEST_F(ClmList, EveryEntryIsFoundByIdAndEveryFolderByItsWatchDescriptor) {
  std::string music = tree.folder("music");
  tree.media("music/a.mp3", kMp3);
  tree.media("music/rock/b.mp3", kOtherMp3);
  tree.media("music/rock/live/c.wav", kWav);
  tree.folder("music/empty");
  std::string photos = tree.folder("photos");
  tree.media("photos/2020/x.jpg", kJpeg);
  tree.media("photos/y.png", kPng);
  ASSERT_EQ(0, list.create({music, photos}, 1000));

  std::vector<EntryView> entries = allEntries(list.get());
  ASSERT_EQ(11u, entries.size());
  auto lock = dmsClmReadLock(list.get());
  std::set<int32_t> descriptors;
  int32_t highestDescriptor = 0;
  for (const EntryView &view : entries) {
    EXPECT_EQ(view.entry, lookup(list.get(), view.id)) << view.path;
    int32_t wd = view.entry->watchDescriptor;
    if (view.type == DMS_CLM_TYPE_ITEM) {
      EXPECT_EQ(-1, wd) << view.path;
      continue;
    }
    ASSERT_GE(wd, 0) << view.path;
    EXPECT_TRUE(descriptors.insert(wd).second) << "descriptor " << wd << " given twice";
    highestDescriptor = std::max(highestDescriptor, wd);
    dmsContentEntry *found = nullptr;
    EXPECT_EQ(0, dmsClmGetContentEntryByFsmWd(list.get(), &found, wd));
    EXPECT_EQ(view.entry, found) << view.path;
  }
  EXPECT_EQ(6u, descriptors.size());
  dmsContentEntry *unknown = reinterpret_cast<dmsContentEntry *>(0x1);
  EXPECT_EQ(0, dmsClmGetContentEntryByFsmWd(list.get(), &unknown, highestDescriptor + 1000));
  EXPECT_EQ(nullptr, unknown);
  lock.unlock();
  EXPECT_EQ(0, list.release());
}

TEST_F(ClmList, SharedMediaFileBecomesAnItemUnderTheRoot) {
  std::string song = tree.media("loose.mp3", kMp3);
  std::string notes = tree.text("notes.txt");
  std::string folder = tree.folder("folder");
  std::string inside = tree.media("folder/x.png", kPng);
  ASSERT_EQ(0, list.create({song, notes, folder}, 100));

  auto lock = dmsClmReadLock(list.get());
  dmsContentEntry *root = rootOf(list.get());
  std::vector<dmsContentEntry *> shared = childrenOf(root);
  // The text file is refused by detection: only the song and the folder stay.
  ASSERT_EQ(2u, shared.size());
  EXPECT_EQ(song, shared[0]->path);
  EXPECT_EQ(DMS_CLM_TYPE_ITEM, shared[0]->type);
  EXPECT_EQ(root, shared[0]->parent);
  ASSERT_NE(nullptr, shared[0]->mediaInfo);
  EXPECT_EQ(MFD_FORMAT_MP3, shared[0]->mediaInfo->formatId);
  EXPECT_EQ(folder, shared[1]->path);
  std::vector<dmsContentEntry *> contents = childrenOf(shared[1]);
  ASSERT_EQ(1u, contents.size());
  EXPECT_EQ(inside, contents[0]->path);
  lock.unlock();
  EXPECT_EQ(0, list.release());
}

// Children are appended one at a time; a wide folder must keep all of them,
// in name order, with consecutive ids.
TEST_F(ClmList, WideFolderKeepsEveryChildInNameOrder) {
  constexpr int kFiles = 2000;
  std::string shared = tree.folder("wide");
  for (int i = 0; i < kFiles; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "wide/f%05d.%s", i, i % 2 == 0 ? "mp3" : "png");
    tree.media(name, i % 2 == 0 ? kMp3 : kPng);
  }
  ASSERT_EQ(0, list.create({shared}, kFiles + 10));

  auto lock = dmsClmReadLock(list.get());
  dmsContentEntry *folder = lookup(list.get(), 1001);
  ASSERT_NE(nullptr, folder);
  std::vector<dmsContentEntry *> children = childrenOf(folder);
  ASSERT_EQ(static_cast<size_t>(kFiles), children.size());
  for (int i = 0; i < kFiles; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "f%05d", i);
    EXPECT_EQ(1002u + i, children[i]->id);
    EXPECT_EQ(name, fs::path(children[i]->path).stem().string());
    EXPECT_EQ(folder, children[i]->parent);
  }
  lock.unlock();
  EXPECT_EQ(0, list.release());
}

// The monitor's inotify descriptor and thread go with the list.
TEST_F(ClmList, FreeingTheListLeavesNoDescriptorOrThreadBehind) {
  std::string shared = tree.folder("shared");
  tree.media("shared/sub/a.mp3", kMp3);
  tree.media("shared/b.jpg", kJpeg);
  size_t descriptors = countEntries("/proc/self/fd");
  size_t threads = countEntries("/proc/self/task");
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(0, list.create({shared}, 100));
    EXPECT_EQ(4, list.get()->entryCount);
    EXPECT_EQ(0, list.release());
    EXPECT_EQ(descriptors, countEntries("/proc/self/fd")) << "round " << round;
    EXPECT_EQ(threads, countEntries("/proc/self/task")) << "round " << round;
  }
}

// ---------------------------------------------------------------------------
// Arguments

class ClmListArguments : public ClmList {};

TEST_F(ClmListArguments, CreateRefusesMissingArgumentsAndCounts) {
  std::string shared = tree.folder("shared");
  char *paths[] = {shared.data()};
  dmsContentListInfo *out = reinterpret_cast<dmsContentListInfo *>(0x1);
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsClmCreateContentList(nullptr, paths, 1, 10));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsClmCreateContentList(&out, nullptr, 1, 10));
  EXPECT_EQ(nullptr, out);
  out = reinterpret_cast<dmsContentListInfo *>(0x1);
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsClmCreateContentList(&out, paths, 0, 10));
  EXPECT_EQ(nullptr, out);
  out = reinterpret_cast<dmsContentListInfo *>(0x1);
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsClmCreateContentList(&out, paths, 1, 0));
  EXPECT_EQ(nullptr, out);
  out = reinterpret_cast<dmsContentListInfo *>(0x1);
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsClmCreateContentList(&out, paths, -1, 10));
  EXPECT_EQ(nullptr, out);
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsClmFreeContentList(nullptr));
}

TEST_F(ClmListArguments, GettersAndLookupsRefuseNullAndSkipNullResults) {
  std::string shared = tree.folder("shared");
  tree.media("shared/a.mp3", kMp3);
  ASSERT_EQ(0, list.create({shared}, 10));

  dmsContentEntry *entry = nullptr;
  uint32_t id = 0;
  uint32_t type = 0;
  uint32_t reserved = 0;
  int32_t count = 0;
  mfdMediaInfo *media = nullptr;
  dmsContentEntry *parent = nullptr;
  dmsContentEntry **children = nullptr;
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsClmGetContentEntryById(nullptr, &entry, 0));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsClmGetContentEntryById(list.get(), nullptr, 0));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsClmGetContentEntryByFsmWd(nullptr, &entry, 1));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsClmGetContentEntryByFsmWd(list.get(), nullptr, 1));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsClmGetTypeForEntry(nullptr, &type, &id));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM,
            dmsClmGetMediaInfoForEntry(nullptr, &id, &media, &parent, &reserved));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsClmGetContainerInfoForEntry(nullptr, &id, &parent, &count,
                                                                  &children, &reserved));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsClmGetCounts(nullptr, &count, &count));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsClmGetCounts(list.get(), nullptr, &count));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsClmGetCounts(list.get(), &count, nullptr));

  {
    auto lock = dmsClmReadLock(list.get());
    dmsContentEntry *folder = lookup(list.get(), 1001);
    dmsContentEntry *item = lookup(list.get(), 1002);
    ASSERT_NE(nullptr, folder);
    ASSERT_NE(nullptr, item);
    EXPECT_EQ(0, dmsClmGetTypeForEntry(item, nullptr, nullptr));
    EXPECT_EQ(0, dmsClmGetMediaInfoForEntry(item, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(0,
              dmsClmGetContainerInfoForEntry(folder, nullptr, nullptr, nullptr, nullptr, nullptr));
    // Only the asked-for results are written.
    EXPECT_EQ(0, dmsClmGetTypeForEntry(item, nullptr, &id));
    EXPECT_EQ(1002u, id);
    EXPECT_EQ(0, dmsClmGetContainerInfoForEntry(folder, nullptr, nullptr, &count, nullptr,
                                                nullptr));
    EXPECT_EQ(1, count);
  }
  EXPECT_EQ(0, list.release());
}

TEST_F(ClmListArguments, AddAndRemoveRefuseNullArguments) {
  std::string shared = tree.folder("shared");
  ASSERT_EQ(0, list.create({shared}, 10));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsClmAddToContentList(nullptr, shared.c_str()));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsClmAddToContentList(list.get(), nullptr));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsClmRemoveFromContentList(nullptr, shared.c_str()));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsClmRemoveFromContentList(list.get(), nullptr));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsClmLockContentList(nullptr));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsClmUnlockContentList(nullptr));
  EXPECT_EQ(0, list.release());
}

// ---------------------------------------------------------------------------
// Run-time addition and removal of shared folders

class ClmRuntime : public ClmList {};

TEST_F(ClmRuntime, AddedFolderIsScannedWithIdsContinuing) {
  std::string first = tree.folder("first");
  tree.media("first/a.mp3", kMp3);
  tree.media("first/b.png", kPng);
  std::string second = tree.folder("second");
  tree.media("second/inner/c.jpg", kJpeg);
  tree.text("second/inner/readme.txt");
  tree.media("second/d.wav", kWav);
  ASSERT_EQ(0, list.create({first}, 100));
  EXPECT_EQ(1004u, list.get()->nextId);

  ASSERT_EQ(0, dmsClmAddToContentList(list.get(), second.c_str()));
  std::vector<EntryView> entries = allEntries(list.get());
  std::vector<std::string> expected = {"first", "first/a.mp3", "first/b.png", "second",
                                       "second/d.wav", "second/inner", "second/inner/c.jpg"};
  EXPECT_EQ(expected, relativePaths(entries, tree.root()));
  // "inner" sorts after "d.wav": ids follow name order, a folder before its contents.
  std::vector<uint32_t> ids;
  for (const EntryView &view : entries) ids.push_back(view.id);
  EXPECT_EQ((std::vector<uint32_t>{1001, 1002, 1003, 1004, 1005, 1006, 1007}), ids);

  auto lock = dmsClmReadLock(list.get());
  dmsContentEntry *added = lookup(list.get(), 1004);
  ASSERT_NE(nullptr, added);
  EXPECT_EQ(rootOf(list.get()), added->parent);
  EXPECT_GE(added->watchDescriptor, 0);
  dmsContentEntry *byWd = nullptr;
  EXPECT_EQ(0, dmsClmGetContentEntryByFsmWd(list.get(), &byWd, added->watchDescriptor));
  EXPECT_EQ(added, byWd);
  lock.unlock();

  int32_t containers = 0;
  int32_t items = 0;
  EXPECT_EQ(0, dmsClmGetCounts(list.get(), &containers, &items));
  EXPECT_EQ(3, containers);
  EXPECT_EQ(4, items);
  EXPECT_EQ(0, list.release());
}

TEST_F(ClmRuntime, AddRefusesFilesAndMissingPaths) {
  std::string shared = tree.folder("shared");
  tree.media("shared/a.mp3", kMp3);
  std::string file = tree.media("loose.mp3", kMp3);
  ASSERT_EQ(0, list.create({shared}, 100));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsClmAddToContentList(list.get(), file.c_str()));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM,
            dmsClmAddToContentList(list.get(), tree.path("missing").c_str()));
  {
    auto lock = dmsClmReadLock(list.get());
    EXPECT_EQ(1u, childrenOf(rootOf(list.get())).size());
  }
  EXPECT_EQ(2, list.get()->entryCount);
  EXPECT_EQ(0, list.release());
}

TEST_F(ClmRuntime, RemovedFolderDisappearsFromBothLookups) {
  std::string keep = tree.folder("keep");
  tree.media("keep/a.mp3", kMp3);
  std::string drop = tree.folder("drop");
  tree.media("drop/b.mp3", kMp3);
  tree.media("drop/sub/c.png", kPng);
  tree.media("drop/sub/deeper/d.jpg", kJpeg);
  ASSERT_EQ(0, list.create({drop, keep}, 100));

  std::vector<EntryView> before = allEntries(list.get());
  std::vector<uint32_t> droppedIds;
  std::vector<int32_t> droppedDescriptors;
  {
    auto lock = dmsClmReadLock(list.get());
    for (const EntryView &view : before) {
      if (view.path.rfind(drop, 0) != 0) continue;
      droppedIds.push_back(view.id);
      if (view.type == DMS_CLM_TYPE_CONTAINER) droppedDescriptors.push_back(view.entry->watchDescriptor);
    }
  }
  ASSERT_EQ(6u, droppedIds.size());
  ASSERT_EQ(3u, droppedDescriptors.size());

  ASSERT_EQ(0, dmsClmRemoveFromContentList(list.get(), drop.c_str()));
  {
    auto lock = dmsClmReadLock(list.get());
    for (uint32_t id : droppedIds) EXPECT_EQ(nullptr, lookup(list.get(), id)) << id;
    for (int32_t wd : droppedDescriptors) {
      dmsContentEntry *entry = reinterpret_cast<dmsContentEntry *>(0x1);
      EXPECT_EQ(0, dmsClmGetContentEntryByFsmWd(list.get(), &entry, wd));
      EXPECT_EQ(nullptr, entry) << "descriptor " << wd;
    }
    std::vector<dmsContentEntry *> shared = childrenOf(rootOf(list.get()));
    ASSERT_EQ(1u, shared.size());
    EXPECT_EQ(keep, shared[0]->path);
    dmsContentEntry *kept = lookup(list.get(), shared[0]->id);
    EXPECT_EQ(shared[0], kept);
    dmsContentEntry *byWd = nullptr;
    EXPECT_EQ(0, dmsClmGetContentEntryByFsmWd(list.get(), &byWd, kept->watchDescriptor));
    EXPECT_EQ(kept, byWd);
  }
  EXPECT_EQ((std::vector<std::string>{"keep", "keep/a.mp3"}),
            relativePaths(allEntries(list.get()), tree.root()));
  EXPECT_EQ(2, list.get()->entryCount);

  // Shared again: new ids, none of the old ones reused.
  uint32_t nextBefore = list.get()->nextId;
  ASSERT_EQ(0, dmsClmAddToContentList(list.get(), drop.c_str()));
  for (const EntryView &view : allEntries(list.get())) {
    if (view.path.rfind(drop, 0) == 0) {
      EXPECT_GE(view.id, nextBefore) << view.path;
    }
  }
  EXPECT_EQ(8, list.get()->entryCount);
  EXPECT_EQ(0, list.release());
}

TEST_F(ClmRuntime, RemovingAPathThatIsNotSharedChangesNothing) {
  std::string shared = tree.folder("shared");
  tree.media("shared/a.mp3", kMp3);
  std::string sub = tree.folder("shared/sub");
  tree.media("shared/sub/b.mp3", kMp3);
  ASSERT_EQ(0, list.create({shared}, 100));
  std::vector<std::string> before = relativePaths(allEntries(list.get()), tree.root());

  EXPECT_EQ(0, dmsClmRemoveFromContentList(list.get(), tree.path("elsewhere").c_str()));
  // A folder inside a shared folder is not itself a shared path.
  EXPECT_EQ(0, dmsClmRemoveFromContentList(list.get(), sub.c_str()));
  EXPECT_EQ(0, dmsClmRemoveFromContentList(list.get(), "root"));
  EXPECT_EQ(before, relativePaths(allEntries(list.get()), tree.root()));
  EXPECT_EQ(4, list.get()->entryCount);
  EXPECT_EQ(0, list.release());
}

// ---------------------------------------------------------------------------
// The host's lock

class ClmHostLock : public ClmList {};

TEST_F(ClmHostLock, ServerOperationsDoNotWaitForTheHostsLock) {
  std::string shared = tree.folder("shared");
  tree.media("shared/a.mp3", kMp3);
  std::string extra = tree.folder("extra");
  tree.media("extra/b.png", kPng);
  ASSERT_EQ(0, list.create({shared}, 100));

  ASSERT_EQ(0, dmsClmLockContentList(list.get()));
  std::future<int32_t> changes = std::async(std::launch::async, [&] {
    int32_t result = dmsClmAddToContentList(list.get(), extra.c_str());
    int32_t containers = 0;
    int32_t items = 0;
    if (result == 0) result = dmsClmGetCounts(list.get(), &containers, &items);
    if (result == 0) result = dmsClmRemoveFromContentList(list.get(), extra.c_str());
    return result;
  });
  bool finished = changes.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
  EXPECT_EQ(0, dmsClmUnlockContentList(list.get()));
  EXPECT_TRUE(finished) << "a server operation waited for the host's lock";
  EXPECT_EQ(0, changes.get());

  // The lock is usable again from another thread.
  std::thread other([&] {
    EXPECT_EQ(0, dmsClmLockContentList(list.get()));
    EXPECT_EQ(0, dmsClmUnlockContentList(list.get()));
  });
  other.join();
  EXPECT_EQ(0, list.release());
}

}  // namespace

// Scanning shared paths into the content list: id order, detection, symbolic
// links, missing paths, the host's name filter and the entry budget.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "clm_test_support.h"

namespace {

using namespace clmtest;

using Paths = std::vector<std::string>;

std::vector<uint32_t> idsOf(const std::vector<EntryView> &entries) {
  std::vector<uint32_t> ids;
  for (const EntryView &view : entries) ids.push_back(view.id);
  return ids;
}

std::vector<uint32_t> consecutiveIds(uint32_t first, size_t count) {
  std::vector<uint32_t> ids;
  for (size_t i = 0; i < count; ++i) ids.push_back(first + static_cast<uint32_t>(i));
  return ids;
}

// Every entry's path is its parent's path, "/" and one name, and every entry
// is reachable by its id.
void expectConsistent(dmsContentListInfo *list, const std::vector<EntryView> &entries) {
  auto lock = dmsClmReadLock(list);
  dmsContentEntry *root = rootOf(list);
  for (const EntryView &view : entries) {
    EXPECT_EQ(view.entry, lookup(list, view.id)) << view.path;
    ASSERT_NE(nullptr, view.parent) << view.path;
    if (view.parent == root) continue;
    EXPECT_EQ(view.parent->path + "/" + fs::path(view.path).filename().string(), view.path);
    if (view.type == DMS_CLM_TYPE_ITEM) {
      ASSERT_NE(nullptr, view.entry->mediaInfo) << view.path;
      EXPECT_NE(0u, view.entry->mediaInfo->formatId) << view.path;
      EXPECT_NE(0u, view.entry->mediaInfo->mediaClass) << view.path;
    }
  }
}

class ClmScan : public ::testing::Test {
 protected:
  QuietTrace quiet;
  FilterFlag flag{0};
  TempTree tree;
  ListOwner list;
};

// ---------------------------------------------------------------------------
// Order and detection

TEST_F(ClmScan, IdsFollowByteWiseNameOrderWithAFolderBeforeItsContents) {
  std::string shared = tree.folder("shared");
  // Created out of order on purpose.
  tree.media("shared/b.mp3", kMp3);
  tree.media("shared/a.mp3", kMp3);
  tree.media("shared/c.mp3", kMp3);
  tree.media("shared/dir/z.mp3", kMp3);
  tree.media("shared/dir/y.png", kPng);
  tree.media("shared/B.png", kPng);
  tree.media("shared/\xc3\xa9t\xc3\xa9.jpg", kJpeg);
  tree.media("shared/_.wav", kWav);
  ASSERT_EQ(0, list.create({shared}, 100));

  std::vector<EntryView> entries = allEntries(list.get());
  Paths expected = {"shared",       "shared/B.png",     "shared/_.wav",
                    "shared/a.mp3", "shared/b.mp3",     "shared/c.mp3",
                    "shared/dir",   "shared/dir/y.png", "shared/dir/z.mp3",
                    "shared/\xc3\xa9t\xc3\xa9.jpg"};
  EXPECT_EQ(expected, relativePaths(entries, tree.root()));
  EXPECT_EQ(consecutiveIds(1001, expected.size()), idsOf(entries));
  expectConsistent(list.get(), entries);
  EXPECT_EQ(0, list.release());
}

TEST_F(ClmScan, FilesThatDetectionDoesNotRecogniseAreDroppedWithoutAnId) {
  std::string shared = tree.folder("shared");
  tree.text("shared/a.txt");
  tree.media("shared/b.mp3", kMp3);
  tree.media("shared/c.jpg", mediaFixture("image/text.jpg"));
  tree.media("shared/d.mp3", mediaFixture("audio/negative/random.mp3"));
  tree.text("shared/e.png", "");
  tree.media("shared/f.png", kPng);
  tree.text("shared/sub/g.txt");
  ASSERT_EQ(0, list.create({shared}, 100));

  std::vector<EntryView> entries = allEntries(list.get());
  EXPECT_EQ((Paths{"shared", "shared/b.mp3", "shared/f.png", "shared/sub"}),
            relativePaths(entries, tree.root()));
  EXPECT_EQ(consecutiveIds(1001, 4), idsOf(entries));
  EXPECT_EQ(4, list.get()->entryCount);
  expectConsistent(list.get(), entries);
  EXPECT_EQ(0, list.release());
}

TEST_F(ClmScan, ItemsCarryTheirSizeAndWhatDetectionFound) {
  std::string shared = tree.folder("shared");
  std::string song = tree.media("shared/a.mp3", kMp3);
  std::string picture = tree.media("shared/b.png", kPng);
  std::string sound = tree.media("shared/c.wav", kWav);
  ASSERT_EQ(0, list.create({shared}, 100));

  auto lock = dmsClmReadLock(list.get());
  struct Expected {
    uint32_t id;
    std::string path;
    uint32_t mediaClass;
    uint32_t formatId;
  };
  for (const Expected &expected : {Expected{1002, song, MFD_CLASS_AUDIO, MFD_FORMAT_MP3},
                                   Expected{1003, picture, MFD_CLASS_IMAGE, MFD_FORMAT_PNG},
                                   Expected{1004, sound, MFD_CLASS_AUDIO, MFD_FORMAT_WAV}}) {
    dmsContentEntry *entry = lookup(list.get(), expected.id);
    ASSERT_NE(nullptr, entry) << expected.path;
    EXPECT_EQ(expected.path, entry->path);
    EXPECT_EQ(static_cast<int64_t>(fs::file_size(expected.path)), entry->fileSize);
    ASSERT_NE(nullptr, entry->mediaInfo);
    EXPECT_EQ(expected.mediaClass, entry->mediaInfo->mediaClass) << expected.path;
    EXPECT_EQ(expected.formatId, entry->mediaInfo->formatId) << expected.path;
  }
  dmsContentEntry *picture1003 = lookup(list.get(), 1003);
  EXPECT_EQ(48, picture1003->mediaInfo->width);
  EXPECT_EQ(48, picture1003->mediaInfo->height);
  lock.unlock();
  EXPECT_EQ(0, list.release());
}

// ---------------------------------------------------------------------------
// Several shared paths

TEST_F(ClmScan, EachSharedPathIsScannedUnderItsOwnContainer) {
  std::string first = tree.folder("first");
  tree.media("first/a.mp3", kMp3);
  tree.media("first/sub/x.png", kPng);
  std::string second = tree.folder("second");
  tree.media("second/b.jpg", kJpeg);
  std::string third = tree.folder("third");
  tree.media("third/c.wav", kWav);
  // Missing paths before, between and after the real ones.
  ASSERT_EQ(0, list.create({tree.path("gone"), first, tree.path("lost/deeper"), second, third,
                            tree.path("vanished")},
                           100));

  std::vector<EntryView> entries = allEntries(list.get());
  Paths paths = relativePaths(entries, tree.root());
  std::sort(paths.begin(), paths.end());
  EXPECT_EQ((Paths{"first", "first/a.mp3", "first/sub", "first/sub/x.png", "second",
                   "second/b.jpg", "third", "third/c.wav"}),
            paths);
  {
    auto lock = dmsClmReadLock(list.get());
    std::vector<dmsContentEntry *> shared = childrenOf(rootOf(list.get()));
    ASSERT_EQ(3u, shared.size());
    EXPECT_EQ(first, shared[0]->path);
    EXPECT_EQ(second, shared[1]->path);
    EXPECT_EQ(third, shared[2]->path);
    // The shared folders take their ids first, in the order given; then
    // the contents of each, depth first.
    EXPECT_EQ(1001u, shared[0]->id);
    EXPECT_EQ(1002u, shared[1]->id);
    EXPECT_EQ(1003u, shared[2]->id);
    EXPECT_EQ(1004u, childrenOf(shared[0])[0]->id);  // first/a.mp3
  }
  expectConsistent(list.get(), entries);
  EXPECT_EQ(0, list.release());
}

TEST_F(ClmScan, OnlyMissingPathsGiveAnEmptyRoot) {
  ASSERT_EQ(0, list.create({tree.path("gone"), tree.path("lost")}, 100));
  {
    auto lock = dmsClmReadLock(list.get());
    ASSERT_NE(nullptr, rootOf(list.get()));
    EXPECT_TRUE(childrenOf(rootOf(list.get())).empty());
  }
  EXPECT_EQ(0, list.get()->entryCount);
  EXPECT_EQ(0, list.release());
}

// ---------------------------------------------------------------------------
// Symbolic links

TEST_F(ClmScan, LinksToAnAncestorFolderAreNotEnteredAgain) {
  std::string shared = tree.folder("shared");
  tree.media("shared/a.mp3", kMp3);
  tree.media("shared/sub/b.mp3", kMp3);
  tree.link("shared/sub/up", "..");
  tree.link("shared/sub/deep/loop", "../..");
  tree.link("shared/sub/deep/self", ".");
  tree.link("shared/sub/deep/absolute", shared);
  tree.link("shared/sub/deep/above", tree.root());
  ASSERT_EQ(0, list.create({shared}, 100000));

  std::vector<EntryView> entries = allEntries(list.get());
  // Real folders and files all appear once under their own path.
  Paths real = {"shared", "shared/a.mp3", "shared/sub", "shared/sub/b.mp3", "shared/sub/deep"};
  Paths paths = relativePaths(entries, tree.root());
  for (const std::string &path : real)
    EXPECT_EQ(1, std::count(paths.begin(), paths.end(), path)) << path;
  // Nothing is listed below a link back up the tree (the link above the shared
  // folder may show the shared folder's siblings, of which there are none).
  for (const std::string &path : paths) {
    for (const char *link : {"/up/", "/loop/", "/self/", "/absolute/"})
      EXPECT_EQ(std::string::npos, path.find(link)) << path;
    EXPECT_EQ(std::string::npos, path.find("/above/shared/")) << path;
  }
  EXPECT_LT(entries.size(), 16u);
  expectConsistent(list.get(), entries);
  EXPECT_EQ(0, list.release());
}

TEST_F(ClmScan, OtherLinksAreFollowed) {
  std::string shared = tree.folder("shared");
  tree.media("shared/alpha/x.mp3", kMp3);
  tree.link("shared/beta", "alpha");
  tree.media("outside/y.png", kPng);
  tree.media("outside/deeper/z.jpg", kJpeg);
  tree.link("shared/gamma", tree.path("outside"));
  tree.media("real.wav", kWav);
  tree.link("shared/song.wav", tree.path("real.wav"));
  tree.link("shared/dangling.mp3", tree.path("nothing-here.mp3"));
  tree.media("shared/zz.mp3", kMp3);
  ASSERT_EQ(0, list.create({shared}, 100));

  std::vector<EntryView> entries = allEntries(list.get());
  EXPECT_EQ((Paths{"shared", "shared/alpha", "shared/alpha/x.mp3", "shared/beta",
                   "shared/beta/x.mp3", "shared/gamma", "shared/gamma/deeper",
                   "shared/gamma/deeper/z.jpg", "shared/gamma/y.png", "shared/song.wav",
                   "shared/zz.mp3"}),
            relativePaths(entries, tree.root()));
  EXPECT_EQ(consecutiveIds(1001, 11), idsOf(entries));
  for (const EntryView &view : entries) {
    if (view.path == tree.path("shared/beta") || view.path == tree.path("shared/gamma")) {
      EXPECT_EQ(DMS_CLM_TYPE_CONTAINER, view.type) << view.path;
    }
  }
  expectConsistent(list.get(), entries);
  EXPECT_EQ(0, list.release());
}

// ---------------------------------------------------------------------------
// The host's name filter

class ClmFilter : public ClmScan {};

TEST_F(ClmFilter, OnlyTheKnownExtensionsInAnyCaseAreOffered) {
  std::string shared = tree.folder("shared");
  tree.media("shared/Photo.JPG", kJpeg);
  tree.text("shared/notes.txt");
  tree.media("shared/song.mp3.bak", kMp3);
  tree.media("shared/Song.Mp3", kMp3);
  tree.media("shared/tune.WAV", kWav);
  tree.media("shared/pic.png", kPng);
  tree.media("shared/noext", kMp3);
  tree.media("shared/.mp3", kMp3);
  tree.media("shared/image.jpeg", kJpeg);
  tree.media("shared/anim.Gif", mediaFixture("image/gif89a-800x600.gif"));
  tree.media("shared/radio.aac", mediaFixture("audio/aac/adts-44k-stereo.aac"));
  tree.media("shared/dolby.ac3", mediaFixture("audio/ac3/ac3-48k-stereo.ac3"));

  {
    FilterFlag on(1);
    ASSERT_EQ(0, list.create({shared}, 100));
    std::vector<EntryView> entries = allEntries(list.get());
    EXPECT_EQ((Paths{"shared", "shared/.mp3", "shared/Photo.JPG", "shared/Song.Mp3",
                     "shared/anim.Gif", "shared/pic.png", "shared/radio.aac", "shared/tune.WAV"}),
              relativePaths(entries, tree.root()));
    EXPECT_EQ(consecutiveIds(1001, 8), idsOf(entries));
    EXPECT_EQ(0, list.release());
  }
  // Without the filter detection alone decides.
  ASSERT_EQ(0, list.create({shared}, 100));
  EXPECT_EQ((Paths{"shared", "shared/.mp3", "shared/Photo.JPG", "shared/Song.Mp3",
                   "shared/anim.Gif", "shared/dolby.ac3", "shared/image.jpeg", "shared/noext",
                   "shared/pic.png", "shared/radio.aac", "shared/song.mp3.bak",
                   "shared/tune.WAV"}),
            relativePaths(allEntries(list.get()), tree.root()));
  EXPECT_EQ(0, list.release());
}

TEST_F(ClmFilter, SystemFoldersOfRemovableDisksAreSkippedInAnyCase) {
  std::string shared = tree.folder("shared");
  tree.media("shared/$RECYCLE.BIN/a.mp3", kMp3);
  tree.media("shared/Recycler/b.mp3", kMp3);
  tree.media("shared/System Volume Information/c.mp3", kMp3);
  tree.media("shared/music/system volume information/d.mp3", kMp3);
  tree.media("shared/music/e.mp3", kMp3);
  tree.media("shared/recycler2/f.mp3", kMp3);
  tree.media("shared/album.mp3/g.mp3", kMp3);

  {
    FilterFlag on(1);
    ASSERT_EQ(0, list.create({shared}, 100));
    std::vector<EntryView> entries = allEntries(list.get());
    EXPECT_EQ((Paths{"shared", "shared/album.mp3", "shared/album.mp3/g.mp3", "shared/music",
                     "shared/music/e.mp3", "shared/recycler2", "shared/recycler2/f.mp3"}),
              relativePaths(entries, tree.root()));
    expectConsistent(list.get(), entries);
    EXPECT_EQ(0, list.release());
  }
  ASSERT_EQ(0, list.create({shared}, 100));
  EXPECT_EQ(15u, allEntries(list.get()).size());
  EXPECT_EQ(0, list.release());
}

// The flag is read on every scan, not once at creation.
TEST_F(ClmFilter, RunTimeAdditionUsesTheFlagsCurrentValue) {
  std::string first = tree.folder("first");
  tree.media("first/noext", kMp3);
  std::string second = tree.folder("second");
  tree.media("second/noext", kMp3);
  tree.media("second/a.mp3", kMp3);
  ASSERT_EQ(0, list.create({first}, 100));
  {
    FilterFlag on(1);
    ASSERT_EQ(0, dmsClmAddToContentList(list.get(), second.c_str()));
  }
  EXPECT_EQ((Paths{"first", "first/noext", "second", "second/a.mp3"}),
            relativePaths(allEntries(list.get()), tree.root()));
  EXPECT_EQ(0, list.release());
}

// ---------------------------------------------------------------------------
// The entry budget

class ClmBudget : public ClmScan {
 protected:
  // Four folders (one holding a song) that sort before five songs.
  std::string buildLibrary() {
    std::string shared = tree.folder("shared");
    tree.media("shared/e1/in.mp3", kMp3);
    for (const char *name : {"shared/e2", "shared/e3", "shared/e4"}) tree.folder(name);
    for (const char *name : {"shared/m1.mp3", "shared/m2.mp3", "shared/m3.mp3", "shared/m4.mp3",
                             "shared/m5.mp3"})
      tree.media(name, kMp3);
    return shared;
  }
};

TEST_F(ClmBudget, WithoutTheFilterFoldersCountAgainstTheMaximum) {
  std::string shared = buildLibrary();
  ASSERT_EQ(0, list.create({shared}, 3));
  std::vector<EntryView> entries = allEntries(list.get());
  EXPECT_EQ((Paths{"shared", "shared/e1", "shared/e1/in.mp3"}),
            relativePaths(entries, tree.root()));
  EXPECT_EQ(consecutiveIds(1001, 3), idsOf(entries));
  int32_t containers = 0;
  int32_t items = 0;
  EXPECT_EQ(0, dmsClmGetCounts(list.get(), &containers, &items));
  EXPECT_EQ(2, containers);
  EXPECT_EQ(1, items);
  EXPECT_EQ(3, list.get()->entryCount);
  EXPECT_EQ(0, list.release());
}

TEST_F(ClmBudget, WithTheFilterOnlyMediaFilesCount) {
  std::string shared = buildLibrary();
  FilterFlag on(1);
  ASSERT_EQ(0, list.create({shared}, 3));
  std::vector<EntryView> entries = allEntries(list.get());
  EXPECT_EQ((Paths{"shared", "shared/e1", "shared/e1/in.mp3", "shared/e2", "shared/e3",
                   "shared/e4", "shared/m1.mp3", "shared/m2.mp3"}),
            relativePaths(entries, tree.root()));
  int32_t containers = 0;
  int32_t items = 0;
  EXPECT_EQ(0, dmsClmGetCounts(list.get(), &containers, &items));
  EXPECT_EQ(5, containers);
  EXPECT_EQ(3, items);
  EXPECT_EQ(0, list.release());
}

// A full list refuses a new shared folder's entries without leaving a hole
// among the root's children.
TEST_F(ClmBudget, AddingToAFullListLeavesNoEmptyChild) {
  std::string shared = tree.folder("shared");
  tree.media("shared/a.mp3", kMp3);
  std::string extra = tree.folder("extra");
  tree.media("extra/b.mp3", kMp3);
  ASSERT_EQ(0, list.create({shared}, 2));
  ASSERT_EQ(2, list.get()->entryCount);

  dmsClmAddToContentList(list.get(), extra.c_str());
  {
    auto lock = dmsClmReadLock(list.get());
    for (dmsContentEntry *child : childrenOf(rootOf(list.get()))) ASSERT_NE(nullptr, child);
  }
  EXPECT_EQ((Paths{"shared", "shared/a.mp3"}),
            relativePaths(allEntries(list.get()), tree.root()));
  int32_t containers = 0;
  int32_t items = 0;
  EXPECT_EQ(0, dmsClmGetCounts(list.get(), &containers, &items));
  EXPECT_EQ(1, containers);
  EXPECT_EQ(1, items);
  EXPECT_EQ(0, dmsClmRemoveFromContentList(list.get(), extra.c_str()));
  EXPECT_EQ(0, list.release());
}

}  // namespace

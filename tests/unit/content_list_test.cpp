// The content list: what a scan lists (ids, order, budget, name filter, link
// loops) and readers walking it while shared folders come and go.  The
// concurrency case is meant for the ThreadSanitizer build as much as for
// the plain one.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <thread>

#include "content/dmsClmApi.h"
#include "services/dmsCdsMgrApi.h"
#include "util/dlnaUtil_buffer.h"
#include "detection.h"
#include "dms_test.h"

using namespace dmstest;

namespace {

// Owns a list over `folders`; released (and checked) at the end of scope.
class List {
 public:
  explicit List(std::vector<std::string> folders, int32_t maxContent = 10000) {
    std::vector<char *> paths;
    for (std::string &folder : folders) paths.push_back(folder.data());
    EXPECT_EQ(dmsClmCreateContentList(&list_, paths.data(), static_cast<int32_t>(paths.size()), maxContent), 0);
  }
  ~List() { EXPECT_EQ(dmsClmFreeContentList(list_), 0); }
  List(const List &) = delete;
  List &operator=(const List &) = delete;
  dmsContentListInfo *get() const { return list_; }

  // "id:name" of every entry, depth first, as the list holds them.
  std::vector<std::string> shape() const {
    std::vector<std::string> out;
    auto reading = dmsClmReadLock(list_);
    dmsContentEntry *root = nullptr;
    dmsClmGetContentEntryById(list_, &root, 0);
    std::function<void(dmsContentEntry *)> walk = [&](dmsContentEntry *container) {
      int32_t count = 0;
      dmsContentEntry **children = nullptr;
      dmsClmGetContainerInfoForEntry(container, nullptr, nullptr, &count, &children, nullptr);
      for (int32_t i = 0; i < count; ++i) {
        out.push_back(std::to_string(children[i]->id) + ":" +
                      std::filesystem::path(children[i]->path.view()).filename().string());
        uint32_t type = 0;
        dmsClmGetTypeForEntry(children[i], &type, nullptr);
        if (type == DMS_CLM_TYPE_CONTAINER) walk(children[i]);
      }
    };
    if (root != nullptr) walk(root);
    return out;
  }

 private:
  dmsContentListInfo *list_ = nullptr;
};

const char kSong[] = "audio/mp3/mpeg1-44k-cbr128.mp3";

TEST(ContentList, ScanListsMediaDepthFirstInByteOrder) {
  TempDir a, b;
  a.copy(kSong, "b.mp3");
  a.copy(kSong, "Z/x.mp3");
  a.copy(kSong, "a.mp3");
  a.write("notes.txt", "not media");
  a.write("short.mp3", "ID3");
  a.mkdir("Empty");
  ::symlink(a.path().c_str(), (a / "Z/loop").c_str());  // a link back up is not entered
  b.copy("image/jfif-640x480.jpg", "p.jpg");
  QuietTrace quiet;
  List list({a.path(), b.path()});
  const std::string nameA = std::filesystem::path(a.path()).filename(),
                    nameB = std::filesystem::path(b.path()).filename();
  EXPECT_EQ(list.shape(), (std::vector<std::string>{"1001:" + nameA, "1003:Empty", "1004:Z",
                                                    "1005:x.mp3", "1006:a.mp3", "1007:b.mp3",
                                                    "1002:" + nameB, "1008:p.jpg"}));
  int32_t containers = 0, items = 0;
  EXPECT_EQ(dmsClmGetCounts(list.get(), &containers, &items), 0);
  EXPECT_EQ(containers, 4);
  EXPECT_EQ(items, 4);
}

TEST(ContentList, BudgetAndNameFilter) {
  TempDir folder;
  for (const char *name : {"a.mp3", "b.mp3", "c.mp3", "d.mp3"}) folder.copy(kSong, name);
  folder.copy(kSong, "renamed.bin");
  folder.copy(kSong, "Sub/e.mp3");
  folder.copy(kSong, "LOUD.MP3");         // the filter ignores case
  folder.copy(kSong, "RECYCLER/r.mp3");   // a system folder the filter skips
  struct Row {
    int flag;
    int32_t maxContent;
    int32_t containers, items;
  } rows[] = {
      {0, 10000, 3, 8},  // no filter: the content decides, whatever the name
      {1, 10000, 2, 6},  // filter: only media extensions reach detection
      {0, 4, 2, 2},      // budget: every entry counts
      {1, 4, 2, 4},      // with the flag, folders do not count against it
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(std::to_string(row.flag) + "/" + std::to_string(row.maxContent));
    KVSUPPORT_XR_VAL = row.flag;
    List list({folder.path()}, row.maxContent);
    int32_t containers = 0, items = 0;
    dmsClmGetCounts(list.get(), &containers, &items);
    EXPECT_EQ(containers, row.containers);
    EXPECT_EQ(items, row.items);
  }
  KVSUPPORT_XR_VAL = 0;
}

// Readers walk the list, and the ContentDirectory builds answers from it,
// while shared folders come and go.  Nothing stands between the threads but
// the list's own lock (no SDK in the way to order them), so a reader that
// forgets the lock shows, under ThreadSanitizer above all.
TEST(ContentList, ReadersAndAnswersWhileSharedFoldersComeAndGo) {
  TempDir steady, churn;
  for (int i = 0; i < 30; ++i) steady.copy(kSong, "s/" + std::to_string(i) + ".mp3");
  for (int i = 0; i < 10; ++i) churn.copy(kSong, "c/" + std::to_string(i) + ".mp3");
  List list({steady.path()});
  dmsCdsMgrHandle cds;
  cds.contentList = list.get();
  std::snprintf(cds.serverAddress, sizeof cds.serverAddress, "127.0.0.1");
  cds.serverPort = 49152;
  std::atomic<bool> done{false};
  std::atomic<int> bad{0}, reads{0};
  auto walk = [&] {
    // One steady share of 32 entries, and the churning one whole or absent.
    const size_t seen = list.shape().size();
    return seen == 32 || seen == 44;
  };
  auto answer = [&] {
    dmsCdsBrowseArgs args;
    args.objectId = 0;
    args.browseFlag = DMS_CDS_BROWSE_DIRECT_CHILDREN;
    dmsCdsRespArgs out;
    dlnaUtilBuffer *buffer = nullptr;
    dlnaUtil_allocateBuffer(&buffer);
    bool ok = dmsCdsCreateRespBrowse(&cds, &args, &out, buffer) == 0;
    bool wellFormed = false;
    const size_t shares = parseDidl(buffer->data, &wellFormed).size();
    dmsCdsMgrReleaseRespArgs(&out);
    dlnaUtil_releaseBuffer(buffer);
    return ok && wellFormed && (shares == 1 || shares == 2);
  };
  std::vector<std::thread> readers;
  for (int r = 0; r < 4; ++r) {
    readers.emplace_back([&, r] {
      for (; !done; ++reads) {
        if (!(r % 2 == 0 ? walk() : answer())) ++bad;
      }
    });
  }
  for (int round = 0; round < 30; ++round) {
    EXPECT_EQ(dmsClmAddToContentList(list.get(), churn.path().c_str()), 0);
    EXPECT_EQ(dmsClmRemoveFromContentList(list.get(), churn.path().c_str()), 0);
  }
  done = true;
  for (std::thread &reader : readers) reader.join();
  EXPECT_EQ(bad, 0);
  EXPECT_GT(reads, 0);
}

}  // namespace

// The views after any sequence of changes equal the views made anew from the
// list as it then is: every list holds the same files and containers in the
// same order, each object names the container it is listed in as its
// parent, and each container counts its children right.  The changes go
// through the monitor's change handler, as the monitor thread makes them,
// while a reader walks the views as Browse does (for ThreadSanitizer).
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <taglib/fileref.h>
#include <taglib/tpropertymap.h>

#include "content/dmsClmApi.h"
#include "content/dmsClmChange.h"
#include "content/dmsFsmApi.h"
#include "dms_test.h"
#include "views/dmsViews.h"

using namespace dmstest;
namespace fs = std::filesystem;

namespace {

void tagTrack(const std::string &path, std::mt19937 &random) {
  TagLib::FileRef file(path.c_str());
  TagLib::PropertyMap tags;
  const auto pick = [&random](const char *stem, int of) { return TagLib::String(stem + std::to_string(random() % of)); };
  tags["TITLE"] = pick("Track ", 30);
  if (random() % 6 != 0) tags["ARTIST"] = pick("Artist ", 5);
  if (random() % 4 != 0) tags["ALBUM"] = pick("Album ", 7);
  if (random() % 3 != 0) tags["GENRE"] = pick("Genre ", 3);
  tags["TRACKNUMBER"] = TagLib::String(std::to_string(random() % 12 + 1));
  tags["DISCNUMBER"] = TagLib::String(std::to_string(random() % 2 + 1));
  file.file()->setProperties(tags);
  ASSERT_TRUE(file.save());
}

// Every list below the top containers, depth first: containers by title,
// items by the file they stand for, each checked for its parent and count.
void describe(const dmsViews &views, uint32_t id, const std::string &indent, std::string &out) {
  const dmsViews::Order children = views.children(id);
  ASSERT_NE(children, nullptr) << id;
  dmsViewObject self;
  ASSERT_TRUE(views.find(id, self));
  EXPECT_EQ(self.childCount, children->size()) << self.titleText();
  for (uint32_t child : *children) {
    dmsViewObject object;
    ASSERT_TRUE(views.find(child, object)) << child;
    EXPECT_EQ(object.parentId, id) << child;
    if (object.fileId != 0) {
      out += indent + "file " + std::to_string(object.fileId) + "\n";
    } else {
      out += indent + object.titleText() + "/\n";
      describe(views, child, indent + "  ", out);
    }
  }
}

std::string describeAll(const dmsViews &views) {
  std::string out;
  for (uint32_t top : dmsViews::kTop) describe(views, top, "", out);
  return out;
}

TEST(ViewsModel, FollowingChangesEqualsBuildingAnew) {
  TempDir disk;
  std::mt19937 random(2024);
  std::vector<std::string> names;
  for (int i = 0; i < 24; ++i) {
    names.push_back("t" + std::to_string(i) + ".mp3");
    tagTrack(disk.copy("tagged/mp3-no-tags.mp3", "share/" + names.back()), random);
  }
  disk.copy("tagged/photo-exif-date.jpg", "share/photo.jpg");
  disk.write("share/list.m3u", "t1.mp3\nt2.mp3\nt1.mp3\n");
  std::string share = disk / "share";
  char *paths[] = {share.data()};
  dmsContentListInfo *list = nullptr;
  ASSERT_EQ(dmsClmCreateContentList(&list, paths, 1, 10000), 0);
  dmsFsmStopMonitor(list->monitor);  // the test makes the changes itself
  dmsViews views(list);
  {
    std::lock_guard changing(list->changeMutex);
    views.rebuild();
  }
  const uint64_t token = dmsClmAddListener(list, [&views](const dmsClmChangeSet &change) {
    std::vector<uint32_t> pairs;
    views.apply(change, pairs);
    return 0;
  });
  std::atomic<bool> stop{false};
  std::thread reader([&] {
    while (!stop) {
      auto reading = dmsClmReadLock(list);
      std::vector<uint32_t> pending(std::begin(dmsViews::kTop), std::end(dmsViews::kTop));
      while (!pending.empty()) {
        const uint32_t id = pending.back();
        pending.pop_back();
        dmsViewObject object;
        if (!views.find(id, object) || object.fileId != 0) continue;
        if (const dmsViews::Order children = views.children(id)) pending.insert(pending.end(), children->begin(), children->end());
      }
    }
  });
  dmsContentEntry *folder = list->root->container()->children.at(0);
  const auto tell = [&](const std::string &name, uint32_t kind) {
    clmFsmNotificationCallBack(list, folder, nullptr, name.c_str(), kind);
  };
  for (int step = 0; step < 160; ++step) {
    const std::string &some = names[random() % names.size()];
    switch (random() % 4) {
      case 0:  // a new track
        names.push_back("n" + std::to_string(step) + ".mp3");
        tagTrack(disk.copy("tagged/mp3-no-tags.mp3", "share/" + names.back()), random);
        tell(names.back(), FSM_EVENT_FILE_WRITTEN);
        break;
      case 1:  // retagged in place
        if (fs::exists(disk / ("share/" + some))) tagTrack(disk / ("share/" + some), random);
        tell(some, FSM_EVENT_FILE_WRITTEN);
        break;
      case 2:  // deleted
        fs::remove(disk / ("share/" + some));
        tell(some, FSM_EVENT_CHILD_DELETED);
        break;
      default:  // the playlist rewritten
        disk.write("share/list.m3u", some + "\n" + names[random() % names.size()] + "\n");
        tell("list.m3u", FSM_EVENT_FILE_WRITTEN);
        break;
    }
    if (step % 20 != 19) continue;
    dmsViews fresh(list);
    std::lock_guard changing(list->changeMutex);
    fresh.rebuild();
    auto reading = dmsClmReadLock(list);
    EXPECT_EQ(describeAll(views), describeAll(fresh)) << "after step " << step;
    if (HasFailure()) break;  // the reader is joined below
  }
  stop = true;
  reader.join();
  dmsClmRemoveListener(list, token);
  EXPECT_EQ(dmsClmFreeContentList(list), 0);
}

}  // namespace

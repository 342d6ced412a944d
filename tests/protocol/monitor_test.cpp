// The list follows the disk while the server runs: files and folders made,
// rewritten, renamed, moved and deleted in every way a person or a program
// does it, each followed until Browse shows the disk; and subscribers hear
// of the changes in moderated, coalesced events.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <set>

#include "dms_test.h"

using namespace dmstest;
namespace fs = std::filesystem;

namespace {

const char kSong[] = "audio/mp3/mpeg1-44k-cbr128.mp3";

// "title" or "folder/" for every object below `id`.
void describe(int port, const std::string &id, const std::string &prefix, std::multiset<std::string> &out) {
  for (const DidlObject &object : children(port, id)) {
    out.insert(prefix + object.title() + (object.container ? "/" : ""));
    if (object.container) describe(port, object.id(), prefix + object.title() + "/", out);
  }
}

// The same for the disk: media files without their extension.
void onDisk(const fs::path &folder, const std::string &prefix, std::multiset<std::string> &out) {
  for (const auto &entry : fs::directory_iterator(folder)) {
    const std::string name = entry.path().filename();
    out.insert(prefix + (entry.is_directory() ? name + "/" : entry.path().stem().string()));
    if (entry.is_directory()) onDisk(entry.path(), prefix + name + "/", out);
  }
}

class MonitorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    disk_.copy(kSong, "share/keep.mp3");
    disk_.copy(kSong, "share/Old/in-old.mp3");
    disk_.mkdir("other");
    disk_.copy(kSong, "outside/moved-in.mp3");
    disk_.copy(kSong, "outside/Tree/a/b.mp3");
    ASSERT_TRUE(server_.start({disk_ / "share", disk_ / "other"}));
  }
  // True once Browse of both shares shows the disk.
  bool listsTheDisk() {
    std::multiset<std::string> listed, expected;
    for (const DidlObject &share : children(server_.port(), "0")) {
      describe(server_.port(), share.id(), share.title() + "/", listed);
    }
    for (const char *share : {"share", "other"}) {
      if (fs::exists(disk_ / share)) onDisk(disk_ / share, std::string(share) + "/", expected);
    }
    return listed == expected;
  }
  void run(const std::string &command) { ASSERT_EQ(std::system(("cd " + disk_.path() + " && " + command).c_str()), 0); }

  TempDir disk_;
  RunningServer server_;
};

TEST_F(MonitorTest, BrowseFollowsTheDisk) {
  const std::string longName(200, 'n');
  const std::string rows[] = {
      "cp outside/moved-in.mp3 share/copied.mp3",
      "mkdir -p share/x/y/z && cp outside/moved-in.mp3 share/x/y/z/deep.mp3 && cp outside/moved-in.mp3 share/x/top.mp3",
      "cp -r outside/Tree share/Tree",
      "mkdir -p share/Over/inner share/Empty && cp outside/moved-in.mp3 share/Over/inner/s.mp3",
      "mv -T share/Over share/Empty",  // renamed over an empty folder: the old one's watch reports it gone
      "mv share/copied.mp3 share/renamed.mp3",
      "mv share/renamed.mp3 share/x/y/",
      "mv share/Old share/New",
      "mv share/New/in-old.mp3 outside/ && mv share/Tree outside/Tree2",
      "mv outside/moved-in.mp3 share/ && mv outside/Tree2 other/Tree",
      "cp outside/in-old.mp3 share/" + longName + ".mp3",
      "rm share/keep.mp3",
      "rm -r share/x",
      "rm -r other",
  };
  for (const std::string &row : rows) {
    SCOPED_TRACE(row);
    run(row);
    EXPECT_TRUE(eventually([&] { return listsTheDisk(); }));
  }
  EXPECT_EQ(children(server_.port(), "0").size(), 1u);  // the deleted share went, the root stayed
}

TEST_F(MonitorTest, ARewrittenFileKeepsItsIdAndGetsItsNewSize) {
  DidlObject before = lookup(server_.port(), "share/keep");
  ASSERT_FALSE(before.id().empty());
  run("cat outside/moved-in.mp3 outside/moved-in.mp3 > share/keep.mp3");
  const std::string doubled = std::to_string(2 * fs::file_size(disk_ / "outside/moved-in.mp3"));
  EXPECT_TRUE(eventually([&] {
    DidlObject after = lookup(server_.port(), "share/keep");
    return after.id() == before.id() && !after.res.empty() && after.res[0]["size"] == doubled;
  }));
  run("echo 'no longer media' > share/keep.mp3");
  EXPECT_TRUE(eventually([&] { return lookup(server_.port(), "share/keep").id().empty(); }));
}

TEST_F(MonitorTest, ABurstOfFilesComesAndGoes) {
  run("mkdir share/burst && for i in $(seq 1 5000); do ln outside/moved-in.mp3 share/burst/$i.mp3; done");
  auto count = [&] {
    DidlObject burst = lookup(server_.port(), "share/burst");
    return burst.id().empty() ? -1 : browse(server_.port(), burst.id(), "BrowseDirectChildren", 0, 1).totalMatches;
  };
  EXPECT_TRUE(eventually([&] { return count() == 5000; }, 30000));
  run("rm share/burst/*.mp3");
  EXPECT_TRUE(eventually([&] { return count() == 0; }, 30000));
}

// The property set of a NOTIFY message.
std::string body(const std::string &notify) { return notify.substr(std::min(notify.size(), notify.find("\r\n\r\n") + 4)); }

TEST_F(MonitorTest, SubscribersHearOneCoalescedEventPerBurst) {
  Subscriber subscriber(server_.port(), "/web/cds_event");
  ASSERT_FALSE(subscriber.next(5000).empty());  // the initial event
  const std::string share = lookup(server_.port(), "share").id(), other = lookup(server_.port(), "other").id();
  run("cp outside/moved-in.mp3 share/first.mp3");
  std::string first = body(subscriber.next(5000));
  EXPECT_EQ(elementText(first, "ContainerUpdateIDs"), share + ",1");
  // A burst within the window: one event at its end, naming both folders.
  run("for i in 1 2 3 4 5; do cp outside/moved-in.mp3 share/b$i.mp3; cp outside/moved-in.mp3 other/b$i.mp3; done");
  std::string burst = body(subscriber.next(5000));
  const std::string ids = elementText(burst, "ContainerUpdateIDs");
  EXPECT_EQ(ids.find(share + ","), 0u) << ids;
  EXPECT_NE(ids.find("," + other + ","), std::string::npos) << ids;
  const std::string evented = elementText(burst, "SystemUpdateID");
  const std::string polled = elementText(soap(server_.port(), Service::kCds, "GetSystemUpdateID", "").body, "Id");
  EXPECT_EQ(polled, evented);
  EXPECT_NE(evented, "0");
  Subscriber late(server_.port(), "/web/cds_event");  // a new subscriber starts from the live value too
  EXPECT_EQ(elementText(body(late.next(5000)), "SystemUpdateID"), evented);
}

}  // namespace

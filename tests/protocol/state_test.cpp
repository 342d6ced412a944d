// A state folder keeps object ids across restarts: every folder and file at
// the same path keeps its id, new ones get ids never used before, changed
// files are read again, and an index that cannot be used never stops the
// server.
#include <gtest/gtest.h>
#include <utime.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>

#include "dms_test.h"

using namespace dmstest;
namespace fs = std::filesystem;

namespace {

const char kSong[] = "audio/mp3/mpeg1-44k-cbr128.mp3";

// Names the state folder for the servers a test creates, and none after it.
class StateFolder {
 public:
  explicit StateFolder(const std::string &path) { EXPECT_EQ(dlna_dmsSetStateDir(nullptr, path.c_str()), 0); }
  ~StateFolder() { dlna_dmsSetStateDir(nullptr, nullptr); }
};

// "share/folder/title" -> id and class of everything the server lists.
using Listing = std::map<std::string, std::pair<std::string, std::string>>;

void walk(int port, const std::string &id, const std::string &path, Listing &out) {
  for (const DidlObject &object : children(port, id)) {
    out[path + object.title()] = {object.id(), object.prop("upnp:class")};
    if (object.container) walk(port, object.id(), path + object.title() + "/", out);
  }
}

class StateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    disk_.copy(kSong, "a/one.mp3");
    disk_.copy(kSong, "a/sub/two.mp3");
    disk_.copy("art/photo/small.jpg", "a/sub/pic.jpg");
    disk_.copy(kSong, "b/three.mp3");
  }
  // Starts a server over the two shares, lists it, and stops it.
  Listing run(const std::function<void(RunningServer &)> &during = nullptr) {
    RunningServer server;
    EXPECT_TRUE(server.start({disk_ / "a", disk_ / "b"}));
    Listing listed;
    walk(server.port(), "0", "", listed);
    if (during) during(server);
    server.stop();
    return listed;
  }
  static uint32_t highest(const Listing &listing) {
    uint32_t most = 0;
    for (const auto &[path, object] : listing) most = std::max<uint32_t>(most, std::stoul(object.first));
    return most;
  }

  TempDir disk_;
  TempDir state_;
};

TEST_F(StateTest, IdsSurviveRestartsAndNewOnesAreNeverUsedBefore) {
  StateFolder named(state_ / "dms");
  const Listing first = run();
  ASSERT_EQ(first.size(), 7u);  // 2 shares, 1 folder, 4 files
  EXPECT_EQ(run(), first);
  // A file added to the first folder: nobody else's id changes.
  disk_.copy(kSong, "a/aaa-new.mp3");
  const Listing second = run();
  ASSERT_EQ(second.size(), 8u);
  for (const auto &[path, object] : first) EXPECT_EQ(second.at(path), object) << path;
  EXPECT_GT(std::stoul(second.at("a/aaa-new").first), highest(first));
  // A file deleted: its id is not handed out again, even to one at its place.
  const std::string goneId = second.at("a/one").first;
  fs::remove(disk_ / "a/one.mp3");
  ASSERT_EQ(run().size(), 7u);
  disk_.copy(kSong, "a/one.mp3");
  const Listing third = run();
  EXPECT_NE(third.at("a/one").first, goneId);
  EXPECT_GT(std::stoul(third.at("a/one").first), highest(second));
  // A folder gone with what it held, then made again: all new ids.
  fs::remove_all(disk_ / "a/sub");
  ASSERT_EQ(run().size(), 5u);
  disk_.copy(kSong, "a/sub/two.mp3");
  Listing fourth = run();
  EXPECT_GT(std::stoul(fourth.at("a/sub").first), highest(third));
  EXPECT_GT(std::stoul(fourth.at("a/sub/two").first), highest(third));
  // Renamed while stopped: a new id for the new name, the others keep theirs.
  fs::rename(disk_ / "b/three.mp3", disk_ / "b/renamed.mp3");
  Listing fifth = run();
  EXPECT_GT(std::stoul(fifth.at("b/renamed").first), highest(fourth));
  fifth.erase("b/renamed");
  fourth.erase("b/three");
  EXPECT_EQ(fifth, fourth);
}

TEST_F(StateTest, FilesChangedWhileStoppedAreReadAgain) {
  StateFolder named(state_ / "dms");
  const Listing before = run();
  ASSERT_EQ(before.at("a/sub/pic").second, "object.item.imageItem.photo");
  // Same size, new time: a song where the picture was, cut to its size.
  const auto size = fs::file_size(disk_ / "a/sub/pic.jpg");
  disk_.copy(kSong, "song.tmp");
  fs::resize_file(disk_ / "song.tmp", size);
  fs::rename(disk_ / "song.tmp", disk_ / "a/sub/pic.jpg");
  // Same time, new size: a picture where a song was, its time put back.
  struct stat old {};
  ::stat((disk_ / "b/three.mp3").c_str(), &old);
  disk_.copy("art/photo/small.jpg", "b/three.mp3");
  const struct utimbuf times{old.st_atime, old.st_mtime};
  ::utime((disk_ / "b/three.mp3").c_str(), &times);
  const Listing after = run();
  EXPECT_EQ(after.at("a/sub/pic").second, "object.item.audioItem.musicTrack");
  EXPECT_EQ(after.at("b/three").second, "object.item.imageItem.photo");
  EXPECT_EQ(after.at("a/sub/pic").first, before.at("a/sub/pic").first);  // same path, same id
}

TEST_F(StateTest, WhatTheMonitorListedIsKept) {
  StateFolder named(state_ / "dms");
  std::string madeId;
  run([&](RunningServer &server) {
    disk_.copy(kSong, "b/while-running.mp3");
    ASSERT_TRUE(eventually([&] { return !lookup(server.port(), "b/while-running").id().empty(); }));
    madeId = lookup(server.port(), "b/while-running").id();
  });
  EXPECT_EQ(run().at("b/while-running").first, madeId);
}

TEST_F(StateTest, AFolderTheHostSharesAtRunTimeKeepsItsIds) {
  StateFolder named(state_ / "dms");
  const auto runAdding = [this] {
    RunningServer server;
    EXPECT_TRUE(server.start({disk_ / "a"}));
    std::string b = disk_ / "b";
    EXPECT_EQ(dlna_dmsAddSharedPath(server.handle(), b.data()), 0);
    Listing listed;
    walk(server.port(), "0", "", listed);
    return listed;
  };
  const Listing first = runAdding();
  ASSERT_EQ(first.size(), 7u);
  EXPECT_EQ(runAdding(), first);
  // Shared twice: the second listing gets ids of its own.
  RunningServer server;
  ASSERT_TRUE(server.start({disk_ / "a", disk_ / "b"}));
  std::string b = disk_ / "b";
  ASSERT_EQ(dlna_dmsAddSharedPath(server.handle(), b.data()), 0);
  std::set<std::string> ids;
  size_t objects = 0;
  for (const DidlObject &share : children(server.port(), "0")) {
    ids.insert(share.id());
    ++objects;
    for (const DidlObject &child : children(server.port(), share.id())) {
      ids.insert(child.id());
      ++objects;
    }
  }
  EXPECT_EQ(ids.size(), objects);
}

TEST_F(StateTest, AnIndexThatCannotBeUsedNeverStopsTheServer) {
  {
    StateFolder named(state_ / "dms");
    run();
  }
  std::ofstream(state_ / "dms/index.db", std::ios::trunc) << std::string(3000, '\x42');
  fs::remove(state_ / "dms/index.db-wal");
  {
    StateFolder named(state_ / "dms");
    EXPECT_EQ(run().size(), 7u);  // a new index
  }
  disk_.write("not-a-folder", "x");
  StateFolder named(disk_ / "not-a-folder");
  EXPECT_EQ(run().size(), 7u);  // none at all
  EXPECT_EQ(dlna_dmsSetStateDir(reinterpret_cast<dmsHandle *>(&named), "/tmp"), DMS_ERR_INVALID_PARAM);
}

}  // namespace

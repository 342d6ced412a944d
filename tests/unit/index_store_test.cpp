// The persistent index as a cache that is never a risk: what is written is
// there after a reopen; a file that is no usable index is replaced by a new
// one; a state folder that cannot be written gives no store; a write that
// fails stops writing without harm.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <fstream>

#include <sqlite3.h>

#include "dms_test.h"
#include "index/dmsIndexStore.h"

using namespace dmstest;
namespace fs = std::filesystem;

namespace {

dmsIndexStore::Row row(uint32_t id, uint32_t parent, const std::string &name) {
  dmsIndexStore::Row made;
  made.id = id;
  made.parent = parent;
  made.name = name;
  made.kind = 2;
  made.size = 1000 + id;
  made.modified = 1700000000 + id;
  made.media = std::string("m\0d", 3) + name;  // bytes, NULs included
  made.tags = "t" + name;
  return made;
}

std::vector<std::string> namesIn(dmsIndexStore &store, uint32_t parent) {
  std::vector<std::string> names;
  for (const dmsIndexStore::Row &found : store.children(parent)) names.push_back(found.name);
  std::sort(names.begin(), names.end());
  return names;
}

TEST(IndexStore, WhatIsWrittenIsThereAfterAReopen) {
  TempDir state;
  {
    auto store = dmsIndexStore::open(state / "dms");
    ASSERT_NE(store, nullptr);
    EXPECT_EQ(store->lastId(), 0u);
    store->put(row(1001, 0, "/srv/music"));
    for (uint32_t id = 1002; id < 6002; ++id) store->put(row(id, 1001, "f" + std::to_string(id)));
    store->put(row(1002, 1001, "renamed"));  // replaces the row of its id
    store->remove({1003, 1004});
    store->setLastId(6001);
    store->setFact(1005, 1, 73000);
    store->setFact(1003, 1, 5);  // gone with its object... once removed again
    store->remove({1003});
    store->flush();
    EXPECT_EQ(namesIn(*store, 0), std::vector<std::string>{"/srv/music"});
  }
  auto store = dmsIndexStore::open(state / "dms");
  ASSERT_NE(store, nullptr);
  EXPECT_EQ(store->lastId(), 6001u);
  const std::vector<dmsIndexStore::Row> rows = store->children(1001);
  EXPECT_EQ(rows.size(), 4998u);
  const auto found = std::find_if(rows.begin(), rows.end(), [](const auto &r) { return r.id == 1002; });
  ASSERT_NE(found, rows.end());
  EXPECT_EQ(found->name, "renamed");
  const dmsIndexStore::Row &sample = *std::find_if(rows.begin(), rows.end(), [](const auto &r) { return r.id == 4000; });
  EXPECT_EQ(sample.media, row(4000, 1001, "f4000").media);
  EXPECT_EQ(sample.size, 5000);
  EXPECT_EQ(sample.modified, 1700004000);
  int64_t value = 0;
  EXPECT_TRUE(store->fact(1005, 1, value));
  EXPECT_EQ(value, 73000);
  EXPECT_FALSE(store->fact(1003, 1, value));
}

TEST(IndexStore, AFileThatIsNoUsableIndexIsMadeAnew) {
  const auto sqliteFile = [](const std::string &path, const char *sql) {
    sqlite3 *db = nullptr;
    sqlite3_open(path.c_str(), &db);
    sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
    sqlite3_close(db);
  };
  struct Case {
    const char *what;
    std::function<void(const std::string &path)> spoil;
  } cases[] = {
      {"random bytes", [](const std::string &path) { std::ofstream(path) << std::string(5000, '\x5a'); }},
      {"truncated", [](const std::string &path) { fs::resize_file(path, 1500); }},
      {"a newer version", [&](const std::string &path) { sqliteFile(path, "PRAGMA user_version=99"); }},
      {"another program's", [&](const std::string &path) {
         fs::remove(path);
         sqliteFile(path, "CREATE TABLE other(x); INSERT INTO other VALUES(1)");
       }},
      {"an empty file", [](const std::string &path) { std::ofstream(path, std::ios::trunc); }},
  };
  for (const Case &spoilt : cases) {
    TempDir state;
    {
      auto store = dmsIndexStore::open(state.path());
      ASSERT_NE(store, nullptr) << spoilt.what;
      for (uint32_t id = 1001; id < 1200; ++id) store->put(row(id, 0, "f" + std::to_string(id)));
      store->flush();
    }
    fs::remove(state / "index.db-wal");
    fs::remove(state / "index.db-shm");
    spoilt.spoil(state / "index.db");
    auto store = dmsIndexStore::open(state.path());
    ASSERT_NE(store, nullptr) << spoilt.what;
    store->put(row(1001, 0, "again"));
    store->flush();
    EXPECT_TRUE(store->writing()) << spoilt.what;
    const std::vector<std::string> names = namesIn(*store, 0);
    // Either what survived (an empty file counts as new) or a new index.
    EXPECT_TRUE(names == std::vector<std::string>{"again"} || names.size() == 199u) << spoilt.what;
  }
}

TEST(IndexStore, AStateFolderThatCannotBeWrittenGivesNoStore) {
  TempDir state;
  state.write("a-file", "not a folder");
  EXPECT_EQ(dmsIndexStore::open(state / "a-file"), nullptr);
  EXPECT_EQ(dmsIndexStore::open(state / "a-file/below"), nullptr);
  EXPECT_EQ(dmsIndexStore::open("/proc/dms-no-such/folder"), nullptr);
  EXPECT_FALSE(fs::exists(state / "index.db"));
  if (::geteuid() == 0) return;  // root writes in read-only folders
  fs::create_directories(state / "locked");
  ::chmod((state / "locked").c_str(), 0500);
  EXPECT_EQ(dmsIndexStore::open(state / "locked"), nullptr);
  ::chmod((state / "locked").c_str(), 0700);
}

TEST(IndexStore, AFailedWriteStopsWritingWithoutHarm) {
  TempDir state;
  auto store = dmsIndexStore::open(state.path());
  ASSERT_NE(store, nullptr);
  store->put(row(1001, 0, "kept"));
  store->flush();
  // A full disk, as the process's file size limit makes it: no file may
  // grow past 64 KiB (the signal the kernel sends is ignored, the write
  // fails).
  struct rlimit before {};
  ::getrlimit(RLIMIT_FSIZE, &before);
  const auto previous = ::signal(SIGXFSZ, SIG_IGN);
  struct rlimit small = before;
  small.rlim_cur = 64 * 1024;
  ::setrlimit(RLIMIT_FSIZE, &small);
  for (uint32_t id = 1002; id < 1100; ++id) {
    dmsIndexStore::Row big = row(id, 0, "big" + std::to_string(id));
    big.media.assign(4096, 'x');
    store->put(big);
  }
  store->flush();
  ::setrlimit(RLIMIT_FSIZE, &before);
  ::signal(SIGXFSZ, previous);
  EXPECT_FALSE(store->writing());
  store->put(row(1200, 0, "ignored"));
  store->flush();  // returns at once
  EXPECT_EQ(namesIn(*store, 0), std::vector<std::string>{"kept"});  // the failed batch was rolled back
}

}  // namespace

// Helpers shared by the content list tests: temporary folder trees built from
// the media fixtures, an owner that frees a list, and walks over the entries.
#ifndef DMS_TESTS_UNIT_CLM_TEST_SUPPORT_H
#define DMS_TESTS_UNIT_CLM_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <system_error>
#include <vector>

#include "content/dmsClmApi.h"
#include "dlna_dms.h"
#include "util/osal_trace.h"

namespace clmtest {

namespace fs = std::filesystem;

inline fs::path mediaFixture(const std::string &relative) {
  return fs::path(DMS_TEST_FIXTURES) / "media" / relative;
}

// Small real files that detection recognises.
inline const fs::path kMp3 = mediaFixture("audio/mp3/mpeg1-44k-cbr128.mp3");
inline const fs::path kOtherMp3 = mediaFixture("audio/mp3/mpeg2-22k-cbr64.mp3");
inline const fs::path kJpeg = mediaFixture("image/jfif-640x480.jpg");
inline const fs::path kPng = mediaFixture("image/rgb-48x48.png");
inline const fs::path kWav = mediaFixture("audio/wav/pcm16-44100-2ch.wav");

// A folder under /tmp, removed with everything in it when the object goes.
class TempTree {
 public:
  TempTree() {
    std::string pattern = "/tmp/clmtestXXXXXX";
    if (::mkdtemp(pattern.data()) != nullptr) root_ = pattern;
  }
  ~TempTree() {
    std::error_code error;
    fs::remove_all(root_, error);
  }
  TempTree(const TempTree &) = delete;
  TempTree &operator=(const TempTree &) = delete;

  const fs::path &root() const { return root_; }
  std::string path(const std::string &relative) const { return (root_ / relative).string(); }

  std::string folder(const std::string &relative) const {
    fs::create_directories(root_ / relative);
    return path(relative);
  }
  // A hard link to `fixture` (a copy where linking is refused).
  std::string media(const std::string &relative, const fs::path &fixture) const {
    fs::path target = root_ / relative;
    fs::create_directories(target.parent_path());
    std::error_code error;
    fs::create_hard_link(fixture, target, error);
    if (error) fs::copy_file(fixture, target);
    return target.string();
  }
  std::string text(const std::string &relative, const std::string &content = "not media\n") const {
    fs::path target = root_ / relative;
    fs::create_directories(target.parent_path());
    std::ofstream(target) << content;
    return target.string();
  }
  std::string link(const std::string &relative, const fs::path &target) const {
    fs::path at = root_ / relative;
    fs::create_directories(at.parent_path());
    fs::create_symlink(target, at);
    return at.string();
  }

 private:
  fs::path root_;
};

// Sets the host's filter flag for one scope.
class FilterFlag {
 public:
  explicit FilterFlag(int value) : saved_(KVSUPPORT_XR_VAL) { KVSUPPORT_XR_VAL = value; }
  ~FilterFlag() { KVSUPPORT_XR_VAL = saved_; }
  FilterFlag(const FilterFlag &) = delete;
  FilterFlag &operator=(const FilterFlag &) = delete;

 private:
  int saved_;
};

// Silences the trace log for one scope (failed detections of text files and
// missing paths are traced as errors and would flood the test output).
class QuietTrace {
 public:
  QuietTrace() : saved_(g_u32_osalTraceLevel.load()) { g_u32_osalTraceLevel = 0; }
  ~QuietTrace() { g_u32_osalTraceLevel = saved_; }
  QuietTrace(const QuietTrace &) = delete;
  QuietTrace &operator=(const QuietTrace &) = delete;

 private:
  uint32_t saved_;
};

// Owns one content list.  Tests end with EXPECT_EQ(0, owner.release());
// the destructor only frees a list that a failed test left behind.
class ListOwner {
 public:
  ListOwner() = default;
  ~ListOwner() {
    if (list_ != nullptr) dmsClmFreeContentList(list_);
  }
  ListOwner(const ListOwner &) = delete;
  ListOwner &operator=(const ListOwner &) = delete;

  int32_t create(const std::vector<std::string> &paths, int32_t maxContent) {
    std::vector<char *> pointers;
    for (const std::string &path : paths) pointers.push_back(const_cast<char *>(path.c_str()));
    return dmsClmCreateContentList(&list_, pointers.data(), static_cast<int32_t>(pointers.size()),
                                   maxContent);
  }
  int32_t release() {
    int32_t result = dmsClmFreeContentList(list_);
    list_ = nullptr;
    return result;
  }
  dmsContentListInfo *get() const { return list_; }

 private:
  dmsContentListInfo *list_ = nullptr;
};

// What a test looks at of one entry, read through the getters.
struct EntryView {
  uint32_t id = 0;
  uint32_t type = 0;
  std::string path;
  dmsContentEntry *entry = nullptr;
  dmsContentEntry *parent = nullptr;
};

inline std::vector<dmsContentEntry *> childrenOf(dmsContentEntry *container) {
  int32_t count = 0;
  dmsContentEntry **children = nullptr;
  uint32_t id = 0;
  uint32_t reserved = 1;
  dmsContentEntry *parent = nullptr;
  if (dmsClmGetContainerInfoForEntry(container, &id, &parent, &count, &children, &reserved) != 0)
    return {};
  if (count <= 0 || children == nullptr) return {};
  return std::vector<dmsContentEntry *>(children, children + count);
}

inline EntryView viewOf(dmsContentEntry *entry) {
  EntryView view;
  view.entry = entry;
  view.path = entry->path;
  view.parent = entry->parent;
  dmsClmGetTypeForEntry(entry, &view.type, &view.id);
  return view;
}

// Every entry below `container` in children order, a folder before its
// contents (the order in which the scan hands out ids).
inline void walk(dmsContentEntry *container, std::vector<EntryView> &out) {
  for (dmsContentEntry *child : childrenOf(container)) {
    out.push_back(viewOf(child));
    if (out.back().type == DMS_CLM_TYPE_CONTAINER) walk(child, out);
  }
}

inline dmsContentEntry *rootOf(dmsContentListInfo *list) {
  dmsContentEntry *root = nullptr;
  dmsClmGetContentEntryById(list, &root, 0);
  return root;
}

// All entries of the list but the root, under the read lock.
inline std::vector<EntryView> allEntries(dmsContentListInfo *list) {
  auto lock = dmsClmReadLock(list);
  std::vector<EntryView> entries;
  if (dmsContentEntry *root = rootOf(list)) walk(root, entries);
  return entries;
}

// Paths relative to `base` ("." for base itself), in walk order.
inline std::vector<std::string> relativePaths(const std::vector<EntryView> &entries,
                                              const fs::path &base) {
  std::vector<std::string> paths;
  for (const EntryView &entry : entries)
    paths.push_back(fs::path(entry.path).lexically_relative(base).string());
  return paths;
}

inline dmsContentEntry *lookup(dmsContentListInfo *list, uint32_t id) {
  dmsContentEntry *entry = nullptr;
  EXPECT_EQ(0, dmsClmGetContentEntryById(list, &entry, id));
  return entry;
}

}  // namespace clmtest

#endif  // DMS_TESTS_UNIT_CLM_TEST_SUPPORT_H

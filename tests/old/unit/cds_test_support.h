// Helpers shared by the Browse and Search tests: a content list over a real
// folder tree of media fixtures, a ContentDirectory handle on it, calls of
// the response creators whose Result is parsed with ixml, and synthetic
// sub-trees far bigger than any fixture folder.
#ifndef DMS_TESTS_UNIT_CDS_TEST_SUPPORT_H
#define DMS_TESTS_UNIT_CDS_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <ixml.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "clm_test_support.h"
#include "services/dmsCdsMgrApi.h"
#include "util/dlnaUtil_buffer.h"

namespace cdstest {

using namespace clmtest;

struct DocumentDeleter {
  void operator()(IXML_Document *document) const { ixmlDocument_free(document); }
};
using DocumentPtr = std::unique_ptr<IXML_Document, DocumentDeleter>;

inline IXML_Node *child(IXML_Node *node, const std::string &name) {
  for (IXML_Node *c = node ? ixmlNode_getFirstChild(node) : nullptr; c;
       c = ixmlNode_getNextSibling(c)) {
    if (name == ixmlNode_getNodeName(c)) return c;
  }
  return nullptr;
}

inline std::vector<std::string> childNames(IXML_Node *node) {
  std::vector<std::string> names;
  for (IXML_Node *c = node ? ixmlNode_getFirstChild(node) : nullptr; c;
       c = ixmlNode_getNextSibling(c)) {
    names.emplace_back(ixmlNode_getNodeName(c));
  }
  return names;
}

inline std::string textOf(IXML_Node *node) {
  IXML_Node *text = node ? ixmlNode_getFirstChild(node) : nullptr;
  const char *value = text ? ixmlNode_getNodeValue(text) : nullptr;
  return value ? value : "";
}

inline std::string attribute(IXML_Node *node, const char *name) {
  if (node == nullptr) return "<no element>";
  const char *value = ixmlElement_getAttribute(reinterpret_cast<IXML_Element *>(node), name);
  return value ? value : "<absent>";
}

// One answer of Browse or Search, its Result parsed.
struct Answer {
  int32_t status = -1;
  std::string result;
  std::string numberReturned;
  std::string totalMatches;
  std::string updateId;
  DocumentPtr document;
  std::vector<IXML_Node *> objects;  // item and container elements, in order

  std::vector<std::string> titles() const {
    std::vector<std::string> out;
    for (IXML_Node *object : objects) out.push_back(textOf(child(object, "dc:title")));
    return out;
  }
  std::vector<std::string> ids() const {
    std::vector<std::string> out;
    for (IXML_Node *object : objects) out.push_back(attribute(object, "id"));
    return out;
  }
};

// Runs one create-response operation with a fresh buffer and reads the four
// arguments back; the Result must be a well-formed DIDL-Lite document.
template <typename Create, typename Args>
Answer runCreate(Create create, dmsCdsMgrHandle &handle, Args &args) {
  Answer answer;
  dlnaUtilBuffer *raw = nullptr;
  EXPECT_EQ(0, dlnaUtil_allocateBuffer(&raw));
  DlnaBufferPtr buffer(raw);
  dmsCdsRespArgs respArgs;
  answer.status = create(&handle, &args, &respArgs, buffer.get());
  if (answer.status == 0) {
    EXPECT_EQ(4, respArgs.count);
    const char *expectedNames[] = {"Result", "NumberReturned", "TotalMatches", "UpdateID"};
    std::string *targets[] = {&answer.result, &answer.numberReturned, &answer.totalMatches,
                              &answer.updateId};
    for (int i = 0; i < 4; ++i) {
      EXPECT_STREQ(expectedNames[i], respArgs.names[i]);
      if (respArgs.values[i] != nullptr) *targets[i] = respArgs.values[i];
      else ADD_FAILURE() << "no value for " << expectedNames[i];
    }
    EXPECT_EQ(respArgs.values[0], buffer->data) << "Result must be the buffer's own text";
    answer.document.reset(ixmlParseBuffer(answer.result.c_str()));
    if (!answer.document) {
      ADD_FAILURE() << "Result is not well-formed: " << answer.result;
    } else {
      IXML_Node *didl = ixmlNode_getFirstChild(&answer.document->n);
      EXPECT_STREQ("DIDL-Lite", ixmlNode_getNodeName(didl));
      for (IXML_Node *c = ixmlNode_getFirstChild(didl); c; c = ixmlNode_getNextSibling(c)) {
        answer.objects.push_back(c);
      }
    }
  }
  dmsCdsMgrReleaseRespArgs(&respArgs);
  return answer;
}

// Expected dc:date text of a modification time.
inline std::string localDate(int64_t modificationTime) {
  const time_t when = static_cast<time_t>(modificationTime);
  struct tm local {};
  localtime_r(&when, &local);
  char text[32];
  std::strftime(text, sizeof text, "%FT%H:%M:%S", &local);
  return text;
}

// H:MM:SS.mmm of a playing time in milliseconds.
inline std::string durationText(uint32_t milliseconds) {
  char text[48];
  std::snprintf(text, sizeof text, "%u:%02u:%02u.%03u", milliseconds / 3600000u,
                milliseconds % 3600000u / 60000u, milliseconds % 60000u / 1000u,
                milliseconds % 1000u);
  return text;
}

// A shared folder of real fixtures:
//   share/Empty/
//   share/Music/b.song.mp3, Tom & Jerry <live>.mp3, tone.wav, x-b-lpcm-2.pcm
//   share/Photos/icon.png, pic.jpg
//   share/Three/track1.mp3, track2.mp3, track3.mp3
//   share/readme.txt (not media)
class CdsListTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tree_.folder("share/Empty");
    tree_.media("share/Music/b.song.mp3", kMp3);
    tree_.media("share/Music/Tom & Jerry <live>.mp3", kOtherMp3);
    tree_.media("share/Music/tone.wav", kWav);
    tree_.media("share/Music/x-b-lpcm-2.pcm", mediaFixture("audio/pcm/x-b-lpcm-2.pcm"));
    tree_.media("share/Photos/pic.jpg", kJpeg);
    tree_.media("share/Photos/icon.png", kPng);
    for (const char *name : {"track1.mp3", "track2.mp3", "track3.mp3"}) {
      tree_.media(std::string("share/Three/") + name, kMp3);
    }
    tree_.text("share/readme.txt");
    {
      QuietTrace quiet;
      ASSERT_EQ(0, owner_.create({tree_.path("share")}, 1000));
    }
    handle_.contentList = owner_.get();
    std::strcpy(handle_.serverAddress, "192.168.1.5");
    handle_.serverPort = 49152;
  }
  void TearDown() override { EXPECT_EQ(0, owner_.release()); }

  // The entry whose path is `relative` below the temporary tree.
  dmsContentEntry *entryAt(const std::string &relative) {
    const std::string wanted = tree_.path(relative);
    for (const EntryView &view : allEntries(owner_.get())) {
      if (view.path == wanted) return view.entry;
    }
    ADD_FAILURE() << "no entry for " << relative;
    return nullptr;
  }
  int32_t idOf(const std::string &relative) {
    dmsContentEntry *entry = entryAt(relative);
    return entry ? static_cast<int32_t>(entry->id) : -1;
  }
  std::string idText(const std::string &relative) { return std::to_string(idOf(relative)); }

  Answer browse(int32_t objectId, uint32_t flag, const char *filter = "*", int32_t start = 0,
                int32_t count = 0) {
    std::string filterText(filter);
    std::string sort;
    dmsCdsBrowseArgs args;
    args.objectId = objectId;
    args.browseFlag = flag;
    args.startingIndex = start;
    args.requestedCount = count;
    args.filter = filterText.data();
    args.sortCriteria = sort.data();
    return runCreate(dmsCdsCreateRespBrowse, handle_, args);
  }

  Answer search(int32_t containerId, const std::string &criteria, const char *filter = "*",
                int32_t start = 0, int32_t count = 0) {
    std::string criteriaText(criteria);
    std::string filterText(filter);
    std::string sort;
    dmsCdsSearchArgs args;
    args.containerId = containerId;
    args.startingIndex = start;
    args.requestedCount = count;
    args.searchCriteria = criteriaText.data();
    args.filter = filterText.data();
    args.sortCriteria = sort.data();
    return runCreate(dmsCdsCreateRespSearch, handle_, args);
  }

  TempTree tree_;
  ListOwner owner_;
  dmsCdsMgrHandle handle_;
};

// Entries made in memory and hung below a real container, for sizes no
// fixture folder reaches.  Only the children arrays link them (they are
// not in the id tree); the destructor unhooks them under the list's lock.
class SyntheticEntries {
 public:
  SyntheticEntries(dmsContentListInfo *list, dmsContentEntry *anchor, const mfdMediaInfo &media)
      : list_(list), anchor_(anchor), media_(media) {}
  ~SyntheticEntries() {
    std::unique_lock writing(list_->rwLock);
    auto &siblings = anchor_->children;
    siblings.erase(std::remove_if(siblings.begin(), siblings.end(),
                                  [this](dmsContentEntry *entry) { return entry->id >= kFirstId; }),
                   siblings.end());
  }
  SyntheticEntries(const SyntheticEntries &) = delete;
  SyntheticEntries &operator=(const SyntheticEntries &) = delete;

  // Adds under `parent` (the anchor when NULL); hold the list's lock
  // exclusively (attach()) while the list is in use by others.
  dmsContentEntry *add(dmsContentEntry *parent, uint32_t type, const std::string &path) {
    auto entry = std::make_unique<dmsContentEntry>();
    entry->id = kFirstId + static_cast<uint32_t>(entries_.size());
    entry->type = type;
    entry->path = path;
    entry->parent = parent ? parent : anchor_;
    if (type == DMS_CLM_TYPE_ITEM) entry->mediaInfo = std::make_unique<mfdMediaInfo>(media_);
    entry->parent->children.push_back(entry.get());
    entries_.push_back(std::move(entry));
    return entries_.back().get();
  }
  std::unique_lock<dmsRwLock> attach() { return std::unique_lock<dmsRwLock>(list_->rwLock); }

  static constexpr uint32_t kFirstId = 50000000;

 private:
  dmsContentListInfo *list_;
  dmsContentEntry *anchor_;
  mfdMediaInfo media_;
  std::vector<std::unique_ptr<dmsContentEntry>> entries_;
};

}  // namespace cdstest

#endif  // DMS_TESTS_UNIT_CDS_TEST_SUPPORT_H

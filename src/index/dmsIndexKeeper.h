// Keeps the persistent index (dmsIndexStore) in step with the content list:
// it is the list's recall at every scan (ids and unchanged files of the
// earlier run: a folder the host shares again at run time keeps its ids,
// and the rows of a folder not shared now stay for when it is again); once that scan is done it writes what is new or changed and
// takes out what is gone, and then follows every change the list tells its
// listeners.  Rows are written by the store's thread, after the change is
// listed; the first write is produced there chunk by chunk (under the
// list's read lock), so a large list is never queued whole.
//
// Called by the list's writer (change mutex held, or before any other
// thread uses the list).
#ifndef DMS_INDEX_DMSINDEXKEEPER_H
#define DMS_INDEX_DMSINDEXKEEPER_H

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "content/dmsClmApi.h"
#include "content/dmsClmRecall.h"
#include "index/dmsIndexStore.h"

class dmsIndexKeeper : public dmsClmRecall {
 public:
  explicit dmsIndexKeeper(std::unique_ptr<dmsIndexStore> store) : store_(std::move(store)) {}

  void folder(uint32_t parentId, dmsTagPool &pool, std::unordered_map<std::string, Known> &out) override;
  uint32_t lastId() override { return store_->lastId(); }

  // After the first scan: writes the entries the index did not hold as they
  // are, and takes out those it held that the list no longer has.  May
  // throw std::bad_alloc.
  void writeAll(const dmsContentListInfo &list);
  // Writes what one change made, re-read and freed.  May throw
  // std::bad_alloc.
  void follow(const dmsContentListInfo &list, const dmsClmChangeSet &change);
  dmsIndexStore &store() { return *store_; }

 private:
  static dmsIndexStore::Row rowOf(const dmsContentListInfo &list, const dmsContentEntry &entry);
  void put(const dmsContentListInfo &list, const dmsContentEntry &entry);

  // What the first scan recalled: the id of each row handed out and a
  // check of its file's size and time (8 bytes a file while the scan runs).
  struct Recalled {
    uint32_t id;
    uint32_t check;
  };
  std::vector<Recalled> recalled_;
  bool firstScan_ = true;
  std::unique_ptr<dmsIndexStore> store_;
};

#endif  // DMS_INDEX_DMSINDEXKEEPER_H

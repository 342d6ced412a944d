// A small memory of sorted orders, so that paging through a large container
// sorted one way sorts it once, not once per page.
//
// Each entry is one sorted order (the ids of the objects, in order) under a
// key naming what was sorted and how (the container, the normalised sort
// criteria and, for Search, the search criteria), stamped with the content
// list's change stamp at the time it was made.  An entry is found only while
// the list's stamp is still the same, so a change to the list makes every
// entry stale at once.  At most kCapacity entries are kept; storing one more
// drops the least recently used.
//
// Lock discipline: `mutex_` guards every field and is held only for the
// lookup or the store itself, never while sorting or reading the content
// list.  Orders are handed out as shared pointers to constant vectors, so a
// caller keeps reading its order after the cache has dropped it.  Browse and
// Search run on several HTTP threads: two may sort the same key at once, and
// the later store replaces the earlier (both orders are equal).  The content
// list's stamp is read by the caller with the list's read lock held; this
// cache takes no other lock.
#ifndef DMS_SERVICES_DMS_CDS_SORT_CACHE_H
#define DMS_SERVICES_DMS_CDS_SORT_CACHE_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

// What changes whenever the content list does: the system update id (raised
// by every change the monitor applies), the next id (raised by every entry
// made) and the entry count (lowered by every entry freed), since a shared
// folder added or removed by the host does not raise the system update id;
// and the views' generation, which they raise when they follow the change
// (just after the list has changed).
struct dmsCdsListStamp {
  uint32_t systemUpdateId = 0;
  uint32_t nextId = 0;
  int32_t entryCount = 0;
  uint64_t viewsGeneration = 0;
  bool operator==(const dmsCdsListStamp &) const = default;
};

class dmsCdsSortCache {
 public:
  static constexpr size_t kCapacity = 8;
  using Order = std::shared_ptr<const std::vector<uint32_t>>;

  // The order stored under `key` with stamp `stamp`; NULL when there is none
  // or it is stale.  Marks a found entry as used.  Does not throw.
  Order find(const std::string &key, const dmsCdsListStamp &stamp);
  // Stores `order` under `key`, replacing an entry of the same key or else
  // the least recently used one when the cache is full.  May throw
  // std::bad_alloc.
  void store(const std::string &key, const dmsCdsListStamp &stamp, Order order);

 private:
  struct Slot {
    std::string key;
    dmsCdsListStamp stamp;
    Order order;
    uint64_t lastUse = 0;
  };
  std::mutex mutex_;
  std::vector<Slot> slots_;  // at most kCapacity
  uint64_t clock_ = 0;       // counts uses, to find the least recent
};

#endif  // DMS_SERVICES_DMS_CDS_SORT_CACHE_H

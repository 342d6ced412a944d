// Where a list's entries live: items in blocks of slots, each slot one
// item, and the slots of freed items kept for the next ones made; the root
// and folders (a hundredth of a library, and larger) one by one.
//
// A large library holds one entry per file; made one by one, each would
// also cost the allocator's header and rounding (8 bytes or more apiece, a
// fifteenth of an item).  Blocks start small, so that a list of ten files
// takes little, and double up to 4,096 slots.  The room of freed entries is
// reused, not given back, until the list goes.
//
// Not thread-safe: used by the list's writer only (the change mutex held,
// or the list not yet shared), as entries are made and freed.
#ifndef DMS_CONTENT_DMSCLMENTRYPOOL_H
#define DMS_CONTENT_DMSCLMENTRYPOOL_H

#include <cstddef>
#include <memory>
#include <vector>

struct dmsContentEntry;

class dmsClmEntryPool {
 public:
  // Gives an entry back to its pool when the owner goes.
  struct GiveBack {
    dmsClmEntryPool *pool;
    void operator()(dmsContentEntry *entry) const noexcept { pool->give(entry); }
  };
  using Owned = std::unique_ptr<dmsContentEntry, GiveBack>;

  dmsClmEntryPool();
  ~dmsClmEntryPool();  // every entry made has been given back
  dmsClmEntryPool(const dmsClmEntryPool &) = delete;
  dmsClmEntryPool &operator=(const dmsClmEntryPool &) = delete;

  // A new entry of `type` (DMS_CLM_TYPE_*; a dmsFolderEntry for the root
  // and folders) with its default values.  May throw std::bad_alloc.
  Owned make(uint8_t type);
  // Takes back the ownership of an entry it made and handed out.
  Owned own(dmsContentEntry *entry) noexcept { return Owned(entry, GiveBack{this}); }

 private:
  union Slot;
  void give(dmsContentEntry *entry) noexcept;

  std::vector<std::unique_ptr<Slot[]>> blocks_;
  size_t nextBlock_ = 64;  // slots in the next block made
  Slot *free_ = nullptr;   // freed slots, linked through themselves
};

#endif  // DMS_CONTENT_DMSCLMENTRYPOOL_H

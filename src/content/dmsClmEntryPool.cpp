#include "content/dmsClmEntryPool.h"

#include <algorithm>
#include <memory>
#include <type_traits>

#include "content/dmsClmApi.h"

// A slot holds an entry while it is in use and the link to the next free
// slot while it is not; construct_at and destroy_at switch between them.
union dmsClmEntryPool::Slot {
  Slot *next;
  dmsContentEntry entry;
  Slot() : next(nullptr) {}
  ~Slot() {}
};

namespace {
constexpr size_t kLargestBlock = 4096;
}

static_assert(std::is_nothrow_constructible_v<dmsContentEntry, uint8_t>);

dmsClmEntryPool::dmsClmEntryPool() = default;

dmsClmEntryPool::~dmsClmEntryPool() = default;

dmsClmEntryPool::Owned dmsClmEntryPool::make(uint8_t type) {
  if (type != DMS_CLM_TYPE_ITEM) return Owned(std::make_unique<dmsFolderEntry>(type).release(), GiveBack{this});
  if (free_ == nullptr) {
    const size_t count = nextBlock_;
    blocks_.reserve(blocks_.size() + 1);
    auto block = std::make_unique<Slot[]>(count);
    for (size_t at = count; at > 0; --at) {
      block[at - 1].next = free_;
      free_ = &block[at - 1];
    }
    blocks_.push_back(std::move(block));  // within the room reserved
    nextBlock_ = std::min(2 * nextBlock_, kLargestBlock);
  }
  Slot *slot = free_;
  free_ = slot->next;
  // The entry's constructor cannot throw: the slot is in use from here on.
  return Owned(std::construct_at(&slot->entry, type), GiveBack{this});
}

void dmsClmEntryPool::give(dmsContentEntry *entry) noexcept {
  if (entry->type != DMS_CLM_TYPE_ITEM) {
    std::unique_ptr<dmsFolderEntry> folder(static_cast<dmsFolderEntry *>(entry));
    return;
  }
  std::destroy_at(entry);
  // The entry is the slot's only member at offset 0: its address is the slot's.
  Slot *slot = reinterpret_cast<Slot *>(entry);
  std::construct_at(&slot->next, free_);
  free_ = slot;
}

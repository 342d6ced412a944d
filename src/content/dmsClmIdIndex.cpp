#include "content/dmsClmIdIndex.h"

#include <algorithm>

#include "content/dmsClmApi.h"

size_t dmsClmIdIndex::locate(uint32_t id) const {
  const auto at = std::lower_bound(ids_.begin(), ids_.end(), id);
  return at != ids_.end() && *at == id ? static_cast<size_t>(at - ids_.begin()) : ids_.size();
}

void dmsClmIdIndex::insert(dmsContentEntry *entry) {
  const uint32_t id = entry->id;
  if (batching_) {
    // The room the batch's end merges into is taken now, while failing can
    // still be told: by doubling, so that a batch of k costs O(k).
    const size_t needed = ids_.size() + added_.size() + 1;
    if (ids_.capacity() < needed) ids_.reserve(std::max(needed, 2 * ids_.capacity()));
    if (entries_.capacity() < needed) entries_.reserve(std::max(needed, 2 * entries_.capacity()));
    added_.push_back({id, entry});
    return;
  }
  if (ids_.empty() || ids_.back() < id) {
    if (entries_.size() == entries_.capacity()) entries_.reserve(2 * entries_.capacity() + 16);
    ids_.push_back(id);
    entries_.push_back(entry);  // cannot fail: reserved above
    return;
  }
  // Only an id handed out again after the counter wrapped lands here.
  const auto at = std::lower_bound(ids_.begin(), ids_.end(), id);
  const size_t row = static_cast<size_t>(at - ids_.begin());
  if (at != ids_.end() && *at == id) {
    if (entries_[row] == nullptr) --holes_;
    entries_[row] = entry;
    return;
  }
  entries_.reserve(entries_.size() + 1);
  ids_.insert(at, id);
  entries_.insert(entries_.begin() + static_cast<std::ptrdiff_t>(row), entry);  // within the room reserved
}

bool dmsClmIdIndex::holds(uint32_t id) const {
  const size_t row = locate(id);
  return row < ids_.size() && entries_[row] != nullptr;
}

dmsContentEntry *dmsClmIdIndex::find(uint32_t id) const {
  const size_t row = locate(id);
  return row < ids_.size() ? entries_[row] : nullptr;
}

dmsContentEntry *dmsClmIdIndex::remove(uint32_t id) {
  const size_t row = locate(id);
  if (row == ids_.size() || entries_[row] == nullptr) return nullptr;
  dmsContentEntry *removed = entries_[row];
  entries_[row] = nullptr;
  if (++holes_ > ids_.size() / 2) squeeze();
  return removed;
}

void dmsClmIdIndex::squeeze() {
  size_t kept = 0;
  for (size_t row = 0; row < ids_.size(); ++row) {
    if (entries_[row] == nullptr) continue;
    ids_[kept] = ids_[row];
    entries_[kept++] = entries_[row];
  }
  ids_.resize(kept);
  entries_.resize(kept);
  holes_ = 0;
}

// Puts what the batch added in order (keeping their order among equal ids)
// and merges it into the table from its end, into the room reserved, so
// that among equal ids what was added last comes last; then of each run of
// equal ids the last stays.
void dmsClmIdIndex::endBatch() noexcept {
  batching_ = false;
  if (added_.empty()) return;
  // stable_sort works in place when it can have no buffer: it never throws.
  std::stable_sort(added_.begin(), added_.end(), [](const Row &a, const Row &b) { return a.id < b.id; });
  size_t listed = ids_.size(), from = added_.size(), to = listed + added_.size();
  ids_.resize(to);  // within the capacity reserved: no allocation
  entries_.resize(to);
  while (from > 0) {
    if (listed > 0 && ids_[listed - 1] > added_[from - 1].id) {
      --listed;
      ids_[--to] = ids_[listed];
      entries_[to] = entries_[listed];
    } else {
      ids_[--to] = added_[--from].id;
      entries_[to] = added_[from].entry;
    }
  }
  std::vector<Row>().swap(added_);
  size_t kept = 0;
  for (size_t row = 0; row < ids_.size(); ++row) {
    if (kept > 0 && ids_[kept - 1] == ids_[row]) --kept;
    ids_[kept] = ids_[row];
    entries_[kept++] = entries_[row];
  }
  ids_.resize(kept);
  entries_.resize(kept);
  holes_ = static_cast<size_t>(std::count(entries_.begin(), entries_.end(), nullptr));
}

void dmsClmIdIndex::clear() {
  std::vector<uint32_t>().swap(ids_);
  std::vector<dmsContentEntry *>().swap(entries_);
  std::vector<Row>().swap(added_);
  holes_ = 0;
}

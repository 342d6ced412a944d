#include "content/dmsClmIdIndex.h"

#include <algorithm>

#include "content/dmsClmApi.h"

std::vector<dmsClmIdIndex::Row>::const_iterator dmsClmIdIndex::locate(uint32_t id) const {
  auto at = std::lower_bound(rows_.begin(), rows_.end(), id,
                             [](const Row &row, uint32_t key) { return row.id < key; });
  return at != rows_.end() && at->id == id ? at : rows_.end();
}

void dmsClmIdIndex::insert(dmsContentEntry *entry) {
  const uint32_t id = entry->id;
  const bool inOrder = rows_.empty() || rows_.back().id < id;
  if (batching_ && !inOrder && sorted_ == 0) sorted_ = rows_.size();  // the batch's first add out of order
  if (inOrder || batching_) {
    rows_.push_back({id, entry});
    return;
  }
  // Only an id handed out again after the counter wrapped lands here.
  auto at = std::lower_bound(rows_.begin(), rows_.end(), id,
                             [](const Row &row, uint32_t key) { return row.id < key; });
  if (at != rows_.end() && at->id == id) {
    if (at->entry == nullptr) --holes_;
    at->entry = entry;
    return;
  }
  rows_.insert(at, {id, entry});
}

bool dmsClmIdIndex::holds(uint32_t id) const {
  const auto end = sorted_ != 0 ? rows_.begin() + static_cast<std::ptrdiff_t>(sorted_) : rows_.end();
  auto at = std::lower_bound(rows_.begin(), end, id, [](const Row &row, uint32_t key) { return row.id < key; });
  return at != end && at->id == id && at->entry != nullptr;
}

dmsContentEntry *dmsClmIdIndex::find(uint32_t id) const {
  auto at = locate(id);
  return at == rows_.end() ? nullptr : at->entry;
}

dmsContentEntry *dmsClmIdIndex::remove(uint32_t id) {
  auto at = locate(id);
  if (at == rows_.end() || at->entry == nullptr) return nullptr;
  dmsContentEntry *removed = at->entry;
  rows_[static_cast<size_t>(at - rows_.begin())].entry = nullptr;
  if (++holes_ > rows_.size() / 2) squeeze();
  return removed;
}

void dmsClmIdIndex::squeeze() {
  rows_.erase(std::remove_if(rows_.begin(), rows_.end(), [](const Row &row) { return row.entry == nullptr; }),
              rows_.end());
  holes_ = 0;
}

// Sorts what the batch added out of order into the table: the added rows
// are sorted (keeping their order among equal ids) and merged after the
// rows already there, then of each run of equal ids the last added stays.
void dmsClmIdIndex::endBatch() noexcept {
  batching_ = false;
  if (sorted_ == 0) return;
  const auto byId = [](const Row &a, const Row &b) { return a.id < b.id; };
  const auto middle = rows_.begin() + static_cast<std::ptrdiff_t>(sorted_);
  std::stable_sort(middle, rows_.end(), byId);
  std::inplace_merge(rows_.begin(), middle, rows_.end(), byId);
  size_t kept = 0;
  for (size_t at = 0; at < rows_.size(); ++at) {
    if (kept > 0 && rows_[kept - 1].id == rows_[at].id) {
      rows_[kept - 1] = rows_[at];
    } else {
      rows_[kept++] = rows_[at];
    }
  }
  rows_.resize(kept);
  holes_ = static_cast<size_t>(std::count_if(rows_.begin(), rows_.end(), [](const Row &r) { return r.entry == nullptr; }));
  sorted_ = 0;
}

void dmsClmIdIndex::clear() {
  std::vector<Row>().swap(rows_);
  holes_ = 0;
  sorted_ = 0;
}

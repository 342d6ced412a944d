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
  if (rows_.empty() || rows_.back().id < id) {
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

void dmsClmIdIndex::clear() {
  std::vector<Row>().swap(rows_);
  holes_ = 0;
}

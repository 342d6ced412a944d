// Entries by id: a table of (id, entry) rows sorted by id.
//
// Ids are handed out in increasing order, so adding an entry is an append.
// Removing one leaves a hole that lookups step over; the holes are squeezed
// out once they are half the table.  Lookup is a binary search, adding and
// removing are O(1) amortised after it, and a row costs 16 bytes, against a
// 48-byte node per entry for a search tree.
//
// Not thread-safe: the content list's lock discipline covers it (readers
// under the shared hold, changes under the exclusive one).
#ifndef DMS_CONTENT_DMSCLMIDINDEX_H
#define DMS_CONTENT_DMSCLMIDINDEX_H

#include <cstddef>
#include <cstdint>
#include <vector>

struct dmsContentEntry;

class dmsClmIdIndex {
 public:
  dmsClmIdIndex() = default;
  dmsClmIdIndex(const dmsClmIdIndex &) = delete;
  dmsClmIdIndex &operator=(const dmsClmIdIndex &) = delete;

  // Adds `entry` under its id, replacing an entry listed under the same id.
  // May throw std::bad_alloc (the index is then unchanged).
  void insert(dmsContentEntry *entry);
  // The entry listed under `id`, or NULL.
  dmsContentEntry *find(uint32_t id) const;
  // Takes the entry listed under `id` out and returns it, or NULL.
  dmsContentEntry *remove(uint32_t id);
  // Entries listed.
  size_t size() const { return rows_.size() - holes_; }
  void clear();

 private:
  struct Row {
    uint32_t id;
    dmsContentEntry *entry;  // NULL: a hole left by remove
  };
  std::vector<Row>::const_iterator locate(uint32_t id) const;
  void squeeze();

  std::vector<Row> rows_;
  size_t holes_ = 0;
};

#endif  // DMS_CONTENT_DMSCLMIDINDEX_H

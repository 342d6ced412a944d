// Entries by id: a table of (id, entry) rows sorted by id.
//
// Ids are handed out in increasing order, so adding an entry is an append.
// Entries that come in any order of ids (ids kept from an earlier run) are
// added in a batch: appended as they come, and the table sorted once when
// the batch ends, in O(n + k log k) for k added to n.  Removing one leaves a
// hole that lookups step over; the holes are squeezed out once they are half
// the table.  Lookup is a binary search, adding and removing are O(1)
// amortised after it, and a row costs 16 bytes, against a 48-byte node per
// entry for a search tree.
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
  // Whether an entry is listed under `id`; inside a batch, among those
  // listed before it (what the batch added is not yet in order).
  bool holds(uint32_t id) const;
  // Takes the entry listed under `id` out and returns it, or NULL.
  dmsContentEntry *remove(uint32_t id);
  // Entries listed.
  size_t size() const { return rows_.size() - holes_; }

  // Adds made while one lives may come in any order of ids; no lookup or
  // removal may run until it ends (the writer holds the list's exclusive
  // lock across it).  Its end sorts the table; of two entries under one id
  // the one added last stays.  The sort needs no memory it cannot do
  // without (it works in place when no buffer can be had).
  class Batch {
   public:
    explicit Batch(dmsClmIdIndex &index) : index_(index) { index_.batching_ = true; }
    ~Batch() { index_.endBatch(); }
    Batch(const Batch &) = delete;
    Batch &operator=(const Batch &) = delete;

   private:
    dmsClmIdIndex &index_;
  };
  void clear();

 private:
  struct Row {
    uint32_t id;
    dmsContentEntry *entry;  // NULL: a hole left by remove
  };
  std::vector<Row>::const_iterator locate(uint32_t id) const;
  void squeeze();
  void endBatch() noexcept;

  std::vector<Row> rows_;
  size_t holes_ = 0;
  bool batching_ = false;
  size_t sorted_ = 0;  // in a batch: rows_[0, sorted_) are in order, the rest as added
};

#endif  // DMS_CONTENT_DMSCLMIDINDEX_H

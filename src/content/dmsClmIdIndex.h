// Entries by id: a table of (id, entry) rows sorted by id, kept as two
// arrays side by side, so that a row costs 12 bytes (against 16 for a pair
// with its padding, and a 48-byte node per entry for a search tree) and a
// lookup's binary search reads only the ids.
//
// Ids are handed out in increasing order, so adding an entry is an append.
// Entries that come in any order of ids (ids kept from an earlier run) are
// added in a batch: appended as they come, and the table put in order once
// when the batch ends, in O(n + k log k) for k added to n.  Removing one
// leaves a hole that lookups step over; the holes are squeezed out once
// they are half the table.  Lookup is a binary search, adding and removing
// are O(1) amortised after it.
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
  size_t size() const { return ids_.size() - holes_; }

  // Adds made while one lives may come in any order of ids; no lookup or
  // removal may run until it ends (the writer holds the list's exclusive
  // lock across it).  Its end sorts the table; of two entries under one id
  // the one added last stays.  It needs no memory it cannot do without:
  // the room it merges into is reserved as the batch adds.
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
  // Gives back the room the table holds beyond its rows, as a growing
  // table keeps up to as much again: for after a large scan.
  void trim() noexcept {
    ids_.shrink_to_fit();
    entries_.shrink_to_fit();
  }

 private:
  size_t locate(uint32_t id) const;  // the row of `id`, or size of the table
  void squeeze();
  void endBatch() noexcept;

  struct Row {
    uint32_t id;
    dmsContentEntry *entry;
  };

  std::vector<uint32_t> ids_;
  std::vector<dmsContentEntry *> entries_;  // NULL: a hole left by remove
  size_t holes_ = 0;
  bool batching_ = false;
  std::vector<Row> added_;  // in a batch: what it added, in the order added
};

#endif  // DMS_CONTENT_DMSCLMIDINDEX_H

// The pictures made for thumbnails and album art, kept in memory within a
// byte budget, least recently used first out; and the pictures that could
// not be made, so that they are neither tried again nor offered.
//
// Keys name a picture (an object id and a kind); stamps tell its source's
// version (size and time), so a picture of a file since rewritten is made
// again.  Thread-safe: one mutex guards everything, held only for map work,
// never while a picture is made.
#ifndef DMS_ART_DMSARTCACHE_H
#define DMS_ART_DMSARTCACHE_H

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "dlna_dms.h"

class dmsArtCache {
 public:
  using Picture = std::shared_ptr<const std::string>;  // JPEG bytes, shared with answers in flight

  explicit dmsArtCache(size_t budgetBytes) : budget_(budgetBytes) {}
  dmsArtCache(const dmsArtCache &) = delete;
  dmsArtCache &operator=(const dmsArtCache &) = delete;

  // The picture kept under `key` for `stamp`, counted as a hit; NULL when
  // there is none (or only one of an older stamp).
  Picture find(uint64_t key, uint64_t stamp);
  // Keeps `picture` (counted as made), dropping the least recently used
  // ones while the budget is exceeded; a picture larger than the whole
  // budget is counted but not kept.  May throw std::bad_alloc.
  void store(uint64_t key, uint64_t stamp, Picture picture);
  // Remembers that the picture cannot be made from this version.  May throw
  // std::bad_alloc.
  void markFailed(uint64_t key, uint64_t stamp);
  bool failed(uint64_t key, uint64_t stamp) const;
  // A new budget, applied at once.
  void setBudget(size_t budgetBytes);
  dmsArtCacheStats stats() const;

 private:
  struct Kept {
    uint64_t key;
    uint64_t stamp;
    Picture picture;
  };
  void trim();  // mutex held

  mutable std::mutex mutex_;
  size_t budget_;
  size_t bytes_ = 0;
  std::list<Kept> recent_;  // most recently used first
  std::unordered_map<uint64_t, std::list<Kept>::iterator> byKey_;
  std::unordered_map<uint64_t, uint64_t> failed_;  // key -> stamp
  uint64_t hits_ = 0;
  uint64_t made_ = 0;
  uint64_t failures_ = 0;
};

#endif  // DMS_ART_DMSARTCACHE_H

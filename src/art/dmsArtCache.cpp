#include "art/dmsArtCache.h"

dmsArtCache::Picture dmsArtCache::find(uint64_t key, uint64_t stamp) {
  std::lock_guard lock(mutex_);
  const auto found = byKey_.find(key);
  if (found == byKey_.end() || found->second->stamp != stamp) return nullptr;
  recent_.splice(recent_.begin(), recent_, found->second);
  ++hits_;
  return found->second->picture;
}

void dmsArtCache::store(uint64_t key, uint64_t stamp, Picture picture) {
  std::lock_guard lock(mutex_);
  ++made_;
  if (const auto found = byKey_.find(key); found != byKey_.end()) {
    bytes_ -= found->second->picture->size();
    recent_.erase(found->second);
    byKey_.erase(found);
  }
  if (picture == nullptr || picture->size() > budget_) return;
  // Both allocations happen before anything is linked, so a failure leaves
  // the cache as it was; the splice keeps the iterator and cannot fail.
  std::list<Kept> one;
  one.push_back({key, stamp, picture});
  byKey_.emplace(key, one.begin());
  recent_.splice(recent_.begin(), one);
  bytes_ += picture->size();
  trim();
}

void dmsArtCache::markFailed(uint64_t key, uint64_t stamp) {
  std::lock_guard lock(mutex_);
  ++failures_;
  failed_[key] = stamp;
}

bool dmsArtCache::failed(uint64_t key, uint64_t stamp) const {
  std::lock_guard lock(mutex_);
  const auto found = failed_.find(key);
  return found != failed_.end() && found->second == stamp;
}

void dmsArtCache::setBudget(size_t budgetBytes) {
  std::lock_guard lock(mutex_);
  budget_ = budgetBytes;
  trim();
}

void dmsArtCache::trim() {
  while (bytes_ > budget_ && !recent_.empty()) {
    bytes_ -= recent_.back().picture->size();
    byKey_.erase(recent_.back().key);
    recent_.pop_back();
  }
}

dmsArtCacheStats dmsArtCache::stats() const {
  std::lock_guard lock(mutex_);
  dmsArtCacheStats out{};
  out.hits = hits_;
  out.made = made_;
  out.failures = failures_;
  out.bytes = bytes_;
  out.pictures = recent_.size();
  out.budget = budget_;
  return out;
}

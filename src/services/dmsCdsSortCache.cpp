// The sorted-order cache; see dmsCdsSortCache.h for its lock discipline.
#include "services/dmsCdsSortCache.h"

#include <algorithm>
#include <utility>

dmsCdsSortCache::Order dmsCdsSortCache::find(const std::string &key, const dmsCdsListStamp &stamp) {
  std::lock_guard holding(mutex_);
  for (Slot &slot : slots_) {
    if (slot.key == key && slot.stamp == stamp) {
      slot.lastUse = ++clock_;
      return slot.order;
    }
  }
  return nullptr;
}

void dmsCdsSortCache::store(const std::string &key, const dmsCdsListStamp &stamp, Order order) {
  std::lock_guard holding(mutex_);
  auto slot = std::find_if(slots_.begin(), slots_.end(), [&](const Slot &s) { return s.key == key; });
  if (slot == slots_.end() && slots_.size() < kCapacity) {
    slots_.push_back(Slot{});
    slot = slots_.end() - 1;
  } else if (slot == slots_.end()) {
    slot = std::min_element(slots_.begin(), slots_.end(),
                            [](const Slot &a, const Slot &b) { return a.lastUse < b.lastUse; });
  }
  slot->key = key;  // may throw before anything of the slot changed but its key
  slot->stamp = stamp;
  slot->order = std::move(order);
  slot->lastUse = ++clock_;
}

#include "facts/dmsFacts.h"

#include "index/dmsIndexStore.h"

namespace {

// The keys of the index's facts table.
constexpr uint32_t kPosition = 1;
constexpr uint32_t kPlayCount = 2;
constexpr uint32_t kLastPlayed = 3;

}  // namespace

dmsFacts::dmsFacts(dmsIndexStore *store) : store_(store) {
  if (store_ == nullptr) return;
  store_->facts([this](uint32_t id, uint32_t key, int64_t value) {
    dmsFact &fact = facts_[id];
    if (key == kPosition) fact.positionMs = value;
    if (key == kPlayCount) fact.playCount = value;
    if (key == kLastPlayed) fact.lastPlayed = value;
  });
}

bool dmsFacts::get(uint32_t id, dmsFact &out) const {
  std::lock_guard reading(mutex_);
  const auto found = facts_.find(id);
  out = found != facts_.end() ? found->second : dmsFact{};
  return found != facts_.end();
}

void dmsFacts::write(uint32_t id, uint32_t key, int64_t value) {
  if (store_ != nullptr) store_->setFact(id, key, value);
}

void dmsFacts::setPosition(uint32_t id, int64_t positionMs) {
  try {
    std::lock_guard writing(mutex_);
    dmsFact &fact = facts_[id];
    fact.positionMs = positionMs < 0 ? 0 : positionMs;
    write(id, kPosition, fact.positionMs);
  } catch (...) {
  }
}

void dmsFacts::countPlay(uint32_t id, int64_t now) {
  try {
    std::lock_guard writing(mutex_);
    dmsFact &fact = facts_[id];
    if (fact.lastPlayed != 0 && now >= fact.lastPlayed && now - fact.lastPlayed < kReplaySeconds) return;
    ++fact.playCount;
    fact.lastPlayed = now;
    write(id, kPlayCount, fact.playCount);
    write(id, kLastPlayed, fact.lastPlayed);
  } catch (...) {
  }
}

void dmsFacts::forget(const std::vector<uint32_t> &ids) {
  std::lock_guard writing(mutex_);
  for (uint32_t id : ids) facts_.erase(id);  // the index drops them with the file's row
}

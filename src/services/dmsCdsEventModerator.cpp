#include "services/dmsCdsEventModerator.h"

#include "util/dmsThreadName.h"
#include "util/dmsGuard.h"

dmsCdsEventModerator::dmsCdsEventModerator(Send send, std::chrono::milliseconds window)
    : send_(std::move(send)), window_(window), thread_([this] { run(); }) {}

dmsCdsEventModerator::~dmsCdsEventModerator() {
  {
    std::lock_guard hold(lock_);
    stopping_ = true;
  }
  wake_.notify_all();
  thread_.join();
}

void dmsCdsEventModerator::changed(const uint32_t *pairs, int32_t pairCount, uint32_t systemUpdateId) {
  {
    std::lock_guard hold(lock_);
    for (int32_t i = 0; pairs != nullptr && i < pairCount; ++i) pending_[pairs[2 * i]] = pairs[2 * i + 1];
    systemUpdateId_ = systemUpdateId;
    dirty_ = true;
  }
  wake_.notify_all();
}

void dmsCdsEventModerator::run() {
  dmsNameThread("dms-cds-events");
  std::unique_lock hold(lock_);
  for (;;) {
    wake_.wait(hold, [this] { return dirty_ || stopping_; });
    if (!dirty_) return;  // stopping with nothing left to say
    // Within the window of the last event: wait for its end (a stop cuts the
    // wait short and sends at once).
    const auto due = lastSent_ + window_;
    wake_.wait_until(hold, due, [this] { return stopping_; });
    std::string text;
    for (const auto &[id, count] : pending_) {
      if (!text.empty()) text += ',';
      text += std::to_string(id) + ',' + std::to_string(count);
    }
    const uint32_t systemUpdateId = systemUpdateId_;
    pending_.clear();
    dirty_ = false;
    lastSent_ = std::chrono::steady_clock::now();
    hold.unlock();
    dmsGuardVoid("dmsCdsEventModerator", [&] { send_(text, systemUpdateId); });
    hold.lock();
    if (stopping_ && !dirty_) return;
  }
}

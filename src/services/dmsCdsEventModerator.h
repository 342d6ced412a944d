// Moderation of ContentDirectory events: the list changes at once, but its
// subscribers hear of it at most once every two seconds.  The first change
// after a quiet period is evented at once; further changes within the next
// window are coalesced into one event at its end.  Each event names only the
// containers changed since the previous one, each with its current update
// count, and the current SystemUpdateID.
//
// One thread per moderator sends the events; `changed` only records and
// wakes it, so the monitor never waits on a subscriber.  Everything shared
// is guarded by `lock_`.
#ifndef DMS_SERVICES_DMS_CDS_EVENT_MODERATOR_H
#define DMS_SERVICES_DMS_CDS_EVENT_MODERATOR_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

class dmsCdsEventModerator {
 public:
  // Called on the moderator's thread with the ContainerUpdateIDs text
  // ("id,count,id,count...") and the SystemUpdateID.
  using Send = std::function<void(const std::string &containerUpdateIds, uint32_t systemUpdateId)>;

  explicit dmsCdsEventModerator(Send send,
                                std::chrono::milliseconds window = std::chrono::milliseconds(2000));
  // Sends what is still pending, then stops the thread.
  ~dmsCdsEventModerator();
  dmsCdsEventModerator(const dmsCdsEventModerator &) = delete;
  dmsCdsEventModerator &operator=(const dmsCdsEventModerator &) = delete;

  // Records a change: (container id, update count) pairs and the new
  // SystemUpdateID.
  void changed(const uint32_t *pairs, int32_t pairCount, uint32_t systemUpdateId);

 private:
  void run();

  Send send_;
  const std::chrono::milliseconds window_;
  std::mutex lock_;
  std::condition_variable wake_;
  std::map<uint32_t, uint32_t> pending_;  // container id -> update count
  uint32_t systemUpdateId_ = 0;
  bool dirty_ = false;
  bool stopping_ = false;
  std::chrono::steady_clock::time_point lastSent_{};
  std::thread thread_;  // last: starts once the members above exist
};

#endif  // DMS_SERVICES_DMS_CDS_EVENT_MODERATOR_H

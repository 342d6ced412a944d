// Delivery of NOTIFY messages for the event hub: one thread drives every
// transfer through libcurl's multi interface.
//
// Each subscription has an outbox: the events waiting for it, in SEQ order,
// and at most one transfer in flight, so a subscriber hears its events in
// order while many subscribers are served at once.  A transfer is bounded by
// a connect and a total time-out; `maxFailures` failed deliveries in a row
// empty the outbox for good and tell the hub through `Dropped`.
//
// Threads: `queue` and `forget` may be called from any thread (the hub calls
// them with its table lock held; the notifier never calls the hub with its
// own lock held, so the order is always table lock, then outbox lock).
#ifndef DMS_GENA_DMS_GENA_NOTIFIER_H
#define DMS_GENA_DMS_GENA_NOTIFIER_H

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "gena/dmsGena.h"

class dmsGenaNotifier {
 public:
  // Called on the delivery thread (no lock of the notifier held) with the
  // sid of a subscription that failed too often.
  using Dropped = std::function<void(const std::string &sid)>;
  using Body = std::shared_ptr<const std::string>;

  // Starts the delivery thread; throws std::runtime_error when libcurl
  // cannot be set up.
  dmsGenaNotifier(const dmsGenaLimits &limits, Dropped dropped);
  // Abandons every transfer at once (no waiting for answers), then joins.
  ~dmsGenaNotifier();
  dmsGenaNotifier(const dmsGenaNotifier &) = delete;
  dmsGenaNotifier &operator=(const dmsGenaNotifier &) = delete;

  // Queues event `seq` with `body` for subscription `sid`, delivered to
  // `url`; beyond `queuedEvents` waiting, the oldest give way.
  void queue(const std::string &sid, const std::string &url, uint32_t seq, Body body);
  // Drops the outbox of `sid`: its waiting events are never sent, and the
  // outcome of a transfer still in flight is ignored.
  void forget(const std::string &sid);

 private:
  struct Event {
    uint32_t seq;
    Body body;
  };
  struct Outbox {
    std::string url;
    std::deque<Event> waiting;
    bool inFlight = false;
    uint32_t failures = 0;
  };
  struct Job {
    std::string sid;
    std::string url;
    Event event;
  };
  struct Transfer;
  struct Multi;

  void run();
  bool step();
  std::vector<Job> takeJobs();
  void start(Job &job);
  bool finishDone();
  void finished(const std::string &sid, bool delivered);
  void abandonAll();

  const dmsGenaLimits limits_;
  Dropped dropped_;
  std::mutex lock_;  // guards outboxes_
  std::map<std::string, Outbox> outboxes_;
  std::atomic<bool> stopping_{false};
  std::unique_ptr<Multi> multi_;  // the multi handle and its transfers (delivery thread)
  std::thread thread_;            // last: starts once the members above exist
};

#endif  // DMS_GENA_DMS_GENA_NOTIFIER_H

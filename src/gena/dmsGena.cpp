#include "gena/dmsGena.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <utility>

#include "gena/dmsGenaHeaders.h"
#include "gena/dmsGenaNotifier.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsGena";

namespace {

using Clock = std::chrono::steady_clock;
using Body = dmsGenaNotifier::Body;

dmsGenaAnswer refusal(int status) {
  dmsGenaAnswer answer;
  answer.status = status;
  return answer;
}

}  // namespace

struct dmsGena::State {
  struct Subscription {
    size_t service = 0;
    dmsGenaAddress address;
    std::string url;
    uint64_t age = 0;  // order of creation: the smallest is the oldest
    Clock::time_point expires;
    uint32_t nextSeq = 1;  // SEQ 0 is the initial event's
    // Events of a subscription whose initial event is not queued yet wait
    // here, so that the subscriber hears SEQ 0 first.
    bool initialQueued = false;
    std::deque<std::pair<uint32_t, Body>> held;
  };
  using Table = std::map<std::string, Subscription>;

  State(size_t serviceCount, const dmsGenaLimits &limits, InitialEvent initialEvent)
      : serviceCount(serviceCount),
        limits(limits),
        initialEvent(std::move(initialEvent)),
        notifier(limits, [this](const std::string &sid) { dropFailed(sid); }) {}

  dmsGenaAnswer add(const dmsGenaRequest &request);
  dmsGenaAnswer renew(const dmsGenaRequest &request);
  int remove(const dmsGenaRequest &request);
  bool makeRoom(const dmsGenaAddress &subscriber);
  void queue(const std::string &sid, Subscription &subscription, uint32_t seq, const Body &body);

  void erase(Table::iterator at) {
    notifier.forget(at->first);
    table.erase(at);
  }
  void dropExpired(Clock::time_point now) {
    for (auto at = table.begin(); at != table.end();) {
      const auto next = std::next(at);
      if (now >= at->second.expires) erase(at);
      at = next;
    }
  }
  // A known, unexpired subscription of `service`; end() otherwise (an
  // expired one found on the way goes).
  Table::iterator live(const char *sid, size_t service, Clock::time_point now) {
    const auto at = table.find(sid);
    if (at == table.end()) return at;
    if (now >= at->second.expires) {
      erase(at);
      return table.end();
    }
    return at->second.service == service ? at : table.end();
  }
  void dropFailed(const std::string &sid) {
    std::lock_guard hold(lock);
    const auto at = table.find(sid);
    if (at != table.end()) erase(at);
  }

  const size_t serviceCount;
  const dmsGenaLimits limits;
  const InitialEvent initialEvent;
  std::mutex lock;  // guards table and created
  Table table;
  uint64_t created = 0;
  dmsGenaNotifier notifier;  // last: its thread calls back into the table
};

dmsGenaAnswer dmsGena::State::add(const dmsGenaRequest &request) {
  dmsGenaAddress subscriber;
  if (request.service >= serviceCount || request.subscriberAddress == nullptr ||
      !dmsGenaParseAddress(request.subscriberAddress, subscriber)) {
    return refusal(412);
  }
  std::string url = dmsGenaCallbackUrl(request.callback, subscriber);
  if (url.empty()) {
    DMS_TRACE(OSAL_TRACE_WARN, "CALLBACK refused for %s\n", request.subscriberAddress);
    return refusal(412);
  }
  dmsGenaAnswer answer;
  answer.timeoutSeconds = dmsGenaTimeoutSeconds(request.timeout, limits);
  answer.sid = dmsGenaNewSid();
  const Clock::time_point now = Clock::now();
  std::lock_guard hold(lock);
  dropExpired(now);
  if (!makeRoom(subscriber)) {
    DMS_TRACE(OSAL_TRACE_WARN, "Subscription table full: %s refused\n", request.subscriberAddress);
    return refusal(503);
  }
  Subscription &subscription = table[answer.sid];
  subscription.service = request.service;
  subscription.address = subscriber;
  subscription.url = std::move(url);
  subscription.age = ++created;
  subscription.expires = now + std::chrono::seconds(answer.timeoutSeconds);
  DMS_TRACE(OSAL_TRACE_INFO, "%s subscribed to service %zu as %s for %u s\n", request.subscriberAddress,
            request.service, answer.sid.c_str(), answer.timeoutSeconds);
  answer.status = 200;
  answer.isNew = true;
  return answer;
}

// Room for one more subscription of `subscriber`: its oldest gives way when
// it has its full share or the table is full.  False when the table is full
// and the address has nothing to give.
bool dmsGena::State::makeRoom(const dmsGenaAddress &subscriber) {
  auto oldest = table.end();
  uint32_t own = 0;
  for (auto at = table.begin(); at != table.end(); ++at) {
    if (!(at->second.address == subscriber)) continue;
    ++own;
    if (oldest == table.end() || at->second.age < oldest->second.age) oldest = at;
  }
  if (own < limits.perAddress && table.size() < limits.total) return true;
  if (oldest == table.end()) return false;
  DMS_TRACE(OSAL_TRACE_INFO, "Subscription %s replaced by a newer one\n", oldest->first.c_str());
  erase(oldest);
  return true;
}

dmsGenaAnswer dmsGena::State::renew(const dmsGenaRequest &request) {
  const uint32_t timeout = dmsGenaTimeoutSeconds(request.timeout, limits);
  const Clock::time_point now = Clock::now();
  std::lock_guard hold(lock);
  const auto at = live(request.sid, request.service, now);
  if (at == table.end()) return refusal(412);
  at->second.expires = now + std::chrono::seconds(timeout);
  dmsGenaAnswer answer;
  answer.status = 200;
  answer.sid = at->first;
  answer.timeoutSeconds = timeout;
  return answer;
}

int dmsGena::State::remove(const dmsGenaRequest &request) {
  std::lock_guard hold(lock);
  const auto at = live(request.sid, request.service, Clock::now());
  if (at == table.end()) return 412;
  DMS_TRACE(OSAL_TRACE_INFO, "%s unsubscribed\n", at->first.c_str());
  erase(at);
  return 200;
}

// Hands one event to the notifier, or holds it back until the initial event
// has gone first.
void dmsGena::State::queue(const std::string &sid, Subscription &subscription, uint32_t seq,
                           const Body &body) {
  if (subscription.initialQueued) {
    notifier.queue(sid, subscription.url, seq, body);
    return;
  }
  subscription.held.emplace_back(seq, body);
  while (subscription.held.size() > std::max<uint32_t>(limits.queuedEvents, 1)) subscription.held.pop_front();
}

dmsGena::dmsGena(size_t serviceCount, const dmsGenaLimits &limits, InitialEvent initialEvent)
    : state_(std::make_unique<State>(serviceCount, limits, std::move(initialEvent))) {}

dmsGena::~dmsGena() = default;

dmsGenaAnswer dmsGena::subscribe(const dmsGenaRequest &request) {
  if (request.sid != nullptr) {
    if (request.nt != nullptr || request.callback != nullptr) return refusal(400);
    return state_->renew(request);
  }
  if (request.nt == nullptr || request.callback == nullptr || std::strcmp(request.nt, "upnp:event") != 0) {
    return refusal(412);
  }
  return state_->add(request);
}

int dmsGena::unsubscribe(const dmsGenaRequest &request) {
  if (request.nt != nullptr || request.callback != nullptr) return 400;
  if (request.sid == nullptr) return 412;
  return state_->remove(request);
}

void dmsGena::sendInitialEvent(const std::string &sid) {
  State &state = *state_;
  size_t service = 0;
  {
    std::lock_guard hold(state.lock);
    const auto at = state.table.find(sid);
    if (at == state.table.end() || at->second.initialQueued) return;
    service = at->second.service;
  }
  // Made without the lock: it reads the service's state, which may take
  // locks of its own.
  const Body body = std::make_shared<const std::string>(state.initialEvent(service));
  std::lock_guard hold(state.lock);
  const auto at = state.table.find(sid);
  if (at == state.table.end() || at->second.initialQueued) return;
  State::Subscription &subscription = at->second;
  subscription.initialQueued = true;
  state.notifier.queue(sid, subscription.url, 0, body);
  for (const auto &[seq, held] : subscription.held) state.notifier.queue(sid, subscription.url, seq, held);
  subscription.held.clear();
}

void dmsGena::notify(size_t service, const std::string &propertySet) {
  const Body body = std::make_shared<const std::string>(propertySet);
  State &state = *state_;
  std::lock_guard hold(state.lock);
  state.dropExpired(Clock::now());
  for (auto &[sid, subscription] : state.table) {
    if (subscription.service != service) continue;
    const uint32_t seq = subscription.nextSeq;
    subscription.nextSeq = seq == UINT32_MAX ? 1 : seq + 1;
    state.queue(sid, subscription, seq, body);
  }
}

size_t dmsGena::subscriptionCount() {
  std::lock_guard hold(state_->lock);
  state_->dropExpired(Clock::now());
  return state_->table.size();
}

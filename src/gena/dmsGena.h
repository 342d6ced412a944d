// Event subscriptions (GENA) of the server's services: SUBSCRIBE, renewal and
// UNSUBSCRIBE as the front door hands them over, and delivery of NOTIFY
// messages to the subscribers.
//
// Safety rules, beyond what the eventing protocol asks:
//  - a CALLBACK is accepted only when it is an http: URL whose host is the
//    subscriber's own address (an IP literal); only its first URL is used,
//    so no subscriber can make the server send traffic anywhere else;
//  - at most `perAddress` subscriptions per subscriber address (a further
//    one replaces that address's oldest) and `total` in all (then a new
//    address is refused, so the players already subscribed keep theirs);
//  - delivery never blocks the caller: NOTIFY messages go out from one
//    thread of the hub's own, many at once, each bounded by a connect and a
//    total time-out; a subscriber that fails `maxFailures` times in a row is
//    dropped; the destructor returns within about a second, whatever the
//    subscribers do.
//
// Threads: every member may be called from any thread.  The subscription
// table is guarded by one mutex, held only for table work (never across
// network I/O); the delivery thread owns its transfers.
#ifndef DMS_GENA_DMS_GENA_H
#define DMS_GENA_DMS_GENA_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

struct dmsGenaLimits {
  uint32_t perAddress = 8;       // subscriptions of one subscriber address
  uint32_t total = 64;           // subscriptions in all
  uint32_t maxTimeoutSeconds = 1800;
  uint32_t minTimeoutSeconds = 60;
  uint32_t connectMs = 2000;     // NOTIFY: time to connect
  uint32_t sendMs = 4000;        // NOTIFY: time for the whole exchange
  uint32_t maxFailures = 3;      // deliveries failed in a row before a subscriber goes
  uint32_t queuedEvents = 16;    // events waiting per subscriber; the oldest give way
};

// What a SUBSCRIBE or UNSUBSCRIBE is answered with.  `status` is the HTTP
// status (200; 400 for a request mixing SID with NT or CALLBACK; 412 for a
// missing or refused CALLBACK, a wrong NT or an unknown SID; 503 when the
// table is full).  On 200 to a SUBSCRIBE: `sid` ("uuid:...") and
// `timeoutSeconds` for the SID and TIMEOUT headers, and `isNew` for a new
// subscription (which is owed its initial event, see sendInitialEvent).
struct dmsGenaAnswer {
  int status = 500;
  std::string sid;
  uint32_t timeoutSeconds = 0;
  bool isNew = false;
};

// The headers of one request, as the front door read them (NULL: absent).
struct dmsGenaRequest {
  size_t service = 0;              // index of the service addressed
  const char *subscriberAddress;   // the peer's IP address, as text
  const char *callback = nullptr;  // CALLBACK
  const char *nt = nullptr;        // NT
  const char *sid = nullptr;       // SID
  const char *timeout = nullptr;   // TIMEOUT ("Second-N" or "Second-infinite")
};

class dmsGena {
 public:
  // The property set (a whole NOTIFY body) a new subscriber of `service`
  // gets as its initial event; called without the hub's lock held.
  using InitialEvent = std::function<std::string(size_t service)>;

  // `serviceCount` services, numbered from 0.  Starts the delivery thread;
  // throws std::runtime_error when the HTTP client cannot be set up.
  dmsGena(size_t serviceCount, const dmsGenaLimits &limits, InitialEvent initialEvent);
  // Drops every subscription and stops delivery (at most about a second).
  ~dmsGena();
  dmsGena(const dmsGena &) = delete;
  dmsGena &operator=(const dmsGena &) = delete;

  // A new subscription (CALLBACK and NT) or a renewal (SID).
  dmsGenaAnswer subscribe(const dmsGenaRequest &request);
  // Ends the subscription named by request.sid: 200, 400 or 412.
  int unsubscribe(const dmsGenaRequest &request);

  // Queues the initial event (SEQ 0) of subscription `sid`; the front door
  // calls it once the 200 answer has gone out.  Unknown sid: nothing.
  void sendInitialEvent(const std::string &sid);

  // Queues `propertySet` (a whole NOTIFY body) to every current subscriber
  // of `service`; returns at once.
  void notify(size_t service, const std::string &propertySet);

  // Subscriptions now in the table (expired ones are not counted).
  size_t subscriptionCount();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

#endif  // DMS_GENA_DMS_GENA_H

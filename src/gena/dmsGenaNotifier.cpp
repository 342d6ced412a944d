#include "gena/dmsGenaNotifier.h"

#include <curl/curl.h>

#include <algorithm>
#include <new>
#include <stdexcept>
#include <unordered_map>

#include "util/dmsThreadName.h"
#include "util/dmsGuard.h"

static constexpr char kTraceFile[] = "dmsGenaNotifier";

namespace {

// A subscriber's answer is read and thrown away; headers and body beyond
// this size end the transfer as a failure.
constexpr size_t kMaxAnswerBytes = 64 * 1024;
// With nothing to do the thread sleeps up to this long: a queued event or a
// stop wakes it at once (curl_multi_wakeup), and libcurl shortens the wait
// by itself when a transfer in flight needs it, so a long wait costs
// nothing but spares an idle device a wake-up every second.
constexpr int kIdlePollMs = 60 * 1000;

struct EasyFree {
  void operator()(CURL *easy) const { curl_easy_cleanup(easy); }
};
struct SlistFree {
  void operator()(curl_slist *list) const { curl_slist_free_all(list); }
};
struct MultiFree {
  void operator()(CURLM *multi) const { curl_multi_cleanup(multi); }
};
using EasyPtr = std::unique_ptr<CURL, EasyFree>;
using SlistPtr = std::unique_ptr<curl_slist, SlistFree>;
using MultiPtr = std::unique_ptr<CURLM, MultiFree>;

// libcurl's global set-up, once per process whoever asks first.
void initCurlOnce() {
  static std::once_flag once;
  static CURLcode result = CURLE_FAILED_INIT;
  std::call_once(once, [] { result = curl_global_init(CURL_GLOBAL_DEFAULT); });
  if (result != CURLE_OK) throw std::runtime_error("libcurl cannot be initialised");
}

// Counts what the subscriber answers (headers and body alike) and keeps
// none of it; returning less than offered makes libcurl end the transfer.
size_t discardAnswer(char *, size_t size, size_t count, void *user) {
  return dmsGuard("dmsGenaNotifier answer", size_t{0}, [&] {
    size_t &seen = *static_cast<size_t *>(user);
    seen += size * count;
    return seen > kMaxAnswerBytes ? size_t{0} : size * count;
  });
}

template <typename Value>
void setOption(CURL *easy, CURLoption option, Value value) {
  if (curl_easy_setopt(easy, option, value) != CURLE_OK) {
    throw std::runtime_error("libcurl refused an option");
  }
}

void addHeader(SlistPtr &list, const std::string &line) {
  curl_slist *grown = curl_slist_append(list.get(), line.c_str());
  if (grown == nullptr) throw std::bad_alloc();
  (void)list.release();
  list.reset(grown);
}

}  // namespace

// One NOTIFY on its way: the easy handle and what it points into.
struct dmsGenaNotifier::Transfer {
  std::string sid;
  uint32_t seq = 0;
  Body body;  // kept alive for the transfer (libcurl sends from it)
  SlistPtr headers;
  size_t answerBytes = 0;
  EasyPtr easy;  // last: cleaned up before the headers and the body go
};

// The multi handle and the transfers added to it; only the delivery thread
// touches the transfers.
struct dmsGenaNotifier::Multi {
  MultiPtr handle;
  std::unordered_map<CURL *, std::unique_ptr<Transfer>> transfers;

  void remove(CURL *easy) {
    curl_multi_remove_handle(handle.get(), easy);
    transfers.erase(easy);
  }
  ~Multi() {
    while (!transfers.empty()) remove(transfers.begin()->first);
  }
};

dmsGenaNotifier::dmsGenaNotifier(const dmsGenaLimits &limits, Dropped dropped)
    : limits_(limits), dropped_(std::move(dropped)), multi_([] {
        initCurlOnce();
        auto multi = std::make_unique<Multi>();
        multi->handle.reset(curl_multi_init());
        if (!multi->handle) throw std::runtime_error("libcurl: no multi handle");
        return multi;
      }()),
      thread_([this] { run(); }) {}

dmsGenaNotifier::~dmsGenaNotifier() {
  stopping_.store(true);
  curl_multi_wakeup(multi_->handle.get());
  thread_.join();
  // multi_ goes with the members, after the thread: a late wake-up from
  // another thread always finds the handle alive.
}

void dmsGenaNotifier::queue(const std::string &sid, const std::string &url, uint32_t seq, Body body) {
  {
    std::lock_guard hold(lock_);
    Outbox &outbox = outboxes_[sid];
    outbox.url = url;
    outbox.waiting.push_back(Event{seq, std::move(body)});
    const size_t cap = std::max<uint32_t>(limits_.queuedEvents, 1);
    while (outbox.waiting.size() > cap) outbox.waiting.pop_front();
  }
  curl_multi_wakeup(multi_->handle.get());
}

void dmsGenaNotifier::forget(const std::string &sid) {
  std::lock_guard hold(lock_);
  outboxes_.erase(sid);
}

void dmsGenaNotifier::run() {
  dmsNameThread("dms-notify");
  while (!stopping_.load()) {
    const bool busy = dmsGuard("dmsGenaNotifier", false, [this] { return step(); });
    if (stopping_.load()) break;
    // A transfer just ended: its subscriber's next event may start at once.
    if (!busy) curl_multi_poll(multi_->handle.get(), nullptr, 0, kIdlePollMs, nullptr);
  }
  abandonAll();
}

// Starts what waits, lets libcurl move every transfer on, and settles those
// that ended.  True when some ended.
bool dmsGenaNotifier::step() {
  for (Job &job : takeJobs()) {
    const bool started = dmsGuard("dmsGenaNotifier start", false, [&] {
      start(job);
      return true;
    });
    if (!started) finished(job.sid, false);
  }
  int running = 0;
  const CURLMcode code = curl_multi_perform(multi_->handle.get(), &running);
  if (code != CURLM_OK) DMS_TRACE(OSAL_TRACE_ERR, "curl_multi_perform: %s\n", curl_multi_strerror(code));
  return finishDone();
}

// The first waiting event of every outbox with no transfer in flight.
std::vector<dmsGenaNotifier::Job> dmsGenaNotifier::takeJobs() {
  std::vector<Job> jobs;
  std::lock_guard hold(lock_);
  for (auto &[sid, outbox] : outboxes_) {
    if (outbox.inFlight || outbox.waiting.empty()) continue;
    jobs.push_back(Job{sid, outbox.url, std::move(outbox.waiting.front())});
    outbox.waiting.pop_front();
    outbox.inFlight = true;
  }
  return jobs;
}

void dmsGenaNotifier::start(Job &job) {
  auto transfer = std::make_unique<Transfer>();
  transfer->sid = job.sid;
  transfer->seq = job.event.seq;
  transfer->body = std::move(job.event.body);
  for (const std::string &line :
       {std::string("Content-Type: text/xml; charset=\"utf-8\""), std::string("NT: upnp:event"),
        std::string("NTS: upnp:propchange"), "SID: " + job.sid, "SEQ: " + std::to_string(job.event.seq),
        std::string("Expect:")}) {
    addHeader(transfer->headers, line);
  }
  transfer->easy.reset(curl_easy_init());
  CURL *easy = transfer->easy.get();
  if (easy == nullptr) throw std::runtime_error("libcurl: no easy handle");
  setOption(easy, CURLOPT_URL, job.url.c_str());
  setOption(easy, CURLOPT_CUSTOMREQUEST, "NOTIFY");
  setOption(easy, CURLOPT_HTTPHEADER, transfer->headers.get());
  setOption(easy, CURLOPT_POSTFIELDS, transfer->body->data());
  setOption(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(transfer->body->size()));
  // Only plain HTTP to the address given, never through a proxy from the
  // environment, never elsewhere on a redirect.
  setOption(easy, CURLOPT_PROXY, "");
  setOption(easy, CURLOPT_NOPROXY, "*");
  setOption(easy, CURLOPT_PROTOCOLS_STR, "http");
  setOption(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http");
  setOption(easy, CURLOPT_FOLLOWLOCATION, 0L);
  setOption(easy, CURLOPT_NOSIGNAL, 1L);
  setOption(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  setOption(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(limits_.connectMs));
  setOption(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(limits_.sendMs));
  setOption(easy, CURLOPT_WRITEFUNCTION, &discardAnswer);
  setOption(easy, CURLOPT_WRITEDATA, static_cast<void *>(&transfer->answerBytes));
  setOption(easy, CURLOPT_HEADERFUNCTION, &discardAnswer);
  setOption(easy, CURLOPT_HEADERDATA, static_cast<void *>(&transfer->answerBytes));
  // Recorded before it is added: once in the multi handle, the transfer must
  // stay alive until it is removed from it.
  multi_->transfers.emplace(easy, std::move(transfer));
  const CURLMcode code = curl_multi_add_handle(multi_->handle.get(), easy);
  if (code != CURLM_OK) {
    multi_->transfers.erase(easy);
    throw std::runtime_error(curl_multi_strerror(code));
  }
}

// Settles every transfer libcurl reports as ended.  True when some ended.
bool dmsGenaNotifier::finishDone() {
  bool any = false;
  int left = 0;
  while (CURLMsg *message = curl_multi_info_read(multi_->handle.get(), &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    CURL *easy = message->easy_handle;
    const CURLcode result = message->data.result;
    long status = 0;
    if (result == CURLE_OK) curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    const auto found = multi_->transfers.find(easy);
    if (found == multi_->transfers.end()) continue;
    const std::string sid = found->second->sid;
    const bool delivered = result == CURLE_OK && status >= 200 && status < 300;
    if (!delivered) {
      DMS_TRACE(OSAL_TRACE_DBG, "NOTIFY %s SEQ %u not delivered: %s, status %ld\n", sid.c_str(),
                found->second->seq, curl_easy_strerror(result), status);
    }
    multi_->remove(easy);
    finished(sid, delivered);
    any = true;
  }
  return any;
}

// Records the outcome of a delivery; a subscriber failing too often goes.
void dmsGenaNotifier::finished(const std::string &sid, bool delivered) {
  bool drop = false;
  {
    std::lock_guard hold(lock_);
    const auto found = outboxes_.find(sid);
    if (found == outboxes_.end()) return;  // forgotten meanwhile
    Outbox &outbox = found->second;
    outbox.inFlight = false;
    if (delivered) {
      outbox.failures = 0;
    } else if (++outbox.failures >= std::max<uint32_t>(limits_.maxFailures, 1)) {
      outboxes_.erase(found);
      drop = true;
    }
  }
  if (drop) {
    DMS_TRACE(OSAL_TRACE_INFO, "Subscriber %s dropped after %u failed deliveries\n", sid.c_str(),
              limits_.maxFailures);
    dropped_(sid);
  }
}

// On the way out: every transfer is removed as it stands, answered or not.
void dmsGenaNotifier::abandonAll() {
  dmsGuardVoid("dmsGenaNotifier stop", [this] {
    while (!multi_->transfers.empty()) multi_->remove(multi_->transfers.begin()->first);
  });
}

// Inside the front door (http/dmsHttpServer.h): the server record, what one
// request carries between the calls of the HTTP library, and the route
// table that says who answers what.
#ifndef DMS_HTTP_DMS_HTTP_ROUTES_H
#define DMS_HTTP_DMS_HTTP_ROUTES_H

#include <microhttpd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <thread>

#include "http/dmsHttpServer.h"
#include "services/dmsActionRequest.h"

using dmsHttpClock = std::chrono::steady_clock;

// One open connection, in the server's registry from the library's
// "started" notice to its "closed" notice.
struct dmsHttpConnection {
  int fd = -1;
  dmsHttpClock::time_point since;  // connected, or last answer completed
  bool answering = false;          // an answer is queued and not yet completed
  bool closing = false;            // shut down by the server; gone soon
  int watchedFd = -1;              // the file being sent (a copy); -1: none
  int64_t watchedEnd = 0;          // the size it must keep for the answer to finish
  std::list<dmsHttpConnection *>::iterator position;
};

struct dmsHttpRoute;

// One request, from its header to its completion.
struct dmsHttpRequestState {
  const dmsHttpRoute *route = nullptr;
  std::string body;
  bool head = false;      // a HEAD: headers only, and no play counted
  bool refused = false;   // an error answer is queued; the rest of the body is dropped
  bool tooLarge = false;  // the body passed its limit: dropped, then answered 413
  size_t dropped = 0;     // bytes of body dropped
  std::string newSid;     // a subscription made: its initial event follows the answer
};

struct dmsHttpServer {
  MHD_Daemon *daemon = nullptr;
  dmsHttpServerConfig config;
  int32_t port = 0;
  // Guards `connections`, `description` and `stopping`.
  std::mutex lock;
  std::list<dmsHttpConnection *> connections;  // oldest first
  size_t closing = 0;                           // of them, shut down and not yet gone
  std::string description;
  bool stopping = false;
  std::condition_variable wake;  // ends the sweeper
  std::thread sweeper;           // closes connections past their header time
};

// One row per route.  `method` "GET" answers HEAD too.  The handler runs
// once the whole request (and its body, when `takesBody`) is in.
struct dmsHttpRoute {
  const char *method;
  bool (*matches)(const char *url);
  MHD_Result (*answer)(dmsHttpServer &server, MHD_Connection *connection, dmsHttpRequestState &request,
                       const char *url);
  bool takesBody;
};

// The route for `method` and `url`; NULL with *status 404 (no such path)
// or 405 (the path exists for other methods).
const dmsHttpRoute *dmsHttpFindRoute(const char *method, const char *url, unsigned *status);

// Whether a request with this Host header (NULL: none) may be answered.
bool dmsHttpHostAllowed(const char *host, const std::string &serverAddress);

// Watches the file of the answer on `connection` (takes `fd` over): a file
// that shrinks below `end` ends the connection.
void dmsHttpWatchFile(dmsHttpServer &server, MHD_Connection *connection, int fd, int64_t end);

// Who sent the request on `connection`, with the flags of its profile.
dmsClientInfo dmsHttpClientInfo(dmsHttpServer &server, MHD_Connection *connection);

#endif  // DMS_HTTP_DMS_HTTP_ROUTES_H

// The front door's daemon: connections, their limits, and the flow of one
// request through the route table.
#include "http/dmsHttpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "dlna_dms.h"
#include "gena/dmsGena.h"
#include "http/dmsHttpRoutes.h"
#include "http/dmsMediaServer.h"
#include "util/dmsThreadName.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsHttpServer.c";

namespace {

// What a request's body may run past its limit before the connection is
// cut instead of answered 413.
constexpr size_t kMaxDropped = 1024 * 1024;

dmsHttpConnection *connectionState(MHD_Connection *connection) {
  const MHD_ConnectionInfo *info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
  return info != nullptr ? static_cast<dmsHttpConnection *>(info->socket_context) : nullptr;
}

// Shuts `victim` down; the library sees the socket end and closes the
// connection itself.  Called with the lock held, so the descriptor cannot
// be closed (and reused) meanwhile: the library reports a connection
// closed, which takes the lock, before it closes its socket.
void shutDown(dmsHttpServer &server, dmsHttpConnection &victim) {
  if (victim.closing) return;
  victim.closing = true;
  ++server.closing;
  ::shutdown(victim.fd, SHUT_RDWR);
}

// Stops watching the file of `connection`'s answer.  Lock held.
void unwatch(dmsHttpConnection &connection) {
  if (connection.watchedFd >= 0) ::close(connection.watchedFd);
  connection.watchedFd = -1;
}

// The connection that has waited longest without an answer in progress.
dmsHttpConnection *oldestIdle(dmsHttpServer &server) {
  dmsHttpConnection *oldest = nullptr;
  for (dmsHttpConnection *connection : server.connections) {
    if (connection->answering || connection->closing) continue;
    if (oldest == nullptr || connection->since < oldest->since) oldest = connection;
  }
  return oldest;
}

// At the limit, a newcomer takes the place of the connection that has
// waited longest without an answer; it is refused only when every
// connection is answering.  (The library's own limit would leave it waiting
// in the listen queue instead.)
MHD_Result acceptClient(void *cls, const sockaddr *, socklen_t) {
  return dmsGuard("dmsHttpServerAccept", MHD_NO, [&] {
    auto &server = *static_cast<dmsHttpServer *>(cls);
    std::lock_guard guard(server.lock);
    if (server.connections.size() - server.closing < server.config.limits.connections) return MHD_YES;
    dmsHttpConnection *victim = oldestIdle(server);
    if (victim == nullptr) return MHD_NO;
    shutDown(server, *victim);
    return MHD_YES;
  });
}

void trackConnection(void *cls, MHD_Connection *connection, void **socketContext,
                     MHD_ConnectionNotificationCode change) {
  dmsGuardVoid("dmsHttpServerTrack", [&] {
    auto &server = *static_cast<dmsHttpServer *>(cls);
    if (change == MHD_CONNECTION_NOTIFY_STARTED) {
      auto state = std::make_unique<dmsHttpConnection>();
      const MHD_ConnectionInfo *info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
      state->fd = info != nullptr ? info->connect_fd : -1;
      state->since = dmsHttpClock::now();
      std::lock_guard guard(server.lock);
      state->position = server.connections.insert(server.connections.end(), state.get());
      *socketContext = state.release();
      if (server.connections.size() == 1) server.wake.notify_all();  // the sweeper sleeps while there are none
      return;
    }
    std::unique_ptr<dmsHttpConnection> state(static_cast<dmsHttpConnection *>(*socketContext));
    *socketContext = nullptr;
    if (!state) return;
    std::lock_guard guard(server.lock);
    if (state->closing) --server.closing;
    unwatch(*state);
    server.connections.erase(state->position);
  });
}

void setAnswering(dmsHttpServer &server, MHD_Connection *connection, bool answering) {
  dmsHttpConnection *state = connectionState(connection);
  if (state == nullptr) return;
  std::lock_guard guard(server.lock);
  state->answering = answering;
  if (!answering) {
    state->since = dmsHttpClock::now();
    unwatch(*state);
  }
}

// The first call for a request: its header is in.  Refusals are queued
// now, which makes the library close the connection after them.
MHD_Result beginRequest(dmsHttpServer &server, MHD_Connection *connection, const char *url, const char *method,
                        dmsHttpRequestState &request) {
  if (!dmsHttpHostAllowed(MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_HOST),
                          server.config.address)) {
    request.refused = true;
    return dmsHttpQueueEmpty(connection, MHD_HTTP_FORBIDDEN);
  }
  unsigned status = MHD_HTTP_NOT_FOUND;
  request.route = dmsHttpFindRoute(method, url, &status);
  request.head = std::strcmp(method, MHD_HTTP_METHOD_HEAD) == 0;
  if (request.route == nullptr) {
    request.refused = true;
    return dmsHttpQueueEmpty(connection, status);
  }
  const char *length = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
  const size_t limit = request.route->takesBody ? server.config.limits.maxBody : 0;
  if (length != nullptr && std::strtoull(length, nullptr, 10) > limit) {
    request.refused = true;
    return dmsHttpQueueEmpty(connection, MHD_HTTP_CONTENT_TOO_LARGE);
  }
  return MHD_YES;
}

MHD_Result onRequest(void *cls, MHD_Connection *connection, const char *url, const char *method,
                     const char * /*version*/, const char *upload, size_t *uploadSize, void **requestContext) {
  return dmsGuard("dmsHttpServerAnswer", MHD_NO, [&] {
    auto &server = *static_cast<dmsHttpServer *>(cls);
    auto *request = static_cast<dmsHttpRequestState *>(*requestContext);
    if (request == nullptr) {
      auto made = std::make_unique<dmsHttpRequestState>();
      request = made.get();
      *requestContext = made.release();  // freed when the request completes
      return beginRequest(server, connection, url, method, *request);
    }
    if (*uploadSize > 0) {  // a piece of the body
      const size_t piece = *uploadSize;
      *uploadSize = 0;
      if (request->refused) return MHD_YES;
      const size_t limit = request->route->takesBody ? server.config.limits.maxBody : 0;
      if (request->tooLarge || request->body.size() + piece > limit) {
        // The library takes no answer before the body's end: the rest is
        // read and dropped, up to a bound, then the connection is cut.
        request->tooLarge = true;
        request->body.clear();
        request->body.shrink_to_fit();
        request->dropped += piece;
        return request->dropped > kMaxDropped ? MHD_NO : MHD_YES;
      }
      request->body.append(upload, piece);
      return MHD_YES;
    }
    if (request->refused) return MHD_YES;
    if (request->tooLarge) {
      request->refused = true;
      return dmsHttpQueueEmpty(connection, MHD_HTTP_CONTENT_TOO_LARGE);
    }
    setAnswering(server, connection, true);
    return request->route->answer(server, connection, *request, url);
  });
}

void onCompleted(void *cls, MHD_Connection *connection, void **requestContext,
                 MHD_RequestTerminationCode termination) {
  dmsGuardVoid("dmsHttpServerCompleted", [&] {
    auto &server = *static_cast<dmsHttpServer *>(cls);
    std::unique_ptr<dmsHttpRequestState> request(static_cast<dmsHttpRequestState *>(*requestContext));
    *requestContext = nullptr;
    setAnswering(server, connection, false);
    // The subscriber has its SID: now its initial event may follow.
    if (request && !request->newSid.empty() && termination == MHD_REQUEST_TERMINATED_COMPLETED_OK) {
      server.config.gena->sendInitialEvent(request->newSid);
    }
  });
}

// Whether the file of `connection`'s answer has shrunk below what the
// answer still has to send (sendfile would wait on it for ever).
bool fileCutShort(const dmsHttpConnection &connection) {
  struct stat status {};
  return connection.watchedFd >= 0 && ::fstat(connection.watchedFd, &status) == 0 &&
         status.st_size < connection.watchedEnd;
}

// Closes connections that have not sent a whole request in time, and those
// whose file was cut short under the answer.  Looks four times a second
// while there are connections and sleeps while there are none.
void sweep(dmsHttpServer *server) {
  dmsNameThread("dms-http-sweep");
  dmsGuardVoid("dmsHttpServerSweep", [&] {
    const auto limit = std::chrono::seconds(server->config.limits.headerSeconds);
    std::unique_lock guard(server->lock);
    while (!server->stopping) {
      if (server->connections.empty()) {
        server->wake.wait(guard);
      } else {
        server->wake.wait_for(guard, std::chrono::milliseconds(250));
      }
      const auto now = dmsHttpClock::now();
      for (dmsHttpConnection *connection : server->connections) {
        if (connection->closing) continue;
        if ((!connection->answering && now - connection->since > limit) || fileCutShort(*connection)) {
          shutDown(*server, *connection);
        }
      }
    }
  });
}

void traceLibraryMessage(void * /*cls*/, const char *format, va_list arguments) {
  dmsGuardVoid("dmsHttpServerLog", [&] {
    char text[512];
    std::vsnprintf(text, sizeof text, format, arguments);
    DMS_TRACE(OSAL_TRACE_INFO, "%s", text);
  });
}

MHD_Daemon *startDaemon(dmsHttpServer *server, const sockaddr_in &where) {
  const dmsHttpLimits &limits = server->config.limits;
  const unsigned flags = MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_EPOLL | MHD_USE_ITC | MHD_USE_ERROR_LOG;
  // A few polling threads, so that a picture being made (tens of
  // milliseconds for a large photo) holds up only one thread's connections.
  const unsigned threads = std::clamp(std::thread::hardware_concurrency(), 2u, 4u);
  // The library's own total is set above ours, per thread: ours decides.
  const unsigned libraryLimit = (limits.connections + 16) * threads;
  return MHD_start_daemon(flags, ntohs(where.sin_port), acceptClient, server, onRequest, server,
                          MHD_OPTION_EXTERNAL_LOGGER, traceLibraryMessage, nullptr,
                          MHD_OPTION_SOCK_ADDR, &where,
                          MHD_OPTION_NOTIFY_CONNECTION, trackConnection, server,
                          MHD_OPTION_NOTIFY_COMPLETED, onCompleted, server,
                          MHD_OPTION_CONNECTION_LIMIT, libraryLimit,
                          MHD_OPTION_PER_IP_CONNECTION_LIMIT, static_cast<unsigned>(limits.perAddress),
                          MHD_OPTION_CONNECTION_TIMEOUT, static_cast<unsigned>(limits.idleSeconds),
                          MHD_OPTION_CONNECTION_MEMORY_LIMIT, static_cast<size_t>(32 * 1024),
                          MHD_OPTION_THREAD_POOL_SIZE, threads,
                          MHD_OPTION_END);
}

}  // namespace

int32_t dmsHttpServerStart(dmsHttpServer **out, const dmsHttpServerConfig &config) {
  if (out == nullptr || config.port < 0 || config.port > 65535 || config.eventMgr == nullptr ||
      config.gena == nullptr) {
    return DMS_ERR_INVALID_PARAM;
  }
  sockaddr_in where{};
  where.sin_family = AF_INET;
  where.sin_port = htons(static_cast<uint16_t>(config.port));
  if (::inet_pton(AF_INET, config.address.c_str(), &where.sin_addr) != 1) return DMS_ERR_INVALID_PARAM;
  return dmsGuard("dmsHttpServerStart", DMS_ERR_NO_MEMORY, [&] {
    auto server = std::make_unique<dmsHttpServer>();
    server->config = config;
    server->description = config.description;
    server->daemon = startDaemon(server.get(), where);
    if (server->daemon == nullptr) {
      DMS_TRACE(OSAL_TRACE_ERR, "HTTP server cannot listen on [%s:%d]\n", config.address.c_str(),
                static_cast<int>(config.port));
      return DMS_ERR_FAILURE;
    }
    const MHD_DaemonInfo *info = MHD_get_daemon_info(server->daemon, MHD_DAEMON_INFO_BIND_PORT);
    server->port = info != nullptr ? info->port : config.port;
    server->sweeper = std::thread(sweep, server.get());
    DMS_TRACE(OSAL_TRACE_INFO, "HTTP server on [%s:%d]\n", config.address.c_str(), static_cast<int>(server->port));
    *out = server.release();
    return DMS_SUCCESS;
  });
}

void dmsHttpWatchFile(dmsHttpServer &server, MHD_Connection *connection, int fd, int64_t end) {
  dmsHttpConnection *state = connectionState(connection);
  std::lock_guard guard(server.lock);
  if (state == nullptr || !state->answering) {
    ::close(fd);
    return;
  }
  unwatch(*state);
  state->watchedFd = fd;
  state->watchedEnd = end;
}

int32_t dmsHttpServerPort(const dmsHttpServer *server) { return server == nullptr ? 0 : server->port; }

void dmsHttpServerSetDescription(dmsHttpServer *server, const std::string &description) {
  if (server == nullptr) return;
  dmsGuardVoid("dmsHttpServerSetDescription", [&] {
    std::lock_guard guard(server->lock);
    server->description = description;
  });
}

int32_t dmsHttpServerStop(dmsHttpServer *server) {
  if (server == nullptr) return DMS_SUCCESS;
  std::unique_ptr<dmsHttpServer> owned(server);
  {
    std::lock_guard guard(owned->lock);
    owned->stopping = true;
  }
  owned->wake.notify_all();
  if (owned->sweeper.joinable()) owned->sweeper.join();
  // Closes the listening socket and every connection, paused or half-sent,
  // and joins the polling threads; responses close their descriptors.
  if (owned->daemon != nullptr) MHD_stop_daemon(owned->daemon);
  return DMS_SUCCESS;
}

// The front door: the one HTTP server of the device, on the configured
// address and port.  It answers everything a control point fetches or posts:
// the device description, the service descriptions, icons and presentation
// page, SOAP control of the three services, GENA subscriptions, media,
// thumbnails and album art.  One table of routes (method, path form,
// handler, body limit); one way a request flows:
//
//   accept (connection budget) -> header (Host check, route, body limit)
//     -> body (bounded) -> handler -> answer -> completed (GENA initial event)
//
// Limits.  At most `connections` open connections; when a new client comes
// at the limit, the connection that has waited longest without an answer in
// progress (an idle keep-alive or an unfinished request) is closed for it,
// and only when every connection is answering is the newcomer refused.  At
// most `perAddress` connections of one address.  A connection that has not
// sent a whole request within `headerSeconds` of connecting or of its last
// answer is closed; one whose answer makes no progress for `idleSeconds` (a
// player on pause) too.  A request body above `maxBody` is refused with 413
// before it is read (Content-Length) or as soon as it passes the limit
// (chunked).  Memory per connection: the library's 32 KiB pool for the
// header, at most `maxBody` of body, and the answer.
//
// DNS rebinding: a request whose Host header is not an IP literal of this
// server or of loopback (with or without a port) is answered 403 and nothing
// else; a request without Host (HTTP/1.0) is answered.
//
// Threads: a few polling threads of the library (epoll) share the
// connections, plus one thread that closes connections past their header
// time.  The connection registry is guarded by the server's mutex; the rest
// of the record is written before the threads start.
#ifndef DMS_HTTP_DMS_HTTP_SERVER_H
#define DMS_HTTP_DMS_HTTP_SERVER_H

#include <cstddef>
#include <cstdint>
#include <string>

struct dmsContentListInfo;
struct dmsDevEventMgr;
struct dmsHttpServer;
class dmsArtCache;
class dmsClients;
class dmsFacts;
class dmsGena;

struct dmsHttpLimits {
  uint32_t connections = 64;    // open connections in all
  uint32_t perAddress = 16;     // open connections of one client address
  uint32_t headerSeconds = 5;   // to send a whole request
  uint32_t idleSeconds = 600;   // an answer that makes no progress this long ends
  size_t maxBody = 64 * 1024;   // a control request's body
};

struct dmsHttpServerConfig {
  std::string address;  // IPv4 literal to listen on
  int32_t port = 0;     // 0: any free port
  std::string description;  // the device description served at /description.xml
  dmsContentListInfo *contentList = nullptr;  // borrowed; outlives the server
  dmsArtCache *artCache = nullptr;            // borrowed; outlives the server
  dmsDevEventMgr *eventMgr = nullptr;         // borrowed; outlives the server
  dmsGena *gena = nullptr;                    // borrowed; outlives the server
  dmsClients *clients = nullptr;              // borrowed; outlives the server; NULL: no profiles
  dmsFacts *facts = nullptr;                  // borrowed; outlives the server; plays are counted in it
  dmsHttpLimits limits;
};

// Starts the server.  *out is the new server; 0, DMS_ERR_INVALID_PARAM for
// NULL arguments or a bad address, DMS_ERR_FAILURE when the port cannot be
// bound.
int32_t dmsHttpServerStart(dmsHttpServer **out, const dmsHttpServerConfig &config);

// The bound port (0 for NULL).
int32_t dmsHttpServerPort(const dmsHttpServer *server);

// Replaces the device description served from now on.
void dmsHttpServerSetDescription(dmsHttpServer *server, const std::string &description);

// Closes every connection, ends the threads and frees `server`.  NULL
// accepted.  Returns 0 within milliseconds, whatever the clients do.
int32_t dmsHttpServerStop(dmsHttpServer *server);

#endif  // DMS_HTTP_DMS_HTTP_SERVER_H

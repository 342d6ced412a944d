// The media server: streams the shared files on a port of its own, with a
// few event-driven threads (libmicrohttpd over epoll, each thread polling
// its own share of the connections).  A player that stops reading (a TV on
// pause) costs a socket and a file descriptor, never a thread, and a
// half-sent request header holds nothing but its connection.  Thumbnails and
// album art are served here too (see http/dmsArt.h), made on the thread of
// the connection that first asks, which holds up only that thread's share.
//
// URLs are those of the SDK's "/web" directory, "/web/<id>[.ext]", so a DIDL
// res URL differs from the old one only by its port.  GET and HEAD; one byte
// range ("bytes=a-b", "a-", "-n"; of several, the first) answers 206 with
// Content-Range, a range beyond the end 416; every media answer carries
// contentFeatures.dlna.org and transferMode.dlna.org; HTTP/1.1 keep-alive,
// "Connection: close" honoured.  Files go out with sendfile, 16-bit LPCM
// through a reader that swaps to network order from any offset.
//
// Lifetimes.  The server borrows the content list: it must be stopped
// (dmsMediaServerStop) before the list is freed.  A connection holds no
// pointer into the list: each request copies what it serves (path, type,
// offsets) under the list's read lock and opens its own descriptor, which the
// response owns and closes.  dmsMediaServerStop closes every connection at
// once, whatever the client does, and joins the polling thread; it returns
// within milliseconds.
//
// Threads.  Callbacks run on the server's polling threads.  The record is
// written before the threads start and read only after (the connection count
// is atomic), so it needs no lock; the art cache locks itself.
#ifndef DMS_HTTP_DMS_MEDIA_SERVER_H
#define DMS_HTTP_DMS_MEDIA_SERVER_H

#include <cstdint>

struct dmsContentListInfo;
struct dmsMediaServer;
class dmsArtCache;

// Limits of one server.
struct dmsMediaServerLimits {
  uint32_t connections = 64;   // open connections in all; more are closed at accept
  uint32_t perAddress = 16;    // open connections from one client address
  uint32_t idleSeconds = 600;  // a connection that makes no progress this long is closed
};

// Starts serving `contentList` and the pictures of `artCache` (both borrowed:
// they outlive the server) on address:port.  port 0 takes any free port.
// *out is the new server; 0, DMS_ERR_INVALID_PARAM for NULL arguments or a
// bad address, DMS_ERR_FAILURE when the port cannot be bound.
int32_t dmsMediaServerStart(dmsMediaServer **out, const char *address, int32_t port,
                            dmsContentListInfo *contentList, dmsArtCache *artCache,
                            const dmsMediaServerLimits &limits);

// The bound port (0 for NULL).
int32_t dmsMediaServerPort(const dmsMediaServer *server);

// Closes every connection, ends the polling thread and frees `server`.  NULL
// accepted.  Returns 0.
int32_t dmsMediaServerStop(dmsMediaServer *server);

#endif  // DMS_HTTP_DMS_MEDIA_SERVER_H

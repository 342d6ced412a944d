// What the front door fetches for control points: the shared files, their
// thumbnails and album art (see art/dmsArt.h), and the fixed files of the
// "/web" directory; and the one way every answer is queued.
//
// URLs are "/web/<id>[.ext]" for media.  GET and HEAD; one byte range
// ("bytes=a-b", "a-", "-n"; of several, the first) answers 206 with
// Content-Range, a range beyond the end 416; every media answer carries
// contentFeatures.dlna.org and transferMode.dlna.org.  Files go out with
// sendfile, 16-bit LPCM through a reader that swaps to network order from
// any offset.
//
// Lifetimes.  A connection holds no pointer into the content list: each
// request copies what it serves (path, type, offsets) under the list's read
// lock and opens its own descriptor, which the response owns and closes.
#ifndef DMS_HTTP_DMS_MEDIA_SERVER_H
#define DMS_HTTP_DMS_MEDIA_SERVER_H

#include <microhttpd.h>

#include <cstdint>
#include <string>

#include "http/dmsAvtHttpHandler.h"

struct dmsContentListInfo;
class dmsArtCache;
class dmsFacts;

// The Server header of every answer ("Linux/<release> UPnP/1.0 ...").
const char *dmsHttpServerHeader();

// Queues `response` (NULL: MHD_NO) with the headers every answer carries,
// and releases it.
MHD_Result dmsHttpQueue(MHD_Connection *connection, unsigned status, MHD_Response *response);
// An answer without a body, with one optional header.
MHD_Result dmsHttpQueueEmpty(MHD_Connection *connection, unsigned status, const char *name = nullptr,
                             const std::string &value = {});
// An answer whose body is `text`.
MHD_Result dmsHttpQueueText(MHD_Connection *connection, unsigned status, const char *contentType, std::string text);

// True for a media or picture URL ("/web/<id>[.ext]", "/web/<id>.tn.jpg" ...).
bool dmsMediaServerIsMediaUrl(const char *url);

// The bytes of one answer: [first, first + count) of the served length.
struct dmsHttpByteRange {
  int64_t first = 0;
  int64_t count = 0;
};

enum class dmsHttpRangeAnswer { kWhole, kPart, kUnsatisfiable };

// Reads the first range of a "Range: bytes=..." header (NULL: none) against
// `length`.  A header that is absent or not understood asks for the whole
// file ({0, length}); kPart has 0 <= first < first + count <= length.
dmsHttpRangeAnswer dmsHttpParseRange(const char *header, int64_t length, dmsHttpByteRange &range);

// What a file answer needs of the file to finish: a descriptor of it (a
// copy, the caller's to close) and the size it must keep.
struct dmsMediaWatch {
  int fd = -1;
  int64_t end = 0;
};

// Answers GET or HEAD of a media or picture URL of `contentList` (pictures
// made or found in `artCache`).  A file sent with sendfile fills `watch`.
// An answer from the file's first byte counts a play in `facts` (NULL: none).
// `quirks`, the client's profile flags, fit the type told and add Samsung's
// CaptionInfo.sec; "/web/<id>.<n>.<extension>" is a video's subtitle.
MHD_Result dmsMediaServerAnswer(MHD_Connection *connection, const char *url, dmsContentListInfo *contentList,
                                dmsArtCache *artCache, dmsFacts *facts, uint32_t quirks, dmsMediaWatch *watch);

// Answers GET or HEAD of a fixed file.
MHD_Result dmsMediaServerAnswerFixed(MHD_Connection *connection, const dmsAvtHttpFixed &file);

#endif  // DMS_HTTP_DMS_MEDIA_SERVER_H

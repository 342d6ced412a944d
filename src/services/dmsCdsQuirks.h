// The answers a client profile changes in the ContentDirectory and in media
// answers: the type and DLNA profile a player is told (one row per change,
// keyed by the flag that asks for it), and the sidecar subtitles offered
// beside a video (every client: `res` elements; Samsung: CaptionInfoEx).
#ifndef DMS_SERVICES_DMS_CDS_QUIRKS_H
#define DMS_SERVICES_DMS_CDS_QUIRKS_H

#include <cstdint>
#include <string>
#include <vector>

#include "services/dmsCdsMgrResponseHandler.h"
#include "subtitles/dmsSubtitles.h"

// `protocolInfo` ("http-get:*:MIME:FIELDS") as a client with `quirks` is
// told it; unchanged for most.  May throw std::bad_alloc.
std::string dmsCdsFitProtocol(uint32_t quirks, const std::string &protocolInfo);
// For DMS_QUIRK_SONY_PN: the protocolInfo naming the DLNA profile of AVC
// with AC-3 in MPEG-TS (the timestamped form for .m2ts and .mts files),
// which this server does not name otherwise; false for any other file.
bool dmsCdsSonyProtocol(const dmsContentEntry &entry, std::string &out);
// A MIME type as the client is told it.  May throw std::bad_alloc.
std::string dmsCdsFitMimeType(uint32_t quirks, const std::string &mimeType);
// The MIME type of a subtitle format for the client.
const char *dmsCdsSubtitleType(uint32_t quirks, const dmsSubtitleFormat &format);

// SortCriteria as a client with `quirks` meant it: "+dc:title" for one that
// sends a fixed order it cannot have meant (DMS_QUIRK_SORT_TITLE), the keys
// this server sorts by alone for one that adds keys of its own
// (DMS_QUIRK_SORT_DROP_UNKNOWN); `text` itself otherwise.  May throw
// std::bad_alloc.
std::string dmsCdsFitSortCriteria(uint32_t quirks, const char *text);

// The container an Xbox 360 names by its own fixed id ("4" all music, "5"
// genres, "6" artists, "7" albums, "F" playlists, "14" to "16" the music,
// video and picture folders): the views' container, or the root when the
// views are off.  false for any other text.
bool dmsCdsXboxContainer(const char *text, bool viewsOn, int32_t &id);

// The sidecar subtitles of item `entry` (a video), in name order; empty for
// any other.  The list's read lock held.  May throw std::bad_alloc.
std::vector<dmsSubtitle> dmsCdsSubtitlesOf(const dmsContentEntry &entry);

// Adds the subtitles of `entry` to `record`: a `res` each when the Filter
// asks for res, and for DMS_QUIRK_SEC_DIDL clients sec:CaptionInfoEx of
// the first.  May throw std::bad_alloc.
void dmsCdsAddSubtitles(const dmsCdsObjectRequest &request, const dmsContentEntry &entry, dmsCdsItemRecord &record);

#endif  // DMS_SERVICES_DMS_CDS_QUIRKS_H

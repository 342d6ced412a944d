// The media half of the /web file server: which shared file a URL names, what
// is served of it, and the byte order of LPCM samples on the wire.
#ifndef DMS_HTTP_DMS_AVT_HTTP_MEDIA_H
#define DMS_HTTP_DMS_AVT_HTTP_MEDIA_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

struct dmsContentListInfo;

// What a transfer needs of one shared item, copied while the content list
// was read, so that the entry may go away during the transfer.
struct dmsAvtHttpMediaFile {
  std::string path;
  std::string mimeType;
  std::string contentFeatures;  // the item's DLNA field, or a plain default
  bool streaming = true;        // audio and video stream; images are interactive
  int64_t dataOffset = 0;       // first byte served
  int64_t declaredSize = 0;     // bytes to serve when the header says so; 0 unknown
  bool swapSamples = false;     // 16-bit little-endian LPCM, sent big-endian
};

// The id of a media URL: "/web/" followed by digits and an optional
// extension (".mp3"), nothing else; a query string is ignored.  false for any
// other path and for ids beyond 32 bits.
bool dmsAvtHttpParseMediaId(const char *path, uint32_t *id);

// Copies what is served of item `id`; false when there is no such item (the
// root and containers are no items).  Takes the list's shared lock.
bool dmsAvtHttpFindMedia(dmsContentListInfo *list, uint32_t id, dmsAvtHttpMediaFile &out);

// Bytes served of `media` when its file holds `fileSize` bytes now: from the
// payload start, no more than the header declares.
int64_t dmsAvtHttpServedLength(const dmsAvtHttpMediaFile &media, int64_t fileSize);

// The extra HTTP header lines for `media`, each ending in CRLF.
std::string dmsAvtHttpMediaHeaders(const dmsAvtHttpMediaFile &media);

// Reads up to `count` bytes at `position` into `buffer`, with every 16-bit
// sample (pairs counted from `dataOffset`) byte-swapped, also when `position`
// is odd relative to it.  Bytes delivered, 0 at the end or on error.
size_t dmsAvtHttpReadSwapped(int descriptor, char *buffer, size_t count, int64_t position,
                             int64_t dataOffset, std::vector<char> &scratch);

#endif  // DMS_HTTP_DMS_AVT_HTTP_MEDIA_H

// Thumbnails and album art: which pictures an object offers, where they are
// served, and making them on first request (kept in the art cache).
//
//   /web/<id>.tn.jpg   an image's thumbnail, JPEG_TN (at most 160x160)
//   /web/<id>.sm.jpg   an image's small picture, JPEG_SM (at most 640x480),
//                      for images larger than that
//   /web/<id>.art.jpg  a music track's cover, JPEG_TN: the picture in its
//                      tags, else its folder's cover file
//
// Pictures are made from JPEG and PNG files only, never written anywhere,
// and a picture that cannot be made is not offered again.  A build without
// pictures (dmsArtAbsent.cpp) offers none and makes none: every picture URL
// is still recognised, and answered with 404.
#ifndef DMS_ART_DMSART_H
#define DMS_ART_DMSART_H

#include <cstdint>

#include "content/dmsClmApi.h"
#include "art/dmsArtCache.h"

enum class dmsArtKind : uint32_t { kThumbnail = 0, kSmall = 1, kAlbum = 2 };

// What one object offers, for its DIDL-Lite.
struct dmsArtOffer {
  char thumbnailResolution[16] = {0};  // "WxH" of the JPEG_TN res; empty: none
  char smallResolution[16] = {0};      // "WxH" of the JPEG_SM res; empty: none
  uint32_t albumArtId = 0;             // the object whose .art.jpg is its albumArtURI; 0: none
};

// Fills `out` for `entry`: images their thumbnail and small picture; music
// tracks their cover; a folder the cover of its first track that has one.
// `cache` may be NULL (nothing was found unmakeable then).  The caller holds
// the list's lock.
void dmsArtOffers(const dmsContentEntry *entry, const dmsArtCache *cache, dmsArtOffer &out);

// The id and kind of a picture URL: "/web/" digits then exactly ".tn.jpg",
// ".sm.jpg" or ".art.jpg"; a query string is ignored.  false otherwise.
bool dmsArtParseUrl(const char *path, uint32_t *id, dmsArtKind *kind);

// The picture `kind` of object `id`, from the cache or made now (outside the
// list's lock); NULL when the object offers no such picture or it cannot be
// made.  *cached tells which.  Never throws.
dmsArtCache::Picture dmsArtGet(dmsContentListInfo *list, dmsArtCache *cache, uint32_t id, dmsArtKind kind,
                               bool *cached);

#endif  // DMS_ART_DMSART_H

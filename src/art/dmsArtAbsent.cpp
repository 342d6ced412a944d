// Thumbnails and album art in a build without pictures (no TurboJPEG, no
// libpng): nothing is offered, so no albumArtURI and no thumbnail res is
// written, and nothing is made, so a picture URL finds nothing (404).  The
// photos themselves are listed and served as files still.
#include "art/dmsArt.h"

void dmsArtOffers(const dmsContentEntry *, const dmsArtCache *, dmsArtOffer &out) { out = dmsArtOffer{}; }

dmsArtCache::Picture dmsArtGet(dmsContentListInfo *, dmsArtCache *, uint32_t, dmsArtKind, bool *cached) {
  if (cached != nullptr) *cached = false;
  return nullptr;
}

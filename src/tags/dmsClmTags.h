// Tags of media files: what the file's own title, artist, album, genre, date
// and track say, read with TagLib from the formats that carry them, and a
// photo's date taken from its Exif data.
//
// Reading happens in the detection step, outside the list's lock, and only
// for files a detector accepted.  Files are opened read-only.  The texts a
// listed entry keeps live in the list's tag pool.
#ifndef DMS_TAGS_DMSCLMTAGS_H
#define DMS_TAGS_DMSCLMTAGS_H

#include <cstdint>
#include <string>

#include "content/dmsClmRecord.h"
#include "content/dmsClmTagPool.h"
#include "mfd/mfd_api.h"
#include "mfd/mfd_formats.h"

// Tags as read, in UTF-8; empty texts and zero numbers were not there.
struct dmsTagText {
  std::string title, artist, albumArtist, album, genre;
  std::string date;  // "YYYY", "YYYY-MM", "YYYY-MM-DD" or a photo's "YYYY-MM-DDTHH:MM:SS"
  uint32_t track = 0, disc = 0;
  bool hasPicture = false;  // a cover picture in the tags
  bool empty() const;
};

// Reads the tags of the file at `path`, detected as `info`.  false when the
// format keeps no tags the server reads, the file cannot be read or it holds
// none; `out` is then empty.
bool dmsClmReadTags(const std::string &path, const mfdMediaInfo &info, dmsTagText &out);

// The tags of a file whose format keeps them as `layout` (not kNone, not
// kExif), read with TagLib; false when it holds none or cannot be read.  A
// build without TagLib reads none (dmsClmTagsAbsent.cpp).
bool dmsClmReadTaggedFile(const std::string &path, mfdTagLayout layout, dmsTagText &out);

// The entry's tags with their texts pooled (the album artist is read but
// kept by no entry: nothing publishes it; a disc number over 255 is dropped).  May throw std::bad_alloc.
dmsMediaTags dmsClmPoolTags(dmsTagPool &pool, const dmsTagText &text);

#endif  // DMS_TAGS_DMSCLMTAGS_H

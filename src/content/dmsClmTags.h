// Tags of media files: what the file's own title, artist, album, genre, date
// and track say, read with TagLib from the formats that carry them.
//
// Reading happens in the detection step, outside the list's lock, and only
// for files a detector accepted.  Files are opened read-only.  The texts a
// listed entry keeps live in the list's pool, each distinct text once (an
// artist's name is stored once however many tracks carry it).
#ifndef DMS_CONTENT_DMSCLMTAGS_H
#define DMS_CONTENT_DMSCLMTAGS_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>

#include "mfd/mfd_api.h"

// Tags as read, in UTF-8; empty texts and zero numbers were not there.
struct dmsTagText {
  std::string title, artist, albumArtist, album, genre;
  std::string date;  // "YYYY", "YYYY-MM", "YYYY-MM-DD" or a photo's "YYYY-MM-DDTHH:MM:SS"
  uint32_t track = 0, disc = 0;
  bool empty() const;
};

// Reads the tags of the file at `path`, detected as `info`.  false when the
// format keeps no tags the server reads, the file cannot be read or it holds
// none; `out` is then empty.
bool dmsClmReadTags(const std::string &path, const mfdMediaInfo &info, dmsTagText &out);

// The tags of a listed entry.  Texts point into the list's pool; NULL: absent.
struct dmsMediaTags {
  const char *title = nullptr;
  const char *artist = nullptr;
  const char *albumArtist = nullptr;
  const char *album = nullptr;
  const char *genre = nullptr;
  const char *date = nullptr;
  uint16_t track = 0;
  uint16_t disc = 0;
};

// Each distinct tag text once, for as long as the list lives.  Texts are
// added by the list's one writer, from the threads its walk detects files
// on (the pool's own mutex orders them); readers use the texts, which never
// move or change, and never the pool itself.
class dmsTagPool {
 public:
  dmsTagPool() = default;
  dmsTagPool(const dmsTagPool &) = delete;
  dmsTagPool &operator=(const dmsTagPool &) = delete;
  // The pooled copy of `text`; NULL for an empty text.  May throw
  // std::bad_alloc.
  const char *intern(const std::string &text);

 private:
  std::mutex mutex_;
  std::unordered_set<std::string> texts_;
};

// The entry's tags with their texts pooled; NULL when `text` is empty.  May
// throw std::bad_alloc.
std::unique_ptr<dmsMediaTags> dmsClmPoolTags(dmsTagPool &pool, const dmsTagText &text);

#endif  // DMS_CONTENT_DMSCLMTAGS_H

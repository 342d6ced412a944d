// The tags module's share that needs no TagLib: which reader a format
// takes, the photo's date from its Exif data, pooling what was read, and
// the folder's cover file.  It stays in every build.
#include "tags/dmsClmTags.h"

#include <strings.h>

#include <array>

#include "mfd/mfd_exif.h"
#include "mfd/mfd_formats.h"
#include "tags/dmsClmPicture.h"
#include "util/dmsGuard.h"

bool dmsTagText::empty() const {
  return title.empty() && artist.empty() && albumArtist.empty() && album.empty() && genre.empty() &&
         date.empty() && track == 0 && disc == 0 && !hasPicture;
}

bool dmsClmReadTags(const std::string &path, const mfdMediaInfo &info, dmsTagText &out) {
  out = dmsTagText{};
  const mfdFormatRow *row = mfd_formatRow(info.formatId);
  if (row == nullptr || row->tags == mfdTagLayout::kNone) return false;
  if (row->tags == mfdTagLayout::kExif) {
    out.date = dmsGuard("dmsClmReadTags", std::string(), [&] { return mfdExif_dateTaken(path); });
    return !out.empty();
  }
  if (dmsClmReadTaggedFile(path, row->tags, out)) return true;
  out = dmsTagText{};
  return false;
}

dmsMediaTags dmsClmPoolTags(dmsTagPool &pool, const dmsTagText &text) {
  dmsMediaTags tags;
  tags.title = pool.intern(text.title);
  tags.artist = pool.intern(text.artist);
  tags.album = pool.intern(text.album);
  tags.genre = pool.intern(text.genre);
  tags.date = pool.intern(text.date);
  tags.track = static_cast<uint16_t>(text.track);  // at most 0xFFFF as read
  tags.disc = static_cast<uint8_t>(text.disc > 0xFF ? 0 : text.disc);
  tags.flags = text.hasPicture ? DMS_TAGS_PICTURE : 0;
  return tags;
}

int dmsClmCoverRank(std::string_view name) {
  const size_t dot = name.rfind('.');
  if (dot == std::string_view::npos) return 0;
  const std::string extension(name.substr(dot + 1));
  if (strcasecmp(extension.c_str(), "jpg") != 0 && strcasecmp(extension.c_str(), "jpeg") != 0 &&
      strcasecmp(extension.c_str(), "png") != 0) {
    return 0;
  }
  const std::string stem(name.substr(0, dot));
  constexpr std::array<const char *, 3> kNames{"front", "folder", "cover"};  // worst first
  for (size_t i = 0; i < kNames.size(); ++i) {
    if (strcasecmp(stem.c_str(), kNames[i]) == 0) return static_cast<int>(i) + 2;
  }
  return strncasecmp(stem.c_str(), "albumart", 8) == 0 ? 1 : 0;
}

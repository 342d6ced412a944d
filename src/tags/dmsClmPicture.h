// Cover pictures: the one a music file carries in its tags (ID3v2 APIC,
// MP4 covr, FLAC and Vorbis comment pictures, ASF WM/Picture), and the one
// a folder holds as a file (cover, folder, front or albumart*, any case,
// JPEG or PNG).  A build without TagLib reads no embedded picture; the
// folder's cover file needs none.
#ifndef DMS_TAGS_DMSCLMPICTURE_H
#define DMS_TAGS_DMSCLMPICTURE_H

#include <cstddef>
#include <string>
#include <string_view>

#include "mfd/mfd_api.h"

// Embedded pictures larger than this are left alone.
inline constexpr size_t DMS_CLM_MAX_PICTURE_BYTES = 16 * 1024 * 1024;

// Reads the front cover of the file at `path`, detected as `info` (else its
// first picture) into `out`.  false when it has none, it is too large or
// the file cannot be read.  Never throws.
bool dmsClmReadPicture(const std::string &path, const mfdMediaInfo &info, std::string &out);

// How well `name` serves as its folder's cover: 0 not at all, else the
// higher the better (cover > folder > front > albumart*).
int dmsClmCoverRank(std::string_view name);

#endif  // DMS_TAGS_DMSCLMPICTURE_H

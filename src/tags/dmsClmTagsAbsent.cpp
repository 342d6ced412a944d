// The tags module of a build without TagLib: no file's tags or embedded
// picture are read, so titles come from file names and music has no artist,
// album, genre, date or track.  A photo's Exif date and a folder's cover
// file (dmsClmTagText.cpp) need no TagLib and stay.
#include "tags/dmsClmPicture.h"
#include "tags/dmsClmTags.h"

bool dmsClmReadTaggedFile(const std::string &, mfdTagLayout, dmsTagText &) { return false; }

bool dmsClmReadPicture(const std::string &, const mfdMediaInfo &, std::string &) { return false; }

// TagLib's file object for a format's tag layout, shared by the tag reader
// and the cover reader of this module.  Internal to src/content.
#ifndef DMS_TAGS_DMSCLMTAGLIB_H
#define DMS_TAGS_DMSCLMTAGLIB_H

#include <taglib/tfile.h>
#include <taglib/tfilestream.h>

#include <memory>
#include <string>

#include "mfd/mfd_formats.h"

// The file object reading from `stream` (which must outlive it); audio
// properties are not read (the detectors did that).  NULL for a layout
// TagLib does not read.  May throw std::bad_alloc.
std::unique_ptr<TagLib::File> dmsClmOpenTagged(mfdTagLayout layout, TagLib::FileStream *stream);

// The front cover of `file` (else its first picture): true when it has one
// of at most DMS_CLM_MAX_PICTURE_BYTES, whose bytes go to *out when out is
// set.  May throw std::bad_alloc.
bool dmsClmPictureOf(TagLib::File &file, std::string *out);

// A read-only stream of the file at `path`, opened without blocking and
// only when it is a regular file (a FIFO swapped in since the scan would
// otherwise hold the reading thread for ever); NULL otherwise.  May throw
// std::bad_alloc.
std::unique_ptr<TagLib::FileStream> dmsClmOpenStream(const std::string &path);

// Routes TagLib's complaints about malformed tags to the trace.
void dmsClmRouteTagLibMessages();

#endif  // DMS_TAGS_DMSCLMTAGLIB_H

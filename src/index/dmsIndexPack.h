// What the index keeps of a listed file's detection and tags, as bytes: a
// version byte, then each number in as few bytes as it needs (seven bits a
// byte, low first; signed ones folded so that small negative ones stay
// small), the same on every machine, so that an index written on one
// device reads on another.
// The protocol strings are stored by their key (mfd_protocolStringsKey):
// they depend on detector words the record does not keep.  Tag texts are stored as
// texts (pool ids do not outlive the run) and pooled again when read.
#ifndef DMS_INDEX_DMSINDEXPACK_H
#define DMS_INDEX_DMSINDEXPACK_H

#include <string>
#include <string_view>

#include "content/dmsClmRecord.h"
#include "content/dmsClmTagPool.h"

// The bytes of `media` (about 30).  May throw std::bad_alloc.
std::string dmsIndexPackMedia(const dmsMediaRecord &media);
// `bytes` read back into *media; false (and *media untouched) when they are
// not bytes this version wrote.
bool dmsIndexUnpackMedia(std::string_view bytes, dmsMediaRecord &media);

// The bytes of `tags`, their texts taken from `pool`.  May throw
// std::bad_alloc.
std::string dmsIndexPackTags(const dmsMediaTags &tags, const dmsTagPool &pool);
// `bytes` read back into *tags, their texts pooled in `pool`; false (and
// *tags untouched) when they are not bytes this version wrote.  May throw
// std::bad_alloc.
bool dmsIndexUnpackTags(std::string_view bytes, dmsTagPool &pool, dmsMediaTags &tags);

#endif  // DMS_INDEX_DMSINDEXPACK_H

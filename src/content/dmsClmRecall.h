// What the content list asks of a memory of an earlier run (the server's
// persistent index, when the host named a state folder): the entries a
// folder held then, so that the scan gives each folder and file the id it
// had, and takes a file whose size and time are unchanged as it was,
// without opening it.  The list only reads through this; writing the
// memory is its keeper's business (a listener of the list).
//
// Called by the scan's thread (the list's writer) only.
#ifndef DMS_CONTENT_DMSCLMRECALL_H
#define DMS_CONTENT_DMSCLMRECALL_H

#include <cstdint>
#include <string>
#include <unordered_map>

#include "content/dmsClmRecord.h"
#include "content/dmsClmTagPool.h"

class dmsClmRecall {
 public:
  // One entry as it was.
  struct Known {
    uint32_t id = 0;
    bool folder = false;
    int64_t size = 0;
    int64_t modified = 0;
    bool media = false;  // `record` and `tags` hold a file's detection and tags
    dmsMediaRecord record;
    dmsMediaTags tags;   // ids in the pool given to folder()
  };

  virtual ~dmsClmRecall() = default;
  // The entries that stood in folder `parentId` (0: the shared folders, by
  // their paths as shared), by name; their tag texts pooled in `pool`.
  virtual void folder(uint32_t parentId, dmsTagPool &pool, std::unordered_map<std::string, Known> &out) = 0;
  // The highest id the memory ever handed out (0: none).
  virtual uint32_t lastId() = 0;
};

#endif  // DMS_CONTENT_DMSCLMRECALL_H

// Content change handling: what the file system monitor reports, applied to
// the content list, and every change told to the ContentDirectory.
//
// Runs on the monitor thread, which holds the list's `changeMutex` for the
// whole of one event: no other writer can free an entry meanwhile, so the
// entries the monitor looked up stay valid while a file is detected without
// any lock.  Each change itself is applied under the exclusive `rwLock`, and
// only for the attach or detach: readers never wait on file I/O.
#ifndef DMS_CONTENT_DMS_CLM_CHANGE_H
#define DMS_CONTENT_DMS_CLM_CHANGE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "content/dmsClmApi.h"

// The change handler given to the monitor.  `container` is the watched
// folder the event came from (NULL for a rescan), `entry` the affected entry
// when the event named one (a watched folder that is gone), `name` the name
// in `container` the event is about.  Kinds are the FSM_EVENT_* values:
//   1 a file was written or moved in: listed, or refreshed in place;
//   2 a child was deleted or moved out: its entry goes;
//   4 a folder was created or moved in: watched first, then scanned;
//   5 a folder is gone (by name in `container`, or `entry` itself);
//   6 events were lost: every shared folder is brought back to the disk.
// 0, or -100 for a NULL list.
int32_t clmFsmNotificationCallBack(dmsContentListInfo *list, dmsContentEntry *container,
                                   dmsContentEntry *entry, const char *name, uint32_t kind);

// The child of `container` named `name`, found by binary search over the
// children (kept in byte-wise name order), or NULL.  Lock held (any kind, or
// the change mutex).
dmsContentEntry *dmsClmFindChild(const dmsContentEntry *container, const std::string &name);

// The index of `child` among container's children, found by its name; -1
// when it is not there.
std::ptrdiff_t dmsClmChildIndex(const dmsContentEntry *container, const dmsContentEntry *child);

#endif  // DMS_CONTENT_DMS_CLM_CHANGE_H

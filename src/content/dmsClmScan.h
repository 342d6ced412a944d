// Scanning shared folders into the content list, in two steps:
//
//  1. prepare: walk a folder and detect its files, without any lock, into a
//     detached tree of pending entries (this is where all file I/O happens);
//  2. attach: under the list's exclusive lock, turn the pending tree into
//     entries (ids, trees, budget, watches) in one quick pass.
//
// Both steps apply the same entry budget in the same order, so the ids are the
// same as if every entry had been made while walking: depth first, a folder
// before its contents, siblings in byte-wise sorted name order.
#ifndef DMS_CONTENT_DMS_CLM_SCAN_H
#define DMS_CONTENT_DMS_CLM_SCAN_H

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "content/dmsClmApi.h"

// One file or folder found by a walk, not yet in the list.
struct dmsPendingEntry {
  dmsPendingEntry() = default;
  dmsPendingEntry(dmsPendingEntry &&) noexcept = default;
  dmsPendingEntry &operator=(dmsPendingEntry &&) noexcept = default;
  ~dmsPendingEntry();  // takes a deep tree apart without recursion
  // The full path while the file is detected or the folder walked; below a
  // shared folder only the name from then on, as the entry will keep it.
  std::string path;
  uint32_t type = DMS_CLM_TYPE_ITEM;
  uint32_t presetId = 0;  // the id it had in an earlier run; 0: a new one
  int64_t fileSize = 0;
  dmsMediaRecord media;                   // items
  dmsMediaTags tags;                      // items (texts pooled)
  std::vector<dmsPendingEntry> children;  // containers, in sorted name order
  // Folders: their state as far as the walk knows it (the cover picture),
  // handed to the entry as it is; NULL for files, which are most entries.
  std::unique_ptr<dmsContainerState> container;
};

// The entry budget as a walk sees it: a copy of the list's count and maximum.
struct dmsScanBudget {
  int32_t count = 0;
  int32_t max = 0;
};

// Prepares the entry of a shared path of `type` (detecting an item; a
// folder's contents are left to scanDirAndAddToList).  false when the budget
// is spent or the file is not media.
bool dmsClmPrepareTopEntry(dmsContentListInfo *list, const std::string &path, uint32_t type,
                           int64_t fileSize, dmsScanBudget &budget, dmsPendingEntry &out);

// Walks `folder.path` into folder.children.  0, or the error of reading the
// folder itself (traced).
int32_t scanDirAndAddToList(dmsContentListInfo *list, dmsPendingEntry &folder,
                            dmsScanBudget &budget);

// Makes the entry for one pending entry under `parent` (its id, the id tree,
// the budget, a container's watch), without its children; the caller appends
// it to parent's children.  NULL when the budget is spent.  The caller holds
// the list's lock exclusively.
dmsContentEntry *createEntryAndAddToList(dmsContentListInfo *list, dmsPendingEntry &pending,
                                         dmsContentEntry *parent);

// Makes the entries of pending.children, depth first, under `container`.
// Exclusive lock held.
void dmsClmAttachChildren(dmsContentListInfo *list, dmsContentEntry *container,
                          dmsPendingEntry &pending);

// The scan's name filter while the host flag is set: true keeps the name.
bool dmsClmScanFilterKeeps(const char *name, bool isDirectory);

#endif  // DMS_CONTENT_DMS_CLM_SCAN_H

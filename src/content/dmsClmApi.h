// The content list: the server's in-memory picture of its shared folders.
//
// A tree of entries: the root (id 0), one container per shared folder, then
// sub-folders as containers and recognised media files as items.  Ids are
// handed out from 1001 upward, depth first in byte-wise sorted name order, and
// never reused.  A table sorted by id finds entries by id; the monitor maps
// its watch descriptors back to containers itself.
//
// Lock discipline (one owner, one lock):
//   * `rwLock` guards every entry and every field below it.  Readers (the
//     ContentDirectory answers, the HTTP file server) hold it shared for as
//     long as they look at entries: take it with dmsClmReadLock.  Every
//     change (adding or removing a shared folder, the monitor thread's
//     changes) holds it exclusively, and only for the attach or detach
//     itself: folder walks and format detection run before, without it, so
//     readers never wait on file I/O.  A waiting writer goes before new
//     readers; a thread takes the shared hold once, not twice.
//   * `changeMutex` serialises the writers (the monitor thread, and the host
//     adding or removing a shared folder) for the whole of one change, file
//     I/O included.  Only a writer frees entries, so a thread that holds it
//     may look at entries without `rwLock` and keep pointers to them across
//     its detection; it takes `rwLock` exclusively for the change itself.
//     Order: changeMutex before rwLock.
//   * `hostLock` is the mutex offered to the host through
//     dmsClmLockContentList/dmsClmUnlockContentList.  No server operation
//     takes it.
//   * The getters below take no lock: the caller holds `rwLock` (shared or
//     exclusive) for as long as it uses what they return.
#ifndef DMS_CONTENT_DMS_CLM_API_H
#define DMS_CONTENT_DMS_CLM_API_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include "content/dmsClmEntryPool.h"
#include "content/dmsClmIdIndex.h"
#include "content/dmsClmName.h"
#include "content/dmsClmRecord.h"
#include "content/dmsClmTagPool.h"
#include "dlna_dms.h"
#include "content/dmsRwLock.h"
#include "mfd/mfd_api.h"

struct dmsFsmMonitor;
class dmsClmRecall;

// Entry types.
inline constexpr uint32_t DMS_CLM_TYPE_ROOT = 0;
inline constexpr uint32_t DMS_CLM_TYPE_CONTAINER = 1;
inline constexpr uint32_t DMS_CLM_TYPE_ITEM = 2;

inline constexpr uint32_t DMS_CLM_FIRST_ID = 1001;

// What only containers have: held by the root and folders, absent from items,
// which are most entries of a large library.
struct dmsContainerState {
  std::vector<dmsContentEntry *> children;  // in the order added; owned
  uint32_t updateCount = 0;                 // changes, published in ContainerUpdateIDs
  int32_t watchDescriptor = -1;             // inotify watch, -1 none
  std::string coverName;                    // the folder's cover picture file; empty none
  std::vector<std::string> playlists;       // its playlist files (.m3u, .m3u8, .pls), in name order
  std::vector<std::string> subtitles;       // its subtitle files (subtitles/dmsSubtitles.h), in name order
};

// One file or folder.  Owned by the list (made in its entry pool): created
// while attaching a scan, released by freeing its parent, its shared folder
// or the list.  The root and folders are dmsFolderEntry, which adds their
// container state; an item, most entries of a large library, carries none.
struct dmsContentEntry {
  uint32_t id = 0;
  const uint8_t type;  // fixed when made: it tells whether this is a dmsFolderEntry
  dmsContentEntry *parent = nullptr;
  // The root: "root"; a shared folder: its full path as shared; anything
  // else: its own name, so that a large library does not hold every folder's
  // path once per file (dmsClmEntryPath gives the full path).
  dmsClmName path;
  int64_t fileSize = 0;  // items: size when the entry was made
  dmsMediaRecord media;  // items: what detection found
  dmsMediaTags tags;     // items: ids in the list's tag pool

  explicit dmsContentEntry(uint8_t kind = DMS_CLM_TYPE_ITEM) noexcept : type(kind) {}
  dmsContentEntry(const dmsContentEntry &) = delete;
  dmsContentEntry &operator=(const dmsContentEntry &) = delete;

  // The root's and a folder's container state; NULL for items.
  inline dmsContainerState *container();
  inline const dmsContainerState *container() const;
};

struct dmsFolderEntry : dmsContentEntry {
  explicit dmsFolderEntry(uint8_t kind) : dmsContentEntry(kind) {}
  dmsContainerState state;
};

dmsContainerState *dmsContentEntry::container() {
  return type == DMS_CLM_TYPE_ITEM ? nullptr : &static_cast<dmsFolderEntry *>(this)->state;
}
const dmsContainerState *dmsContentEntry::container() const {
  return type == DMS_CLM_TYPE_ITEM ? nullptr : &static_cast<const dmsFolderEntry *>(this)->state;
}

// What one change of the list tells its listeners: the changed containers
// with their new update counts, the new system update id, and the items the
// change made, re-read in place (same id, new detection and tags) and freed.
// A folder freed with its contents lists every item below it.  Valid during
// the call only.
struct dmsClmChangeSet {
  const uint32_t *pairs = nullptr;  // container id, update count, ...
  int32_t pairCount = 0;
  uint32_t systemUpdateId = 0;
  const std::vector<uint32_t> *madeItems = nullptr;
  const std::vector<uint32_t> *changedItems = nullptr;
  const std::vector<uint32_t> *freedItems = nullptr;
  // Folders whose playlist files came, went or were written, and folders
  // freed (with their playlists), and folders made.
  const std::vector<uint32_t> *playlistFolders = nullptr;
  const std::vector<uint32_t> *freedFolders = nullptr;
  const std::vector<uint32_t> *madeFolders = nullptr;
};

// Called on the writer's thread after each change, under the change mutex:
// it may read the list (taking the read lock, or without it: no other writer
// runs) but must not change it.  A shared folder added or removed by the
// host is told with no pairs and the system update id unchanged.  0, or an
// error code that the change reports.
using dmsClmListener = std::function<int32_t(const dmsClmChangeSet &)>;

struct dmsContentListInfo {
  dmsContentListInfo() = default;
  dmsContentListInfo(const dmsContentListInfo &) = delete;
  dmsContentListInfo &operator=(const dmsContentListInfo &) = delete;

  mutable dmsRwLock rwLock;  // see the lock discipline above; writers go first
  std::mutex changeMutex;    // one writer at a time, across its file I/O
  std::mutex hostLock;               // the host's facility only

  dmsClmEntryPool entryPool;  // where the entries live (the writer's)
  dmsClmIdIndex entriesById;  // all entries, by id
  dmsContentEntry *root = nullptr;
  dmsFsmMonitor *monitor = nullptr;
  uint32_t nextId = DMS_CLM_FIRST_ID;
  mfdInstance *detector = nullptr;
  // The memory of an earlier run the scans consult (borrowed; NULL: none):
  // see content/dmsClmRecall.h.  Set at create; its owner clears it under
  // the change mutex before it goes.
  dmsClmRecall *recall = nullptr;
  dmsTagPool tagPool;  // the entries' tag texts (see its own discipline)
  // Told of every change, in the order added (change mutex).
  std::vector<std::pair<uint64_t, dmsClmListener>> listeners;
  uint64_t lastListener = 0;
  // Item ids of the change in progress, for its listeners (change mutex;
  // emptied when the change is published).
  std::vector<uint32_t> madeItems, changedItems, freedItems, playlistFolders, freedFolders, madeFolders;

  // Update record handed to the ContentDirectory on every change.
  std::vector<uint32_t> containerUpdatePairs;  // (container id, update count) pairs
  uint32_t systemUpdateId = 0;
  const char *containerVariableName = "ContainerUpdateIDs";
  const char *systemVariableName = "SystemUpdateID";

  int32_t maxContent = 0;  // entry budget (raised by one per folder when filtering)
  int32_t entryCount = 0;  // entries made, the root not counted

  // The shared folders as given and as resolved, and whether links may lead
  // out of them (see content/dmsClmShares.h for the discipline).
  std::vector<std::pair<std::string, std::string>> shareRoots;
  std::atomic<bool> wideLinks{false};
};

// Creates the list and scans `sharedPaths` (each under its own container; a
// missing path is skipped with a trace).  0 and *out, or a DMS_ERR_* code with
// *out NULL.  The strings are read during the call only.
int32_t dmsClmCreateContentList(dmsContentListInfo **out, char **sharedPaths,
                                int32_t numSharedPaths, int32_t maxContent);
// The same, with `recall` (borrowed; it outlives the list's creation) giving
// the ids and unchanged files of an earlier run, and ids handed out above
// the highest it ever gave.
int32_t dmsClmCreateContentListRecalling(dmsContentListInfo **out, char **sharedPaths, int32_t numSharedPaths,
                                         int32_t maxContent, dmsClmRecall *recall);
// Stops the monitor and releases every entry and the list.  0 or the last
// error met (the list is released in any case).
int32_t dmsClmFreeContentList(dmsContentListInfo *list);

// Shares one more folder at run time (scanned before it is attached).
// -100 for NULL arguments or a path that is not a folder.
int32_t dmsClmAddToContentList(dmsContentListInfo *list, const char *sharedPath);
// Stops sharing the shared folder whose path equals `sharedPath`; 0 also when
// there is none.
int32_t dmsClmRemoveFromContentList(dmsContentListInfo *list, const char *sharedPath);

// Releases `entry` and everything below it, watches included, and takes it
// out of its parent; its items are noted for the change's listeners.
// Exclusive lock held.
void dmsClmDetachEntry(dmsContentListInfo *list, dmsContentEntry *entry);

// Tells the listeners of the change in progress: `pairs` (container id,
// update count, ...) and the items noted since the last call, which are then
// forgotten.  Change mutex held, not the lock.  0, or the first error a
// listener reported.
int32_t dmsClmTellListeners(dmsContentListInfo *list, const std::vector<uint32_t> &pairs,
                            uint32_t systemUpdateId);

// Adds a listener told of every later change; returns its token (never 0).
// Added and removed under the change mutex, so once removal returns the
// listener is not running and never runs again.
uint64_t dmsClmAddListener(dmsContentListInfo *list, dmsClmListener listener);
void dmsClmRemoveListener(dmsContentListInfo *list, uint64_t token);

// The system update id: raised by every change the monitor applies.
uint32_t dmsClmGetSystemUpdateId(const dmsContentListInfo *list);

// Shared hold of the list's lock, for readers of entries.
[[nodiscard]] std::shared_lock<dmsRwLock> dmsClmReadLock(const dmsContentListInfo *list);

// Lookups: 0 with *out the entry or NULL; -100 for a NULL list or out.
int32_t dmsClmGetContentEntryById(dmsContentListInfo *list, dmsContentEntry **out, uint32_t id);

// The full path of `entry`: its shared folder's path and the names below
// it.  The caller holds the list's lock (either way) or is its writer.  May
// throw std::bad_alloc.
std::string dmsClmEntryPath(const dmsContentEntry *entry);
// The children of `entry` in their order; empty for an item.  The caller
// holds the list's lock (either way) or is its writer.
const std::vector<dmsContentEntry *> &dmsClmChildren(const dmsContentEntry *entry);
// The item listed for the file at `path` (absolute, normalised), looked up
// by name below the shared folder the path lies in (as shared, or as its
// real path); NULL when no item is listed there.  The caller holds the
// list's lock (either way) or is its writer.
dmsContentEntry *dmsClmFindItemByPath(const dmsContentListInfo *list, const std::string &path);
int32_t dmsClmGetContentEntryByFsmWd(dmsContentListInfo *list, dmsContentEntry **out, int32_t wd);

// Getters of one entry; result pointers may be NULL (skipped).  -100 for a
// NULL entry.  *reserved is always 0.
int32_t dmsClmGetTypeForEntry(const dmsContentEntry *entry, uint32_t *type, uint32_t *id);
// *media: the detection record as the item keeps it (see dmsClmExpandMedia).
int32_t dmsClmGetMediaInfoForEntry(dmsContentEntry *entry, uint32_t *id, mfdMediaInfo *media,
                                   dmsContentEntry **parent, uint32_t *reserved);
int32_t dmsClmGetContainerInfoForEntry(dmsContentEntry *entry, uint32_t *id,
                                       dmsContentEntry **parent, int32_t *childCount,
                                       dmsContentEntry ***children, uint32_t *reserved);

// Numbers of containers (shared folders included) and items; takes the read
// lock itself.  -100 for NULL arguments.
int32_t dmsClmGetCounts(dmsContentListInfo *list, int32_t *containers, int32_t *items);

#endif  // DMS_CONTENT_DMS_CLM_API_H

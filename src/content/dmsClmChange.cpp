#include "content/dmsClmChange.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <string_view>
#include <vector>

#include "tags/dmsClmPicture.h"
#include "content/dmsClmScan.h"
#include "content/dmsClmShares.h"
#include "content/dmsFsmApi.h"
#include "playlist/dmsPlaylistRead.h"
#include "subtitles/dmsSubtitles.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsClmApi";

namespace {

// Ids of the containers one event changed (ids, not pointers: a container
// changed early in an event may be freed later in the same event).
using ChangedContainers = std::vector<uint32_t>;

std::string_view nameOf(const dmsContentEntry *entry) {
  std::string_view path = entry->path;
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string joinPath(const std::string &folder, std::string_view name) {
  std::string path = folder;
  if (path.empty() || path.back() != '/') path += '/';
  return path.append(name);
}

bool keepsName(const std::string &name, bool isDirectory) {
  return KVSUPPORT_XR_VAL == 0 || dmsClmScanFilterKeeps(name.c_str(), isDirectory);
}

// Puts `child` at its place in byte-wise name order.  Exclusive lock held.
void insertChild(dmsContentEntry *container, dmsContentEntry *child) {
  auto &children = container->container()->children;
  auto at = std::lower_bound(children.begin(), children.end(), nameOf(child),
                             [](const dmsContentEntry *e, std::string_view n) { return nameOf(e) < n; });
  children.insert(at, child);
}

void detach(dmsContentListInfo *list, dmsContentEntry *entry, ChangedContainers &changes) {
  if (entry == nullptr || entry->type == DMS_CLM_TYPE_ROOT) return;
  DMS_TRACE(OSAL_TRACE_INFO, "Path [%s] got deleted\n", dmsClmEntryPath(entry).c_str());
  changes.push_back(entry->parent != nullptr ? entry->parent->id : 0);
  std::unique_lock writing(list->rwLock);
  dmsClmDetachEntry(list, entry);
}

// A file written or moved in: re-detected (outside the lock) and listed, or
// refreshed in place when it is listed already (same id), or dropped when it
// is no longer media.
// Keeps the folder's cover name up to date as picture files come and go.
void noteCover(dmsContentListInfo *list, dmsContentEntry *container, const std::string &name, bool present) {
  dmsContainerState *state = container->container();
  if (state == nullptr) return;
  const int rank = dmsClmCoverRank(name);
  if (rank == 0) return;
  std::unique_lock writing(list->rwLock);
  if (present && rank > dmsClmCoverRank(state->coverName)) state->coverName = name;
  if (!present && state->coverName == name) state->coverName.clear();
}

// Keeps the folder's playlist names up to date as playlist files come, go
// and are written: the folder changes (its listing with the views does) and
// is noted for the listeners, which read its playlists again.  false when
// `name` is no playlist.
// Puts `name` into a folder's sorted `names` or takes it out; whether it
// is there or was (the folder then changed).
bool noteName(dmsContentListInfo *list, std::vector<std::string> &names, const std::string &name, bool present) {
  auto at = std::lower_bound(names.begin(), names.end(), name);
  const bool listed = at != names.end() && *at == name;
  if (present != listed) {
    std::unique_lock writing(list->rwLock);
    if (present) names.insert(at, name);
    else names.erase(at);
  }
  return present || listed;
}

bool notePlaylist(dmsContentListInfo *list, dmsContentEntry *container, const std::string &name, bool present,
                  ChangedContainers &changes) {
  dmsPlaylistFormat format;
  dmsContainerState *state = container->container();
  if (state == nullptr || !dmsPlaylistFormatOf(name, format)) return false;
  if (noteName(list, state->playlists, name, present)) {
    list->playlistFolders.push_back(container->id);
    changes.push_back(container->id);
  }
  return true;
}

// Keeps the folder's subtitle names up to date as subtitle files come, go
// and are written: the folder changes (its videos' answers do).  false when
// `name` is no subtitle.
bool noteSubtitle(dmsContentListInfo *list, dmsContentEntry *container, const std::string &name, bool present,
                  ChangedContainers &changes) {
  dmsContainerState *state = container->container();
  if (state == nullptr || dmsSubtitleFormatOf(name) == nullptr) return false;
  if (noteName(list, state->subtitles, name, present)) changes.push_back(container->id);
  return true;
}

void folderCreated(dmsContentListInfo *list, dmsContentEntry *container, const std::string &name,
                   ChangedContainers &changes);

void fileWritten(dmsContentListInfo *list, dmsContentEntry *container, const std::string &name,
                 ChangedContainers &changes) {
  const std::string path = joinPath(dmsClmEntryPath(container), name);
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return;
  dmsContentEntry *listed = dmsClmFindChild(container, name);
  // A link made to a folder is reported as a file: it is a folder to take in.
  if (S_ISDIR(status.st_mode)) {
    if (listed != nullptr && listed->type == DMS_CLM_TYPE_ITEM) detach(list, listed, changes);
    return folderCreated(list, container, name, changes);
  }
  if (!keepsName(name, false)) return;
  // A listed file replaced by a FIFO, a device or a link out of the shares
  // goes; such a name is never listed.
  if (!S_ISREG(status.st_mode) || !dmsClmLinkStaysInside(list, path)) {
    if (listed != nullptr && listed->type == DMS_CLM_TYPE_ITEM) detach(list, listed, changes);
    return;
  }
  noteCover(list, container, name, true);
  if (notePlaylist(list, container, name, true, changes)) return;
  if (noteSubtitle(list, container, name, true, changes)) {
    if (listed != nullptr && listed->type == DMS_CLM_TYPE_ITEM) detach(list, listed, changes);
    return;
  }
  if (listed != nullptr && listed->type != DMS_CLM_TYPE_ITEM) return;
  // A refresh takes nothing from the budget; a new file is checked against it.
  dmsScanBudget budget{listed != nullptr ? 0 : list->entryCount, list->maxContent};
  dmsPendingEntry pending;
  const bool media = dmsClmPrepareTopEntry(list, path, DMS_CLM_TYPE_ITEM, status.st_size, budget, pending);
  if (listed != nullptr && !media) return detach(list, listed, changes);
  if (!media) return;
  std::unique_lock writing(list->rwLock);
  if (listed != nullptr) {
    listed->media = pending.media;
    listed->tags = pending.tags;
    listed->fileSize = status.st_size;
    list->changedItems.push_back(listed->id);
  } else {
    dmsContentEntry *made = createEntryAndAddToList(list, pending, container);
    if (made == nullptr) return;
    insertChild(container, made);
  }
  changes.push_back(container->id);
}

// Whether the link at `path` leads to a folder that may be listed in
// `container`: one the sharing rule lets it reach, and none of the folders
// above (with `container` itself), by device and inode as the scan judges,
// so that a link back up the tree is never walked down again and again.
bool followsFolderLink(const dmsContentListInfo *list, const dmsContentEntry *container, const std::string &path) {
  struct stat target {};
  if (::stat(path.c_str(), &target) != 0 || !S_ISDIR(target.st_mode) || !dmsClmLinkStaysInside(list, path)) {
    return false;
  }
  for (const dmsContentEntry *above = container; above != nullptr; above = above->parent) {
    struct stat status {};
    if (above->type != DMS_CLM_TYPE_CONTAINER || ::stat(dmsClmEntryPath(above).c_str(), &status) != 0) continue;
    if (status.st_dev == target.st_dev && status.st_ino == target.st_ino) return false;
  }
  return true;
}

// The entry of a folder created or moved in, made (with its watch) when it
// is new; its contents are the caller's to bring in, after the watch, so
// that nothing made in it meanwhile slips between the scan and the watch.
// NULL when the name is no folder to list.
dmsContentEntry *folderEntry(dmsContentListInfo *list, dmsContentEntry *container, const std::string &name,
                             ChangedContainers &changes) {
  const std::string path = joinPath(dmsClmEntryPath(container), name);
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0 || !keepsName(name, true)) return nullptr;
  if (!S_ISDIR(status.st_mode) && !(S_ISLNK(status.st_mode) && followsFolderLink(list, container, path))) {
    return nullptr;
  }
  dmsContentEntry *folder = dmsClmFindChild(container, name);
  if (folder == nullptr) {
    dmsPendingEntry pending;
    pending.path = path;
    pending.type = DMS_CLM_TYPE_CONTAINER;
    std::unique_lock writing(list->rwLock);
    folder = createEntryAndAddToList(list, pending, container);
    if (folder == nullptr) return nullptr;
    insertChild(container, folder);
    changes.push_back(container->id);
  }
  return folder->type == DMS_CLM_TYPE_CONTAINER ? folder : nullptr;
}

void reconcile(dmsContentListInfo *list, dmsContentEntry *folder, ChangedContainers &changes);

void folderCreated(dmsContentListInfo *list, dmsContentEntry *container, const std::string &name,
                   ChangedContainers &changes) {
  if (dmsContentEntry *folder = folderEntry(list, container, name, changes)) reconcile(list, folder, changes);
}

// A watched folder is gone (deleted, moved away, unmounted).  When another
// folder now stands at its name (one renamed over it), that one is taken in:
// the events of the old folder's watch may come after those of the new.
void folderGone(dmsContentListInfo *list, dmsContentEntry *entry, ChangedContainers &changes) {
  dmsContentEntry *parent = entry->parent;
  const std::string name(nameOf(entry));
  detach(list, entry, changes);
  if (parent != nullptr && parent->type == DMS_CLM_TYPE_CONTAINER) folderCreated(list, parent, name, changes);
}

// One name in a folder on disk.
struct DiskName {
  std::string name;
  bool isDirectory;
  int64_t size;
  bool operator<(const DiskName &other) const { return name < other.name; }
};

std::vector<DiskName> readFolder(const dmsContentListInfo *list, const std::string &path) {
  std::vector<DiskName> names;
  DIR *directory = ::opendir(path.c_str());
  if (directory == nullptr) return names;
  while (const dirent *entry = ::readdir(directory)) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    struct stat status {};
    if (::stat(joinPath(path, name).c_str(), &status) != 0) continue;
    const bool isDirectory = S_ISDIR(status.st_mode);
    if (!isDirectory && !S_ISREG(status.st_mode)) continue;
    if (!dmsClmLinkStaysInside(list, joinPath(path, name))) continue;
    names.push_back({name, isDirectory, static_cast<int64_t>(status.st_size)});
  }
  ::closedir(directory);
  std::sort(names.begin(), names.end());
  return names;
}

// Brings one listed folder back to the disk: what vanished goes, what is new
// comes, what changed size is refreshed, and what stayed keeps its id.  Its
// sub-folders are added to `below`, for the caller to bring back in turn.
void reconcileOne(dmsContentListInfo *list, dmsContentEntry *folder, ChangedContainers &changes,
                  std::vector<dmsContentEntry *> &below) {
  const std::vector<DiskName> disk = readFolder(list, dmsClmEntryPath(folder));
  std::vector<dmsContentEntry *> gone;
  for (dmsContentEntry *child : folder->container()->children) {
    auto found = std::lower_bound(disk.begin(), disk.end(), DiskName{std::string(nameOf(child)), false, 0});
    const bool present = found != disk.end() && found->name == nameOf(child) &&
                         found->isDirectory == (child->type == DMS_CLM_TYPE_CONTAINER);
    if (!present) gone.push_back(child);
  }
  for (dmsContentEntry *child : gone) detach(list, child, changes);
  for (const std::string &name : std::vector<std::string>(folder->container()->playlists)) {
    auto found = std::lower_bound(disk.begin(), disk.end(), DiskName{name, false, 0});
    if (found == disk.end() || found->name != name || found->isDirectory) notePlaylist(list, folder, name, false, changes);
  }
  for (const std::string &name : std::vector<std::string>(folder->container()->subtitles)) {
    auto found = std::lower_bound(disk.begin(), disk.end(), DiskName{name, false, 0});
    if (found == disk.end() || found->name != name || found->isDirectory) noteSubtitle(list, folder, name, false, changes);
  }
  const size_t first = below.size();
  for (const DiskName &entry : disk) {
    if (entry.isDirectory) {
      if (dmsContentEntry *sub = folderEntry(list, folder, entry.name, changes)) below.push_back(sub);
      continue;
    }
    const dmsContentEntry *listed = dmsClmFindChild(folder, entry.name);
    if (listed == nullptr || listed->fileSize != entry.size) fileWritten(list, folder, entry.name, changes);
  }
  // Taken from the back: reversed, so sub-folders go in name order.
  std::reverse(below.begin() + static_cast<std::ptrdiff_t>(first), below.end());
}

// Brings `folder` and everything below it back to the disk, with a work list
// instead of recursion: folders may nest thousands deep.  The entries on the
// list stay valid: only this thread changes the list (change mutex held),
// and a folder is only detached by its parent's turn, which came before.
void reconcile(dmsContentListInfo *list, dmsContentEntry *folder, ChangedContainers &changes) {
  std::vector<dmsContentEntry *> pending{folder};
  while (!pending.empty()) {
    dmsContentEntry *next = pending.back();
    pending.pop_back();
    reconcileOne(list, next, changes, pending);
  }
}

// Raises the update counts of the changed containers and the system update
// id, then tells the listeners (the ContentDirectory moderates the events).
// 0, or the first error a listener reported.
int32_t publish(dmsContentListInfo *list, ChangedContainers &changes) {
  if (changes.empty()) return DMS_SUCCESS;
  std::sort(changes.begin(), changes.end());
  changes.erase(std::unique(changes.begin(), changes.end()), changes.end());
  std::vector<uint32_t> pairs;
  uint32_t systemUpdateId = 0;
  {
    std::unique_lock writing(list->rwLock);
    for (uint32_t id : changes) {
      dmsContentEntry *container = nullptr;
      dmsClmGetContentEntryById(list, &container, id);
      dmsContainerState *state = container != nullptr ? container->container() : nullptr;
      if (state == nullptr) continue;
      pairs.push_back(id);
      pairs.push_back(++state->updateCount);
    }
    systemUpdateId = ++list->systemUpdateId;
    list->containerUpdatePairs = pairs;
  }
  return dmsClmTellListeners(list, pairs, systemUpdateId);
}

}  // namespace

dmsContentEntry *dmsClmFindChild(const dmsContentEntry *container, const std::string &name) {
  if (container == nullptr || container->container() == nullptr) return nullptr;
  const auto &children = container->container()->children;
  auto at = std::lower_bound(children.begin(), children.end(), std::string_view(name),
                             [](const dmsContentEntry *e, std::string_view n) { return nameOf(e) < n; });
  return at != children.end() && nameOf(*at) == name ? *at : nullptr;
}

std::ptrdiff_t dmsClmChildIndex(const dmsContentEntry *container, const dmsContentEntry *child) {
  const auto &children = container->container()->children;
  auto at = std::lower_bound(children.begin(), children.end(), nameOf(child),
                             [](const dmsContentEntry *e, std::string_view n) { return nameOf(e) < n; });
  return at != children.end() && *at == child ? at - children.begin() : -1;
}

int32_t clmFsmNotificationCallBack(dmsContentListInfo *list, dmsContentEntry *container,
                                   dmsContentEntry *entry, const char *name, uint32_t kind) {
  if (list == nullptr) return DMS_ERR_INVALID_PARAM;
  const std::string child = name != nullptr ? name : "";
  ChangedContainers changes;
  switch (kind) {
    case FSM_EVENT_FILE_WRITTEN:
      if (container != nullptr && !child.empty()) fileWritten(list, container, child, changes);
      break;
    case FSM_EVENT_FOLDER_CREATED:
      if (container != nullptr && !child.empty()) folderCreated(list, container, child, changes);
      break;
    case FSM_EVENT_CHILD_DELETED:
    case FSM_EVENT_FOLDER_GONE:
      if (entry != nullptr) {
        folderGone(list, entry, changes);  // a watched folder itself: a shared one takes only itself
      } else if (container != nullptr && !child.empty()) {
        noteCover(list, container, child, false);
        notePlaylist(list, container, child, false, changes);
        noteSubtitle(list, container, child, false, changes);
        detach(list, dmsClmFindChild(container, child), changes);
      }
      break;
    case FSM_EVENT_RESCAN:
      for (dmsContentEntry *shared : std::vector<dmsContentEntry *>(list->root->container()->children)) {
        if (shared->type == DMS_CLM_TYPE_CONTAINER) reconcile(list, shared, changes);
      }
      break;
    default:
      DMS_TRACE(OSAL_TRACE_WARN, "Case not yet handled\n");
      break;
  }
  return publish(list, changes);
}

#include "content/dmsClmApi.h"

#include "content/dmsClmShares.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
#include <string_view>
#include <system_error>
#include <unordered_map>

#include "content/dmsClmRecall.h"
#include "content/dmsClmScan.h"
#include "content/dmsClmChange.h"
#include "content/dmsFsmApi.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsClmApi";

// An item of a large library costs this much: kept in view, since a
// 100,000-file library holds one per file.
static_assert(sizeof(void *) != 8 || sizeof(dmsContentEntry) == 112);

namespace {

// How an entry leaves the list: one shared folder (or a sub-tree) leaves the
// trees and its parent; the whole list just drops everything, because the
// trees are destroyed and the inotify instance closed right after.
enum class FreeMode { Detach, WholeList };

// Releases one entry whose children are gone already.  Exclusive lock held.
void releaseOne(dmsContentListInfo *list, dmsContentEntry *entry, FreeMode mode) {
  const dmsClmEntryPool::Owned owned = list->entryPool.own(entry);
  if (entry->type != DMS_CLM_TYPE_ITEM) {
    if (mode == FreeMode::Detach && list->monitor != nullptr) {
      dmsFsmRemoveFromMointor(list->monitor, entry);
    }
    entry->container()->children.clear();
  }
  if (mode == FreeMode::Detach) {
    (entry->type == DMS_CLM_TYPE_ITEM ? list->freedItems : list->freedFolders).push_back(entry->id);
    dmsContentEntry *removed = list->entriesById.remove(entry->id);
    if (removed != entry) DMS_TRACE(OSAL_TRACE_ERR, "Error in Deleting Node from the Tree\n");
    if (dmsContentEntry *parent = entry->parent) {
      auto &siblings = parent->container()->children;
      // Below a shared folder children are in name order: found by name in
      // O(log n), so that deleting many files is not quadratic.
      const ptrdiff_t at = parent->type == DMS_CLM_TYPE_ROOT ? -1 : dmsClmChildIndex(parent, entry);
      auto found = at >= 0 ? siblings.begin() + at : std::find(siblings.begin(), siblings.end(), entry);
      if (found != siblings.end()) {
        DMS_TRACE(OSAL_TRACE_INFO, "Remove Child-%d of [%d] childrencount with Path [%s] from the list\n",
                  static_cast<int>(found - siblings.begin()), static_cast<int>(siblings.size()),
                  entry->path.c_str());
        siblings.erase(found);
      }
    }
  }
  if (entry == list->root) list->root = nullptr;
  if (entry->type != DMS_CLM_TYPE_ROOT) --list->entryCount;
}

// Releases `entry` and everything below it, children before their parents,
// without recursion: folders may nest thousands deep.  Exclusive lock held.
void freeEntry(dmsContentListInfo *list, dmsContentEntry *entry, FreeMode mode) {
  std::vector<dmsContentEntry *> order{entry};  // parents before their children
  for (size_t i = 0; i < order.size(); ++i) {
    if (order[i]->type == DMS_CLM_TYPE_ITEM) continue;
    for (dmsContentEntry *child : order[i]->container()->children) {
      child->parent = nullptr;  // its parent drops its whole array
      order.push_back(child);
    }
  }
  for (auto at = order.rbegin(); at != order.rend(); ++at) releaseOne(list, *at, mode);
}

// One shared path as given.
struct SharedPath {
  std::string path;
  uint32_t type;
  int64_t size;
};

// Scans the shared paths (without the lock), then attaches them under the
// root: first one entry per shared path, in the order given (1001, 1002, ...),
// then the contents of each, depth first.
void addSharedPaths(dmsContentListInfo *list, const std::vector<SharedPath> &paths) {
  dmsScanBudget budget;
  {
    auto reading = dmsClmReadLock(list);
    budget = {list->entryCount, list->maxContent};
  }
  for (const SharedPath &shared : paths) {
    if (shared.type == DMS_CLM_TYPE_CONTAINER) dmsClmSharesAdd(list, shared.path);
  }
  dmsPendingEntry top;  // stands for the root
  std::unordered_map<std::string, dmsClmRecall::Known> known;  // shared paths an earlier run knew
  if (list->recall != nullptr) list->recall->folder(0, list->tagPool, known);
  for (const SharedPath &shared : paths) {
    dmsPendingEntry pending;
    if (dmsClmPrepareTopEntry(list, shared.path, shared.type, shared.size, budget, pending)) {
      auto found = known.find(shared.path);
      if (found != known.end() && found->second.folder == (shared.type == DMS_CLM_TYPE_CONTAINER)) {
        pending.presetId = found->second.id;
      }
      top.children.push_back(std::move(pending));
    }
  }
  for (dmsPendingEntry &pending : top.children) {
    if (pending.type == DMS_CLM_TYPE_CONTAINER) scanDirAndAddToList(list, pending, budget);
  }
  std::unique_lock writing(list->rwLock);
  dmsClmIdIndex::Batch batch(list->entriesById);  // ids of an earlier run come in the walk's order
  std::vector<dmsContentEntry *> made;
  for (dmsPendingEntry &pending : top.children) {
    dmsContentEntry *entry = createEntryAndAddToList(list, pending, list->root);
    made.push_back(entry);
    if (entry != nullptr) list->root->container()->children.push_back(entry);
  }
  for (size_t i = 0; i < made.size(); ++i) {
    if (made[i] != nullptr && made[i]->type == DMS_CLM_TYPE_CONTAINER) {
      dmsClmAttachChildren(list, made[i], top.children[i]);
    }
  }
}

void removeFormatsAndDestroyMfd(dmsContentListInfo *list) {
  if (list->detector == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Param Error\n");
    return;
  }
  for (uint32_t formatId : g_mfdAllServerFormatIds) {
    int32_t result = mfd_unregisterFormat(list->detector, formatId);
    if (result != 0) {
      DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s() for Format [%d]\n", result, "mfd_unregisterFormat",
                static_cast<int>(formatId));
    }
  }
  int32_t result = mfd_closeInstance(list->detector);
  if (result != 0) DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()... Ignore this!\n", result, "mfd_closeInstance");
  list->detector = nullptr;
}

// Detector, trees, monitor and root of a new list.  0 or -100.
int32_t prepareList(dmsContentListInfo *list, int32_t maxContent) {
  int32_t result = mfd_openInstance(&list->detector);
  if (result != 0) DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", result, "mfd_openInstance");
  if (list->detector == nullptr) return DMS_ERR_INVALID_PARAM;
  for (uint32_t formatId : g_mfdAllServerFormatIds) {
    result = mfd_registerFormat(list->detector, formatId);
    if (result != 0) {
      DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s() for Format [%d]\n", result, "mfd_registerFormat",
                static_cast<int>(formatId));
    }
  }
  result = dmsFsmInit(&list->monitor, list);
  if (result != 0) DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()... Ignore this!\n", result, "dmsFsmInit");
  list->maxContent = maxContent;
  list->entryCount = 0;
  dmsClmEntryPool::Owned root = list->entryPool.make(DMS_CLM_TYPE_ROOT);
  root->id = 0;
  root->path = "root";
  list->entriesById.insert(root.get());
  list->root = root.release();  // owned by the list; freed with it
  list->nextId = DMS_CLM_FIRST_ID;
  // Above every id an earlier run handed out: none is given out twice.
  if (list->recall != nullptr) list->nextId = std::max(list->nextId, list->recall->lastId() + 1);
  return DMS_SUCCESS;
}

// Releases everything the list holds, then the list.  0 or the last error.
int32_t releaseList(dmsContentListInfo *list) {
  std::unique_ptr<dmsContentListInfo> owned(list);
  int32_t lastError = DMS_SUCCESS;
  if (list->monitor != nullptr) dmsFsmStopMonitor(list->monitor);
  {
    std::unique_lock writing(list->rwLock);
    list->containerUpdatePairs.clear();
    if (list->root != nullptr) freeEntry(list, list->root, FreeMode::WholeList);
  }
  if (list->monitor != nullptr) {
    int32_t result = dmsFsmDeinit(list->monitor);
    if (result != 0) DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()... Ignore this!\n", result, "dmsFsmDeinit");
    list->monitor = nullptr;
  }
  if (list->detector != nullptr) removeFormatsAndDestroyMfd(list);
  list->entriesById.clear();
  return lastError;
}

int32_t createList(dmsContentListInfo **out, char **sharedPaths, int32_t numSharedPaths,
                   int32_t maxContent, dmsClmRecall *recall) {
  auto list = std::make_unique<dmsContentListInfo>();
  list->recall = recall;
  int32_t result = prepareList(list.get(), maxContent);
  if (result != DMS_SUCCESS) {
    releaseList(list.release());
    return result;
  }
  std::vector<SharedPath> paths;
  for (int32_t i = 0; i < numSharedPaths; ++i) {
    if (sharedPaths[i] == nullptr) continue;
    struct stat status {};
    if (::stat(sharedPaths[i], &status) != 0) {
      DMS_TRACE(OSAL_TRACE_ERR, "Error in osal_stat()\n");
      std::perror("osal_stat():  ");
      continue;
    }
    uint32_t type = S_ISDIR(status.st_mode) ? DMS_CLM_TYPE_CONTAINER : DMS_CLM_TYPE_ITEM;
    paths.push_back({sharedPaths[i], type, static_cast<int64_t>(status.st_size)});
  }
  addSharedPaths(list.get(), paths);
  list->entriesById.trim();
  for (auto *noted : {&list->madeItems, &list->madeFolders, &list->playlistFolders}) {
    *noted = std::vector<uint32_t>();  // nobody listens yet
  }
  result = dmsFsmStartMonitor(list->monitor, list->root, clmFsmNotificationCallBack);
  if (result != 0) DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()... Ignore this!\n", result, "dmsFsmStartMonitor");
  *out = list.release();
  return DMS_SUCCESS;
}

}  // namespace

void dmsClmDetachEntry(dmsContentListInfo *list, dmsContentEntry *entry) {
  freeEntry(list, entry, FreeMode::Detach);
}

uint64_t dmsClmAddListener(dmsContentListInfo *list, dmsClmListener listener) {
  std::lock_guard changing(list->changeMutex);
  list->listeners.emplace_back(++list->lastListener, std::move(listener));
  return list->lastListener;
}

void dmsClmRemoveListener(dmsContentListInfo *list, uint64_t token) {
  std::lock_guard changing(list->changeMutex);
  std::erase_if(list->listeners, [token](const auto &row) { return row.first == token; });
}

int32_t dmsClmTellListeners(dmsContentListInfo *list, const std::vector<uint32_t> &pairs,
                            uint32_t systemUpdateId) {
  dmsClmChangeSet change{pairs.data(), static_cast<int32_t>(pairs.size() / 2), systemUpdateId,
                         &list->madeItems, &list->changedItems, &list->freedItems,
                         &list->playlistFolders, &list->freedFolders, &list->madeFolders};
  int32_t first = DMS_SUCCESS;
  for (const auto &[token, listener] : list->listeners) {
    const int32_t result = listener(change);
    if (result != DMS_SUCCESS && first == DMS_SUCCESS) first = result;
  }
  // Given back, not cleared: a rescan's lists of 100,000 ids would
  // otherwise stay held until the next one.
  for (auto *noted : {&list->madeItems, &list->changedItems, &list->freedItems, &list->playlistFolders,
                      &list->freedFolders, &list->madeFolders}) {
    *noted = std::vector<uint32_t>();
  }
  return first;
}

// A host's change of the shared folders: told without pairs and without a
// new system update id.
static int32_t tellHostChange(dmsContentListInfo *list) {
  uint32_t systemUpdateId = 0;
  {
    auto reading = dmsClmReadLock(list);
    systemUpdateId = list->systemUpdateId;
  }
  return dmsClmTellListeners(list, {}, systemUpdateId);
}

uint32_t dmsClmGetSystemUpdateId(const dmsContentListInfo *list) {
  auto reading = dmsClmReadLock(list);
  return list->systemUpdateId;
}

std::shared_lock<dmsRwLock> dmsClmReadLock(const dmsContentListInfo *list) {
  return std::shared_lock<dmsRwLock>(list->rwLock);
}

int32_t dmsClmCreateContentList(dmsContentListInfo **out, char **sharedPaths,
                                int32_t numSharedPaths, int32_t maxContent) {
  return dmsClmCreateContentListRecalling(out, sharedPaths, numSharedPaths, maxContent, nullptr);
}

int32_t dmsClmCreateContentListRecalling(dmsContentListInfo **out, char **sharedPaths, int32_t numSharedPaths,
                                         int32_t maxContent, dmsClmRecall *recall) {
  if (out == nullptr || sharedPaths == nullptr || numSharedPaths < 1 || maxContent < 1) {
    DMS_TRACE(OSAL_TRACE_ERR, "Invalid input parameter\n");
    DMS_TRACE(OSAL_TRACE_ERR,
              "pp_s_contentListInfo: [%p], pp_ch_sharedPaths: [%p], s32_numSharedPaths: [%d] "
              "s32_maxConent: [%d]\n",
              static_cast<void *>(out), static_cast<void *>(sharedPaths), numSharedPaths, maxContent);
    if (out != nullptr) *out = nullptr;
    return DMS_ERR_INVALID_PARAM;
  }
  *out = nullptr;
  return dmsGuard("dmsClmCreateContentList", DMS_ERR_NO_MEMORY, [&] {
    return createList(out, sharedPaths, numSharedPaths, maxContent, recall);
  });
}

int32_t dmsClmFreeContentList(dmsContentListInfo *list) {
  if (list == nullptr) {
    DMS_TRACE(OSAL_TRACE_WARN, "Invalid Input Param. p_s_contentListInfo: [%p]\n", static_cast<void *>(list));
    return DMS_ERR_INVALID_PARAM;
  }
  return releaseList(list);
}

int32_t dmsClmAddToContentList(dmsContentListInfo *list, const char *sharedPath) {
  if (list == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Invalid Input Param. p_s_contentListInfo: [%p]\n", static_cast<void *>(list));
    return DMS_ERR_INVALID_PARAM;
  }
  if (sharedPath == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Invalid Input Param. p_ch_sharedPath: [%p]\n", static_cast<const void *>(sharedPath));
    return DMS_ERR_INVALID_PARAM;
  }
  struct stat status {};
  if (::stat(sharedPath, &status) != 0 || !S_ISDIR(status.st_mode)) {
    DMS_TRACE(OSAL_TRACE_ERR, "Can't add path [%s], since its a file\n", sharedPath);
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsGuard("dmsClmAddToContentList", DMS_ERR_NO_MEMORY, [&] {
    std::lock_guard changing(list->changeMutex);
    addSharedPaths(list, {{sharedPath, DMS_CLM_TYPE_CONTAINER, static_cast<int64_t>(status.st_size)}});
    return tellHostChange(list);
  });
}

int32_t dmsClmRemoveFromContentList(dmsContentListInfo *list, const char *sharedPath) {
  if (list == nullptr || sharedPath == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Invalid Input Param.[%d] : param: [%s]\n", DMS_ERR_INVALID_PARAM,
              list == nullptr ? "p_s_contentListInfo" : "p_ch_sharedPath");
    return DMS_ERR_INVALID_PARAM;
  }
  std::lock_guard changing(list->changeMutex);
  std::unique_lock writing(list->rwLock);
  auto &shared = list->root->container()->children;
  for (size_t i = 0; i < shared.size(); ++i) {
    if (shared[i]->path == sharedPath) {
      DMS_TRACE(OSAL_TRACE_INFO, "Remove Child-%d with path [%s] from the list\n", static_cast<int>(i), sharedPath);
      freeEntry(list, shared[i], FreeMode::Detach);
      dmsClmSharesRemove(list, sharedPath);
      writing.unlock();
      return dmsGuard("dmsClmRemoveFromContentList", DMS_ERR_NO_MEMORY, [&] { return tellHostChange(list); });
    }
  }
  DMS_TRACE(OSAL_TRACE_WARN, "File [%s] was not in the list to delete. Ignore this Delete Event\n", sharedPath);
  return DMS_SUCCESS;
}

// A lock the system refuses (std::system_error) is DMS_ERR_SYNC.
extern "C" DMS_EXPORT int32_t dmsClmLockContentList(dmsContentListInfo *list) {
  if (list == nullptr) return DMS_ERR_INVALID_PARAM;
  return dmsGuard("dmsClmLockContentList", DMS_ERR_SYNC, [&] {
    list->hostLock.lock();
    return DMS_SUCCESS;
  });
}

extern "C" DMS_EXPORT int32_t dmsClmUnlockContentList(dmsContentListInfo *list) {
  if (list == nullptr) return DMS_ERR_INVALID_PARAM;
  return dmsGuard("dmsClmUnlockContentList", DMS_ERR_SYNC, [&] {
    list->hostLock.unlock();
    return DMS_SUCCESS;
  });
}

const std::vector<dmsContentEntry *> &dmsClmChildren(const dmsContentEntry *entry) {
  static const std::vector<dmsContentEntry *> kNone;
  const dmsContainerState *container = entry->container();
  return container != nullptr ? container->children : kNone;
}

std::string dmsClmEntryPath(const dmsContentEntry *entry) {
  // Names from the entry up to its shared folder (whose parent is the root),
  // which holds the full path the names are joined to.
  std::vector<std::string_view> names;
  const dmsContentEntry *at = entry;
  for (; at->parent != nullptr && at->parent->type != DMS_CLM_TYPE_ROOT; at = at->parent) names.push_back(at->path);
  std::string path = at->path.str();
  for (auto name = names.rbegin(); name != names.rend(); ++name) {
    if (path.empty() || path.back() != '/') path += '/';
    path += *name;
  }
  return path;
}

int32_t dmsClmGetContentEntryById(dmsContentListInfo *list, dmsContentEntry **out, uint32_t id) {
  if (list == nullptr || out == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Param\n");
    return DMS_ERR_INVALID_PARAM;
  }
  *out = list->entriesById.find(id);
  return DMS_SUCCESS;
}

int32_t dmsClmGetContentEntryByFsmWd(dmsContentListInfo *list, dmsContentEntry **out, int32_t wd) {
  if (list == nullptr || out == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Param\n");
    return DMS_ERR_INVALID_PARAM;
  }
  *out = nullptr;
  *out = dmsFsmWatchedEntry(list->monitor, wd);
  return DMS_SUCCESS;
}

int32_t dmsClmGetTypeForEntry(const dmsContentEntry *entry, uint32_t *type, uint32_t *id) {
  if (entry == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Param\n");
    return DMS_ERR_INVALID_PARAM;
  }
  if (type != nullptr) *type = entry->type;
  if (id != nullptr) *id = entry->id;
  return DMS_SUCCESS;
}

int32_t dmsClmGetMediaInfoForEntry(dmsContentEntry *entry, uint32_t *id, mfdMediaInfo *media,
                                   dmsContentEntry **parent, uint32_t *reserved) {
  if (entry == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Param\n");
    return DMS_ERR_INVALID_PARAM;
  }
  if (id != nullptr) *id = entry->id;
  if (media != nullptr) *media = dmsClmExpandMedia(entry->media);
  if (parent != nullptr) *parent = entry->parent;
  if (reserved != nullptr) *reserved = 0;
  return DMS_SUCCESS;
}

int32_t dmsClmGetContainerInfoForEntry(dmsContentEntry *entry, uint32_t *id,
                                       dmsContentEntry **parent, int32_t *childCount,
                                       dmsContentEntry ***children, uint32_t *reserved) {
  if (entry == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Param\n");
    return DMS_ERR_INVALID_PARAM;
  }
  if (id != nullptr) *id = entry->id;
  if (parent != nullptr) *parent = entry->parent;
  dmsContainerState *container = entry->container();
  const bool none = container == nullptr || container->children.empty();
  if (childCount != nullptr) *childCount = none ? 0 : static_cast<int32_t>(container->children.size());
  if (children != nullptr) *children = none ? nullptr : container->children.data();
  if (reserved != nullptr) *reserved = 0;
  return DMS_SUCCESS;
}

int32_t dmsClmGetCounts(dmsContentListInfo *list, int32_t *containers, int32_t *items) {
  if (list == nullptr || containers == nullptr || items == nullptr) return DMS_ERR_INVALID_PARAM;
  auto reading = dmsClmReadLock(list);
  *containers = 0;
  *items = 0;
  if (list->root == nullptr) return DMS_SUCCESS;
  const auto &shared = list->root->container()->children;
  std::vector<const dmsContentEntry *> pending(shared.begin(), shared.end());
  while (!pending.empty()) {
    const dmsContentEntry *entry = pending.back();
    pending.pop_back();
    if (entry->type == DMS_CLM_TYPE_ITEM) {
      ++*items;
    } else {
      ++*containers;
      pending.insert(pending.end(), entry->container()->children.begin(), entry->container()->children.end());
    }
  }
  return DMS_SUCCESS;
}

dmsContentEntry *dmsClmFindItemByPath(const dmsContentListInfo *list, const std::string &path) {
  if (list == nullptr || list->root == nullptr) return nullptr;
  // The part of `path` below `folder`, or nullopt when it is not below it.
  const auto below = [&path](std::string_view folder) -> std::optional<std::string_view> {
    std::string_view prefix = folder;
    while (prefix.size() > 1 && prefix.back() == '/') prefix.remove_suffix(1);
    if (path.size() <= prefix.size() + 1 || path.compare(0, prefix.size(), prefix) != 0 ||
        path[prefix.size()] != '/') {
      return std::nullopt;
    }
    return std::string_view(path).substr(prefix.size() + 1);
  };
  for (dmsContentEntry *shared : list->root->container()->children) {
    if (shared->type != DMS_CLM_TYPE_CONTAINER) continue;
    std::optional<std::string_view> rest = below(shared->path);
    for (const auto &[given, real] : list->shareRoots) {
      if (!rest && given == shared->path) rest = below(real);
    }
    if (!rest) continue;
    dmsContentEntry *at = shared;
    while (at != nullptr && !rest->empty()) {
      const size_t slash = rest->find('/');
      at = dmsClmFindChild(at, std::string(rest->substr(0, slash)));
      rest->remove_prefix(slash == std::string_view::npos ? rest->size() : slash + 1);
    }
    if (at != nullptr && at->type == DMS_CLM_TYPE_ITEM) return at;
  }
  return nullptr;
}

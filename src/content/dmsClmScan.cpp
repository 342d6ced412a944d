#include "content/dmsClmScan.h"

#include "content/dmsClmRecall.h"
#include "playlist/dmsPlaylistRead.h"
#include "subtitles/dmsSubtitles.h"

#include "content/dmsClmShares.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <unordered_map>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include "tags/dmsClmPicture.h"
#include "tags/dmsClmTags.h"
#include "content/dmsFsmApi.h"
#include "util/dmsThreadName.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsClmApi";

namespace {

// Names kept by the filter, compared after lower-casing.
constexpr std::array<const char *, 16> kMediaExtensions{
    ".jpg", ".png", ".gif", ".wav", ".mp3", ".pcm", ".aac", ".wma",
    ".mpeg", ".mpg", ".mp4", ".wmv", ".avi", ".asf", ".vob", ".dat"};
constexpr std::array<const char *, 3> kSkippedFolders{
    "$recycle.bin", "recycler", "system volume information"};

std::string lowerCase(const char *text) {
  std::string lowered(text);
  for (char &c : lowered) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lowered;
}

bool filterOn() { return KVSUPPORT_XR_VAL != 0; }

// Folders on the way from the shared folder down to the one being walked,
// by device and inode: a symbolic link back to one of them is not entered.
using FolderIdentity = std::pair<dev_t, ino_t>;

struct DirectoryName {
  std::string name;
  bool isDirectory;  // from the directory entry's type; unknown types are stat'ed
  bool maybeLink;    // a symbolic link, or of a type the folder does not say
};

// The names of `path`, byte-wise sorted, filtered while the host flag is set.
// A negative errno when the folder cannot be read.
int readNames(const std::string &path, std::vector<DirectoryName> &names) {
  DIR *directory = ::opendir(path.c_str());
  if (directory == nullptr) return -errno;
  bool filtering = filterOn();
  while (dirent *entry = ::readdir(directory)) {
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    bool isDirectory = entry->d_type == DT_DIR;
    if (entry->d_type == DT_UNKNOWN || entry->d_type == DT_LNK) {
      struct stat status {};
      std::string full = path + "/" + entry->d_name;
      isDirectory = ::stat(full.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    }
    if (filtering && !dmsClmScanFilterKeeps(entry->d_name, isDirectory)) continue;
    names.push_back({entry->d_name, isDirectory, entry->d_type == DT_UNKNOWN || entry->d_type == DT_LNK});
  }
  ::closedir(directory);
  std::sort(names.begin(), names.end(),
            [](const DirectoryName &a, const DirectoryName &b) { return a.name < b.name; });
  return 0;
}

std::string joinPath(const std::string &folder, const std::string &name) {
  if (!folder.empty() && folder.back() == '/') return folder + name;
  return folder + "/" + name;
}

// Takes one entry from the budget; false when it is spent.
bool takeFromBudget(dmsScanBudget &budget, uint32_t type) {
  if (budget.count >= budget.max) {
    DMS_TRACE(OSAL_TRACE_INFO, "Number of Content Support exceeding: MaxContent [%d]\n", budget.max);
    return false;
  }
  ++budget.count;
  // While filtering, folders do not use the budget up.
  if (type == DMS_CLM_TYPE_CONTAINER && filterOn()) ++budget.max;
  return true;
}

// Detects the file at out.path and, for media, reads its tags; true (with
// the record) when the file is media.
bool detectMedia(dmsContentListInfo *list, dmsPendingEntry &out) {
  const std::string &path = out.path;
  mfdMediaInfo info{};
  mfdMediaInfo *media = &info;
  int32_t result = mfd_detectMediaFormat(list->detector, path.c_str(), media);
  if (result == MFD_ERR_UNSUPPORTED) return false;  // not media: dropped silently
  if (result != 0) {
    DMS_TRACE(result == MFD_ERR_FILE ? OSAL_TRACE_WARN : OSAL_TRACE_INFO,
              "Error [%d] in %s() for file [%s]\n", result, "mfd_detectMediaFormat", path.c_str());
    return false;
  }
  if (media->mediaClass == MFD_CLASS_NONE || media->formatId == MFD_FORMAT_NONE) return false;
  // Pooled at once, so that a walk of a large library holds each distinct
  // text once rather than every file's copy until it is attached.
  out.media = dmsClmKeepMedia(info);
  dmsTagText tags;
  if (dmsClmReadTags(path, info, tags)) out.tags = dmsClmPoolTags(list->tagPool, tags);
  return true;
}

// Below a shared folder an entry keeps only its name: the pending entry
// drops the rest of its path as soon as it has been read.
void keepNameOnly(std::string &path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return;
  path.erase(0, slash + 1);
  path.shrink_to_fit();
}

// One name of a folder being walked, and for a file what detection made of
// it when that ran ahead (see detectAhead).
struct FolderChild {
  std::string path;
  uint32_t type = DMS_CLM_TYPE_ITEM;
  int64_t fileSize = 0;
  int64_t modified = 0;   // seconds since the epoch
  bool detected = false;  // `media` is set
  bool media = false;
  dmsPendingEntry entry;
  uint32_t presetId = 0;  // its id in an earlier run
};

// Detects the folder's files on several threads at once when the budget
// holds them all (so that the order of detection cannot change which files
// are listed).  Detection is thread-safe: each thread has its own reader,
// and tags are read from separate files.
void detectAhead(dmsContentListInfo *list, std::vector<FolderChild> &children, const dmsScanBudget &budget) {
  constexpr size_t kMinimumFiles = 8;
  std::vector<FolderChild *> files;
  for (FolderChild &child : children) {
    if (child.type == DMS_CLM_TYPE_ITEM && !child.detected) files.push_back(&child);
  }
  if (files.size() < kMinimumFiles || budget.count + static_cast<int64_t>(children.size()) > budget.max) return;
  const unsigned threads = std::min({std::max(1u, std::thread::hardware_concurrency()), 4u,
                                     static_cast<unsigned>(files.size() / (kMinimumFiles / 2))});
  std::atomic<size_t> next{0};
  auto work = [&] {
    for (size_t index; (index = next.fetch_add(1)) < files.size();) {
      FolderChild &file = *files[index];
      file.entry.path = file.path;
      file.entry.type = file.type;
      file.entry.fileSize = file.fileSize;
      file.entry.presetId = file.presetId;
      file.media = detectMedia(list, file.entry);
      keepNameOnly(file.entry.path);
      file.detected = true;
    }
  };
  std::vector<std::thread> helpers;
  for (unsigned i = 1; i < threads; ++i) {
    try {
      helpers.emplace_back([&] {
        dmsNameThread("dms-detect");
        dmsGuardVoid("detectAhead", work);
      });
    } catch (const std::system_error &) {
      break;  // fewer helpers; this thread does the rest
    }
  }
  work();
  for (std::thread &helper : helpers) helper.join();
}

// Gives the children of a folder that an earlier run knew (the list's
// recall, under the folder's id then) their ids, and a file of the same
// size and time its detection and tags, so that it is not opened again.
void recallChildren(dmsContentListInfo *list, uint32_t folderId, std::vector<FolderChild> &children) {
  if (list->recall == nullptr || folderId == 0) return;
  std::unordered_map<std::string, dmsClmRecall::Known> known;
  list->recall->folder(folderId, list->tagPool, known);
  for (FolderChild &child : children) {
    const size_t slash = child.path.rfind('/');
    auto found = known.find(child.path.substr(slash == std::string::npos ? 0 : slash + 1));
    if (found == known.end() || found->second.folder != (child.type == DMS_CLM_TYPE_CONTAINER)) continue;
    const dmsClmRecall::Known &was = found->second;
    child.presetId = was.id;
    if (was.folder || !was.media || was.size != child.fileSize || was.modified != child.modified) continue;
    child.entry.path = child.path;
    keepNameOnly(child.entry.path);
    child.entry.type = child.type;
    child.entry.fileSize = child.fileSize;
    child.entry.presetId = was.id;
    child.entry.media = was.record;
    child.entry.tags = was.tags;
    child.detected = true;
    child.media = true;
  }
}

// Prepares one file of a folder: takes it from the budget (before
// detection, so nothing is read for a file that could not be listed; a file
// that is not media gives it back) and detects it unless that ran ahead.
bool prepareFile(dmsContentListInfo *list, FolderChild &child, dmsScanBudget &budget, dmsPendingEntry &out) {
  if (!takeFromBudget(budget, child.type)) return false;
  if (child.detected) {
    if (child.media) out = std::move(child.entry);
    else --budget.count;
    return child.media;
  }
  out.path = child.path;
  out.type = child.type;
  out.fileSize = child.fileSize;
  out.presetId = child.presetId;
  if (!detectMedia(list, out)) {
    --budget.count;
    return false;
  }
  keepNameOnly(out.path);
  return true;
}

// One folder of the walk: its pending entry, the names found in it, and the
// next one to prepare.
struct WalkFrame {
  dmsPendingEntry *folder = nullptr;
  std::vector<FolderChild> children;
  size_t next = 0;
};

// Reads `folder` into `frame`: its cover, its children (folders that lead
// back up the walk left out) and, where the budget allows, their detection
// ahead of time.  Pushes the folder onto `ancestors`.  0, or the error of
// reading the folder (traced).
int32_t openFrame(dmsContentListInfo *list, dmsPendingEntry &folder, const dmsScanBudget &budget,
                  std::vector<FolderIdentity> &ancestors, WalkFrame &frame) {
  struct stat self {};
  if (::stat(folder.path.c_str(), &self) != 0) return -errno;
  std::vector<DirectoryName> names;
  int result = readNames(folder.path, names);
  if (result < 0) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in scandir() for path [%s]\n", result, folder.path.c_str());
    return result;
  }
  ancestors.push_back({self.st_dev, self.st_ino});
  int coverRank = 0;
  for (const DirectoryName &name : names) {
    const int rank = name.isDirectory ? 0 : dmsClmCoverRank(name.name);
    dmsPlaylistFormat format;
    const bool playlist = !name.isDirectory && dmsPlaylistFormatOf(name.name, format);
    const bool subtitle = !name.isDirectory && dmsSubtitleFormatOf(name.name) != nullptr;
    if (rank > coverRank || playlist || subtitle) {
      if (folder.container == nullptr) folder.container = std::make_unique<dmsContainerState>();
    }
    if (playlist) folder.container->playlists.push_back(name.name);
    if (subtitle) folder.container->subtitles.push_back(name.name);
    if (rank > coverRank) {
      coverRank = rank;
      folder.container->coverName = name.name;
    }
  }
  frame.folder = &folder;
  frame.children.reserve(names.size());
  for (const DirectoryName &name : names) {
    std::string path = joinPath(folder.path, name.name);
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
      DMS_TRACE(OSAL_TRACE_ERR, "Error in osal_stat()\n");
      std::perror("osal_stat():  ");
      continue;
    }
    // Only folders and regular files: a FIFO, socket or device is never
    // opened, and nothing a link leads out of the shares to is listed.
    if (!S_ISDIR(status.st_mode) && !S_ISREG(status.st_mode)) continue;
    // A subtitle is its video's, never an item (a VobSub ".sub" looks like MPEG).
    if (!S_ISDIR(status.st_mode) && dmsSubtitleFormatOf(name.name) != nullptr) continue;
    if (name.maybeLink && !dmsClmLinkStaysInside(list, path)) continue;
    uint32_t type = S_ISDIR(status.st_mode) ? DMS_CLM_TYPE_CONTAINER : DMS_CLM_TYPE_ITEM;
    if (type == DMS_CLM_TYPE_CONTAINER &&
        std::find(ancestors.begin(), ancestors.end(), FolderIdentity{status.st_dev, status.st_ino}) !=
            ancestors.end()) {
      DMS_TRACE(OSAL_TRACE_INFO, "Folder [%s] links back to a folder above it: not listed\n", path.c_str());
      continue;
    }
    FolderChild &child = frame.children.emplace_back();
    child.path = std::move(path);
    child.type = type;
    child.fileSize = status.st_size;
    child.modified = static_cast<int64_t>(status.st_mtime);
  }
  recallChildren(list, folder.presetId, frame.children);
  detectAhead(list, frame.children, budget);
  // No reallocation while the walk holds a child folder's address.
  folder.children.reserve(frame.children.size());
  return 0;
}

// Walks the tree below `top` depth first with a stack of its own, so that
// depth costs heap, not stack: a folder is listed before its contents, and
// siblings go in name order.  Once the budget is spent nothing more can be
// listed (only a listed folder raises it): the rest of the walk is skipped.
int32_t walkFolder(dmsContentListInfo *list, dmsPendingEntry &top, dmsScanBudget &budget) {
  std::vector<FolderIdentity> ancestors;
  std::vector<WalkFrame> stack(1);
  const int32_t result = openFrame(list, top, budget, ancestors, stack.back());
  if (result < 0) return result;
  while (!stack.empty()) {
    WalkFrame &frame = stack.back();
    if (frame.next == frame.children.size()) {
      ancestors.pop_back();
      stack.pop_back();
      continue;
    }
    FolderChild &child = frame.children[frame.next++];
    if (budget.count >= budget.max) {
      takeFromBudget(budget, DMS_CLM_TYPE_ITEM);
      frame.next = frame.children.size();
      continue;
    }
    dmsPendingEntry pending;
    if (child.type == DMS_CLM_TYPE_ITEM) {
      if (prepareFile(list, child, budget, pending)) frame.folder->children.push_back(std::move(pending));
      continue;
    }
    if (!takeFromBudget(budget, child.type)) continue;
    pending.path = std::move(child.path);
    pending.type = child.type;
    pending.fileSize = child.fileSize;
    pending.presetId = child.presetId;
    dmsPendingEntry &folder = frame.folder->children.emplace_back(std::move(pending));
    WalkFrame next;
    const bool opened = openFrame(list, folder, budget, ancestors, next) == 0;
    keepNameOnly(folder.path);  // its children hold their full paths
    if (opened) stack.push_back(std::move(next));  // `frame` is not used past here
  }
  return 0;
}

}  // namespace

bool dmsClmScanFilterKeeps(const char *name, bool isDirectory) {
  if (name == nullptr || *name == '\0') return true;
  if (isDirectory) {
    std::string lowered = lowerCase(name);
    return std::none_of(kSkippedFolders.begin(), kSkippedFolders.end(),
                        [&](const char *skipped) { return lowered == skipped; });
  }
  const char *dot = std::strrchr(name, '.');
  if (dot == nullptr) return false;
  std::string extension = lowerCase(dot);
  return std::any_of(kMediaExtensions.begin(), kMediaExtensions.end(),
                     [&](const char *kept) { return extension == kept; }) ||
         mfd_addedFormatsUse(std::string_view(extension).substr(1));
}

bool dmsClmPrepareTopEntry(dmsContentListInfo *list, const std::string &path, uint32_t type,
                           int64_t fileSize, dmsScanBudget &budget, dmsPendingEntry &out) {
  if (!takeFromBudget(budget, type)) return false;
  out.path = path;
  out.type = type;
  out.fileSize = fileSize;
  if (type == DMS_CLM_TYPE_ITEM && !detectMedia(list, out)) {
    --budget.count;
    return false;
  }
  return true;
}

int32_t scanDirAndAddToList(dmsContentListInfo *list, dmsPendingEntry &folder,
                            dmsScanBudget &budget) {
  return walkFolder(list, folder, budget);
}

dmsContentEntry *createEntryAndAddToList(dmsContentListInfo *list, dmsPendingEntry &pending,
                                         dmsContentEntry *parent) {
  if (list->entryCount >= list->maxContent) {
    DMS_TRACE(OSAL_TRACE_INFO, "Number of Content Support exceeding: MaxContent [%d]\n",
              list->maxContent);
    return nullptr;
  }
  dmsClmEntryPool::Owned entry = list->entryPool.make(static_cast<uint8_t>(pending.type));
  // An earlier run's id, unless an entry holds it already (a folder shared
  // twice); else a new one.
  const bool recalled = pending.presetId != 0 && !list->entriesById.holds(pending.presetId);
  entry->id = recalled ? pending.presetId : list->nextId++;
  // A shared folder keeps the path it was shared by; the rest their names.
  if (parent != nullptr && parent->type != DMS_CLM_TYPE_ROOT) {
    const size_t slash = pending.path.rfind('/');
    entry->path = slash == std::string::npos ? std::move(pending.path) : pending.path.substr(slash + 1);
  } else {
    entry->path = std::move(pending.path);
  }
  entry->parent = parent;
  entry->fileSize = pending.fileSize;
  entry->media = pending.media;
  entry->tags = pending.tags;
  if (entry->container() != nullptr && pending.container != nullptr) *entry->container() = std::move(*pending.container);
  list->entriesById.insert(entry.get());
  ++list->entryCount;
  dmsContentEntry *made = entry.release();  // owned by the list from here on
  (made->type == DMS_CLM_TYPE_ITEM ? list->madeItems : list->madeFolders).push_back(made->id);
  if (made->container() != nullptr && !made->container()->playlists.empty()) list->playlistFolders.push_back(made->id);
  if (made->type != DMS_CLM_TYPE_CONTAINER) return made;
  if (filterOn()) ++list->maxContent;
  if (list->monitor != nullptr) dmsFsmAddToMointor(list->monitor, made);
  return made;
}

void dmsClmAttachChildren(dmsContentListInfo *list, dmsContentEntry *container,
                          dmsPendingEntry &pending) {
  // Depth first with a stack of its own (folders may nest thousands deep):
  // a folder takes its id before its contents do.
  struct Frame {
    dmsContentEntry *container;
    dmsPendingEntry *pending;
    size_t next;
  };
  std::vector<Frame> stack{{container, &pending, 0}};
  container->container()->children.reserve(container->container()->children.size() + pending.children.size());
  while (!stack.empty()) {
    Frame &frame = stack.back();
    std::vector<dmsPendingEntry> &children = frame.pending->children;
    if (frame.next == children.size()) {
      // Freed now, not when the whole walk is: a large library's pending
      // records would otherwise sit beside its entries until the scan ends.
      std::vector<dmsPendingEntry>().swap(children);
      stack.pop_back();
      continue;
    }
    dmsPendingEntry &child = children[frame.next++];
    dmsContentEntry *entry = createEntryAndAddToList(list, child, frame.container);
    if (entry == nullptr) continue;
    frame.container->container()->children.push_back(entry);
    if (entry->type == DMS_CLM_TYPE_CONTAINER) {
      entry->container()->children.reserve(child.children.size());
      stack.push_back({entry, &child, 0});  // `frame` is not used past here
    }
  }
}

dmsPendingEntry::~dmsPendingEntry() {
  // A deep tree is taken apart level by level instead of by nested
  // destructors, which would use the stack as deep as the folders go.
  std::vector<dmsPendingEntry> rest;
  rest.swap(children);
  while (!rest.empty()) {
    dmsPendingEntry last = std::move(rest.back());
    rest.pop_back();
    for (dmsPendingEntry &child : last.children) rest.push_back(std::move(child));
    last.children.clear();
  }
}

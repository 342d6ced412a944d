// The views' writer half: placing files in the views and taking them out
// again as the content list changes (see dmsViews.h for the contract).
#include "views/dmsViews.h"

#include <algorithm>
#include <cstring>

#include "mfd/mfd_class.h"
#include "views/dmsViewsInternal.h"

using namespace dmsViewsDetail;

namespace {

FileKind kindOf(const dmsContentEntry &entry) {
  const mfdMediaInfo info = dmsClmExpandMedia(entry.media);
  const char *upnpClass = mfd_upnpClass(info);
  if (upnpClass == nullptr) return FileKind::kNone;
  const auto startsWith = [upnpClass](const char *prefix) {
    return std::strncmp(upnpClass, prefix, std::strlen(prefix)) == 0;
  };
  if (startsWith("object.item.audioItem")) return FileKind::kMusic;
  if (startsWith("object.item.imageItem")) return FileKind::kPicture;
  if (startsWith("object.item.videoItem")) return FileKind::kVideo;
  return FileKind::kNone;
}

}  // namespace

dmsViews::dmsViews(dmsContentListInfo *list) : list_(list) {}

dmsViews::~dmsViews() = default;

dmsViews::Container *dmsViews::container(uint32_t id) {
  auto found = containers_.find(id);
  return found == containers_.end() ? nullptr : found->second.get();
}

const dmsViews::Container *dmsViews::container(uint32_t id) const {
  auto found = containers_.find(id);
  return found == containers_.end() ? nullptr : found->second.get();
}

// Notes a changed container for the apply in progress (a rebuild tells
// nobody, and would grow the list by one per place of every file).
void dmsViews::touch(uint32_t id) {
  if (!rebuilding_) touched_.push_back(id);
}

// Makes container `id` below `parentId` (which exists) when it is not there.
dmsViews::Container &dmsViews::makeContainer(uint32_t id, uint32_t parentId, uint8_t kind, uint32_t titleTag) {
  if (Container *existing = container(id)) return *existing;
  auto made = std::make_unique<Container>();
  made->id = id;
  made->parentId = parentId;
  made->kind = kind;
  made->items = kKinds[kind].items;
  made->titleTag = titleTag;
  if (Container *parent = container(parentId)) {
    made->positionInParent = static_cast<uint32_t>(parent->containers.size());
    parent->containers.push_back(id);
    touch(parentId);
  }
  Container &result = *made;
  containers_.emplace(id, std::move(made));
  return result;
}

// Takes an emptied container of artists, albums, genres or dates out, and
// so on upward while its parent is emptied too.
void dmsViews::dropIfEmpty(uint32_t id) {
  for (Container *at = container(id); at != nullptr && at->kind != kFixed;) {
    if (!at->containers.empty() || at->memberCount() != 0) return;
    Container *parent = container(at->parentId);
    if (parent != nullptr) {
      const uint32_t moved = parent->containers.back();
      parent->containers[at->positionInParent] = moved;
      parent->containers.pop_back();
      if (moved != at->id) container(moved)->positionInParent = at->positionInParent;
      touch(parent->id);
    }
    if (at->kind == kArtistAlbum) {
      artistAlbums_.erase((static_cast<uint64_t>(at->parentId - dmsViewIds::kArtistBase) << 32) | at->titleTag);
    }
    containers_.erase(at->id);
    at = parent;
  }
}

void dmsViews::addMember(uint32_t containerId, uint32_t fileId, uint8_t slot, FileRow &row) {
  Container *into = container(containerId);
  row.container[slot - row.first] = containerId;
  const uint32_t item = dmsViewIds::virtualId(fileId, slot);
  // New files have the highest ids, so adding is mostly appending in order.
  if (!into->members.empty() && into->members.back() > item) into->unsorted = true;
  into->members.push_back(item);
  touch(containerId);
}

// Takes virtual item `item` out of its container: found by a binary search
// (the members sorted first after adds out of order, once per change at
// most, as the change re-orders the container anyway), and marked gone in
// its place until they are half the members, so that taking k of n out
// costs O(k log n + n).  A file placed again in the container it left is
// there twice, gone and not: of equal ids the one not gone is taken.
void dmsViews::removeMember(uint32_t containerId, uint32_t item) {
  static_assert(dmsViewIds::virtualId(dmsViewIds::kMaxFileId, dmsViewIds::kSlots - 1) < Container::kGone);
  Container *from = container(containerId);
  std::vector<uint32_t> &members = from->members;
  const auto byItem = [](uint32_t a, uint32_t b) { return (a & ~Container::kGone) < (b & ~Container::kGone); };
  if (from->unsorted) {
    std::sort(members.begin(), members.end(), byItem);
    from->unsorted = false;
  }
  auto at = std::lower_bound(members.begin(), members.end(), item, byItem);
  while (at != members.end() && *at != item && (*at & ~Container::kGone) == item) ++at;
  if (at == members.end() || *at != item) return;
  *at |= Container::kGone;
  if (++from->gone * size_t{2} > members.size()) {
    std::erase_if(members, [](uint32_t member) { return (member & Container::kGone) != 0; });
    from->gone = 0;
    if (members.capacity() > 2 * members.size() + 16) members.shrink_to_fit();
  }
  touch(containerId);
}

dmsViews::FileRow *dmsViews::row(uint32_t fileId) {
  auto at = std::lower_bound(rows_.begin(), rows_.end(), fileId,
                             [](const FileRow &r, uint32_t id) { return r.fileId < id; });
  return at != rows_.end() && at->fileId == fileId ? &*at : nullptr;
}

// The container of one artist's album, numbered when first made.
uint32_t dmsViews::artistAlbum(uint32_t artistTag, uint32_t albumTag) {
  const uint64_t key = (static_cast<uint64_t>(artistTag) << 32) | albumTag;
  auto found = artistAlbums_.find(key);
  if (found != artistAlbums_.end()) return found->second;
  if (nextArtistAlbum_ >= dmsViewIds::kArtistAlbumEnd) return 0;
  const uint32_t id = nextArtistAlbum_++;
  artistAlbums_.emplace(key, id);
  makeContainer(id, dmsViewIds::kArtistBase + artistTag, kArtistAlbum, albumTag);
  return id;
}

void dmsViews::place(const dmsContentEntry &entry, FileRow &into) {
  using namespace dmsViewIds;
  const dmsMediaTags &tags = entry.tags;
  const FileKindRow &kind = kFileKinds[static_cast<size_t>(into.kind)];
  into.first = kind.firstPlace;
  into.count = 0;
  ++kindCount_[static_cast<size_t>(into.kind)];
  touch(kind.allList);
  if (into.kind == FileKind::kMusic) {
    into.count = 3;
    const uint32_t artist = makeContainer(kArtistBase + tags.artist, kArtists, kArtist, tags.artist).id;
    const uint32_t below = tags.album != 0 ? artistAlbum(tags.artist, tags.album) : 0;
    addMember(below != 0 ? below : artist, entry.id, kSlotArtist, into);
    if (tags.album != 0) {
      addMember(makeContainer(kAlbumBase + tags.album, kAlbums, kAlbum, tags.album).id, entry.id, kSlotAlbum, into);
    }
    if (tags.genre != 0) {
      addMember(makeContainer(kGenreBase + tags.genre, kGenres, kGenre, tags.genre).id, entry.id, kSlotGenre, into);
    }
  } else if (into.kind == FileKind::kPicture) {
    into.count = 1;
    const int64_t date = dateKey(entry, list_->tagPool);
    const uint32_t year = static_cast<uint32_t>(date / 10000000000);
    const uint32_t month = static_cast<uint32_t>(date / 100000000 % 100);
    if (year < 1 || year > 9999 || month < 1 || month > 12) return;
    const uint32_t yearId = makeContainer(kDateBase + year * 100, kByDate, kYear, 0).id;
    addMember(makeContainer(yearId + month, yearId, kMonth, 0).id, entry.id, kSlotMonth, into);
  }
}

// Takes the file out of every list; its row stays (kind kNone) for the
// caller to place again or leave as a hole.
void dmsViews::unplace(FileRow &from) {
  for (size_t place = 0; place < from.count; ++place) {
    const uint32_t id = from.container[place];
    if (id == 0) continue;
    removeMember(id, dmsViewIds::virtualId(from.fileId, from.first + static_cast<uint32_t>(place)));
    from.container[place] = 0;
    dropIfEmpty(id);
  }
  from.count = 0;
  --kindCount_[static_cast<size_t>(from.kind)];
  touch(kFileKinds[static_cast<size_t>(from.kind)].allList);
  from.kind = FileKind::kNone;
}

// Places the item `fileId` names anew (taking it out of its old places
// first when it was listed); a file the views do not show leaves a hole.
void dmsViews::addFile(uint32_t fileId) {
  FileRow *listed = row(fileId);
  const bool wasLive = listed != nullptr && listed->kind != FileKind::kNone;
  if (wasLive) unplace(*listed);
  const dmsContentEntry *entry = list_->entriesById.find(fileId);
  const FileKind kind = entry != nullptr && entry->type == DMS_CLM_TYPE_ITEM && fileId >= dmsViewIds::kFirstFileId &&
                                fileId <= dmsViewIds::kMaxFileId
                            ? kindOf(*entry)
                            : FileKind::kNone;
  if (kind == FileKind::kNone) {
    if (wasLive) noteHole();
    return;
  }
  if (listed == nullptr) {
    auto at = std::lower_bound(rows_.begin(), rows_.end(), fileId,
                               [](const FileRow &r, uint32_t id) { return r.fileId < id; });
    listed = &*rows_.insert(at, FileRow{fileId});
  } else if (!wasLive) {
    --holes_;
  }
  listed->kind = kind;
  place(*entry, *listed);
}

void dmsViews::removeFile(uint32_t fileId) {
  FileRow *listed = row(fileId);
  if (listed == nullptr || listed->kind == FileKind::kNone) return;
  unplace(*listed);
  noteHole();
}

// One more hole; they are squeezed out once they are half the rows.
void dmsViews::noteHole() {
  if (++holes_ > rows_.size() / 2) {
    std::erase_if(rows_, [](const FileRow &r) { return r.kind == FileKind::kNone; });
    holes_ = 0;
  }
}

void dmsViews::rebuild() {
  // The items and the playlists are found and read before the lock.
  std::vector<uint32_t> items;
  std::vector<uint32_t> playlistFolders;
  std::vector<const dmsContentEntry *> pending{list_->root};
  while (!pending.empty()) {
    const dmsContentEntry *at = pending.back();
    pending.pop_back();
    if (at == nullptr) continue;
    if (at->type == DMS_CLM_TYPE_ITEM) items.push_back(at->id);
    if (at->container() != nullptr && !at->container()->playlists.empty()) playlistFolders.push_back(at->id);
    for (const dmsContentEntry *child : dmsClmChildren(at)) pending.push_back(child);
  }
  std::sort(items.begin(), items.end());
  std::vector<PlaylistRead> read = readPlaylists(playlistFolders);
  std::unique_lock writing(mutex_);
  containers_.clear();
  rows_.clear();
  holes_ = 0;
  std::fill(std::begin(kindCount_), std::end(kindCount_), 0);
  artistAlbums_.clear();
  nextArtistAlbum_ = dmsViewIds::kArtistAlbumBase;
  playlists_.clear();
  folderPlaylists_.clear();
  playlistEntries_ = 0;
  for (const FixedRow &fixed : kFixedRows) {
    Container &made = makeContainer(fixed.id, fixed.parentId, kFixed, 0);
    made.fixedTitle = fixed.title;
    made.items = fixed.items;
    made.allOf = fixed.allOf;
  }
  rows_.reserve(items.size());
  rebuilding_ = true;
  for (uint32_t id : items) addFile(id);
  takePlaylists(playlistFolders, read);
  rebuilding_ = false;
  for (auto &[id, made] : containers_) made->members.shrink_to_fit();  // grown by doubling
  touched_.clear();
  generation_.fetch_add(1, std::memory_order_acq_rel);
}

void dmsViews::apply(const dmsClmChangeSet &change, std::vector<uint32_t> &pairs) {
  std::vector<uint32_t> folders;
  if (change.playlistFolders != nullptr) folders = *change.playlistFolders;
  std::sort(folders.begin(), folders.end());
  folders.erase(std::unique(folders.begin(), folders.end()), folders.end());
  std::vector<PlaylistRead> read = readPlaylists(folders);  // file I/O before the lock
  std::unique_lock writing(mutex_);
  touched_.clear();
  const auto each = [](const std::vector<uint32_t> *ids, auto &&step) {
    if (ids != nullptr) for (uint32_t id : *ids) step(id);
  };
  each(change.freedItems, [this](uint32_t id) { removeFile(id); });
  if (change.freedItems != nullptr) prunePlaylists(*change.freedItems);
  each(change.changedItems, [this](uint32_t id) { addFile(id); });
  each(change.madeItems, [this](uint32_t id) { addFile(id); });
  each(change.freedFolders, [this](uint32_t id) { dropPlaylists(id); });
  takePlaylists(folders, read);
  std::sort(touched_.begin(), touched_.end());
  touched_.erase(std::unique(touched_.begin(), touched_.end()), touched_.end());
  for (uint32_t id : touched_) {
    if (bumpPlaylist(id, pairs)) continue;
    Container *changed = container(id);
    if (changed == nullptr) continue;  // made and dropped again in this change
    pairs.push_back(id);
    pairs.push_back(++changed->updateCount);
    std::lock_guard ordering(orderMutex_);
    changed->ordered.reset();
  }
  touched_.clear();
  generation_.fetch_add(1, std::memory_order_acq_rel);
}

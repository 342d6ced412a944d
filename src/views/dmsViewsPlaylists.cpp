// The views' playlists: read from the folders a change notes, taken in
// under the views' lock, and shown in their folder and below Playlists
// (see dmsViews.h for the contract).
#include <algorithm>
#include <string>

#include "content/dmsClmShares.h"
#include "playlist/dmsPlaylistRead.h"
#include "views/dmsViews.h"
#include "views/dmsViewsInternal.h"

namespace {

// The most entries all playlists together keep (4 bytes each), whatever a
// share holds: the rest of a playlist past it is left out.
constexpr size_t kMaxEntriesHeld = 1000000;

std::string_view withoutExtension(std::string_view name) {
  const size_t dot = name.rfind('.');
  return dot == std::string_view::npos || dot == 0 ? name : name.substr(0, dot);
}

}  // namespace

// Reads the playlist files of `folders` (the list's writer, change mutex
// held, before the views' lock is taken: the files are read without it).
std::vector<dmsViews::PlaylistRead> dmsViews::readPlaylists(const std::vector<uint32_t> &folders) const {
  std::vector<PlaylistRead> read;
  std::vector<std::string> paths;
  for (uint32_t folderId : folders) {
    const dmsContentEntry *folder = list_->entriesById.find(folderId);
    if (folder == nullptr || folder->container() == nullptr) continue;
    const std::string where = dmsClmEntryPath(folder);
    for (const std::string &name : folder->container()->playlists) {
      dmsPlaylistFormat format;
      const std::string path = where + (where.ends_with('/') ? "" : "/") + name;
      paths.clear();
      // A playlist linked in from outside the shares is not read.
      if (!dmsPlaylistFormatOf(name, format) || !dmsClmLinkStaysInside(list_, path) ||
          !dmsPlaylistReadFile(path, format, paths)) {
        continue;
      }
      PlaylistRead &playlist = read.emplace_back();
      playlist.folderId = folderId;
      playlist.name = name;
      for (const std::string &entry : paths) {
        const dmsContentEntry *item = dmsClmFindItemByPath(list_, entry);
        if (item != nullptr && playlist.files.size() < dmsViewIds::kMaxPlaylistEntries) playlist.files.push_back(item->id);
      }
    }
  }
  return read;
}

void dmsViews::forgetPlaylist(uint32_t serial) {
  auto found = playlists_.find(serial);
  if (found == playlists_.end()) return;
  playlistEntries_ -= found->second->files.size();
  playlists_.erase(found);
}

void dmsViews::dropPlaylists(uint32_t folderId) {
  auto found = folderPlaylists_.find(folderId);
  if (found == folderPlaylists_.end()) return;
  for (uint32_t serial : found->second) forgetPlaylist(serial);
  folderPlaylists_.erase(found);
  touch(dmsViewIds::kPlaylists);
}

// Takes the playlists read for `folders` in: those of the same name keep
// their numbers (so their ids), new ones are numbered, the rest go.
void dmsViews::takePlaylists(const std::vector<uint32_t> &folders, std::vector<PlaylistRead> &read) {
  for (uint32_t folderId : folders) {
    std::vector<uint32_t> kept;
    std::vector<uint32_t> old;
    if (auto found = folderPlaylists_.find(folderId); found != folderPlaylists_.end()) old = found->second;
    for (PlaylistRead &fresh : read) {
      if (fresh.folderId != folderId) continue;
      auto same = std::find_if(old.begin(), old.end(), [&](uint32_t serial) { return playlists_.at(serial)->name == fresh.name; });
      uint32_t serial = 0;
      if (same != old.end()) {
        serial = *same;
        old.erase(same);
      } else {
        for (size_t tries = 0; tries < dmsViewIds::kMaxPlaylists && playlists_.contains(nextPlaylist_); ++tries) {
          nextPlaylist_ = (nextPlaylist_ + 1) % dmsViewIds::kMaxPlaylists;
        }
        if (playlists_.contains(nextPlaylist_)) continue;  // every number in use
        serial = nextPlaylist_;
        nextPlaylist_ = (nextPlaylist_ + 1) % dmsViewIds::kMaxPlaylists;
        auto made = std::make_unique<Playlist>();
        made->folderId = folderId;
        made->name = fresh.name;
        made->titleTag = list_->tagPool.intern(withoutExtension(fresh.name));
        playlists_.emplace(serial, std::move(made));
        touch(dmsViewIds::kPlaylists);
      }
      // All playlists together keep at most kMaxEntriesHeld entries.
      std::vector<uint32_t> &files = playlists_.at(serial)->files;
      playlistEntries_ -= files.size();
      files = std::move(fresh.files);
      files.resize(std::min(files.size(), kMaxEntriesHeld - playlistEntries_));
      playlistEntries_ += files.size();
      touch(dmsViewIds::playlistId(serial, 0));
      touch(dmsViewIds::playlistId(serial, 1));
      kept.push_back(serial);
    }
    for (uint32_t serial : old) forgetPlaylist(serial);
    if (!old.empty()) touch(dmsViewIds::kPlaylists);
    if (kept.empty()) {
      folderPlaylists_.erase(folderId);
    } else {
      folderPlaylists_[folderId] = std::move(kept);  // read in the folder's name order
    }
  }
}

// Takes the files a change freed out of every playlist, so that a playlist
// lists and counts only entries that play.  O(e log f) for e entries held
// and f files freed, and only when both are there.
void dmsViews::prunePlaylists(const std::vector<uint32_t> &freed) {
  if (freed.empty() || playlists_.empty()) return;
  std::vector<uint32_t> gone(freed);
  std::sort(gone.begin(), gone.end());
  for (auto &[serial, playlist] : playlists_) {
    const size_t before = playlist->files.size();
    std::erase_if(playlist->files, [&gone](uint32_t file) { return std::binary_search(gone.begin(), gone.end(), file); });
    if (playlist->files.size() == before) continue;
    playlistEntries_ -= before - playlist->files.size();
    touch(dmsViewIds::playlistId(serial, 0));
    touch(dmsViewIds::playlistId(serial, 1));
  }
}

// Raises the update count of a playlist container; false when `id` is none.
bool dmsViews::bumpPlaylist(uint32_t id, std::vector<uint32_t> &pairs) {
  if (id < dmsViewIds::kPlaylistBase || id >= dmsViewIds::kPlaylistItemBase) return false;
  auto found = playlists_.find((id - dmsViewIds::kPlaylistBase) / 2);
  if (found == playlists_.end()) return true;
  pairs.push_back(id);
  pairs.push_back(++found->second->updateCount[id % 2]);
  return true;
}

bool dmsViews::findPlaylistObject(uint32_t id, dmsViewObject &out) const {
  using namespace dmsViewIds;
  const bool item = id >= kPlaylistItemBase;
  const uint32_t serial = item ? (id - kPlaylistItemBase) >> 15 : (id - kPlaylistBase) / 2;
  const uint32_t below = item ? (id >> 14) & 1 : id % 2;
  auto found = playlists_.find(serial);
  if (found == playlists_.end()) return false;
  const Playlist &playlist = *found->second;
  out = dmsViewObject{};
  out.id = id;
  if (item) {
    const uint32_t position = id & (kMaxPlaylistEntries - 1);
    if (position >= playlist.files.size()) return false;
    out.parentId = playlistId(serial, below);
    out.fileId = playlist.files[position];
    return true;
  }
  out.parentId = below != 0 ? kPlaylists : playlist.folderId;
  out.upnpClass = DMS_VIEW_PLAYLIST_CLASS;
  out.title = list_->tagPool.text(playlist.titleTag);
  if (out.title == nullptr) out.title = "";
  out.childCount = static_cast<uint32_t>(playlist.files.size());
  return true;
}

// The entries of a playlist in the file's order, or the playlists below
// Playlists by name.  Views' lock held (shared).
dmsViews::Order dmsViews::playlistChildren(uint32_t id) const {
  auto ids = std::make_shared<std::vector<uint32_t>>();
  if (id == dmsViewIds::kPlaylists) {
    std::vector<std::pair<std::string_view, uint32_t>> named;
    for (const auto &[serial, playlist] : playlists_) named.emplace_back(playlist->name, serial);
    std::sort(named.begin(), named.end());
    for (const auto &[name, serial] : named) ids->push_back(dmsViewIds::playlistId(serial, 1));
    return ids;
  }
  const uint32_t serial = (id - dmsViewIds::kPlaylistBase) / 2;
  auto found = playlists_.find(serial);
  if (found == playlists_.end()) return nullptr;
  for (uint32_t position = 0; position < found->second->files.size(); ++position) {
    ids->push_back(dmsViewIds::playlistItemId(serial, id % 2, position));
  }
  return ids;
}

dmsViews::Order dmsViews::playlistsIn(uint32_t folderId) const {
  std::shared_lock reading(mutex_);
  auto found = folderPlaylists_.find(folderId);
  if (found == folderPlaylists_.end()) return nullptr;
  auto ids = std::make_shared<std::vector<uint32_t>>();
  for (uint32_t serial : found->second) ids->push_back(dmsViewIds::playlistId(serial, 0));
  return ids;
}

// The views: the music, pictures and videos of the content list arranged as
// a TV's menus show them, beside the folder tree.
//
//   Music     All Tracks; Artists -> artist -> album -> tracks (tracks
//             without an album right below their artist; tracks without an
//             artist below "Unknown Artist"); Albums -> album -> tracks;
//             Genres -> genre -> tracks; Playlists -> playlist -> its
//             entries (each playlist also listed in its folder)
//   Pictures  All Pictures; By Date -> year -> month -> pictures (the date
//             taken from Exif, else the file's time)
//   Video     All Videos
//
// A listed file appears in each of its places as a virtual item with an id
// of its own (views/dmsViewIds.h) that names the file.  The views hold ids,
// never entry pointers: an object whose file has just gone is simply not
// found, so a reader never meets a freed entry.  Children are kept in no
// order; their default order (names for lists of containers, disc and track
// in albums, the date among pictures, titles elsewhere, all compared as
// people sort names) is worked out on the first read after a change and
// kept until the next.  A change costs O(log n) per file.
//
// A build without the views compiles dmsViewsAbsent.cpp instead: nothing
// is ever made there, and every reader finds nothing.
//
// Lock discipline: `mutex_` guards everything but the kept orders.  The
// list's writer (apply, rebuild: change mutex held) takes it exclusively;
// readers take it shared, inside the list's read lock (order: list lock,
// then views).  `orderMutex_` guards the kept orders, which readers store
// and the writer drops; it is held only to read or swap a pointer.  The
// entries the views read to place or order a file are read by the writer
// under the change mutex and by readers under the list's read lock.
#ifndef DMS_VIEWS_DMSVIEWS_H
#define DMS_VIEWS_DMSVIEWS_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <vector>

#include "content/dmsClmApi.h"
#include "views/dmsViewIds.h"

// The classes of the views' own containers (the fixed lists and the dates
// are storage folders, as the folders are).
inline constexpr char DMS_VIEW_ARTIST_CLASS[] = "object.container.person.musicArtist";
inline constexpr char DMS_VIEW_ALBUM_CLASS[] = "object.container.album.musicAlbum";
inline constexpr char DMS_VIEW_GENRE_CLASS[] = "object.container.genre.musicGenre";
inline constexpr char DMS_VIEW_PLAYLIST_CLASS[] = "object.container.playlistContainer";
inline constexpr const char *DMS_VIEW_CONTAINER_CLASSES[] = {DMS_VIEW_ARTIST_CLASS, DMS_VIEW_ALBUM_CLASS,
                                                             DMS_VIEW_GENRE_CLASS, DMS_VIEW_PLAYLIST_CLASS};

// One object of the views, as a reader sees it.
struct dmsViewObject {
  uint32_t id = 0;                  // 0: none
  uint32_t parentId = 0;
  uint32_t fileId = 0;              // a virtual item: the file it stands for; 0 for a container
  const char *upnpClass = nullptr;  // containers
  const char *title = nullptr;      // containers; NULL: `number` holds it
  uint32_t childCount = 0;          // containers
  char number[12] = {0};            // the title of a year or a month
  const char *titleText() const { return title != nullptr ? title : number; }
};

class dmsViews {
 public:
  using Order = std::shared_ptr<const std::vector<uint32_t>>;
  // The containers the root shows first, in order.
  static constexpr uint32_t kTop[] = {dmsViewIds::kMusic, dmsViewIds::kPictures, dmsViewIds::kVideo};

  // `list` outlives the views.
  explicit dmsViews(dmsContentListInfo *list);
  dmsViews(const dmsViews &) = delete;
  dmsViews &operator=(const dmsViews &) = delete;
  ~dmsViews();

  // Makes the views anew from every item of the list.  The caller holds the
  // list's change mutex.  May throw std::bad_alloc.
  void rebuild();
  // Follows one change of the list and appends the changed containers of
  // the views (id, update count, ...) to `pairs`.  Change mutex held.  May
  // throw std::bad_alloc (the views are then rebuilt by the next rebuild).
  void apply(const dmsClmChangeSet &change, std::vector<uint32_t> &pairs);

  // Readers, the list's read lock held.
  // The object `id` names; false when there is none.
  bool find(uint32_t id, dmsViewObject &out) const;
  // The ids of the children of container `id` in their default order; NULL
  // when `id` is no container of the views.  May throw std::bad_alloc.
  Order children(uint32_t id) const;
  // The playlists of folder `folderId` as its listing shows them (after its
  // files and folders), in name order; NULL when it has none.
  Order playlistsIn(uint32_t folderId) const;
  // Raised by every apply and rebuild.
  uint64_t generation() const { return generation_.load(std::memory_order_acquire); }

  struct Container;
  struct FileRow;
  struct Playlist;
  struct PlaylistRead;

 private:
  Container *container(uint32_t id);
  const Container *container(uint32_t id) const;
  Container &makeContainer(uint32_t id, uint32_t parentId, uint8_t kind, uint32_t titleTag);
  void dropIfEmpty(uint32_t id);
  void touch(uint32_t id);
  void addMember(uint32_t containerId, uint32_t fileId, uint8_t slot, FileRow &row);
  void removeMember(uint32_t containerId, uint32_t item);
  FileRow *row(uint32_t fileId);
  void addFile(uint32_t fileId);
  void removeFile(uint32_t fileId);
  void noteHole();
  void place(const dmsContentEntry &entry, FileRow &row);
  void unplace(FileRow &row);
  uint32_t artistAlbum(uint32_t artistTag, uint32_t albumTag);
  void fillObject(uint32_t id, const Container &container, dmsViewObject &out) const;
  bool findItem(uint32_t id, dmsViewObject &out) const;
  std::vector<uint32_t> defaultOrder(const Container &container) const;
  // Playlists (dmsViewsPlaylists.cpp).
  std::vector<PlaylistRead> readPlaylists(const std::vector<uint32_t> &folders) const;
  void takePlaylists(const std::vector<uint32_t> &folders, std::vector<PlaylistRead> &read);
  void dropPlaylists(uint32_t folderId);
  void forgetPlaylist(uint32_t serial);
  void prunePlaylists(const std::vector<uint32_t> &freed);
  bool bumpPlaylist(uint32_t id, std::vector<uint32_t> &pairs);
  bool findPlaylistObject(uint32_t id, dmsViewObject &out) const;
  Order playlistChildren(uint32_t id) const;

  dmsContentListInfo *list_;
  mutable std::shared_mutex mutex_;
  mutable std::mutex orderMutex_;
  std::unordered_map<uint32_t, std::unique_ptr<Container>> containers_;
  std::vector<FileRow> rows_;  // by file id; rows of files gone are holes
  size_t holes_ = 0;
  uint32_t kindCount_[4] = {0, 0, 0, 0};  // live rows of each kind
  std::unordered_map<uint64_t, uint32_t> artistAlbums_;  // (artist tag, album tag) -> container id
  uint32_t nextArtistAlbum_ = dmsViewIds::kArtistAlbumBase;
  std::unordered_map<uint32_t, std::unique_ptr<Playlist>> playlists_;  // by number
  std::unordered_map<uint32_t, std::vector<uint32_t>> folderPlaylists_;  // folder id -> numbers, by name
  uint32_t nextPlaylist_ = 0;
  size_t playlistEntries_ = 0;  // entries of all playlists together
  std::vector<uint32_t> touched_;  // containers changed by the apply in progress
  bool rebuilding_ = false;
  std::atomic<uint64_t> generation_{0};
};

#endif  // DMS_VIEWS_DMSVIEWS_H

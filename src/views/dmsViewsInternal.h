// What the two halves of the views share: the records of a container and
// of a listed file, the container kinds and the fixed containers, and what
// the views read of an entry.  Guarded as views/dmsViews.h says.
#ifndef DMS_VIEWS_DMSVIEWSINTERNAL_H
#define DMS_VIEWS_DMSVIEWSINTERNAL_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "content/dmsClmApi.h"
#include "views/dmsViews.h"

namespace dmsViewsDetail {

// What a file is to the views; kNone marks a row of a file gone.
enum class FileKind : uint8_t { kNone, kMusic, kPicture, kVideo };

// Per kind of file: the All list every such file is in (its members are
// the rows of that kind, not stored again), the slot of its item there, and
// the slot of its first place in the other lists.
struct FileKindRow {
  uint32_t allList;
  uint8_t allSlot;
  uint8_t firstPlace;
};
inline constexpr FileKindRow kFileKinds[] = {
    // All list                  its slot                        first other place
    {0,                          0,                              0},                           // kNone
    {dmsViewIds::kAllTracks,     dmsViewIds::kSlotAllTracks,     dmsViewIds::kSlotArtist},     // kMusic
    {dmsViewIds::kAllPictures,   dmsViewIds::kSlotAllPictures,   dmsViewIds::kSlotMonth},      // kPicture
    {dmsViewIds::kAllVideos,     dmsViewIds::kSlotAllVideos,     dmsViewIds::kSlotAllVideos},  // kVideo
};

// How a container's items go by default.
enum class ItemOrder : uint8_t { kByTitle, kByDiscTrack, kByDate };

// Container kinds: one row each in kKinds.
enum Kind : uint8_t { kFixed, kArtist, kArtistAlbum, kAlbum, kGenre, kYear, kMonth };

struct KindRow {
  const char *upnpClass;
  ItemOrder items;
};
inline constexpr KindRow kKinds[] = {
    // class                                    items
    {"object.container.storageFolder",          ItemOrder::kByTitle},      // kFixed (see kFixedRows)
    {DMS_VIEW_ARTIST_CLASS,                     ItemOrder::kByDiscTrack},  // kArtist
    {DMS_VIEW_ALBUM_CLASS,                      ItemOrder::kByDiscTrack},  // kArtistAlbum
    {DMS_VIEW_ALBUM_CLASS,                      ItemOrder::kByDiscTrack},  // kAlbum
    {DMS_VIEW_GENRE_CLASS,                      ItemOrder::kByTitle},      // kGenre
    {"object.container.storageFolder",          ItemOrder::kByDate},       // kYear
    {"object.container.storageFolder",          ItemOrder::kByDate},       // kMonth
};

// The fixed containers, in the order their parent lists them.
struct FixedRow {
  uint32_t id;
  uint32_t parentId;
  const char *title;
  ItemOrder items;
  FileKind allOf;  // an All list: every file of this kind
};
inline constexpr FixedRow kFixedRows[] = {
    // id                         parent                   title           items                 All list of
    {dmsViewIds::kMusic,          0,                       "Music",        ItemOrder::kByTitle,  FileKind::kNone},
    {dmsViewIds::kPictures,       0,                       "Pictures",     ItemOrder::kByTitle,  FileKind::kNone},
    {dmsViewIds::kVideo,          0,                       "Video",        ItemOrder::kByTitle,  FileKind::kNone},
    {dmsViewIds::kAllTracks,      dmsViewIds::kMusic,      "All Tracks",   ItemOrder::kByTitle,  FileKind::kMusic},
    {dmsViewIds::kArtists,        dmsViewIds::kMusic,      "Artists",      ItemOrder::kByTitle,  FileKind::kNone},
    {dmsViewIds::kAlbums,         dmsViewIds::kMusic,      "Albums",       ItemOrder::kByTitle,  FileKind::kNone},
    {dmsViewIds::kGenres,         dmsViewIds::kMusic,      "Genres",       ItemOrder::kByTitle,  FileKind::kNone},
    {dmsViewIds::kPlaylists,      dmsViewIds::kMusic,      "Playlists",    ItemOrder::kByTitle,  FileKind::kNone},
    {dmsViewIds::kAllPictures,    dmsViewIds::kPictures,   "All Pictures", ItemOrder::kByDate,   FileKind::kPicture},
    {dmsViewIds::kByDate,         dmsViewIds::kPictures,   "By Date",      ItemOrder::kByDate,   FileKind::kNone},
    {dmsViewIds::kAllVideos,      dmsViewIds::kVideo,      "All Videos",   ItemOrder::kByTitle,  FileKind::kVideo},
};

// The name of the artist container of tracks that name none.
inline constexpr char kUnknownArtist[] = "Unknown Artist";

// A date as the number YYYYMMDDhhmmss: the picture's date taken when its
// tags hold a whole one, else the file's time (local time).  0 when neither.
int64_t dateKey(const dmsContentEntry &entry, const dmsTagPool &pool);
// The title an item is listed by: its tags', else its file name without the
// extension.
std::string_view itemTitle(const dmsContentEntry &entry, const dmsTagPool &pool);

}  // namespace dmsViewsDetail

struct dmsViews::Container {
  uint32_t id = 0;
  uint32_t parentId = 0;
  uint8_t kind = dmsViewsDetail::kFixed;
  dmsViewsDetail::ItemOrder items = dmsViewsDetail::ItemOrder::kByTitle;
  const char *fixedTitle = nullptr;  // fixed containers
  dmsViewsDetail::FileKind allOf = dmsViewsDetail::FileKind::kNone;  // an All list
  uint32_t titleTag = 0;             // artists, albums and genres: the pooled name (0: unknown artist)
  uint32_t positionInParent = 0;     // index in the parent's `containers`
  uint32_t updateCount = 0;
  std::vector<uint32_t> containers;  // child containers, in no order
  // Virtual items in order of ids, but for those added out of order since
  // `unsorted` was set; an item taken out is left in its place marked with
  // kGone (`gone` counts them) until they are half the vector.
  static constexpr uint32_t kGone = 0x80000000;  // above every virtual item's id
  std::vector<uint32_t> members;
  uint32_t gone = 0;
  bool unsorted = false;
  uint32_t memberCount() const { return static_cast<uint32_t>(members.size()) - gone; }
  mutable Order ordered;             // the default order, once worked out (orderMutex_)
};

// Where one file is: its All list (by its kind), and its other places,
// slots `first` .. `first + count - 1`, each a container (0: not there, such
// as an album for a track without one).  20 bytes a file.
struct dmsViews::FileRow {
  uint32_t fileId = 0;
  dmsViewsDetail::FileKind kind = dmsViewsDetail::FileKind::kNone;  // kNone: a hole left by a file gone
  uint8_t first = 0;
  uint8_t count = 0;
  uint32_t container[3] = {0, 0, 0};
};

// One playlist file of a folder.
struct dmsViews::Playlist {
  uint32_t folderId = 0;
  std::string name;              // the file's name in its folder
  uint32_t titleTag = 0;         // its name without the extension, pooled (stable for readers)
  std::vector<uint32_t> files;   // the items its entries name, in the file's order
  uint32_t updateCount[2] = {0, 0};  // in its folder, below Playlists
};

// A playlist as read from its file, before it is taken in.
struct dmsViews::PlaylistRead {
  uint32_t folderId = 0;
  std::string name;
  std::vector<uint32_t> files;
};

#endif  // DMS_VIEWS_DMSVIEWSINTERNAL_H

// What the two halves of the views share: the records of a container and
// of a listed file, the container kinds and the fixed containers, and what
// the views read of an entry.  Guarded as views/dmsViews.h says.
#ifndef DMS_VIEWS_DMSVIEWSINTERNAL_H
#define DMS_VIEWS_DMSVIEWSINTERNAL_H

#include <cstdint>
#include <string_view>
#include <vector>

#include "content/dmsClmApi.h"
#include "views/dmsViews.h"

namespace dmsViewsDetail {

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
    {"object.container.person.musicArtist",     ItemOrder::kByDiscTrack},  // kArtist
    {"object.container.album.musicAlbum",       ItemOrder::kByDiscTrack},  // kArtistAlbum
    {"object.container.album.musicAlbum",       ItemOrder::kByDiscTrack},  // kAlbum
    {"object.container.genre.musicGenre",       ItemOrder::kByTitle},      // kGenre
    {"object.container.storageFolder",          ItemOrder::kByDate},       // kYear
    {"object.container.storageFolder",          ItemOrder::kByDate},       // kMonth
};

// The fixed containers, in the order their parent lists them.
struct FixedRow {
  uint32_t id;
  uint32_t parentId;
  const char *title;
  ItemOrder items;
};
inline constexpr FixedRow kFixedRows[] = {
    // id                         parent                   title           items
    {dmsViewIds::kMusic,          0,                       "Music",        ItemOrder::kByTitle},
    {dmsViewIds::kPictures,       0,                       "Pictures",     ItemOrder::kByTitle},
    {dmsViewIds::kVideo,          0,                       "Video",        ItemOrder::kByTitle},
    {dmsViewIds::kAllTracks,      dmsViewIds::kMusic,      "All Tracks",   ItemOrder::kByTitle},
    {dmsViewIds::kArtists,        dmsViewIds::kMusic,      "Artists",      ItemOrder::kByTitle},
    {dmsViewIds::kAlbums,         dmsViewIds::kMusic,      "Albums",       ItemOrder::kByTitle},
    {dmsViewIds::kGenres,         dmsViewIds::kMusic,      "Genres",       ItemOrder::kByTitle},
    {dmsViewIds::kPlaylists,      dmsViewIds::kMusic,      "Playlists",    ItemOrder::kByTitle},
    {dmsViewIds::kAllPictures,    dmsViewIds::kPictures,   "All Pictures", ItemOrder::kByDate},
    {dmsViewIds::kByDate,         dmsViewIds::kPictures,   "By Date",      ItemOrder::kByDate},
    {dmsViewIds::kAllVideos,      dmsViewIds::kVideo,      "All Videos",   ItemOrder::kByTitle},
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
  uint32_t titleTag = 0;             // artists, albums and genres: the pooled name (0: unknown artist)
  uint32_t positionInParent = 0;     // index in the parent's `containers`
  uint32_t updateCount = 0;
  std::vector<uint32_t> containers;  // child containers, in no order
  std::vector<uint32_t> members;     // virtual items, in no order
  mutable Order ordered;             // the default order, once worked out (orderMutex_)
};

// Where one file is: its places `first` .. `first + count - 1` (slots), each
// a container (0: not there, such as an album for a track without one) and
// the index of its virtual item in that container's members.
struct dmsViews::FileRow {
  uint32_t fileId = 0;
  bool live = false;  // false: a hole left by a file gone
  uint8_t first = 0;
  uint8_t count = 0;
  uint32_t container[4] = {0, 0, 0, 0};
  uint32_t position[4] = {0, 0, 0, 0};
};

#endif  // DMS_VIEWS_DMSVIEWSINTERNAL_H

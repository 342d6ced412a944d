// The object ids of the views, beside the content list's own.
//
// The content list hands out 0 (the root) and then 1001 upward.  The views
// take ranges the list does not reach:
//   1..11                  the fixed containers (Music, Pictures, Video and
//                          the lists below them), the same in every run;
//   0x10000000 + tag       an artist ("Unknown Artist": tag 0), by the tag
//                          pool's id of its name;
//   0x11000000 + tag       an album, 0x12000000 + tag a genre;
//   0x13000000 + date      a year (year * 100) or a month (year * 100 + month);
//   0x14000000 + n         an album of one artist, numbered as made;
//   0x20000000 + p * 2 + w a playlist, numbered as read (p), in its folder
//                          (w 0) or below Playlists (w 1);
//   0x24000000 + p << 15 + w << 14 + n
//                          the n-th entry of playlist p there;
//   0x40000000 + file * 8 + slot
//                          a virtual item: the file's entry id (from 1001)
//                          and which of its places in the views it is.
// So a virtual item's id names its file and place without any table, and
// the derived containers keep their ids as long as their names are pooled.
// A file whose id is past kMaxFileId is left out of the views.
#ifndef DMS_VIEWS_DMSVIEWIDS_H
#define DMS_VIEWS_DMSVIEWIDS_H

#include <cstdint>

namespace dmsViewIds {

inline constexpr uint32_t kMusic = 1;
inline constexpr uint32_t kPictures = 2;
inline constexpr uint32_t kVideo = 3;
inline constexpr uint32_t kAllTracks = 4;
inline constexpr uint32_t kArtists = 5;
inline constexpr uint32_t kAlbums = 6;
inline constexpr uint32_t kGenres = 7;
inline constexpr uint32_t kPlaylists = 8;
inline constexpr uint32_t kAllPictures = 9;
inline constexpr uint32_t kByDate = 10;
inline constexpr uint32_t kAllVideos = 11;
inline constexpr uint32_t kLastFixed = 11;

inline constexpr uint32_t kArtistBase = 0x10000000;
inline constexpr uint32_t kAlbumBase = 0x11000000;
inline constexpr uint32_t kGenreBase = 0x12000000;
inline constexpr uint32_t kDateBase = 0x13000000;
inline constexpr uint32_t kArtistAlbumBase = 0x14000000;
inline constexpr uint32_t kArtistAlbumEnd = 0x20000000;
inline constexpr uint32_t kPlaylistBase = 0x20000000;
inline constexpr uint32_t kPlaylistItemBase = 0x24000000;
inline constexpr uint32_t kMaxPlaylists = (0x40000000 - kPlaylistItemBase) >> 15;
inline constexpr uint32_t kMaxPlaylistEntries = 1u << 14;
inline constexpr uint32_t kVirtualBase = 0x40000000;

inline constexpr uint32_t kFirstFileId = 1001;
inline constexpr uint32_t kSlots = 8;
inline constexpr uint32_t kMaxFileId = kFirstFileId + (0x3FFFFFFFu / kSlots);

// A file's places in the views (the slot of its virtual items).
enum Slot : uint8_t {
  kSlotAllTracks = 0,
  kSlotArtist = 1,  // below its artist's album, or its artist when it has no album
  kSlotAlbum = 2,
  kSlotGenre = 3,
  kSlotAllPictures = 4,
  kSlotMonth = 5,
  kSlotAllVideos = 6,
};

// Whether `id` lies in a range of the views.
constexpr bool isViewId(uint32_t id) { return (id >= kMusic && id <= kLastFixed) || id >= kArtistBase; }

constexpr uint32_t playlistId(uint32_t serial, uint32_t belowPlaylists) {
  return kPlaylistBase + serial * 2 + belowPlaylists;
}
constexpr uint32_t playlistItemId(uint32_t serial, uint32_t belowPlaylists, uint32_t position) {
  return kPlaylistItemBase + (serial << 15) + (belowPlaylists << 14) + position;
}

constexpr uint32_t virtualId(uint32_t fileId, uint32_t slot) {
  return kVirtualBase + (fileId - kFirstFileId) * kSlots + slot;
}
constexpr uint32_t fileOf(uint32_t virtualItemId) { return kFirstFileId + (virtualItemId - kVirtualBase) / kSlots; }
constexpr uint32_t slotOf(uint32_t virtualItemId) { return (virtualItemId - kVirtualBase) % kSlots; }

// Whether a virtual item is its file's place in an "All ..." list: every
// file of the views has exactly one.
constexpr bool isAllListItem(uint32_t virtualItemId) {
  const uint32_t slot = slotOf(virtualItemId);
  return slot == kSlotAllTracks || slot == kSlotAllPictures || slot == kSlotAllVideos;
}

}  // namespace dmsViewIds

#endif  // DMS_VIEWS_DMSVIEWIDS_H

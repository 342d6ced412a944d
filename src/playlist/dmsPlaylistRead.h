// Playlist files found in a shared folder (.m3u, .m3u8, .pls) read into the
// list of local paths they name.  Pure text processing: nothing here looks
// at the content list or at the files named, only at the playlist's text.
//
// What an entry may be:
//  - an absolute path ("/music/a.mp3"), or a relative one ("a.mp3",
//    "../x.mp3") resolved against the playlist's own folder;
//  - a file URL ("file:///music/a%20b.mp3", "file://localhost/..."), its
//    percent-escapes decoded; one naming another host is skipped;
//  - a path written with backslashes, which become slashes; one with a
//    drive letter ("C:\...", "C:/...") or naming a network share ("\\host\...")
//    is skipped, as is any other URL ("http://...", "rtsp://...").
// Every path returned is absolute and lexically normalised: "." and empty
// components dropped, ".." removes the previous component and never climbs
// above "/".  An entry holding a NUL byte (also once decoded) or longer than
// DMS_PLAYLIST_MAX_PATH once resolved is skipped.
//
// Text: lines end with LF, CRLF or CR; a UTF-8 byte order mark at the start
// is skipped.  .m3u8 is UTF-8; .m3u and .pls are UTF-8 when the whole text
// is valid UTF-8, Latin-1 otherwise (converted to UTF-8).
//  - M3U: one entry a line, blanks around it trimmed; blank lines and lines
//    starting with '#' (#EXTM3U, #EXTINF, comments) skipped.
//  - PLS: "FileN=entry" lines (keys case-insensitive, N a positive decimal
//    number) of a [playlist] section, ordered by N (equal numbers in the
//    file's order); every other key and every line outside such a section
//    is ignored.
#ifndef DMS_PLAYLIST_DMS_PLAYLIST_READ_H
#define DMS_PLAYLIST_DMS_PLAYLIST_READ_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// Playlist formats a shared folder may hold.
enum class dmsPlaylistFormat { kM3u, kM3u8, kPls };

// Limits: the most bytes of a playlist file read, the most entries kept, the
// longest path kept.
inline constexpr size_t DMS_PLAYLIST_MAX_BYTES = 1 << 20;  // 1 MiB
inline constexpr size_t DMS_PLAYLIST_MAX_ENTRIES = 10000;
inline constexpr size_t DMS_PLAYLIST_MAX_PATH = 4096;

// The format of a file by its name's extension (case-insensitive: .m3u,
// .m3u8, .pls); false for any other name.
bool dmsPlaylistFormatOf(std::string_view fileName, dmsPlaylistFormat &format);

// The paths the playlist text names, in the file's order (for PLS, by N),
// at most DMS_PLAYLIST_MAX_ENTRIES of them; relative entries are resolved
// against `folder` (the playlist's own folder, an absolute path).  The cost
// is linear in the size of the text.  May throw std::bad_alloc.
std::vector<std::string> dmsPlaylistParse(std::string_view text, dmsPlaylistFormat format, std::string_view folder);

// Reads the regular file at `path` and parses it (relative entries against
// the file's folder) into `entries`.  At most DMS_PLAYLIST_MAX_BYTES are
// read: a longer file is cut at the last whole line within them.  Opened
// non-blocking and refused unless it is a regular file, so that a FIFO never
// blocks.  False, with `entries` untouched, when the file cannot be read.
// Never throws.
bool dmsPlaylistReadFile(const std::string &path, dmsPlaylistFormat format, std::vector<std::string> &entries);

#endif  // DMS_PLAYLIST_DMS_PLAYLIST_READ_H

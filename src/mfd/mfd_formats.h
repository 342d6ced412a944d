// The format table: one row per format id, holding everything the server
// knows about the format.  Adding a format means adding one row here and one
// detector file; the registry arrays, the server's registration order, the
// tag strings, the published strings and the URL extensions all follow from
// the rows (checked at compile time against the order the server has always
// used).
#ifndef DMS_MFD_MFD_FORMATS_H
#define DMS_MFD_MFD_FORMATS_H

#include <cstdint>
#include <string_view>

#include "mfd/mfd_api.h"
#include "mfd/mfd_protocol.h"

// Where a format keeps its tags, for the tag reader (TagLib's file types).
enum class mfdTagLayout : uint8_t {
  kNone,  // no tags the server reads
  kMpeg,  // ID3v2 (2.2, 2.3, 2.4), ID3v1 and APE around MPEG audio or ADTS
  kMp4,   // iTunes-style atoms
  kAsf,   // ASF attributes
  kWav,   // RIFF INFO list and "id3 " chunk
  kFlac,       // Vorbis comments (and ID3v2 in front)
  kOggVorbis,  // Vorbis comments
  kOggOpus,    // Vorbis comments
  kOggFlac,    // Vorbis comments
  kExif,       // a photo's date taken
};

struct mfdFormatRow {
  uint32_t formatId;
  // Tag string ("MP3"); a row that shares the tag of the row before it (JPEG
  // id 19) has none of its own in gp_a_ch_mfdMediaStringTags.
  const char *tag;
  bool sharesTag;
  // File-name extensions, space-separated, the usual one first.
  const char *extensions;
  // Detection: the detector and, for formats with a registry row, the
  // registry's extension, try priority (lower first) and reader window (32,
  // 128 or 256 bytes).  A row with a window of 0 has no registry row and no
  // detector.
  mfdDetectCallback detect;
  const char *registryExtension;
  int32_t priority;
  uint32_t window;
  // Position in the server's registration order; -1: not registered by it.
  int32_t serverOrder;
  // MIME type, DLNA profile and protocolInfo of a detected file.
  mfdProtocolMapping protocol;
  mfdTagLayout tags;
};

// The row of `formatId`, or NULL for ids without one (0, 16, 27 and above).
const mfdFormatRow *mfd_formatRow(uint32_t formatId);

#endif  // DMS_MFD_MFD_FORMATS_H

// ISO base media file pieces for the MP4 detector: box headers read through
// the reader, the walk of the top-level boxes and of the movie box, and the
// sample descriptions read from memory.
#ifndef DMS_MFD_MFD_MP4_BOX_H
#define DMS_MFD_MFD_MP4_BOX_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "mfd/mfd_video.h"

struct mfdMp4Box {
  uint32_t type = 0;
  int64_t start = 0;    // file offset of the size field
  int64_t payload = 0;  // first byte after the header (and the 64-bit size)
  int64_t end = 0;      // one past the last byte
  bool toEnd = false;   // size 0: the box runs to the end of its container
};

// Reads the header of the box at `position` inside a container ending at
// `limit`.  False when no valid header is there (fewer than 8 bytes left, a
// size below the header's own, a 64-bit size that overflows).  A box whose
// size reaches past `limit` is returned as it is: callers decide.
bool mfdMp4_readBox(int64_t position, int64_t limit, mfdMp4Box &box);

// What the top-level boxes say.
struct mfdMp4TopLevel {
  bool fileType = false;    // an ftyp box came before the movie box
  uint32_t majorBrand = 0;  // of that ftyp box; 0 without one
  bool moovFound = false;
  mfdMp4Box moov;
};

// Walks the top-level boxes (jumping over media data by its size) until the
// movie box.  False when the first box is not one an ISO file starts with,
// or no whole movie box is found.
bool mfdMp4_walkTopLevel(int64_t fileSize, mfdMp4TopLevel &top);

// One track's sample description.
struct mfdMp4Track {
  uint32_t handler = 0;      // 'vide', 'soun', ...
  uint32_t entryType = 0;    // first sample entry's type ('avc1', 'mp4a', ...)
  uint32_t codec = 0;        // codec id (format ids, MFD_CODEC_*); 0 unknown
  int32_t width = 0;         // video: from the sample entry, else the track header
  int32_t height = 0;
  bool avcKnown = false;     // H.264 configuration read
  mfdAvcInfo avc;
  uint32_t objectType = 0;   // MPEG-4 object type indication (esds)
  uint32_t audioObjectType = 0;  // AAC: from the decoder specific info; 0 unknown
  int32_t channels = 0;
  int32_t sampleRate = 0;
  uint32_t timescale = 0;    // media header
  uint64_t duration = 0;
};

struct mfdMp4Movie {
  uint32_t timescale = 0;  // movie header
  uint64_t duration = 0;
  std::vector<mfdMp4Track> tracks;
};

// Reads the movie box's headers and each track's first sample description;
// the walk is bounded by a count of boxes.
void mfdMp4_parseMovie(const mfdMp4Box &moov, mfdMp4Movie &movie);

// Fills `track` from a sample entry (bytes from after its 8-byte header, at
// most the entry's size) of a track with handler `track.handler`.
void mfdMp4_parseSampleEntry(uint32_t entryType, const uint8_t *bytes, size_t size,
                             mfdMp4Track &track);

#endif  // DMS_MFD_MFD_MP4_BOX_H

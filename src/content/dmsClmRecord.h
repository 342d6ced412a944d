// What a listed item keeps of its file: the fields of its detection that the
// ContentDirectory and the media servers read, and its tags as ids into the
// list's tag pool.  A 100,000-file library keeps 72 bytes per item here
// where the detector's full record and pooled text pointers took 168 plus
// two allocations.  Counts the detectors hand out wider than their field
// (channels past 255, a frame past 65535 pixels, which no real file has)
// are held at the field's end.
#ifndef DMS_CONTENT_DMSCLMRECORD_H
#define DMS_CONTENT_DMSCLMRECORD_H

#include <cstdint>

#include "mfd/mfd_api.h"
#include "mfd/mfd_protocol.h"

struct dmsMediaRecord {
  int64_t fileSize = 0;          // bytes to serve
  int64_t dataOffset = 0;        // first byte to serve
  int64_t modificationTime = 0;  // seconds since the epoch
  int32_t bitrate = 0;     // images: width
  int32_t sampleRate = 0;  // images: height
  uint32_t duration = 0;   // milliseconds
  uint16_t videoWidth = 0;
  uint16_t videoHeight = 0;
  uint16_t stringsNumber = 0;  // MIME type, profile, protocolInfo: see strings()
  uint8_t channels = 0;
  uint8_t profileCode = 0;
  uint8_t mediaClass = MFD_CLASS_NONE;
  uint8_t formatId = MFD_FORMAT_NONE;
  uint8_t audioCodec = 0;
  uint8_t videoCodec = 0;
  // The constant strings the file is published with; NULL when none.
  const mfdProtocolStrings *strings() const { return mfd_protocolStringsNumbered(stringsNumber); }
};

// The file carries a cover picture in its tags.
inline constexpr uint8_t DMS_TAGS_PICTURE = 1;

// Tags as ids of texts in the list's tag pool (0: absent).
struct dmsMediaTags {
  uint32_t title = 0;
  uint32_t artist = 0;
  uint32_t album = 0;
  uint32_t genre = 0;
  uint32_t date = 0;
  uint16_t track = 0;
  uint8_t disc = 0;   // disc number of a set, 1..255; 0 none
  uint8_t flags = 0;  // DMS_TAGS_*
  bool empty() const { return (title | artist | album | genre | date | track | disc | flags) == 0; }
};

// Keeps what readers use of a detected record.
dmsMediaRecord dmsClmKeepMedia(const mfdMediaInfo &info);
// The detected record again, as far as it was kept; the detector's private
// words (formatWord, formatWord2, bitsPerSample, sampleFormat) are 0.
mfdMediaInfo dmsClmExpandMedia(const dmsMediaRecord &record);

#endif  // DMS_CONTENT_DMSCLMRECORD_H

// JPEG detector.
//
// Mode 2 recognises the start-of-image marker.  Mode 3 walks the marker
// segments by their lengths (never into entropy-coded data) until it has the
// picture size: from the Exif pixel dimensions of an APP1 segment when they
// are both present (either byte order), otherwise from the frame header
// (any SOFn: baseline, extended, progressive, lossless, arithmetic).
#include <cstddef>
#include <cstdint>
#include <new>
#include <vector>

#include "mfd/mfd_api.h"
#include "mfd/mfd_exif.h"
#include "mfd/mfd_reader.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "mfd_jpeg.c";

namespace {

constexpr uint32_t kStartOfImage = 0xFFD8;
constexpr uint32_t kApp1 = 0xE1;
constexpr uint32_t kEndOfImage = 0xD9;
constexpr uint32_t kStartOfScan = 0xDA;
// A header has a few dozen segments at most; this bounds hostile files.
constexpr int kMaxSegments = 512;
// Bytes passed over in search of one marker.
constexpr int kMaxSkippedBytes = 4096;
// Skips longer than this jump instead of reading through the window.
constexpr uint32_t kJumpThreshold = 2048;

// Exif tags.
constexpr uint16_t kTagExifIfd = 0x8769;
constexpr uint16_t kTagPixelXDimension = 0xA002;
constexpr uint16_t kTagPixelYDimension = 0xA003;
constexpr uint16_t kTypeShort = 3;
constexpr uint16_t kTypeLong = 4;

// Walk state: the marker in hand and whether the size is complete.
struct JpegInfo {
  uint32_t currentMarker;
  bool done;
};

bool isFrameMarker(uint32_t code) {
  return code >= 0xC0 && code <= 0xCF && code != 0xC4 && code != 0xC8 && code != 0xCC;
}

// Markers without a length field: TEM, RST0-7, SOI.
bool isStandaloneMarker(uint32_t code) { return code == 0x01 || (code >= 0xD0 && code <= 0xD8); }

// Reads the next marker code.  As decoders do, bytes that are not a marker
// (extraneous bytes, fill bytes 0xFF, a stray 0xFF 0x00) are passed over, at
// most kMaxSkippedBytes of them; `isMarker` is false when none was found.
int32_t readMarker(uint32_t &code, bool &isMarker) {
  isMarker = false;
  bool afterFF = false;
  uint32_t byte = 0;
  for (int count = 0; count < kMaxSkippedBytes + 2; ++count) {
    const int32_t status = mfd_getDataBits(&byte, 8);
    if (status != 0) return status;
    if (byte == 0xFF) {
      afterFF = true;
    } else if (afterFF && byte != 0x00) {
      code = byte;
      isMarker = true;
      return 0;
    } else {
      afterFF = false;
    }
  }
  return 0;
}

int32_t skipBytes(uint32_t count) {
  if (count == 0) return 0;
  if (count > kJumpThreshold) return mfd_jmpToFilePosition(mfd_currentFilePosition() + count);
  return mfd_setOffset(count * 8);
}

// Value of a SHORT or LONG entry whose 12 bytes start at `entry`; 0 for any
// other type or when it does not fit a positive int32_t.
int32_t entryDimension(const ExifView &view, size_t entry) {
  uint32_t type = 0;
  uint32_t value = 0;
  if (!view.u16(entry + 2, type)) return 0;
  if (type == kTypeShort) {
    if (!view.u16(entry + 8, value)) return 0;
  } else if (type == kTypeLong) {
    if (!view.u32(entry + 8, value)) return 0;
  } else {
    return 0;
  }
  return value > INT32_MAX ? 0 : static_cast<int32_t>(value);
}

// Scans one IFD for the pixel dimensions (zero values are ignored) and the
// Exif sub-IFD pointer.  Stops at the IFD's entry count or the segment end.
void scanIfd(const ExifView &view, size_t ifdOffset, size_t segmentSize, mfdMediaInfo *info,
             uint32_t &exifIfd) {
  uint32_t entryCount = 0;
  if (!view.u16(ifdOffset, entryCount)) return;
  for (uint32_t index = 0; index < entryCount; ++index) {
    const size_t entry = ifdOffset + 2 + static_cast<size_t>(index) * 12;
    if (entry + 12 > segmentSize) return;
    uint32_t tag = 0;
    view.u16(entry, tag);
    if (tag == kTagExifIfd) {
      view.u32(entry + 8, exifIfd);
    } else if (tag == kTagPixelXDimension || tag == kTagPixelYDimension) {
      const int32_t dimension = entryDimension(view, entry);
      if (dimension == 0) continue;
      if (tag == kTagPixelXDimension) info->width = dimension;
      else info->height = dimension;
      DMS_TRACE(OSAL_TRACE_INFO, "Exif pixel dimension 0x%04X = %d\n", tag, dimension);
    }
  }
}

// Takes the pixel dimensions from an Exif APP1 payload ("Exif\0\0" and a
// TIFF structure in either byte order): IFD0, then the Exif sub-IFD.
void parseExif(const std::vector<uint8_t> &segment, mfdMediaInfo *info) {
  static constexpr uint8_t kExifId[] = {'E', 'x', 'i', 'f', 0, 0};
  constexpr size_t kTiffStart = sizeof(kExifId);
  if (segment.size() < kTiffStart + 8) return;
  for (size_t i = 0; i < kTiffStart; ++i) {
    if (segment[i] != kExifId[i]) return;
  }
  const uint8_t *tiff = segment.data() + kTiffStart;
  const size_t tiffSize = segment.size() - kTiffStart;
  bool littleEndian = false;
  if (tiff[0] == 'I' && tiff[1] == 'I') littleEndian = true;
  else if (tiff[0] != 'M' || tiff[1] != 'M') return;
  const ExifView view(tiff, tiffSize, littleEndian);
  uint32_t magic = 0;
  uint32_t ifd0 = 0;
  if (!view.u16(2, magic) || magic != 42 || !view.u32(4, ifd0)) return;
  uint32_t exifIfd = 0;
  scanIfd(view, ifd0, tiffSize, info, exifIfd);
  if (exifIfd != 0 && exifIfd != ifd0) {
    uint32_t nested = 0;  // a pointer inside the sub-IFD is not followed
    scanIfd(view, exifIfd, tiffSize, info, nested);
  }
}

// APP1 payload of `length` bytes: read it whole and look for Exif sizes.
int32_t readApp1(uint32_t length, mfdMediaInfo *info, JpegInfo &state) {
  std::vector<uint8_t> segment(length);
  for (auto &byte : segment) {
    uint32_t value = 0;
    const int32_t status = mfd_getDataBits(&value, 8);
    if (status != 0) return status;
    byte = static_cast<uint8_t>(value);
  }
  parseExif(segment, info);
  if (info->width != 0 && info->height != 0) {
    state.done = true;
  } else {
    info->width = 0;  // a single dimension is not kept: the frame header gives both
    info->height = 0;
  }
  return 0;
}

// Frame header payload: precision, number of lines, samples per line.
int32_t readFrameHeader(uint32_t length, mfdMediaInfo *info, JpegInfo &state) {
  if (length < 5) return 0;
  uint32_t precision = 0;
  uint32_t lines = 0;
  uint32_t samples = 0;
  int32_t status = mfd_getDataBits(&precision, 8);
  if (status == 0) status = mfd_getDataBits(&lines, 16);
  if (status == 0) status = mfd_getDataBits(&samples, 16);
  if (status != 0) return status;
  info->channels = static_cast<int32_t>(precision);
  info->height = static_cast<int32_t>(lines);
  info->width = static_cast<int32_t>(samples);
  state.done = true;
  DMS_TRACE(OSAL_TRACE_INFO, "JPEG frame %ux%u, precision %u\n", samples, lines, precision);
  return 0;
}

// Walks the segments after SOI until the size is known, the header ends, or
// a read fails (the failure is the result).  A header that ends without a
// size fails too: such a file is not a picture that can be offered.
int32_t getImageInfo(mfdMediaInfo *info) {
  JpegInfo s_jpegInfo{0, false};
  int32_t status = 0;
  for (int segment = 0; segment < kMaxSegments && !s_jpegInfo.done; ++segment) {
    uint32_t code = 0;
    bool isMarker = false;
    status = readMarker(code, isMarker);
    if (status != 0 || !isMarker) break;
    s_jpegInfo.currentMarker = 0xFF00 | code;
    if (isStandaloneMarker(code)) continue;
    if (code == kEndOfImage || code == kStartOfScan) break;
    uint32_t length = 0;
    status = mfd_getDataBits(&length, 16);
    if (status != 0 || length < 2) break;
    const uint32_t payload = length - 2;
    if (isFrameMarker(code)) {
      status = readFrameHeader(payload, info, s_jpegInfo);
      break;
    }
    if (code == kApp1) {
      status = readApp1(payload, info, s_jpegInfo);
    } else {
      status = skipBytes(payload);
    }
    if (status != 0) break;
  }
  if (status == 0 && !s_jpegInfo.done) {
    DMS_TRACE(OSAL_TRACE_INFO, "JPEG header ends at marker 0x%04X without picture size\n",
              s_jpegInfo.currentMarker);
    status = MFD_ERR_INVALID_PARAM;
  }
  return status;
}

int detect(mfdMediaInfo *info, int mode) {
  if (mode == MFD_MODE_DETECT) {
    uint32_t marker = 0;
    const int32_t status = mfd_getDataBits(&marker, 16);
    if (status != 0) return status;
    if (marker == kStartOfImage) {
      DMS_TRACE(OSAL_TRACE_INFO, "JPEG Format Detected\n");
      info->mediaClass = MFD_CLASS_IMAGE;
      info->formatId = MFD_FORMAT_JPEG;
      info->formatWord = MFD_FORMAT_JPEG;
    }
    return 0;
  }
  if (mode == MFD_MODE_PARSE) return getImageInfo(info);
  return 0;
}

}  // namespace

int mediaFormatJpegDetect(int /*fd*/, mfdMediaInfo *info, int mode, const char * /*path*/) {
  if (info == nullptr) return MFD_ERR_INVALID_PARAM;
  return dmsGuard("mediaFormatJpegDetect", MFD_ERR_INVALID_PARAM, [&] {
    return detect(info, mode);
  });
}

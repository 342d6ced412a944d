// TIFF detector: byte order mark and 42, then ImageWidth, ImageLength and
// BitsPerSample from the first IFD.  Values are read in the file's byte
// order and by their field type (a SHORT sits in the first half of its field).
#include <cstdint>

#include "mfd/mfd_api.h"
#include "mfd/mfd_reader.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "mfd_tiff.c";

namespace {

constexpr uint32_t kIntelOrder = 0x4949;     // "II": little-endian
constexpr uint32_t kMotorolaOrder = 0x4D4D;  // "MM": big-endian
constexpr uint32_t kTiffMagic = 42;
constexpr uint32_t kTagImageWidth = 256;
constexpr uint32_t kTagImageLength = 257;
constexpr uint32_t kTagBitsPerSample = 258;
constexpr uint32_t kTypeByte = 1;
constexpr uint32_t kTypeShort = 3;
constexpr uint32_t kTypeSignedByte = 6;
constexpr uint32_t kTypeUndefined = 7;
constexpr uint32_t kTypeSignedShort = 8;
constexpr int kWantedTags = 3;

// Byte order found by mode 2, for mode 3 on the same thread.
thread_local bool t_littleEndian MFD_FAST_TLS = false;

uint32_t swapBytes16(uint32_t value) { return ((value & 0xFF) << 8) | ((value >> 8) & 0xFF); }
uint32_t swapBytes32(uint32_t value) {
  return (value >> 24) | ((value >> 8) & 0xFF00) | ((value << 8) & 0xFF0000) | (value << 24);
}

int32_t readU16(uint32_t &value) {
  const int32_t status = mfd_getDataBits(&value, 16);
  if (status == 0 && t_littleEndian) value = swapBytes16(value);
  return status;
}

int32_t readU32(uint32_t &value) {
  const int32_t status = mfd_getDataBits(&value, 32);
  if (status == 0 && t_littleEndian) value = swapBytes32(value);
  return status;
}

struct IfdEntry {
  uint32_t tag;
  uint32_t type;
  uint32_t count;
  uint32_t value;  // the 4-byte value field as a number in the file's order
};

// First value held in the 4-byte value field, by the size of the field type:
// a BYTE or SHORT lies in the field's first bytes (the high end of the number
// for "MM", the low end for "II"); LONG and anything else use all four.
uint32_t inlineValue(const IfdEntry &entry) {
  switch (entry.type) {
    case kTypeByte:
    case kTypeSignedByte:
    case kTypeUndefined:
      return t_littleEndian ? entry.value & 0xFF : entry.value >> 24;
    case kTypeShort:
    case kTypeSignedShort:
      return t_littleEndian ? entry.value & 0xFFFF : entry.value >> 16;
    default:
      return entry.value;
  }
}

int32_t readEntry(IfdEntry &entry) {
  int32_t status = readU16(entry.tag);
  if (status == 0) status = readU16(entry.type);
  if (status == 0) status = readU32(entry.count);
  if (status == 0) status = readU32(entry.value);
  return status;
}

// BitsPerSample with more than two samples is an offset to SHORTs: the first
// one is taken.
int32_t readBitsPerSampleArray(uint32_t offset, mfdMediaInfo *info) {
  if (mfd_jmpToFilePosition(offset) != 0) return MFD_ERR_INVALID_PARAM;
  uint32_t bits = 0;
  const int32_t status = readU16(bits);
  if (status == 0) info->channels = static_cast<int32_t>(bits);
  return status;
}

// Walks the first IFD: at most its entry count, ending early once the three
// tags have been taken.  The result is the status of the last read.
int32_t getTiffInfo(uint32_t ifdOffset, mfdMediaInfo *info) {
  if (mfd_jmpToFilePosition(ifdOffset) != 0) return MFD_ERR_INVALID_PARAM;
  uint32_t entryCount = 0;
  int32_t status = readU16(entryCount);
  if (status != 0) return status;
  uint32_t bitsOffset = 0;
  int taken = 0;
  for (uint32_t index = 0; index < entryCount && taken < kWantedTags; ++index) {
    IfdEntry entry{};
    status = readEntry(entry);
    if (status != 0) return status;
    if (entry.tag < kTagImageWidth || entry.tag > kTagBitsPerSample) continue;
    ++taken;
    if (entry.tag == kTagBitsPerSample && entry.type == kTypeShort && entry.count > 2) {
      bitsOffset = entry.value;
      continue;
    }
    const auto value = static_cast<int32_t>(inlineValue(entry));
    if (entry.tag == kTagImageWidth) info->width = value;
    else if (entry.tag == kTagImageLength) info->height = value;
    else info->channels = value;
  }
  DMS_TRACE(OSAL_TRACE_INFO, "TIFF %dx%d\n", info->width, info->height);
  return bitsOffset != 0 ? readBitsPerSampleArray(bitsOffset, info) : 0;
}

int32_t recognise(mfdMediaInfo *info) {
  uint32_t order = 0;
  int32_t status = mfd_getDataBits(&order, 16);
  if (status != 0 || (order != kIntelOrder && order != kMotorolaOrder)) return status;
  t_littleEndian = order == kIntelOrder;
  uint32_t magic = 0;
  status = readU16(magic);
  if (status != 0 || magic != kTiffMagic) return status;
  DMS_TRACE(OSAL_TRACE_INFO, "TIFF Image Format detected\n");
  info->mediaClass = MFD_CLASS_IMAGE;
  info->formatId = MFD_FORMAT_TIFF;
  info->formatWord = MFD_FORMAT_TIFF;
  return 0;
}

int32_t parse(mfdMediaInfo *info) {
  uint32_t ifdOffset = 0;
  const int32_t status = readU32(ifdOffset);
  if (status != 0) return status;
  return getTiffInfo(ifdOffset, info);
}

}  // namespace

int mediaFormatTiffDetect(int /*fd*/, mfdMediaInfo *info, int mode, const char * /*path*/) {
  if (info == nullptr) return MFD_ERR_INVALID_PARAM;
  if (mode == MFD_MODE_DETECT) return recognise(info);
  if (mode == MFD_MODE_PARSE) return parse(info);
  return 0;
}

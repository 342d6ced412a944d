// Elementary stream headers that several containers carry: the MPEG-1/2
// video sequence header with its extensions, the H.264 and HEVC sequence
// parameter sets, and the MPEG-4 part 2 video object layer.  All of them
// are parsed from bytes in memory.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "mfd/mfd_api.h"
#include "mfd/mfd_video.h"
#include "util/osal_trace.h"

[[maybe_unused]] static constexpr char kTraceFile[] = "mfd_video_es.c";

namespace {

// ------------------------------------------------------------ MPEG-1/2 video

constexpr uint32_t kSequenceHeaderCode = 0xB3;
constexpr uint32_t kExtensionCode = 0xB5;
constexpr uint32_t kUserDataCode = 0xB2;
constexpr uint32_t kGroupCode = 0xB8;
constexpr uint32_t kPictureCode = 0x00;
constexpr uint32_t kSequenceExtensionId = 1;
constexpr uint32_t kDisplayExtensionId = 2;
constexpr uint32_t kVariableBitRate = 0x3FFFF;
constexpr int kMaxHeaderStartCodes = 16;  // extensions and user data after the header

// Start code that follows the header's last byte (zero stuffing allowed), or
// -1 when the next bytes are not a start code.
int32_t nextStartCodeAt(const uint8_t *bytes, size_t size, size_t index, size_t &found) {
  while (index + 3 < size && bytes[index] == 0 && bytes[index + 1] == 0 && bytes[index + 2] == 0) {
    ++index;
  }
  if (index + 3 >= size || bytes[index] != 0 || bytes[index + 1] != 0 || bytes[index + 2] != 1) {
    return -1;
  }
  found = index;
  return bytes[index + 3];
}

// Reads the sequence and sequence display extensions among the extension and
// user data start codes that follow the header (from `index` on).
void readSequenceExtensions(const uint8_t *bytes, size_t size, size_t index,
                            uint64_t &bitRateValue, mfdMpegVideoInfo &info) {
  for (int count = 0; count < kMaxHeaderStartCodes && index + 4 < size; ++count) {
    const uint32_t code = bytes[index + 3];
    if (code != kExtensionCode && code != kUserDataCode) return;
    if (code == kExtensionCode) {
      mfdBitCursor cursor(bytes + index + 4, size - index - 4);
      const uint32_t extensionId = cursor.bits(4);
      if (extensionId == kSequenceExtensionId) {
        cursor.skip(8 + 1 + 2);  // profile and level, progressive, chroma format
        const uint32_t widthExtension = cursor.bits(2);
        const uint32_t heightExtension = cursor.bits(2);
        const uint32_t bitRateExtension = cursor.bits(12);
        if (cursor.ok()) {
          info.mpeg2 = true;
          info.width |= static_cast<int32_t>(widthExtension << 12);
          info.height |= static_cast<int32_t>(heightExtension << 12);
          bitRateValue |= uint64_t{bitRateExtension} << 18;
        }
      } else if (extensionId == kDisplayExtensionId) {
        const uint32_t videoFormat = cursor.bits(3);
        if (cursor.ok()) info.videoFormat = static_cast<int32_t>(videoFormat);
      }
    }
    index = mfdVideo_findStartCode(bytes, size, index + 4);
  }
}

// ------------------------------------------------------------ H.264

constexpr uint32_t kSpsNalType = 7;
constexpr size_t kMaxSpsBytes = 512;
constexpr int32_t kMaxPictureSide = 16384;

// The NAL unit with emulation prevention bytes (00 00 03) taken out.
std::vector<uint8_t> unescapeNal(const uint8_t *nal, size_t size) {
  std::vector<uint8_t> raw;
  raw.reserve(std::min(size, kMaxSpsBytes));
  int zeros = 0;
  for (size_t index = 0; index < size && raw.size() < kMaxSpsBytes; ++index) {
    if (zeros >= 2 && nal[index] == 3) {
      zeros = 0;
      continue;
    }
    zeros = nal[index] == 0 ? zeros + 1 : 0;
    raw.push_back(nal[index]);
  }
  return raw;
}

bool hasChromaFormat(uint32_t profileIdc) {
  switch (profileIdc) {
    case 100: case 110: case 122: case 244: case 44: case 83:
    case 86: case 118: case 128: case 138: case 139: case 134: case 135:
      return true;
    default:
      return false;
  }
}

void skipScalingList(mfdBitCursor &cursor, int count) {
  int32_t last = 8;
  int32_t next = 8;
  for (int index = 0; index < count && cursor.ok(); ++index) {
    if (next != 0) next = (last + cursor.se() + 256) % 256;
    last = next == 0 ? last : next;
  }
}

// Fields from chroma_format_idc to the scaling matrices; the chroma format
// (0 monochrome to 3) comes back, with separate colour planes counted as 0.
uint32_t readHighProfileFields(mfdBitCursor &cursor) {
  uint32_t chromaFormat = cursor.ue();
  if (chromaFormat > 3) cursor.overrun = true;
  uint32_t arrayType = chromaFormat;
  if (chromaFormat == 3 && cursor.bits(1) != 0) arrayType = 0;  // separate colour planes
  cursor.ue();     // luma bit depth
  cursor.ue();     // chroma bit depth
  cursor.bits(1);  // transform bypass
  if (cursor.bits(1) != 0) {
    const int lists = chromaFormat != 3 ? 8 : 12;
    for (int list = 0; list < lists && cursor.ok(); ++list) {
      if (cursor.bits(1) != 0) skipScalingList(cursor, list < 6 ? 16 : 64);
    }
  }
  return arrayType;
}

void skipPictureOrderFields(mfdBitCursor &cursor) {
  const uint32_t orderType = cursor.ue();
  if (orderType == 0) {
    cursor.ue();
  } else if (orderType == 1) {
    cursor.bits(1);
    cursor.se();
    cursor.se();
    const uint32_t cycle = cursor.ue();
    if (cycle > 255) cursor.overrun = true;
    for (uint32_t index = 0; index < cycle && cursor.ok(); ++index) cursor.se();
  } else if (orderType > 2) {
    cursor.overrun = true;
  }
}

// ------------------------------------------------------------ HEVC

constexpr uint32_t kHevcSpsNalType = 33;
constexpr uint32_t kMaxHevcSubLayersMinus1 = 6;
constexpr size_t kSubLayerProfileBits = 88;  // profile space to the last flag, no level

// profile_tier_level with its general profile: the general profile and
// level come back; the sub-layers' fields are skipped.
void readProfileTierLevel(mfdBitCursor &cursor, uint32_t maxSubLayersMinus1, mfdHevcInfo &info) {
  cursor.skip(2 + 1);  // profile space, tier
  info.profileIdc = cursor.bits(5);
  cursor.skip(32 + 4 + 43 + 1);  // compatibility flags, source flags, constraint flags
  info.levelIdc = cursor.bits(8);
  bool profilePresent[kMaxHevcSubLayersMinus1] = {};
  bool levelPresent[kMaxHevcSubLayersMinus1] = {};
  for (uint32_t layer = 0; layer < maxSubLayersMinus1; ++layer) {
    profilePresent[layer] = cursor.bits(1) != 0;
    levelPresent[layer] = cursor.bits(1) != 0;
  }
  if (maxSubLayersMinus1 > 0) cursor.skip(2 * (8 - maxSubLayersMinus1));  // reserved
  for (uint32_t layer = 0; layer < maxSubLayersMinus1; ++layer) {
    if (profilePresent[layer]) cursor.skip(kSubLayerProfileBits);
    if (levelPresent[layer]) cursor.skip(8);
  }
}

// Horizontal and vertical chroma subsampling factors by chroma_format_idc
// (separate colour planes count as 4:0:0: no subsampling).
struct ChromaScale {
  int64_t x, y;
};
constexpr ChromaScale kChromaScales[4] = {{1, 1}, {2, 2}, {2, 1}, {1, 1}};

// ------------------------------------------------------------ MPEG-4 part 2

constexpr uint32_t kRectangularShape = 0;
constexpr uint32_t kGrayscaleShape = 3;
constexpr uint32_t kExtendedPar = 15;

bool marker(mfdBitCursor &cursor) { return cursor.bits(1) == 1; }

// Fields before the shape: identifier, aspect ratio and control parameters.
// False when a marker bit between the buffer fields is wrong; `versionId`
// is the object layer's version (1 when the layer gives none).
bool readVolPreamble(mfdBitCursor &cursor, uint32_t &versionId) {
  cursor.skip(1 + 8);  // random accessible, object type
  versionId = 1;
  if (cursor.bits(1) != 0) {
    versionId = cursor.bits(4);
    cursor.skip(3);
  }
  if (cursor.bits(4) == kExtendedPar) cursor.skip(16);
  if (cursor.bits(1) != 0) {  // control parameters
    cursor.skip(2 + 1);       // chroma format, low delay
    if (cursor.bits(1) != 0) {
      // Bit rate, buffer size and occupancy, in halves between marker bits.
      const int fields[] = {15, 15, 15, 3 + 11, 15};
      for (int width : fields) {
        cursor.skip(static_cast<size_t>(width));
        if (!marker(cursor)) return false;
      }
    }
  }
  return true;
}

}  // namespace

bool mfdVideo_parseMpegSequence(const uint8_t *bytes, size_t size, mfdMpegVideoInfo &info) {
  info = mfdMpegVideoInfo{};
  mfdBitCursor cursor(bytes, size);
  const uint32_t width = cursor.bits(12);
  const uint32_t height = cursor.bits(12);
  const uint32_t aspect = cursor.bits(4);
  const uint32_t frameRate = cursor.bits(4);
  const uint32_t bitRate = cursor.bits(18);
  const bool markerSet = cursor.bits(1) == 1;
  cursor.skip(10 + 1);  // buffer size, constrained parameters
  if (cursor.bits(1) != 0) cursor.skip(64 * 8);  // intra quantiser matrix
  if (cursor.bits(1) != 0) cursor.skip(64 * 8);  // non-intra quantiser matrix
  if (!cursor.ok() || width == 0 || height == 0 || aspect == 0 || aspect == 15 ||
      frameRate == 0 || frameRate > 13 || !markerSet) {
    return false;
  }
  // The header must end where a start code of what may follow it begins.
  size_t next = 0;
  const int32_t code = nextStartCodeAt(bytes, size, (cursor.bitPos + 7) / 8, next);
  if (code != static_cast<int32_t>(kExtensionCode) && code != static_cast<int32_t>(kUserDataCode) &&
      code != static_cast<int32_t>(kGroupCode) && code != static_cast<int32_t>(kPictureCode)) {
    return false;
  }
  info.width = static_cast<int32_t>(width);
  info.height = static_cast<int32_t>(height);
  info.frameRateCode = frameRate;
  uint64_t bitRateValue = bitRate;
  readSequenceExtensions(bytes, size, next, bitRateValue, info);
  if (bitRate != kVariableBitRate) {
    info.bitRate = static_cast<uint32_t>(std::min<uint64_t>(bitRateValue * 400, UINT32_MAX));
  }
  return true;
}

bool mfdVideo_findMpegSequence(const uint8_t *bytes, size_t size, mfdMpegVideoInfo &info) {
  for (size_t index = mfdVideo_findStartCode(bytes, size, 0); index + 4 <= size;
       index = mfdVideo_findStartCode(bytes, size, index + 3)) {
    if (bytes[index + 3] == kSequenceHeaderCode &&
        mfdVideo_parseMpegSequence(bytes + index + 4, size - index - 4, info)) {
      return true;
    }
  }
  return false;
}

bool mfdVideo_parseAvcSps(const uint8_t *nal, size_t size, mfdAvcInfo &info) {
  info = mfdAvcInfo{};
  const std::vector<uint8_t> raw = unescapeNal(nal, size);
  mfdBitCursor cursor(raw.data(), raw.size());
  if (cursor.bits(1) != 0) return false;  // forbidden zero bit
  cursor.skip(2);
  if (cursor.bits(5) != kSpsNalType) return false;
  info.profileIdc = cursor.bits(8);
  info.constraintFlags = cursor.bits(8);
  info.levelIdc = cursor.bits(8);
  if (cursor.ue() > 31) return false;  // parameter set id
  const uint32_t chromaType = hasChromaFormat(info.profileIdc) ? readHighProfileFields(cursor) : 1;
  if (cursor.ue() > 12) return false;  // log2 of the largest frame number, minus 4
  skipPictureOrderFields(cursor);
  cursor.ue();     // reference frames
  cursor.bits(1);  // gaps allowed
  const int64_t widthMbs = int64_t{cursor.ue()} + 1;
  const int64_t heightUnits = int64_t{cursor.ue()} + 1;
  const uint32_t framesOnly = cursor.bits(1);
  if (framesOnly == 0) cursor.bits(1);  // adaptive frame/field
  cursor.bits(1);                       // direct 8x8 inference
  int64_t crop[4] = {0, 0, 0, 0};       // left, right, top, bottom
  if (cursor.bits(1) != 0) {
    for (int64_t &side : crop) side = cursor.ue();
  }
  if (!cursor.ok()) return false;
  const int64_t cropX = chromaType == 1 || chromaType == 2 ? 2 : 1;
  const int64_t cropY = (chromaType == 1 ? 2 : 1) * (2 - int64_t{framesOnly});
  const int64_t width = widthMbs * 16 - cropX * (crop[0] + crop[1]);
  const int64_t height = heightUnits * 16 * (2 - int64_t{framesOnly}) - cropY * (crop[2] + crop[3]);
  if (width <= 0 || height <= 0 || width > kMaxPictureSide || height > kMaxPictureSide) return false;
  info.width = static_cast<int32_t>(width);
  info.height = static_cast<int32_t>(height);
  return true;
}

namespace {

// The first NAL unit of `bytes` whose header (`headerBytes` long) `isSps`
// accepts and `parse` reads.
template <typename IsSps, typename Parse>
bool findSps(const uint8_t *bytes, size_t size, size_t headerBytes, IsSps isSps, Parse parse) {
  for (size_t index = mfdVideo_findStartCode(bytes, size, 0); index + 3 + headerBytes <= size;
       index = mfdVideo_findStartCode(bytes, size, index + 3)) {
    if (!isSps(bytes[index + 3])) continue;
    const size_t end = mfdVideo_findStartCode(bytes, size, index + 3);
    if (parse(bytes + index + 3, end - index - 3)) return true;
  }
  return false;
}

}  // namespace

bool mfdVideo_findAvcSps(const uint8_t *bytes, size_t size, mfdAvcInfo &info) {
  return findSps(
      bytes, size, 1, [](uint8_t header) { return (header & 0x1Fu) == kSpsNalType; },
      [&info](const uint8_t *nal, size_t length) { return mfdVideo_parseAvcSps(nal, length, info); });
}

bool mfdVideo_parseHevcSps(const uint8_t *nal, size_t size, mfdHevcInfo &info) {
  info = mfdHevcInfo{};
  const std::vector<uint8_t> raw = unescapeNal(nal, size);
  mfdBitCursor cursor(raw.data(), raw.size());
  if (cursor.bits(1) != 0) return false;  // forbidden zero bit
  if (cursor.bits(6) != kHevcSpsNalType || cursor.bits(6) != 0) return false;  // type, base layer
  cursor.skip(3);  // temporal id
  cursor.skip(4);  // video parameter set id
  const uint32_t maxSubLayersMinus1 = cursor.bits(3);
  if (maxSubLayersMinus1 > kMaxHevcSubLayersMinus1) return false;
  cursor.skip(1);  // temporal id nesting
  readProfileTierLevel(cursor, maxSubLayersMinus1, info);
  if (cursor.ue() > 15) return false;  // parameter set id
  const uint32_t chromaFormat = cursor.ue();
  if (chromaFormat > 3) return false;
  const bool separatePlanes = chromaFormat == 3 && cursor.bits(1) != 0;
  const ChromaScale scale = kChromaScales[separatePlanes ? 0 : chromaFormat];
  const int64_t lumaWidth = cursor.ue();
  const int64_t lumaHeight = cursor.ue();
  int64_t window[4] = {0, 0, 0, 0};  // left, right, top, bottom, in chroma units
  if (cursor.bits(1) != 0) {
    for (int64_t &side : window) side = cursor.ue();
  }
  if (!cursor.ok()) return false;
  const int64_t width = lumaWidth - scale.x * (window[0] + window[1]);
  const int64_t height = lumaHeight - scale.y * (window[2] + window[3]);
  if (width <= 0 || height <= 0 || width > kMaxPictureSide || height > kMaxPictureSide) return false;
  info.width = static_cast<int32_t>(width);
  info.height = static_cast<int32_t>(height);
  return true;
}

bool mfdVideo_findHevcSps(const uint8_t *bytes, size_t size, mfdHevcInfo &info) {
  return findSps(
      bytes, size, 2, [](uint8_t header) { return (header >> 1 & 0x3Fu) == kHevcSpsNalType; },
      [&info](const uint8_t *nal, size_t length) { return mfdVideo_parseHevcSps(nal, length, info); });
}

bool mfdVideo_isAvcBaseline(const mfdAvcInfo &info) {
  constexpr uint32_t kBaselineProfile = 66;
  constexpr uint32_t kConstraintSet0 = 0x80;  // the stream keeps the Baseline constraints
  return info.profileIdc == kBaselineProfile || (info.constraintFlags & kConstraintSet0) != 0;
}

bool mfdVideo_parseMpeg4Vol(const uint8_t *bytes, size_t size, mfdMpeg4VolInfo &info) {
  info = mfdMpeg4VolInfo{};
  mfdBitCursor cursor(bytes, size);
  uint32_t versionId = 1;
  if (!readVolPreamble(cursor, versionId)) return false;
  const uint32_t shape = cursor.bits(2);
  if (shape == kGrayscaleShape && versionId != 1) cursor.skip(4);
  if (!marker(cursor)) return false;
  const uint32_t resolution = cursor.bits(16);
  if (resolution == 0 || !marker(cursor)) return false;
  if (cursor.bits(1) != 0) {  // fixed rate: the increment takes as many bits as the resolution needs
    int incrementBits = 1;
    while (incrementBits < 16 && (1u << incrementBits) < resolution) ++incrementBits;
    cursor.skip(static_cast<size_t>(incrementBits));
  }
  if (shape == kRectangularShape) {
    if (!marker(cursor)) return false;
    const uint32_t width = cursor.bits(13);
    if (!marker(cursor)) return false;
    const uint32_t height = cursor.bits(13);
    if (!marker(cursor) || width == 0 || height == 0) return false;
    info.rectangular = true;
    info.width = static_cast<int32_t>(width);
    info.height = static_cast<int32_t>(height);
  }
  return cursor.ok();
}

bool mfdVideo_findMpeg4Vol(const uint8_t *bytes, size_t size, mfdMpeg4VolInfo &info) {
  for (size_t index = mfdVideo_findStartCode(bytes, size, 0); index + 4 <= size;
       index = mfdVideo_findStartCode(bytes, size, index + 3)) {
    if ((bytes[index + 3] & 0xF0u) == 0x20 &&
        mfdVideo_parseMpeg4Vol(bytes + index + 4, size - index - 4, info)) {
      return true;
    }
  }
  return false;
}

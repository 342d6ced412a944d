// ASF stream properties, codec ids and the WMA/WMV profile choice.
//
// A WMA stream's level follows from its codec, sample rate, channels and bit
// rate; a WMV file's profile from the picture size, the video bit rate and
// the level of its audio, taking the first row of the profile table whose
// limits the file keeps.
#include <cctype>
#include <cstdint>

#include "mfd/mfd_api.h"
#include "mfd/mfd_asf.h"
#include "mfd/mfd_video.h"
#include "util/osal_trace.h"

[[maybe_unused]] static constexpr char kTraceFile[] = "mfd_asf_profile.c";

namespace {

// Audio format tags.
constexpr uint32_t kWmaVersion1 = 0x0160;
constexpr uint32_t kWmaStandard = 0x0161;
constexpr uint32_t kWmaPro = 0x0162;

struct AudioTagRow {
  uint32_t formatTag;
  uint32_t codec;
};

// clang-format off
constexpr AudioTagRow kAudioTags[] = {
    {kWmaVersion1, MFD_FORMAT_WMA},
    {kWmaStandard, MFD_FORMAT_WMA},
    {kWmaPro,      MFD_FORMAT_WMA},
    {0x0163,       MFD_FORMAT_WMA},   // lossless
    {0x000A,       MFD_FORMAT_WMA},   // voice
    {0x0055,       MFD_FORMAT_MP3},
    {0x0050,       MFD_FORMAT_MP2},   // MPEG layer 1 or 2
    {0x2000,       MFD_FORMAT_AC3},
    {0x0001,       MFD_FORMAT_LPCM},
    {0x00FF,       MFD_FORMAT_AAC},
    {0x1610,       MFD_FORMAT_AAC},
};

struct VideoTagRow {
  uint32_t fourCc;
  uint32_t codec;
};

constexpr VideoTagRow kVideoTags[] = {
    {mfdVideo_fourCc("WMV1"), MFD_FORMAT_WMV},
    {mfdVideo_fourCc("WMV2"), MFD_FORMAT_WMV},
    {mfdVideo_fourCc("WMV3"), MFD_FORMAT_WMV},
    {mfdVideo_fourCc("WMVA"), MFD_FORMAT_WMV},
    {mfdVideo_fourCc("WVC1"), MFD_FORMAT_WMV},
    {mfdVideo_fourCc("MP4S"), MFD_FORMAT_MPEG4_PART2},
    {mfdVideo_fourCc("M4S2"), MFD_FORMAT_MPEG4_PART2},
    {mfdVideo_fourCc("XVID"), MFD_FORMAT_MPEG4_PART2},
    {mfdVideo_fourCc("DIVX"), MFD_FORMAT_MPEG4_PART2},
    {mfdVideo_fourCc("DX50"), MFD_FORMAT_MPEG4_PART2},
    {mfdVideo_fourCc("FMP4"), MFD_FORMAT_MPEG4_PART2},
    {mfdVideo_fourCc("H264"), MFD_CODEC_AVC},
    {mfdVideo_fourCc("AVC1"), MFD_CODEC_AVC},
};

// WMA levels, in rising order: a stream of one level meets every higher one.
enum WmaLevel : int { kNoLevel = 0, kBase = 1, kFull = 2, kPro = 3 };

// Limits of the audio levels.
struct WmaLevelRow {
  WmaLevel level;
  bool pro;  // WMA Professional codec (tag 0x0162) rather than the standard one
  int32_t maxSampleRate;
  int32_t maxChannels;
  int32_t maxKbit;
};

constexpr WmaLevelRow kWmaLevels[] = {
    // level  pro    rate    channels kbit/s
    {kBase,   false, 48000,  2,       192},
    {kFull,   false, 48000,  2,       385},
    {kPro,    true,  96000,  8,       1500},
};

// Audio profile codes by level.
constexpr uint32_t kWmaProfileCodes[] = {
    0,  // no level
    3,  // WMABASE
    1,  // WMAFULL
    2,  // WMAPRO
};

// WMV profiles, tried in order: the first whose limits the file keeps.
struct WmvProfileRow {
  uint32_t profileCode;
  int32_t maxWidth;
  int32_t maxHeight;
  int32_t maxVideoKbit;
  WmaLevel maxAudioLevel;
};

constexpr WmvProfileRow kWmvProfiles[] = {
    // code                 width height kbit/s audio
    {6, /* WMVMED_BASE  */  352,  288,   384,   kBase},
    {4, /* WMVMED_FULL  */  352,  288,   384,   kFull},
    {5, /* WMVMED_PRO   */  352,  288,   384,   kPro},
    {1, /* WMVHIGH_FULL */  720,  576,   3000,  kFull},
    {2, /* WMVHIGH_PRO  */  720,  576,   3000,  kPro},
};
// clang-format on

// Stream type GUIDs of the stream properties object, in file byte order.
constexpr uint8_t kAudioMedia[16] = {0x40, 0x9E, 0x69, 0xF8, 0x4D, 0x5B, 0xCF, 0x11,
                                     0xA8, 0xFD, 0x00, 0x80, 0x5F, 0x5C, 0x44, 0x2B};
constexpr uint8_t kVideoMedia[16] = {0xC0, 0xEF, 0x19, 0xBC, 0x4D, 0x5B, 0xCF, 0x11,
                                     0xA8, 0xFD, 0x00, 0x80, 0x5F, 0x5C, 0x44, 0x2B};

constexpr size_t kTypeDataOffset = 54;  // after the GUIDs, offset, lengths, flags, reserved

bool sameGuid(const uint8_t *bytes, const uint8_t (&guid)[16]) {
  for (size_t index = 0; index < 16; ++index) {
    if (bytes[index] != guid[index]) return false;
  }
  return true;
}

WmaLevel wmaLevel(const mfdAsfStream &audio) {
  const bool standard = audio.codecTag == kWmaStandard || audio.codecTag == kWmaVersion1;
  const bool pro = audio.codecTag == kWmaPro;
  if (!standard && !pro) return kNoLevel;
  const int32_t kbit = mfdAsf_streamKbit(audio);
  for (const WmaLevelRow &row : kWmaLevels) {
    if (row.pro == pro && audio.sampleRate <= row.maxSampleRate &&
        audio.channels <= row.maxChannels && kbit <= row.maxKbit) {
      return row.level;
    }
  }
  return kNoLevel;
}

uint32_t upperFourCc(const uint8_t *bytes) {
  uint32_t value = 0;
  for (size_t index = 0; index < 4; ++index) {
    value = value << 8 | static_cast<uint32_t>(std::toupper(bytes[index]));
  }
  return value;
}

}  // namespace

uint32_t mfdAsf_audioCodec(uint32_t formatTag) {
  for (const AudioTagRow &row : kAudioTags) {
    if (row.formatTag == formatTag) return row.codec;
  }
  return MFD_CODEC_OTHER;
}

uint32_t mfdAsf_videoCodec(uint32_t fourCc) {
  for (const VideoTagRow &row : kVideoTags) {
    if (row.fourCc == fourCc) return row.codec;
  }
  return MFD_CODEC_OTHER;
}

int32_t mfdAsf_streamKbit(const mfdAsfStream &stream) {
  if (stream.bitrate != 0) return static_cast<int32_t>(stream.bitrate / 1000);
  return static_cast<int32_t>(uint64_t{stream.bytesPerSecond} * 8 / 1000);
}

uint32_t mfdAsf_wmaProfile(const mfdAsfStream &audio) { return kWmaProfileCodes[wmaLevel(audio)]; }

uint32_t mfdAsf_wmvProfile(const mfdAsfStream &video, const mfdAsfStream *audio) {
  const WmaLevel level = audio != nullptr ? wmaLevel(*audio) : kBase;
  if (level == kNoLevel) return 0;
  const int32_t kbit = mfdAsf_streamKbit(video);
  for (const WmvProfileRow &row : kWmvProfiles) {
    if (video.width > 0 && video.width <= row.maxWidth && video.height > 0 &&
        video.height <= row.maxHeight && kbit <= row.maxVideoKbit && level <= row.maxAudioLevel) {
      return row.profileCode;
    }
  }
  return 0;
}

bool mfdAsf_parseStreamProperties(const uint8_t *bytes, size_t size, mfdAsfStream &stream) {
  if (size < kTypeDataOffset) return false;
  const size_t typeDataSize = mfdVideo_le32(bytes + 40);
  const uint8_t *typeData = bytes + kTypeDataOffset;
  const size_t available = size - kTypeDataOffset;
  stream.number = mfdVideo_le16(bytes + 48) & 0x7Fu;
  if (sameGuid(bytes, kAudioMedia)) {
    if (typeDataSize < 16 || available < 16) return false;
    stream.audio = true;
    stream.codecTag = mfdVideo_le16(typeData);
    stream.channels = static_cast<int32_t>(mfdVideo_le16(typeData + 2));
    stream.sampleRate = static_cast<int32_t>(mfdVideo_le32(typeData + 4) & 0x7FFFFFFFu);
    stream.bytesPerSecond = mfdVideo_le32(typeData + 8);
    return true;
  }
  if (sameGuid(bytes, kVideoMedia)) {
    // Encoded size, flags, format data size, then the bitmap header whose
    // compression code sits 16 bytes in.
    constexpr size_t kCompressionOffset = 11 + 16;
    if (typeDataSize < kCompressionOffset + 4 || available < kCompressionOffset + 4) return false;
    stream.video = true;
    stream.width = static_cast<int32_t>(mfdVideo_le32(typeData) & 0x7FFFFFFFu);
    stream.height = static_cast<int32_t>(mfdVideo_le32(typeData + 4) & 0x7FFFFFFFu);
    stream.codecTag = upperFourCc(typeData + kCompressionOffset);
    return true;
  }
  return false;
}

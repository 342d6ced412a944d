// Sample entries of ISO base media files, read from memory: the codec of a
// visual or audio sample description, the picture size, the H.264
// configuration, and the MPEG-4 elementary stream descriptor with the AAC
// audio specific configuration.
#include <algorithm>
#include <cstdint>

#include "mfd/mfd_api.h"
#include "mfd/mfd_mp4_box.h"
#include "mfd/mfd_video.h"
#include "util/osal_trace.h"

[[maybe_unused]] static constexpr char kTraceFile[] = "mfd_mp4_entry.c";

namespace {

constexpr uint32_t kVide = mfdVideo_fourCc("vide");
constexpr uint32_t kSoun = mfdVideo_fourCc("soun");
constexpr uint32_t kEsds = mfdVideo_fourCc("esds");
constexpr uint32_t kAvcC = mfdVideo_fourCc("avcC");
constexpr uint32_t kWave = mfdVideo_fourCc("wave");

constexpr size_t kVisualEntryFields = 78;  // fixed fields before the child boxes
constexpr size_t kAudioEntryFields = 28;
constexpr int kMaxEntryChildren = 32;

// Sample entry types by codec; entries of other types count as a codec the
// server has no id for.
struct EntryTypeRow {
  uint32_t entryType;
  uint32_t codec;
};

// clang-format off
constexpr EntryTypeRow kEntryTypes[] = {
    {mfdVideo_fourCc("avc1"), MFD_CODEC_AVC},
    {mfdVideo_fourCc("avc3"), MFD_CODEC_AVC},
    {mfdVideo_fourCc("hvc1"), MFD_CODEC_HEVC},
    {mfdVideo_fourCc("hev1"), MFD_CODEC_HEVC},
    {mfdVideo_fourCc("mp4v"), MFD_FORMAT_MPEG4_PART2},  // refined by the object type
    {mfdVideo_fourCc("mp4a"), MFD_FORMAT_AAC},          // likewise
    {mfdVideo_fourCc("ac-3"), MFD_FORMAT_AC3},
    {mfdVideo_fourCc(".mp3"), MFD_FORMAT_MP3},
};

// MPEG-4 object type indications (esds) by codec.
struct ObjectTypeRow {
  uint32_t first;
  uint32_t last;
  uint32_t codec;
};

constexpr ObjectTypeRow kObjectTypes[] = {
    // first  last   codec
    {0x20,    0x20,  MFD_FORMAT_MPEG4_PART2},  // MPEG-4 visual
    {0x40,    0x40,  MFD_FORMAT_AAC},          // MPEG-4 audio (AAC)
    {0x60,    0x65,  MFD_FORMAT_MPEG2_VIDEO},  // MPEG-2 video, all profiles
    {0x66,    0x68,  MFD_FORMAT_AAC},          // MPEG-2 AAC: Main, LC, SSR
    {0x69,    0x69,  MFD_FORMAT_MP3},          // MPEG-2 audio (part 3)
    {0x6A,    0x6A,  MFD_FORMAT_MPEG1_VIDEO},  // MPEG-1 video
    {0x6B,    0x6B,  MFD_FORMAT_MP3},          // MPEG-1 audio
};
// clang-format on

constexpr int32_t kAacSampleRates[13] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                         22050, 16000, 12000, 11025, 8000,  7350};

// A descriptor's tag and size (1 to 4 bytes of 7 bits); false when cut.
bool readDescriptor(const uint8_t *bytes, size_t size, size_t &index, uint32_t &tag,
                    size_t &length) {
  if (index >= size) return false;
  tag = bytes[index++];
  length = 0;
  for (int count = 0; count < 4; ++count) {
    if (index >= size) return false;
    const uint8_t byte = bytes[index++];
    length = length << 7 | (byte & 0x7Fu);
    if ((byte & 0x80) == 0) return true;
  }
  return true;
}

void readAudioSpecificConfig(const uint8_t *bytes, size_t size, mfdMp4Track &track) {
  mfdBitCursor cursor(bytes, size);
  uint32_t objectType = cursor.bits(5);
  if (objectType == 31) objectType = 32 + cursor.bits(6);
  const uint32_t rateIndex = cursor.bits(4);
  const int32_t sampleRate = rateIndex == 15 ? static_cast<int32_t>(cursor.bits(24))
                             : rateIndex < 13 ? kAacSampleRates[rateIndex] : 0;
  const uint32_t channelConfig = cursor.bits(4);
  if (!cursor.ok()) return;
  track.audioObjectType = objectType;
  if (sampleRate > 0) track.sampleRate = sampleRate;
  // Configurations 1-6 are that many channels; 7 is 7.1.
  if (channelConfig >= 1 && channelConfig <= 6) track.channels = static_cast<int32_t>(channelConfig);
  if (channelConfig == 7) track.channels = 8;
}

// The elementary stream descriptor: object type and, for AAC, the audio
// specific configuration.
void readEsds(const uint8_t *bytes, size_t size, mfdMp4Track &track) {
  size_t index = 4;  // version and flags
  uint32_t tag = 0;
  size_t length = 0;
  if (!readDescriptor(bytes, size, index, tag, length) || tag != 0x03 || index + 3 > size) return;
  const uint8_t flags = bytes[index + 2];
  index += 3;
  if ((flags & 0x80) != 0) index += 2;                                 // depends on a stream
  if ((flags & 0x40) != 0) index += index < size ? 1 + bytes[index] : 0;  // URL
  if ((flags & 0x20) != 0) index += 2;                                 // OCR stream
  if (!readDescriptor(bytes, size, index, tag, length) || tag != 0x04 || index + 13 > size) return;
  track.objectType = bytes[index];
  track.codec = MFD_CODEC_OTHER;
  for (const ObjectTypeRow &row : kObjectTypes) {
    if (track.objectType >= row.first && track.objectType <= row.last) track.codec = row.codec;
  }
  const size_t configEnd = index + length;
  index += 13;
  if (track.codec != MFD_FORMAT_AAC || track.objectType != 0x40) return;
  if (!readDescriptor(bytes, size, index, tag, length) || tag != 0x05 || index > configEnd) return;
  readAudioSpecificConfig(bytes + index, std::min(length, size - index), track);
}

void readAvcConfiguration(const uint8_t *bytes, size_t size, mfdMp4Track &track) {
  if (size < 4 || bytes[0] != 1) return;
  track.avcKnown = true;
  track.avc.profileIdc = bytes[1];
  track.avc.constraintFlags = bytes[2];
  track.avc.levelIdc = bytes[3];
}

// The child boxes of a sample entry, in memory from `index` on.
void readEntryChildren(const uint8_t *bytes, size_t size, size_t index, mfdMp4Track &track,
                       int depth) {
  for (int count = 0; count < kMaxEntryChildren && index + 8 <= size; ++count) {
    const size_t boxSize = mfdVideo_be32(bytes + index);
    const uint32_t type = mfdVideo_be32(bytes + index + 4);
    if (boxSize < 8 || boxSize > size - index) return;
    const uint8_t *payload = bytes + index + 8;
    if (type == kEsds) readEsds(payload, boxSize - 8, track);
    if (type == kAvcC) readAvcConfiguration(payload, boxSize - 8, track);
    if (type == kWave && depth == 0) readEntryChildren(payload, boxSize - 8, 0, track, 1);
    index += boxSize;
  }
}

}  // namespace

void mfdMp4_parseSampleEntry(uint32_t entryType, const uint8_t *bytes, size_t size,
                             mfdMp4Track &track) {
  track.codec = MFD_CODEC_OTHER;
  for (const EntryTypeRow &row : kEntryTypes) {
    if (row.entryType == entryType) track.codec = row.codec;
  }
  if (track.handler == kVide && size >= kVisualEntryFields) {
    const int32_t width = static_cast<int32_t>(mfdVideo_be16(bytes + 24));
    const int32_t height = static_cast<int32_t>(mfdVideo_be16(bytes + 26));
    if (width > 0 && height > 0) {
      track.width = width;
      track.height = height;
    }
    readEntryChildren(bytes, size, kVisualEntryFields, track, 0);
  } else if (track.handler == kSoun && size >= kAudioEntryFields) {
    // QuickTime sound descriptions of version 1 and 2 carry more fields.
    const uint32_t version = mfdVideo_be16(bytes + 8);
    track.channels = static_cast<int32_t>(mfdVideo_be16(bytes + 16));
    track.sampleRate = static_cast<int32_t>(mfdVideo_be32(bytes + 24) >> 16);
    const size_t fields = kAudioEntryFields + (version == 1 ? 16 : version == 2 ? 36 : 0);
    readEntryChildren(bytes, size, fields, track, 0);
  }
}

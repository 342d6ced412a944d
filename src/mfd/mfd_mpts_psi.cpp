// Transport stream packet layout, packet headers and program tables.
#include "mfd/mfd_mpts_psi.h"

#include <algorithm>

#include "mfd/mfd_api.h"
#include "mfd/mfd_video.h"
#include "util/osal_trace.h"

[[maybe_unused]] static constexpr char kTraceFile[] = "mfd_mpts_psi.c";

namespace {

constexpr uint8_t kSyncByte = 0x47;
constexpr int kSyncCount = 5;  // consecutive packets that must line up
constexpr size_t kLongestStride = 192;
constexpr uint8_t kPatTableId = 0x00;
constexpr uint8_t kPmtTableId = 0x02;
constexpr size_t kSectionCrcSize = 4;

// How a stream type of the program map is published: codec id, and whether
// it is video.  Type 0x06 (private data) is decided by its descriptors.
struct StreamTypeRow {
  uint8_t streamType;
  uint32_t codec;
  bool video;
};

// clang-format off
constexpr StreamTypeRow kStreamTypes[] = {
    // type  codec                       video
    {0x01,   MFD_FORMAT_MPEG1_VIDEO,     true},   // MPEG-1 video
    {0x02,   MFD_FORMAT_MPEG2_VIDEO,     true},   // MPEG-2 video
    {0x10,   MFD_FORMAT_MPEG4_PART2,     true},   // MPEG-4 part 2 video
    {0x1B,   MFD_CODEC_AVC,              true},   // H.264
    {0x24,   MFD_CODEC_HEVC,             true},   // HEVC
    {0xEA,   MFD_CODEC_OTHER,            true},   // VC-1
    {0x03,   MFD_FORMAT_MP2,             false},  // MPEG-1 audio (layer read from the frames)
    {0x04,   MFD_FORMAT_MP2,             false},  // MPEG-2 audio (likewise)
    {0x0F,   MFD_FORMAT_AAC,             false},  // AAC, ADTS
    {0x11,   MFD_FORMAT_AAC,             false},  // AAC, LATM
    {0x81,   MFD_FORMAT_AC3,             false},  // AC3
    {0x87,   MFD_CODEC_OTHER,            false},  // E-AC3
};
// clang-format on

constexpr uint8_t kPrivateDataType = 0x06;
constexpr uint8_t kAc3Descriptor = 0x6A;
constexpr uint8_t kEnhancedAc3Descriptor = 0x7A;
constexpr uint8_t kRegistrationDescriptor = 0x05;

bool syncsAt(const uint8_t *bytes, size_t size, size_t position, size_t stride) {
  for (int count = 0; count < kSyncCount; ++count, position += stride) {
    if (position + 4 > size || bytes[position] != kSyncByte) return false;
    if ((bytes[position + 3] & 0x30) == 0) return false;  // reserved adaptation field control
  }
  return true;
}

// Audio codec that the descriptors of a private data stream declare; 0 none.
uint32_t privateStreamCodec(const uint8_t *descriptors, size_t size) {
  for (size_t index = 0; index + 2 <= size; index += 2 + size_t{descriptors[index + 1]}) {
    const uint8_t tag = descriptors[index];
    const size_t length = descriptors[index + 1];
    if (tag == kAc3Descriptor) return MFD_FORMAT_AC3;
    if (tag == kEnhancedAc3Descriptor) return MFD_CODEC_OTHER;
    if (tag == kRegistrationDescriptor && length >= 4 && index + 6 <= size &&
        mfdVideo_be32(descriptors + index + 2) == mfdVideo_fourCc("AC-3")) {
      return MFD_FORMAT_AC3;
    }
  }
  return 0;
}

void takeStream(uint8_t streamType, int32_t pid, const uint8_t *descriptors, size_t size,
                mfdTsProgram &program) {
  uint32_t codec = 0;
  bool video = false;
  for (const StreamTypeRow &row : kStreamTypes) {
    if (row.streamType == streamType) {
      codec = row.codec;
      video = row.video;
    }
  }
  if (streamType == kPrivateDataType) codec = privateStreamCodec(descriptors, size);
  if (codec == 0) return;
  if (video && program.videoPid < 0) {
    program.videoPid = pid;
    program.videoCodec = codec;
  } else if (!video && program.audioPid < 0) {
    program.audioPid = pid;
    program.audioCodec = codec;
    program.mpegAudio = streamType == 0x03 || streamType == 0x04;
  }
}

// The section that starts the payload (after the pointer field) and the
// end of its data (before the CRC, within the payload); null when absent.
const uint8_t *sectionStart(const uint8_t *payload, size_t size, uint8_t tableId, size_t &end) {
  if (size < 1 || size_t{payload[0]} + 1 + 3 > size) return nullptr;
  const uint8_t *section = payload + 1 + payload[0];
  const size_t available = size - 1 - payload[0];
  if (section[0] != tableId) return nullptr;
  const size_t length = 3 + (mfdVideo_be16(section + 1) & 0x0FFFu);
  end = std::min(length, available);
  if (end == length) end -= std::min(end, kSectionCrcSize);
  return section;
}

}  // namespace

bool mfdTs_findLayout(const uint8_t *bytes, size_t size, mfdTsLayout &layout) {
  for (size_t position = 0; position < kLongestStride; ++position) {
    for (size_t stride : {MFD_TS_PACKET_SIZE, kLongestStride}) {
      if (syncsAt(bytes, size, position, stride)) {
        layout = {static_cast<int64_t>(position), stride};
        return true;
      }
    }
  }
  return false;
}

bool mfdTs_parsePacket(const uint8_t *bytes, mfdTsPacket &packet) {
  packet = mfdTsPacket{};
  if (bytes[0] != kSyncByte) return false;
  packet.unitStart = (bytes[1] & 0x40) != 0;
  packet.pid = mfdVideo_be16(bytes + 1) & 0x1FFFu;
  const uint32_t control = (bytes[3] >> 4) & 3u;
  size_t offset = 4;
  if ((control & 2u) != 0) offset += 1 + size_t{bytes[4]};
  if (control == 0 || offset > MFD_TS_PACKET_SIZE) return false;
  packet.payloadOffset = offset;
  packet.payloadSize = (control & 1u) != 0 ? MFD_TS_PACKET_SIZE - offset : 0;
  return true;
}

int32_t mfdTs_parsePat(const uint8_t *payload, size_t size) {
  size_t end = 0;
  const uint8_t *section = sectionStart(payload, size, kPatTableId, end);
  if (section == nullptr) return -1;
  for (size_t index = 8; index + 4 <= end; index += 4) {
    if (mfdVideo_be16(section + index) != 0) {  // program 0 is the network table
      return static_cast<int32_t>(mfdVideo_be16(section + index + 2) & 0x1FFFu);
    }
  }
  return -1;
}

bool mfdTs_parsePmt(const uint8_t *payload, size_t size, mfdTsProgram &program) {
  size_t end = 0;
  const uint8_t *section = sectionStart(payload, size, kPmtTableId, end);
  if (section == nullptr || end < 12) return false;
  program = mfdTsProgram{};
  size_t index = 12 + (mfdVideo_be16(section + 10) & 0x0FFFu);
  while (index + 5 <= end) {
    const uint8_t streamType = section[index];
    const int32_t pid = static_cast<int32_t>(mfdVideo_be16(section + index + 1) & 0x1FFFu);
    const size_t infoLength = mfdVideo_be16(section + index + 3) & 0x0FFFu;
    const size_t infoEnd = std::min(end, index + 5 + infoLength);
    takeStream(streamType, pid, section + index + 5, infoEnd - (index + 5), program);
    index += 5 + infoLength;
  }
  return true;
}

// Byte reads at file positions, the bit cursor, start code search, MPEG audio
// frame headers and PES headers for the video and container detectors.
#include "mfd/mfd_video.h"

#include <sys/stat.h>

#include <algorithm>
#include <limits>

#include "mfd/mfd_api.h"
#include "mfd/mfd_audio.h"
#include "mfd/mfd_reader.h"
#include "util/osal_trace.h"

[[maybe_unused]] static constexpr char kTraceFile[] = "mfd_video.c";

namespace {

// Forward steps up to this many bytes are skipped inside the reader; longer
// ones jump, so that walking a large file does not use up the block limit.
constexpr int64_t kShortSkip = 4096;

constexpr uint64_t kPtsModulo = uint64_t{1} << 33;

// MPEG audio frame header: sync (11 bits), version, layer, and the two
// indexes that have a reserved value.
bool isMpegAudioHeader(const uint8_t *bytes) {
  if (bytes[0] != 0xFF || (bytes[1] & 0xE0) != 0xE0) return false;
  const uint32_t version = (bytes[1] >> 3) & 3u;
  const uint32_t layer = (bytes[1] >> 1) & 3u;
  const uint32_t bitRateIndex = bytes[2] >> 4;
  const uint32_t sampleRateIndex = (bytes[2] >> 2) & 3u;
  return version != 1 && layer != 0 && bitRateIndex != 15 && sampleRateIndex != 3;
}

// A 33-bit time stamp in its 5-byte PES form, marker bits checked.
bool readTimeStamp(const uint8_t *bytes, uint64_t &stamp) {
  if ((bytes[0] & 1u) == 0 || (bytes[2] & 1u) == 0 || (bytes[4] & 1u) == 0) return false;
  stamp = uint64_t{(bytes[0] >> 1) & 7u} << 30 | uint64_t{mfdVideo_be16(bytes + 1) >> 1} << 15 |
          uint64_t{mfdVideo_be16(bytes + 3) >> 1};
  return true;
}

// Stream ids whose packets have no header beyond the length field.
bool hasPlainPesHeader(uint32_t streamId) {
  switch (streamId) {
    case 0xBC: case 0xBE: case 0xBF: case 0xF0: case 0xF1: case 0xF2: case 0xF8: case 0xFF:
      return true;
    default:
      return false;
  }
}

bool parseMpeg2PesHeader(const uint8_t *bytes, size_t size, mfdPesHeader &header) {
  if (size < 9) return false;
  const uint32_t timeFlags = bytes[7] >> 6;
  header.payloadOffset = 9 + size_t{bytes[8]};
  if (timeFlags == 1) return false;
  if (timeFlags >= 2) {
    if (size < 14 || bytes[8] < 5 || (bytes[9] >> 4) != (timeFlags == 2 ? 2u : 3u)) return false;
    if (!readTimeStamp(bytes + 9, header.pts)) return false;
    header.hasPts = true;
  }
  return true;
}

bool parseMpeg1PesHeader(const uint8_t *bytes, size_t size, mfdPesHeader &header) {
  size_t index = 6;
  for (int stuffing = 0; index < size && bytes[index] == 0xFF; ++stuffing, ++index) {
    if (stuffing == 16) return false;
  }
  if (index < size && (bytes[index] & 0xC0) == 0x40) index += 2;  // STD buffer size
  if (index >= size) return false;
  const uint32_t kind = bytes[index] >> 4;
  if (bytes[index] == 0x0F) {
    header.payloadOffset = index + 1;
    return true;
  }
  if (kind != 2 && kind != 3) return false;
  if (index + (kind == 2 ? 5 : 10) > size || !readTimeStamp(bytes + index, header.pts)) return false;
  header.hasPts = true;
  header.payloadOffset = index + (kind == 2 ? 5 : 10);
  return true;
}

}  // namespace

int64_t mfdVideo_fileSize(int fd) {
  struct stat status {};
  if (fstat(fd, &status) != 0) return -1;
  return static_cast<int64_t>(status.st_size);
}

int32_t mfdVideo_seek(int64_t offset) {
  if (offset < 0) return MFD_ERR_INVALID_PARAM;
  const int64_t ahead = offset - mfd_currentFilePosition();
  if (ahead == 0) return 0;
  if (ahead > 0 && ahead <= kShortSkip && mfd_setOffset(static_cast<uint32_t>(ahead * 8)) == 0) {
    return 0;
  }
  return mfd_jmpToFilePosition(offset) == 0 ? 0 : MFD_ERR_INVALID_PARAM;
}

int32_t mfdVideo_readBytes(uint8_t *out, size_t count) {
  size_t index = 0;
  for (; index + 4 <= count; index += 4) {
    uint32_t word = 0;
    if (mfd_getDataBits(&word, 32) != 0) return MFD_ERR_INVALID_PARAM;
    out[index] = static_cast<uint8_t>(word >> 24);
    out[index + 1] = static_cast<uint8_t>(word >> 16);
    out[index + 2] = static_cast<uint8_t>(word >> 8);
    out[index + 3] = static_cast<uint8_t>(word);
  }
  for (; index < count; ++index) {
    uint32_t value = 0;
    if (mfd_getDataBits(&value, 8) != 0) return MFD_ERR_INVALID_PARAM;
    out[index] = static_cast<uint8_t>(value);
  }
  return 0;
}

size_t mfdVideo_readAvailable(std::vector<uint8_t> &bytes, size_t count) {
  size_t index = 0;
  for (; index < count; ++index) {
    uint32_t value = 0;
    if (mfd_getDataBits(&value, 8) != 0) break;
    bytes.push_back(static_cast<uint8_t>(value));
  }
  return index;
}

uint32_t mfdBitCursor::bits(int count) {
  uint32_t value = 0;
  for (int bit = 0; bit < count; ++bit) {
    uint32_t next = 0;
    if (bitPos < size * 8) {
      next = (data[bitPos / 8] >> (7 - bitPos % 8)) & 1u;
    } else {
      overrun = true;
    }
    value = value << 1 | next;
    ++bitPos;
  }
  return value;
}

void mfdBitCursor::skip(size_t count) {
  if (count > size * 8 - std::min(bitPos, size * 8)) overrun = true;
  bitPos = std::min(bitPos + count, size * 8 + 1);
}

uint32_t mfdBitCursor::ue() {
  int leadingZeros = 0;
  while (bits(1) == 0) {
    if (overrun || ++leadingZeros > 31) {
      overrun = true;
      return 0;
    }
  }
  if (leadingZeros == 0) return 0;
  const uint64_t value = (uint64_t{1} << leadingZeros) - 1 + bits(leadingZeros);
  if (value > std::numeric_limits<uint32_t>::max()) overrun = true;
  return static_cast<uint32_t>(value);
}

int32_t mfdBitCursor::se() {
  const uint32_t code = ue();
  const int64_t magnitude = (int64_t{code} + 1) / 2;
  return static_cast<int32_t>((code & 1u) != 0 ? magnitude : -magnitude);
}

size_t mfdVideo_findStartCode(const uint8_t *bytes, size_t size, size_t from) {
  for (size_t index = from; index + 3 <= size; ++index) {
    if (bytes[index + 2] > 1) {
      index += 2;  // no prefix can end at or before this byte
    } else if (bytes[index] == 0 && bytes[index + 1] == 0 && bytes[index + 2] == 1) {
      return index;
    }
  }
  return size;
}

uint32_t mfdVideo_mpegAudioCodec(const uint8_t *bytes, size_t size) {
  for (size_t index = 0; index + 4 <= size; ++index) {
    if (!isMpegAudioHeader(bytes + index)) continue;
    // Layer bits: 3 layer I, 2 layer II, 1 layer III.
    constexpr uint32_t kCodecByLayer[4] = {0, MFD_FORMAT_MP3, MFD_FORMAT_MP2, MFD_FORMAT_MP1};
    return kCodecByLayer[(bytes[index + 1] >> 1) & 3u];
  }
  return 0;
}

bool mfdVideo_parsePesHeader(const uint8_t *bytes, size_t size, bool mpeg1, mfdPesHeader &header) {
  header = mfdPesHeader{};
  if (size < 6 || bytes[0] != 0 || bytes[1] != 0 || bytes[2] != 1 || bytes[3] < 0xBC) return false;
  header.streamId = bytes[3];
  header.packetLength = mfdVideo_be16(bytes + 4);
  if (hasPlainPesHeader(header.streamId)) {
    header.payloadOffset = 6;
    return true;
  }
  bool parsed = false;
  if (size > 6 && (bytes[6] & 0xC0) == 0x80) {
    parsed = parseMpeg2PesHeader(bytes, size, header);
  } else if (mpeg1) {
    parsed = parseMpeg1PesHeader(bytes, size, header);
  }
  if (!parsed) return false;
  return header.packetLength == 0 || header.payloadOffset <= 6 + size_t{header.packetLength};
}

uint32_t mfdVideo_ptsSpanMs(uint64_t first, uint64_t last) {
  const uint64_t ticks = (last + kPtsModulo - (first % kPtsModulo)) % kPtsModulo;
  // More than half the clock's range is a stamp out of order, not a wrap.
  if (ticks >= kPtsModulo / 2) return 0;
  return static_cast<uint32_t>(ticks / 90);
}

void mfdVideo_reportStreams(int fd, const mfdVideoStreams &streams, double durationMs, mfdMediaInfo *info) {
  info->videoCodec = streams.videoCodec;
  info->videoWidth = streams.width;
  info->videoHeight = streams.height;
  info->audioCodec = streams.audioCodec;
  info->sampleRate = streams.sampleRate;
  info->channels = streams.channels;
  info->duration = mfdAudio_toDuration(durationMs);
  info->bitrate = mfdVideo_kbitPerSecond(mfdVideo_fileSize(fd), info->duration);
}

int32_t mfdVideo_kbitPerSecond(int64_t bytes, uint32_t milliseconds) {
  if (bytes <= 0 || milliseconds == 0) return 0;
  const int64_t rate = bytes * 8 / milliseconds;
  return static_cast<int32_t>(std::min<int64_t>(rate, std::numeric_limits<int32_t>::max()));
}

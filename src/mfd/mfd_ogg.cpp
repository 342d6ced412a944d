// Ogg detector: an "OggS" page whose first packet opens a Vorbis, Opus or
// FLAC stream.  The identification header gives the rate and channels; the
// granule position of the stream's last page, the playing time.
#include <cstdint>
#include <cstring>
#include <vector>

#include "mfd/mfd_api.h"
#include "mfd/mfd_audio.h"
#include "mfd/mfd_flac.h"
#include "mfd/mfd_video.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "mfd_ogg.c";

namespace {

constexpr size_t kPageHeader = 27;
constexpr size_t kTailBytes = 65536;  // an Ogg page is at most 65,307 bytes
constexpr uint32_t kOpusRate = 48000;  // Opus granules count 48 kHz samples

struct OggStream {
  uint32_t formatId = MFD_FORMAT_NONE;
  uint32_t serial = 0;
  uint32_t rate = 0;
  uint32_t preSkip = 0;
};

uint64_t le64(const uint8_t *b) { return mfdVideo_le64(b); }

// The first page and its first packet: which codec, and its header.
bool readFirstPacket(std::vector<uint8_t> &page, size_t &packet) {
  if (mfdVideo_seek(0) != 0 || mfdVideo_readAvailable(page, 4) < 4 || std::memcmp(page.data(), "OggS", 4) != 0) {
    return false;
  }
  if (mfdVideo_readAvailable(page, 4096 - 4) < kPageHeader - 4 || page[4] != 0) return false;
  const size_t segments = page[26];
  packet = kPageHeader + segments;
  return page.size() > packet + 8;
}

bool identify(OggStream &stream, mfdMediaInfo *info) {
  std::vector<uint8_t> page;
  size_t packet = 0;
  if (!readFirstPacket(page, packet)) return false;
  stream.serial = mfdVideo_le32(page.data() + 14);
  const uint8_t *head = page.data() + packet;
  const size_t available = page.size() - packet;
  if (available >= 16 && std::memcmp(head, "\x01vorbis", 7) == 0) {
    stream.formatId = MFD_FORMAT_OGG_VORBIS;
    info->channels = head[11];
    stream.rate = mfdVideo_le32(head + 12);
    info->audioCodec = MFD_CODEC_VORBIS;
  } else if (available >= 19 && std::memcmp(head, "OpusHead", 8) == 0) {
    stream.formatId = MFD_FORMAT_OGG_OPUS;
    info->channels = head[9];
    stream.preSkip = mfdVideo_le16(head + 10);
    stream.rate = kOpusRate;
    info->audioCodec = MFD_CODEC_OPUS;
  } else if (available >= 13 + 4 + 34 && std::memcmp(head, "\x7F" "FLAC", 5) == 0 &&
             std::memcmp(head + 9, "fLaC", 4) == 0) {
    stream.formatId = MFD_FORMAT_OGG_FLAC;
    if (!mfdFlac_parseStreamInfo(head + 17, 34, info)) return false;
    stream.rate = static_cast<uint32_t>(info->sampleRate);
  } else {
    return false;
  }
  info->sampleRate = static_cast<int32_t>(stream.rate);
  return stream.rate != 0;
}

// The granule position of the stream's last page among the file's last
// bytes; 0 when none is found.
uint64_t lastGranule(int64_t fileSize, uint32_t serial) {
  const int64_t start = fileSize > static_cast<int64_t>(kTailBytes) ? fileSize - static_cast<int64_t>(kTailBytes) : 0;
  std::vector<uint8_t> tail;
  if (mfdVideo_seek(start) != 0) return 0;
  mfdVideo_readAvailable(tail, kTailBytes);
  for (size_t at = tail.size() >= kPageHeader ? tail.size() - kPageHeader + 1 : 0; at-- > 0;) {
    if (std::memcmp(tail.data() + at, "OggS", 4) != 0 || mfdVideo_le32(tail.data() + at + 14) != serial) continue;
    const uint64_t granule = le64(tail.data() + at + 6);
    if (granule != ~uint64_t{0}) return granule;
  }
  return 0;
}

}  // namespace

int mediaFormatOggDetect(int fd, mfdMediaInfo *info, int mode, const char * /*path*/) {
  if (info == nullptr) return MFD_ERR_INVALID_PARAM;
  OggStream stream;
  mfdMediaInfo found{};
  if (!identify(stream, &found)) return 0;
  if (mode == MFD_MODE_DETECT) {
    DMS_TRACE(OSAL_TRACE_INFO, "Ogg stream of format %u detected\n", stream.formatId);
    info->mediaClass = MFD_CLASS_AUDIO;
    info->formatId = stream.formatId;
    return 0;
  }
  info->sampleRate = found.sampleRate;
  info->channels = found.channels;
  info->bitsPerSample = found.bitsPerSample;
  info->audioCodec = found.audioCodec == 0 ? MFD_FORMAT_FLAC : found.audioCodec;
  const uint64_t granule = lastGranule(mfdVideo_fileSize(fd), stream.serial);
  const uint64_t samples = granule > stream.preSkip ? granule - stream.preSkip : 0;
  info->duration = mfdAudio_toDuration(static_cast<double>(samples) * 1000.0 / stream.rate);
  return 0;
}

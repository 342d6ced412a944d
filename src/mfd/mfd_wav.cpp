// WAV detector (format id 12).
//
// Mode 2 recognises a RIFF "WAVE" header, or an "RF64" header followed by a
// "dy64" chunk.  Mode 3 walks the RIFF chunks from byte 12 (chunks are
// word-aligned: an odd size is followed by a pad byte), so that "fmt " and
// "data" are found behind LIST, JUNK or any other chunk, and records the
// sample layout, where the sample data starts and how long it is.
#include <exception>
#include <vector>

#include "mfd/mfd_api.h"
#include "mfd/mfd_audio.h"
#include "mfd/mfd_reader.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "mfd_wav.c";

namespace {

constexpr uint32_t kRiffTag = 0x52494646;  // "RIFF"
constexpr uint32_t kRf64Tag = 0x52463634;  // "RF64"
constexpr uint32_t kWaveTag = 0x57415645;  // "WAVE"
constexpr uint32_t kDy64Tag = 0x64793634;  // "dy64"
constexpr uint32_t kFmtTag = 0x666D7420;   // "fmt "
constexpr uint32_t kDataTag = 0x64617461;  // "data"

constexpr int64_t kFirstChunk = 12;
constexpr size_t kChunkHeaderBytes = 8;
constexpr int kMaxChunks = 64;
constexpr uint32_t kFmtBytesRead = 40;  // through the extensible sub-format's first bytes
constexpr uint32_t kFormatExtensible = 0xFFFE;

// Fills the record from the bytes of a "fmt " chunk, as far as they go.
void parseFormat(const std::vector<uint8_t> &format, mfdMediaInfo *info) {
  if (format.size() < 4) return;
  const uint32_t formatTag = mfdAudio_le16(&format[0]);
  info->sampleFormat = static_cast<int32_t>(formatTag);
  info->channels = static_cast<int32_t>(mfdAudio_le16(&format[2]));
  if (format.size() < 8) return;
  info->sampleRate = static_cast<int32_t>(mfdAudio_le32(&format[4]));
  if (format.size() < 12) return;
  const int64_t bitsPerSecond = static_cast<int64_t>(mfdAudio_le32(&format[8])) * 8;
  info->bitrate = bitsPerSecond > INT32_MAX ? INT32_MAX : static_cast<int32_t>(bitsPerSecond);
  if (format.size() < 16) return;
  info->bitsPerSample = static_cast<int32_t>(mfdAudio_le16(&format[14]));
  // WAVE_FORMAT_EXTENSIBLE: the sub-format GUID begins with the real tag.
  if (formatTag == kFormatExtensible && format.size() >= 26) {
    info->sampleFormat = static_cast<int32_t>(mfdAudio_le16(&format[24]));
  }
}

void recordData(int fd, int64_t payloadStart, uint32_t declaredSize, mfdMediaInfo *info) {
  int64_t dataSize = declaredSize;
  const int64_t fileSize = mfdAudio_fileSize(fd);
  if (fileSize >= payloadStart && dataSize > fileSize - payloadStart) {
    dataSize = fileSize - payloadStart;  // streamed or truncated file
  }
  info->dataOffset = payloadStart;
  info->fileSize = dataSize;
}

int parseMode3(int fd, mfdMediaInfo *info) {
  bool formatFound = false;
  bool dataFound = false;
  int64_t position = kFirstChunk;
  bool readerAtPosition = mfd_currentFilePosition() == position;
  for (int chunk = 0; chunk < kMaxChunks && !(formatFound && dataFound); ++chunk) {
    if (!readerAtPosition && mfd_jmpToFilePosition(position) != 0) break;
    readerAtPosition = false;
    std::vector<uint8_t> header;
    if (mfdAudio_readBytes(header, kChunkHeaderBytes) != 0) break;
    const uint32_t chunkId = mfdAudio_be32(&header[0]);
    const uint32_t chunkSize = mfdAudio_le32(&header[4]);
    if (chunkId == kFmtTag && !formatFound) {
      std::vector<uint8_t> format;
      mfdAudio_readBytes(format, chunkSize < kFmtBytesRead ? chunkSize : kFmtBytesRead);
      parseFormat(format, info);
      formatFound = true;
    } else if (chunkId == kDataTag && !dataFound) {
      recordData(fd, position + static_cast<int64_t>(kChunkHeaderBytes), chunkSize, info);
      dataFound = true;
    }
    position += static_cast<int64_t>(kChunkHeaderBytes) + chunkSize + (chunkSize & 1u);
  }
  if (dataFound && info->bitrate > 0) {
    info->duration = mfdAudio_toDuration(info->fileSize * 8000.0 / info->bitrate);
  }
  return 0;
}

int detectMode2(mfdMediaInfo *info) {
  uint32_t tag = 0;
  uint32_t form = 0;
  if (mfd_getDataBits(&tag, 32) != 0) return 0;
  if (tag == kRiffTag) {
    if (mfd_setOffset(32) != 0 || mfd_getDataBits(&form, 32) != 0 || form != kWaveTag) return 0;
    DMS_TRACE(OSAL_TRACE_INFO, "WAVE Audio Format Detected\n");
  } else if (tag == kRf64Tag) {
    if (mfd_setOffset(64) != 0 || mfd_getDataBits(&form, 32) != 0 || form != kDy64Tag) return 0;
    DMS_TRACE(OSAL_TRACE_INFO, "WAVE Audio Format Detected(DS64)\n");
  } else {
    return 0;
  }
  info->mediaClass = MFD_CLASS_AUDIO;
  info->formatId = MFD_FORMAT_WAV;
  info->audioCodec = MFD_FORMAT_WAV;
  return 0;
}

}  // namespace

// WAV files are recognised by their header whatever they are called.
int mediaFormatWavDetect(int fd, mfdMediaInfo *info, int mode, const char * /*path*/) {
  if (info == nullptr) return 0;
  return dmsGuard("mediaFormatWavDetect", MFD_ERR_INVALID_PARAM, [&] {
    if (mode == MFD_MODE_DETECT) return detectMode2(info);
    if (mode == MFD_MODE_PARSE) return parseMode3(fd, info);
    return 0;
  });
}

// ATRAC detector (format ids 1 and 2): an "ea3" tag (ID3v2 layout) followed
// by an "EA3" header.
//
// Mode 2 recognises the tag and moves the reader past it, to the header.
// Mode 3 checks the header, gives up on encrypted content, and reads the
// codec id and parameters 32 bytes into the header, whatever the tag's size.
#include "mfd/mfd_api.h"
#include "mfd/mfd_audio.h"
#include "mfd/mfd_reader.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "mfd_atrac.c";

namespace {

constexpr uint32_t kLowerTag = 0x656133;  // "ea3"
constexpr uint32_t kUpperTag = 0x454133;  // "EA3"
constexpr int64_t kTagHeaderBytes = 10;
constexpr int64_t kCodecFieldOffset = 32;  // codec id within the EA3 header
constexpr uint32_t kDefaultHeaderBytes = 96;

// Sample rate by (parameters >> 13) & 7; codes 5-7 are not defined.
constexpr int32_t kSampleRates[8] = {32000, 44100, 48000, 88200, 96000, 0, 0, 0};

// Codec ids of the header.
constexpr uint32_t kCodecAtrac3 = 0;
constexpr uint32_t kCodecAtrac3Plus = 1;
constexpr uint32_t kCodecMp3 = 2;

constexpr double kAtrac3SamplesPerFrame = 1024.0;
constexpr double kAtrac3PlusSamplesPerFrame = 2048.0;

bool isEa3Tag(uint32_t value) { return value == kLowerTag || value == kUpperTag; }

// frameUnits * 64 * sampleRate / 1024 in 64 bits, so that no product overflows.
int32_t rateWord(int64_t frameUnits, int32_t sampleRate) {
  return static_cast<int32_t>(frameUnits * 64 * sampleRate / 1024);
}

int detectMode2(mfdMediaInfo *info) {
  uint32_t value = 0;
  if (mfd_getDataBits(&value, 24) != 0 || !isEa3Tag(value)) return 0;
  info->mediaClass = MFD_CLASS_AUDIO;
  info->formatId = MFD_FORMAT_ATRAC3;
  info->audioCodec = MFD_FORMAT_ATRAC3;
  DMS_TRACE(OSAL_TRACE_INFO, "ATRAC DETECTION Successful\n");
  int32_t status = mfd_setOffset(24);
  uint32_t sizeWord = 0;
  if (status == 0) status = mfd_getDataBits(&sizeWord, 32);
  if (status != 0) return status;
  uint8_t sizeBytes[4] = {static_cast<uint8_t>(sizeWord >> 24),
                          static_cast<uint8_t>(sizeWord >> 16), static_cast<uint8_t>(sizeWord >> 8),
                          static_cast<uint8_t>(sizeWord)};
  return mfd_jmpToFilePosition(static_cast<int64_t>(mfdAudio_syncSafe(sizeBytes)) +
                               kTagHeaderBytes);
}

// Playing time of the frames behind the header.
void setPlayingTime(int fd, mfdMediaInfo *info, int64_t audioStart, double frameBytes,
                    double samplesPerFrame) {
  const int64_t fileSize = mfdAudio_fileSize(fd);
  if (frameBytes <= 0.0 || info->sampleRate <= 0 || fileSize <= audioStart) return;
  const double frames = static_cast<double>(fileSize - audioStart) / frameBytes;
  info->duration = mfdAudio_toDuration(frames * samplesPerFrame * 1000.0 / info->sampleRate);
}

int parseMode3(int fd, mfdMediaInfo *info) {
  const int64_t headerStart = mfd_currentFilePosition();
  uint32_t value = 0;
  int32_t status = mfd_getDataBits(&value, 24);
  if (status != 0 || !isEa3Tag(value)) return status;
  uint32_t versionAndSize = 0;
  uint32_t encryption = 0;
  status = mfd_getDataBits(&versionAndSize, 24);
  if (status == 0) status = mfd_getDataBits(&encryption, 8);
  if (status != 0) return status;
  if (encryption != 0xFF && encryption != 0x80) {
    DMS_TRACE(OSAL_TRACE_INFO, "Encrypted data!!. Cannot Parse Further\n");
    return 0;
  }
  uint32_t codec = 0;
  uint32_t parameters = 0;
  status = mfd_jmpToFilePosition(headerStart + kCodecFieldOffset);
  if (status == 0) status = mfd_getDataBits(&codec, 8);
  if (status == 0) status = mfd_getDataBits(&parameters, 24);
  if (status != 0) return status;
  const uint32_t headerBytes = versionAndSize & 0xFFFFu;
  const int64_t audioStart =
      headerStart + (headerBytes > kCodecFieldOffset ? headerBytes : kDefaultHeaderBytes);
  const uint32_t codeWord = parameters & 0xFFFFu;
  const int32_t sampleRate = kSampleRates[(codeWord >> 13) & 7u];
  const int32_t frameCode = static_cast<int32_t>(codeWord & 0x3FFu);
  if (codec == kCodecAtrac3Plus) {
    DMS_TRACE(OSAL_TRACE_INFO, "ATRAC 3 PLUS detected\n");
    info->sampleRate = sampleRate;
    info->audioCodec = MFD_FORMAT_ATRAC3_PLUS;
    info->formatWord = 2;
    info->channels = static_cast<int32_t>((codeWord >> 10) & 7u);
    info->bitrate = rateWord(frameCode + 1, sampleRate);
    setPlayingTime(fd, info, audioStart, (frameCode + 1) * 8.0, kAtrac3PlusSamplesPerFrame);
  } else if (codec == kCodecAtrac3) {
    DMS_TRACE(OSAL_TRACE_INFO, "ATRAC 3 detected\n");
    info->sampleRate = sampleRate;
    info->channels = 2;
    info->formatWord = 2;
    info->audioCodec = MFD_FORMAT_ATRAC3;
    info->bitrate = rateWord(frameCode, sampleRate);
    setPlayingTime(fd, info, audioStart, frameCode * 8.0, kAtrac3SamplesPerFrame);
  } else if (codec == kCodecMp3) {
    DMS_TRACE(OSAL_TRACE_INFO, "MP3 obtained in ATRAC3\n");
  }
  return 0;
}

}  // namespace

// ATRAC files are recognised by their tag whatever they are called.
int mediaFormatAtracDetect(int fd, mfdMediaInfo *info, int mode, const char * /*path*/) {
  if (info == nullptr) return 0;
  if (mode == MFD_MODE_DETECT) return detectMode2(info);
  if (mode == MFD_MODE_PARSE) return parseMode3(fd, info);
  return 0;
}

// AAC detector for ADTS and ADIF streams (format id 8).
//
// Mode 2 looks at the first 32 bits only: "ADIF", or an ADTS sync word whose
// layer bits are not those of an MP3 header (those files belong to the MP3
// detector).  Mode 3 reads the sampling rate and channel configuration from
// that word; for ADTS it also estimates the playing time from the average
// length of the first frames (1024 samples each).
#include <exception>
#include <vector>

#include "mfd/mfd_api.h"
#include "mfd/mfd_audio.h"
#include "mfd/mfd_reader.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "mfd_aac.c";

namespace {

// Sampling frequency (Hz) by sampling frequency index.
constexpr uint32_t kSamplingFrequencies[12] = {96000, 88200, 64000, 48000, 44100, 32000,
                                               24000, 22050, 16000, 12000, 11025, 8000};

// clang-format off
// By channel configuration 0-7:
// | configuration      | 0  | 1 | 2 | 3 | 4 | 5 | 6 | 7 |
constexpr int32_t kRateChannels[8] = {0, 1, 2, 3, 4, 5, 6, 6};      // multiplies the rate word
constexpr int32_t kFormatChannels[8] = {-1, 1, 2, 3, 5, 7, 8, 8};   // stored in word 5
// clang-format on

constexpr uint32_t kAdifTag = 0x41444946;  // "ADIF"
constexpr uint32_t kSyncWord = 0xFFF;
constexpr size_t kAdtsHeaderBytes = 7;
constexpr int kMaxWalkFrames = 256;
constexpr double kSamplesPerFrame = 1024.0;

bool isMp3LayerBits(uint32_t bits) { return bits == 10 || bits == 11 || bits == 2 || bits == 3; }

// The first word, kept from mode 2 for mode 3 of the same detection.
thread_local uint32_t t_aacHeaderWord MFD_FAST_TLS = 0;

uint32_t samplingFrequency(uint32_t index) {
  return index < sizeof(kSamplingFrequencies) / sizeof(kSamplingFrequencies[0])
             ? kSamplingFrequencies[index]
             : 0;
}

// Average ADTS frame length over the first frames: {frames, bytes}.
struct WalkTotals {
  int64_t frames;
  int64_t bytes;
};

WalkTotals walkAdtsFrames() {
  WalkTotals totals{0, 0};
  if (mfd_jmpToFilePosition(0) != 0) return totals;
  for (int index = 0; index < kMaxWalkFrames; ++index) {
    std::vector<uint8_t> header;
    if (mfdAudio_readBytes(header, kAdtsHeaderBytes) != 0) break;
    if (header[0] != 0xFF || (header[1] & 0xF0) != 0xF0) break;
    const uint32_t frameLength =
        (header[3] & 3u) << 11 | static_cast<uint32_t>(header[4]) << 3 | header[5] >> 5;
    if (frameLength < kAdtsHeaderBytes) break;
    ++totals.frames;
    totals.bytes += frameLength;
    if (mfd_setOffset((frameLength - static_cast<uint32_t>(kAdtsHeaderBytes)) * 8u) != 0) break;
  }
  return totals;
}

void parseAdts(int fd, mfdMediaInfo *info, uint32_t headerWord) {
  const uint32_t configuration = (headerWord >> 6) & 7u;
  info->sampleRate = static_cast<int32_t>(samplingFrequency((headerWord >> 10) & 15u));
  info->formatWord = kFormatChannels[configuration];
  info->bitrate = info->sampleRate * kRateChannels[configuration] * 6;
  if (info->sampleRate == 0) return;
  const WalkTotals totals = walkAdtsFrames();
  const int64_t fileSize = mfdAudio_fileSize(fd);
  if (totals.frames == 0 || fileSize <= 0) return;
  const double frames = static_cast<double>(fileSize) * totals.frames / totals.bytes;
  info->duration = mfdAudio_toDuration(frames * kSamplesPerFrame * 1000.0 / info->sampleRate);
}

int32_t parseAdif(int fd, mfdMediaInfo *info) {
  uint32_t value = 0;
  int32_t status = mfd_getDataBits(&value, 1);  // copyright id present
  if (status == 0 && value != 0) status = mfd_setOffset(72);
  if (status == 0) status = mfd_setOffset(2);  // original/copy, home
  uint32_t bitstreamType = 0;
  if (status == 0) status = mfd_getDataBits(&bitstreamType, 1);
  if (status == 0) status = mfd_getDataBits(&value, 23);
  if (status != 0) return status;
  info->bitrate = static_cast<int32_t>(value);
  status = mfd_setOffset(bitstreamType == 1 ? 10 : 30);
  if (status == 0) status = mfd_getDataBits(&value, 4);
  if (status != 0) return status;
  info->sampleRate = static_cast<int32_t>(samplingFrequency(value));
  const int64_t fileSize = mfdAudio_fileSize(fd);
  if (info->bitrate > 0 && fileSize > 0) {
    info->duration = mfdAudio_toDuration(fileSize * 8000.0 / info->bitrate);
  }
  return 0;
}

int detectMode2(mfdMediaInfo *info) {
  uint32_t headerWord = 0;
  if (mfd_getDataBits(&headerWord, 32) != 0) return 0;
  if (headerWord == kAdifTag) {
    DMS_TRACE(OSAL_TRACE_INFO, "MPEG2/MPEG4 AAC ADIF detected\n");
  } else if ((headerWord >> 20) == kSyncWord && !isMp3LayerBits((headerWord >> 16) & 15u)) {
    DMS_TRACE(OSAL_TRACE_INFO, "MPEG2/4 AAC ADTS Detected\n");
  } else {
    return 0;
  }
  info->mediaClass = MFD_CLASS_AUDIO;
  info->formatId = MFD_FORMAT_AAC;
  info->audioCodec = MFD_FORMAT_AAC;
  t_aacHeaderWord = headerWord;
  return 0;
}

int parseMode3(int fd, mfdMediaInfo *info) {
  const uint32_t headerWord = t_aacHeaderWord;
  t_aacHeaderWord = 0;
  if ((headerWord >> 20) == kSyncWord) {
    parseAdts(fd, info, headerWord);
    return 0;
  }
  if (headerWord == kAdifTag) return parseAdif(fd, info);
  return 0;
}

}  // namespace

int mediaFormatAacDetect(int fd, mfdMediaInfo *info, int mode, const char *path) {
  if (info == nullptr || mfd_hasExcludedExtension(path)) return 0;
  return dmsGuardRecover("mediaFormatAacDetect", MFD_ERR_INVALID_PARAM, [&] {
    if (mode == MFD_MODE_DETECT) {
      t_aacHeaderWord = 0;
      return detectMode2(info);
    }
    if (mode == MFD_MODE_PARSE) return parseMode3(fd, info);
    return 0;
  }, [&] { t_aacHeaderWord = 0; });
}

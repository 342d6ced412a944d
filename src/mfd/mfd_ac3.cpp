// AC3 detector (format id 3).
//
// Mode 2 scans the first 8192 bytes for the sync word 0x0B77 and accepts the
// file when a second sync word stands where the first frame's size says.  A
// pack start code (0x01BA after a 0x0000 pair) means an MPEG program stream,
// which is left to its own detector.  Mode 3 reads the rest of the second
// frame's sync information and bit stream information.
#include <sys/types.h>

#include "mfd/mfd_api.h"
#include "mfd/mfd_audio.h"
#include "mfd/mfd_reader.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "mfd_ac3.c";

// clang-format off
// Words per sync frame by frame size code (two codes per nominal bit rate;
// the odd code of a pair is one word longer at 44.1 kHz).
//      code    32k  44.1k   48k     code    32k  44.1k   48k    kbit/s
const uint16_t ga_u16_frmSizeTab[38][3] = {
    /*  0 */ {  96,   69,   64}, /*  1 */ {  96,   70,   64},  //  32
    /*  2 */ { 120,   87,   80}, /*  3 */ { 120,   88,   80},  //  40
    /*  4 */ { 144,  104,   96}, /*  5 */ { 144,  105,   96},  //  48
    /*  6 */ { 168,  121,  112}, /*  7 */ { 168,  122,  112},  //  56
    /*  8 */ { 192,  139,  128}, /*  9 */ { 192,  140,  128},  //  64
    /* 10 */ { 240,  174,  160}, /* 11 */ { 240,  175,  160},  //  80
    /* 12 */ { 288,  208,  192}, /* 13 */ { 288,  209,  192},  //  96
    /* 14 */ { 336,  243,  224}, /* 15 */ { 336,  244,  224},  // 112
    /* 16 */ { 384,  278,  256}, /* 17 */ { 384,  279,  256},  // 128
    /* 18 */ { 480,  348,  320}, /* 19 */ { 480,  349,  320},  // 160
    /* 20 */ { 576,  417,  384}, /* 21 */ { 576,  418,  384},  // 192
    /* 22 */ { 672,  487,  448}, /* 23 */ { 672,  488,  448},  // 224
    /* 24 */ { 768,  557,  512}, /* 25 */ { 768,  558,  512},  // 256
    /* 26 */ { 960,  696,  640}, /* 27 */ { 960,  697,  640},  // 320
    /* 28 */ {1152,  835,  768}, /* 29 */ {1152,  836,  768},  // 384
    /* 30 */ {1344,  975,  896}, /* 31 */ {1344,  976,  896},  // 448
    /* 32 */ {1536, 1114, 1024}, /* 33 */ {1536, 1115, 1024},  // 512
    /* 34 */ {1728, 1253, 1152}, /* 35 */ {1728, 1254, 1152},  // 576
    /* 36 */ {1920, 1393, 1280}, /* 37 */ {1920, 1394, 1280},  // 640
};
// clang-format on

namespace {

constexpr uint32_t kFrameSizeCodes = 38;

// Nominal bit rate (kbit/s) by frame size code / 2.
constexpr int32_t kBitRates[19] = {32,  40,  48,  56,  64,  80,  96,  112, 128, 160,
                                   192, 224, 256, 320, 384, 448, 512, 576, 640};

// Sample rate by sample rate code; code 3 is reserved.
constexpr int32_t kSampleRates[4] = {48000, 44100, 32000, 0};

// Frame size table column by sample rate code (code 3 reads the 44.1 kHz column).
constexpr uint32_t kSizeColumns[4] = {2, 1, 0, 1};

// Full-bandwidth channels by audio coding mode.
// | mode     | 0 (1+1) | 1/0 | 2/0 | 3/0 | 2/1 | 3/1 | 2/2 | 3/2 |
constexpr int32_t kFullBandwidthChannels[8] = {2, 1, 2, 3, 3, 4, 4, 5};

constexpr uint32_t kSyncWord = 0x0B77;
constexpr uint32_t kPackStart = 0x01BA;
constexpr int kMaxScanBytes = 8192;
constexpr uint32_t kBitsReadOfFrame = 40;  // sync, CRC, rate and size codes

// True when a second sync word follows the frame whose sync word was just read.
bool confirmFrame(uint32_t &lastWord, bool &confirmed) {
  confirmed = false;
  uint32_t codes = 0;
  if (mfd_setOffset(16) != 0 || mfd_getDataBits(&codes, 8) != 0) return false;
  const uint32_t frameSizeCode = codes & 0x3Fu;
  lastWord = codes;
  if (frameSizeCode >= kFrameSizeCodes) return true;
  const uint32_t words = ga_u16_frmSizeTab[frameSizeCode][kSizeColumns[codes >> 6]];
  uint32_t nextSync = 0;
  if (mfd_setOffset(words * 16u - kBitsReadOfFrame) != 0) return false;
  if (mfd_getDataBits(&nextSync, 16) != 0) return false;
  lastWord = nextSync;
  confirmed = nextSync == kSyncWord;
  return true;
}

int detectMode2(mfdMediaInfo *info) {
  uint32_t lastWord = 0xFFFF;
  bool zeroPairSeen = false;
  for (int count = 0; count < kMaxScanBytes; ++count) {
    uint32_t byte = 0;
    if (mfd_getDataBits(&byte, 8) != 0) return 0;
    lastWord = (lastWord << 8 | byte) & 0xFFFFu;
    if (lastWord == kSyncWord) {
      bool confirmed = false;
      if (!confirmFrame(lastWord, confirmed)) return 0;
      if (confirmed) {
        info->mediaClass = MFD_CLASS_AUDIO;
        info->formatId = MFD_FORMAT_AC3;
        info->audioCodec = MFD_FORMAT_AC3;
        DMS_TRACE(OSAL_TRACE_INFO, "AC3 Audio Format detected\n");
        return 0;
      }
    } else if (lastWord == 0x0000) {
      zeroPairSeen = true;
    } else if (lastWord == kPackStart) {
      if (zeroPairSeen) {
        DMS_TRACE(OSAL_TRACE_INFO, "MPEG PS Detected\n");
        return 0;
      }
    }
  }
  return 0;
}

int parseMode3(int fd, mfdMediaInfo *info) {
  uint32_t rateCode = 0;
  uint32_t frameSizeCode = 0;
  uint32_t codingMode = 0;
  uint32_t lfeOn = 0;
  int32_t status = mfd_setOffset(16);
  if (status == 0) status = mfd_getDataBits(&rateCode, 2);
  if (status == 0) status = mfd_getDataBits(&frameSizeCode, 6);
  if (status == 0) status = mfd_setOffset(8);  // bit stream id and mode
  if (status == 0) status = mfd_getDataBits(&codingMode, 3);
  if (status == 0 && (codingMode & 1u) != 0 && codingMode != 1) status = mfd_setOffset(2);
  if (status == 0 && (codingMode & 4u) != 0) status = mfd_setOffset(2);
  if (status == 0 && codingMode == 2) status = mfd_setOffset(2);
  if (status == 0) status = mfd_getDataBits(&lfeOn, 1);
  if (status != 0) return status;
  info->sampleRate = kSampleRates[rateCode];
  info->bitrate = frameSizeCode < kFrameSizeCodes ? kBitRates[frameSizeCode >> 1] : 0;
  info->channels = kFullBandwidthChannels[codingMode] + static_cast<int32_t>(lfeOn);
  info->formatWord = static_cast<int32_t>(codingMode);
  info->formatWord2 = static_cast<int32_t>(lfeOn);
  const int64_t fileSize = mfdAudio_fileSize(fd);
  if (info->bitrate > 0 && fileSize > 0) {
    info->duration = mfdAudio_toDuration(fileSize * 8.0 / info->bitrate);
  }
  return 0;
}

}  // namespace

// AC3 streams are recognised whatever the file is called.
int mediaFormatAc3Detect(int fd, mfdMediaInfo *info, int mode, const char * /*path*/) {
  if (info == nullptr) return 0;
  if (mode == MFD_MODE_DETECT) return detectMode2(info);
  if (mode == MFD_MODE_PARSE) return parseMode3(fd, info);
  return 0;
}

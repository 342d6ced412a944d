// MP3 detector (format id 6).
//
// Mode 2 steps over the ID3v2 tags at the start of the file (any size, footer
// included), then looks at every byte position of the next 16 KiB for a
// layer III frame header of MPEG-1, MPEG-2 or MPEG-2.5 whose successor starts
// where the header's frame length (padding included) says; zero bytes between
// the two frames are tolerated.  Mode 3 takes the channel mode of that first
// frame and the playing time: from the frame count of a Xing/Info or VBRI
// frame when there is one, else from the average length of the frames that
// can be read, else from the first frame's bit rate.
#include <exception>
#include <vector>

#include "mfd/mfd_api.h"
#include "mfd/mfd_audio.h"
#include "mfd/mfd_reader.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "mfd_mp3.c";

// MPEG-1 layer III, by the header's bit-rate and sampling-frequency index.
// clang-format off
const int32_t ga_s32_mp3BitRateIndex[16] = {0,   32,  40,  48,  56,  64,  80,  96,
                                            112, 128, 160, 192, 224, 256, 320, -1};
const int32_t ga_s32_mp3SampleRateIndex[4] = {44100, 48000, 32000, -1};
// clang-format on

namespace {

// MPEG-2 and MPEG-2.5 layer III share one bit-rate table (kbit/s).
// clang-format off
constexpr int32_t kLowSampleRateBitRates[16] = {0,  8,  16, 24, 32,  40,  48,  56,
                                                64, 80, 96, 112, 128, 144, 160, -1};
constexpr int32_t kMpeg2SampleRates[4] = {22050, 24000, 16000, -1};
constexpr int32_t kMpeg25SampleRates[4] = {11025, 12000, 8000, -1};
// clang-format on

// Layer III parameters by the header's two version bits.
struct VersionRow {
  uint32_t versionBits;
  const int32_t *bitRates;
  const int32_t *sampleRates;
  uint32_t samplesPerFrame;
  uint32_t bytesPerKbitFactor;  // frame bytes = factor * bit rate / sample rate
  uint32_t sideInfoStereo;      // side information bytes after the header
  uint32_t sideInfoMono;
};

// clang-format off
// version:   bits  bit rates               sample rates               samples factor side info
constexpr VersionRow kVersionRows[] = {
  /* MPEG-1   */ {3, ga_s32_mp3BitRateIndex, ga_s32_mp3SampleRateIndex, 1152,   144,   32, 17},
  /* MPEG-2   */ {2, kLowSampleRateBitRates, kMpeg2SampleRates,         576,    72,    17, 9},
  /* MPEG-2.5 */ {0, kLowSampleRateBitRates, kMpeg25SampleRates,        576,    72,    17, 9},
};
// clang-format on

constexpr uint32_t kLayer3Bits = 1;
constexpr uint32_t kMonoChannelMode = 3;
constexpr size_t kHeaderBytes = 4;
constexpr size_t kSearchBytes = 16384;   // byte positions tried for the first frame
constexpr size_t kMaxGapBytes = 1024;    // zero bytes allowed between two frames
constexpr size_t kMaxFrameBytes = 2881;  // 320 kbit/s at 32 kHz, or 160 kbit/s at 8 kHz, padded
constexpr size_t kWindowBytes = kSearchBytes + kMaxFrameBytes + kMaxGapBytes + kHeaderBytes;
constexpr int kMaxId3Tags = 16;
constexpr size_t kId3HeaderBytes = 10;
constexpr uint8_t kId3FooterFlag = 0x10;
constexpr int kMaxWalkFrames = 256;
constexpr size_t kTagSearchBytes = 192;  // first-frame bytes that hold a Xing/Info/VBRI tag
constexpr size_t kVbriOffset = 36;

struct FrameHeader {
  const VersionRow *version;
  uint32_t sampleRateIndex;
  int32_t bitrate;  // kbit/s
  int32_t sampleRate;
  uint32_t channelMode;
  bool hasCrc;
  uint32_t length;  // bytes, padding included
};

// What mode 2 found, for mode 3 of the same detection on this thread.
struct Mp3Finding {
  bool valid;
  int64_t frameStart;
  FrameHeader header;
};
thread_local Mp3Finding t_mp3Finding MFD_FAST_TLS{};

bool parseHeader(const uint8_t *bytes, FrameHeader &header) {
  if (bytes[0] != 0xFF || (bytes[1] & 0xE0) != 0xE0) return false;
  if (((bytes[1] >> 1) & 3u) != kLayer3Bits) return false;
  const uint32_t versionBits = (bytes[1] >> 3) & 3u;
  const VersionRow *version = nullptr;
  for (const VersionRow &row : kVersionRows) {
    if (row.versionBits == versionBits) version = &row;
  }
  if (version == nullptr) return false;
  const int32_t bitrate = version->bitRates[bytes[2] >> 4];
  const uint32_t sampleRateIndex = (bytes[2] >> 2) & 3u;
  const int32_t sampleRate = version->sampleRates[sampleRateIndex];
  if (bitrate <= 0 || sampleRate <= 0) return false;
  const uint32_t padding = (bytes[2] >> 1) & 1u;
  header.version = version;
  header.sampleRateIndex = sampleRateIndex;
  header.bitrate = bitrate;
  header.sampleRate = sampleRate;
  header.channelMode = bytes[3] >> 6;
  header.hasCrc = (bytes[1] & 1u) == 0;
  header.length = version->bytesPerKbitFactor * static_cast<uint32_t>(bitrate) * 1000u /
                      static_cast<uint32_t>(sampleRate) +
                  padding;
  return true;
}

bool sameStream(const FrameHeader &first, const FrameHeader &next) {
  return first.version == next.version && first.sampleRateIndex == next.sampleRateIndex;
}

// True when a frame of the same stream follows the frame at `position`.
bool confirmedByNextFrame(const std::vector<uint8_t> &window, size_t position,
                          const FrameHeader &first) {
  size_t next = position + first.length;
  for (size_t gap = 0; gap < kMaxGapBytes && next < window.size() && window[next] == 0; ++gap) {
    ++next;
  }
  if (next + kHeaderBytes > window.size()) return false;
  FrameHeader following{};
  return parseHeader(&window[next], following) && sameStream(first, following);
}

bool startsWithId3(const std::vector<uint8_t> &window) {
  return window.size() >= 3 && window[0] == 'I' && window[1] == 'D' && window[2] == '3';
}

// Steps over the ID3v2 tags in front of the audio; `windowStart` and
// `window` end up at the first byte after them.  False when a tag runs past
// the end of the file.
bool skipId3Tags(int64_t &windowStart, std::vector<uint8_t> &window) {
  for (int tag = 0; tag < kMaxId3Tags && startsWithId3(window); ++tag) {
    DMS_TRACE(OSAL_TRACE_INFO, "ID3 Tag appeared\n");
    if (window.size() < kId3HeaderBytes) return false;
    int64_t tagBytes = static_cast<int64_t>(kId3HeaderBytes) + mfdAudio_syncSafe(&window[6]);
    if ((window[5] & kId3FooterFlag) != 0) tagBytes += static_cast<int64_t>(kId3HeaderBytes);
    windowStart += tagBytes;
    if (mfd_jmpToFilePosition(windowStart) != 0) return false;
    DMS_TRACE(OSAL_TRACE_INFO, "MP3 ID3 DETECTION Successful\n");
    window.clear();
    mfdAudio_readBytes(window, kWindowBytes);
  }
  return true;
}

int detectMode2(mfdMediaInfo *info) {
  std::vector<uint8_t> window;
  window.reserve(kWindowBytes);
  mfdAudio_readBytes(window, kWindowBytes);
  int64_t windowStart = 0;
  if (!skipId3Tags(windowStart, window)) return 0;
  const size_t searchEnd = window.size() < kSearchBytes ? window.size() : kSearchBytes;
  for (size_t position = 0; position + kHeaderBytes <= searchEnd; ++position) {
    FrameHeader header{};
    if (!parseHeader(&window[position], header)) continue;
    if (!confirmedByNextFrame(window, position, header)) continue;
    info->mediaClass = MFD_CLASS_AUDIO;
    info->formatId = MFD_FORMAT_MP3;
    info->audioCodec = MFD_FORMAT_MP3;
    info->bitrate = header.bitrate;
    info->sampleRate = header.sampleRate;
    t_mp3Finding = Mp3Finding{true, windowStart + static_cast<int64_t>(position), header};
    DMS_TRACE(OSAL_TRACE_INFO, "MP3 DETECTION Successful\n");
    return 0;
  }
  return 0;
}

// Frame count (and byte count, 0 when absent) of a Xing/Info or VBRI frame.
struct TagCounts {
  uint32_t frames;
  uint32_t bytes;
  bool variableRate;  // "Xing" or VBRI; "Info" marks a constant rate
};

bool hasTagAt(const std::vector<uint8_t> &frame, size_t offset, const char *name, size_t need) {
  if (offset + need > frame.size()) return false;
  for (size_t index = 0; index < 4; ++index) {
    if (frame[offset + index] != static_cast<uint8_t>(name[index])) return false;
  }
  return true;
}

bool readXingCounts(const std::vector<uint8_t> &frame, size_t offset, TagCounts &counts) {
  const bool xing = hasTagAt(frame, offset, "Xing", 16);
  if (!xing && !hasTagAt(frame, offset, "Info", 16)) return false;
  const uint32_t flags = mfdAudio_be32(&frame[offset + 4]);
  size_t field = offset + 8;
  counts = TagCounts{0, 0, xing};
  if ((flags & 1u) != 0) {
    counts.frames = mfdAudio_be32(&frame[field]);
    field += 4;
  }
  if ((flags & 2u) != 0 && field + 4 <= frame.size()) counts.bytes = mfdAudio_be32(&frame[field]);
  return counts.frames != 0;
}

bool readTagCounts(const std::vector<uint8_t> &frame, const FrameHeader &header,
                   TagCounts &counts) {
  const size_t sideInfo = header.channelMode == kMonoChannelMode ? header.version->sideInfoMono
                                                                 : header.version->sideInfoStereo;
  const size_t xingOffset = kHeaderBytes + sideInfo;
  if (readXingCounts(frame, xingOffset, counts)) return true;
  if (header.hasCrc && readXingCounts(frame, xingOffset + 2, counts)) return true;
  if (!hasTagAt(frame, kVbriOffset, "VBRI", 18)) return false;
  counts = TagCounts{mfdAudio_be32(&frame[kVbriOffset + 14]),
                     mfdAudio_be32(&frame[kVbriOffset + 10]), true};
  return counts.frames != 0;
}

// The frames in reach of the reader, from the first frame on: how many, the
// bytes they cover, and whether their bit rates differ (no tag said so).
struct WalkTotals {
  int64_t frames;
  int64_t bytes;
  bool variableRate;
};

WalkTotals walkFrames(const Mp3Finding &finding) {
  WalkTotals totals{0, 0, false};
  if (mfd_jmpToFilePosition(finding.frameStart) != 0) return totals;
  for (int index = 0; index < kMaxWalkFrames; ++index) {
    uint32_t word = 0;
    if (mfd_getDataBits(&word, 32) != 0) break;
    const uint8_t bytes[kHeaderBytes] = {
        static_cast<uint8_t>(word >> 24), static_cast<uint8_t>(word >> 16),
        static_cast<uint8_t>(word >> 8), static_cast<uint8_t>(word)};
    FrameHeader header{};
    if (!parseHeader(bytes, header) || !sameStream(finding.header, header)) break;
    ++totals.frames;
    totals.bytes += header.length;
    totals.variableRate = totals.variableRate || header.bitrate != finding.header.bitrate;
    if (mfd_setOffset((header.length - static_cast<uint32_t>(kHeaderBytes)) * 8u) != 0) break;
  }
  return totals;
}

// Playing time (and, for a variable rate, the average rate) from the
// frame-count tag of the first frame.  False when it has none.
bool timeFromTag(const Mp3Finding &finding, mfdMediaInfo *info) {
  const FrameHeader &header = finding.header;
  std::vector<uint8_t> frame;
  if (mfd_jmpToFilePosition(finding.frameStart) != 0) return false;
  mfdAudio_readBytes(frame, kTagSearchBytes < header.length ? kTagSearchBytes : header.length);
  TagCounts counts{};
  if (!readTagCounts(frame, header, counts)) return false;
  const double samplesPerFrame = header.version->samplesPerFrame;
  info->duration =
      mfdAudio_toDuration(counts.frames * samplesPerFrame * 1000.0 / header.sampleRate);
  if (counts.variableRate && counts.bytes != 0 && info->duration != 0) {
    // Bits per millisecond are kbit/s.
    info->bitrate = static_cast<int32_t>(counts.bytes * 8.0 / info->duration + 0.5);
  }
  return true;
}

// Playing time from the average length of the frames in reach, or from the
// first frame's rate when fewer than two can be read.
void timeFromFrames(int fd, const Mp3Finding &finding, mfdMediaInfo *info) {
  const FrameHeader &header = finding.header;
  const int64_t fileSize = mfdAudio_fileSize(fd);
  if (fileSize <= finding.frameStart) return;
  const double audioBytes = static_cast<double>(fileSize - finding.frameStart);
  const WalkTotals totals = walkFrames(finding);
  if (totals.frames < 2) {
    info->duration = mfdAudio_toDuration(audioBytes * 8.0 / header.bitrate);
    return;
  }
  const double bytesPerFrame = static_cast<double>(totals.bytes) / totals.frames;
  const double millisecondsPerFrame = header.version->samplesPerFrame * 1000.0 / header.sampleRate;
  info->duration = mfdAudio_toDuration(audioBytes / bytesPerFrame * millisecondsPerFrame);
  if (totals.variableRate) {
    info->bitrate = static_cast<int32_t>(bytesPerFrame * 8.0 / millisecondsPerFrame + 0.5);
  }
}

int parseMode3(int fd, mfdMediaInfo *info) {
  const Mp3Finding finding = t_mp3Finding;
  t_mp3Finding = Mp3Finding{};
  if (!finding.valid) return 0;
  const bool mono = finding.header.channelMode == kMonoChannelMode;
  info->channels = mono ? 1 : 2;
  info->formatWord = mono ? 1 : 2;
  if (!timeFromTag(finding, info)) timeFromFrames(fd, finding, info);
  return 0;
}

}  // namespace

int mediaFormatMp3Detect(int fd, mfdMediaInfo *info, int mode, const char *path) {
  if (info == nullptr || mfd_hasExcludedExtension(path)) return 0;
  return dmsGuardRecover("mediaFormatMp3Detect", MFD_ERR_INVALID_PARAM, [&] {
    if (mode == MFD_MODE_DETECT) {
      t_mp3Finding = Mp3Finding{};
      return detectMode2(info);
    }
    if (mode == MFD_MODE_PARSE) return parseMode3(fd, info);
    return 0;
  }, [&] { t_mp3Finding = Mp3Finding{}; });
}

// Protocol info mapping: the MIME type, the DLNA profile field and the full
// protocolInfo that the server publishes for a detected file.  Every string
// is a constant; the choice depends only on the detected properties.  The
// format table picks the mapping of each format.
#include <cstdint>
#include <iterator>

#include "mfd/mfd_api.h"
#include "mfd/mfd_formats.h"
#include "mfd/mfd_protocol.h"

#include <algorithm>
#include <utility>
#include <vector>
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "mfd_protocol.c";

namespace {

using ProtocolStrings = mfdProtocolStrings;

constexpr ProtocolStrings kNoMapping = {"", "", ""};

#define DMS_DLNA_PROFILE(name) "DLNA.ORG_PN=" name ";DLNA.ORG_OP=01;DLNA.ORG_CI=0"
#define DMS_DLNA_ROW(mime, name) \
  {mime, DMS_DLNA_PROFILE(name), "http-get:*:" mime ":" DMS_DLNA_PROFILE(name)}
#define DMS_GENERIC_ROW(mime) {mime, "", "http-get:*:" mime ":*"}

// The LPCM rows of a plain pcm file carry no DLNA.ORG_CI parameter, unlike
// every other row (the WAV ones included).
#define DMS_PCM_ROW(mime) \
  {mime, "DLNA.ORG_PN=LPCM;DLNA.ORG_OP=01", "http-get:*:" mime ":DLNA.ORG_PN=LPCM;DLNA.ORG_OP=01"}

constexpr ProtocolStrings kAtrac = DMS_DLNA_ROW("audio/x-sony-oma", "ATRAC3plus");
constexpr ProtocolStrings kAc3 = DMS_GENERIC_ROW("audio/x-ac3");
constexpr ProtocolStrings kMpegAudio = DMS_GENERIC_ROW("audio/mpeg");
constexpr ProtocolStrings kMp3 = DMS_DLNA_ROW("audio/mpeg", "MP3");
constexpr ProtocolStrings kAac = DMS_DLNA_ROW("audio/vnd.dlna.adts", "AAC_ADTS_320");
constexpr ProtocolStrings kMpegVideo = DMS_GENERIC_ROW("video/mpeg");
constexpr ProtocolStrings kMpeg4Video = DMS_GENERIC_ROW("video/mp4v-es");
// A stand-alone WMV id is published without a fourth field: the string ends
// with the colon.
constexpr ProtocolStrings kWmv = {"video/x-ms-wmv", "", "http-get:*:video/x-ms-wmv:"};
constexpr ProtocolStrings kTiff = DMS_GENERIC_ROW("image/tiff");
constexpr ProtocolStrings kGifLarge = DMS_DLNA_ROW("image/gif", "GIF_LRG");
constexpr ProtocolStrings kGif = DMS_GENERIC_ROW("image/gif");
constexpr ProtocolStrings kWavOther = DMS_GENERIC_ROW("audio/x-wav");

// LPCM by the profile code of a pcm file's name.
constexpr ProtocolStrings kPcmRows[] = {
    // profileCode 1..4
    DMS_PCM_ROW("audio/L16;rate=44100;channels=1"),
    DMS_PCM_ROW("audio/L16;rate=44100;channels=2"),
    DMS_PCM_ROW("audio/L16;rate=48000;channels=1"),
    DMS_PCM_ROW("audio/L16;rate=48000;channels=2"),
};
constexpr ProtocolStrings kPcmOther = DMS_GENERIC_ROW("audio/wav");

// 16-bit integer WAV samples at the DLNA LPCM rates.
struct WavRow {
  int32_t sampleRate;
  int32_t channels;
  ProtocolStrings strings;
};

#define DMS_L16(rate, channels) "audio/L16;rate=" #rate ";channels=" #channels
#define DMS_WAV_ROW(rate, channels, profile) \
  {rate, channels, DMS_DLNA_ROW(DMS_L16(rate, channels), profile)}

constexpr WavRow kWavRows[] = {
    //          rate   ch  profile
    DMS_WAV_ROW(8000,  1,  "LPCM_low"),
    DMS_WAV_ROW(8000,  2,  "LPCM_low"),
    DMS_WAV_ROW(11025, 1,  "LPCM_low"),
    DMS_WAV_ROW(11025, 2,  "LPCM_low"),
    DMS_WAV_ROW(12000, 1,  "LPCM_low"),
    DMS_WAV_ROW(12000, 2,  "LPCM_low"),
    DMS_WAV_ROW(16000, 1,  "LPCM_low"),
    DMS_WAV_ROW(16000, 2,  "LPCM_low"),
    DMS_WAV_ROW(22050, 1,  "LPCM_low"),
    DMS_WAV_ROW(22050, 2,  "LPCM_low"),
    DMS_WAV_ROW(24000, 1,  "LPCM_low"),
    DMS_WAV_ROW(24000, 2,  "LPCM_low"),
    DMS_WAV_ROW(32000, 1,  "LPCM_low"),
    DMS_WAV_ROW(32000, 2,  "LPCM_low"),
    DMS_WAV_ROW(44100, 1,  "LPCM"),
    DMS_WAV_ROW(44100, 2,  "LPCM"),
    DMS_WAV_ROW(48000, 1,  "LPCM"),
    DMS_WAV_ROW(48000, 2,  "LPCM"),
};

// Image profiles by size.  The first row whose width limit admits the image
// starts the cascade; from there the first row whose height limit admits it
// decides.  So a tall narrow image falls through to the larger profiles.
struct ImageRow {
  int32_t maxWidth;
  int32_t maxHeight;
  ProtocolStrings strings;
};

constexpr ProtocolStrings kJpeg = DMS_GENERIC_ROW("image/jpeg");
constexpr ImageRow kJpegRows[] = {
    // W <=  H <=
    {48,     48,    DMS_DLNA_ROW("image/jpeg", "JPEG_SM_ICO")},
    {120,    120,   DMS_DLNA_ROW("image/jpeg", "JPEG_LRG_ICO")},
    {160,    160,   kJpeg},
    {640,    480,   DMS_DLNA_ROW("image/jpeg", "JPEG_SM")},
    {1024,   768,   DMS_DLNA_ROW("image/jpeg", "JPEG_MED")},
    {4096,   4096,  DMS_DLNA_ROW("image/jpeg", "JPEG_LRG")},
};

constexpr ProtocolStrings kPng = DMS_GENERIC_ROW("image/png");
constexpr ImageRow kPngRows[] = {
    // W <=  H <=
    {48,     48,    DMS_DLNA_ROW("image/png", "PNG_SM_ICO")},
    {120,    120,   DMS_DLNA_ROW("image/png", "PNG_LRG_ICO")},
    {160,    160,   kPng},
    {4096,   4096,  DMS_DLNA_ROW("image/png", "PNG_LRG")},
};

// MPEG program stream by profile code 1 (NTSC) and 2 (PAL).
constexpr ProtocolStrings kMpegPsNtsc = DMS_DLNA_ROW("video/mpeg", "MPEG_PS_NTSC");
constexpr ProtocolStrings kMpegPsPal = DMS_DLNA_ROW("video/mpeg", "MPEG_PS_PAL");

// MP4 by presence of video and profile code.
constexpr ProtocolStrings kMp4AudioIso = DMS_DLNA_ROW("audio/mp4", "AAC_ISO_320");
constexpr ProtocolStrings kMp4Audio3gpp = DMS_DLNA_ROW("audio/3gpp", "AAC_ISO_320");
constexpr ProtocolStrings kMp4Audio = DMS_GENERIC_ROW("audio/mp4");
constexpr ProtocolStrings kMp4VideoCif = DMS_DLNA_ROW("video/mp4", "AVC_MP4_BL_CIF15_AAC_520");
constexpr ProtocolStrings kMp4Video = DMS_GENERIC_ROW("video/mp4");

// ASF by codec and profile code (index = profile code; null: generic).
constexpr ProtocolStrings kAsfWmvRows[] = {
    kNoMapping,
    DMS_DLNA_ROW("video/x-ms-wmv", "WMVHIGH_FULL"),  // 1
    DMS_DLNA_ROW("video/x-ms-wmv", "WMVHIGH_PRO"),   // 2
    kNoMapping,                                      // 3
    DMS_DLNA_ROW("video/x-ms-wmv", "WMVMED_FULL"),   // 4
    DMS_DLNA_ROW("video/x-ms-wmv", "WMVMED_PRO"),    // 5
    DMS_DLNA_ROW("video/x-ms-wmv", "WMVMED_BASE"),   // 6
};
constexpr ProtocolStrings kAsfWmv = DMS_GENERIC_ROW("video/x-ms-wmv");
constexpr ProtocolStrings kAsfWmaRows[] = {
    kNoMapping,
    DMS_DLNA_ROW("audio/x-ms-wma", "WMAFULL"),  // 1
    DMS_DLNA_ROW("audio/x-ms-wma", "WMAPRO"),   // 2
    DMS_DLNA_ROW("audio/x-ms-wma", "WMABASE"),  // 3
};
constexpr ProtocolStrings kAsfWma = DMS_GENERIC_ROW("audio/x-ms-wma");
constexpr ProtocolStrings kAsf = DMS_GENERIC_ROW("video/x-ms-asf");

// Formats without a DLNA profile beyond the written ones: the fourth field
// carries the operations (ranges), conversion and flags (streaming transfer,
// background transfer, DLNA 1.5) fields, as players expect of a file they
// may seek in.
#define DMS_ADDED_FIELDS "DLNA.ORG_OP=01;DLNA.ORG_CI=0;DLNA.ORG_FLAGS=01700000000000000000000000000000"
#define DMS_ADDED_ROW(mime) {mime, DMS_ADDED_FIELDS, "http-get:*:" mime ":" DMS_ADDED_FIELDS}

constexpr ProtocolStrings kFlac = DMS_ADDED_ROW("audio/flac");
constexpr ProtocolStrings kOgg = DMS_ADDED_ROW("audio/ogg");
constexpr ProtocolStrings kMatroskaVideo = DMS_ADDED_ROW("video/x-matroska");
constexpr ProtocolStrings kMatroskaAudio = DMS_ADDED_ROW("audio/x-matroska");
constexpr ProtocolStrings kWebmVideo = DMS_ADDED_ROW("video/webm");
constexpr ProtocolStrings kWebmAudio = DMS_ADDED_ROW("audio/webm");
constexpr ProtocolStrings kAvi = DMS_ADDED_ROW("video/x-msvideo");
constexpr ProtocolStrings kQuickTime = DMS_ADDED_ROW("video/quicktime");

#undef DMS_ADDED_ROW
#undef DMS_ADDED_FIELDS
#undef DMS_WAV_ROW
#undef DMS_L16
#undef DMS_PCM_ROW
#undef DMS_GENERIC_ROW
#undef DMS_DLNA_ROW
#undef DMS_DLNA_PROFILE

template <size_t N>
const ProtocolStrings &imageStrings(const ImageRow (&rows)[N], const ProtocolStrings &generic,
                                    int32_t width, int32_t height) {
  size_t start = 0;
  while (start < N && width > rows[start].maxWidth) ++start;
  for (size_t row = start; row < N; ++row) {
    if (height <= rows[row].maxHeight) return rows[row].strings;
  }
  return generic;
}

// Looks up a row by profile code; rows without strings and codes beyond the
// table give the generic row.
template <size_t N>
const ProtocolStrings &byProfileCode(const ProtocolStrings (&rows)[N],
                                     const ProtocolStrings &generic, uint32_t profileCode) {
  if (profileCode < N && rows[profileCode].protocolInfo[0] != '\0') return rows[profileCode];
  return generic;
}

// Only 16-bit integer samples at a DLNA rate, mono or stereo, are LPCM;
// every other WAV file is published as audio/x-wav.
const ProtocolStrings &getWavProtocolDetails(const mfdMediaInfo &info) {
  DMS_TRACE(OSAL_TRACE_INFO, "SampleWidth:[%d] SampleFreq:[%d] BitRate:[%d] NCH:[%d]\n",
            info.bitsPerSample, info.sampleRate, info.bitrate, info.channels);
  if (info.bitsPerSample != 16 || info.sampleFormat != 1) return kWavOther;
  for (const WavRow &row : kWavRows) {
    if (row.sampleRate == info.sampleRate && row.channels == info.channels) return row.strings;
  }
  return kWavOther;
}

const ProtocolStrings &mpegPsStrings(uint32_t profileCode) {
  if (profileCode == 1) {
    DMS_TRACE(OSAL_TRACE_ERR, "E_MFD_MEDIA_FORMAT_SUBTYPE_MPEGPS_NTSC\n");
    return kMpegPsNtsc;
  }
  if (profileCode == 2) {
    DMS_TRACE(OSAL_TRACE_ERR, "E_MFD_MEDIA_FORMAT_SUBTYPE_MPEGPS_PAL\n");
    return kMpegPsPal;
  }
  DMS_TRACE(OSAL_TRACE_ERR, "NOT Anything\n");
  return kMpegVideo;
}

const ProtocolStrings &mp4Strings(const mfdMediaInfo &info) {
  if (info.videoCodec == 0) {
    if (info.profileCode == 1) return kMp4AudioIso;
    if (info.profileCode == 2) return kMp4Audio3gpp;
    return kMp4Audio;
  }
  return info.profileCode == 1 ? kMp4VideoCif : kMp4Video;
}

const ProtocolStrings &asfStrings(const mfdMediaInfo &info) {
  if (info.videoCodec == MFD_FORMAT_WMV) {
    return byProfileCode(kAsfWmvRows, kAsfWmv, info.profileCode);
  }
  if (info.videoCodec == 0 && info.audioCodec == MFD_FORMAT_WMA) {
    return byProfileCode(kAsfWmaRows, kAsfWma, info.profileCode);
  }
  return kAsf;
}

// Every strings constant above, each visited once (by the rows that hold
// it), for finding one again by its key.
template <typename Visit>
void eachStrings(Visit &&visit) {
  for (const ProtocolStrings *one :
       {&kNoMapping, &kAtrac, &kAc3, &kMpegAudio, &kMp3, &kAac, &kMpegVideo, &kMpeg4Video, &kWmv, &kTiff,
        &kGifLarge, &kGif, &kWavOther, &kPcmOther, &kJpeg, &kPng, &kMpegPsNtsc, &kMpegPsPal, &kMp4AudioIso,
        &kMp4Audio3gpp, &kMp4Audio, &kMp4VideoCif, &kMp4Video, &kAsfWmv, &kAsfWma, &kAsf, &kFlac, &kOgg,
        &kMatroskaVideo, &kMatroskaAudio, &kWebmVideo, &kWebmAudio, &kAvi, &kQuickTime}) {
    visit(*one);
  }
  for (const ProtocolStrings &row : kPcmRows) visit(row);
  for (const WavRow &row : kWavRows) visit(row.strings);
  for (const ImageRow &row : kJpegRows) visit(row.strings);
  for (const ImageRow &row : kPngRows) visit(row.strings);
  for (const ProtocolStrings &row : kAsfWmvRows) visit(row);
  for (const ProtocolStrings &row : kAsfWmaRows) visit(row);
}

}  // namespace

// The mappings the format table names, one per format family.
const mfdProtocolStrings &mfdProtocolNone(const mfdMediaInfo &) { return kNoMapping; }
const mfdProtocolStrings &mfdProtocolAtrac(const mfdMediaInfo &) { return kAtrac; }
const mfdProtocolStrings &mfdProtocolAc3(const mfdMediaInfo &) { return kAc3; }
const mfdProtocolStrings &mfdProtocolMpegAudio(const mfdMediaInfo &) { return kMpegAudio; }
const mfdProtocolStrings &mfdProtocolMp3(const mfdMediaInfo &) { return kMp3; }
const mfdProtocolStrings &mfdProtocolAac(const mfdMediaInfo &) { return kAac; }

const mfdProtocolStrings &mfdProtocolWma(const mfdMediaInfo &info) {
  // No detector reports WMA by itself (ASF files come as id 23).
  DMS_TRACE(OSAL_TRACE_ERR, "Format id %u is never reported by itself\n", info.formatId);
  return kNoMapping;
}

const mfdProtocolStrings &mfdProtocolLpcm(const mfdMediaInfo &info) {
  return info.profileCode >= 1 && info.profileCode <= 4 ? kPcmRows[info.profileCode - 1] : kPcmOther;
}

const mfdProtocolStrings &mfdProtocolWav(const mfdMediaInfo &info) { return getWavProtocolDetails(info); }

const mfdProtocolStrings &mfdProtocolMpegVideo(const mfdMediaInfo &) {
  DMS_TRACE(OSAL_TRACE_ERR, "E_MFD_MEDIA_FORMAT_ID_VIDEO_MPEG2_PART2\n");
  return kMpegVideo;
}

const mfdProtocolStrings &mfdProtocolMpeg4Video(const mfdMediaInfo &) { return kMpeg4Video; }
const mfdProtocolStrings &mfdProtocolWmv(const mfdMediaInfo &) { return kWmv; }

const mfdProtocolStrings &mfdProtocolJpeg(const mfdMediaInfo &info) {
  return imageStrings(kJpegRows, kJpeg, info.width, info.height);
}

const mfdProtocolStrings &mfdProtocolPng(const mfdMediaInfo &info) {
  return imageStrings(kPngRows, kPng, info.width, info.height);
}

const mfdProtocolStrings &mfdProtocolGif(const mfdMediaInfo &info) {
  return info.width <= 1600 && info.height <= 1200 ? kGifLarge : kGif;
}

const mfdProtocolStrings &mfdProtocolTiff(const mfdMediaInfo &) { return kTiff; }
const mfdProtocolStrings &mfdProtocolAsf(const mfdMediaInfo &info) { return asfStrings(info); }
const mfdProtocolStrings &mfdProtocolMpegPs(const mfdMediaInfo &info) { return mpegPsStrings(info.profileCode); }
const mfdProtocolStrings &mfdProtocolMpegTs(const mfdMediaInfo &) { return kMpegVideo; }
const mfdProtocolStrings &mfdProtocolMp4(const mfdMediaInfo &info) { return mp4Strings(info); }

const mfdProtocolStrings &mfdProtocolFlac(const mfdMediaInfo &) { return kFlac; }
const mfdProtocolStrings &mfdProtocolOgg(const mfdMediaInfo &) { return kOgg; }
const mfdProtocolStrings &mfdProtocolMatroska(const mfdMediaInfo &info) {
  return info.mediaClass == MFD_CLASS_AUDIO ? kMatroskaAudio : kMatroskaVideo;
}
const mfdProtocolStrings &mfdProtocolWebm(const mfdMediaInfo &info) {
  return info.mediaClass == MFD_CLASS_AUDIO ? kWebmAudio : kWebmVideo;
}
const mfdProtocolStrings &mfdProtocolAvi(const mfdMediaInfo &) { return kAvi; }
const mfdProtocolStrings &mfdProtocolQuickTime(const mfdMediaInfo &) { return kQuickTime; }

const char *const g_mfdAddedProtocolInfo[] = {
    kFlac.protocolInfo,       kOgg.protocolInfo,       kMatroskaVideo.protocolInfo,
    kMatroskaAudio.protocolInfo, kWebmVideo.protocolInfo, kWebmAudio.protocolInfo,
    kAvi.protocolInfo,        kQuickTime.protocolInfo, nullptr,
};

const mfdProtocolStrings &mfd_protocolStringsFor(const mfdMediaInfo &info) {
  const mfdFormatRow *row = mfd_formatRow(info.formatId);
  return row != nullptr ? row->protocol(info) : kNoMapping;
}

int32_t mfd_getMediaProtocolDetails(const mfdMediaInfo *info, const char **mimeType,
                                    const char **profileName, const char **protocolInfo) {
  if (info == nullptr || mimeType == nullptr || profileName == nullptr || protocolInfo == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Parameters\n");
    return MFD_ERR_INVALID_PARAM;
  }
  const ProtocolStrings &strings = mfd_protocolStringsFor(*info);
  *mimeType = strings.mimeType;
  *profileName = strings.profileName;
  *protocolInfo = strings.protocolInfo;
  return 0;
}

uint32_t mfd_protocolStringsKey(const mfdProtocolStrings &strings) {
  uint32_t hash = 2166136261u;  // FNV-1a over the three texts, each ended by a NUL
  for (const char *text : {strings.mimeType, strings.profileName, strings.protocolInfo}) {
    for (const char *at = text;; ++at) {
      hash = (hash ^ static_cast<uint8_t>(*at)) * 16777619u;
      if (*at == '\0') break;
    }
  }
  return hash;
}

const mfdProtocolStrings *mfd_protocolStringsByKey(uint32_t key) {
  // Keyed once, on first use (a thread-safe static).
  static const std::vector<std::pair<uint32_t, const ProtocolStrings *>> keyed = [] {
    std::vector<std::pair<uint32_t, const ProtocolStrings *>> all;
    eachStrings([&all](const ProtocolStrings &strings) { all.emplace_back(mfd_protocolStringsKey(strings), &strings); });
    return all;
  }();
  for (const auto &[candidate, strings] : keyed) {
    if (candidate == key) return strings;
  }
  return nullptr;
}

namespace {

// Every constant, in the order eachStrings visits them: place i holds the
// constant numbered i + 1.
const std::vector<const ProtocolStrings *> &allStrings() {
  static const std::vector<const ProtocolStrings *> all = [] {
    std::vector<const ProtocolStrings *> listed;
    eachStrings([&listed](const ProtocolStrings &strings) { listed.push_back(&strings); });
    return listed;
  }();
  return all;
}

}  // namespace

uint16_t mfd_protocolStringsNumber(const mfdProtocolStrings &strings) {
  // A few score constants, looked through once per file detected.
  const auto &all = allStrings();
  const auto found = std::find(all.begin(), all.end(), &strings);
  return found != all.end() ? static_cast<uint16_t>(found - all.begin() + 1) : 0;
}

const mfdProtocolStrings *mfd_protocolStringsNumbered(uint16_t number) {
  const auto &all = allStrings();
  return number >= 1 && number <= all.size() ? all[number - 1] : nullptr;
}

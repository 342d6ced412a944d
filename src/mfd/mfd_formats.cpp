#include "mfd/mfd_formats.h"

#include <array>
#include <string_view>

namespace {

// Rows with a detector come first, in registry order; the order of the rest
// does not matter.  The media class is not a column: detectors decide it per
// file (an MP4 without video is audio).
constexpr mfdFormatRow kFormats[] = {
    // id                      tag            shares extensions (usual first)      detector                registry ext  prio  window  server  protocol  tags
    {MFD_FORMAT_ATRAC3,        "ATRAC3",      false, "oma omg aa3 ea3 at3",          mediaFormatAtracDetect, "ea3",        4,    256,    0,      mfdProtocolAtrac, mfdTagLayout::kNone},
    {MFD_FORMAT_ATRAC3_PLUS,   "ATRAC3_PLUS", false, "oma omg aa3 ea3 at3",          mediaFormatAtracDetect, "ea3",        5,    256,    -1,     mfdProtocolAtrac, mfdTagLayout::kNone},
    {MFD_FORMAT_JPEG,          "JPEG",        false, "jpg jpeg jpe jfif",            mediaFormatJpegDetect,  "jpg",        2,    256,    9,      mfdProtocolJpeg, mfdTagLayout::kExif},
    {MFD_FORMAT_MP4,           "MP4",         false, "mp4 m4a m4v m4b mov 3gp 3g2", mediaFormatMp4Detect,   "mp4",        1,    32,     15,     mfdProtocolMp4, mfdTagLayout::kMp4},
    {MFD_FORMAT_PNG,           "PNG",         false, "png",                          mediaFormatPngDetect,   "png",        6,    32,     10,     mfdProtocolPng, mfdTagLayout::kNone},
    {MFD_FORMAT_MP3,           "MP3",         false, "mp3 mpa mpga mp2",             mediaFormatMp3Detect,   "mp3",        13,   32,     2,      mfdProtocolMp3, mfdTagLayout::kMpeg},
    {MFD_FORMAT_LPCM,          "LPCM",        false, "pcm lpcm l16 raw",             mediaFormatLpcmDetect,  "pcm",        14,   32,     6,      mfdProtocolLpcm, mfdTagLayout::kNone},
    {MFD_FORMAT_MPEG1_VIDEO,   "MPEG1_PART2", false, "mpg mpeg mpe m1v mpv",         mediaFormatMpegDetect,  "mpg",        17,   128,    -1,     mfdProtocolMpegVideo, mfdTagLayout::kNone},
    {MFD_FORMAT_MPEG2_VIDEO,   "MPEG2_PART2", false, "mpg mpeg mpe m2v mpv",         mediaFormatMpegDetect,  "mpg",        18,   128,    -1,     mfdProtocolMpegVideo, mfdTagLayout::kNone},
    {MFD_FORMAT_AC3,           "AC3",         false, "ac3 a52",                      mediaFormatAc3Detect,   "ac3",        9,    32,     1,      mfdProtocolAc3, mfdTagLayout::kNone},
    {MFD_FORMAT_AAC,           "MPEG2/4_AAC", false, "aac adts adt",                 mediaFormatAacDetect,   "adts",       10,   256,    4,      mfdProtocolAac, mfdTagLayout::kMpeg},
    {MFD_FORMAT_AAC2,          "MPEG2/4_AAC", false, "aac adts adt",                 mediaFormatAacDetect,   "adts",       11,   256,    -1,     mfdProtocolAac, mfdTagLayout::kMpeg},
    {MFD_FORMAT_WMA,           "WMA",         false, "wma asf",                      mediaFormatWmDetect,    "wma",        15,   256,    3,      mfdProtocolWma, mfdTagLayout::kAsf},
    {MFD_FORMAT_WAV,           "WAV",         false, "wav wave",                     mediaFormatWavDetect,   "wav",        3,    256,    5,      mfdProtocolWav, mfdTagLayout::kWav},
    {MFD_FORMAT_MPEG4_PART2,   "MPEG4_PART2", false, "m4v mp4v cmp divx xvid",       mediaFormatM4vDetect,   "mp4v",       19,   256,    7,      mfdProtocolMpeg4Video, mfdTagLayout::kNone},
    {MFD_FORMAT_WMV,           "WMV",         false, "wmv asf",                      mediaFormatWmDetect,    "wmv",        16,   256,    8,      mfdProtocolWmv, mfdTagLayout::kAsf},
    {MFD_FORMAT_GIF,           "GIF",         false, "gif",                          mediaFormatGifDetect,   "gif",        7,    32,     11,     mfdProtocolGif, mfdTagLayout::kNone},
    {MFD_FORMAT_TIFF,          "TIFF",        false, "tif tiff",                     mediaFormatTiffDetect,  "tif",        8,    32,     12,     mfdProtocolTiff, mfdTagLayout::kNone},
    {MFD_FORMAT_MPEG_PS,       "MPEG_PS",     false, "mpg mpeg mpe vob dat m2p ps",  mediaFormatMpegDetect,  "mpg",        12,   128,    13,     mfdProtocolMpegPs, mfdTagLayout::kNone},
    {MFD_FORMAT_MPEG_TS,       "MPEG_TS",     false, "ts m2ts mts m2t tp trp tts",   mediaFormatMptsDetect,  "ts",         0,    128,    14,     mfdProtocolMpegTs, mfdTagLayout::kNone},
    // Added formats: tried before every written one (registered last, with
    // the lowest priority); each accepts only its own signature.
    {MFD_FORMAT_FLAC,          "FLAC",        false, "flac fla",                     mediaFormatFlacDetect,  "flac",       -1,   32,     16,     mfdProtocolFlac, mfdTagLayout::kFlac},
    {MFD_FORMAT_OGG_VORBIS,    "OGG_VORBIS",  false, "ogg oga",                      mediaFormatOggDetect,   "ogg",        -1,   32,     17,     mfdProtocolOgg, mfdTagLayout::kOggVorbis},
    {MFD_FORMAT_MATROSKA,      "MATROSKA",    false, "mkv mka mk3d",                 mediaFormatMatroskaDetect, "mkv",     -1,   32,     18,     mfdProtocolMatroska, mfdTagLayout::kNone},
    {MFD_FORMAT_AVI,           "AVI",         false, "avi divx",                     mediaFormatAviDetect,   "avi",        -1,   32,     19,     mfdProtocolAvi, mfdTagLayout::kNone},
    // Reported by detectors, without a detector of their own.
    {MFD_FORMAT_MP1,           "MP1",         false, "mp1 mpa mpga mp2 mp3",         nullptr,                nullptr,      0,    0,      -1,     mfdProtocolMpegAudio, mfdTagLayout::kMpeg},
    {MFD_FORMAT_MP2,           "MP2",         false, "mp2 mpa mpga mp1 mp3",         nullptr,                nullptr,      0,    0,      -1,     mfdProtocolMpegAudio, mfdTagLayout::kMpeg},
    {MFD_FORMAT_MP4_AUDIO,     "MP4_AUDIO",   false, "m4a mp4 m4b",                  nullptr,                nullptr,      0,    0,      -1,     mfdProtocolNone, mfdTagLayout::kMp4},
    {MFD_FORMAT_JPEG2,         "JPEG",        true,  "jpg jpeg jpe jfif",            nullptr,                nullptr,      0,    0,      -1,     mfdProtocolJpeg, mfdTagLayout::kExif},
    {MFD_FORMAT_OGG_OPUS,      "OGG_OPUS",    false, "opus ogg oga",                 nullptr,                nullptr,      0,    0,      -1,     mfdProtocolOgg, mfdTagLayout::kOggOpus},
    {MFD_FORMAT_OGG_FLAC,      "OGG_FLAC",    false, "oga ogg",                      nullptr,                nullptr,      0,    0,      -1,     mfdProtocolOgg, mfdTagLayout::kOggFlac},
    {MFD_FORMAT_WEBM,          "WEBM",        false, "webm weba",                    nullptr,                nullptr,      0,    0,      -1,     mfdProtocolWebm, mfdTagLayout::kNone},
    {MFD_FORMAT_QUICKTIME,     "QUICKTIME",   false, "mov qt",                       nullptr,                nullptr,      0,    0,      -1,     mfdProtocolQuickTime, mfdTagLayout::kMp4},
    {MFD_FORMAT_ASF,           "ASF",         false, "asf wma wmv",                  nullptr,                nullptr,      0,    0,      -1,     mfdProtocolAsf, mfdTagLayout::kAsf},
};

constexpr size_t kRegistryRows = MFD_REGISTRY_ROWS - 1;  // rows with a detector
constexpr size_t kWrittenServerFormats = 16;  // the written formats the server registers

constexpr size_t countIf(bool (*test)(const mfdFormatRow &)) {
  size_t count = 0;
  for (const mfdFormatRow &row : kFormats) count += test(row) ? 1 : 0;
  return count;
}
static_assert(countIf([](const mfdFormatRow &row) { return row.window > 0; }) == kRegistryRows);
static_assert(countIf([](const mfdFormatRow &row) { return row.serverOrder >= 0; }) == MFD_SERVER_FORMATS);

constexpr std::array<mfdMediaProfileTag, kRegistryRows + 1> registryRows() {
  std::array<mfdMediaProfileTag, kRegistryRows + 1> rows{};
  size_t next = 0;
  for (const mfdFormatRow &row : kFormats) {
    if (row.window == 0) continue;
    rows[next++] = {row.formatId, row.registryExtension, row.priority, row.window, nullptr, nullptr};
  }
  rows[next] = {MFD_FORMAT_END, "", 0, 0, nullptr, nullptr};
  return rows;
}

constexpr std::array<mfdDetectCallback, kRegistryRows> detectors() {
  std::array<mfdDetectCallback, kRegistryRows> callbacks{};
  size_t next = 0;
  for (const mfdFormatRow &row : kFormats) {
    if (row.window > 0) callbacks[next++] = row.detect;
  }
  return callbacks;
}

constexpr std::array<uint32_t, MFD_SERVER_FORMATS> serverOrder() {
  std::array<uint32_t, MFD_SERVER_FORMATS> ids{};
  for (const mfdFormatRow &row : kFormats) {
    if (row.serverOrder >= 0) ids[static_cast<size_t>(row.serverOrder)] = row.formatId;
  }
  return ids;
}

// "INVALID", each id's own tag in id order, and "0".
constexpr std::array<const char *, 26> tagStrings() {
  std::array<const char *, 26> tags{};
  size_t next = 0;
  tags[next++] = "INVALID";
  for (uint32_t id = 1; id < MFD_FORMAT_END; ++id) {  // the written ids
    for (const mfdFormatRow &row : kFormats) {
      if (row.formatId == id && !row.sharesTag) tags[next++] = row.tag;
    }
  }
  tags[next] = "0";
  return tags;
}

constexpr std::array<uint32_t, kWrittenServerFormats> writtenServerOrder() {
  std::array<uint32_t, kWrittenServerFormats> ids{};
  for (size_t i = 0; i < kWrittenServerFormats; ++i) ids[i] = serverOrder()[i];
  return ids;
}

constexpr bool sameIds(const std::array<uint32_t, kWrittenServerFormats> &ids,
                       const std::array<uint32_t, kWrittenServerFormats> &expected) {
  for (size_t i = 0; i < kWrittenServerFormats; ++i) {
    if (ids[i] != expected[i]) return false;
  }
  return true;
}

// The order in which the server registers its formats fixes the try order.
static_assert(sameIds(writtenServerOrder(), {1, 3, 6, 10, 8, 12, 11, 15, 17, 18, 20, 21, 22, 24, 25, 26}));
static_assert(registryRows()[0].formatId == MFD_FORMAT_ATRAC3 &&
              registryRows()[8].formatId == MFD_FORMAT_MPEG2_VIDEO &&  // the row of unknown ids
              registryRows()[19].formatId == MFD_FORMAT_MPEG_TS &&
              registryRows()[kRegistryRows].formatId == MFD_FORMAT_END);

// The tag strings keep their places: ids 16 and 19 have none of their own.
static_assert(std::string_view(tagStrings()[15]) == "MPEG4_PART2" &&
              std::string_view(tagStrings()[16]) == "WMV" && std::string_view(tagStrings()[17]) == "JPEG" &&
              std::string_view(tagStrings()[18]) == "PNG" && std::string_view(tagStrings()[24]) == "MP4" &&
              std::string_view(tagStrings()[25]) == "0");

}  // namespace

std::array<mfdMediaProfileTag, MFD_REGISTRY_ROWS> ga_s_mfdMediaProfileTags = registryRows();
std::array<mfdDetectCallback, MFD_REGISTRY_ROWS - 1> gpa_f_mfdMediaFormatCallBack = detectors();
const std::array<uint32_t, 16> ga_u32_mfdServerFormatIds = writtenServerOrder();
const std::array<uint32_t, MFD_SERVER_FORMATS> g_mfdAllServerFormatIds = serverOrder();
const std::array<const char *, 26> gp_a_ch_mfdMediaStringTags = tagStrings();

const mfdFormatRow *mfd_formatRow(uint32_t formatId) {
  for (const mfdFormatRow &row : kFormats) {
    if (row.formatId == formatId) return &row;
  }
  return nullptr;
}

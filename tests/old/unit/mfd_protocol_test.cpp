#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <string>

#include "mfd/mfd_api.h"
#include "util/osal_trace.h"
#include "capture_stdout.h"

namespace {

struct Published {
  int32_t result;
  std::string mimeType;
  std::string profileName;
  std::string protocolInfo;
};

Published publish(const mfdMediaInfo &info) {
  const char *mimeType = nullptr;
  const char *profileName = nullptr;
  const char *protocolInfo = nullptr;
  Published published{mfd_getMediaProtocolDetails(&info, &mimeType, &profileName, &protocolInfo),
                      "", "", ""};
  if (mimeType != nullptr) published.mimeType = mimeType;
  if (profileName != nullptr) published.profileName = profileName;
  if (protocolInfo != nullptr) published.protocolInfo = protocolInfo;
  return published;
}

mfdMediaInfo record(uint32_t formatId) {
  mfdMediaInfo info{};
  info.formatId = formatId;
  return info;
}

mfdMediaInfo image(uint32_t formatId, int32_t width, int32_t height) {
  mfdMediaInfo info = record(formatId);
  info.mediaClass = MFD_CLASS_IMAGE;
  info.width = width;
  info.height = height;
  return info;
}

std::string dlnaProfile(const std::string &name) {
  return "DLNA.ORG_PN=" + name + ";DLNA.ORG_OP=01;DLNA.ORG_CI=0";
}

// Expects the DLNA profile `name` (with its protocolInfo built on `mime`), or
// the generic mapping of `mime` when `name` is empty.
void expectProfile(const mfdMediaInfo &info, const std::string &mime, const std::string &name) {
  Published published = publish(info);
  EXPECT_EQ(0, published.result);
  EXPECT_EQ(mime, published.mimeType);
  if (name.empty()) {
    EXPECT_EQ("", published.profileName);
    EXPECT_EQ("http-get:*:" + mime + ":*", published.protocolInfo);
  } else {
    EXPECT_EQ(dlnaProfile(name), published.profileName);
    EXPECT_EQ("http-get:*:" + mime + ":" + dlnaProfile(name), published.protocolInfo);
  }
}

// ---- Formats with one mapping -------------------------------------------------

TEST(MfdProtocol, FormatsWithOneMapping) {
  struct Row {
    uint32_t formatId;
    const char *mime;
    const char *profile;  // "" for the generic mapping
  };
  const Row rows[] = {
      // id                          MIME                   DLNA profile
      {MFD_FORMAT_ATRAC3,            "audio/x-sony-oma",    "ATRAC3plus"},
      {MFD_FORMAT_ATRAC3_PLUS,       "audio/x-sony-oma",    "ATRAC3plus"},
      {MFD_FORMAT_AC3,               "audio/x-ac3",         ""},
      {MFD_FORMAT_MP1,               "audio/mpeg",          ""},
      {MFD_FORMAT_MP2,               "audio/mpeg",          ""},
      {MFD_FORMAT_MP3,               "audio/mpeg",          "MP3"},
      {MFD_FORMAT_AAC,               "audio/vnd.dlna.adts", "AAC_ADTS_320"},
      {MFD_FORMAT_AAC2,              "audio/vnd.dlna.adts", "AAC_ADTS_320"},
      {MFD_FORMAT_MPEG1_VIDEO,       "video/mpeg",          ""},
      {MFD_FORMAT_MPEG2_VIDEO,       "video/mpeg",          ""},
      {MFD_FORMAT_MPEG4_PART2,       "video/mp4v-es",       ""},
      {MFD_FORMAT_TIFF,              "image/tiff",          ""},
      {MFD_FORMAT_MPEG_TS,           "video/mpeg",          ""},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.formatId);
    expectProfile(record(row.formatId), row.mime, row.profile);
  }
}

TEST(MfdProtocol, AStandAloneWmvIdEndsWithTheColon) {
  Published published = publish(record(MFD_FORMAT_WMV));
  EXPECT_EQ("video/x-ms-wmv", published.mimeType);
  EXPECT_EQ("", published.profileName);
  EXPECT_EQ("http-get:*:video/x-ms-wmv:", published.protocolInfo);
}

TEST(MfdProtocol, IdsWithoutMappingGiveEmptyStrings) {
  for (uint32_t formatId : {0u, 7u, 10u, 16u, 27u, 28u, 1000u}) {
    SCOPED_TRACE(formatId);
    Published published = publish(record(formatId));
    EXPECT_EQ(0, published.result);
    EXPECT_EQ("", published.mimeType);
    EXPECT_EQ("", published.profileName);
    EXPECT_EQ("", published.protocolInfo);
  }
}

TEST(MfdProtocol, AWmaIdOnItsOwnIsTracedAsAnError) {
  uint32_t level = g_u32_osalTraceLevel;
  g_u32_osalTraceLevel = OSAL_TRACE_ERR;
  std::string text = captureStdout([] { publish(record(MFD_FORMAT_WMA)); });
  g_u32_osalTraceLevel = level;
  EXPECT_NE(std::string::npos, text.find("[ERR ] [mfd_protocol.c]")) << text;
}

TEST(MfdProtocol, NullPointersAreRefusedAndOutputsUntouched) {
  mfdMediaInfo info = record(MFD_FORMAT_MP3);
  const char *mimeType = "untouched";
  const char *profileName = "untouched";
  const char *protocolInfo = "untouched";
  EXPECT_EQ(1, mfd_getMediaProtocolDetails(nullptr, &mimeType, &profileName, &protocolInfo));
  EXPECT_EQ(1, mfd_getMediaProtocolDetails(&info, nullptr, &profileName, &protocolInfo));
  EXPECT_EQ(1, mfd_getMediaProtocolDetails(&info, &mimeType, nullptr, &protocolInfo));
  EXPECT_EQ(1, mfd_getMediaProtocolDetails(&info, &mimeType, &profileName, nullptr));
  EXPECT_STREQ("untouched", mimeType);
  EXPECT_STREQ("untouched", profileName);
  EXPECT_STREQ("untouched", protocolInfo);
}

// ---- LPCM and WAV -----------------------------------------------------------------

TEST(MfdProtocol, PcmFilesByProfileCodeLackTheConversionFlag) {
  const char *mimes[] = {"audio/L16;rate=44100;channels=1", "audio/L16;rate=44100;channels=2",
                         "audio/L16;rate=48000;channels=1", "audio/L16;rate=48000;channels=2"};
  for (uint32_t code = 1; code <= 4; ++code) {
    mfdMediaInfo info = record(MFD_FORMAT_LPCM);
    info.profileCode = code;
    Published published = publish(info);
    EXPECT_EQ(mimes[code - 1], published.mimeType);
    EXPECT_EQ("DLNA.ORG_PN=LPCM;DLNA.ORG_OP=01", published.profileName);
    EXPECT_EQ(std::string("http-get:*:") + mimes[code - 1] + ":DLNA.ORG_PN=LPCM;DLNA.ORG_OP=01",
              published.protocolInfo);
  }
  for (uint32_t code : {0u, 5u, 6u}) {
    mfdMediaInfo info = record(MFD_FORMAT_LPCM);
    info.profileCode = code;
    expectProfile(info, "audio/wav", "");
  }
}

mfdMediaInfo wav(int32_t sampleRate, int32_t channels, int32_t bitsPerSample = 16,
                 int32_t sampleFormat = 1) {
  mfdMediaInfo info = record(MFD_FORMAT_WAV);
  info.mediaClass = MFD_CLASS_AUDIO;
  info.sampleRate = sampleRate;
  info.channels = channels;
  info.bitsPerSample = bitsPerSample;
  info.sampleFormat = sampleFormat;
  info.bitrate = sampleRate * channels * bitsPerSample;
  return info;
}

TEST(MfdProtocol, SixteenBitWavAtEveryDlnaRateIsLpcm) {
  for (int32_t rate : {8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000}) {
    for (int32_t channels : {1, 2}) {
      SCOPED_TRACE(std::to_string(rate) + " Hz x " + std::to_string(channels));
      std::string mime =
          "audio/L16;rate=" + std::to_string(rate) + ";channels=" + std::to_string(channels);
      expectProfile(wav(rate, channels), mime, rate >= 44100 ? "LPCM" : "LPCM_low");
    }
  }
}

TEST(MfdProtocol, OtherWavFilesAreXWav) {
  const mfdMediaInfo cases[] = {
      wav(96000, 2),       wav(44100, 6),    wav(44100, 0),    wav(11024, 1),
      wav(44100, 2, 24),   wav(48000, 2, 8), wav(48000, 1, 32, 3),
      wav(44100, 2, 16, 3), wav(44100, 2, 16, 0xFFFE), wav(0, 0, 0, 0),
  };
  for (const mfdMediaInfo &info : cases) {
    SCOPED_TRACE(std::to_string(info.sampleRate) + " Hz x " + std::to_string(info.channels) +
                 ", " + std::to_string(info.bitsPerSample) + " bits, format " +
                 std::to_string(info.sampleFormat));
    expectProfile(info, "audio/x-wav", "");
  }
}

TEST(MfdProtocol, TheWavTraceGivesTheRealSampleWidth) {
  uint32_t level = g_u32_osalTraceLevel;
  g_u32_osalTraceLevel = OSAL_TRACE_INFO;
  std::string text = captureStdout([] { publish(wav(44100, 2, 24)); });
  g_u32_osalTraceLevel = level;
  EXPECT_NE(std::string::npos, text.find("[getWavProtocolDetails()]")) << text;
  EXPECT_NE(std::string::npos,
            text.find("SampleWidth:[24] SampleFreq:[44100] BitRate:[2116800] NCH:[2]\n"))
      << text;
}

// ---- Images -------------------------------------------------------------------------

struct SizeCase {
  int32_t width;
  int32_t height;
  const char *profile;  // "" generic
};

TEST(MfdProtocol, JpegProfilesCascadeFromTheWidthBand) {
  const SizeCase cases[] = {
      // W     H      profile
      {48,     48,    "JPEG_SM_ICO"},
      {0,      0,     "JPEG_SM_ICO"},
      {48,     49,    "JPEG_LRG_ICO"},
      {49,     48,    "JPEG_LRG_ICO"},
      {120,    120,   "JPEG_LRG_ICO"},
      {121,    121,   ""},
      {150,    150,   ""},
      {160,    160,   ""},
      {160,    161,   "JPEG_SM"},
      {100,    500,   "JPEG_MED"},
      {640,    480,   "JPEG_SM"},
      {640,    481,   "JPEG_MED"},
      {641,    480,   "JPEG_MED"},
      {1024,   768,   "JPEG_MED"},
      {1025,   768,   "JPEG_LRG"},
      {1024,   769,   "JPEG_LRG"},
      {4096,   4096,  "JPEG_LRG"},
      {10,     4096,  "JPEG_LRG"},
      {4096,   4097,  ""},
      {4097,   10,    ""},
  };
  for (uint32_t formatId : {MFD_FORMAT_JPEG, MFD_FORMAT_JPEG2}) {
    for (const SizeCase &size : cases) {
      SCOPED_TRACE(std::to_string(size.width) + "x" + std::to_string(size.height));
      expectProfile(image(formatId, size.width, size.height), "image/jpeg", size.profile);
    }
  }
}

TEST(MfdProtocol, PngProfilesCascadeFromTheWidthBand) {
  const SizeCase cases[] = {
      // W     H      profile
      {48,     48,    "PNG_SM_ICO"},
      {48,     49,    "PNG_LRG_ICO"},
      {49,     48,    "PNG_LRG_ICO"},
      {120,    120,   "PNG_LRG_ICO"},
      {121,    121,   ""},
      {160,    161,   "PNG_LRG"},
      {100,    500,   "PNG_LRG"},
      {4096,   4096,  "PNG_LRG"},
      {4096,   4097,  ""},
      {5000,   100,   ""},
  };
  for (const SizeCase &size : cases) {
    SCOPED_TRACE(std::to_string(size.width) + "x" + std::to_string(size.height));
    expectProfile(image(MFD_FORMAT_PNG, size.width, size.height), "image/png", size.profile);
  }
}

TEST(MfdProtocol, GifIsLargeUpTo1600By1200) {
  expectProfile(image(MFD_FORMAT_GIF, 1600, 1200), "image/gif", "GIF_LRG");
  expectProfile(image(MFD_FORMAT_GIF, 1, 1), "image/gif", "GIF_LRG");
  expectProfile(image(MFD_FORMAT_GIF, 1601, 1200), "image/gif", "");
  expectProfile(image(MFD_FORMAT_GIF, 1600, 1201), "image/gif", "");
}

// ---- Containers ---------------------------------------------------------------------

mfdMediaInfo container(uint32_t formatId, uint32_t videoCodec, uint32_t audioCodec,
                       uint32_t profileCode) {
  mfdMediaInfo info = record(formatId);
  info.videoCodec = videoCodec;
  info.audioCodec = audioCodec;
  info.profileCode = profileCode;
  return info;
}

TEST(MfdProtocol, ProgramStreamsByVideoStandard) {
  expectProfile(container(MFD_FORMAT_MPEG_PS, 14, 0, 1), "video/mpeg", "MPEG_PS_NTSC");
  expectProfile(container(MFD_FORMAT_MPEG_PS, 14, 0, 2), "video/mpeg", "MPEG_PS_PAL");
  expectProfile(container(MFD_FORMAT_MPEG_PS, 14, 0, 0), "video/mpeg", "");
  expectProfile(container(MFD_FORMAT_MPEG_PS, 14, 0, 3), "video/mpeg", "");
}

TEST(MfdProtocol, Mp4ByVideoAndProfileCode) {
  expectProfile(container(MFD_FORMAT_MP4, 0, 8, 1), "audio/mp4", "AAC_ISO_320");
  expectProfile(container(MFD_FORMAT_MP4, 0, 8, 2), "audio/3gpp", "AAC_ISO_320");
  expectProfile(container(MFD_FORMAT_MP4, 0, 8, 0), "audio/mp4", "");
  expectProfile(container(MFD_FORMAT_MP4, 0, 8, 3), "audio/mp4", "");
  expectProfile(container(MFD_FORMAT_MP4, 15, 8, 1), "video/mp4", "AVC_MP4_BL_CIF15_AAC_520");
  expectProfile(container(MFD_FORMAT_MP4, 15, 8, 2), "video/mp4", "");
  expectProfile(container(MFD_FORMAT_MP4, 15, 8, 0), "video/mp4", "");
}

TEST(MfdProtocol, AsfByCodecsAndProfileCode) {
  const char *wmv[] = {nullptr, "WMVHIGH_FULL", "WMVHIGH_PRO", nullptr,
                       "WMVMED_FULL", "WMVMED_PRO", "WMVMED_BASE", nullptr, nullptr};
  for (uint32_t code = 0; code < 9; ++code) {
    SCOPED_TRACE(code);
    expectProfile(container(MFD_FORMAT_ASF, MFD_FORMAT_WMV, MFD_FORMAT_WMA, code),
                  "video/x-ms-wmv", wmv[code] != nullptr ? wmv[code] : "");
  }
  const char *wma[] = {nullptr, "WMAFULL", "WMAPRO", "WMABASE", nullptr};
  for (uint32_t code = 0; code < 5; ++code) {
    SCOPED_TRACE(code);
    expectProfile(container(MFD_FORMAT_ASF, 0, MFD_FORMAT_WMA, code), "audio/x-ms-wma",
                  wma[code] != nullptr ? wma[code] : "");
  }
  expectProfile(container(MFD_FORMAT_ASF, MFD_FORMAT_MPEG4_PART2, MFD_FORMAT_WMA, 1),
                "video/x-ms-asf", "");
  expectProfile(container(MFD_FORMAT_ASF, 0, MFD_FORMAT_MP3, 1), "video/x-ms-asf", "");
  expectProfile(container(MFD_FORMAT_ASF, 0, 0, 0), "video/x-ms-asf", "");
}

}  // namespace

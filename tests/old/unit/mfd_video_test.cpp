// The whole detection (content list formats, in the content list's order) on
// video and container files made by ffmpeg (tests/fixtures/make-video-fixtures.sh):
// format, class, codecs, picture size, playing time, profile and the
// published strings.  Files of other kinds are not taken by these detectors.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "mfd/mfd_api.h"
#include "mfd_audio_test_support.h"
#include "mfd_video_test_support.h"

namespace {

using mfdtest::Detection;
using mfdtest::runDetector;
using mfdtest::sizeOf;
using mfdvideotest::kVideoDetectors;
using mfdvideotest::videoFixture;

constexpr uint32_t kUnknown = 0xFFFFFFFF;  // playing time the file does not tell
constexpr uint32_t kToleranceMs = 100;

struct Expected {
  const char *file;
  uint32_t formatId;
  uint32_t mediaClass;
  uint32_t videoCodec;
  uint32_t audioCodec;
  int32_t width;
  int32_t height;
  uint32_t durationMs;  // as ffprobe reports it
  uint32_t profileCode;
  const char *mimeType;
  const char *protocolInfo;
};

#define DLNA(mime, profile) "http-get:*:" mime ":DLNA.ORG_PN=" profile ";DLNA.ORG_OP=01;DLNA.ORG_CI=0"

// clang-format off
const Expected kFiles[] = {
    // MPEG program streams: PAL only from the sequence display extension.
    {"ps-mpeg2-pal-720x576-mp2.mpg", 24, 4, 14, 5, 720, 576, 930, 2, "video/mpeg", DLNA("video/mpeg", "MPEG_PS_PAL")},
    {"ps-mpeg2-ntsc-720x480-ac3.mpg", 24, 4, 14, 3, 720, 480, 896, 1, "video/mpeg", DLNA("video/mpeg", "MPEG_PS_NTSC")},
    {"ps-mpeg2-nodisp-720x576-mp2.mpg", 24, 4, 14, 5, 720, 576, 930, 1, "video/mpeg", DLNA("video/mpeg", "MPEG_PS_NTSC")},
    {"ps-mpeg1-352x240-mp2.mpg", 24, 4, 13, 5, 352, 240, 945, 1, "video/mpeg", DLNA("video/mpeg", "MPEG_PS_NTSC")},
    // MPEG elementary video: no playing time in the stream.
    {"es-mpeg2-352x288.m2v", 14, 3, 14, 0, 352, 288, kUnknown, 0, "video/mpeg", "http-get:*:video/mpeg:*"},
    {"es-mpeg1-320x240.m1v", 13, 3, 13, 0, 320, 240, kUnknown, 0, "video/mpeg", "http-get:*:video/mpeg:*"},
    {"es-mpeg4-320x240.m4v", 15, 3, 15, 0, 320, 240, kUnknown, 0, "video/mp4v-es", "http-get:*:video/mp4v-es:*"},
    // Transport streams, 188- and 192-byte packets.
    {"ts-mpeg2-mp2-720x576.ts", 25, 3, 14, 5, 720, 576, 1010, 0, "video/mpeg", "http-get:*:video/mpeg:*"},
    {"ts-h264-aac-320x240.ts", 25, 3, MFD_CODEC_AVC, 8, 320, 240, 1021, 0, "video/mpeg", "http-get:*:video/mpeg:*"},
    {"ts-h264-ac3-320x240.m2ts", 25, 3, MFD_CODEC_AVC, 3, 320, 240, 1005, 0, "video/mpeg", "http-get:*:video/mpeg:*"},
    // ISO base media.
    {"mp4-h264bl-aac-320x240.mp4", 26, 3, MFD_CODEC_AVC, 8, 320, 240, 1000, 1, "video/mp4", DLNA("video/mp4", "AVC_MP4_BL_CIF15_AAC_520")},
    {"mp4-h264-aac-640x480.mp4", 26, 3, MFD_CODEC_AVC, 8, 640, 480, 1000, 0, "video/mp4", "http-get:*:video/mp4:*"},
    {"mp4-mpeg4-aac-320x240.mp4", 26, 3, 15, 8, 320, 240, 1000, 0, "video/mp4", "http-get:*:video/mp4:*"},
    {"m4a-aac-moov-first.m4a", 26, 2, 0, 8, 0, 0, 1000, 1, "audio/mp4", DLNA("audio/mp4", "AAC_ISO_320")},
    {"m4a-aac-moov-last.m4a", 26, 2, 0, 8, 0, 0, 1000, 1, "audio/mp4", DLNA("audio/mp4", "AAC_ISO_320")},
    {"3gp-aac.3gp", 26, 2, 0, 8, 0, 0, 1000, 2, "audio/3gpp", DLNA("audio/3gpp", "AAC_ISO_320")},
    {"3gp-mpeg4-aac-176x144.3gp", 26, 3, 15, 8, 176, 144, 1000, 0, "video/mp4", "http-get:*:video/mp4:*"},
    // ASF.
    {"asf-wmv2-wmav2-320x240.wmv", 23, 3, 17, 10, 320, 240, 1092, 6, "video/x-ms-wmv", DLNA("video/x-ms-wmv", "WMVMED_BASE")},
    {"asf-wmv2-wmav2-640x480.wmv", 23, 3, 17, 10, 640, 480, 1092, 1, "video/x-ms-wmv", DLNA("video/x-ms-wmv", "WMVHIGH_FULL")},
    {"asf-wmav2-64k.wma", 23, 2, 0, 10, 0, 0, 1021, 3, "audio/x-ms-wma", DLNA("audio/x-ms-wma", "WMABASE")},
    {"asf-wmav2-256k.wma", 23, 2, 0, 10, 0, 0, 1025, 1, "audio/x-ms-wma", DLNA("audio/x-ms-wma", "WMAFULL")},
};
// clang-format on

std::string profileField(const std::string &protocolInfo) {
  const size_t field = protocolInfo.rfind(':');
  const std::string fourth = protocolInfo.substr(field + 1);
  return fourth == "*" ? "" : fourth;
}

TEST(MfdVideoFilesTest, EachFileGetsItsFormatCodecsSizeTimeAndStrings) {
  Detection detection;
  for (const Expected &expected : kFiles) {
    SCOPED_TRACE(expected.file);
    const std::string path = videoFixture(expected.file);
    mfdMediaInfo info{};
    ASSERT_EQ(0, detection.detect(path, info));
    EXPECT_EQ(expected.formatId, info.formatId);
    EXPECT_EQ(expected.mediaClass, info.mediaClass);
    EXPECT_EQ(expected.videoCodec, info.videoCodec);
    EXPECT_EQ(expected.audioCodec, info.audioCodec);
    EXPECT_EQ(expected.width, info.videoWidth);
    EXPECT_EQ(expected.height, info.videoHeight);
    EXPECT_EQ(expected.profileCode, info.profileCode);
    if (expected.durationMs == kUnknown) {
      EXPECT_EQ(0u, info.duration);
    } else {
      EXPECT_NEAR(expected.durationMs, info.duration, kToleranceMs);
    }
    EXPECT_EQ(sizeOf(path), info.fileSize);
    EXPECT_EQ(0, info.dataOffset);
    EXPECT_STREQ(expected.mimeType, info.mimeType);
    EXPECT_STREQ(expected.protocolInfo, info.protocolInfo);
    EXPECT_EQ(profileField(expected.protocolInfo), info.profileName);
  }
}

// Where the playing time is known, the bit rate is the file's own.
TEST(MfdVideoFilesTest, BitRateFollowsFromSizeAndTime) {
  Detection detection;
  for (const char *file : {"ts-h264-aac-320x240.ts", "mp4-h264bl-aac-320x240.mp4",
                           "ps-mpeg2-pal-720x576-mp2.mpg", "m4a-aac-moov-last.m4a"}) {
    SCOPED_TRACE(file);
    mfdMediaInfo info{};
    ASSERT_EQ(0, detection.detect(videoFixture(file), info));
    ASSERT_GT(info.duration, 0u);
    EXPECT_EQ(info.fileSize * 8 / info.duration, info.bitrate);
  }
}

TEST(MfdVideoFilesTest, AsfBitRatesAndAudioPropertiesComeFromTheHeader) {
  Detection detection;
  mfdMediaInfo info{};
  ASSERT_EQ(0, detection.detect(videoFixture("asf-wmav2-64k.wma"), info));
  EXPECT_EQ(64, info.bitrate);
  EXPECT_EQ(44100, info.sampleRate);
  EXPECT_EQ(2, info.channels);
  ASSERT_EQ(0, detection.detect(videoFixture("asf-wmv2-wmav2-320x240.wmv"), info));
  EXPECT_GT(info.bitrate, 64);
  EXPECT_EQ(44100, info.sampleRate);
}

TEST(MfdVideoFilesTest, Mp4AudioPropertiesComeFromTheDecoderConfiguration) {
  Detection detection;
  mfdMediaInfo info{};
  ASSERT_EQ(0, detection.detect(videoFixture("3gp-aac.3gp"), info));
  EXPECT_EQ(16000, info.sampleRate);
  EXPECT_EQ(1, info.channels);
  ASSERT_EQ(0, detection.detect(videoFixture("mp4-h264-aac-640x480.mp4"), info));
  EXPECT_EQ(48000, info.sampleRate);
  EXPECT_EQ(2, info.channels);
}

TEST(MfdVideoFilesTest, AnAviIsNotTakenByAnyDetector) {
  const std::string path = videoFixture("avi-mpeg4-mp3-320x240.avi");
  Detection detection;
  mfdMediaInfo info{};
  EXPECT_EQ(MFD_ERR_UNSUPPORTED, detection.detect(path, info));
  EXPECT_EQ(0u, info.formatId);
  for (const auto &detector : kVideoDetectors) {
    SCOPED_TRACE(detector.name);
    const mfdtest::DetectorRun run = runDetector(detector.detect, detector.formatId, path);
    EXPECT_EQ(0, run.mode2);
    EXPECT_EQ(0u, run.info.mediaClass);
  }
}

// Every audio and image fixture: none of the video detectors claims it.
TEST(MfdVideoFilesTest, AudioAndImageFilesAreNotTakenForVideo) {
  int files = 0;
  for (const char *folder : {"audio", "image"}) {
    const std::filesystem::path root = std::string(DMS_TEST_FIXTURES) + "/media/" + folder;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(root)) {
      if (!entry.is_regular_file()) continue;
      ++files;
      for (const auto &detector : kVideoDetectors) {
        SCOPED_TRACE(entry.path().string() + " / " + detector.name);
        const mfdtest::DetectorRun run =
            runDetector(detector.detect, detector.formatId, entry.path().string());
        EXPECT_EQ(0, run.mode2);
        EXPECT_EQ(0u, run.info.mediaClass);
      }
    }
  }
  EXPECT_GT(files, 50);
}

// The detectors other than the WM one leave files named .pcm, .wav and .bmp
// to their own detectors.
TEST(MfdVideoFilesTest, ExcludedNamesAreDeclinedExceptByTheWmDetector) {
  mfdtest::ScratchDir scratch;
  struct Case {
    const char *fixture;
    mfdDetectCallback detect;
    uint32_t formatId;
    bool declines;
  };
  const Case cases[] = {
      {"ps-mpeg2-pal-720x576-mp2.mpg", mediaFormatMpegDetect, 24, true},
      {"es-mpeg2-352x288.m2v", mediaFormatMpegDetect, 24, true},
      {"ts-h264-aac-320x240.ts", mediaFormatMptsDetect, 25, true},
      {"m4a-aac-moov-first.m4a", mediaFormatMp4Detect, 26, true},
      {"es-mpeg4-320x240.m4v", mediaFormatM4vDetect, 15, true},
      {"asf-wmav2-64k.wma", mediaFormatWmDetect, 10, false},
  };
  for (const Case &entry : cases) {
    const mfdtest::Bytes bytes = mfdtest::readFile(videoFixture(entry.fixture));
    for (const char *name : {"clip.pcm", "clip.WAV", "clip.bmp"}) {
      SCOPED_TRACE(std::string(entry.fixture) + " as " + name);
      const std::string path = scratch.write(name, bytes);
      const mfdtest::DetectorRun run = runDetector(entry.detect, entry.formatId, path);
      EXPECT_EQ(0, run.mode2);
      EXPECT_EQ(entry.declines, run.info.mediaClass == 0);
    }
  }
}

}  // namespace

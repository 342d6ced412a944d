// Image detectors (JPEG, PNG, GIF, TIFF): real files made by common encoders
// detected through the whole framework, headers built byte by byte for the
// edge cases, and every truncation of a valid header.
#include <algorithm>
#include <cstddef>
#include <string>

#include <gtest/gtest.h>

#include "mfd_image_test_support.h"

namespace {

using namespace mfdimagetest;
namespace fs = std::filesystem;

// --- Real files made by encoders ------------------------------------------

struct FixtureCase {
  const char *file;
  uint32_t formatId;
  int32_t width;
  int32_t height;
  int32_t word4;
  const char *mime;
  const char *protocolInfo;
};

std::string profileField(const char *protocolInfo) {
  const std::string text = protocolInfo;
  const std::string field = text.substr(text.rfind(':') + 1);
  return field == "*" ? "" : field;
}

TEST_F(ImageDetectionTest, RealFilesGetFormatSizeAndProfile) {
  // JPEGs from Exif take their size from the Exif pixel dimensions, which
  // the fixtures set apart from the 160x120 frame; word 4 then stays 0.
  const FixtureCase cases[] = {
      {"jfif-640x480.jpg", MFD_FORMAT_JPEG, 640, 480, 8, "image/jpeg", kJpegSm},
      {"icon-48x48.jpg", MFD_FORMAT_JPEG, 48, 48, 8, "image/jpeg", kJpegSmIco},
      {"icon-120x120.jpg", MFD_FORMAT_JPEG, 120, 120, 8, "image/jpeg", kJpegLrgIco},
      {"med-1024x768.jpg", MFD_FORMAT_JPEG, 1024, 768, 8, "image/jpeg", kJpegMed},
      {"progressive-800x600.jpg", MFD_FORMAT_JPEG, 800, 600, 8, "image/jpeg", kJpegMed},
      {"exif-intel-4000x3000.jpg", MFD_FORMAT_JPEG, 4000, 3000, 0, "image/jpeg", kJpegLrg},
      {"exif-motorola-800x600.jpg", MFD_FORMAT_JPEG, 800, 600, 0, "image/jpeg", kJpegMed},
      {"exif-nosize-640x480.jpg", MFD_FORMAT_JPEG, 640, 480, 8, "image/jpeg", kJpegSm},
      {"rgb-48x48.png", MFD_FORMAT_PNG, 48, 48, 16, "image/png", kPngSmIco},
      {"rgba-120x120.png", MFD_FORMAT_PNG, 120, 120, 16, "image/png", kPngLrgIco},
      {"flat-4096x4096.png", MFD_FORMAT_PNG, 4096, 4096, 16, "image/png", kPngLrg},
      {"flat-5000x100.png", MFD_FORMAT_PNG, 5000, 100, 16, "image/png", kPngAny},
      {"gif89a-800x600.gif", MFD_FORMAT_GIF, 800, 600, -1, "image/gif", kGifLrg},
      {"gif87a-64x48.gif", MFD_FORMAT_GIF, 64, 48, -1, "image/gif", kGifLrg},
      {"gif89a-2000x100.gif", MFD_FORMAT_GIF, 2000, 100, -1, "image/gif", kGifAny},
      {"tiff-le-rgb-320x240.tif", MFD_FORMAT_TIFF, 320, 240, 8, "image/tiff", kTiffAny},
      {"tiff-be-gray-256x512.tif", MFD_FORMAT_TIFF, 256, 512, 8, "image/tiff", kTiffAny},
      {"tiff-be-rgb16-640x480.tif", MFD_FORMAT_TIFF, 640, 480, 16, "image/tiff", kTiffAny},
  };
  for (const FixtureCase &expected : cases) {
    SCOPED_TRACE(expected.file);
    const std::string path = kImageDir + expected.file;
    const Detection got = detect(path);
    ASSERT_EQ(got.result, 0);
    EXPECT_EQ(got.info.mediaClass, MFD_CLASS_IMAGE);
    EXPECT_EQ(got.info.formatId, expected.formatId);
    EXPECT_EQ(got.info.formatWord, static_cast<int32_t>(expected.formatId));
    EXPECT_EQ(got.info.width, expected.width);
    EXPECT_EQ(got.info.height, expected.height);
    if (expected.word4 >= 0) {
      EXPECT_EQ(got.info.channels, expected.word4);
    } else {  // GIF: packed fields and background index, as stored
      const Bytes file = readFile(path);
      EXPECT_EQ(got.info.channels, file[10] << 8 | file[11]);
    }
    EXPECT_EQ(got.mime, expected.mime);
    EXPECT_EQ(got.protocol, expected.protocolInfo);
    EXPECT_EQ(got.profile, profileField(expected.protocolInfo));
    EXPECT_EQ(got.info.duration, 0u);
    EXPECT_EQ(got.info.fileSize, static_cast<int64_t>(fs::file_size(path)));
    EXPECT_EQ(got.info.dataOffset, 0);
    EXPECT_EQ(got.info.audioCodec, 0u);
    EXPECT_EQ(got.info.videoCodec, 0u);
  }
}

TEST_F(ImageDetectionTest, NonImagesAreNotTakenForImages) {
  for (const char *name : {"text.jpg", "random.png", "gif88a.gif"}) {
    SCOPED_TRACE(name);
    const Detection got = detect(kImageDir + name);
    EXPECT_NE(got.result, 0);
    EXPECT_EQ(got.info.formatId, MFD_FORMAT_NONE);
    EXPECT_EQ(got.info.mediaClass, MFD_CLASS_NONE);
    EXPECT_EQ(got.protocol, "");
    EXPECT_EQ(got.info.fileSize, static_cast<int64_t>(fs::file_size(kImageDir + name)));
  }
}

TEST_F(ImageDetectionTest, JpegCutBeforeItsFrameHeaderFailsWithoutSize) {
  const Detection got = detect(kImageDir + "truncated.jpg");
  EXPECT_EQ(got.result, MFD_ERR_INVALID_PARAM);
  EXPECT_EQ(got.info.formatId, MFD_FORMAT_JPEG);
  EXPECT_EQ(got.info.width, 0);
  EXPECT_EQ(got.info.height, 0);
  EXPECT_EQ(got.info.fileSize, 100);
}

// --- Truncations ------------------------------------------------------------

struct TruncationCase {
  const char *file;
  mfdDetectCallback detector;
  uint32_t formatId;
  size_t signatureLength;  // bytes mode 2 needs
  int32_t width;
  int32_t height;
};

const TruncationCase kTruncationCases[] = {
    {"jfif-640x480.jpg", mediaFormatJpegDetect, MFD_FORMAT_JPEG, 2, 640, 480},
    {"progressive-800x600.jpg", mediaFormatJpegDetect, MFD_FORMAT_JPEG, 2, 800, 600},
    {"exif-intel-4000x3000.jpg", mediaFormatJpegDetect, MFD_FORMAT_JPEG, 2, 4000, 3000},
    {"exif-motorola-800x600.jpg", mediaFormatJpegDetect, MFD_FORMAT_JPEG, 2, 800, 600},
    {"rgb-48x48.png", mediaFormatPngDetect, MFD_FORMAT_PNG, 8, 48, 48},
    {"gif89a-800x600.gif", mediaFormatGifDetect, MFD_FORMAT_GIF, 6, 800, 600},
    {"tiff-le-rgb-320x240.tif", mediaFormatTiffDetect, MFD_FORMAT_TIFF, 4, 320, 240},
    {"tiff-be-gray-256x512.tif", mediaFormatTiffDetect, MFD_FORMAT_TIFF, 4, 256, 512},
};

// Each detector alone on every prefix of a valid file: recognised exactly
// when the signature is complete; a size is either right or absent; once a
// prefix gives the full size, every longer one does too.
TEST_F(ImageDetectionTest, EveryTruncationOfAValidFileIsHandled) {
  for (const TruncationCase &testCase : kTruncationCases) {
    SCOPED_TRACE(testCase.file);
    const Bytes file = readFile(kImageDir + testCase.file);
    ASSERT_GT(file.size(), testCase.signatureLength);
    bool complete = false;
    for (size_t length = 0; length <= file.size(); ++length) {
      SCOPED_TRACE("length " + std::to_string(length));
      const Bytes prefix(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(length));
      const auto got = runDetector(testCase.detector, testCase.formatId, prefix);
      ASSERT_EQ(got.recognised, length >= testCase.signatureLength);
      if (!got.recognised) {
        EXPECT_NE(got.status, 0);
        continue;
      }
      EXPECT_EQ(got.info.formatId, testCase.formatId);
      EXPECT_TRUE(got.info.width == 0 || got.info.width == testCase.width);
      EXPECT_TRUE(got.info.height == 0 || got.info.height == testCase.height);
      const bool sized = got.status == 0 && got.info.width == testCase.width &&
                         got.info.height == testCase.height;
      if (complete) {
        ASSERT_TRUE(sized);
      }
      complete = sized;
    }
    EXPECT_TRUE(complete);
  }
}

// The same prefixes through the whole framework: every detector sees them;
// the result is always one of the framework's codes.
TEST_F(ImageDetectionTest, EveryTruncationThroughTheFrameworkEndsCleanly) {
  constexpr size_t kMaxLength = 1200;
  for (const TruncationCase &testCase : kTruncationCases) {
    SCOPED_TRACE(testCase.file);
    const Bytes file = readFile(kImageDir + testCase.file);
    const std::string name = std::string("cut") + fs::path(testCase.file).extension().string();
    for (size_t length = 0; length <= std::min(file.size(), kMaxLength); ++length) {
      SCOPED_TRACE("length " + std::to_string(length));
      const Bytes prefix(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(length));
      const Detection got = detectBytes(name, prefix);
      EXPECT_TRUE(got.result == 0 || got.result == MFD_ERR_INVALID_PARAM ||
                  got.result == MFD_ERR_UNSUPPORTED);
      EXPECT_EQ(got.info.fileSize, static_cast<int64_t>(length));
      if (got.result == 0 && got.info.formatId == testCase.formatId) {
        EXPECT_EQ(got.info.width, testCase.width);
        EXPECT_EQ(got.info.height, testCase.height);
      }
    }
  }
}

}  // namespace

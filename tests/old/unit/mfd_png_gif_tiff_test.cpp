// PNG, GIF and TIFF detectors on headers built byte by byte.
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "mfd_image_test_support.h"

namespace {

using namespace mfdimagetest;

const Bytes kPngSignature{0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};

Bytes pngFile(const std::string &firstChunk, uint32_t width, uint32_t height) {
  Bytes out = kPngSignature;
  appendBe32(out, 13);
  appendText(out, firstChunk);
  appendBe32(out, width);
  appendBe32(out, height);
  append(out, {8, 2, 0, 0, 0, 0x12, 0x34, 0x56, 0x78});
  return out;
}

TEST_F(ImageDetectionTest, PngSizeComesFromIhdr) {
  const Detection got = detectBytes("built.png", pngFile("IHDR", 150, 100));
  ASSERT_EQ(got.result, 0);
  EXPECT_EQ(got.info.mediaClass, MFD_CLASS_IMAGE);
  EXPECT_EQ(got.info.formatId, MFD_FORMAT_PNG);
  EXPECT_EQ(got.info.formatWord, 20);
  EXPECT_EQ(got.info.width, 150);
  EXPECT_EQ(got.info.height, 100);
  EXPECT_EQ(got.info.channels, 16);
  EXPECT_EQ(got.protocol, "http-get:*:image/png:*");  // 150x100 falls between the profiles
}

TEST_F(ImageDetectionTest, PngWithoutLeadingIhdrHasNoSize) {
  const auto got = runDetector(mediaFormatPngDetect, MFD_FORMAT_PNG, pngFile("CgBI", 150, 100));
  ASSERT_TRUE(got.recognised);
  EXPECT_EQ(got.status, 0);
  EXPECT_EQ(got.info.width, 0);
  EXPECT_EQ(got.info.height, 0);
  EXPECT_EQ(got.info.channels, 16);
}

TEST_F(ImageDetectionTest, PngSignatureMustMatchExactly) {
  for (size_t index = 0; index < kPngSignature.size(); ++index) {
    Bytes file = pngFile("IHDR", 48, 48);
    file[index] ^= 0x20;
    const auto got = runDetector(mediaFormatPngDetect, MFD_FORMAT_PNG, file);
    EXPECT_FALSE(got.recognised) << index;
    EXPECT_EQ(got.status, 0);
  }
}

Bytes gifFile(const std::string &version, std::initializer_list<int> screen) {
  Bytes out;
  appendText(out, "GIF" + version);
  append(out, screen);
  append(out, {0x2C, 0, 0, 0, 0, 1, 0, 1, 0, 0, 2, 2, 0x44, 0x01, 0, 0x3B});
  return out;
}

TEST_F(ImageDetectionTest, GifLogicalScreenIsLittleEndian) {
  // 0x2003 x 0x5802 as stored: 800 x 600; then packed fields 0xF7, index 0.
  const Detection got = detectBytes("screen.gif", gifFile("89a", {0x20, 0x03, 0x58, 0x02, 0xF7, 0x00, 0x00}));
  ASSERT_EQ(got.result, 0);
  EXPECT_EQ(got.info.formatId, MFD_FORMAT_GIF);
  EXPECT_EQ(got.info.formatWord, 21);
  EXPECT_EQ(got.info.width, 800);
  EXPECT_EQ(got.info.height, 600);
  EXPECT_EQ(got.info.channels, 0xF700);
  EXPECT_EQ(got.profile, "DLNA.ORG_PN=GIF_LRG;DLNA.ORG_OP=01;DLNA.ORG_CI=0");
}

TEST_F(ImageDetectionTest, GifVersionsOtherThan87aAnd89aAreRefused) {
  for (const std::string version : {"88a", "89b", "90a", "87b"}) {
    const auto got = runDetector(mediaFormatGifDetect, MFD_FORMAT_GIF, gifFile(version, {1, 0, 1, 0, 0, 0, 0}));
    EXPECT_FALSE(got.recognised) << version;
    EXPECT_EQ(got.status, 0);
  }
  const auto old = runDetector(mediaFormatGifDetect, MFD_FORMAT_GIF, gifFile("87a", {1, 0, 2, 0, 0, 0, 0}));
  ASSERT_TRUE(old.recognised);
  EXPECT_EQ(old.info.width, 1);
  EXPECT_EQ(old.info.height, 2);
  const Detection viaFramework = detectBytes("old.gif", gifFile("88a", {1, 0, 1, 0, 0, 0, 0}));
  EXPECT_NE(viaFramework.info.formatId, MFD_FORMAT_GIF);
}

// --- TIFF -------------------------------------------------------------------

struct TiffEntry {
  uint16_t tag;
  uint16_t type;
  uint32_t count;
  uint32_t value;  // a SHORT or BYTE that fits is placed first in the field
};

void appendOrdered16(Bytes &out, bool little, uint32_t value) {
  little ? appendLe16(out, value) : appendBe16(out, value);
}
void appendOrdered32(Bytes &out, bool little, uint32_t value) {
  little ? appendLe32(out, value) : appendBe32(out, value);
}

// Header, then `tail` (pixel data or arrays), then the IFD with `entries`
// (the header's offset points at it) and `afterIfd`.
Bytes tiffFile(bool little, const std::vector<TiffEntry> &entries, const Bytes &tail = {},
               const Bytes &afterIfd = {}) {
  Bytes out;
  appendText(out, little ? "II" : "MM");
  appendOrdered16(out, little, 42);
  appendOrdered32(out, little, static_cast<uint32_t>(8 + tail.size()));
  out.insert(out.end(), tail.begin(), tail.end());
  appendOrdered16(out, little, static_cast<uint32_t>(entries.size()));
  for (const TiffEntry &entry : entries) {
    appendOrdered16(out, little, entry.tag);
    appendOrdered16(out, little, entry.type);
    appendOrdered32(out, little, entry.count);
    if (entry.type == 3 && entry.count <= 2) {
      appendOrdered16(out, little, entry.value);
      append(out, {0, 0});
    } else if (entry.type == 1 && entry.count <= 4) {
      append(out, {static_cast<int>(entry.value), 0, 0, 0});
    } else {
      appendOrdered32(out, little, entry.value);
    }
  }
  appendOrdered32(out, little, 0);
  out.insert(out.end(), afterIfd.begin(), afterIfd.end());
  return out;
}

class TiffDetectorTest : public ImageDetectionTest {
 protected:
  Direct run(const Bytes &bytes) const { return runDetector(mediaFormatTiffDetect, MFD_FORMAT_TIFF, bytes); }
};

TEST_F(TiffDetectorTest, ShortAndLongValuesInBothByteOrders) {
  // A plain shift of the value field would make 256 (SHORT or LONG) into 1
  // in a big-endian file; the field type says where the value is, so a
  // big-endian ImageWidth LONG 256 is 256.
  for (bool little : {true, false}) {
    for (uint16_t type : {uint16_t{3}, uint16_t{4}}) {
      for (uint32_t width : {256u, 640u, 1u, 65535u}) {
        SCOPED_TRACE(std::string(little ? "II " : "MM ") + (type == 3 ? "SHORT " : "LONG ") +
                     std::to_string(width));
        const auto got = run(tiffFile(little, {{254, 4, 1, 0}, {256, type, 1, width}, {257, type, 1, 512},
                                               {258, 3, 1, 8}, {259, 3, 1, 1}}));
        ASSERT_TRUE(got.recognised);
        ASSERT_EQ(got.status, 0);
        EXPECT_EQ(got.info.formatId, MFD_FORMAT_TIFF);
        EXPECT_EQ(got.info.formatWord, 22);
        EXPECT_EQ(got.info.width, static_cast<int32_t>(width));
        EXPECT_EQ(got.info.height, 512);
        EXPECT_EQ(got.info.channels, 8);
      }
    }
  }
}

TEST_F(TiffDetectorTest, BigEndianLong256ThroughTheFramework) {
  const Detection got = detectBytes("long.tif", tiffFile(false, {{256, 4, 1, 256}, {257, 4, 1, 256}, {258, 3, 1, 8}}));
  ASSERT_EQ(got.result, 0);
  EXPECT_EQ(got.info.width, 256);
  EXPECT_EQ(got.info.height, 256);
  EXPECT_EQ(got.mime, "image/tiff");
  EXPECT_EQ(got.protocol, "http-get:*:image/tiff:*");
  EXPECT_EQ(got.info.duration, 0u);
}

TEST_F(TiffDetectorTest, BitsPerSampleFromByteFieldAndFromArray) {
  for (bool little : {true, false}) {
    const auto byteField = run(tiffFile(little, {{256, 3, 1, 10}, {257, 3, 1, 20}, {258, 1, 1, 8}}));
    ASSERT_EQ(byteField.status, 0);
    EXPECT_EQ(byteField.info.channels, 8);
    // Three SHORTs do not fit the field: it holds their offset (8).
    Bytes array;
    for (int i = 0; i < 3; ++i) appendOrdered16(array, little, 16);
    const auto rgb = run(tiffFile(little, {{256, 3, 1, 10}, {257, 3, 1, 20}, {258, 3, 3, 8}}, array));
    ASSERT_EQ(rgb.status, 0);
    EXPECT_EQ(rgb.info.width, 10);
    EXPECT_EQ(rgb.info.height, 20);
    EXPECT_EQ(rgb.info.channels, 16);
  }
}

TEST_F(TiffDetectorTest, WalkStopsAtTheEndOfTheIfd) {
  // No ImageLength in the IFD; behind it lie bytes that would read as one.
  for (bool little : {true, false}) {
    Bytes decoy;
    appendOrdered16(decoy, little, 257);
    appendOrdered16(decoy, little, 3);
    appendOrdered32(decoy, little, 1);
    appendOrdered32(decoy, little, little ? 999 : 999u << 16);
    const auto got = run(tiffFile(little, {{256, 3, 1, 300}, {262, 3, 1, 2}}, {}, decoy));
    ASSERT_EQ(got.status, 0);
    EXPECT_EQ(got.info.width, 300);
    EXPECT_EQ(got.info.height, 0);
    const auto empty = run(tiffFile(little, {}, {}, decoy));
    EXPECT_EQ(empty.status, 0);
    EXPECT_EQ(empty.info.height, 0);
  }
}

TEST_F(TiffDetectorTest, ThreeSizeTagsEndTheWalkEvenWhenRepeated) {
  const auto got = run(tiffFile(true, {{256, 3, 1, 10}, {256, 3, 1, 20}, {256, 3, 1, 30}, {257, 3, 1, 40}}));
  ASSERT_EQ(got.status, 0);
  EXPECT_EQ(got.info.width, 30);
  EXPECT_EQ(got.info.height, 0);
}

TEST_F(TiffDetectorTest, HostileIfdsEndAtTheReader) {
  Bytes hugeCount{'M', 'M', 0, 42, 0, 0, 0, 8, 0xFF, 0xFF};  // 65535 entries, none present
  hugeCount.resize(200000, 0);
  Bytes pastEnd{'I', 'I', 42, 0, 0xF0, 0xFF, 0xFF, 0x7F};
  Bytes atHeader{'I', 'I', 42, 0, 0, 0, 0, 0, 1, 2, 3, 4};
  Bytes arrayPastEnd = tiffFile(false, {{256, 3, 1, 1}, {257, 3, 1, 1}, {258, 3, 3, 0x7FFF0000}});
  for (const Bytes &file : {hugeCount, pastEnd, atHeader, arrayPastEnd}) {
    const auto got = run(file);
    EXPECT_TRUE(got.recognised);
    EXPECT_NE(got.status, 0);
  }
}

TEST_F(TiffDetectorTest, OnlyByteOrderMarkAnd42AreRecognised) {
  for (const Bytes &file : {Bytes{'I', 'M', 42, 0, 8, 0, 0, 0}, Bytes{'I', 'I', 43, 0, 8, 0, 0, 0},
                            Bytes{'M', 'M', 42, 0, 0, 0, 0, 8}, Bytes{'I', 'I', 0, 42, 8, 0, 0, 0}}) {
    const auto got = run(file);
    EXPECT_FALSE(got.recognised);
    EXPECT_EQ(got.status, 0);
  }
}

}  // namespace

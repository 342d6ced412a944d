// JPEG detector on headers built byte by byte: the segment walk, the Exif
// pixel dimensions in both byte orders, every frame header type, and
// malformed or hostile headers.
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "mfd_image_test_support.h"

namespace {

using namespace mfdimagetest;

Bytes segment(int marker, const Bytes &payload) {
  Bytes out;
  append(out, {0xFF, marker});
  appendBe16(out, static_cast<uint32_t>(payload.size() + 2));
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

Bytes jfifApp0() {
  Bytes payload;
  appendText(payload, std::string("JFIF", 5));
  append(payload, {1, 1, 0, 0, 1, 0, 1, 0, 0});
  return segment(0xE0, payload);
}

Bytes quantTable() {
  Bytes payload{0};
  for (int i = 0; i < 64; ++i) payload.push_back(static_cast<uint8_t>(i + 1));
  return segment(0xDB, payload);
}

Bytes frameHeader(int marker, int precision, uint32_t width, uint32_t height) {
  Bytes payload{static_cast<uint8_t>(precision)};
  appendBe16(payload, height);
  appendBe16(payload, width);
  append(payload, {3, 1, 0x22, 0, 2, 0x11, 1, 3, 0x11, 1});
  return segment(marker, payload);
}

// A whole file: SOI, the given segments, a short scan and EOI.
Bytes jpegFile(const std::vector<Bytes> &segments) {
  Bytes out{0xFF, 0xD8};
  for (const Bytes &part : segments) out.insert(out.end(), part.begin(), part.end());
  append(out, {0xFF, 0xDA, 0x00, 0x08, 0x01, 0x01, 0x00, 0x00, 0x3F, 0x00});
  append(out, {0x12, 0xFF, 0x00, 0x34, 0xFF, 0xD0, 0x56, 0x78, 0xFF, 0xD9});
  return out;
}

struct ExifEntry {
  uint16_t tag;
  uint16_t type;  // 3 SHORT, 4 LONG
  uint32_t value;
};

void appendOrdered16(Bytes &out, bool little, uint32_t value) {
  little ? appendLe16(out, value) : appendBe16(out, value);
}
void appendOrdered32(Bytes &out, bool little, uint32_t value) {
  little ? appendLe32(out, value) : appendBe32(out, value);
}

void appendIfd(Bytes &tiff, bool little, const std::vector<ExifEntry> &entries) {
  appendOrdered16(tiff, little, static_cast<uint32_t>(entries.size()));
  for (const ExifEntry &entry : entries) {
    appendOrdered16(tiff, little, entry.tag);
    appendOrdered16(tiff, little, entry.type);
    appendOrdered32(tiff, little, 1);
    if (entry.type == 3) {
      appendOrdered16(tiff, little, entry.value);
      append(tiff, {0, 0});
    } else {
      appendOrdered32(tiff, little, entry.value);
    }
  }
  appendOrdered32(tiff, little, 0);
}

// Exif APP1: IFD0 holds only the pointer to the Exif IFD with `entries`.
Bytes exifApp1(bool little, const std::vector<ExifEntry> &entries) {
  Bytes tiff;
  appendText(tiff, little ? "II" : "MM");
  appendOrdered16(tiff, little, 42);
  appendOrdered32(tiff, little, 8);
  const uint32_t exifIfdOffset = 8 + 2 + 12 + 4;
  appendIfd(tiff, little, {{0x8769, 4, exifIfdOffset}});
  appendIfd(tiff, little, entries);
  Bytes payload;
  appendText(payload, std::string("Exif\0\0", 6));
  payload.insert(payload.end(), tiff.begin(), tiff.end());
  return segment(0xE1, payload);
}

class JpegDetectorTest : public ImageDetectionTest {
 protected:
  Direct run(const Bytes &bytes) const { return runDetector(mediaFormatJpegDetect, MFD_FORMAT_JPEG, bytes); }
};

TEST_F(JpegDetectorTest, JfifBaselineGivesFrameSizeAndPrecision) {
  const Bytes file = jpegFile({jfifApp0(), quantTable(), frameHeader(0xC0, 8, 640, 480)});
  const Detection got = detectBytes("jfif.jpg", file);
  ASSERT_EQ(got.result, 0);
  EXPECT_EQ(got.info.mediaClass, MFD_CLASS_IMAGE);
  EXPECT_EQ(got.info.formatId, MFD_FORMAT_JPEG);
  EXPECT_EQ(got.info.formatWord, 18);
  EXPECT_EQ(got.info.width, 640);
  EXPECT_EQ(got.info.height, 480);
  EXPECT_EQ(got.info.channels, 8);
  EXPECT_EQ(got.mime, "image/jpeg");
  EXPECT_EQ(got.profile, "DLNA.ORG_PN=JPEG_SM;DLNA.ORG_OP=01;DLNA.ORG_CI=0");
  EXPECT_EQ(got.info.duration, 0u);
}

TEST_F(JpegDetectorTest, ExifPixelDimensionsWinOverTheFrameInBothByteOrders) {
  for (bool little : {true, false}) {
    SCOPED_TRACE(little ? "Intel" : "Motorola");
    for (uint16_t type : {uint16_t{3}, uint16_t{4}}) {
      SCOPED_TRACE(type == 3 ? "SHORT" : "LONG");
      const Bytes file = jpegFile({exifApp1(little, {{0xA001, 3, 1}, {0xA002, type, 640}, {0xA003, type, 480}}),
                                   quantTable(), frameHeader(0xC0, 8, 100, 100)});
      const Detection got = detectBytes("exif.jpg", file);
      ASSERT_EQ(got.result, 0);
      EXPECT_EQ(got.info.width, 640);
      EXPECT_EQ(got.info.height, 480);
      EXPECT_EQ(got.info.channels, 0);  // the walk ends with the Exif sizes
      EXPECT_EQ(got.profile, "DLNA.ORG_PN=JPEG_SM;DLNA.ORG_OP=01;DLNA.ORG_CI=0");
    }
  }
}

TEST_F(JpegDetectorTest, ExifAfterJfifIsFoundToo) {
  const auto got = run(jpegFile({jfifApp0(), exifApp1(false, {{0xA002, 4, 1024}, {0xA003, 3, 768}}),
                                 frameHeader(0xC0, 8, 16, 16)}));
  ASSERT_EQ(got.status, 0);
  EXPECT_EQ(got.info.width, 1024);
  EXPECT_EQ(got.info.height, 768);
}

TEST_F(JpegDetectorTest, IncompleteExifSizesFallBackToTheFrameHeader) {
  const std::vector<std::vector<ExifEntry>> exifVariants = {
      {},                                  // no dimensions at all
      {{0xA002, 3, 0}, {0xA003, 3, 0}},    // zero values are ignored
      {{0xA002, 3, 640}},                  // only one of the two
      {{0xA002, 7, 640}, {0xA003, 7, 480}} // neither SHORT nor LONG
  };
  for (bool little : {true, false}) {
    for (const auto &entries : exifVariants) {
      SCOPED_TRACE(std::to_string(entries.size()) + " entries");
      const auto got = run(jpegFile({exifApp1(little, entries), frameHeader(0xC0, 8, 320, 200)}));
      ASSERT_EQ(got.status, 0);
      EXPECT_EQ(got.info.width, 320);
      EXPECT_EQ(got.info.height, 200);
      EXPECT_EQ(got.info.channels, 8);
    }
  }
}

TEST_F(JpegDetectorTest, BrokenExifStructuresStayInsideTheirSegment) {
  Bytes hugeCount;  // IFD0 claims 65535 entries in a 20-byte segment
  appendText(hugeCount, std::string("Exif\0\0MM\0\x2A\0\0\0\x08\xFF\xFF", 16));
  Bytes farOffset;  // IFD0 offset far outside the segment
  appendText(farOffset, std::string("Exif\0\0II\x2A\0\xF0\xFF\xFF\x7F", 14));
  Bytes badOrder;  // neither "II" nor "MM"
  appendText(badOrder, std::string("Exif\0\0IM\0\x2A\0\0\0\x08", 14));
  Bytes tooShort;
  appendText(tooShort, std::string("Exif\0\0II", 8));
  // XMP text holding the bytes of an Intel pixel dimension entry.
  Bytes xmp;
  appendText(xmp, std::string("http://ns.adobe.com/xap/1.0/\0", 29));
  append(xmp, {0x02, 0xA0, 0x04, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00});
  append(xmp, {0x03, 0xA0, 0x04, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00});
  for (const Bytes &payload : {hugeCount, farOffset, badOrder, tooShort, xmp}) {
    const auto got = run(jpegFile({segment(0xE1, payload), frameHeader(0xC0, 8, 64, 32)}));
    ASSERT_EQ(got.status, 0);
    EXPECT_EQ(got.info.width, 64);
    EXPECT_EQ(got.info.height, 32);
  }
}

TEST_F(JpegDetectorTest, EveryFrameHeaderTypeGivesTheSize) {
  for (int marker : {0xC0, 0xC1, 0xC2, 0xC3, 0xC5, 0xC6, 0xC7, 0xC9, 0xCA, 0xCB, 0xCD, 0xCE, 0xCF}) {
    SCOPED_TRACE(marker);
    const auto got = run(jpegFile({jfifApp0(), frameHeader(marker, 12, 1920, 1080)}));
    ASSERT_EQ(got.status, 0);
    EXPECT_EQ(got.info.width, 1920);
    EXPECT_EQ(got.info.height, 1080);
    EXPECT_EQ(got.info.channels, 12);
  }
}

TEST_F(JpegDetectorTest, SegmentsAreSkippedByLengthNotSearched) {
  // DHT (0xC4), JPG (0xC8) and DAC (0xCC) are not frame headers; a comment
  // and an APP segment hold the bytes of a false frame header.
  const Bytes fakeFrame = frameHeader(0xC0, 8, 4000, 4000);
  const Bytes file = jpegFile({jfifApp0(), segment(0xC4, {0, 1, 2, 3}), segment(0xC8, {9}),
                               segment(0xCC, {0, 0x11}), segment(0xFE, fakeFrame),
                               segment(0xED, fakeFrame), frameHeader(0xC0, 8, 300, 200)});
  const auto got = run(file);
  ASSERT_EQ(got.status, 0);
  EXPECT_EQ(got.info.width, 300);
  EXPECT_EQ(got.info.height, 200);
}

TEST_F(JpegDetectorTest, FillBytesAndStandaloneMarkersAreStepped) {
  Bytes file{0xFF, 0xD8, 0xFF, 0xFF, 0xFF};  // fill bytes before APP0's marker
  const Bytes app0 = jfifApp0();
  file.insert(file.end(), app0.begin() + 1, app0.end());
  append(file, {0xFF, 0xD0, 0xFF, 0x01});  // RST0 and TEM carry no length
  const Bytes frame = frameHeader(0xC2, 8, 800, 600);
  file.insert(file.end(), frame.begin(), frame.end());
  const auto got = run(file);
  ASSERT_EQ(got.status, 0);
  EXPECT_EQ(got.info.width, 800);
  EXPECT_EQ(got.info.height, 600);
}

TEST_F(JpegDetectorTest, ExtraneousBytesBeforeMarkersArePassedOver) {
  // Some writers leave padding between segments; decoders step over it.
  const Bytes app0 = jfifApp0();
  const Bytes frame = frameHeader(0xC0, 8, 720, 576);
  Bytes file{0xFF, 0xD8};
  file.insert(file.end(), app0.begin(), app0.end());
  append(file, {0x00, 0x12, 0x34, 0xFF, 0x00, 0x56});  // 0xFF 0x00 is no marker either
  file.insert(file.end(), frame.begin(), frame.end());
  const auto got = run(file);
  ASSERT_EQ(got.status, 0);
  EXPECT_EQ(got.info.width, 720);
  EXPECT_EQ(got.info.height, 576);
}

TEST_F(JpegDetectorTest, LargeSegmentsBeyondTheReadLimitAreJumpedOver) {
  // Three 65,000-byte APP2 segments put the frame header past 122,880 bytes.
  const Bytes big(65000, 0x5A);
  const auto got = run(jpegFile({jfifApp0(), segment(0xE2, big), segment(0xE2, big),
                                 segment(0xE2, big), frameHeader(0xC0, 8, 4096, 2048)}));
  ASSERT_EQ(got.status, 0);
  EXPECT_EQ(got.info.width, 4096);
  EXPECT_EQ(got.info.height, 2048);
}

// A header that ends without a picture size fails (the file is then not
// listed), just as one cut off before its frame header.
TEST_F(JpegDetectorTest, MalformedHeadersFailWithoutSize) {
  Bytes badLength{0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x01, 0xFF, 0xC0};
  Bytes endBeforeFrame{0xFF, 0xD8, 0xFF, 0xD9};
  Bytes scanBeforeFrame = jpegFile({jfifApp0()});
  Bytes shortFrame = jpegFile({segment(0xC0, {8, 0, 1})});
  Bytes manyComments{0xFF, 0xD8};  // more segments than any header has
  for (int i = 0; i < 5000; ++i) append(manyComments, {0xFF, 0xFE, 0x00, 0x02});
  append(manyComments, {0xFF, 0xC0, 0x00, 0x0B, 8, 0, 16, 0, 16, 1, 1, 0x11, 0});
  Bytes endlessFill{0xFF, 0xD8};  // bytes passed over in search of a marker are bounded
  endlessFill.resize(200000, 0xFF);
  Bytes endlessGarbage{0xFF, 0xD8};
  endlessGarbage.resize(200000, 0x00);
  for (const Bytes &file : {badLength, endBeforeFrame, scanBeforeFrame, shortFrame, manyComments,
                            endlessFill, endlessGarbage}) {
    const auto got = run(file);
    EXPECT_TRUE(got.recognised);
    EXPECT_EQ(got.status, MFD_ERR_INVALID_PARAM);
    EXPECT_EQ(got.info.width, 0);
    EXPECT_EQ(got.info.height, 0);
  }
}

TEST_F(JpegDetectorTest, ReadFailuresAreTheResult) {
  Bytes cutInExif = jpegFile({exifApp1(true, {{0xA002, 3, 640}, {0xA003, 3, 480}})});
  cutInExif.resize(30);
  Bytes cutInSkip = jpegFile({segment(0xE2, Bytes(5000, 1)), frameHeader(0xC0, 8, 8, 8)});
  cutInSkip.resize(3000);
  Bytes fillToTheEnd{0xFF, 0xD8};
  fillToTheEnd.resize(500, 0xFF);
  for (const Bytes &file : {cutInExif, cutInSkip, fillToTheEnd}) {
    const auto got = run(file);
    EXPECT_TRUE(got.recognised);
    EXPECT_NE(got.status, 0);
    EXPECT_EQ(got.info.width, 0);
  }
}

TEST_F(JpegDetectorTest, OnlyStartOfImageIsRecognised) {
  for (const Bytes &file : {Bytes{0xFF, 0xD9, 0xFF, 0xE0}, Bytes{0xD8, 0xFF, 0xE0, 0x00},
                            Bytes{0x00, 0xFF, 0xD8, 0xFF}}) {
    const auto got = run(file);
    EXPECT_FALSE(got.recognised);
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.info.formatId, 0u);
  }
}

}  // namespace

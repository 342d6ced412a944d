// A camera's Exif thumbnail is found only inside its own segment, and broken
// pictures scale to nothing (the server does not even offer to scale some of
// them).  What the scaler makes of every good picture is the art test's,
// over HTTP.
#include <gtest/gtest.h>

#include <string>

#include "art/dmsArtImage.h"
#include "dms_test.h"
#include "mfd/mfd_exif.h"

namespace {

using dmstest::fixture;

TEST(ArtImage, ExifThumbnailIsFoundInsideItsSegmentOnly) {
  const std::string path = fixture("art/photo/exif-thumb-landscape.jpg");
  std::string bytes = dmstest::readFile(path);
  int64_t fileOffset = 0, fileLength = 0;
  ASSERT_TRUE(mfdExif_thumbnail(path, &fileOffset, &fileLength));
  const std::string thumb = bytes.substr(size_t(fileOffset), size_t(fileLength));
  EXPECT_EQ(dmstest::decodedJpegSize(thumb), "160x120");
  size_t offset = 0, length = 0;
  const auto *data = reinterpret_cast<const uint8_t *>(bytes.data());
  ASSERT_TRUE(mfdExif_thumbnailIn(data, bytes.size(), &offset, &length));
  EXPECT_EQ(bytes.substr(offset, length), thumb);
  // IFD1's length entry (tag 0x0202, LONG, count 1) made to run past the segment.
  const size_t big = bytes.find(std::string("\x02\x02\x00\x04\x00\x00\x00\x01", 8));
  const size_t little = bytes.find(std::string("\x02\x02\x04\x00\x01\x00\x00\x00", 8));
  const size_t entry = big != std::string::npos ? big : little;
  ASSERT_NE(entry, std::string::npos);
  bytes.replace(entry + 8, 4, "\x00\xFF\xFF\x00", 4);
  EXPECT_FALSE(mfdExif_thumbnailIn(data, bytes.size(), &offset, &length));
  EXPECT_FALSE(mfdExif_thumbnail(fixture("art/photo/no-thumb-landscape.jpg"), &fileOffset, &fileLength));
  EXPECT_FALSE(mfdExif_thumbnail(fixture("art/photo/alpha.png"), &fileOffset, &fileLength));
}

TEST(ArtImage, BrokenPicturesScaleToNothing) {
  for (const char *name : {"cmyk.jpg", "truncated.jpg", "huge-declared.jpg", "huge-declared.png"}) {
    dmsArtJpeg out;
    EXPECT_FALSE(dmsArtScaleFile(fixture(std::string("art/broken/") + name), 160, 160, out)) << name;
    EXPECT_TRUE(out.bytes.empty()) << name;
  }
}

}  // namespace

// Thumbnails of the picture fixtures listed in tests/fixtures/art.tsv: every
// decodable picture becomes a JPEG of exactly its fitted size (never larger
// than itself), a camera's Exif thumbnail of that size is handed out as it
// is, and broken files give nothing.
#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "dms_test.h"
#include "art/dmsArtImage.h"
#include "mfd/mfd_exif.h"

namespace {

struct ArtRow {
  std::string path, exifThumb;
  int32_t width = 0, height = 0;
  bool decodable = false;
};

// The rows of pictures (audio files, decodable "-", are left out).
std::vector<ArtRow> loadPictures() {
  std::vector<ArtRow> rows;
  std::ifstream in(std::string(DMS_TEST_FIXTURES) + "/art.tsv");
  std::string line, embedded, decodable;
  std::getline(in, line);  // column names
  for (ArtRow row; std::getline(in, line);) {
    std::istringstream(line) >> row.path >> row.width >> row.height >> row.exifThumb >> embedded >> decodable;
    row.decodable = decodable == "yes";
    if (decodable != "-") rows.push_back(row);
  }
  return rows;
}

// The size a JPEG's header declares; {0, 0} when it has none.
std::pair<int, int> jpegSize(const std::string &bytes) {
  tjhandle handle = tjInitDecompress();
  int width = 0, height = 0, subsampling = 0, colourSpace = 0;
  if (tjDecompressHeader3(handle, reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size(), &width,
                          &height, &subsampling, &colourSpace) != 0) {
    width = height = 0;
  }
  tjDestroy(handle);
  return {width, height};
}

// The bytes of the Exif thumbnail of the file at `path`; empty when none.
std::string exifThumbnail(const std::string &path) {
  int64_t offset = 0, length = 0;
  if (!mfdExif_thumbnail(path, &offset, &length)) return {};
  return dmstest::readFile(path).substr(static_cast<size_t>(offset), static_cast<size_t>(length));
}

TEST(ArtImage, EveryPictureFixtureScalesToItsFittedSize) {
  const std::vector<ArtRow> rows = loadPictures();
  ASSERT_GE(rows.size(), 13u);
  for (const ArtRow &row : rows) {
    for (const auto &[boxWidth, boxHeight] : {std::pair{160, 160}, std::pair{640, 480}}) {
      SCOPED_TRACE(row.path + " in " + std::to_string(boxWidth) + "x" + std::to_string(boxHeight));
      const std::string path = dmstest::fixture(row.path);
      dmsArtJpeg out;
      if (!row.decodable) {
        EXPECT_FALSE(dmsArtScaleFile(path, boxWidth, boxHeight, out));
        EXPECT_TRUE(out.bytes.empty());
        continue;
      }
      ASSERT_TRUE(dmsArtScaleFile(path, boxWidth, boxHeight, out));
      int32_t fitWidth = 0, fitHeight = 0;
      dmsArtFitSize(row.width, row.height, boxWidth, boxHeight, &fitWidth, &fitHeight);
      const bool fits = row.width <= boxWidth && row.height <= boxHeight;
      EXPECT_TRUE(fits ? fitWidth == row.width && fitHeight == row.height
                       : (fitWidth == boxWidth && fitHeight <= boxHeight) ||
                             (fitHeight == boxHeight && fitWidth <= boxWidth));
      EXPECT_EQ(jpegSize(out.bytes), std::make_pair(fitWidth, fitHeight));
      EXPECT_EQ(std::make_pair(out.width, out.height), std::make_pair(fitWidth, fitHeight));
      if (row.exifThumb != "-") {
        EXPECT_EQ(out.bytes == exifThumbnail(path), boxWidth == 160);
      }
    }
  }
}

TEST(ArtImage, ExifThumbnailIsFoundInsideItsSegmentOnly) {
  const std::string path = dmstest::fixture("art/photo/exif-thumb-landscape.jpg");
  const std::string thumb = exifThumbnail(path);
  std::string bytes = dmstest::readFile(path);
  EXPECT_EQ(jpegSize(thumb), std::make_pair(160, 120));
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
  int64_t fileOffset = 0, fileLength = 0;
  EXPECT_FALSE(mfdExif_thumbnail(dmstest::fixture("art/photo/no-thumb-landscape.jpg"), &fileOffset, &fileLength));
  EXPECT_FALSE(mfdExif_thumbnail(dmstest::fixture("art/photo/alpha.png"), &fileOffset, &fileLength));
}

}  // namespace

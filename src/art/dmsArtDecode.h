// The decoding half of thumbnails and album art: JPEG and PNG pictures
// decoded to 8-bit RGB and reduced to a requested size by area averaging,
// without ever holding more than the pixel budget allows.
#ifndef DMS_ART_DMS_ART_DECODE_H
#define DMS_ART_DMS_ART_DECODE_H

#include <cstddef>
#include <cstdint>
#include <vector>

// An 8-bit RGB picture, rows packed (3 * width bytes each, top row first).
struct dmsArtRgb {
  std::vector<uint8_t> pixels;
  int32_t width = 0;
  int32_t height = 0;
};

enum class dmsArtKind { kNone, kJpeg, kPng };

// The kind of picture in [data, data + size), told by its signature alone.
dmsArtKind dmsArtKindOf(const uint8_t *data, size_t size);

// The width and height the JPEG or PNG header in [data, data + size)
// declares; false when there is none or a size is not positive.  Nothing is
// decoded, and nothing is checked against the pixel budget.
bool dmsArtSourceSize(const uint8_t *data, size_t size, int32_t *width, int32_t *height);

// Decodes the JPEG in [data, data + size) and reduces it to exactly
// width x height (each at least 1 and at most the picture's own).  Reads at
// the smallest DCT scale that still covers the target, then area-averages.
// false when the picture is larger than DMS_ART_MAX_SOURCE_PIXELS (or, when
// progressive, DMS_ART_MAX_PROGRESSIVE_PIXELS), is CMYK
// or YCCK, or does not decode completely (truncated, corrupt: warnings count
// as failures).  May throw std::bad_alloc; `out` is replaced only on success.
bool dmsArtDecodeJpeg(const uint8_t *data, size_t size, int32_t width, int32_t height, dmsArtRgb &out);

// The same for a PNG: any colour type and depth becomes 8-bit RGB, alpha is
// laid over white.  A non-interlaced picture is reduced as its rows are
// decoded, so memory stays one source row plus the target; an
// interlaced one is decoded whole and refused above 4 million pixels.  Also
// false beyond 30000 pixels in either direction.
bool dmsArtDecodePng(const uint8_t *data, size_t size, int32_t width, int32_t height, dmsArtRgb &out);

// Area-average (box) reduction of a sourceWidth x sourceHeight RGB picture
// to width x height, fed one source row at a time, top to bottom.  Source
// column x goes to target column x * width / sourceWidth (rows alike), so
// every target pixel averages at least one source pixel.  Only one target
// row is accumulated at a time.
class dmsArtBoxFilter {
 public:
  // Prepares the reduction; false unless 1 <= width <= sourceWidth and
  // 1 <= height <= sourceHeight.  May throw std::bad_alloc.
  bool start(int32_t sourceWidth, int32_t sourceHeight, int32_t width, int32_t height);
  // Adds the next source row (3 * sourceWidth bytes); rows beyond the last
  // are ignored.
  void addRow(const uint8_t *rgb) noexcept;
  // Hands out the target once every source row was added; false before.
  bool finish(dmsArtRgb &out) noexcept;

 private:
  void flushRow() noexcept;

  std::vector<int32_t> columnBin_;     // target column of each source column
  std::vector<uint32_t> binColumns_;   // source columns in each target column
  std::vector<uint64_t> sums_;         // the target row being accumulated, 3 per pixel
  dmsArtRgb target_;
  int32_t sourceWidth_ = 0;
  int32_t sourceHeight_ = 0;
  int32_t rowsAdded_ = 0;
  int32_t binRow_ = 0;      // target row that sums_ belongs to
  uint32_t binRows_ = 0;    // source rows added to it so far
};

#endif  // DMS_ART_DMS_ART_DECODE_H

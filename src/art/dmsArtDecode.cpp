#include "art/dmsArtDecode.h"

#include <png.h>
#include <turbojpeg.h>

#include <csetjmp>
#include <cstring>
#include <memory>

#include "art/dmsArtImage.h"

namespace {

constexpr uint8_t kPngSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
constexpr png_uint_32 kPngMaxSide = 30000;
// An interlaced PNG cannot be reduced row by row, so it is decoded whole:
// 4 million pixels are 16 MB at 4 bytes each.
constexpr int64_t kPngMaxInterlacedPixels = 4'000'000;

struct TjDeleter {
  void operator()(void *handle) const noexcept { tjDestroy(handle); }
};
using TjHandle = std::unique_ptr<void, TjDeleter>;

uint32_t bigEndian32(const uint8_t *bytes) {
  return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

bool withinBudget(int64_t width, int64_t height) {
  return width > 0 && height > 0 && width * height <= DMS_ART_MAX_SOURCE_PIXELS;
}

// ---- JPEG ----

// The smallest size among the decoder's DCT scales of width x height that
// still covers targetWidth x targetHeight; the full size covers any target
// that is not an enlargement.
void jpegScaledSize(int width, int height, int targetWidth, int targetHeight, int *scaledWidth,
                    int *scaledHeight) {
  *scaledWidth = width;
  *scaledHeight = height;
  int count = 0;
  const tjscalingfactor *factors = tjGetScalingFactors(&count);
  for (int i = 0; factors != nullptr && i < count; ++i) {
    const int w = TJSCALED(width, factors[i]);
    const int h = TJSCALED(height, factors[i]);
    if (w >= targetWidth && h >= targetHeight && int64_t{w} * h < int64_t{*scaledWidth} * *scaledHeight) {
      *scaledWidth = w;
      *scaledHeight = h;
    }
  }
}

// ---- PNG ----

// Where libpng's reads come from: the caller's buffer.
struct PngInput {
  const uint8_t *data;
  size_t size;
  size_t at;
};

// What the header and the chosen transformations make of the picture.
struct PngLayout {
  png_uint_32 width;
  png_uint_32 height;
  size_t rowBytes;
  int channels;  // 3 (RGB) or 4 (RGBA)
  bool interlaced;
};

// The libpng read and info structs of one decode, destroyed together.
struct PngReader {
  png_structp png = nullptr;
  png_infop info = nullptr;
  PngReader() = default;
  PngReader(const PngReader &) = delete;
  PngReader &operator=(const PngReader &) = delete;
  ~PngReader() { png_destroy_read_struct(&png, &info, nullptr); }
};

void pngRead(png_structp png, png_bytep out, size_t length) {
  auto *input = static_cast<PngInput *>(png_get_io_ptr(png));
  if (input->size - input->at < length) png_error(png, "truncated");
  std::memcpy(out, input->data + input->at, length);
  input->at += length;
}

// libpng's error contract: never return, jump back to the setjmp of the
// function that made the failing call.  Nothing is printed: a bad file is
// an expected input, reported by the caller's false.
[[noreturn]] void pngFail(png_structp png, png_const_charp) { png_longjmp(png, 1); }
void pngWarn(png_structp, png_const_charp) {}

// Lays each RGBA pixel of `row` over white, in place, leaving packed RGB.
void overWhite(uint8_t *row, png_uint_32 width) {
  for (png_uint_32 x = 0; x < width; ++x) {
    const uint32_t alpha = row[x * 4 + 3];
    for (int c = 0; c < 3; ++c) {
      const uint32_t blended = row[x * 4 + c] * alpha + 255 * (255 - alpha);
      row[x * 3 + c] = static_cast<uint8_t>((blended + 127) / 255);
    }
  }
}

// The three functions below make every libpng call.  A libpng error
// longjmps back into them, so their frames (and the frames of the callbacks
// above) hold only plain data; buffers belong to the caller.

// Reads the header and asks for 8-bit RGB or RGBA rows.
bool pngReadLayout(png_structp png, png_infop info, PngLayout *layout) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_set_user_limits(png, kPngMaxSide, kPngMaxSide);
  png_read_info(png, info);
  png_uint_32 width = 0, height = 0;
  int depth = 0, colour = 0, interlace = 0;
  png_get_IHDR(png, info, &width, &height, &depth, &colour, &interlace, nullptr, nullptr);
  if (depth == 16) png_set_scale_16(png);
  if (colour == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(png);
  if (colour == PNG_COLOR_TYPE_GRAY && depth < 8) png_set_expand_gray_1_2_4_to_8(png);
  if (png_get_valid(png, info, PNG_INFO_tRNS) != 0) png_set_tRNS_to_alpha(png);
  if (colour == PNG_COLOR_TYPE_GRAY || colour == PNG_COLOR_TYPE_GRAY_ALPHA) png_set_gray_to_rgb(png);
  layout->interlaced = interlace != PNG_INTERLACE_NONE;
  if (layout->interlaced) png_set_interlace_handling(png);
  png_read_update_info(png, info);
  layout->width = width;
  layout->height = height;
  layout->rowBytes = png_get_rowbytes(png, info);
  layout->channels = png_get_channels(png, info);
  return true;
}

// Decodes a non-interlaced picture row by row into `filter`.
bool pngReadRows(png_structp png, const PngLayout *layout, uint8_t *row, dmsArtBoxFilter *filter) {
  if (setjmp(png_jmpbuf(png))) return false;
  for (png_uint_32 y = 0; y < layout->height; ++y) {
    png_read_row(png, row, nullptr);
    if (layout->channels == 4) overWhite(row, layout->width);
    filter->addRow(row);
  }
  return true;
}

// Decodes an interlaced picture whole, into the rows `rows` points to.
bool pngReadImage(png_structp png, png_bytepp rows) {
  if (setjmp(png_jmpbuf(png))) return false;
  png_read_image(png, rows);
  return true;
}

}  // namespace

dmsArtKind dmsArtKindOf(const uint8_t *data, size_t size) {
  if (size >= 3 && data[0] == 0xFF && data[1] == 0xD8 && data[2] == 0xFF) return dmsArtKind::kJpeg;
  if (size >= sizeof kPngSignature && std::memcmp(data, kPngSignature, sizeof kPngSignature) == 0) {
    return dmsArtKind::kPng;
  }
  return dmsArtKind::kNone;
}

bool dmsArtSourceSize(const uint8_t *data, size_t size, int32_t *width, int32_t *height) {
  uint32_t w = 0, h = 0;
  switch (dmsArtKindOf(data, size)) {
    case dmsArtKind::kJpeg: {
      const TjHandle handle(tjInitDecompress());
      int jw = 0, jh = 0, subsampling = 0, colourSpace = 0;
      if (!handle || tjDecompressHeader3(handle.get(), data, size, &jw, &jh, &subsampling, &colourSpace) != 0) {
        return false;
      }
      w = jw > 0 ? static_cast<uint32_t>(jw) : 0;
      h = jh > 0 ? static_cast<uint32_t>(jh) : 0;
      break;
    }
    case dmsArtKind::kPng:
      // IHDR comes first: length 13, type, width, height.
      if (size < 24 || bigEndian32(data + 8) != 13 || std::memcmp(data + 12, "IHDR", 4) != 0) return false;
      w = bigEndian32(data + 16);
      h = bigEndian32(data + 20);
      break;
    case dmsArtKind::kNone:
      return false;
  }
  if (w == 0 || h == 0 || w > INT32_MAX || h > INT32_MAX) return false;
  *width = static_cast<int32_t>(w);
  *height = static_cast<int32_t>(h);
  return true;
}

namespace {

// Whether the JPEG in [data, data + size) is progressive (SOF2, 6, 10 or 14),
// from the first frame header among its segments.
bool jpegIsProgressive(const uint8_t *data, size_t size) {
  size_t at = 2;
  while (at + 4 <= size) {
    if (data[at] != 0xFF) return false;
    const uint8_t marker = data[at + 1];
    if (marker == 0xFF) {  // fill byte
      ++at;
      continue;
    }
    const bool frame = marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
    if (frame) return marker == 0xC2 || marker == 0xC6 || marker == 0xCA || marker == 0xCE;
    if ((marker >= 0xD0 && marker <= 0xD7) || marker == 0x01) {
      at += 2;
      continue;
    }
    at += 2 + (size_t{data[at + 2]} << 8 | data[at + 3]);
  }
  return false;
}

}  // namespace

bool dmsArtDecodeJpeg(const uint8_t *data, size_t size, int32_t width, int32_t height, dmsArtRgb &out) {
  const TjHandle handle(tjInitDecompress());
  int sourceWidth = 0, sourceHeight = 0, subsampling = 0, colourSpace = 0;
  if (!handle ||
      tjDecompressHeader3(handle.get(), data, size, &sourceWidth, &sourceHeight, &subsampling, &colourSpace) != 0 ||
      !withinBudget(sourceWidth, sourceHeight) || colourSpace == TJCS_CMYK || colourSpace == TJCS_YCCK ||
      (int64_t{sourceWidth} * sourceHeight > DMS_ART_MAX_PROGRESSIVE_PIXELS && jpegIsProgressive(data, size)) ||
      width < 1 || height < 1 || width > sourceWidth || height > sourceHeight) {
    return false;
  }
  int scaledWidth = 0, scaledHeight = 0;
  jpegScaledSize(sourceWidth, sourceHeight, width, height, &scaledWidth, &scaledHeight);
  dmsArtRgb decoded;
  decoded.pixels.resize(size_t{3} * static_cast<size_t>(scaledWidth) * static_cast<size_t>(scaledHeight));
  decoded.width = scaledWidth;
  decoded.height = scaledHeight;
  // A warning (premature end of data, corrupt entropy data) fails the
  // decode: a half-grey thumbnail is worse than none.  The scan limit keeps
  // a crafted progressive file from taking unbounded time.
  if (tjDecompress2(handle.get(), data, size, decoded.pixels.data(), scaledWidth, 0, scaledHeight, TJPF_RGB,
                    TJFLAG_STOPONWARNING | TJFLAG_LIMITSCANS) != 0) {
    return false;
  }
  if (scaledWidth == width && scaledHeight == height) {
    out = std::move(decoded);
    return true;
  }
  dmsArtBoxFilter filter;
  if (!filter.start(scaledWidth, scaledHeight, width, height)) return false;
  const size_t stride = size_t{3} * static_cast<size_t>(scaledWidth);
  for (int y = 0; y < scaledHeight; ++y) filter.addRow(decoded.pixels.data() + stride * static_cast<size_t>(y));
  return filter.finish(out);
}

bool dmsArtDecodePng(const uint8_t *data, size_t size, int32_t width, int32_t height, dmsArtRgb &out) {
  PngReader png;
  png.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, pngFail, pngWarn);
  if (png.png == nullptr) return false;
  png.info = png_create_info_struct(png.png);
  if (png.info == nullptr) return false;
  PngInput input{data, size, 0};
  png_set_read_fn(png.png, &input, pngRead);
  PngLayout layout{};
  if (!pngReadLayout(png.png, png.info, &layout)) return false;
  const int64_t pixels = int64_t{layout.width} * layout.height;
  if (!withinBudget(layout.width, layout.height) || (layout.interlaced && pixels > kPngMaxInterlacedPixels) ||
      (layout.channels != 3 && layout.channels != 4) ||
      layout.rowBytes != size_t{layout.width} * static_cast<size_t>(layout.channels)) {
    return false;
  }
  dmsArtBoxFilter filter;
  if (!filter.start(static_cast<int32_t>(layout.width), static_cast<int32_t>(layout.height), width, height)) {
    return false;
  }
  if (!layout.interlaced) {
    std::vector<uint8_t> row(layout.rowBytes);
    if (!pngReadRows(png.png, &layout, row.data(), &filter)) return false;
    return filter.finish(out);
  }
  std::vector<uint8_t> image(layout.rowBytes * layout.height);
  std::vector<png_bytep> rows(layout.height);
  for (png_uint_32 y = 0; y < layout.height; ++y) rows[y] = image.data() + layout.rowBytes * y;
  if (!pngReadImage(png.png, rows.data())) return false;
  for (png_bytep row : rows) {
    if (layout.channels == 4) overWhite(row, layout.width);
    filter.addRow(row);
  }
  return filter.finish(out);
}

// ---- Box filter ----

bool dmsArtBoxFilter::start(int32_t sourceWidth, int32_t sourceHeight, int32_t width, int32_t height) {
  if (width < 1 || height < 1 || width > sourceWidth || height > sourceHeight) return false;
  columnBin_.resize(static_cast<size_t>(sourceWidth));
  binColumns_.assign(static_cast<size_t>(width), 0);
  for (int32_t x = 0; x < sourceWidth; ++x) {
    const auto bin = static_cast<int32_t>(int64_t{x} * width / sourceWidth);
    columnBin_[static_cast<size_t>(x)] = bin;
    ++binColumns_[static_cast<size_t>(bin)];
  }
  sums_.assign(size_t{3} * static_cast<size_t>(width), 0);
  target_.pixels.assign(size_t{3} * static_cast<size_t>(width) * static_cast<size_t>(height), 0);
  target_.width = width;
  target_.height = height;
  sourceWidth_ = sourceWidth;
  sourceHeight_ = sourceHeight;
  rowsAdded_ = 0;
  binRow_ = 0;
  binRows_ = 0;
  return true;
}

void dmsArtBoxFilter::addRow(const uint8_t *rgb) noexcept {
  if (rowsAdded_ >= sourceHeight_) return;
  const auto bin = static_cast<int32_t>(int64_t{rowsAdded_} * target_.height / sourceHeight_);
  if (bin != binRow_) {
    flushRow();
    binRow_ = bin;
  }
  uint64_t *sums = sums_.data();
  const int32_t *columnBin = columnBin_.data();
  for (int32_t x = 0; x < sourceWidth_; ++x) {
    uint64_t *sum = sums + size_t{3} * static_cast<size_t>(columnBin[x]);
    const uint8_t *pixel = rgb + size_t{3} * static_cast<size_t>(x);
    sum[0] += pixel[0];
    sum[1] += pixel[1];
    sum[2] += pixel[2];
  }
  ++binRows_;
  if (++rowsAdded_ == sourceHeight_) flushRow();
}

// Writes the averages of target row binRow_ and clears the sums for the next.
void dmsArtBoxFilter::flushRow() noexcept {
  if (binRows_ == 0) return;
  uint8_t *out = target_.pixels.data() + size_t{3} * static_cast<size_t>(target_.width) * static_cast<size_t>(binRow_);
  for (size_t x = 0; x < binColumns_.size(); ++x) {
    const uint64_t count = uint64_t{binColumns_[x]} * binRows_;
    for (size_t c = 0; c < 3; ++c) {
      out[x * 3 + c] = static_cast<uint8_t>((sums_[x * 3 + c] + count / 2) / count);
      sums_[x * 3 + c] = 0;
    }
  }
  binRows_ = 0;
}

bool dmsArtBoxFilter::finish(dmsArtRgb &out) noexcept {
  if (rowsAdded_ != sourceHeight_ || sourceHeight_ == 0) return false;
  out = std::move(target_);
  target_ = dmsArtRgb();
  return true;
}

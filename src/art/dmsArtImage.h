// Thumbnails and album art for renderers: a JPEG or PNG picture decoded,
// scaled down to fit a box and encoded as a small baseline JPEG, or, for a
// photo, the thumbnail its camera already stored in the Exif data.
#ifndef DMS_ART_DMS_ART_IMAGE_H
#define DMS_ART_DMS_ART_IMAGE_H

#include <cstddef>
#include <cstdint>
#include <string>

// A JPEG made for a thumbnail or album art, and its size in pixels.
struct dmsArtJpeg {
  std::string bytes;
  int32_t width = 0;
  int32_t height = 0;
};

// Largest source picture decoded, in pixels (width x height as the header declares).
inline constexpr int64_t DMS_ART_MAX_SOURCE_PIXELS = 100'000'000;
// Largest progressive JPEG decoded: its decoder holds every DCT coefficient
// of the whole picture at once (up to 6 bytes per pixel), at any scale.
inline constexpr int64_t DMS_ART_MAX_PROGRESSIVE_PIXELS = 12'000'000;

// The size of a width x height picture fitted into a boxWidth x boxHeight box: aspect kept
// (rounded to nearest), never enlarged, at least 1x1.  {0,0} when width or height is not positive.
void dmsArtFitSize(int32_t width, int32_t height, int32_t boxWidth, int32_t boxHeight,
                   int32_t *fitWidth, int32_t *fitHeight);

// Decodes the JPEG or PNG image in [data, data + size) (kind told by its signature), scales it
// to fit the box (dmsArtFitSize of its own size) and encodes the result as a baseline JPEG,
// quality 85, 4:2:0.  false (out untouched) when it is neither, cannot be decoded completely
// (truncated, corrupt, a colour space that does not convert to RGB such as CMYK), or declares
// more than DMS_ART_MAX_SOURCE_PIXELS.  Never throws.
bool dmsArtScaleImage(const uint8_t *data, size_t size, int32_t boxWidth, int32_t boxHeight, dmsArtJpeg &out);

// The same for the image file at `path` (opened read-only and read whole, at most 64 MiB).  For a
// JPEG whose Exif data holds a thumbnail: when the thumbnail is exactly the fitted size, its
// bytes are handed out as they are; when it is larger than the fitted size in both directions
// and has the photo's aspect (within 2 %), it is decoded and scaled instead of the photo.  Never throws.
bool dmsArtScaleFile(const std::string &path, int32_t boxWidth, int32_t boxHeight, dmsArtJpeg &out);

#endif  // DMS_ART_DMS_ART_IMAGE_H

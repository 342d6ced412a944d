// Exif: the TIFF structure inside a JPEG's APP1 segment, read by the JPEG
// detector (pixel dimensions), for a photo's date taken and to find the
// thumbnail a camera stored with the photo.
#ifndef DMS_MFD_MFD_EXIF_H
#define DMS_MFD_MFD_EXIF_H

#include <cstddef>
#include <cstdint>
#include <string>

// Read-only view of a TIFF structure; every read is bounds-checked.
class ExifView {
 public:
  ExifView(const uint8_t *data, size_t size, bool littleEndian)
      : data_(data), size_(size), littleEndian_(littleEndian) {}

  bool u16(size_t offset, uint32_t &value) const {
    if (offset > size_ || size_ - offset < 2) return false;
    const uint32_t first = data_[offset];
    const uint32_t second = data_[offset + 1];
    value = littleEndian_ ? (second << 8 | first) : (first << 8 | second);
    return true;
  }
  bool u32(size_t offset, uint32_t &value) const {
    uint32_t low = 0;
    uint32_t high = 0;
    if (!u16(offset, littleEndian_ ? low : high) || !u16(offset + 2, littleEndian_ ? high : low)) {
      return false;
    }
    value = high << 16 | low;
    return true;
  }
  const uint8_t *data() const { return data_; }
  size_t size() const { return size_; }

 private:
  const uint8_t *data_;
  size_t size_;
  bool littleEndian_;
};

// The date a photo was taken (Exif DateTimeOriginal, else DateTime) as
// "YYYY-MM-DDTHH:MM:SS", read from the JPEG file at `path`; empty when it
// has none.  Reads at most the file's first 128 KiB.
std::string mfdExif_dateTaken(const std::string &path);

// Where the Exif thumbnail (IFD1's JPEGInterchangeFormat and ...Length) lies in the JPEG file at
// `path`, as a byte offset from the start of the file and a length; false when the file has none
// or the tags point outside the APP1 segment.  Reads at most the file's first 128 KiB.
bool mfdExif_thumbnail(const std::string &path, int64_t *offset, int64_t *length);

// The same over a JPEG held in memory: offset and length relative to `data`.
bool mfdExif_thumbnailIn(const uint8_t *data, size_t size, size_t *offset, size_t *length);

#endif  // DMS_MFD_MFD_EXIF_H

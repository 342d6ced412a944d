#include "mfd/mfd_exif.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace {

// An APP1 segment is at most 64 KiB and comes first, or after APP0.
constexpr size_t kHeadBytes = 2 * 64 * 1024;
constexpr uint32_t kTagDateTime = 0x0132;          // IFD0: last change
constexpr uint32_t kTagExifIfd = 0x8769;           // IFD0: the Exif sub-IFD
constexpr uint32_t kTagDateTimeOriginal = 0x9003;  // Exif IFD: when it was taken
constexpr uint32_t kTagThumbnailOffset = 0x0201;  // IFD1: JPEGInterchangeFormat
constexpr uint32_t kTagThumbnailLength = 0x0202;  // IFD1: JPEGInterchangeFormatLength
constexpr uint32_t kTypeAscii = 2;
constexpr uint32_t kTypeShort = 3;
constexpr uint32_t kTypeLong = 4;
constexpr size_t kDateLength = 19;  // "YYYY:MM:DD HH:MM:SS"

// The file's first bytes; empty when it cannot be read.
std::vector<uint8_t> readHead(const std::string &path) {
  std::vector<uint8_t> bytes(kHeadBytes);
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return {};
  const ssize_t got = ::pread(fd, bytes.data(), bytes.size(), 0);
  ::close(fd);
  bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
  return bytes;
}

// The Exif APP1 payload's TIFF structure: [offset, offset + tiffSize) in
// [bytes, bytes + size).  Each step moves past a whole segment.
bool findTiffIn(const uint8_t *bytes, size_t size, size_t &offset, size_t &tiffSize) {
  if (size < 4 || bytes[0] != 0xFF || bytes[1] != 0xD8) return false;
  for (size_t at = 2; at + 4 <= size && bytes[at] == 0xFF;) {
    const uint32_t marker = bytes[at + 1];
    const size_t length = size_t{bytes[at + 2]} << 8 | bytes[at + 3];
    if (marker == 0xDA || length < 2) return false;  // image data: no more headers
    const size_t payload = at + 4;
    const size_t end = at + 2 + length;
    if (marker == 0xE1 && end <= size && length >= 8 + 6 &&
        std::equal(bytes + payload, bytes + payload + 6, "Exif\0\0")) {
      offset = payload + 6;
      tiffSize = end - offset;
      return true;
    }
    at = end;
  }
  return false;
}

// The same over a file's first bytes.
bool findTiff(const std::vector<uint8_t> &bytes, size_t &offset, size_t &size) {
  return findTiffIn(bytes.data(), bytes.size(), offset, size);
}

// The ASCII date of `tag` in the IFD at `ifd`, and the Exif sub-IFD pointer.
std::string scanIfd(const ExifView &view, size_t ifd, uint32_t tag, uint32_t *exifIfd) {
  uint32_t count = 0;
  if (!view.u16(ifd, count)) return {};
  std::string date;
  for (uint32_t index = 0; index < count; ++index) {
    const size_t entry = ifd + 2 + size_t{index} * 12;
    uint32_t id = 0, type = 0, length = 0, where = 0;
    if (!view.u16(entry, id) || !view.u16(entry + 2, type) || !view.u32(entry + 4, length) ||
        !view.u32(entry + 8, where)) {
      break;
    }
    if (id == kTagExifIfd && exifIfd != nullptr) *exifIfd = where;
    if (id == tag && type == kTypeAscii && length >= kDateLength && where <= view.size() &&
        view.size() - where >= kDateLength) {
      date.assign(reinterpret_cast<const char *>(view.data()) + where, kDateLength);
    }
  }
  return date;
}

// "YYYY:MM:DD HH:MM:SS" as "YYYY-MM-DDTHH:MM:SS"; empty when malformed or
// blank (cameras write spaces or zeroes when the clock was never set).
std::string isoDate(std::string date) {
  if (date.size() != kDateLength || date[4] != ':' || date[7] != ':' || date[10] != ' ') return {};
  for (size_t i : {0, 1, 2, 3, 5, 6, 8, 9, 11, 12, 14, 15, 17, 18}) {
    if (date[i] < '0' || date[i] > '9') return {};
  }
  if (date.compare(0, 4, "0000") == 0) return {};
  date[4] = '-';
  date[7] = '-';
  date[10] = 'T';
  return date;
}

}  // namespace

std::string mfdExif_dateTaken(const std::string &path) {
  const std::vector<uint8_t> bytes = readHead(path);
  size_t offset = 0, size = 0;
  if (!findTiff(bytes, offset, size) || size < 8) return {};
  const uint8_t *tiff = bytes.data() + offset;
  const bool little = tiff[0] == 'I' && tiff[1] == 'I';
  if (!little && (tiff[0] != 'M' || tiff[1] != 'M')) return {};
  const ExifView view(tiff, size, little);
  uint32_t magic = 0, ifd0 = 0, exifIfd = 0;
  if (!view.u16(2, magic) || magic != 42 || !view.u32(4, ifd0)) return {};
  const std::string changed = scanIfd(view, ifd0, kTagDateTime, &exifIfd);
  std::string taken = exifIfd != 0 ? isoDate(scanIfd(view, exifIfd, kTagDateTimeOriginal, nullptr)) : std::string();
  return taken.empty() ? isoDate(changed) : taken;
}

namespace {

// The value of a SHORT or LONG entry holding a single number.
bool entryNumber(const ExifView &view, size_t entry, uint32_t &value) {
  uint32_t type = 0, count = 0;
  if (!view.u16(entry + 2, type) || !view.u32(entry + 4, count) || count != 1) return false;
  if (type == kTypeLong) return view.u32(entry + 8, value);
  return type == kTypeShort && view.u16(entry + 8, value);
}

// The thumbnail's [offset, offset + length) within the TIFF structure.
bool thumbnailInTiff(const ExifView &view, size_t &offset, size_t &length) {
  uint32_t magic = 0, ifd0 = 0, count = 0, ifd1 = 0;
  if (!view.u16(2, magic) || magic != 42 || !view.u32(4, ifd0) || !view.u16(ifd0, count) ||
      !view.u32(size_t{ifd0} + 2 + size_t{count} * 12, ifd1) || ifd1 == 0 || !view.u16(ifd1, count)) {
    return false;
  }
  uint32_t where = 0, bytes = 0;
  bool haveWhere = false, haveBytes = false;
  for (uint32_t index = 0; index < count; ++index) {  // at most 65535 entries, each bounds-checked
    const size_t entry = size_t{ifd1} + 2 + size_t{index} * 12;
    uint32_t id = 0;
    if (!view.u16(entry, id)) break;
    if (id == kTagThumbnailOffset) haveWhere = entryNumber(view, entry, where);
    if (id == kTagThumbnailLength) haveBytes = entryNumber(view, entry, bytes);
  }
  if (!haveWhere || !haveBytes || bytes == 0 || where > view.size() || view.size() - where < bytes) return false;
  offset = where;
  length = bytes;
  return true;
}

}  // namespace

bool mfdExif_thumbnailIn(const uint8_t *data, size_t size, size_t *offset, size_t *length) {
  size_t tiffOffset = 0, tiffSize = 0;
  if (data == nullptr || !findTiffIn(data, size, tiffOffset, tiffSize) || tiffSize < 8) return false;
  const uint8_t *tiff = data + tiffOffset;
  const bool little = tiff[0] == 'I' && tiff[1] == 'I';
  if (!little && (tiff[0] != 'M' || tiff[1] != 'M')) return false;
  size_t where = 0, bytes = 0;
  if (!thumbnailInTiff(ExifView(tiff, tiffSize, little), where, bytes)) return false;
  *offset = tiffOffset + where;
  *length = bytes;
  return true;
}

bool mfdExif_thumbnail(const std::string &path, int64_t *offset, int64_t *length) {
  const std::vector<uint8_t> bytes = readHead(path);  // starts at the file's first byte
  size_t where = 0, size = 0;
  if (!mfdExif_thumbnailIn(bytes.data(), bytes.size(), &where, &size)) return false;
  *offset = static_cast<int64_t>(where);
  *length = static_cast<int64_t>(size);
  return true;
}

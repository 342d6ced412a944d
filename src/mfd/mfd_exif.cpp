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
constexpr uint32_t kTypeAscii = 2;
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

// The Exif APP1 payload's TIFF structure: [offset, size) in `bytes`.
bool findTiff(const std::vector<uint8_t> &bytes, size_t &offset, size_t &size) {
  if (bytes.size() < 4 || bytes[0] != 0xFF || bytes[1] != 0xD8) return false;
  for (size_t at = 2; at + 4 <= bytes.size() && bytes[at] == 0xFF;) {
    const uint32_t marker = bytes[at + 1];
    const size_t length = size_t{bytes[at + 2]} << 8 | bytes[at + 3];
    if (marker == 0xDA || length < 2) return false;  // image data: no more headers
    const size_t payload = at + 4;
    const size_t end = at + 2 + length;
    if (marker == 0xE1 && end <= bytes.size() && length >= 8 + 6 &&
        std::equal(bytes.begin() + static_cast<long>(payload), bytes.begin() + static_cast<long>(payload) + 6,
                   "Exif\0\0")) {
      offset = payload + 6;
      size = end - offset;
      return true;
    }
    at = end;
  }
  return false;
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

#include "art/dmsArtImage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <turbojpeg.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "art/dmsArtDecode.h"
#include "mfd/mfd_exif.h"
#include "util/dmsGuard.h"

namespace {

constexpr int64_t kMaxFileBytes = int64_t{64} << 20;
// Exif data lives in the first segment, within 64 KiB of the start.
constexpr int64_t kHeadBytes = int64_t{128} << 10;
constexpr int kQuality = 85;

struct TjDeleter {
  void operator()(void *handle) const noexcept { tjDestroy(handle); }
};
struct TjBufferDeleter {
  void operator()(unsigned char *buffer) const noexcept { tjFree(buffer); }
};

// A file's bytes, read with pread rather than mapped: a file cut short
// under a mapping would kill the process with SIGBUS.
class FileBytes {
 public:
  // Reads the regular file at `path`, or only its first `limit` bytes when
  // it is longer; false when it cannot be opened, is empty, is no regular
  // file (a FIFO must not block us), exceeds kMaxFileBytes or is cut short
  // while it is read.  May throw std::bad_alloc.
  bool read(const std::string &path, int64_t limit = kMaxFileBytes) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return false;
    struct stat info {};
    bool read = false;
    if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 0 && info.st_size <= kMaxFileBytes) {
      size_ = static_cast<size_t>(std::min<int64_t>(info.st_size, limit));
      complete_ = size_ == static_cast<size_t>(info.st_size);
      data_ = std::make_unique_for_overwrite<uint8_t[]>(size_);
      size_t got = 0;
      for (ssize_t n = 1; got < size_ && n > 0; got += n > 0 ? static_cast<size_t>(n) : 0) {
        n = ::pread(fd, data_.get() + got, size_ - got, static_cast<off_t>(got));
      }
      read = got == size_;
    }
    ::close(fd);
    return read;
  }
  const uint8_t *data() const { return data_.get(); }
  size_t size() const { return size_; }
  bool complete() const { return complete_; }  // the whole file, not only its head

 private:
  std::unique_ptr<uint8_t[]> data_;
  size_t size_ = 0;
  bool complete_ = false;
};

bool withinBudget(int32_t width, int32_t height) {
  return width > 0 && height > 0 && int64_t{width} * height <= DMS_ART_MAX_SOURCE_PIXELS;
}

// Encodes `picture` as a baseline 4:2:0 JPEG into `out`.
bool encodeJpeg(const dmsArtRgb &picture, dmsArtJpeg &out) {
  const std::unique_ptr<void, TjDeleter> handle(tjInitCompress());
  if (!handle) return false;
  unsigned char *buffer = nullptr;
  unsigned long length = 0;
  const int status = tjCompress2(handle.get(), picture.pixels.data(), picture.width, 0, picture.height, TJPF_RGB,
                                 &buffer, &length, TJSAMP_420, kQuality, 0);
  const std::unique_ptr<unsigned char, TjBufferDeleter> owned(buffer);
  if (status != 0 || buffer == nullptr) return false;
  dmsArtJpeg made;
  made.bytes.assign(reinterpret_cast<const char *>(buffer), length);
  made.width = picture.width;
  made.height = picture.height;
  out = std::move(made);
  return true;
}

// Decodes the JPEG or PNG in [data, data + size), reduces it to exactly
// width x height and encodes the result.  May throw std::bad_alloc.
bool scaleTo(const uint8_t *data, size_t size, int32_t width, int32_t height, dmsArtJpeg &out) {
  dmsArtRgb picture;
  switch (dmsArtKindOf(data, size)) {
    case dmsArtKind::kJpeg:
      if (!dmsArtDecodeJpeg(data, size, width, height, picture)) return false;
      break;
    case dmsArtKind::kPng:
      if (!dmsArtDecodePng(data, size, width, height, picture)) return false;
      break;
    case dmsArtKind::kNone:
      return false;
  }
  return encodeJpeg(picture, out);
}

// Whether tw x th has the aspect of w x h, within 2 %.
bool sameAspect(int64_t tw, int64_t th, int64_t w, int64_t h) {
  const int64_t difference = tw * h - th * w;
  return 50 * (difference < 0 ? -difference : difference) <= th * w;
}

// A thumbnail for the width x height JPEG photo in [data, data + size) made
// from its Exif thumbnail, when that one serves for fitWidth x fitHeight:
// the thumbnail's own bytes when it has exactly that size (after checking
// that it decodes completely), else the thumbnail reduced when it is larger
// and has the photo's aspect (cameras pad thumbnails of other aspects with
// black bars).  false when there is none that serves.
bool fromExifThumbnail(const uint8_t *data, size_t size, int32_t width, int32_t height, int32_t fitWidth,
                       int32_t fitHeight, dmsArtJpeg &out) {
  size_t offset = 0, length = 0;
  if (!mfdExif_thumbnailIn(data, size, &offset, &length)) return false;
  const uint8_t *thumb = data + offset;
  int32_t thumbWidth = 0, thumbHeight = 0;
  if (dmsArtKindOf(thumb, length) != dmsArtKind::kJpeg ||
      !dmsArtSourceSize(thumb, length, &thumbWidth, &thumbHeight)) {
    return false;
  }
  if (thumbWidth == fitWidth && thumbHeight == fitHeight) {
    dmsArtRgb check;  // the cheapest complete decode: 1/8 scale, one pixel
    if (!dmsArtDecodeJpeg(thumb, length, 1, 1, check)) return false;
    dmsArtJpeg made;
    made.bytes.assign(reinterpret_cast<const char *>(thumb), length);
    made.width = thumbWidth;
    made.height = thumbHeight;
    out = std::move(made);
    return true;
  }
  if (thumbWidth > fitWidth && thumbHeight > fitHeight && sameAspect(thumbWidth, thumbHeight, width, height)) {
    return scaleTo(thumb, length, fitWidth, fitHeight, out);
  }
  return false;
}

}  // namespace

void dmsArtFitSize(int32_t width, int32_t height, int32_t boxWidth, int32_t boxHeight, int32_t *fitWidth,
                   int32_t *fitHeight) {
  if (width <= 0 || height <= 0) {
    *fitWidth = 0;
    *fitHeight = 0;
    return;
  }
  const int64_t w = width, h = height;
  const int64_t boxW = boxWidth > 0 ? boxWidth : 1;
  const int64_t boxH = boxHeight > 0 ? boxHeight : 1;
  int64_t fitW = w, fitH = h;
  if (w > boxW || h > boxH) {
    if (boxW * h <= boxH * w) {  // the width limits
      fitW = boxW;
      fitH = (2 * h * boxW + w) / (2 * w);
    } else {
      fitH = boxH;
      fitW = (2 * w * boxH + h) / (2 * h);
    }
  }
  *fitWidth = static_cast<int32_t>(fitW < 1 ? 1 : fitW);
  *fitHeight = static_cast<int32_t>(fitH < 1 ? 1 : fitH);
}

bool dmsArtScaleImage(const uint8_t *data, size_t size, int32_t boxWidth, int32_t boxHeight, dmsArtJpeg &out) {
  return dmsGuard("dmsArtScaleImage", false, [&] {
    int32_t width = 0, height = 0, fitWidth = 0, fitHeight = 0;
    if (data == nullptr || !dmsArtSourceSize(data, size, &width, &height) || !withinBudget(width, height)) {
      return false;
    }
    dmsArtFitSize(width, height, boxWidth, boxHeight, &fitWidth, &fitHeight);
    return scaleTo(data, size, fitWidth, fitHeight, out);
  });
}

bool dmsArtScaleFile(const std::string &path, int32_t boxWidth, int32_t boxHeight, dmsArtJpeg &out) {
  return dmsGuard("dmsArtScaleFile", false, [&] {
    // The head first: a camera's thumbnail and the picture's size are in
    // it, and a thumbnail that serves spares reading the whole photo.
    FileBytes file;
    int32_t width = 0, height = 0, fitWidth = 0, fitHeight = 0;
    if (!file.read(path, kHeadBytes) || !dmsArtSourceSize(file.data(), file.size(), &width, &height) ||
        !withinBudget(width, height)) {
      if (file.complete() || !file.read(path) || !dmsArtSourceSize(file.data(), file.size(), &width, &height) ||
          !withinBudget(width, height)) {
        return false;
      }
    }
    dmsArtFitSize(width, height, boxWidth, boxHeight, &fitWidth, &fitHeight);
    if (dmsArtKindOf(file.data(), file.size()) == dmsArtKind::kJpeg &&
        fromExifThumbnail(file.data(), file.size(), width, height, fitWidth, fitHeight, out)) {
      return true;
    }
    if (!file.complete() && !file.read(path)) return false;
    return scaleTo(file.data(), file.size(), fitWidth, fitHeight, out);
  });
}

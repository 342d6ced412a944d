// libFuzzer target for media format detection: the input becomes a file on
// disk (the detectors open files by name, and some decide by the extension)
// and goes through the whole detection with every format registered in the
// content list's order, then through the protocol mapping.  The same bytes
// go through the Exif thumbnail locator, and a small JPEG or PNG through the
// thumbnail decoders.
//
// Input layout: byte 0 chooses the file name (its extension), the rest is
// the file's content.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "art/dmsArtImage.h"
#include "mfd/mfd_api.h"
#include "mfd/mfd_exif.h"
#include "util/osal_trace.h"

namespace {

constexpr const char *kNames[] = {
    "input.mp3", "input.wav", "input.pcm", "input.jpg", "input.png", "input.gif",  "input.tif",
    "input.mp4", "input.ts",  "input.mpg", "input.wma", "input.wmv", "input.ac3",  "input.adts",
    "input.ea3", "input.bmp", "input.WAV", "input.lpcm", "clip-b-lpcm-2.pcm", "input", "input.m4v",
};

struct Harness {
  mfdInstance *instance = nullptr;
  std::string directory;
};

// One instance and one scratch directory for the whole process.
Harness &harness() {
  static Harness state = [] {
    Harness created;
    g_u32_osalTraceLevel = 0;  // detection traces would drown the fuzzer's output
    if (mfd_openInstance(&created.instance) != 0) std::abort();
    for (uint32_t id : g_mfdAllServerFormatIds) {
      if (mfd_registerFormat(created.instance, id) != 0) std::abort();
    }
    std::string pattern = "/tmp/dms-detect-fuzz-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    created.directory = pattern;
    return created;
  }();
  return state;
}

// Pictures decoded whole per input: larger ones would spend the run on
// inflating pixels rather than on the parsers.
constexpr size_t kMaxPictureBytes = 64 * 1024;

// The Exif thumbnail and, for a small JPEG or PNG, a 160x160 thumbnail.
void scalePicture(const uint8_t *data, size_t size) {
  size_t offset = 0, length = 0;
  if (mfdExif_thumbnailIn(data, size, &offset, &length) && (offset > size || size - offset < length)) std::abort();
  const bool jpeg = size >= 3 && data[0] == 0xFF && data[1] == 0xD8 && data[2] == 0xFF;
  const bool png = size >= 8 && data[0] == 0x89 && data[1] == 'P' && data[2] == 'N' && data[3] == 'G';
  if (!(jpeg || png) || size > kMaxPictureBytes) return;
  dmsArtJpeg out;
  if (dmsArtScaleImage(data, size, 160, 160, out) &&
      (out.width < 1 || out.width > 160 || out.height < 1 || out.height > 160 || out.bytes.empty())) {
    std::abort();
  }
}

bool writeFile(const std::string &path, const uint8_t *data, size_t size) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (fd < 0) return false;
  size_t written = 0;
  while (written < size) {
    const ssize_t count = write(fd, data + written, size - written);
    if (count <= 0) break;
    written += static_cast<size_t>(count);
  }
  close(fd);
  return written == size;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  Harness &state = harness();
  constexpr size_t kNameCount = sizeof(kNames) / sizeof(kNames[0]);
  const std::string path = state.directory + "/" + kNames[data[0] % kNameCount];
  if (!writeFile(path, data + 1, size - 1)) std::abort();

  mfdMediaInfo info{};
  mfd_detectMediaFormat(state.instance, path.c_str(), &info);
  // A photo's date taken is read from the same bytes, by its own parser.
  volatile size_t dateLength = mfdExif_dateTaken(path).size();
  (void)dateLength;
  scalePicture(data + 1, size - 1);
  const char *mimeType = nullptr;
  const char *profileName = nullptr;
  const char *protocolInfo = nullptr;
  if (info.formatId != 0 && mfd_getMediaProtocolDetails(&info, &mimeType, &profileName, &protocolInfo) == 0) {
    // Touch the strings: they must be valid constant texts.
    volatile size_t total = std::string(mimeType).size() + std::string(profileName).size() +
                            std::string(protocolInfo).size();
    (void)total;
  }
  unlink(path.c_str());
  return 0;
}

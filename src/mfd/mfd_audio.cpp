// Byte reads, file size and small conversions for the audio detectors.
#include "mfd/mfd_audio.h"

#include <sys/stat.h>

#include <cctype>
#include <cstring>
#include <limits>

#include "mfd/mfd_reader.h"
#include "util/osal_trace.h"

[[maybe_unused]] static constexpr char kTraceFile[] = "mfd_audio.c";

int32_t mfdAudio_readBytes(std::vector<uint8_t> &bytes, size_t count) {
  for (size_t index = 0; index < count; ++index) {
    uint32_t value = 0;
    const int32_t status = mfd_getDataBits(&value, 8);
    if (status != 0) return status;
    bytes.push_back(static_cast<uint8_t>(value));
  }
  return 0;
}

int64_t mfdAudio_fileSize(int fd) {
  struct stat status {};
  if (fstat(fd, &status) != 0) return -1;
  return static_cast<int64_t>(status.st_size);
}

bool mfdAudio_hasExtension(const char *path, const char *extension) {
  if (path == nullptr || extension == nullptr) return false;
  const char *dot = std::strrchr(path, '.');
  if (dot == nullptr) return false;
  const char *actual = dot + 1;
  for (; *actual != '\0' && *extension != '\0'; ++actual, ++extension) {
    if (std::tolower(static_cast<unsigned char>(*actual)) !=
        std::tolower(static_cast<unsigned char>(*extension))) {
      return false;
    }
  }
  return *actual == '\0' && *extension == '\0';
}

uint32_t mfdAudio_toDuration(double milliseconds) {
  if (!(milliseconds > 0.0)) return 0;
  if (milliseconds >= static_cast<double>(std::numeric_limits<uint32_t>::max())) {
    return std::numeric_limits<uint32_t>::max();
  }
  return static_cast<uint32_t>(milliseconds);
}

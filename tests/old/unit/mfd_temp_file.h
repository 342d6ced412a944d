// Temporary files for the detection framework and reader tests.
#ifndef DMS_TESTS_UNIT_MFD_TEMP_FILE_H
#define DMS_TESTS_UNIT_MFD_TEMP_FILE_H

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace mfdtest {

// A file in the temporary directory, removed again with the object; fd() is
// open for reading and writing.
class TempFile {
 public:
  explicit TempFile(const std::vector<uint8_t> &bytes, const std::string &suffix = "") {
    const char *directory = std::getenv("TMPDIR");
    path_ = std::string(directory != nullptr ? directory : "/tmp") + "/mfdtestXXXXXX" + suffix;
    fd_ = ::mkstemps(path_.data(), static_cast<int>(suffix.size()));
    if (fd_ >= 0 && !bytes.empty()) {
      ssize_t written = ::write(fd_, bytes.data(), bytes.size());
      (void)written;
    }
  }
  ~TempFile() {
    if (fd_ >= 0) ::close(fd_);
    ::unlink(path_.c_str());
  }
  TempFile(const TempFile &) = delete;
  TempFile &operator=(const TempFile &) = delete;

  const std::string &path() const { return path_; }
  const char *name() const { return path_.c_str(); }
  int fd() const { return fd_; }

 private:
  std::string path_;
  int fd_ = -1;
};

// Bytes that do not repeat with a period of 4096 or any smaller power of two,
// so that a read from the wrong block shows.
inline uint8_t patternByte(uint64_t position, uint32_t seed = 0) {
  return static_cast<uint8_t>(position * 131 + (position >> 8) * 7 + seed * 29);
}

inline std::vector<uint8_t> patternBytes(size_t size, uint32_t seed = 0) {
  std::vector<uint8_t> bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = patternByte(i, seed);
  return bytes;
}

}  // namespace mfdtest

#endif  // DMS_TESTS_UNIT_MFD_TEMP_FILE_H

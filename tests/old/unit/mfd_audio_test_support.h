// Helpers for the audio detector tests: files built in a scratch directory,
// one detector run directly through the reader, and the whole detection with
// the formats the content list registers.
#ifndef DMS_TESTS_UNIT_MFD_AUDIO_TEST_SUPPORT_H
#define DMS_TESTS_UNIT_MFD_AUDIO_TEST_SUPPORT_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "mfd/mfd_api.h"
#include "mfd/mfd_reader.h"

namespace mfdtest {

using Bytes = std::vector<uint8_t>;

inline void appendText(Bytes &bytes, const std::string &text) {
  bytes.insert(bytes.end(), text.begin(), text.end());
}

inline void appendLe16(Bytes &bytes, uint32_t value) {
  bytes.push_back(static_cast<uint8_t>(value));
  bytes.push_back(static_cast<uint8_t>(value >> 8));
}

inline void appendLe32(Bytes &bytes, uint32_t value) {
  appendLe16(bytes, value & 0xFFFFu);
  appendLe16(bytes, value >> 16);
}

inline void appendBe32(Bytes &bytes, uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8)
    bytes.push_back(static_cast<uint8_t>(value >> shift));
}

inline void appendZeros(Bytes &bytes, size_t count) { bytes.insert(bytes.end(), count, 0); }

// ID3v2-style size: four 7-bit groups.
inline void appendSyncSafe(Bytes &bytes, uint32_t value) {
  for (int shift = 21; shift >= 0; shift -= 7)
    bytes.push_back(static_cast<uint8_t>(value >> shift & 0x7F));
}

// Big-endian bit fields, for headers that are not byte-aligned.  A field
// wider than 32 bits is zero-extended.
class BitWriter {
 public:
  void put(uint32_t value, int count) {
    for (int bit = count - 1; bit >= 0; --bit) {
      if (used_ % 8 == 0) bytes_.push_back(0);
      if (bit < 32 && (value >> bit & 1u) != 0) bytes_.back() |= static_cast<uint8_t>(0x80u >> (used_ % 8));
      ++used_;
    }
  }
  const Bytes &bytes() const { return bytes_; }

 private:
  Bytes bytes_;
  size_t used_ = 0;
};

// A scratch directory removed with everything in it.
class ScratchDir {
 public:
  ScratchDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "mfd-audio-XXXXXX").string();
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    const char *made = ::mkdtemp(buffer.data());
    path_ = made != nullptr ? made : "";
  }
  ~ScratchDir() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  ScratchDir(const ScratchDir &) = delete;
  ScratchDir &operator=(const ScratchDir &) = delete;

  // Writes `bytes` to `name` in the directory; returns the full path.
  std::string write(const std::string &name, const Bytes &bytes) const {
    const std::string full = path_ + "/" + name;
    std::ofstream out(full, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    return full;
  }

 private:
  std::string path_;
};

inline Bytes readFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline std::string fixture(const std::string &relative) {
  return std::string(DMS_TEST_FIXTURES) + "/media/audio/" + relative;
}

inline int64_t sizeOf(const std::string &path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? static_cast<int64_t>(status.st_size) : -1;
}

// One detector run as the framework runs it: reader initialised for
// `formatId`, mode 2, then mode 3 when the file was recognised.
struct DetectorRun {
  int mode2 = -1;
  int mode3 = -1;  // -1: mode 3 not called
  mfdMediaInfo info{};
};

inline DetectorRun runDetector(mfdDetectCallback detector, uint32_t formatId,
                               const std::string &file, const std::string &pathGiven = "") {
  DetectorRun run;
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_GT(fd, 0) << file;
  if (fd <= 0) return run;
  mfd_getDataInit(fd, formatId);
  const std::string path = pathGiven.empty() ? file : pathGiven;
  run.mode2 = detector(fd, &run.info, MFD_MODE_DETECT, path.c_str());
  if (run.mode2 == 0 && run.info.mediaClass != MFD_CLASS_NONE) {
    run.mode3 = detector(fd, &run.info, MFD_MODE_PARSE, path.c_str());
  }
  mfd_getDataDeInit();
  ::close(fd);
  return run;
}

// The formats of the content list, registered in its order.
inline constexpr uint32_t kContentListFormats[] = {1,  3,  6,  10, 8,  12, 11, 15,
                                                   17, 18, 20, 21, 22, 24, 25, 26};

// A detection instance with the content list's formats, as the server has it.
class Detection {
 public:
  Detection() {
    EXPECT_EQ(0, mfd_openInstance(&handle_));
    for (uint32_t formatId : kContentListFormats)
      EXPECT_EQ(0, mfd_registerFormat(handle_, formatId));
  }
  ~Detection() {
    for (uint32_t formatId : kContentListFormats) mfd_unregisterFormat(handle_, formatId);
    mfd_closeInstance(handle_);
  }
  Detection(const Detection &) = delete;
  Detection &operator=(const Detection &) = delete;

  int32_t detect(const std::string &path, mfdMediaInfo &info) const {
    return mfd_detectMediaFormat(handle_, path.c_str(), &info);
  }

 private:
  mfdInstance *handle_ = nullptr;
};

}  // namespace mfdtest

#endif  // DMS_TESTS_UNIT_MFD_AUDIO_TEST_SUPPORT_H

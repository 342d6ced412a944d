// Shared helpers of the image detector tests.
#ifndef DMS_TESTS_UNIT_MFD_IMAGE_TEST_SUPPORT_H
#define DMS_TESTS_UNIT_MFD_IMAGE_TEST_SUPPORT_H

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "mfd/mfd_api.h"
#include "mfd/mfd_reader.h"

namespace mfdimagetest {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

inline const std::string kImageDir = std::string(DMS_TEST_FIXTURES) + "/media/image/";

// The content list's registration sequence, and the try order it produces
// (unregistering head first empties the list cleanly).
constexpr uint32_t kRegistration[] = {1, 3, 6, 10, 8, 12, 11, 15, 17, 18, 20, 21, 22, 24, 25, 26};
constexpr uint32_t kTryOrder[] = {25, 26, 18, 12, 1, 20, 21, 22, 3, 24, 6, 11, 10, 8, 15, 17};

constexpr char kJpegSmIco[] = "http-get:*:image/jpeg:DLNA.ORG_PN=JPEG_SM_ICO;DLNA.ORG_OP=01;DLNA.ORG_CI=0";
constexpr char kJpegLrgIco[] = "http-get:*:image/jpeg:DLNA.ORG_PN=JPEG_LRG_ICO;DLNA.ORG_OP=01;DLNA.ORG_CI=0";
constexpr char kJpegSm[] = "http-get:*:image/jpeg:DLNA.ORG_PN=JPEG_SM;DLNA.ORG_OP=01;DLNA.ORG_CI=0";
constexpr char kJpegMed[] = "http-get:*:image/jpeg:DLNA.ORG_PN=JPEG_MED;DLNA.ORG_OP=01;DLNA.ORG_CI=0";
constexpr char kJpegLrg[] = "http-get:*:image/jpeg:DLNA.ORG_PN=JPEG_LRG;DLNA.ORG_OP=01;DLNA.ORG_CI=0";
constexpr char kPngSmIco[] = "http-get:*:image/png:DLNA.ORG_PN=PNG_SM_ICO;DLNA.ORG_OP=01;DLNA.ORG_CI=0";
constexpr char kPngLrgIco[] = "http-get:*:image/png:DLNA.ORG_PN=PNG_LRG_ICO;DLNA.ORG_OP=01;DLNA.ORG_CI=0";
constexpr char kPngLrg[] = "http-get:*:image/png:DLNA.ORG_PN=PNG_LRG;DLNA.ORG_OP=01;DLNA.ORG_CI=0";
constexpr char kPngAny[] = "http-get:*:image/png:*";
constexpr char kGifLrg[] = "http-get:*:image/gif:DLNA.ORG_PN=GIF_LRG;DLNA.ORG_OP=01;DLNA.ORG_CI=0";
constexpr char kGifAny[] = "http-get:*:image/gif:*";
constexpr char kTiffAny[] = "http-get:*:image/tiff:*";

inline Bytes readFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void append(Bytes &out, std::initializer_list<int> values) {
  for (int value : values) out.push_back(static_cast<uint8_t>(value));
}
inline void appendText(Bytes &out, const std::string &text) { out.insert(out.end(), text.begin(), text.end()); }
inline void appendBe16(Bytes &out, uint32_t value) { append(out, {int(value >> 8 & 0xFF), int(value & 0xFF)}); }
inline void appendBe32(Bytes &out, uint32_t value) {
  appendBe16(out, value >> 16);
  appendBe16(out, value & 0xFFFF);
}
inline void appendLe16(Bytes &out, uint32_t value) { append(out, {int(value & 0xFF), int(value >> 8 & 0xFF)}); }
inline void appendLe32(Bytes &out, uint32_t value) {
  appendLe16(out, value & 0xFFFF);
  appendLe16(out, value >> 16);
}

struct Detection {
  int32_t result = -1;
  mfdMediaInfo info{};
  std::string mime;
  std::string profile;
  std::string protocol;
};

// Detection through the framework with the content list's registrations,
// and single detectors run alone on bytes written to a temporary file.
class ImageDetectionTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ASSERT_EQ(mfd_openInstance(&instance_), 0);
    for (uint32_t id : kRegistration) ASSERT_EQ(mfd_registerFormat(instance_, id), 0);
  }
  static void TearDownTestSuite() {
    for (uint32_t id : kTryOrder) mfd_unregisterFormat(instance_, id);
    mfd_closeInstance(instance_);
    instance_ = nullptr;
  }

  void SetUp() override {
    char pattern[] = "/tmp/dms-image-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    tempDir_ = pattern;
  }
  void TearDown() override { fs::remove_all(tempDir_); }

  std::string writeTemp(const std::string &name, const Bytes &bytes) const {
    const std::string path = tempDir_ + "/" + name;
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return path;
  }

  static Detection detect(const std::string &path) {
    Detection detection;
    detection.result = mfd_detectMediaFormat(instance_, path.c_str(), &detection.info);
    const mfdMediaInfo &info = detection.info;
    detection.mime = info.mimeType != nullptr ? info.mimeType : "";
    detection.profile = info.profileName != nullptr ? info.profileName : "";
    detection.protocol = info.protocolInfo != nullptr ? info.protocolInfo : "";
    return detection;
  }

  Detection detectBytes(const std::string &name, const Bytes &bytes) const {
    return detect(writeTemp(name, bytes));
  }

  // Runs one detector alone on `bytes` as the framework would: mode 2 and,
  // when it recognised the file, mode 3.  `status` is the last result.
  struct Direct {
    int status = -1;
    bool recognised = false;
    mfdMediaInfo info{};
  };
  Direct runDetector(mfdDetectCallback detector, uint32_t formatId, const Bytes &bytes,
                     const std::string &name = "direct.img") const {
    const std::string path = writeTemp(name, bytes);
    Direct direct;
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) return direct;
    mfd_getDataInit(fd, formatId);
    direct.status = detector(fd, &direct.info, MFD_MODE_DETECT, path.c_str());
    if (direct.status == 0 && direct.info.mediaClass != MFD_CLASS_NONE) {
      direct.recognised = true;
      direct.status = detector(fd, &direct.info, MFD_MODE_PARSE, path.c_str());
    }
    mfd_getDataDeInit();
    close(fd);
    return direct;
  }

  static inline mfdInstance *instance_ = nullptr;
  std::string tempDir_;
};


}  // namespace mfdimagetest

#endif  // DMS_TESTS_UNIT_MFD_IMAGE_TEST_SUPPORT_H

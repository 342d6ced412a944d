// Helpers of the video and container detector tests: the fixture folder,
// the detectors with the format id each is registered under, byte builders
// for ISO boxes, transport packets and Exp-Golomb fields.
#ifndef DMS_TESTS_UNIT_MFD_VIDEO_TEST_SUPPORT_H
#define DMS_TESTS_UNIT_MFD_VIDEO_TEST_SUPPORT_H

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "mfd/mfd_api.h"
#include "mfd_audio_test_support.h"

namespace mfdvideotest {

using mfdtest::Bytes;

inline std::string videoFixture(const std::string &name) {
  return std::string(DMS_TEST_FIXTURES) + "/media/video/" + name;
}

// A video detector and the format id whose reader window it runs with (the
// id the server registers it under).
struct VideoDetector {
  const char *name;
  mfdDetectCallback detect;
  uint32_t formatId;
};

inline constexpr VideoDetector kVideoDetectors[] = {
    {"MPEG", mediaFormatMpegDetect, MFD_FORMAT_MPEG_PS},
    {"MPEG-TS", mediaFormatMptsDetect, MFD_FORMAT_MPEG_TS},
    {"MP4", mediaFormatMp4Detect, MFD_FORMAT_MP4},
    {"M4V", mediaFormatM4vDetect, MFD_FORMAT_MPEG4_PART2},
    {"WM", mediaFormatWmDetect, MFD_FORMAT_WMA},
};

inline void append(Bytes &out, std::initializer_list<int> values) {
  for (int value : values) out.push_back(static_cast<uint8_t>(value));
}
inline void appendText(Bytes &out, const std::string &text) {
  out.insert(out.end(), text.begin(), text.end());
}
inline void appendBytes(Bytes &out, const Bytes &more) { out.insert(out.end(), more.begin(), more.end()); }
inline void appendBe16(Bytes &out, uint32_t value) { append(out, {int(value >> 8 & 0xFF), int(value & 0xFF)}); }
inline void appendBe32(Bytes &out, uint32_t value) {
  appendBe16(out, value >> 16);
  appendBe16(out, value & 0xFFFF);
}
inline void appendBe64(Bytes &out, uint64_t value) {
  appendBe32(out, static_cast<uint32_t>(value >> 32));
  appendBe32(out, static_cast<uint32_t>(value));
}
inline void appendLe16(Bytes &out, uint32_t value) { append(out, {int(value & 0xFF), int(value >> 8 & 0xFF)}); }
inline void appendLe32(Bytes &out, uint32_t value) {
  appendLe16(out, value & 0xFFFF);
  appendLe16(out, value >> 16);
}
inline void appendLe64(Bytes &out, uint64_t value) {
  appendLe32(out, static_cast<uint32_t>(value));
  appendLe32(out, static_cast<uint32_t>(value >> 32));
}

// An ISO box: 32-bit size, type, payload.
inline Bytes box(const std::string &type, const Bytes &payload) {
  Bytes out;
  appendBe32(out, static_cast<uint32_t>(8 + payload.size()));
  appendText(out, type);
  appendBytes(out, payload);
  return out;
}

// A full box: version and flags before the payload.
inline Bytes fullBox(const std::string &type, int version, const Bytes &payload) {
  Bytes body;
  append(body, {version, 0, 0, 0});
  appendBytes(body, payload);
  return box(type, body);
}

inline Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes &part : parts) appendBytes(out, part);
  return out;
}

// Exp-Golomb fields for hand-made H.264 parameter sets.
class GolombWriter {
 public:
  void bits(uint32_t value, int count) {
    for (int bit = count - 1; bit >= 0; --bit) {
      if (used_ % 8 == 0) bytes_.push_back(0);
      if ((value >> bit & 1u) != 0) bytes_.back() |= static_cast<uint8_t>(0x80u >> (used_ % 8));
      ++used_;
    }
  }
  void ue(uint32_t value) {
    const uint64_t coded = uint64_t{value} + 1;
    int length = 0;
    while ((coded >> length) > 1) ++length;
    bits(0, length);
    bits(static_cast<uint32_t>(coded), length + 1);
  }
  // Stop bit and alignment of a NAL unit's end.
  Bytes finish() {
    bits(1, 1);
    while (used_ % 8 != 0) bits(0, 1);
    return bytes_;
  }

 private:
  Bytes bytes_;
  size_t used_ = 0;
};

}  // namespace mfdvideotest

#endif  // DMS_TESTS_UNIT_MFD_VIDEO_TEST_SUPPORT_H

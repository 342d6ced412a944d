#include "index/dmsIndexPack.h"

#include <cstdint>
#include <cstring>

#include "mfd/mfd_protocol.h"

namespace {

constexpr uint8_t kMediaVersion = 1;
constexpr uint8_t kTagsVersion = 1;
constexpr size_t kMediaBytes = 61;

void putNumber(std::string &out, uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>(value >> (8 * i) & 0xFF));
}

// Reads little-endian numbers and length-prefixed texts from a byte range;
// any read past its end leaves it failed.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : bytes_(bytes) {}
  uint64_t number(int bytes) {
    if (failed_ || bytes_.size() - at_ < static_cast<size_t>(bytes)) return failed_ = true, 0;
    uint64_t value = 0;
    for (int i = 0; i < bytes; ++i) value |= static_cast<uint64_t>(static_cast<uint8_t>(bytes_[at_ + i])) << (8 * i);
    at_ += static_cast<size_t>(bytes);
    return value;
  }
  std::string_view text() {
    const size_t length = static_cast<size_t>(number(2));
    if (failed_ || bytes_.size() - at_ < length) return failed_ = true, std::string_view();
    const std::string_view text = bytes_.substr(at_, length);
    at_ += length;
    return text;
  }
  bool whole() const { return !failed_ && at_ == bytes_.size(); }

 private:
  std::string_view bytes_;
  size_t at_ = 0;
  bool failed_ = false;
};

}  // namespace

std::string dmsIndexPackMedia(const dmsMediaRecord &media) {
  std::string out;
  out.reserve(kMediaBytes);
  for (uint8_t byte : {kMediaVersion, media.formatId, media.mediaClass, media.audioCodec, media.videoCodec}) {
    out.push_back(static_cast<char>(byte));
  }
  for (int64_t value : {media.fileSize, media.dataOffset, media.modificationTime}) {
    putNumber(out, static_cast<uint64_t>(value), 8);
  }
  for (int32_t value : {media.bitrate, media.sampleRate, media.channels, media.videoWidth, media.videoHeight}) {
    putNumber(out, static_cast<uint32_t>(value), 4);
  }
  putNumber(out, media.duration, 4);
  putNumber(out, media.profileCode, 4);
  putNumber(out, media.strings != nullptr ? mfd_protocolStringsKey(*media.strings) : 0, 4);
  return out;
}

bool dmsIndexUnpackMedia(std::string_view bytes, dmsMediaRecord &media) {
  Reader in(bytes);
  if (in.number(1) != kMediaVersion) return false;
  dmsMediaRecord read;
  read.formatId = static_cast<uint8_t>(in.number(1));
  read.mediaClass = static_cast<uint8_t>(in.number(1));
  read.audioCodec = static_cast<uint8_t>(in.number(1));
  read.videoCodec = static_cast<uint8_t>(in.number(1));
  read.fileSize = static_cast<int64_t>(in.number(8));
  read.dataOffset = static_cast<int64_t>(in.number(8));
  read.modificationTime = static_cast<int64_t>(in.number(8));
  for (int32_t *value : {&read.bitrate, &read.sampleRate, &read.channels, &read.videoWidth, &read.videoHeight}) {
    *value = static_cast<int32_t>(static_cast<uint32_t>(in.number(4)));
  }
  read.duration = static_cast<uint32_t>(in.number(4));
  read.profileCode = static_cast<uint32_t>(in.number(4));
  read.strings = mfd_protocolStringsByKey(static_cast<uint32_t>(in.number(4)));
  if (!in.whole() || read.strings == nullptr || read.formatId >= MFD_FORMAT_COUNT || read.fileSize < 0 || read.dataOffset < 0 ||
      read.dataOffset > read.fileSize) {
    return false;
  }
  media = read;
  return true;
}

std::string dmsIndexPackTags(const dmsMediaTags &tags, const dmsTagPool &pool) {
  std::string out;
  out.push_back(static_cast<char>(kTagsVersion));
  putNumber(out, tags.track, 2);
  putNumber(out, tags.disc, 1);
  putNumber(out, tags.flags, 1);
  for (uint32_t id : {tags.title, tags.artist, tags.album, tags.genre, tags.date}) {
    const char *text = pool.text(id);
    const size_t length = text != nullptr ? std::strlen(text) : 0;  // at most the pool's 1,024 bytes
    putNumber(out, length, 2);
    out.append(text != nullptr ? text : "", length);
  }
  return out;
}

bool dmsIndexUnpackTags(std::string_view bytes, dmsTagPool &pool, dmsMediaTags &tags) {
  Reader in(bytes);
  if (in.number(1) != kTagsVersion) return false;
  dmsMediaTags read;
  read.track = static_cast<uint16_t>(in.number(2));
  read.disc = static_cast<uint8_t>(in.number(1));
  read.flags = static_cast<uint8_t>(in.number(1));
  std::string_view texts[5];
  for (std::string_view &text : texts) text = in.text();
  if (!in.whole()) return false;
  uint32_t *ids[] = {&read.title, &read.artist, &read.album, &read.genre, &read.date};
  for (size_t i = 0; i < 5; ++i) *ids[i] = pool.intern(texts[i]);
  tags = read;
  return true;
}

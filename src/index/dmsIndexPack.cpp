#include "index/dmsIndexPack.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>

#include "mfd/mfd_protocol.h"

namespace {

constexpr uint8_t kMediaVersion = 2;
constexpr uint8_t kTagsVersion = 2;
constexpr size_t kMediaBytes = 32;  // what a typical record takes

void putNumber(std::string &out, uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>(value >> (8 * i) & 0xFF));
}

// Seven bits a byte, low first, the top bit saying more follow: most of a
// record's numbers are small, and take one or two bytes.
void putVarint(std::string &out, uint64_t value) {
  for (; value >= 0x80; value >>= 7) out.push_back(static_cast<char>((value & 0x7F) | 0x80));
  out.push_back(static_cast<char>(value));
}

// Signed numbers folded so that small negative ones stay small too.
uint64_t zigzag(int64_t value) { return (static_cast<uint64_t>(value) << 1) ^ static_cast<uint64_t>(value >> 63); }
int64_t unzigzag(uint64_t value) { return static_cast<int64_t>(value >> 1) ^ -static_cast<int64_t>(value & 1); }

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
  uint64_t varint() {
    uint64_t value = 0;
    for (int shift = 0; shift < 64; shift += 7) {
      if (failed_ || at_ >= bytes_.size()) break;
      const auto byte = static_cast<uint8_t>(bytes_[at_++]);
      value |= static_cast<uint64_t>(byte & 0x7F) << shift;
      if ((byte & 0x80) == 0) return value;
    }
    failed_ = true;
    return 0;
  }
  std::string_view text() {
    const size_t length = static_cast<size_t>(varint());
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

// Whether `value` fits a field of type `Field`.
template <typename Field>
bool within(int64_t value) {
  return value >= static_cast<int64_t>(std::numeric_limits<Field>::min()) &&
         value <= static_cast<int64_t>(std::numeric_limits<Field>::max());
}

}  // namespace

std::string dmsIndexPackMedia(const dmsMediaRecord &media) {
  std::string out;
  out.reserve(kMediaBytes);
  for (uint8_t byte : {kMediaVersion, media.formatId, media.mediaClass, media.audioCodec, media.videoCodec}) {
    out.push_back(static_cast<char>(byte));
  }
  for (int64_t value : {media.fileSize, media.dataOffset, media.modificationTime, int64_t{media.bitrate},
                        int64_t{media.sampleRate}, int64_t{media.channels}, int64_t{media.videoWidth},
                        int64_t{media.videoHeight}}) {
    putVarint(out, zigzag(value));
  }
  putVarint(out, media.duration);
  putVarint(out, media.profileCode);
  const mfdProtocolStrings *strings = media.strings();
  putNumber(out, strings != nullptr ? mfd_protocolStringsKey(*strings) : 0, 4);
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
  read.fileSize = unzigzag(in.varint());
  read.dataOffset = unzigzag(in.varint());
  read.modificationTime = unzigzag(in.varint());
  // Bitrate, sample rate, channels, width and height as signed numbers;
  // duration and profile code as they are.
  int64_t counts[7];
  for (int index = 0; index < 5; ++index) counts[index] = unzigzag(in.varint());
  for (int index = 5; index < 7; ++index) counts[index] = static_cast<int64_t>(std::min<uint64_t>(in.varint(), INT64_MAX));
  const mfdProtocolStrings *strings = mfd_protocolStringsByKey(static_cast<uint32_t>(in.number(4)));
  if (!in.whole() || strings == nullptr || read.formatId >= MFD_FORMAT_COUNT || read.fileSize < 0 || read.dataOffset < 0 ||
      read.dataOffset > read.fileSize || !within<int32_t>(counts[0]) || !within<int32_t>(counts[1]) ||
      !within<uint8_t>(counts[2]) || !within<uint16_t>(counts[3]) || !within<uint16_t>(counts[4]) ||
      !within<uint32_t>(counts[5]) || !within<uint8_t>(counts[6])) {
    return false;
  }
  read.bitrate = static_cast<int32_t>(counts[0]);
  read.sampleRate = static_cast<int32_t>(counts[1]);
  read.channels = static_cast<uint8_t>(counts[2]);
  read.videoWidth = static_cast<uint16_t>(counts[3]);
  read.videoHeight = static_cast<uint16_t>(counts[4]);
  read.duration = static_cast<uint32_t>(counts[5]);
  read.profileCode = static_cast<uint8_t>(counts[6]);
  read.stringsNumber = mfd_protocolStringsNumber(*strings);
  media = read;
  return true;
}

std::string dmsIndexPackTags(const dmsMediaTags &tags, const dmsTagPool &pool) {
  std::string out;
  out.push_back(static_cast<char>(kTagsVersion));
  putVarint(out, tags.track);
  putNumber(out, tags.disc, 1);
  putNumber(out, tags.flags, 1);
  for (uint32_t id : {tags.title, tags.artist, tags.album, tags.genre, tags.date}) {
    const char *text = pool.text(id);
    const size_t length = text != nullptr ? std::strlen(text) : 0;  // at most the pool's 1,024 bytes
    putVarint(out, length);
    out.append(text != nullptr ? text : "", length);
  }
  return out;
}

bool dmsIndexUnpackTags(std::string_view bytes, dmsTagPool &pool, dmsMediaTags &tags) {
  Reader in(bytes);
  if (in.number(1) != kTagsVersion) return false;
  dmsMediaTags read;
  const uint64_t track = in.varint();
  read.track = static_cast<uint16_t>(track);
  read.disc = static_cast<uint8_t>(in.number(1));
  read.flags = static_cast<uint8_t>(in.number(1));
  std::string_view texts[5];
  for (std::string_view &text : texts) text = in.text();
  if (!in.whole() || track > 0xFFFF) return false;
  uint32_t *ids[] = {&read.title, &read.artist, &read.album, &read.genre, &read.date};
  for (size_t i = 0; i < 5; ++i) *ids[i] = pool.intern(texts[i]);
  tags = read;
  return true;
}

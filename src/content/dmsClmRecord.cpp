#include "content/dmsClmRecord.h"

#include <algorithm>
#include <cstdint>
#include <limits>

// The byte-wide fields hold every value the detectors hand out.
static_assert(MFD_FORMAT_COUNT <= UINT8_MAX + 1 && MFD_CODEC_OTHER <= UINT8_MAX);
static_assert(MFD_CLASS_AV <= UINT8_MAX);
static_assert(sizeof(dmsMediaRecord) == 48 && sizeof(dmsMediaTags) == 24);

namespace {

// `value` held within 0 .. the largest `Narrow`.
template <typename Narrow, typename Wide>
Narrow held(Wide value) {
  return static_cast<Narrow>(std::clamp<int64_t>(value, 0, std::numeric_limits<Narrow>::max()));
}

}  // namespace

dmsMediaRecord dmsClmKeepMedia(const mfdMediaInfo &info) {
  dmsMediaRecord record;
  record.fileSize = info.fileSize;
  record.dataOffset = info.dataOffset;
  record.modificationTime = info.modificationTime;
  record.stringsNumber = mfd_protocolStringsNumber(mfd_protocolStringsFor(info));
  record.bitrate = info.bitrate;
  record.sampleRate = info.sampleRate;
  record.channels = held<uint8_t>(info.channels);
  record.videoWidth = held<uint16_t>(info.videoWidth);
  record.videoHeight = held<uint16_t>(info.videoHeight);
  record.duration = info.duration;
  record.profileCode = held<uint8_t>(info.profileCode);
  record.mediaClass = static_cast<uint8_t>(info.mediaClass);
  record.formatId = static_cast<uint8_t>(info.formatId);
  record.audioCodec = static_cast<uint8_t>(info.audioCodec);
  record.videoCodec = static_cast<uint8_t>(info.videoCodec);
  return record;
}

mfdMediaInfo dmsClmExpandMedia(const dmsMediaRecord &record) {
  mfdMediaInfo info{};
  info.fileSize = record.fileSize;
  info.dataOffset = record.dataOffset;
  info.modificationTime = record.modificationTime;
  const mfdProtocolStrings *strings = record.strings();
  info.mimeType = strings != nullptr ? strings->mimeType : "";
  info.profileName = strings != nullptr ? strings->profileName : "";
  info.protocolInfo = strings != nullptr ? strings->protocolInfo : "";
  info.bitrate = record.bitrate;
  info.sampleRate = record.sampleRate;
  info.channels = record.channels;
  info.videoWidth = record.videoWidth;
  info.videoHeight = record.videoHeight;
  info.duration = record.duration;
  info.profileCode = record.profileCode;
  info.mediaClass = record.mediaClass;
  info.formatId = record.formatId;
  info.audioCodec = record.audioCodec;
  info.videoCodec = record.videoCodec;
  return info;
}

// WM detector: ASF files (WMV, WMA), reported as format id 23; registered
// for ids 10 and 17.  Unlike the other detectors it takes files whatever
// their names.
//
// Mode 2 recognises the header object's GUID at the start of the file.
// Mode 3 walks the header's objects: the file properties (play duration less
// the preroll, maximum bit rate), the stream properties (codec, picture
// size, sample rate, channels), the stream bitrate properties and, inside
// the header extension, the extended stream properties (bit rates, and the
// stream properties some files keep there).  The first video stream and the
// first audio stream decide the codec ids, the class and the profile code.
// The bitrate word is the sum of those two streams' rates in kbit/s (a video
// rate that no bitrate object gives is what the file's maximum leaves beside
// the audio).
#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "mfd/mfd_api.h"
#include "mfd/mfd_asf.h"
#include "mfd/mfd_video.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "mfd_asf.c";

namespace {

using Guid = std::array<uint8_t, 16>;

// A GUID in its written form, laid out as the file stores it (the first
// three groups little-endian).
constexpr Guid makeGuid(uint32_t first, uint16_t second, uint16_t third, uint16_t fourth,
                        uint64_t node) {
  return {uint8_t(first), uint8_t(first >> 8), uint8_t(first >> 16), uint8_t(first >> 24),
          uint8_t(second), uint8_t(second >> 8), uint8_t(third), uint8_t(third >> 8),
          uint8_t(fourth >> 8), uint8_t(fourth), uint8_t(node >> 40), uint8_t(node >> 32),
          uint8_t(node >> 24), uint8_t(node >> 16), uint8_t(node >> 8), uint8_t(node)};
}

constexpr Guid kHeaderObject = makeGuid(0x75B22630, 0x668E, 0x11CF, 0xA6D9, 0x00AA0062CE6C);
constexpr Guid kFileProperties = makeGuid(0x8CABDCA1, 0xA947, 0x11CF, 0x8EE4, 0x00C00C205365);
constexpr Guid kStreamProperties = makeGuid(0xB7DC0791, 0xA9B7, 0x11CF, 0x8EE6, 0x00C00C205365);
constexpr Guid kHeaderExtension = makeGuid(0x5FBF03B5, 0xA92E, 0x11CF, 0x8EE3, 0x00C00C205365);
constexpr Guid kStreamBitrates = makeGuid(0x7BF875CE, 0x468D, 0x11D1, 0x8D82, 0x006097C9A2B2);
constexpr Guid kExtendedStream = makeGuid(0x14E6A5CB, 0xC672, 0x4332, 0x8399, 0xA96952065B5A);

constexpr size_t kHeaderObjectSize = 30;  // GUID, size, object count, two reserved bytes
constexpr size_t kObjectHeaderSize = 24;  // GUID, size
constexpr size_t kExtensionFields = 22;   // reserved GUID and word, data size
constexpr int kMaxObjects = 1024;         // objects looked at in all, extensions included
constexpr size_t kMaxObjectBytes = 65536;
constexpr size_t kMaxStreams = 127;

struct AsfObject {
  Guid guid{};
  int64_t start = 0;
  int64_t end = 0;
};

bool isGuid(const uint8_t *bytes, const Guid &guid) {
  return std::equal(guid.begin(), guid.end(), bytes);
}

// The object header at `position`, inside [position, limit).
bool readObject(int64_t position, int64_t limit, AsfObject &object) {
  std::array<uint8_t, kObjectHeaderSize> header{};
  if (limit - position < int64_t{kObjectHeaderSize} || mfdVideo_seek(position) != 0 ||
      mfdVideo_readBytes(header.data(), header.size()) != 0) {
    return false;
  }
  const uint64_t size = mfdVideo_le64(header.data() + 16);
  if (size < kObjectHeaderSize || size > static_cast<uint64_t>(limit - position)) return false;
  std::copy(header.begin(), header.begin() + 16, object.guid.begin());
  object.start = position;
  object.end = position + static_cast<int64_t>(size);
  return true;
}

// The object's content after its header, at most kMaxObjectBytes.
std::vector<uint8_t> readContent(const AsfObject &object) {
  std::vector<uint8_t> bytes;
  const int64_t size = object.end - object.start - int64_t{kObjectHeaderSize};
  if (mfdVideo_seek(object.start + int64_t{kObjectHeaderSize}) != 0) return bytes;
  mfdVideo_readAvailable(bytes, static_cast<size_t>(std::min<int64_t>(size, kMaxObjectBytes)));
  return bytes;
}

mfdAsfStream &streamNumbered(mfdAsfHeader &header, uint32_t number) {
  for (mfdAsfStream &stream : header.streams) {
    if (stream.number == number) return stream;
  }
  if (header.streams.size() >= kMaxStreams) return header.streams.back();
  header.streams.push_back(mfdAsfStream{});
  header.streams.back().number = number;
  return header.streams.back();
}

void takeStreamProperties(const uint8_t *bytes, size_t size, mfdAsfHeader &header) {
  mfdAsfStream stream;
  if (!mfdAsf_parseStreamProperties(bytes, size, stream)) return;
  mfdAsfStream &kept = streamNumbered(header, stream.number);
  const uint32_t bitrate = kept.bitrate;
  kept = stream;
  if (stream.bitrate == 0) kept.bitrate = bitrate;
}

void takeFileProperties(const std::vector<uint8_t> &bytes, mfdAsfHeader &header) {
  // File id, size, creation date, packet count, then the fields read here.
  if (bytes.size() < 80) return;
  header.fileProperties = true;
  header.playDuration = mfdVideo_le64(bytes.data() + 40);
  header.preroll = mfdVideo_le64(bytes.data() + 56);
  header.flags = mfdVideo_le32(bytes.data() + 64);
  header.maxBitrate = mfdVideo_le32(bytes.data() + 76);
}

void takeStreamBitrates(const std::vector<uint8_t> &bytes, mfdAsfHeader &header) {
  if (bytes.size() < 2) return;
  const size_t count = mfdVideo_le16(bytes.data());
  for (size_t index = 0; index < count && 2 + index * 6 + 6 <= bytes.size(); ++index) {
    const uint8_t *record = bytes.data() + 2 + index * 6;
    streamNumbered(header, mfdVideo_le16(record) & 0x7Fu).bitrate = mfdVideo_le32(record + 2);
  }
}

// Extended stream properties: the stream's data bit rate, and possibly its
// stream properties object after the names and payload extensions.
void takeExtendedStream(const std::vector<uint8_t> &bytes, mfdAsfHeader &header) {
  if (bytes.size() < 64) return;
  mfdAsfStream &stream = streamNumbered(header, mfdVideo_le16(bytes.data() + 48) & 0x7Fu);
  if (stream.bitrate == 0) stream.bitrate = mfdVideo_le32(bytes.data() + 16);
  size_t index = 64;
  const size_t names = mfdVideo_le16(bytes.data() + 60);
  const size_t extensions = mfdVideo_le16(bytes.data() + 62);
  for (size_t count = 0; count < names && index + 4 <= bytes.size(); ++count) {
    index += 4 + mfdVideo_le16(bytes.data() + index + 2);
  }
  for (size_t count = 0; count < extensions && index + 22 <= bytes.size(); ++count) {
    index += 22 + mfdVideo_le32(bytes.data() + index + 18);
  }
  if (index + kObjectHeaderSize <= bytes.size() && isGuid(bytes.data() + index, kStreamProperties)) {
    takeStreamProperties(bytes.data() + index + kObjectHeaderSize,
                         bytes.size() - index - kObjectHeaderSize, header);
  }
}

void walkHeaderExtension(const AsfObject &extension, mfdAsfHeader &header, int &budget) {
  int64_t position = extension.start + int64_t{kObjectHeaderSize + kExtensionFields};
  for (; budget > 0; --budget) {
    AsfObject object;
    if (!readObject(position, extension.end, object)) return;
    if (isGuid(object.guid.data(), kExtendedStream)) takeExtendedStream(readContent(object), header);
    position = object.end;
  }
}

// The header object's children.  False when the file does not start with
// an ASF header.
bool readHeader(int64_t fileSize, mfdAsfHeader &header) {
  std::array<uint8_t, kHeaderObjectSize> start{};
  if (mfdVideo_seek(0) != 0 || mfdVideo_readBytes(start.data(), start.size()) != 0 ||
      !isGuid(start.data(), kHeaderObject)) {
    return false;
  }
  const uint64_t declared = mfdVideo_le64(start.data() + 16);
  const int64_t end = static_cast<int64_t>(std::min<uint64_t>(declared, uint64_t(fileSize)));
  const uint32_t objects = mfdVideo_le32(start.data() + 24);
  int64_t position = int64_t{kHeaderObjectSize};
  int budget = kMaxObjects;
  for (uint32_t count = 0; count < objects && budget > 0; ++count, --budget) {
    AsfObject object;
    if (!readObject(position, end, object)) break;
    const uint8_t *guid = object.guid.data();
    if (isGuid(guid, kFileProperties)) takeFileProperties(readContent(object), header);
    if (isGuid(guid, kStreamBitrates)) takeStreamBitrates(readContent(object), header);
    if (isGuid(guid, kHeaderExtension)) walkHeaderExtension(object, header, budget);
    if (isGuid(guid, kStreamProperties)) {
      const std::vector<uint8_t> content = readContent(object);
      takeStreamProperties(content.data(), content.size(), header);
    }
    position = object.end;
  }
  return true;
}

const mfdAsfStream *firstStream(const mfdAsfHeader &header, bool video) {
  for (const mfdAsfStream &stream : header.streams) {
    if (video ? stream.video : stream.audio) return &stream;
  }
  return nullptr;
}

uint32_t playingTime(const mfdAsfHeader &header) {
  constexpr uint32_t kBroadcast = 1;
  if (!header.fileProperties || (header.flags & kBroadcast) != 0) return 0;
  const uint64_t milliseconds = header.playDuration / 10000;
  if (milliseconds <= header.preroll) return 0;
  return static_cast<uint32_t>(std::min<uint64_t>(milliseconds - header.preroll, UINT32_MAX));
}

// The video stream with its bit rate: when no bitrate object gives it, what
// the file's maximum leaves beside the audio.
mfdAsfStream videoWithBitrate(const mfdAsfHeader &header, const mfdAsfStream &video,
                              const mfdAsfStream *audio) {
  mfdAsfStream stream = video;
  const uint32_t audioBits = audio != nullptr ? uint32_t(mfdAsf_streamKbit(*audio)) * 1000 : 0;
  if (stream.bitrate == 0 && header.maxBitrate > audioBits) {
    stream.bitrate = header.maxBitrate - audioBits;
  }
  return stream;
}

void fillRecord(const mfdAsfHeader &header, mfdMediaInfo *info) {
  const mfdAsfStream *firstVideo = firstStream(header, true);
  const mfdAsfStream *audio = firstStream(header, false);
  int32_t kbit = 0;
  mfdAsfStream video;
  if (firstVideo != nullptr) {
    video = videoWithBitrate(header, *firstVideo, audio);
    info->videoCodec = mfdAsf_videoCodec(video.codecTag);
    info->videoWidth = video.width;
    info->videoHeight = video.height;
    kbit += mfdAsf_streamKbit(video);
  }
  if (audio != nullptr) {
    info->audioCodec = mfdAsf_audioCodec(audio->codecTag);
    info->sampleRate = audio->sampleRate;
    info->channels = audio->channels;
    kbit += mfdAsf_streamKbit(*audio);
  }
  info->mediaClass = firstVideo == nullptr && audio != nullptr ? MFD_CLASS_AUDIO : MFD_CLASS_VIDEO;
  info->bitrate = kbit > 0 ? kbit : static_cast<int32_t>(header.maxBitrate / 1000);
  info->duration = playingTime(header);
  if (firstVideo != nullptr && info->videoCodec == MFD_FORMAT_WMV) {
    info->profileCode = mfdAsf_wmvProfile(video, audio);
  } else if (firstVideo == nullptr && audio != nullptr && info->audioCodec == MFD_FORMAT_WMA) {
    info->profileCode = mfdAsf_wmaProfile(*audio);
  }
}

int detectMode2(mfdMediaInfo *info) {
  std::array<uint8_t, kHeaderObjectSize> start{};
  if (mfdVideo_readBytes(start.data(), start.size()) != 0 || !isGuid(start.data(), kHeaderObject) ||
      mfdVideo_le64(start.data() + 16) < kHeaderObjectSize) {
    return 0;
  }
  info->mediaClass = MFD_CLASS_VIDEO;
  info->formatId = MFD_FORMAT_ASF;
  DMS_TRACE(OSAL_TRACE_INFO, "ASF detected\n");
  return 0;
}

int parseMode3(int fd, mfdMediaInfo *info) {
  mfdAsfHeader header;
  if (!readHeader(mfdVideo_fileSize(fd), header)) return 0;
  fillRecord(header, info);
  DMS_TRACE(OSAL_TRACE_INFO, "ASF: video %u %dx%d, audio %u %d Hz %d ch, %d kbit/s, %u ms, profile %u\n",
            info->videoCodec, info->videoWidth, info->videoHeight, info->audioCodec,
            info->sampleRate, info->channels, info->bitrate, info->duration, info->profileCode);
  return 0;
}

}  // namespace

int mediaFormatWmDetect(int fd, mfdMediaInfo *info, int mode, const char * /*path*/) {
  if (info == nullptr) return 0;
  return dmsGuardRecover("mediaFormatWmDetect", MFD_ERR_INVALID_PARAM, [&] {
    if (mode == MFD_MODE_DETECT) return detectMode2(info);
    if (mode == MFD_MODE_PARSE) return parseMode3(fd, info);
    return 0;
  }, [&] { if (mode == MFD_MODE_DETECT) *info = mfdMediaInfo{}; });
}

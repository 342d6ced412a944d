// Matroska and WebM detector: the EBML header's document type, then, in the
// Segment before its first Cluster, the Info element (time scale, duration)
// and the Tracks (codec, picture size, sample rate, channels).  Reads at most
// the file's first 96 KiB; every size is checked against what was read.  A
// file is refused when its EBML header claims more bytes than any header
// holds, or when it has no whole Tracks element although the bytes read reach
// its end or its first Cluster: nothing in it says what to decode.
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "mfd/mfd_api.h"
#include "mfd/mfd_video.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "mfd_mkv.c";

namespace {

constexpr size_t kHeadBytes = 96 * 1024;
constexpr size_t kMaxEbmlHeaderBytes = 4096;  // encoders write some 40

// Element ids (with their length marker bits, as written).
constexpr uint32_t kEbml = 0x1A45DFA3, kDocType = 0x4282, kSegment = 0x18538067;
constexpr uint32_t kInfo = 0x1549A966, kTimestampScale = 0x2AD7B1, kDuration = 0x4489;
constexpr uint32_t kTracks = 0x1654AE6B, kTrackEntry = 0xAE, kTrackType = 0x83, kCodecId = 0x86;
constexpr uint32_t kVideo = 0xE0, kPixelWidth = 0xB0, kPixelHeight = 0xBA;
constexpr uint32_t kAudio = 0xE1, kSamplingFrequency = 0xB5, kChannels = 0x9F;
constexpr uint32_t kCluster = 0x1F43B675;
constexpr uint64_t kUnknownSize = ~uint64_t{0};

struct CodecRow {
  const char *prefix;  // of the CodecID
  uint32_t codec;
};

constexpr CodecRow kCodecs[] = {
    {"V_MPEG4/ISO/AVC", MFD_CODEC_AVC},  {"V_MPEGH/ISO/HEVC", MFD_CODEC_HEVC},
    {"V_MPEG4/ISO/", MFD_FORMAT_MPEG4_PART2}, {"V_MPEG2", MFD_FORMAT_MPEG2_VIDEO},
    {"V_VP8", MFD_CODEC_VP8},            {"V_VP9", MFD_CODEC_VP9},
    {"V_AV1", MFD_CODEC_AV1},            {"A_AAC", MFD_FORMAT_AAC},
    {"A_AC3", MFD_FORMAT_AC3},           {"A_EAC3", MFD_CODEC_EAC3},
    {"A_DTS", MFD_CODEC_DTS},            {"A_MPEG/L3", MFD_FORMAT_MP3},
    {"A_VORBIS", MFD_CODEC_VORBIS},      {"A_OPUS", MFD_CODEC_OPUS},
    {"A_FLAC", MFD_FORMAT_FLAC},
};

uint32_t codecOf(std::string_view id) {
  for (const CodecRow &row : kCodecs) {
    if (id.rfind(row.prefix, 0) == 0) return row.codec;
  }
  return MFD_CODEC_OTHER;
}

// A cursor over the bytes read; every read is bounded by `end`.
struct Cursor {
  const uint8_t *at;
  const uint8_t *end;
  bool cut = false;  // as an element's payload: its size is unknown or reaches past the bytes read

  // A variable-length integer: an id keeps its marker bits, a size does
  // not (all ones: unknown).  false past the end or for a malformed length.
  bool vint(uint64_t &value, bool keepMarker) {
    if (at >= end || *at == 0) return false;
    int length = 1;
    while ((*at & (0x80 >> (length - 1))) == 0) ++length;
    if (end - at < length) return false;
    value = keepMarker ? *at : *at & (0xFF >> length);
    bool allOnes = value == static_cast<uint64_t>(0xFF >> length);
    for (int i = 1; i < length; ++i) {
      value = value << 8 | at[i];
      allOnes = allOnes && at[i] == 0xFF;
    }
    at += length;
    if (!keepMarker && allOnes) value = kUnknownSize;
    return true;
  }

  // The next element: its id and payload; an unknown size, or one past the
  // bytes read, runs to the end (and marks the payload cut).
  bool element(uint32_t &id, Cursor &payload) {
    uint64_t rawId = 0, size = 0;
    if (!vint(rawId, true) || rawId > 0xFFFFFFFF || !vint(size, false)) return false;
    id = static_cast<uint32_t>(rawId);
    const uint64_t left = static_cast<uint64_t>(end - at);
    const bool reachesPast = size == kUnknownSize || size > left;
    payload = {at, at + (reachesPast ? left : size), reachesPast};
    at = payload.end;
    return true;
  }

  uint64_t unsignedValue() const {
    uint64_t value = 0;
    for (const uint8_t *b = at; b < end && b - at < 8; ++b) value = value << 8 | *b;
    return value;
  }

  double floatValue() const {
    if (end - at == 4) {
      uint32_t bits = mfdVideo_be32(at);
      float value;
      std::memcpy(&value, &bits, sizeof value);
      return value;
    }
    if (end - at == 8) {
      uint64_t bits = mfdVideo_be64(at);
      double value;
      std::memcpy(&value, &bits, sizeof value);
      return value;
    }
    return 0;
  }
};

// A sampling frequency as a whole number; 0 for nonsense (NaN, negative, huge).
int32_t wholeHertz(double frequency) {
  return frequency > 0 && frequency < 1e7 ? static_cast<int32_t>(frequency) : 0;
}

// What the first bytes make of a file.
enum class Verdict { kNotMatroska, kBroken, kMatroska };

struct Movie : mfdVideoStreams {
  bool webm = false;
  bool tracksWhole = false;     // a Tracks element read to its end
  bool clusterReached = false;  // the Segment's first Cluster came into the bytes read
  uint64_t timestampScale = 1000000;  // nanoseconds per tick
  double duration = 0;                 // ticks
};

// The document type of the EBML header (the file starts with its id): not
// ours unless it names Matroska or WebM; broken when the header's size is
// malformed, reaches past the bytes read or is absurd.
Verdict readHeader(Cursor &file, Movie &movie) {
  uint32_t id = 0;
  Cursor header{};
  if (!file.element(id, header) || header.cut ||
      static_cast<size_t>(header.end - header.at) > kMaxEbmlHeaderBytes) {
    return Verdict::kBroken;
  }
  for (Cursor child{}; header.element(id, child);) {
    if (id != kDocType) continue;
    const std::string_view type(reinterpret_cast<const char *>(child.at), static_cast<size_t>(child.end - child.at));
    movie.webm = type.rfind("webm", 0) == 0;
    return movie.webm || type.rfind("matroska", 0) == 0 ? Verdict::kMatroska : Verdict::kNotMatroska;
  }
  return Verdict::kNotMatroska;
}

void readTrack(Cursor entry, Movie &movie) {
  uint64_t type = 0;
  uint32_t codec = 0, id = 0;
  int32_t width = 0, height = 0, rate = 0, channels = 0;
  for (Cursor child{}; entry.element(id, child);) {
    if (id == kTrackType) {
      type = child.unsignedValue();
    } else if (id == kCodecId) {
      codec = codecOf(std::string_view(reinterpret_cast<const char *>(child.at), static_cast<size_t>(child.end - child.at)));
    } else if (id == kVideo || id == kAudio) {
      uint32_t field = 0;
      for (Cursor value{}; child.element(field, value);) {
        if (field == kPixelWidth) width = static_cast<int32_t>(value.unsignedValue());
        if (field == kPixelHeight) height = static_cast<int32_t>(value.unsignedValue());
        if (field == kSamplingFrequency) rate = wholeHertz(value.floatValue());
        if (field == kChannels) channels = static_cast<int32_t>(value.unsignedValue());
      }
    }
  }
  if (type == 1 && movie.videoCodec == 0) {
    movie.videoCodec = codec;
    movie.width = width;
    movie.height = height;
  } else if (type == 2 && movie.audioCodec == 0) {
    movie.audioCodec = codec;
    movie.sampleRate = rate;
    movie.channels = channels == 0 ? 1 : channels;
  }
}

// Info and Tracks among the Segment's children, up to the first Cluster.
void readSegment(Cursor segment, Movie &movie) {
  uint32_t id = 0;
  for (Cursor child{}; segment.element(id, child);) {
    if (id == kCluster) {
      movie.clusterReached = true;
      return;
    }
    if (id == kInfo) {
      for (Cursor field{}; child.element(id, field);) {
        if (id == kTimestampScale && field.unsignedValue() != 0) movie.timestampScale = field.unsignedValue();
        if (id == kDuration) movie.duration = field.floatValue();
      }
    } else if (id == kTracks) {
      movie.tracksWhole = movie.tracksWhole || !child.cut;
      for (Cursor entry{}; child.element(id, entry);) {
        if (id == kTrackEntry) readTrack(entry, movie);
      }
    }
  }
}

// The header, then the Segment's Info and Tracks; `fileSize` tells whether
// the bytes read reach the end of the file.
Verdict readMovie(int64_t fileSize, Movie &movie) {
  // The signature first: every other file is turned away after four bytes.
  std::vector<uint8_t> head;
  if (mfdVideo_seek(0) != 0 || mfdVideo_readAvailable(head, 4) < 4 || mfdVideo_be32(head.data()) != kEbml) {
    return Verdict::kNotMatroska;
  }
  mfdVideo_readAvailable(head, kHeadBytes - 4);
  Cursor file{head.data(), head.data() + head.size()};
  const Verdict verdict = readHeader(file, movie);
  if (verdict != Verdict::kMatroska) return verdict;
  uint32_t id = 0;
  for (Cursor segment{}; file.element(id, segment);) {
    if (id == kSegment) {
      readSegment(segment, movie);
      break;
    }
  }
  // Tracks may lie beyond the bytes read in a large file; not so in one
  // that ends within them, nor after the first Cluster.
  const bool sawAll = fileSize <= static_cast<int64_t>(head.size()) || movie.clusterReached;
  return movie.tracksWhole || !sawAll ? Verdict::kMatroska : Verdict::kBroken;
}

}  // namespace

int mediaFormatMatroskaDetect(int fd, mfdMediaInfo *info, int mode, const char * /*path*/) {
  if (info == nullptr) return MFD_ERR_INVALID_PARAM;
  Movie movie;
  const Verdict verdict = readMovie(mfdVideo_fileSize(fd), movie);
  if (verdict == Verdict::kNotMatroska) return 0;
  if (verdict == Verdict::kBroken) {
    DMS_TRACE(OSAL_TRACE_INFO, "Matroska header broken or no track information\n");
    return MFD_ERR_INVALID_PARAM;
  }
  if (mode == MFD_MODE_DETECT) {
    DMS_TRACE(OSAL_TRACE_INFO, "%s detected\n", movie.webm ? "WebM" : "Matroska");
    info->formatId = movie.webm ? MFD_FORMAT_WEBM : MFD_FORMAT_MATROSKA;
    info->mediaClass = movie.videoCodec != 0 ? MFD_CLASS_VIDEO : MFD_CLASS_AUDIO;
    return 0;
  }
  mfdVideo_reportStreams(fd, movie, movie.duration * static_cast<double>(movie.timestampScale) / 1e6, info);
  return 0;
}

// AVI detector: "RIFF" ... "AVI ", then in the hdrl list the main header
// (frame time, frame count, picture size) and each stream's header and
// format (the video's compression FourCC, the audio's format tag, rate and
// channels).  Reads at most the file's first 64 KiB.  A file without the main
// header (a RIFF header and little more) is refused: nothing in it plays.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "mfd/mfd_api.h"
#include "mfd/mfd_video.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "mfd_avi.c";

namespace {

constexpr size_t kHeadBytes = 64 * 1024;
constexpr size_t kMainHeaderSize = 40;  // the fields read from avih

struct FourCcRow {
  uint32_t fourCc;
  uint32_t codec;
};

// Video compression FourCCs, compared in upper case.
constexpr FourCcRow kVideoCodecs[] = {
    {mfdVideo_fourCc("H264"), MFD_CODEC_AVC},  {mfdVideo_fourCc("X264"), MFD_CODEC_AVC},
    {mfdVideo_fourCc("AVC1"), MFD_CODEC_AVC},  {mfdVideo_fourCc("HEVC"), MFD_CODEC_HEVC},
    {mfdVideo_fourCc("H265"), MFD_CODEC_HEVC}, {mfdVideo_fourCc("XVID"), MFD_FORMAT_MPEG4_PART2},
    {mfdVideo_fourCc("DIVX"), MFD_FORMAT_MPEG4_PART2}, {mfdVideo_fourCc("DX50"), MFD_FORMAT_MPEG4_PART2},
    {mfdVideo_fourCc("FMP4"), MFD_FORMAT_MPEG4_PART2}, {mfdVideo_fourCc("MP4V"), MFD_FORMAT_MPEG4_PART2},
    {mfdVideo_fourCc("MPG2"), MFD_FORMAT_MPEG2_VIDEO},
};

struct FormatTagRow {
  uint32_t tag;
  uint32_t codec;
};

constexpr FormatTagRow kAudioCodecs[] = {
    {0x0001, MFD_FORMAT_LPCM}, {0x0050, MFD_FORMAT_MP2}, {0x0055, MFD_FORMAT_MP3},
    {0x00FF, MFD_FORMAT_AAC},  {0x2000, MFD_FORMAT_AC3}, {0x2001, MFD_CODEC_DTS},
};

uint32_t upper(uint32_t fourCc) {
  uint32_t result = 0;
  for (int shift = 24; shift >= 0; shift -= 8) {
    uint32_t c = fourCc >> shift & 0xFF;
    if (c >= 'a' && c <= 'z') c -= 'a' - 'A';
    result |= c << shift;
  }
  return result;
}

// What the first bytes make of a file.
enum class Verdict { kNotAvi, kBroken, kAvi };

struct Movie : mfdVideoStreams {
  bool mainHeader = false;  // avih read
  uint32_t microsecondsPerFrame = 0, frames = 0;
  double longestStreamMs = 0;  // from the stream headers' length, rate and scale
};

// One stream list: its header names the kind, its format the codec.
void readStream(const uint8_t *at, const uint8_t *end, Movie &movie) {
  uint32_t kind = 0;
  while (end - at >= 8) {
    const uint32_t id = mfdVideo_be32(at);
    const uint32_t size = mfdVideo_le32(at + 4);
    const uint8_t *payload = at + 8;
    if (size > static_cast<size_t>(end - payload)) break;
    if (id == mfdVideo_fourCc("strh") && size >= 8) {
      kind = mfdVideo_be32(payload);
      if (size >= 36) {
        // Length in units of scale / rate seconds; audio may outlast video.
        const double scale = mfdVideo_le32(payload + 20), rate = mfdVideo_le32(payload + 24);
        const double length = mfdVideo_le32(payload + 32);
        if (rate > 0) movie.longestStreamMs = std::max(movie.longestStreamMs, length * scale * 1000.0 / rate);
      }
    } else if (id == mfdVideo_fourCc("strf") && kind == mfdVideo_fourCc("vids") && size >= 20 && movie.videoCodec == 0) {
      movie.videoCodec = MFD_CODEC_OTHER;
      const uint32_t compression = upper(mfdVideo_be32(payload + 16));
      for (const FourCcRow &row : kVideoCodecs) {
        if (row.fourCc == compression) movie.videoCodec = row.codec;
      }
    } else if (id == mfdVideo_fourCc("strf") && kind == mfdVideo_fourCc("auds") && size >= 8 && movie.audioCodec == 0) {
      movie.audioCodec = MFD_CODEC_OTHER;
      const uint32_t tag = mfdVideo_le16(payload);
      for (const FormatTagRow &row : kAudioCodecs) {
        if (row.tag == tag) movie.audioCodec = row.codec;
      }
      movie.channels = static_cast<int32_t>(mfdVideo_le16(payload + 2));
      movie.sampleRate = static_cast<int32_t>(mfdVideo_le32(payload + 4) & 0x7FFFFFFF);
    }
    at = payload + size + (size & 1);
  }
}

// The chunks of the hdrl list.
void readHeaderList(const uint8_t *at, const uint8_t *end, Movie &movie) {
  while (end - at >= 8) {
    const uint32_t id = mfdVideo_be32(at);
    const uint32_t size = mfdVideo_le32(at + 4);
    const uint8_t *payload = at + 8;
    if (size > static_cast<size_t>(end - payload)) break;
    if (id == mfdVideo_fourCc("avih") && size >= kMainHeaderSize) {
      movie.mainHeader = true;
      movie.microsecondsPerFrame = mfdVideo_le32(payload);
      movie.frames = mfdVideo_le32(payload + 16);
      movie.width = static_cast<int32_t>(mfdVideo_le32(payload + 32) & 0x7FFFFFFF);
      movie.height = static_cast<int32_t>(mfdVideo_le32(payload + 36) & 0x7FFFFFFF);
    } else if (id == mfdVideo_fourCc("LIST") && size >= 4 && mfdVideo_be32(payload) == mfdVideo_fourCc("strl")) {
      readStream(payload + 4, payload + size, movie);
    }
    at = payload + size + (size & 1);
  }
}

// An AVI file must hold its main header in the hdrl list that opens it.
Verdict readMovie(Movie &movie) {
  // The signature first: every other file is turned away after 12 bytes.
  std::vector<uint8_t> head;
  if (mfdVideo_seek(0) != 0 || mfdVideo_readAvailable(head, 12) < 12) return Verdict::kNotAvi;
  if (std::memcmp(head.data(), "RIFF", 4) != 0 || std::memcmp(head.data() + 8, "AVI ", 4) != 0) {
    return Verdict::kNotAvi;
  }
  mfdVideo_readAvailable(head, kHeadBytes - 12);
  const uint8_t *at = head.data() + 12;
  const uint8_t *end = head.data() + head.size();
  while (end - at >= 12) {
    const uint32_t size = mfdVideo_le32(at + 4);
    if (std::memcmp(at, "LIST", 4) == 0 && std::memcmp(at + 8, "hdrl", 4) == 0) {
      const size_t inList = size - 4 < static_cast<size_t>(end - at - 12) ? size - 4 : static_cast<size_t>(end - at - 12);
      readHeaderList(at + 12, at + 12 + inList, movie);
      break;
    }
    if (size > static_cast<size_t>(end - at - 8)) break;
    at += 8 + size + (size & 1);
  }
  return movie.mainHeader ? Verdict::kAvi : Verdict::kBroken;
}

}  // namespace

int mediaFormatAviDetect(int fd, mfdMediaInfo *info, int mode, const char * /*path*/) {
  if (info == nullptr) return MFD_ERR_INVALID_PARAM;
  Movie movie;
  const Verdict verdict = readMovie(movie);
  if (verdict == Verdict::kNotAvi) return 0;
  if (verdict == Verdict::kBroken) {
    DMS_TRACE(OSAL_TRACE_INFO, "AVI without a main header\n");
    return MFD_ERR_INVALID_PARAM;
  }
  if (mode == MFD_MODE_DETECT) {
    DMS_TRACE(OSAL_TRACE_INFO, "AVI detected\n");
    info->formatId = MFD_FORMAT_AVI;
    info->mediaClass = movie.videoCodec != 0 || movie.audioCodec == 0 ? MFD_CLASS_VIDEO : MFD_CLASS_AUDIO;
    return 0;
  }
  const double framesMs = static_cast<double>(movie.frames) * movie.microsecondsPerFrame / 1000.0;
  mfdVideo_reportStreams(fd, movie, std::max(framesMs, movie.longestStreamMs), info);
  return 0;
}

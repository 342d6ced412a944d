// Pieces shared by the video and container detectors (MPEG program and
// transport streams, MPEG-4 part 2 elementary streams, MP4, ASF):
// whole-byte reads at absolute file positions through the calling thread's
// bit reader, byte-order helpers, a bounds-checked bit cursor over bytes in
// memory, and parsers for the headers that several containers carry (MPEG-1/2
// video sequence headers, H.264 sequence parameter sets, MPEG-4 video object
// layers, MPEG audio frame headers, PES packet headers).
//
// Every parser works on a buffer in memory and never reads past its end: a
// field that would lie beyond it makes the parse fail instead.
#ifndef DMS_MFD_MFD_VIDEO_H
#define DMS_MFD_MFD_VIDEO_H

#include <cstddef>
#include <cstdint>
#include <vector>

// ------------------------------------------------------------ file access

// Size of the file open on `fd`, or -1.
int64_t mfdVideo_fileSize(int fd);

// Continues reading at absolute position `offset`: a short step forward is
// skipped inside the reader's buffers, anything else is a jump (which also
// starts the reader's block limit again).  0, or 1 when the position cannot
// be read.
int32_t mfdVideo_seek(int64_t offset);

// Reads `count` bytes from the current position.  0, or 1 when the file ends
// first or the reader's block limit is reached (the bytes then are partly
// written and the position is past them).
int32_t mfdVideo_readBytes(uint8_t *out, size_t count);

// Appends up to `count` bytes from the current position to `bytes`, stopping
// quietly at the end of the file or the block limit; the number appended.
size_t mfdVideo_readAvailable(std::vector<uint8_t> &bytes, size_t count);

// ------------------------------------------------------------ byte order

inline uint32_t mfdVideo_be16(const uint8_t *b) { return uint32_t{b[0]} << 8 | b[1]; }
inline uint32_t mfdVideo_be24(const uint8_t *b) { return mfdVideo_be16(b) << 8 | b[2]; }
inline uint32_t mfdVideo_be32(const uint8_t *b) { return mfdVideo_be16(b) << 16 | mfdVideo_be16(b + 2); }
inline uint64_t mfdVideo_be64(const uint8_t *b) {
  return uint64_t{mfdVideo_be32(b)} << 32 | mfdVideo_be32(b + 4);
}
inline uint32_t mfdVideo_le16(const uint8_t *b) { return uint32_t{b[1]} << 8 | b[0]; }
inline uint32_t mfdVideo_le32(const uint8_t *b) { return mfdVideo_le16(b + 2) << 16 | mfdVideo_le16(b); }
inline uint64_t mfdVideo_le64(const uint8_t *b) {
  return uint64_t{mfdVideo_le32(b + 4)} << 32 | mfdVideo_le32(b);
}

// Four-character code as a big-endian word ("moov" -> 0x6D6F6F76).
constexpr uint32_t mfdVideo_fourCc(const char (&text)[5]) {
  return uint32_t(uint8_t(text[0])) << 24 | uint32_t(uint8_t(text[1])) << 16 |
         uint32_t(uint8_t(text[2])) << 8 | uint32_t(uint8_t(text[3]));
}

// ------------------------------------------------------------ bits in memory

// Big-endian bit fields from a buffer.  Reading past the end yields zeros and
// sets `overrun`, which callers check once after a group of fields.
struct mfdBitCursor {
  const uint8_t *data;
  size_t size;
  size_t bitPos = 0;
  bool overrun = false;

  mfdBitCursor(const uint8_t *bytes, size_t count) : data(bytes), size(count) {}
  uint32_t bits(int count);  // 0 to 32 bits
  void skip(size_t count);
  uint32_t ue();  // Exp-Golomb, unsigned; a code longer than 32 bits overruns
  int32_t se();   // Exp-Golomb, signed
  bool ok() const { return !overrun; }
};

// Position of the next start code prefix 00 00 01 at or after `from`, or
// `size` when there is none.
size_t mfdVideo_findStartCode(const uint8_t *bytes, size_t size, size_t from);

// ------------------------------------------------------------ MPEG-1/2 video

struct mfdMpegVideoInfo {
  bool mpeg2 = false;        // a sequence extension follows the sequence header
  int32_t width = 0;
  int32_t height = 0;
  uint32_t bitRate = 0;      // bit/s; 0 variable or unknown
  uint32_t frameRateCode = 0;
  int32_t videoFormat = -1;  // from a sequence display extension; -1 none seen
};

// Checks a sequence header whose fields start at `bytes` (just after the
// 00 00 01 B3 code) and reads it with the extensions that follow it in the
// buffer.  False when the header is cut short or its fields are invalid.
bool mfdVideo_parseMpegSequence(const uint8_t *bytes, size_t size, mfdMpegVideoInfo &info);

// Finds the first sequence header in the buffer and parses it.
bool mfdVideo_findMpegSequence(const uint8_t *bytes, size_t size, mfdMpegVideoInfo &info);

// ------------------------------------------------------------ H.264

struct mfdAvcInfo {
  uint32_t profileIdc = 0;
  uint32_t constraintFlags = 0;  // constraint_set0..5 as the byte carries them
  uint32_t levelIdc = 0;
  int32_t width = 0;
  int32_t height = 0;
};

// Parses a sequence parameter set NAL unit (from its one-byte NAL header on,
// emulation prevention bytes still in).  False when it is not one or is cut.
bool mfdVideo_parseAvcSps(const uint8_t *nal, size_t size, mfdAvcInfo &info);

// Finds the first sequence parameter set in an Annex B byte stream.
bool mfdVideo_findAvcSps(const uint8_t *bytes, size_t size, mfdAvcInfo &info);

// Baseline-compatible: Baseline profile, or any profile whose
// constraint_set0 flag says the stream keeps the Baseline constraints.
bool mfdVideo_isAvcBaseline(const mfdAvcInfo &info);

// ------------------------------------------------------------ HEVC

struct mfdHevcInfo {
  uint32_t profileIdc = 0;  // general_profile_idc
  uint32_t levelIdc = 0;    // general_level_idc
  int32_t width = 0;        // after the conformance window
  int32_t height = 0;
};

// Parses a sequence parameter set NAL unit (from its two-byte NAL header on,
// emulation prevention bytes still in).  False when it is not one, is cut,
// or gives no sane picture size.
bool mfdVideo_parseHevcSps(const uint8_t *nal, size_t size, mfdHevcInfo &info);

// Finds the first sequence parameter set among start-code-prefixed NAL units.
bool mfdVideo_findHevcSps(const uint8_t *bytes, size_t size, mfdHevcInfo &info);

// ------------------------------------------------------------ MPEG-4 part 2

struct mfdMpeg4VolInfo {
  bool rectangular = false;
  int32_t width = 0;
  int32_t height = 0;
};

// Parses a video object layer header whose fields start at `bytes` (just
// after the 00 00 01 2x code).  False when a marker bit is wrong or the
// header is cut short.
bool mfdVideo_parseMpeg4Vol(const uint8_t *bytes, size_t size, mfdMpeg4VolInfo &info);

// Finds the first video object layer in the buffer and parses it.
bool mfdVideo_findMpeg4Vol(const uint8_t *bytes, size_t size, mfdMpeg4VolInfo &info);

// ------------------------------------------------------------ MPEG audio

// Codec id of the MPEG audio frame header that the bytes start with (within
// the first `size` bytes a sync word is looked for): 4 layer I, 5 layer II,
// 6 layer III; 0 when there is no valid header.
uint32_t mfdVideo_mpegAudioCodec(const uint8_t *bytes, size_t size);

// ------------------------------------------------------------ PES packets

struct mfdPesHeader {
  uint32_t streamId = 0;
  uint32_t packetLength = 0;  // the 16-bit length field (0: unbounded, video in TS)
  size_t payloadOffset = 0;   // from the first byte of the start code prefix
  bool hasPts = false;
  uint64_t pts = 0;           // 90 kHz, 33 bits
};

// Parses the PES header at `bytes` (00 00 01 and the stream id first), in
// MPEG-2 syntax, or MPEG-1 syntax when `mpeg1` is allowed and the header
// says so.  False when it is cut short or malformed.
bool mfdVideo_parsePesHeader(const uint8_t *bytes, size_t size, bool mpeg1, mfdPesHeader &header);

// True for the stream ids that carry audio or video (MPEG audio, video,
// private stream 1).
inline bool mfdVideo_isMediaStream(uint32_t streamId) {
  return streamId == 0xBD || (streamId >= 0xC0 && streamId <= 0xEF);
}

// Milliseconds from time stamp `first` to `last` (90 kHz, modulo 2^33).
uint32_t mfdVideo_ptsSpanMs(uint64_t first, uint64_t last);

// Kilobits per second of `bytes` played in `milliseconds`; 0 when unknown.
int32_t mfdVideo_kbitPerSecond(int64_t bytes, uint32_t milliseconds);

// What a container's track headers tell of its first video and audio
// streams (codecs as MFD_CODEC_*; 0 unknown).
struct mfdVideoStreams {
  uint32_t videoCodec = 0, audioCodec = 0;
  int32_t width = 0, height = 0, sampleRate = 0, channels = 0;
};

// Parse mode's report of a container: its streams, the playing time and the
// bit rate over the whole file open on `fd`.
struct mfdMediaInfo;
void mfdVideo_reportStreams(int fd, const mfdVideoStreams &streams, double durationMs, mfdMediaInfo *info);

#endif  // DMS_MFD_MFD_VIDEO_H

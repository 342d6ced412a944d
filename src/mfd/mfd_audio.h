// Pieces shared by the audio detectors (MP3, AAC, AC3, LPCM, WAV, ATRAC):
// whole-byte reads through the calling thread's bit reader, the size of the
// open file, little-endian fields and the frame tables that tests inspect.
#ifndef DMS_MFD_MFD_AUDIO_H
#define DMS_MFD_MFD_AUDIO_H

#include <cstddef>
#include <cstdint>
#include <vector>

// MPEG-1 layer III bit rates (kbit/s) and sample rates (Hz) by header index;
// the MPEG-2 and MPEG-2.5 tables live beside them in mfd_mp3.cpp.
extern const int32_t ga_s32_mp3BitRateIndex[16];
extern const int32_t ga_s32_mp3SampleRateIndex[4];

// AC3 sync frame sizes in 16-bit words by frame size code; columns 32 kHz,
// 44.1 kHz, 48 kHz.
extern const uint16_t ga_u16_frmSizeTab[38][3];

// Appends up to `count` bytes read from the current reader position to
// `bytes`; stops early at the end of the file or the reader's read limit.
// 0 when all were read, else the status of the failed read.
int32_t mfdAudio_readBytes(std::vector<uint8_t> &bytes, size_t count);

// Size of the file open on `fd`, or -1 when it cannot be had.
int64_t mfdAudio_fileSize(int fd);

// True when the text after the last dot of `path` equals `extension`,
// compared without regard to case.
bool mfdAudio_hasExtension(const char *path, const char *extension);

// Milliseconds as stored in the record's duration word: negative or NaN
// gives 0, values beyond the word's range are capped.
uint32_t mfdAudio_toDuration(double milliseconds);

inline uint32_t mfdAudio_le16(const uint8_t *bytes) {
  return static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8;
}

inline uint32_t mfdAudio_le32(const uint8_t *bytes) {
  return mfdAudio_le16(bytes) | mfdAudio_le16(bytes + 2) << 16;
}

inline uint32_t mfdAudio_be32(const uint8_t *bytes) {
  return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
         static_cast<uint32_t>(bytes[2]) << 8 | static_cast<uint32_t>(bytes[3]);
}

// Size of an ID3v2-style tag body: four 7-bit groups, most significant first.
inline uint32_t mfdAudio_syncSafe(const uint8_t *bytes) {
  return (bytes[0] & 0x7Fu) << 21 | (bytes[1] & 0x7Fu) << 14 | (bytes[2] & 0x7Fu) << 7 |
         (bytes[3] & 0x7Fu);
}

#endif  // DMS_MFD_MFD_AUDIO_H

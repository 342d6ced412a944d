// ASF pieces for the WM detector: what the header objects say about the
// file and its streams, and how codecs and profile codes follow from it.
#ifndef DMS_MFD_MFD_ASF_H
#define DMS_MFD_MFD_ASF_H

#include <cstddef>
#include <cstdint>
#include <vector>

struct mfdAsfStream {
  uint32_t number = 0;  // 1 to 127
  bool video = false;
  bool audio = false;
  uint32_t codecTag = 0;  // audio: format tag; video: compression four-character code
  int32_t width = 0;
  int32_t height = 0;
  int32_t channels = 0;
  int32_t sampleRate = 0;
  uint32_t bytesPerSecond = 0;  // audio: average, from the format
  uint32_t bitrate = 0;         // bit/s from the bitrate objects; 0 unknown
};

struct mfdAsfHeader {
  bool fileProperties = false;
  uint64_t playDuration = 0;  // 100 ns units
  uint64_t preroll = 0;       // ms
  uint32_t flags = 0;         // bit 0: broadcast (durations not valid)
  uint32_t maxBitrate = 0;    // bit/s
  std::vector<mfdAsfStream> streams;
};

// Codec id of an audio format tag or a video four-character code (as read,
// first character in the high byte).
uint32_t mfdAsf_audioCodec(uint32_t formatTag);
uint32_t mfdAsf_videoCodec(uint32_t fourCc);

// Bit rate of a stream in kbit/s: what the bitrate objects say, else (audio)
// the format's byte rate.
int32_t mfdAsf_streamKbit(const mfdAsfStream &stream);

// Profile code of an audio-only file (1 WMAFULL, 2 WMAPRO, 3 WMABASE, 0
// none) and of a WMV file (1 WMVHIGH_FULL, 2 WMVHIGH_PRO, 4 WMVMED_FULL,
// 5 WMVMED_PRO, 6 WMVMED_BASE, 0 none); `audio` may be null.
uint32_t mfdAsf_wmaProfile(const mfdAsfStream &audio);
uint32_t mfdAsf_wmvProfile(const mfdAsfStream &video, const mfdAsfStream *audio);

// Reads a stream properties object's content (after its 24-byte object
// header) into `stream`; false when it is cut short or of another kind.
bool mfdAsf_parseStreamProperties(const uint8_t *bytes, size_t size, mfdAsfStream &stream);

#endif  // DMS_MFD_MFD_ASF_H

// Transport stream pieces for the MPEG-TS detector: the packet layout (188
// bytes, or 192 with a 4-byte time code prefix), the program tables (PAT,
// PMT) and the stream types the server knows.
#ifndef DMS_MFD_MFD_MPTS_PSI_H
#define DMS_MFD_MFD_MPTS_PSI_H

#include <cstddef>
#include <cstdint>

inline constexpr size_t MFD_TS_PACKET_SIZE = 188;

struct mfdTsLayout {
  int64_t firstSync = 0;  // file offset of the first packet's sync byte
  size_t stride = 0;      // 188 or 192
};

// Finds the packet layout among the file's first bytes: several consecutive
// sync bytes (0x47) at a 188- or 192-byte stride, each packet's header
// plausible.  False when there is none.
bool mfdTs_findLayout(const uint8_t *bytes, size_t size, mfdTsLayout &layout);

// One transport packet's header.
struct mfdTsPacket {
  bool unitStart = false;  // payload_unit_start_indicator
  uint32_t pid = 0;
  size_t payloadOffset = 0;  // within the 188 bytes
  size_t payloadSize = 0;
};

// Parses the 188-byte packet at `bytes`; false when its sync byte or
// adaptation field is wrong.
bool mfdTs_parsePacket(const uint8_t *bytes, mfdTsPacket &packet);

// Elementary streams chosen from a program map: the first video and the
// first audio stream the server knows.
struct mfdTsProgram {
  int32_t videoPid = -1;
  uint32_t videoCodec = 0;  // format id of the codec (MFD_CODEC_AVC for H.264)
  int32_t audioPid = -1;
  uint32_t audioCodec = 0;
  bool mpegAudio = false;  // the layer must be read from the audio frames
};

// PMT PID of the first program in the PAT section that starts the payload
// (pointer field first); -1 when there is none.
int32_t mfdTs_parsePat(const uint8_t *payload, size_t size);

// Reads the PMT section that starts the payload; false when it is not one.
bool mfdTs_parsePmt(const uint8_t *payload, size_t size, mfdTsProgram &program);

#endif  // DMS_MFD_MFD_MPTS_PSI_H

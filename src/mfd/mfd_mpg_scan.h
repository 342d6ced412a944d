// Program stream parsing for the MPEG detector: pack headers, and a walk of
// the first packets and the last bytes of a program stream.
#ifndef DMS_MFD_MFD_MPG_SCAN_H
#define DMS_MFD_MFD_MPG_SCAN_H

#include <cstddef>
#include <cstdint>

#include "mfd/mfd_video.h"

struct mfdPackHeader {
  bool mpeg1 = false;    // MPEG-1 system stream pack
  size_t size = 0;       // bytes from the start code to the end of the stuffing
  uint32_t muxRate = 0;  // units of 50 bytes per second
};

// Parses the pack header at `bytes` (00 00 01 BA first) in either form,
// marker bits checked.  False when it is cut short or malformed.
bool mfdMpg_parsePackHeader(const uint8_t *bytes, size_t size, mfdPackHeader &pack);

// The mux rate in kbit/s.
int32_t mfdMpg_muxRateKbit(uint32_t muxRate);

struct mfdPsFindings {
  bool mpeg1Packs = false;   // the first pack was an MPEG-1 one
  uint32_t muxRate = 0;      // of the first pack
  bool videoSeen = false;    // a video packet was met
  bool videoParsed = false;  // its sequence header was read
  mfdMpegVideoInfo video;
  uint32_t audioCodec = 0;   // of the first audio stream met
  uint32_t duration = 0;     // ms from the first to the last time stamp; 0 unknown
};

// Walks the program stream from the file's start through the reader (a
// bounded number of packets, within the reader's block limit), then reads
// the last bytes of the file for the last time stamps.
void mfdMpg_scanProgramStream(int64_t fileSize, mfdPsFindings &found);

#endif  // DMS_MFD_MFD_MPG_SCAN_H

// MPEG transport stream detector (format id 25).
//
// Mode 2 recognises a file whose first bytes hold several consecutive sync
// bytes (0x47) at a 188-byte stride, or at a 192-byte stride (a 4-byte time
// code before each packet).  Mode 3 walks the first packets: the program
// association and program map tables name the video and audio streams (and
// their codecs), the video stream's first bytes give the picture size (MPEG
// sequence header, H.264 or HEVC sequence parameter set or MPEG-4 video
// object layer), MPEG audio frames their layer, and the PES time stamps at
// the start and near the end of the file the playing time; the bitrate word
// is the file's size over that time, in kbit/s.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "mfd/mfd_api.h"
#include "mfd/mfd_mpts_psi.h"
#include "mfd/mfd_reader.h"
#include "mfd/mfd_video.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "mfd_mpts.c";

namespace {

constexpr size_t kHeadBytes = 192 * 8;
constexpr int kMaxPackets = 4096;         // packets looked at from the start
constexpr int kMaxBadPackets = 64;        // packets without sync before giving up
constexpr size_t kVideoBytesWanted = 4096;
constexpr size_t kMaxVideoBytes = 65536;  // video bytes searched for a sequence header
constexpr int64_t kTailPackets = 512;     // packets at the end searched for time stamps

struct TsScan {
  bool patSeen = false;
  int32_t pmtPid = -1;
  bool pmtSeen = false;
  mfdTsProgram program;
  std::vector<uint8_t> videoBytes;  // video payload from the first unit start on
  bool videoDone = false;
  int32_t videoWidth = 0;
  int32_t videoHeight = 0;
  bool audioDone = false;
  bool hasFirstPts = false;
  uint64_t firstPts = 0;
};

bool readLayout(mfdTsLayout &layout) {
  std::vector<uint8_t> head;
  mfdVideo_readAvailable(head, kHeadBytes);
  return mfdTs_findLayout(head.data(), head.size(), layout);
}

// Picture size from the video bytes gathered so far, by codec.
bool parseVideo(TsScan &scan) {
  const uint8_t *bytes = scan.videoBytes.data();
  const size_t size = scan.videoBytes.size();
  switch (scan.program.videoCodec) {
    case MFD_FORMAT_MPEG1_VIDEO:
    case MFD_FORMAT_MPEG2_VIDEO: {
      mfdMpegVideoInfo video;
      if (!mfdVideo_findMpegSequence(bytes, size, video)) return false;
      scan.program.videoCodec = video.mpeg2 ? MFD_FORMAT_MPEG2_VIDEO : MFD_FORMAT_MPEG1_VIDEO;
      scan.videoWidth = video.width;
      scan.videoHeight = video.height;
      return true;
    }
    case MFD_CODEC_AVC: {
      mfdAvcInfo avc;
      if (!mfdVideo_findAvcSps(bytes, size, avc)) return false;
      scan.videoWidth = avc.width;
      scan.videoHeight = avc.height;
      return true;
    }
    case MFD_CODEC_HEVC: {
      mfdHevcInfo hevc;
      if (!mfdVideo_findHevcSps(bytes, size, hevc)) return false;
      scan.videoWidth = hevc.width;
      scan.videoHeight = hevc.height;
      return true;
    }
    case MFD_FORMAT_MPEG4_PART2: {
      mfdMpeg4VolInfo vol;
      if (!mfdVideo_findMpeg4Vol(bytes, size, vol)) return false;
      scan.videoWidth = vol.width;
      scan.videoHeight = vol.height;
      return true;
    }
    default:
      return true;  // no size to be had
  }
}

void takeVideo(TsScan &scan, const uint8_t *payload, size_t size, bool unitStart) {
  if (scan.videoDone || (scan.videoBytes.empty() && !unitStart)) return;
  scan.videoBytes.insert(scan.videoBytes.end(), payload, payload + size);
  if (scan.videoBytes.size() < kVideoBytesWanted) return;
  scan.videoDone = parseVideo(scan) || scan.videoBytes.size() >= kMaxVideoBytes;
}

// A PES header at the start of a unit: its time stamp, and where the
// elementary stream bytes begin.  0 when it is not a PES header.
size_t takePesHeader(TsScan &scan, const uint8_t *payload, size_t size) {
  mfdPesHeader header;
  if (!mfdVideo_parsePesHeader(payload, size, false, header) ||
      !mfdVideo_isMediaStream(header.streamId) || header.payloadOffset > size) {
    return 0;
  }
  if (header.hasPts && (!scan.hasFirstPts || header.pts < scan.firstPts)) {
    scan.firstPts = header.pts;
    scan.hasFirstPts = true;
  }
  return header.payloadOffset;
}

void takePacket(TsScan &scan, const uint8_t *bytes) {
  mfdTsPacket packet;
  if (!mfdTs_parsePacket(bytes, packet) || packet.payloadSize == 0) return;
  const uint8_t *payload = bytes + packet.payloadOffset;
  size_t size = packet.payloadSize;
  if (packet.pid == 0 && packet.unitStart && !scan.patSeen) {
    scan.pmtPid = mfdTs_parsePat(payload, size);
    scan.patSeen = scan.pmtPid >= 0;
    return;
  }
  if (static_cast<int32_t>(packet.pid) == scan.pmtPid && packet.unitStart && !scan.pmtSeen) {
    scan.pmtSeen = mfdTs_parsePmt(payload, size, scan.program);
    scan.videoDone = scan.program.videoPid < 0;
    scan.audioDone = !scan.program.mpegAudio;
    return;
  }
  size_t esOffset = 0;
  if (packet.unitStart) {
    esOffset = takePesHeader(scan, payload, size);
    if (esOffset == 0) return;
  }
  if (!scan.pmtSeen) return;
  if (static_cast<int32_t>(packet.pid) == scan.program.videoPid) {
    takeVideo(scan, payload + esOffset, size - esOffset, packet.unitStart);
  } else if (static_cast<int32_t>(packet.pid) == scan.program.audioPid && packet.unitStart &&
             !scan.audioDone) {
    const uint32_t codec = mfdVideo_mpegAudioCodec(payload + esOffset, size - esOffset);
    if (codec != 0) scan.program.audioCodec = codec;
    scan.audioDone = codec != 0;
  }
}

bool scanDone(const TsScan &scan) {
  return scan.pmtSeen && scan.videoDone && scan.audioDone && scan.hasFirstPts;
}

void scanHead(const mfdTsLayout &layout, TsScan &scan) {
  if (mfdVideo_seek(layout.firstSync) != 0) return;
  std::vector<uint8_t> packet(layout.stride);
  int badPackets = 0;
  for (int count = 0; count < kMaxPackets && !scanDone(scan); ++count) {
    // From one sync byte to the next: with 192-byte packets the last four
    // bytes are the next packet's time code.
    if (mfdVideo_readBytes(packet.data(), layout.stride) != 0) break;
    if (packet[0] != 0x47 && ++badPackets > kMaxBadPackets) break;
    takePacket(scan, packet.data());
  }
  if (!scan.videoDone && !scan.videoBytes.empty()) parseVideo(scan);
}

// The largest span from the first time stamp to one in the last packets.
uint32_t tailDuration(const mfdTsLayout &layout, const TsScan &scan, int64_t fileSize) {
  if (!scan.hasFirstPts) return 0;
  const int64_t stride = static_cast<int64_t>(layout.stride);
  const int64_t packets = (fileSize - layout.firstSync) / stride;
  const int64_t first = layout.firstSync + std::max<int64_t>(0, packets - kTailPackets) * stride;
  if (mfdVideo_seek(first) != 0) return 0;
  std::vector<uint8_t> tail;
  mfdVideo_readAvailable(tail, static_cast<size_t>(kTailPackets * stride));
  uint32_t duration = 0;
  for (size_t offset = 0; offset + MFD_TS_PACKET_SIZE <= tail.size(); offset += layout.stride) {
    mfdTsPacket packet;
    if (!mfdTs_parsePacket(tail.data() + offset, packet) || !packet.unitStart) continue;
    mfdPesHeader header;
    if (mfdVideo_parsePesHeader(tail.data() + offset + packet.payloadOffset, packet.payloadSize,
                                false, header) &&
        mfdVideo_isMediaStream(header.streamId) && header.hasPts) {
      duration = std::max(duration, mfdVideo_ptsSpanMs(scan.firstPts, header.pts));
    }
  }
  return duration;
}

int detectMode2(mfdMediaInfo *info, const char *path) {
  if (mfd_hasExcludedExtension(path)) return 0;
  mfdTsLayout layout;
  if (!readLayout(layout)) return 0;
  info->mediaClass = MFD_CLASS_VIDEO;
  info->formatId = MFD_FORMAT_MPEG_TS;
  DMS_TRACE(OSAL_TRACE_INFO, "MPEG TS detected, %zu-byte packets\n", layout.stride);
  return 0;
}

int parseMode3(int fd, mfdMediaInfo *info) {
  mfdTsLayout layout;
  if (mfdVideo_seek(0) != 0 || !readLayout(layout)) return 0;
  TsScan scan;
  scanHead(layout, scan);
  const mfdTsProgram &program = scan.program;
  info->videoCodec = program.videoCodec;
  info->audioCodec = program.audioCodec;
  info->videoWidth = scan.videoWidth;
  info->videoHeight = scan.videoHeight;
  if (scan.pmtSeen && program.videoPid < 0 && program.audioPid >= 0) {
    info->mediaClass = MFD_CLASS_AUDIO;
  }
  const int64_t fileSize = mfdVideo_fileSize(fd);
  info->duration = tailDuration(layout, scan, fileSize);
  info->bitrate = mfdVideo_kbitPerSecond(fileSize, info->duration);
  DMS_TRACE(OSAL_TRACE_INFO, "MPEG TS: video %u %dx%d, audio %u, %u ms\n", info->videoCodec,
            info->videoWidth, info->videoHeight, info->audioCodec, info->duration);
  return 0;
}

}  // namespace

int mediaFormatMptsDetect(int fd, mfdMediaInfo *info, int mode, const char *path) {
  if (info == nullptr) return 0;
  return dmsGuardRecover("mediaFormatMptsDetect", MFD_ERR_INVALID_PARAM, [&] {
    if (mode == MFD_MODE_DETECT) return detectMode2(info, path);
    if (mode == MFD_MODE_PARSE) return parseMode3(fd, info);
    return 0;
  }, [&] { if (mode == MFD_MODE_DETECT) *info = mfdMediaInfo{}; });
}

// MPEG detector: program streams (format id 24) and MPEG-1/2 elementary
// video (13, 14).
//
// Mode 2 looks at the file's first start code (zero bytes before it are
// allowed).  A pack header (00 00 01 BA, MPEG-1 or MPEG-2 form) with valid
// marker bits and another system start code right behind it makes a program
// stream; a sequence header (00 00 01 B3) with valid fields followed by an
// extension, group, picture or user data start code makes elementary video,
// MPEG-2 when a sequence extension follows it.  Elementary video is complete
// after mode 2.
//
// Mode 3 walks a program stream's first packets: the video stream's sequence
// header (picture size, MPEG-1 or MPEG-2, the sequence display extension's
// video format, which chooses PAL), the first audio stream's codec and the
// first time stamps; then the time stamps near the end of the file give the
// playing time.  The bitrate word is in kbit/s: the file's size over its
// playing time, else the first pack's mux rate (elementary video: the
// sequence header's rate, 0 when variable).
#include <algorithm>
#include <cstdint>
#include <vector>

#include "mfd/mfd_api.h"
#include "mfd/mfd_mpg_scan.h"
#include "mfd/mfd_reader.h"
#include "mfd/mfd_video.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "mfd_mpg.c";

namespace {

constexpr size_t kHeadBytes = 2048;
constexpr uint32_t kPackCode = 0xBA;
constexpr uint32_t kSequenceHeaderCode = 0xB3;
constexpr uint32_t kPalVideoFormat = 1;
constexpr uint32_t kProfileNtsc = 1;
constexpr uint32_t kProfilePal = 2;

// Index of the first start code when the file starts with one (after zero
// bytes), else head.size().
size_t leadingStartCode(const std::vector<uint8_t> &head) {
  size_t index = 0;
  while (index < head.size() && head[index] == 0) ++index;
  if (index < 2 || index + 1 >= head.size() || head[index] != 1) return head.size();
  return index - 2;
}

bool recognisePack(const std::vector<uint8_t> &head, size_t start, mfdMediaInfo *info) {
  mfdPackHeader pack;
  if (!mfdMpg_parsePackHeader(head.data() + start, head.size() - start, pack)) return false;
  const size_t next = start + pack.size;
  // Another pack, a system header, the end code or a packet must follow.
  if (next + 4 > head.size() || head[next] != 0 || head[next + 1] != 0 || head[next + 2] != 1 ||
      head[next + 3] < 0xB9) {
    return false;
  }
  info->mediaClass = MFD_CLASS_AV;
  info->formatId = MFD_FORMAT_MPEG_PS;
  info->profileCode = kProfileNtsc;
  info->bitrate = mfdMpg_muxRateKbit(pack.muxRate);
  DMS_TRACE(OSAL_TRACE_INFO, "MPEG PS Detected\n");
  return true;
}

bool recogniseSequence(const std::vector<uint8_t> &head, size_t start, mfdMediaInfo *info) {
  mfdMpegVideoInfo video;
  if (!mfdVideo_parseMpegSequence(head.data() + start + 4, head.size() - start - 4, video)) {
    return false;
  }
  const uint32_t codec = video.mpeg2 ? MFD_FORMAT_MPEG2_VIDEO : MFD_FORMAT_MPEG1_VIDEO;
  info->mediaClass = MFD_CLASS_VIDEO;
  info->formatId = codec;
  info->videoCodec = codec;
  info->videoWidth = video.width;
  info->videoHeight = video.height;
  info->bitrate = static_cast<int32_t>(video.bitRate / 1000);
  DMS_TRACE(OSAL_TRACE_INFO, "MPEG-%d video detected, %dx%d\n", video.mpeg2 ? 2 : 1, video.width,
            video.height);
  return true;
}

int detectMode2(mfdMediaInfo *info, const char *path) {
  if (mfd_hasExcludedExtension(path)) return 0;
  std::vector<uint8_t> head;
  // Files that do not start with a zero byte are declined after one read.
  if (mfdVideo_readAvailable(head, 4) < 4 || head[0] != 0 || head[1] != 0) return 0;
  mfdVideo_readAvailable(head, kHeadBytes - head.size());
  const size_t start = leadingStartCode(head);
  if (start + 4 > head.size()) return 0;
  const uint32_t code = head[start + 3];
  if (code == kPackCode) {
    recognisePack(head, start, info);
  } else if (code == kSequenceHeaderCode) {
    recogniseSequence(head, start, info);
  }
  return 0;
}

// What the program stream's packets said, into the record.
void fillProgramStream(const mfdPsFindings &found, int64_t fileSize, mfdMediaInfo *info) {
  if (found.videoSeen || found.videoParsed) {
    const bool mpeg2 = found.videoParsed ? found.video.mpeg2 : !found.mpeg1Packs;
    info->videoCodec = mpeg2 ? MFD_FORMAT_MPEG2_VIDEO : MFD_FORMAT_MPEG1_VIDEO;
  }
  if (found.videoParsed) {
    info->videoWidth = found.video.width;
    info->videoHeight = found.video.height;
    if (found.video.mpeg2 && found.video.videoFormat == static_cast<int32_t>(kPalVideoFormat)) {
      info->profileCode = kProfilePal;
    }
  }
  info->audioCodec = found.audioCodec;
  info->duration = found.duration;
  // Multiplexers write all kinds of mux rates (some far above what the
  // packets carry): the file's own rate is used when its playing time is known.
  const int32_t measured = mfdVideo_kbitPerSecond(fileSize, found.duration);
  if (measured > 0) {
    info->bitrate = measured;
  } else if (found.muxRate != 0) {
    info->bitrate = mfdMpg_muxRateKbit(found.muxRate);
  }
  DMS_TRACE(OSAL_TRACE_INFO, "MPEG PS: video %u %dx%d format %d, audio %u, %u ms\n",
            info->videoCodec, info->videoWidth, info->videoHeight, found.video.videoFormat,
            info->audioCodec, info->duration);
}

int parseMode3(int fd, mfdMediaInfo *info) {
  if (info->formatId != MFD_FORMAT_MPEG_PS) return 0;  // elementary video: done in mode 2
  mfdPsFindings found;
  const int64_t fileSize = mfdVideo_fileSize(fd);
  mfdMpg_scanProgramStream(fileSize, found);
  fillProgramStream(found, fileSize, info);
  return 0;
}

}  // namespace

int mediaFormatMpegDetect(int fd, mfdMediaInfo *info, int mode, const char *path) {
  if (info == nullptr) return 0;
  return dmsGuardRecover("mediaFormatMpegDetect", MFD_ERR_INVALID_PARAM, [&] {
    if (mode == MFD_MODE_DETECT) return detectMode2(info, path);
    if (mode == MFD_MODE_PARSE) return parseMode3(fd, info);
    return 0;
  }, [&] { if (mode == MFD_MODE_DETECT) *info = mfdMediaInfo{}; });
}

// MPEG-4 part 2 elementary video detector (format id 15).
//
// Mode 2 recognises a file that starts (after zero bytes) with a visual
// object sequence start code (00 00 01 B0), a visual object (B5), a video
// object (00-1F) or a video object layer (20-2F) start code, and whose first
// video object layer header, found among the first bytes, reads with every
// marker bit set.  The picture size comes from that layer when its shape is
// rectangular.  Nothing is left for mode 3.
#include <cstdint>
#include <vector>

#include "mfd/mfd_api.h"
#include "mfd/mfd_video.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "mfd_m4v.c";

namespace {

constexpr size_t kHeadBytes = 1024;
constexpr uint32_t kVisualObjectSequence = 0xB0;
constexpr uint32_t kVisualObject = 0xB5;
constexpr uint32_t kLastVideoObjectLayer = 0x2F;

bool startsElementaryVideo(const std::vector<uint8_t> &head) {
  size_t index = 0;
  while (index < head.size() && head[index] == 0) ++index;
  if (index < 2 || index + 1 >= head.size() || head[index] != 1) return false;
  const uint32_t code = head[index + 1];
  return code == kVisualObjectSequence || code == kVisualObject || code <= kLastVideoObjectLayer;
}

int detectMode2(mfdMediaInfo *info, const char *path) {
  if (mfd_hasExcludedExtension(path)) return 0;
  std::vector<uint8_t> head;
  if (mfdVideo_readAvailable(head, 4) < 4 || head[0] != 0 || head[1] != 0) return 0;
  mfdVideo_readAvailable(head, kHeadBytes - head.size());
  mfdMpeg4VolInfo vol;
  if (!startsElementaryVideo(head) || !mfdVideo_findMpeg4Vol(head.data(), head.size(), vol)) {
    return 0;
  }
  info->mediaClass = MFD_CLASS_VIDEO;
  info->formatId = MFD_FORMAT_MPEG4_PART2;
  info->videoCodec = MFD_FORMAT_MPEG4_PART2;
  info->videoWidth = vol.width;
  info->videoHeight = vol.height;
  DMS_TRACE(OSAL_TRACE_INFO, "MPEG-4 part 2 video detected, %dx%d\n", vol.width, vol.height);
  return 0;
}

}  // namespace

int mediaFormatM4vDetect(int /*fd*/, mfdMediaInfo *info, int mode, const char *path) {
  if (info == nullptr || mode != MFD_MODE_DETECT) return 0;
  return dmsGuardRecover("mediaFormatM4vDetect", MFD_ERR_INVALID_PARAM, [&] {
    return detectMode2(info, path);
  }, [&] { *info = mfdMediaInfo{}; });
}

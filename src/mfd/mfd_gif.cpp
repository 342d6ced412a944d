// GIF detector: "GIF87a" or "GIF89a", then the logical screen size.
#include <cstdint>

#include "mfd/mfd_api.h"
#include "mfd/mfd_reader.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "mfd_gif.c";

namespace {

constexpr uint32_t kGifTag = 0x474946;      // "GIF"
constexpr uint32_t kVersion89a = 0x383961;  // "89a"
constexpr uint32_t kVersion87a = 0x383761;  // "87a"

uint32_t swapBytes16(uint32_t value) { return ((value & 0xFF) << 8) | ((value >> 8) & 0xFF); }

int32_t recognise(mfdMediaInfo *info) {
  uint32_t tag = 0;
  int32_t status = mfd_getDataBits(&tag, 24);
  if (status != 0 || tag != kGifTag) return status;
  uint32_t version = 0;
  status = mfd_getDataBits(&version, 24);
  if (status != 0 || (version != kVersion89a && version != kVersion87a)) return status;
  const char versionText[4] = {static_cast<char>(version >> 16), static_cast<char>(version >> 8),
                               static_cast<char>(version), '\0'};
  DMS_TRACE(OSAL_TRACE_INFO, "GIF Image Format detected of Type %s\n", versionText);
  info->mediaClass = MFD_CLASS_IMAGE;
  info->formatId = MFD_FORMAT_GIF;
  info->formatWord = MFD_FORMAT_GIF;
  return 0;
}

// Logical screen descriptor: width and height (little-endian), then the
// packed fields and background colour index, kept as read in word 4.
int32_t parse(mfdMediaInfo *info) {
  uint32_t width = 0;
  uint32_t height = 0;
  uint32_t fields = 0;
  int32_t status = mfd_getDataBits(&width, 16);
  if (status != 0) return status;
  info->width = static_cast<int32_t>(swapBytes16(width));
  status = mfd_getDataBits(&height, 16);
  if (status != 0) return status;
  info->height = static_cast<int32_t>(swapBytes16(height));
  status = mfd_getDataBits(&fields, 16);
  if (status != 0) return status;
  info->channels = static_cast<int32_t>(fields);
  return 0;
}

}  // namespace

int mediaFormatGifDetect(int /*fd*/, mfdMediaInfo *info, int mode, const char * /*path*/) {
  if (info == nullptr) return MFD_ERR_INVALID_PARAM;
  if (mode == MFD_MODE_DETECT) return recognise(info);
  if (mode == MFD_MODE_PARSE) return parse(info);
  return 0;
}

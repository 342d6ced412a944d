// PNG detector: the eight-byte signature, then the size from the IHDR chunk,
// which every PNG encoder writes first.
#include <cstdint>

#include "mfd/mfd_api.h"
#include "mfd/mfd_reader.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "mfd_png.c";

namespace {

constexpr uint32_t kSignatureHigh = 0x89504E47;  // 0x89 "PNG"
constexpr uint32_t kSignatureLow = 0x0D0A1A0A;   // CR LF SUB LF
constexpr uint32_t kChunkIhdr = 0x49484452;      // "IHDR"
// Word 4 of a PNG record (the bit depth is not read).
constexpr int32_t kPngWord4 = 16;

int32_t recognise(mfdMediaInfo *info) {
  uint32_t high = 0;
  uint32_t low = 0;
  int32_t status = mfd_getDataBits(&high, 32);
  if (status == 0) status = mfd_getDataBits(&low, 32);
  if (status != 0) return status;
  if (high == kSignatureHigh && low == kSignatureLow) {
    DMS_TRACE(OSAL_TRACE_INFO, "PNG Image detected\n");
    info->mediaClass = MFD_CLASS_IMAGE;
    info->formatId = MFD_FORMAT_PNG;
    info->formatWord = MFD_FORMAT_PNG;
  }
  return 0;
}

// The reader stands after the signature: chunk length, chunk type, and for
// IHDR the width and height.
int32_t parse(mfdMediaInfo *info) {
  info->channels = kPngWord4;
  uint32_t length = 0;
  uint32_t type = 0;
  int32_t status = mfd_getDataBits(&length, 32);
  if (status == 0) status = mfd_getDataBits(&type, 32);
  if (status != 0 || type != kChunkIhdr) return status;
  uint32_t width = 0;
  uint32_t height = 0;
  status = mfd_getDataBits(&width, 32);
  if (status == 0) status = mfd_getDataBits(&height, 32);
  if (status != 0) return status;
  info->width = static_cast<int32_t>(width);
  info->height = static_cast<int32_t>(height);
  return 0;
}

}  // namespace

int mediaFormatPngDetect(int /*fd*/, mfdMediaInfo *info, int mode, const char * /*path*/) {
  if (info == nullptr) return MFD_ERR_INVALID_PARAM;
  if (mode == MFD_MODE_DETECT) return recognise(info);
  if (mode == MFD_MODE_PARSE) return parse(info);
  return 0;
}

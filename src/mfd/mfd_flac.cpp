// FLAC detector: the "fLaC" signature (after an ID3v2 tag some taggers put in
// front), then the STREAMINFO block every encoder writes first: sample rate,
// channels and the total of samples, hence the playing time.  A file that
// ends inside that block, or opens with another one, is refused: no player
// could set up its decoder.
#include "mfd/mfd_flac.h"

#include <vector>

#include "mfd/mfd_api.h"
#include "mfd/mfd_audio.h"
#include "mfd/mfd_video.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "mfd_flac.c";

namespace {

constexpr uint32_t kSignature = 0x664C6143;  // "fLaC"
constexpr size_t kStreamInfoSize = 34;

// Where "fLaC" is: 0, or past a leading ID3v2 tag; -1 when it is not there.
int64_t signatureOffset() {
  std::vector<uint8_t> head;
  if (mfdVideo_seek(0) != 0 || mfdVideo_readAvailable(head, 10) < 10) return -1;
  int64_t offset = 0;
  if (head[0] == 'I' && head[1] == 'D' && head[2] == '3') {
    const int64_t size = int64_t{head[6] & 0x7F} << 21 | int64_t{head[7] & 0x7F} << 14 |
                         int64_t{head[8] & 0x7F} << 7 | (head[9] & 0x7F);
    offset = 10 + size + ((head[5] & 0x10) != 0 ? 10 : 0);
  }
  std::vector<uint8_t> signature;
  if (mfdVideo_seek(offset) != 0 || mfdVideo_readAvailable(signature, 4) < 4) return -1;
  return mfdVideo_be32(signature.data()) == kSignature ? offset : -1;
}

}  // namespace

// Shared with the Ogg detector, whose FLAC mapping carries the same block:
// fills rate, channels, bits and playing time from a STREAMINFO payload.
bool mfdFlac_parseStreamInfo(const uint8_t *block, size_t size, mfdMediaInfo *info) {
  if (size < kStreamInfoSize) return false;
  const uint32_t rate = mfdVideo_be24(block + 10) >> 4;
  const uint32_t channels = ((block[12] >> 1) & 0x07) + 1;
  const uint32_t bits = (((block[12] & 0x01) << 4) | (block[13] >> 4)) + 1;
  const uint64_t samples = (static_cast<uint64_t>(block[13] & 0x0F) << 32) | mfdVideo_be32(block + 14);
  if (rate == 0) return false;
  info->sampleRate = static_cast<int32_t>(rate);
  info->channels = static_cast<int32_t>(channels);
  info->bitsPerSample = static_cast<int32_t>(bits);
  info->audioCodec = MFD_FORMAT_FLAC;
  info->duration = mfdAudio_toDuration(static_cast<double>(samples) * 1000.0 / rate);
  return true;
}

namespace {

// The STREAMINFO block that opens every FLAC stream, read into `info`.
// False when the file ends inside it or another block comes first: such a
// file cannot be played.
bool readStreamInfo(int64_t offset, mfdMediaInfo *info) {
  std::vector<uint8_t> block;
  if (mfdVideo_seek(offset + 4) != 0 ||
      mfdVideo_readAvailable(block, 4 + kStreamInfoSize) < 4 + kStreamInfoSize) {
    return false;
  }
  if ((block[0] & 0x7F) != 0 || mfdVideo_be24(block.data() + 1) < kStreamInfoSize) return false;
  return mfdFlac_parseStreamInfo(block.data() + 4, kStreamInfoSize, info);
}

}  // namespace

int mediaFormatFlacDetect(int /*fd*/, mfdMediaInfo *info, int mode, const char * /*path*/) {
  if (info == nullptr) return MFD_ERR_INVALID_PARAM;
  const int64_t offset = signatureOffset();
  if (offset < 0) return 0;
  // Detection reads the block too, into a scratch record: a file cut inside
  // it is refused before it is ever listed.
  mfdMediaInfo scratch{};
  if (!readStreamInfo(offset, mode == MFD_MODE_DETECT ? &scratch : info)) {
    DMS_TRACE(OSAL_TRACE_INFO, "FLAC without a whole STREAMINFO block\n");
    return MFD_ERR_INVALID_PARAM;
  }
  if (mode == MFD_MODE_DETECT) {
    DMS_TRACE(OSAL_TRACE_INFO, "FLAC detected\n");
    info->mediaClass = MFD_CLASS_AUDIO;
    info->formatId = MFD_FORMAT_FLAC;
  }
  return 0;
}

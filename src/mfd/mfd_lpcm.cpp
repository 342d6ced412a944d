// LPCM detector (format id 11): raw sample files, recognised by name only.
//
// A file ending in ".pcm" or ".lpcm" is LPCM.  The eight characters in front
// of the dot choose the variant: "b-lpcm-1" .. "b-lpcm-4" are 16-bit samples
// at 44100 Hz mono, 44100 Hz stereo, 48000 Hz mono and 48000 Hz stereo
// (profile codes 1-4); any other name is code 5, whose layout is unknown.
#include <strings.h>

#include <cstring>

#include "mfd/mfd_api.h"
#include "mfd/mfd_audio.h"

[[maybe_unused]] static constexpr char kTraceFile[] = "mfd_lpcm.c";

namespace {

struct LpcmVariant {
  uint32_t profileCode;
  const char *nameEnding;
  int32_t sampleRate;
  int32_t channels;
};

// clang-format off
//   profile code, name ending, rate, channels
constexpr LpcmVariant kVariants[] = {
    {1, "b-lpcm-1", 44100, 1},
    {2, "b-lpcm-2", 44100, 2},
    {3, "b-lpcm-3", 48000, 1},
    {4, "b-lpcm-4", 48000, 2},
};
// clang-format on

constexpr size_t kNameEndingLength = 8;
constexpr size_t kMinPathLength = 12;  // "b-lpcm-N.pcm"
constexpr double kBytesPerSample = 2.0;

const LpcmVariant *variantOf(const char *path) {
  const size_t length = std::strlen(path);
  if (length < kMinPathLength) return nullptr;
  const char *dot = std::strrchr(path, '.');
  if (dot == nullptr) return nullptr;
  const size_t dotIndex = static_cast<size_t>(dot - path);
  if (dotIndex < kNameEndingLength) return nullptr;
  for (const LpcmVariant &variant : kVariants) {
    if (strncasecmp(path + dotIndex - kNameEndingLength, variant.nameEnding, kNameEndingLength) ==
        0) {
      return &variant;
    }
  }
  return nullptr;
}

}  // namespace

int mediaFormatLpcmDetect(int fd, mfdMediaInfo *info, int mode, const char *path) {
  if (info == nullptr || path == nullptr) return 0;
  if (!mfdAudio_hasExtension(path, "pcm") && !mfdAudio_hasExtension(path, "lpcm")) return 0;
  info->mediaClass = MFD_CLASS_AUDIO;
  info->formatId = MFD_FORMAT_LPCM;
  info->audioCodec = MFD_FORMAT_LPCM;
  info->profileCode = 5;
  const LpcmVariant *variant = variantOf(path);
  if (variant == nullptr) return 0;
  info->profileCode = variant->profileCode;
  if (mode != MFD_MODE_PARSE) return 0;
  const int64_t fileSize = mfdAudio_fileSize(fd);
  if (fileSize > 0) {
    info->duration = mfdAudio_toDuration(
        fileSize * 1000.0 / (variant->sampleRate * variant->channels * kBytesPerSample));
  }
  return 0;
}

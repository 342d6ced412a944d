// MP4 detector: ISO base media files (MP4, M4A, 3GP), format id 26.
//
// Mode 2 walks the top-level boxes from the file's start, jumping over each
// by its size (the media data too, so the movie box may come before or after
// it), and recognises the file when the first box is one such a file starts
// with and a whole movie box is found.  Mode 3 reads the movie box: the
// movie header's duration, and per track the handler and the first sample
// description (codec, picture size, H.264 profile, AAC configuration).  The
// bitrate word is the file's size over its playing time, in kbit/s.
//
// Profile codes as the protocol mapping reads them:
//  - no video: 1 (AAC_ISO_320, "audio/mp4"), or 2 for a 3GP file ("audio/3gpp"),
//    when the audio is AAC LC within 2 channels, 48 kHz and 320 kbit/s;
//  - video: 1 (AVC_MP4_BL_CIF15_AAC_520) for Baseline-compatible H.264 up to
//    352x288, with AAC LC audio (or none), 520 kbit/s in all;
//  - 0 otherwise (generic).
#include <algorithm>
#include <cstdint>
#include <limits>

#include "mfd/mfd_api.h"
#include "mfd/mfd_mp4_box.h"
#include "mfd/mfd_video.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "mfd_mp4.c";

namespace {

constexpr uint32_t kVide = mfdVideo_fourCc("vide");
constexpr uint32_t kSoun = mfdVideo_fourCc("soun");

constexpr uint32_t kProfileGeneric = 0;
constexpr uint32_t kProfileAacIso = 1;
constexpr uint32_t kProfileAac3gpp = 2;
constexpr uint32_t kProfileAvcCif = 1;

// Limits of the profiles chosen here.
struct ProfileLimits {
  int32_t maxWidth;
  int32_t maxHeight;
  int32_t maxKbit;  // whole file
  int32_t maxSampleRate;
  int32_t maxChannels;
};
//                                       width height kbit/s  rate   channels
constexpr ProfileLimits kAacIso320     = {0,    0,     320,    48000, 2};
constexpr ProfileLimits kAvcCif15Aac520 = {352, 288,   520,    48000, 2};

constexpr uint32_t kAacLcObjectType = 2;
constexpr uint32_t kMpeg4AudioIndication = 0x40;
constexpr uint32_t kMpeg2AacLcIndication = 0x67;

bool is3gpBrand(uint32_t brand) {
  return (brand >> 8) == (mfdVideo_fourCc("3gp ") >> 8) || (brand >> 8) == (mfdVideo_fourCc("3g2 ") >> 8);
}

const mfdMp4Track *firstTrack(const mfdMp4Movie &movie, uint32_t handler) {
  for (const mfdMp4Track &track : movie.tracks) {
    if (track.handler == handler && track.entryType != 0) return &track;
  }
  return nullptr;
}

// AAC Low Complexity within the limits' rate and channels.
bool isAacLc(const mfdMp4Track &audio, const ProfileLimits &limits) {
  const bool lowComplexity =
      audio.objectType == kMpeg2AacLcIndication ||
      (audio.objectType == kMpeg4AudioIndication &&
       (audio.audioObjectType == kAacLcObjectType || audio.audioObjectType == 0));
  return audio.codec == MFD_FORMAT_AAC && lowComplexity && audio.channels >= 1 &&
         audio.channels <= limits.maxChannels && audio.sampleRate <= limits.maxSampleRate;
}

uint32_t chooseProfile(const mfdMp4Track *video, const mfdMp4Track *audio, uint32_t brand,
                       int32_t kbit) {
  if (video == nullptr) {
    if (audio == nullptr || !isAacLc(*audio, kAacIso320) || kbit > kAacIso320.maxKbit) {
      return kProfileGeneric;
    }
    return is3gpBrand(brand) ? kProfileAac3gpp : kProfileAacIso;
  }
  const ProfileLimits &limits = kAvcCif15Aac520;
  const bool pictureFits = video->codec == MFD_CODEC_AVC && video->avcKnown &&
                           mfdVideo_isAvcBaseline(video->avc) && video->width > 0 &&
                           video->width <= limits.maxWidth && video->height > 0 &&
                           video->height <= limits.maxHeight;
  const bool audioFits = audio == nullptr || isAacLc(*audio, limits);
  return pictureFits && audioFits && kbit <= limits.maxKbit ? kProfileAvcCif : kProfileGeneric;
}

uint32_t toMilliseconds(uint64_t duration, uint32_t timescale) {
  if (timescale == 0 || duration == 0) return 0;
  const uint64_t seconds = duration / timescale;
  if (seconds >= std::numeric_limits<uint32_t>::max() / 1000u) {
    return std::numeric_limits<uint32_t>::max();
  }
  return static_cast<uint32_t>(seconds * 1000 + (duration % timescale) * 1000 / timescale);
}

// The movie header's duration, else the longest track's.
uint32_t movieDuration(const mfdMp4Movie &movie) {
  uint32_t milliseconds = toMilliseconds(movie.duration, movie.timescale);
  if (milliseconds != 0) return milliseconds;
  for (const mfdMp4Track &track : movie.tracks) {
    milliseconds = std::max(milliseconds, toMilliseconds(track.duration, track.timescale));
  }
  return milliseconds;
}

// QuickTime movies share the box layout; the "qt  " brand tells them apart,
// and so does the lack of a file type box, which came with the ISO format:
// a file with none before its movie box (free, wide, skip, mdat or moov
// first) is a QuickTime movie.
uint32_t formatOf(const mfdMp4TopLevel &top) {
  const bool quickTime = !top.fileType || top.majorBrand == mfdVideo_fourCc("qt  ");
  return quickTime ? MFD_FORMAT_QUICKTIME : MFD_FORMAT_MP4;
}

int detectMode2(int fd, mfdMediaInfo *info, const char *path) {
  if (mfd_hasExcludedExtension(path)) return 0;
  mfdMp4TopLevel top;
  if (!mfdMp4_walkTopLevel(mfdVideo_fileSize(fd), top)) return 0;
  info->mediaClass = MFD_CLASS_VIDEO;
  info->formatId = formatOf(top);
  DMS_TRACE(OSAL_TRACE_INFO, "MP4 detected, movie box at %lld\n",
            static_cast<long long>(top.moov.start));
  return 0;
}

int parseMode3(int fd, mfdMediaInfo *info) {
  const int64_t fileSize = mfdVideo_fileSize(fd);
  mfdMp4TopLevel top;
  if (!mfdMp4_walkTopLevel(fileSize, top)) return 0;
  mfdMp4Movie movie;
  mfdMp4_parseMovie(top.moov, movie);
  const mfdMp4Track *video = firstTrack(movie, kVide);
  const mfdMp4Track *audio = firstTrack(movie, kSoun);
  info->duration = movieDuration(movie);
  info->bitrate = mfdVideo_kbitPerSecond(fileSize, info->duration);
  if (video != nullptr) {
    info->videoCodec = video->codec;
    info->videoWidth = video->width;
    info->videoHeight = video->height;
  } else if (audio != nullptr) {
    info->mediaClass = MFD_CLASS_AUDIO;
  }
  if (audio != nullptr) {
    info->audioCodec = audio->codec;
    info->sampleRate = audio->sampleRate;
    info->channels = audio->channels;
  }
  info->profileCode = chooseProfile(video, audio, top.majorBrand, info->bitrate);
  DMS_TRACE(OSAL_TRACE_INFO, "MP4: video %u %dx%d, audio %u, %u ms, %d kbit/s, profile %u\n",
            info->videoCodec, info->videoWidth, info->videoHeight, info->audioCodec,
            info->duration, info->bitrate, info->profileCode);
  return 0;
}

}  // namespace

int mediaFormatMp4Detect(int fd, mfdMediaInfo *info, int mode, const char *path) {
  if (info == nullptr) return 0;
  return dmsGuardRecover("mediaFormatMp4Detect", MFD_ERR_INVALID_PARAM, [&] {
    if (mode == MFD_MODE_DETECT) return detectMode2(fd, info, path);
    if (mode == MFD_MODE_PARSE) return parseMode3(fd, info);
    return 0;
  }, [&] { if (mode == MFD_MODE_DETECT) *info = mfdMediaInfo{}; });
}

// Media format detection: decides from a file's own bytes what media it
// holds and fills one mfdMediaInfo record for it.
//
// A registry of formats, each with a detector, is tried in priority order.
// Detectors read the file through the buffered bit reader (mfd_reader.h),
// whose state belongs to the calling thread, so two threads may detect files
// at the same time.  The registry is one per process, shared by all
// instances; registering and unregistering wait for running detections.
#ifndef DMS_MFD_MFD_API_H
#define DMS_MFD_MFD_API_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

// Result codes of detection (0 is success).
inline constexpr int32_t MFD_ERR_INVALID_PARAM = 1;  // missing argument, or a detector failed
inline constexpr int32_t MFD_ERR_FILE = 2;           // open or fstat failed
inline constexpr int32_t MFD_ERR_EOF = 4;            // reader: end of file
inline constexpr int32_t MFD_ERR_NO_INSTANCE = 6;
inline constexpr int32_t MFD_ERR_UNSUPPORTED = 8;    // not recognised, or id out of range
inline constexpr int32_t MFD_ERR_LIMIT = 9;          // reader: read limit reached
inline constexpr int32_t MFD_ERR_NOT_REGISTERED = 11;

// Detector modes.
inline constexpr int MFD_MODE_DETECT = 2;  // recognise: set mediaClass and formatId
inline constexpr int MFD_MODE_PARSE = 3;   // fill the remaining properties

// Media classes.
inline constexpr uint32_t MFD_CLASS_NONE = 0;
inline constexpr uint32_t MFD_CLASS_IMAGE = 1;
inline constexpr uint32_t MFD_CLASS_AUDIO = 2;
inline constexpr uint32_t MFD_CLASS_VIDEO = 3;
inline constexpr uint32_t MFD_CLASS_AV = 4;  // audio-visual container (program stream)

// Format ids; 27 is one past the last.
enum mfdFormatId : uint32_t {
  MFD_FORMAT_NONE = 0,
  MFD_FORMAT_ATRAC3 = 1,
  MFD_FORMAT_ATRAC3_PLUS = 2,
  MFD_FORMAT_AC3 = 3,
  MFD_FORMAT_MP1 = 4,
  MFD_FORMAT_MP2 = 5,
  MFD_FORMAT_MP3 = 6,
  MFD_FORMAT_MP4_AUDIO = 7,
  MFD_FORMAT_AAC = 8,
  MFD_FORMAT_AAC2 = 9,
  MFD_FORMAT_WMA = 10,
  MFD_FORMAT_LPCM = 11,
  MFD_FORMAT_WAV = 12,
  MFD_FORMAT_MPEG1_VIDEO = 13,
  MFD_FORMAT_MPEG2_VIDEO = 14,
  MFD_FORMAT_MPEG4_PART2 = 15,
  MFD_FORMAT_WMV = 17,
  MFD_FORMAT_JPEG = 18,
  MFD_FORMAT_JPEG2 = 19,
  MFD_FORMAT_PNG = 20,
  MFD_FORMAT_GIF = 21,
  MFD_FORMAT_TIFF = 22,
  MFD_FORMAT_ASF = 23,
  MFD_FORMAT_MPEG_PS = 24,
  MFD_FORMAT_MPEG_TS = 25,
  MFD_FORMAT_MP4 = 26,
  MFD_FORMAT_END = 27,  // the registry's end row
  // Formats beyond the written registry, each tried before every written one.
  MFD_FORMAT_FLAC = 28,
  MFD_FORMAT_OGG_VORBIS = 29,  // the Ogg detector's row; also reports 30 and 31
  MFD_FORMAT_OGG_OPUS = 30,
  MFD_FORMAT_OGG_FLAC = 31,
  MFD_FORMAT_MATROSKA = 32,  // the Matroska detector's row; also reports WebM
  MFD_FORMAT_WEBM = 33,
  MFD_FORMAT_AVI = 34,
  MFD_FORMAT_QUICKTIME = 35,  // reported by the MP4 detector for the "qt  " brand
  MFD_FORMAT_COUNT = 36,      // one past every id
};

// Codec ids for codecs without a format id of their own, used in the
// videoCodec/audioCodec words next to the format ids.
// H.264/AVC video: 16, an id that has no registry row, so no file is ever
// reported as format 16 and the protocol mapping never sees it as a format.
inline constexpr uint32_t MFD_CODEC_AVC = 16;
// A stream that is present but whose codec has no id here (H.263, HEVC, VC-1
// advanced, an unknown ASF audio tag ...): nonzero, so "video present" and
// "audio present" still read right.
inline constexpr uint32_t MFD_CODEC_OTHER = 255;
// Codecs of the added containers.
inline constexpr uint32_t MFD_CODEC_HEVC = 64;
inline constexpr uint32_t MFD_CODEC_VP8 = 65;
inline constexpr uint32_t MFD_CODEC_VP9 = 66;
inline constexpr uint32_t MFD_CODEC_AV1 = 67;
inline constexpr uint32_t MFD_CODEC_VORBIS = 68;
inline constexpr uint32_t MFD_CODEC_OPUS = 69;
inline constexpr uint32_t MFD_CODEC_EAC3 = 70;
inline constexpr uint32_t MFD_CODEC_DTS = 71;

// Tag string of each format id ("INVALID", "ATRAC3", ... "MP4", "0").
extern const std::array<const char *, 26> gp_a_ch_mfdMediaStringTags;

// The tag string of `formatId` ("WMV" for 17, "JPEG" for 18 and 19, ...);
// "INVALID" for 0, 16 and ids of 27 and above.
const char *mfd_formatTag(uint32_t formatId);

// What detection found for one file.  Only the properties something reads are
// kept (the record is stored in every content entry).  The three strings
// point into constant data and are never freed.
struct mfdMediaInfo {
  uint32_t mediaClass;  // MFD_CLASS_*
  uint32_t formatId;    // mfdFormatId
  // Audio and A/V: bit rate in the unit each format stores (see its detector);
  // images: width in pixels.
  union {
    int32_t bitrate;
    int32_t width;
  };
  // Audio: sample rate in Hz; images: height in pixels.
  union {
    int32_t sampleRate;
    int32_t height;
  };
  int32_t channels;       // audio channels; images: bits per sample where known
  int32_t formatWord;     // MP3: 2 or 1 (channel mode); images: codec id; AC3: coding mode
  int32_t formatWord2;    // AC3: LFE bit
  int32_t bitsPerSample;  // WAV: bits per sample of the samples
  int32_t sampleFormat;   // WAV: format tag (1 integer PCM, 3 float, 0xFFFE extensible resolved)
  uint32_t audioCodec;    // format id of the audio codec; 0 none
  uint32_t videoCodec;    // format id of the video codec; 0 no video
  uint32_t profileCode;   // format-specific sub-type choosing the DLNA profile
  const char *mimeType;
  const char *profileName;   // fourth protocolInfo field, or ""
  const char *protocolInfo;  // complete protocolInfo, or ""
  int64_t fileSize;          // bytes to serve (WAV with LPCM profile: the sample data)
  int64_t dataOffset;        // first byte to serve
  int64_t modificationTime;  // seconds since the epoch
  uint32_t duration;         // playing time in milliseconds; 0 unknown
  // Video: picture size in pixels where the stream tells it; 0 unknown.
  int32_t videoWidth;
  int32_t videoHeight;
};

// Detector: recognise (mode 2) or parse (mode 3) the file open on `fd`
// (named `path`) through the calling thread's reader.  0 or an error code;
// "not recognised" is 0 with mediaClass left 0.
using mfdDetectCallback = int (*)(int fd, mfdMediaInfo *info, int mode, const char *path);

// A registry row.
struct mfdMediaProfileTag {
  uint32_t formatId;
  const char *extension;
  int32_t priority;       // lower is tried earlier
  uint32_t localBufSize;  // reader window for this format: 32, 128 or 256 bytes
  mfdDetectCallback detect;
  mfdMediaProfileTag *next;
};

// The registry: the 20 written formats, the 4 added detectors and the end
// row (id 27).
inline constexpr size_t MFD_REGISTRY_ROWS = 25;
extern std::array<mfdMediaProfileTag, MFD_REGISTRY_ROWS> ga_s_mfdMediaProfileTags;

// The detector of each registry row, in row order (not by id); copied into
// the row and its list node when the format is registered.  Writable so that
// tests can put their own detectors in before registering.
extern std::array<mfdDetectCallback, MFD_REGISTRY_ROWS - 1> gpa_f_mfdMediaFormatCallBack;

// The formats the server registers, in the order it registers them: the
// order fixes the try order (ids 25, 26, 18, 12, 1, 20, 21, 22, 3, 24, 6, 11,
// 10, 8, 15, 17).
extern const std::array<uint32_t, 16> ga_u32_mfdServerFormatIds;

// Every format the server registers: the written ones in that order, then
// the added ones, which (registered last with the lowest priority) are tried
// first: they accept only their own signatures.
inline constexpr size_t MFD_SERVER_FORMATS = 20;
extern const std::array<uint32_t, MFD_SERVER_FORMATS> g_mfdAllServerFormatIds;

// Registry row index of `formatId` (the MPEG-2 video row for an unknown id).
int32_t getFormatIndex(uint32_t formatId);

// Detection instance (opaque).
struct mfdInstance;

int32_t mfd_openInstance(mfdInstance **handle);
int32_t mfd_registerFormat(mfdInstance *handle, uint32_t formatId);
int32_t mfd_unregisterFormat(mfdInstance *handle, uint32_t formatId);
int32_t mfd_closeInstance(mfdInstance *handle);

// Detects the format of `path` and fills `info` (also on failure: fileSize and
// modificationTime when the file could be examined).  0, 1, 2 or 8.
int32_t mfd_detectMediaFormat(mfdInstance *handle, const char *path, mfdMediaInfo *info);

// MIME type, DLNA profile field and protocolInfo for a detected record.
// 0, or 1 when a pointer is NULL.
int32_t mfd_getMediaProtocolDetails(const mfdMediaInfo *info, const char **mimeType,
                                    const char **profileName, const char **protocolInfo);

// The extension (without the dot) a media URL gives a file of `formatId`
// whose name ends in `fileExtension` (the text after its last dot, empty
// when it has none): that text itself when it is a short run of letters and
// digits naming the format, in whatever case, and the format's usual
// extension otherwise.  Empty for an unknown format.  The result points into
// `fileExtension` or a constant.
std::string_view mfd_resourceExtension(uint32_t formatId, std::string_view fileExtension);

// True when `extension` (without the dot, any case) is one the formats added
// beyond the written registry use: the scan's name filter keeps such names.
bool mfd_addedFormatsUse(std::string_view extension);

// True when the file name's extension (after the last dot) is "pcm", "wav" or
// "bmp", in any case: most detectors leave such files to their own detectors.
bool mfd_hasExcludedExtension(const char *path);

// The detectors, one per format family.
int mediaFormatAtracDetect(int fd, mfdMediaInfo *info, int mode, const char *path);
int mediaFormatAc3Detect(int fd, mfdMediaInfo *info, int mode, const char *path);
int mediaFormatMp3Detect(int fd, mfdMediaInfo *info, int mode, const char *path);
int mediaFormatAacDetect(int fd, mfdMediaInfo *info, int mode, const char *path);
int mediaFormatLpcmDetect(int fd, mfdMediaInfo *info, int mode, const char *path);
int mediaFormatWavDetect(int fd, mfdMediaInfo *info, int mode, const char *path);
int mediaFormatJpegDetect(int fd, mfdMediaInfo *info, int mode, const char *path);
int mediaFormatPngDetect(int fd, mfdMediaInfo *info, int mode, const char *path);
int mediaFormatFlacDetect(int fd, mfdMediaInfo *info, int mode, const char *path);
int mediaFormatOggDetect(int fd, mfdMediaInfo *info, int mode, const char *path);
int mediaFormatMatroskaDetect(int fd, mfdMediaInfo *info, int mode, const char *path);
int mediaFormatAviDetect(int fd, mfdMediaInfo *info, int mode, const char *path);
int mediaFormatGifDetect(int fd, mfdMediaInfo *info, int mode, const char *path);
int mediaFormatTiffDetect(int fd, mfdMediaInfo *info, int mode, const char *path);
int mediaFormatMpegDetect(int fd, mfdMediaInfo *info, int mode, const char *path);
int mediaFormatMptsDetect(int fd, mfdMediaInfo *info, int mode, const char *path);
int mediaFormatM4vDetect(int fd, mfdMediaInfo *info, int mode, const char *path);
int mediaFormatMp4Detect(int fd, mfdMediaInfo *info, int mode, const char *path);
int mediaFormatWmDetect(int fd, mfdMediaInfo *info, int mode, const char *path);

#endif  // DMS_MFD_MFD_API_H

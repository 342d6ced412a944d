#include "mfd/mfd_class.h"

namespace {

bool always(const mfdMediaInfo &) { return true; }
bool isCodecId(uint32_t codec) { return codec >= 1 && codec <= 26; }
bool hasVideoCodec(const mfdMediaInfo &info) { return isCodecId(info.videoCodec); }
bool hasAudioCodec(const mfdMediaInfo &info) { return isCodecId(info.audioCodec); }
bool isTransportStream(const mfdMediaInfo &info) { return info.formatId == MFD_FORMAT_MPEG_TS; }
bool isMp4(const mfdMediaInfo &info) { return info.formatId == MFD_FORMAT_MP4; }

struct ItemClassRule {
  uint32_t mediaClass;
  bool (*applies)(const mfdMediaInfo &);
  const char *upnpClass;
};

// The first row whose media class and condition hold gives the class.
constexpr ItemClassRule kItemClassRules[] = {
    // media class       condition           class
    {MFD_CLASS_IMAGE,    always,             "object.item.imageItem.photo"},
    {MFD_CLASS_AUDIO,    always,             "object.item.audioItem.musicTrack"},
    {MFD_CLASS_VIDEO,    always,             "object.item.videoItem"},
    {MFD_CLASS_AV,       hasVideoCodec,      "object.item.videoItem"},
    {MFD_CLASS_AV,       hasAudioCodec,      "object.item.audioItem.musicTrack"},
    {MFD_CLASS_AV,       isTransportStream,  "object.item.videoItem"},
    {MFD_CLASS_AV,       isMp4,              "object.item.audioItem.musicTrack"},
    {MFD_CLASS_AV,       always,             "object.item.videoItem.movie"},
};

}  // namespace

const char *mfd_upnpClass(const mfdMediaInfo &info) {
  for (const ItemClassRule &rule : kItemClassRules) {
    if (rule.mediaClass == info.mediaClass && rule.applies(info)) return rule.upnpClass;
  }
  return nullptr;
}

// The strings a detected file is published with, by format family.  Each
// function maps one detected record to its MIME type, DLNA profile field and
// protocolInfo; the format table (mfd_formats.cpp) names one per format.
// Every string is a constant.
#ifndef DMS_MFD_MFD_PROTOCOL_H
#define DMS_MFD_MFD_PROTOCOL_H

#include <cstdint>

#include "mfd/mfd_api.h"

struct mfdProtocolStrings {
  const char *mimeType;
  const char *profileName;
  const char *protocolInfo;
};

// The strings of `info` by its format's mapping; "", "", "" for a format
// without one.  What mfd_getMediaProtocolDetails hands out.
const mfdProtocolStrings &mfd_protocolStringsFor(const mfdMediaInfo &info);

// A name of `strings` that stays the same from build to build while its
// texts do (a hash of them), and the constant of that name, or NULL: what a
// stored record keeps in place of the pointer.
uint32_t mfd_protocolStringsKey(const mfdProtocolStrings &strings);
const mfdProtocolStrings *mfd_protocolStringsByKey(uint32_t key);
// The number of `strings` among the constants (1 up; stable within one
// build only), and the constant of a number, or NULL for 0 and any number
// not handed out: what a record in memory keeps in place of the pointer.
uint16_t mfd_protocolStringsNumber(const mfdProtocolStrings &strings);
const mfdProtocolStrings *mfd_protocolStringsNumbered(uint16_t number);

using mfdProtocolMapping = const mfdProtocolStrings &(*)(const mfdMediaInfo &info);

const mfdProtocolStrings &mfdProtocolNone(const mfdMediaInfo &info);  // "", "", ""
const mfdProtocolStrings &mfdProtocolAtrac(const mfdMediaInfo &info);
const mfdProtocolStrings &mfdProtocolAc3(const mfdMediaInfo &info);
const mfdProtocolStrings &mfdProtocolMpegAudio(const mfdMediaInfo &info);  // MPEG-1 layers 1 and 2
const mfdProtocolStrings &mfdProtocolMp3(const mfdMediaInfo &info);
const mfdProtocolStrings &mfdProtocolAac(const mfdMediaInfo &info);
const mfdProtocolStrings &mfdProtocolWma(const mfdMediaInfo &info);  // never reported alone: none
const mfdProtocolStrings &mfdProtocolLpcm(const mfdMediaInfo &info);
const mfdProtocolStrings &mfdProtocolWav(const mfdMediaInfo &info);
const mfdProtocolStrings &mfdProtocolMpegVideo(const mfdMediaInfo &info);
const mfdProtocolStrings &mfdProtocolMpeg4Video(const mfdMediaInfo &info);
const mfdProtocolStrings &mfdProtocolWmv(const mfdMediaInfo &info);
const mfdProtocolStrings &mfdProtocolJpeg(const mfdMediaInfo &info);
const mfdProtocolStrings &mfdProtocolPng(const mfdMediaInfo &info);
const mfdProtocolStrings &mfdProtocolGif(const mfdMediaInfo &info);
const mfdProtocolStrings &mfdProtocolTiff(const mfdMediaInfo &info);
const mfdProtocolStrings &mfdProtocolAsf(const mfdMediaInfo &info);
const mfdProtocolStrings &mfdProtocolMpegPs(const mfdMediaInfo &info);
const mfdProtocolStrings &mfdProtocolMpegTs(const mfdMediaInfo &info);
const mfdProtocolStrings &mfdProtocolMp4(const mfdMediaInfo &info);
// The added formats: no DLNA profile, the usual operation and flags fields.
const mfdProtocolStrings &mfdProtocolFlac(const mfdMediaInfo &info);
const mfdProtocolStrings &mfdProtocolOgg(const mfdMediaInfo &info);
const mfdProtocolStrings &mfdProtocolMatroska(const mfdMediaInfo &info);
const mfdProtocolStrings &mfdProtocolWebm(const mfdMediaInfo &info);
const mfdProtocolStrings &mfdProtocolAvi(const mfdMediaInfo &info);
const mfdProtocolStrings &mfdProtocolQuickTime(const mfdMediaInfo &info);

// The protocolInfo of every added format's row, for GetProtocolInfo.
extern const char *const g_mfdAddedProtocolInfo[];

#endif  // DMS_MFD_MFD_PROTOCOL_H

// The UPnP class a detected file is listed under: a photo, a music track or
// a video, decided from its media class and, for audio-visual containers,
// from the streams detection found in them.
#ifndef DMS_MFD_MFD_CLASS_H
#define DMS_MFD_MFD_CLASS_H

#include "mfd/mfd_api.h"

// "object.item.imageItem.photo", "object.item.audioItem.musicTrack",
// "object.item.videoItem" or "object.item.videoItem.movie"; NULL for a media
// class without a mapping.
const char *mfd_upnpClass(const mfdMediaInfo &info);

#endif  // DMS_MFD_MFD_CLASS_H

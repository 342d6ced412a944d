// FLAC's STREAMINFO block, read by the FLAC detector and by the Ogg detector
// for FLAC in Ogg.
#ifndef DMS_MFD_MFD_FLAC_H
#define DMS_MFD_MFD_FLAC_H

#include <cstddef>
#include <cstdint>

#include "mfd/mfd_api.h"

// Fills sample rate, channels, bits per sample, the audio codec and the
// playing time from a STREAMINFO payload (34 bytes).  false when it is too
// short or names no sample rate.
bool mfdFlac_parseStreamInfo(const uint8_t *block, size_t size, mfdMediaInfo *info);

#endif  // DMS_MFD_MFD_FLAC_H

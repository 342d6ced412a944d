// Video and container detectors, to come: until then each declines every
// file (result 0, mediaClass left 0), so such files fall through to the
// other detectors and end up unrecognised.
#include "mfd/mfd_api.h"
#include "util/osal_trace.h"

[[maybe_unused]] static constexpr char kTraceFile[] = "mfd_video.c";

int mediaFormatMpegDetect(int, mfdMediaInfo *, int, const char *) { return 0; }

int mediaFormatMptsDetect(int, mfdMediaInfo *, int, const char *) { return 0; }

int mediaFormatM4vDetect(int, mfdMediaInfo *, int, const char *) { return 0; }

int mediaFormatMp4Detect(int, mfdMediaInfo *, int, const char *) { return 0; }

int mediaFormatWmDetect(int, mfdMediaInfo *, int, const char *) { return 0; }

// HTTP file server behind the SDK's "/web" virtual directory: the service
// descriptions, presentation page and icons from the working directory, and
// (through the content list) the shared media files.
#ifndef DMS_HTTP_DMS_AVT_HTTP_HANDLER_H
#define DMS_HTTP_DMS_AVT_HTTP_HANDLER_H

#include <upnp.h>

#include <cstdint>

struct dmsContentListInfo;

// Measures the eight fixed files under `baseDirectory` and remembers the
// content list for media lookups.  `contentList` may be NULL (no media is
// served) and must outlive dmsAvtHttp_deinit.  Returns 0, or -1 when the
// directory is NULL or a file is missing (the trace names the file).
int32_t dmsAvtHttp_init(const char *baseDirectory, dmsContentListInfo *contentList);

// Forgets the files and the content list; returns 0.
int32_t dmsAvtHttp_deinit();

// Hands the six callbacks to the SDK.  UpnpInit resets them, so this runs
// after every UpnpInit, before any virtual directory is added.  0 or the
// SDK's error.
int32_t dmsAvtHttp_setCallbacks();

// The SDK callbacks, in the order the SDK table lists them.
int dmsAvtHttp_getInfo(const char *path, UpnpFileInfo *info, const void *cookie);
UpnpWebFileHandle dmsAvtHttp_open(const char *path, enum UpnpOpenFileMode mode,
                                  const void *cookie);
int dmsAvtHttp_read(UpnpWebFileHandle handle, char *buffer, size_t count, const void *cookie);
int dmsAvtHttp_write(UpnpWebFileHandle handle, char *buffer, size_t count, const void *cookie);
int dmsAvtHttp_seek(UpnpWebFileHandle handle, off_t offset, int origin, const void *cookie);
int dmsAvtHttp_close(UpnpWebFileHandle handle, const void *cookie);

#endif  // DMS_HTTP_DMS_AVT_HTTP_HANDLER_H

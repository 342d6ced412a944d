// The fixed files of the "/web" directory: the service descriptions, the
// presentation page and the icons, read from the working directory.  The
// front door serves them (and the media, through dmsAvtHttpMedia.h).
#ifndef DMS_HTTP_DMS_AVT_HTTP_HANDLER_H
#define DMS_HTTP_DMS_AVT_HTTP_HANDLER_H

#include <cstdint>
#include <string>

struct dmsContentListInfo;

// Checks the eight fixed files under `baseDirectory` and remembers where
// they are.  `contentList` is not used (media are served by the front door
// from the list it was given).  Returns 0, or -1 when the directory is NULL
// or a file is missing (the trace names the file).
int32_t dmsAvtHttp_init(const char *baseDirectory, dmsContentListInfo *contentList);

// Forgets the files and the content list; returns 0.
int32_t dmsAvtHttp_deinit();

// One fixed file as it is served.
struct dmsAvtHttpFixed {
  std::string path;                        // the file on disk
  const char *contentType = nullptr;
  const char *contentFeatures = nullptr;   // NULL: no contentFeatures.dlna.org header
};

// Whether `path` is one of the fixed files' request paths (no lookup of
// the file itself).
bool dmsAvtHttpIsFixedPath(const char *path);

// The fixed file served at request path `path` (compared exactly, e.g.
// "/web/cds.xml"); false for any other path or before init.
bool dmsAvtHttpFixedFile(const char *path, dmsAvtHttpFixed &out);

#endif  // DMS_HTTP_DMS_AVT_HTTP_HANDLER_H

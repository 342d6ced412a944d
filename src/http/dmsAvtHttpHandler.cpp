#include "http/dmsAvtHttpHandler.h"

#include <sys/stat.h>

#include <array>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <string>

#include "util/dmsGuard.h"
#include "util/osal_trace.h"

namespace {

constexpr char kTraceFile[] = "dmsAvtHttpHandler.c";

// The files served from the working directory: request path, file name,
// content type, DLNA content features, and the trace texts of each.
struct FixedFile {
  const char *requestPath;
  const char *fileName;
  const char *contentType;
  const char *contentFeatures;  // nullptr: no contentFeatures.dlna.org header
  const char *sizeTrace;
  const char *foundTrace;
  const char *missingTrace;
};

constexpr const char kPresentationMissing[] = "Not able to get Presentation File Info [%s]\n";

constexpr std::array<FixedFile, 8> kFixedFiles{{
    {"/web/cds.xml", "dmsCdsConfiguration.xml", "text/xml", nullptr,
     "CDS Page Size = [%d]\n", "[%s] Found CDS\n", "Not able to get CDS Info for [%s]\n"},
    {"/web/cms.xml", "dmsCmsConfiguration.xml", "text/xml", nullptr,
     "CMS Page Size = [%d]\n", "[%s] Found CMS\n", "Not able to get CMS Info for [%s]\n"},
    {"/web/index.html", "dmsPresentationPage.html", "text/html", nullptr,
     "Presentation Page Size = [%d]\n", "[%s] Presentation File\n", kPresentationMissing},
    {"/web/ms_mrs.xml", "dmsMsMrsConfiguration.xml", "text/xml", nullptr,
     "MS-MRS Page Size = [%d]\n", "[%s] Found MS-MRS File\n", kPresentationMissing},
    {"/web/KV-icon-48x48.jpg", "48x48-icon.jpg", "image/jpeg",
     "DLNA.ORG_PN=JPEG_SM_ICO;DLNA.ORG_OP=01;DLNA.ORG_CI=0", "JPEG 48x48 File Size = [%d]\n",
     "[%s] Found JPEG 48x48 File\n", "Not able to get Icon File Info [%s]\n"},
    {"/web/KV-icon-120x120.jpg", "120x120-icon.jpg", "image/jpeg",
     "DLNA.ORG_PN=JPEG_LRG_ICO;DLNA.ORG_OP=01;DLNA.ORG_CI=0", "JPEG 120x120 File Size = [%d]\n",
     "[%s] Found JPEG 120x120 File\n", kPresentationMissing},
    {"/web/KV-icon-48x48.png", "48x48-icon.png", "image/png",
     "DLNA.ORG_PN=PNG_SM_ICO;DLNA.ORG_OP=01;DLNA.ORG_CI=0", "PNG 48x48 File Size = [%d]\n",
     "[%s] Found PNG 48x48 File\n", kPresentationMissing},
    {"/web/KV-icon-120x120.png", "120x120-icon.png", "image/png",
     "DLNA.ORG_PN=PNG_LRG_ICO;DLNA.ORG_OP=01;DLNA.ORG_CI=0", "PNG 120x120 File Size = [%d]\n",
     "[%s] Found PNG 120x120 File\n", kPresentationMissing},
}};

// The files init found.  Written by the host thread in init/deinit, read by
// the front door's threads: guarded by `lock`.
struct ServedFiles {
  std::shared_mutex lock;
  std::array<std::string, kFixedFiles.size()> paths;
};

ServedFiles &servedFiles() {
  static ServedFiles files;
  return files;
}

// Index of a fixed request path (compared exactly), or -1.
int fixedFileIndex(const char *path) {
  for (size_t i = 0; i < kFixedFiles.size(); ++i) {
    if (std::strcmp(path, kFixedFiles[i].requestPath) == 0) return static_cast<int>(i);
  }
  return -1;
}

}  // namespace

int32_t dmsAvtHttp_init(const char *baseDirectory, dmsContentListInfo * /*contentList: media are the front door's*/) {
  if (baseDirectory == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Invalid Argument \n");
    return -1;
  }
  return dmsGuard("dmsAvtHttp_init", -1, [&] {
    std::array<std::string, kFixedFiles.size()> paths;
    for (size_t i = 0; i < kFixedFiles.size(); ++i) {
      paths[i] = std::string(baseDirectory) + "/" + kFixedFiles[i].fileName;
      struct stat status {};
      if (::stat(paths[i].c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        DMS_TRACE(OSAL_TRACE_ERR, kFixedFiles[i].missingTrace, paths[i].c_str());
        return -1;
      }
      DMS_TRACE(OSAL_TRACE_INFO, kFixedFiles[i].sizeTrace, static_cast<int>(status.st_size));
    }
    ServedFiles &files = servedFiles();
    std::unique_lock guard(files.lock);
    files.paths = std::move(paths);
    return 0;
  });
}

int32_t dmsAvtHttp_deinit() {
  DMS_TRACE(OSAL_TRACE_INFO, "NOTE => Currently Do nothing Implementation\n");
  ServedFiles &files = servedFiles();
  std::unique_lock guard(files.lock);
  for (auto &path : files.paths) path.clear();
  return 0;
}

bool dmsAvtHttpIsFixedPath(const char *path) { return path != nullptr && fixedFileIndex(path) >= 0; }

bool dmsAvtHttpFixedFile(const char *path, dmsAvtHttpFixed &out) {
  if (path == nullptr) return false;
  const int index = fixedFileIndex(path);
  if (index < 0) return false;
  const FixedFile &file = kFixedFiles[static_cast<size_t>(index)];
  DMS_TRACE(OSAL_TRACE_INFO, file.foundTrace, path);
  ServedFiles &files = servedFiles();
  std::shared_lock guard(files.lock);
  if (files.paths[static_cast<size_t>(index)].empty()) return false;
  out.path = files.paths[static_cast<size_t>(index)];
  out.contentType = file.contentType;
  out.contentFeatures = file.contentFeatures;
  return true;
}

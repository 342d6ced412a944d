#include "http/dmsAvtHttpHandler.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <string>
#include <vector>

#include "http/dmsAvtHttpMedia.h"
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

// What init measured.  Written by the host thread in init/deinit, read by the
// SDK's worker threads in every callback: guarded by `lock`.
struct ServedFiles {
  std::shared_mutex lock;
  std::array<std::string, kFixedFiles.size()> paths;
  std::array<int64_t, kFixedFiles.size()> sizes{};
  dmsContentListInfo *contentList = nullptr;
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

// One open transfer; owned by the SDK between open and close.
struct FileHandle {
  std::string path;
  int64_t position = 0;
  int descriptor = -1;
  int64_t dataOffset = 0;     // where the served bytes start (SEEK_SET is relative to it)
  bool swapSamples = false;   // LPCM: 16-bit samples go out big-endian
  std::vector<char> scratch;  // reused by the swapping read

  FileHandle() = default;
  FileHandle(const FileHandle &) = delete;
  FileHandle &operator=(const FileHandle &) = delete;
  ~FileHandle() {
    if (descriptor >= 0) ::close(descriptor);
  }
};

dmsContentListInfo *contentList() {
  ServedFiles &files = servedFiles();
  std::shared_lock guard(files.lock);
  return files.contentList;
}

int getMediaInfo(const char *path, UpnpFileInfo *info) {
  uint32_t id = 0;
  dmsAvtHttpMediaFile media;
  if (!dmsAvtHttpParseMediaId(path, &id) || !dmsAvtHttpFindMedia(contentList(), id, media)) {
    return -1;
  }
  struct stat status {};
  if (::stat(media.path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
    DMS_TRACE(OSAL_TRACE_INFO, "File [%s] cannot be accessed\n", media.path.c_str());
    return -1;
  }
  int readable = 1;
  if (::access(media.path.c_str(), R_OK) != 0) {
    if (errno != EACCES) {
      DMS_TRACE(OSAL_TRACE_INFO, "File [%s] is not readable\n", media.path.c_str());
      return -1;
    }
    readable = 0;
  }
  // The SDK sends exactly this many bytes: what the file holds now from the
  // payload start, no more than its header declares.
  const int64_t length = dmsAvtHttpServedLength(media, status.st_size);
  UpnpFileInfo_set_FileLength(info, static_cast<off_t>(length));
  UpnpFileInfo_set_LastModified(info, status.st_mtime);
  UpnpFileInfo_set_IsDirectory(info, 0);
  UpnpFileInfo_set_IsReadable(info, readable);
  UpnpFileInfo_set_ContentType(info, media.mimeType.c_str());
  UpnpFileInfo_set_ExtraHeaders(info, dmsAvtHttpMediaHeaders(media).c_str());
  DMS_TRACE(OSAL_TRACE_INFO, "File Length: [%lld] Mime-Type: [%s] DLNA Profile: [%s]\n",
            static_cast<long long>(length), media.mimeType.c_str(), media.contentFeatures.c_str());
  return 0;
}

int getFileInfo(const char *path, UpnpFileInfo *info) {
  DMS_TRACE(OSAL_TRACE_INFO, "Logical File Path: [%s]\n", path);
  int index = fixedFileIndex(path);
  if (index < 0) return getMediaInfo(path, info);
  const FixedFile &file = kFixedFiles[index];
  DMS_TRACE(OSAL_TRACE_INFO, file.foundTrace, path);
  int64_t size;
  {
    ServedFiles &files = servedFiles();
    std::shared_lock guard(files.lock);
    if (files.paths[index].empty()) return -1;
    size = files.sizes[index];
  }
  UpnpFileInfo_set_FileLength(info, static_cast<off_t>(size));
  UpnpFileInfo_set_LastModified(info, 0);
  UpnpFileInfo_set_IsDirectory(info, 0);
  UpnpFileInfo_set_IsReadable(info, 1);
  UpnpFileInfo_set_ContentType(info, file.contentType);
  if (file.contentFeatures != nullptr) {
    std::string header = std::string("contentFeatures.dlna.org: ") + file.contentFeatures + "\r\n";
    UpnpFileInfo_set_ExtraHeaders(info, header.c_str());
  }
  return 0;
}

// Fills `handle` for a media URL; false when it names no shared item.
bool resolveMedia(const char *path, FileHandle &handle) {
  uint32_t id = 0;
  dmsAvtHttpMediaFile media;
  if (!dmsAvtHttpParseMediaId(path, &id) || !dmsAvtHttpFindMedia(contentList(), id, media)) {
    return false;
  }
  handle.path = std::move(media.path);
  handle.dataOffset = media.dataOffset;
  handle.position = media.dataOffset;
  handle.swapSamples = media.swapSamples;
  return true;
}

UpnpWebFileHandle openFile(const char *path) {
  int index = fixedFileIndex(path);
  auto handle = std::make_unique<FileHandle>();
  if (index >= 0) {
    ServedFiles &files = servedFiles();
    std::shared_lock guard(files.lock);
    handle->path = files.paths[index];
  } else if (!resolveMedia(path, *handle)) {
    return nullptr;
  }
  if (handle->path.empty()) return nullptr;
  handle->descriptor = ::open(handle->path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (handle->descriptor < 0) {
    DMS_TRACE(OSAL_TRACE_ERR, "Not able to Open the File => [%s]\n", handle->path.c_str());
    return nullptr;
  }
  // A stream is read once: keep it from pushing other data out of the cache.
  if (index < 0) ::posix_fadvise(handle->descriptor, 0, 0, POSIX_FADV_DONTNEED);
  return handle.release();
}

// Reads at the handle's position; LPCM leaves in network byte order.  The
// bytes read, or 0 at the end or on an error: the SDK would send stale
// memory for a -1.
int readFile(FileHandle &handle, char *buffer, size_t count) {
  const ssize_t got = handle.swapSamples
                          ? static_cast<ssize_t>(dmsAvtHttpReadSwapped(handle.descriptor, buffer, count,
                                                                       handle.position, handle.dataOffset,
                                                                       handle.scratch))
                          : ::pread(handle.descriptor, buffer, count, handle.position);
  if (got <= 0) return 0;
  handle.position += got;
  DMS_TRACE(OSAL_TRACE_INFO, "Read: [%d] Requested: [%d] Pos: [%lld]\n", static_cast<int>(got),
            static_cast<int>(count), static_cast<long long>(handle.position));
  return static_cast<int>(got);
}

// Moves the read position: SEEK_SET counts from the first served byte (past
// a WAV header), SEEK_END from the end of the file.  0, or -1 for a target
// before the start.
int seekFile(FileHandle &file, off_t offset, int origin) {
  int64_t target;
  switch (origin) {
    case SEEK_SET: target = file.dataOffset + offset; break;
    case SEEK_CUR: target = file.position + offset; break;
    case SEEK_END: {
      struct stat status {};
      if (::fstat(file.descriptor, &status) != 0) {
        DMS_TRACE(OSAL_TRACE_ERR, "%s: cannot stat: %s\n", file.path.c_str(), std::strerror(errno));
        return -1;
      }
      target = status.st_size + offset;
      break;
    }
    default: target = -1; break;
  }
  if (target < 0) {
    DMS_TRACE(OSAL_TRACE_ERR, "%s: cannot seek: %s\n", file.path.c_str(), std::strerror(EINVAL));
    return -1;
  }
  file.position = target;
  return 0;
}

}  // namespace

int32_t dmsAvtHttp_init(const char *baseDirectory, dmsContentListInfo *contentList) {
  if (baseDirectory == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Invalid Argument \n");
    return -1;
  }
  return dmsGuard("dmsAvtHttp_init", -1, [&] {
    std::array<std::string, kFixedFiles.size()> paths;
    std::array<int64_t, kFixedFiles.size()> sizes{};
    for (size_t i = 0; i < kFixedFiles.size(); ++i) {
      paths[i] = std::string(baseDirectory) + "/" + kFixedFiles[i].fileName;
      struct stat status {};
      if (::stat(paths[i].c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        DMS_TRACE(OSAL_TRACE_ERR, kFixedFiles[i].missingTrace, paths[i].c_str());
        return -1;
      }
      sizes[i] = status.st_size;
      DMS_TRACE(OSAL_TRACE_INFO, kFixedFiles[i].sizeTrace, static_cast<int>(sizes[i]));
    }
    ServedFiles &files = servedFiles();
    std::unique_lock guard(files.lock);
    files.paths = std::move(paths);
    files.sizes = sizes;
    files.contentList = contentList;
    return 0;
  });
}

int32_t dmsAvtHttp_deinit() {
  DMS_TRACE(OSAL_TRACE_INFO, "NOTE => Currently Do nothing Implementation\n");
  ServedFiles &files = servedFiles();
  std::unique_lock guard(files.lock);
  for (auto &path : files.paths) path.clear();
  files.contentList = nullptr;
  return 0;
}

int32_t dmsAvtHttp_setCallbacks() {
  int result = UpnpVirtualDir_set_GetInfoCallback(dmsAvtHttp_getInfo);
  if (result == UPNP_E_SUCCESS) result = UpnpVirtualDir_set_OpenCallback(dmsAvtHttp_open);
  if (result == UPNP_E_SUCCESS) result = UpnpVirtualDir_set_ReadCallback(dmsAvtHttp_read);
  if (result == UPNP_E_SUCCESS) result = UpnpVirtualDir_set_WriteCallback(dmsAvtHttp_write);
  if (result == UPNP_E_SUCCESS) result = UpnpVirtualDir_set_SeekCallback(dmsAvtHttp_seek);
  if (result == UPNP_E_SUCCESS) result = UpnpVirtualDir_set_CloseCallback(dmsAvtHttp_close);
  return result;
}

int dmsAvtHttp_getInfo(const char *path, UpnpFileInfo *info, const void * /*cookie*/) {
  if (path == nullptr || info == nullptr) return -1;
  return dmsGuard("dmsAvtHttp_getInfo", -1, [&] { return getFileInfo(path, info); });
}

UpnpWebFileHandle dmsAvtHttp_open(const char *path, enum UpnpOpenFileMode mode,
                                  const void * /*cookie*/) {
  if (path == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "File Name is Invalid (NULL)\n");
    return nullptr;
  }
  // The SDK opens for writing on a POST without SOAPACTION: nothing here is
  // ever written.
  if (mode != UPNP_READ) {
    DMS_TRACE(OSAL_TRACE_ERR, "Invalid UPnP Mode \n");
    return nullptr;
  }
  return dmsGuard("dmsAvtHttp_open", UpnpWebFileHandle{nullptr}, [&] { return openFile(path); });
}

int dmsAvtHttp_read(UpnpWebFileHandle fileHandle, char *buffer, size_t count,
                    const void * /*cookie*/) {
  // Errors end the body (0): the SDK would send stale memory for a -1.
  if (fileHandle == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "File Handle is NULL \n");
    return 0;
  }
  if (buffer == nullptr || count == 0) return 0;
  return dmsGuard("dmsAvtHttp_read", 0, [&] {
    return readFile(*static_cast<FileHandle *>(fileHandle), buffer, count);
  });
}

int dmsAvtHttp_write(UpnpWebFileHandle, char *, size_t, const void *) {
  return dmsGuard("dmsAvtHttp_write", 0, [] {
    static constexpr char kRow[] = "######################################################\n";
    DMS_TRACE(OSAL_TRACE_WARN, "%s", kRow);
    DMS_TRACE(OSAL_TRACE_WARN, "            Function not yet implemented\n");
    DMS_TRACE(OSAL_TRACE_WARN, "%s", kRow);
    return 0;
  });
}

int dmsAvtHttp_seek(UpnpWebFileHandle fileHandle, off_t offset, int origin,
                    const void * /*cookie*/) {
  if (fileHandle == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Invalid File Handle %d\n", 0);
    return -1;
  }
  return dmsGuard("dmsAvtHttp_seek", -1,
                  [&] { return seekFile(*static_cast<FileHandle *>(fileHandle), offset, origin); });
}

int dmsAvtHttp_close(UpnpWebFileHandle fileHandle, const void * /*cookie*/) {
  if (fileHandle == nullptr) return -1;
  return dmsGuard("dmsAvtHttp_close", -1, [&] {
    std::unique_ptr<FileHandle> owned(static_cast<FileHandle *>(fileHandle));
    return 0;
  });
}

// Detection framework: the format registry, the list of registered formats in
// try order, the detection instance and the driver that runs the detectors on
// one file and completes its record.
//
// There is one list for the whole process.  Every instance shares it: the
// first mfd_openInstance creates the shared state, each registration adds a
// node whichever handle it comes through, each unregistration takes one node
// of that id away again, and the last mfd_closeInstance frees what is left.
// Registry changes take the registry lock exclusively; a detection holds it
// shared for its whole run, so any number of threads may detect at once (the
// reader's state is per thread) and registrations wait for them.
#include "mfd/mfd_api.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <bitset>
#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <shared_mutex>

#include "mfd/mfd_formats.h"
#include "mfd/mfd_reader.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "mfd_api.c";

// Traces "Error [code] in function()" for the calling function and gives the
// code back.
#define DMS_MFD_ERROR(code) reportError(__func__, __LINE__, (code))

namespace {
int32_t reportError(const char *function, int32_t line, int32_t code) {
  osal_tracePrintf(OSAL_TRACE_ERR, function, kTraceFile, line, 0, "Error [%d] in %s()\n", code,
                   function);
  return code;
}
}  // namespace

// The steps of a detection trace under the driver's name.
#define DMS_DETECT_TRACE(level, ...) \
  osal_tracePrintf((level), "mfd_detectMediaFormat", kTraceFile, __LINE__, 0, __VA_ARGS__)

// What callers hold: the index of the instance table slot.
struct mfdInstance {
  int32_t index;
};

namespace {

constexpr int32_t kRowCount = static_cast<int32_t>(MFD_REGISTRY_ROWS);
constexpr int32_t kUnknownIdRow = 8;

// A registered format.  The list owns its nodes through the `next` links.
struct mfdFormatNode {
  uint32_t formatId;
  const char *extension;
  int32_t priority;
  uint32_t localBufSize;
  mfdDetectCallback detect;
  std::unique_ptr<mfdFormatNode> next;
};

struct mfdInstanceState {
  int32_t index;
  mfdFormatNode *cursor;  // the node registered last (null when it went away)
  int32_t openCount;      // handles sharing this state
};

struct mfdInstanceSlot {
  int32_t index;
  std::unique_ptr<mfdInstanceState> state;
};

struct mfdObjectEntry {
  uint32_t formatId;
  mfdFormatNode *node;  // a node of this row's id in the list
};

std::shared_mutex gs_mfdRegistryLock;
std::array<mfdInstanceSlot, 16> ga_s_mfdInstanceTable;
std::array<mfdObjectEntry, MFD_FORMAT_COUNT> ga_s_mfdObjectTable;
std::unique_ptr<mfdFormatNode> gp_s_mfdMediaProfileListStart;

mfdInstanceState *stateOf(const mfdInstance *handle) {
  if (handle->index < 0 || handle->index >= static_cast<int32_t>(ga_s_mfdInstanceTable.size())) {
    return nullptr;
  }
  return ga_s_mfdInstanceTable[handle->index].state.get();
}

// The registry row of `formatId`, or null for ids without a row of their own.
mfdMediaProfileTag *rowOf(uint32_t formatId) {
  mfdMediaProfileTag &row = ga_s_mfdMediaProfileTags[getFormatIndex(formatId)];
  return row.formatId == formatId && formatId != MFD_FORMAT_END ? &row : nullptr;
}

mfdMediaProfileTag *rowOf(const mfdFormatNode *node) {
  return node == nullptr ? nullptr : rowOf(node->formatId);
}

// Sorted insertion with the cursor (the node registered last):
//  1. empty list: the node is the head;
//  2. priority <= the head's: the node goes in front of the head;
//  3. the cursor is the tail: the node is appended without comparing;
//  4. otherwise after the last node of lower or equal priority met before
//     the first node of higher priority.
// Rule 3 makes the order depend on the registration order, deliberately.
void linkNode(mfdInstanceState &state, std::unique_ptr<mfdFormatNode> node) {
  mfdFormatNode *added = node.get();
  std::unique_ptr<mfdFormatNode> &head = gp_s_mfdMediaProfileListStart;
  if (head == nullptr || added->priority <= head->priority) {
    node->next = std::move(head);
    head = std::move(node);
  } else if (state.cursor != nullptr && state.cursor->next == nullptr) {
    state.cursor->next = std::move(node);
  } else {
    mfdFormatNode *after = head.get();
    while (after->next != nullptr && after->next->priority <= added->priority) {
      after = after->next.get();
    }
    node->next = std::move(after->next);
    after->next = std::move(node);
  }
  state.cursor = added;
}

// Takes the first node of `formatId` out of the list; false when none is in
// it.  A cursor on that node moves to its predecessor.
bool unlinkNode(mfdInstanceState &state, uint32_t formatId) {
  std::unique_ptr<mfdFormatNode> *link = &gp_s_mfdMediaProfileListStart;
  mfdFormatNode *previous = nullptr;
  while (*link != nullptr && (*link)->formatId != formatId) {
    previous = link->get();
    link = &(*link)->next;
  }
  if (*link == nullptr) return false;
  if (state.cursor == link->get()) state.cursor = previous;
  std::unique_ptr<mfdFormatNode> removed = std::move(*link);
  *link = std::move(removed->next);
  return true;
}

mfdFormatNode *findNode(uint32_t formatId) {
  for (mfdFormatNode *node = gp_s_mfdMediaProfileListStart.get(); node != nullptr;
       node = node->next.get()) {
    if (node->formatId == formatId) return node;
  }
  return nullptr;
}

// Frees the list front to back (no recursion through the links).
void clearRegistry() {
  while (gp_s_mfdMediaProfileListStart != nullptr) {
    gp_s_mfdMediaProfileListStart = std::move(gp_s_mfdMediaProfileListStart->next);
  }
  for (mfdMediaProfileTag &row : ga_s_mfdMediaProfileTags) {
    row.detect = nullptr;
    row.next = nullptr;
  }
  ga_s_mfdObjectTable = {};
  for (mfdInstanceSlot &slot : ga_s_mfdInstanceTable) slot = {};
}

// What the detector that recognised a file said about its payload, kept
// before the record's size and offset are set from the file's status.
struct DetectorFindings {
  int64_t dataOffset;  // WAV: first byte of the sample data; 0 unknown
  int64_t dataSize;    // WAV: declared size of the sample data; 0 unknown
};

// The file being examined; closed when detection ends.  Opened without
// blocking so that a FIFO given by name cannot stall the detection.
class OpenFile {
 public:
  explicit OpenFile(const char *path) : descriptor(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
    // The reader refuses descriptor 0, which open() gives when standard
    // input is closed: move off it.
    if (descriptor == 0) {
      int moved = ::fcntl(descriptor, F_DUPFD_CLOEXEC, 1);
      ::close(descriptor);
      descriptor = moved;
    }
    // The detectors all start at the file's first block: read it once.
    if (descriptor > 0) mfd_keepFirstBlock(descriptor);
  }
  ~OpenFile() {
    if (descriptor < 0) return;
    mfd_keepFirstBlock(0);
    ::close(descriptor);
  }
  OpenFile(const OpenFile &) = delete;
  OpenFile &operator=(const OpenFile &) = delete;
  int fd() const { return descriptor; }

 private:
  int descriptor;
};

// Tries the registered detectors in list order: mode 2 until one recognises
// the file, then mode 3 on that one.  0, 1 (a detector failed) or 8.
int32_t runDetectors(const mfdInstance *handle, int fd, const char *path, mfdMediaInfo *info,
                     DetectorFindings &findings) {
  std::shared_lock lock(gs_mfdRegistryLock);
  if (stateOf(handle) == nullptr) {
    DMS_DETECT_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", MFD_ERR_NO_INSTANCE,
                     "mfd_detectMediaFormat");
    return MFD_ERR_INVALID_PARAM;
  }
  // A format registered twice is tried once.
  std::bitset<MFD_FORMAT_COUNT> tried;
  for (const mfdFormatNode *node = gp_s_mfdMediaProfileListStart.get(); node != nullptr;
       node = node->next.get()) {
    if (node->detect == nullptr || tried.test(node->formatId)) continue;
    tried.set(node->formatId);
    mfd_getDataInit(fd, node->formatId);
    *info = mfdMediaInfo{};
    int result = node->detect(fd, info, MFD_MODE_DETECT, path);
    if (result != 0) {
      mfd_getDataDeInit();
      DMS_DETECT_TRACE(OSAL_TRACE_ERR, "Error Code from media Detect %d\n", result);
      return MFD_ERR_INVALID_PARAM;
    }
    if (info->mediaClass != MFD_CLASS_NONE) {
      result = node->detect(fd, info, MFD_MODE_PARSE, path);
      mfd_getDataDeInit();
      findings = {info->dataOffset, info->fileSize};
      return result == 0 ? 0 : MFD_ERR_INVALID_PARAM;
    }
    mfd_getDataDeInit();
  }
  DMS_DETECT_TRACE(OSAL_TRACE_INFO, "Unsupported Media Format\n");
  return MFD_ERR_UNSUPPORTED;
}

// Everything but the file's size and time goes for a file not recognised.
void clearUnrecognised(mfdMediaInfo *info) {
  mfdMediaInfo cleared{};
  cleared.fileSize = info->fileSize;
  cleared.modificationTime = info->modificationTime;
  cleared.mimeType = "";
  cleared.profileName = "";
  cleared.protocolInfo = "";
  *info = cleared;
}

// Where the sample data of a WAV file starts when its detector did not say:
// 8 bytes past the first "data" tag among the file's first 1000 bytes, else
// 997.
int64_t searchWavDataOffset(int fd) {
  constexpr int64_t kNotFound = 997;
  std::array<uint8_t, 1000> head{};
  ssize_t got = ::pread(fd, head.data(), head.size(), 0);
  for (ssize_t i = 0; i + 4 <= got && i < kNotFound; ++i) {
    if (std::memcmp(head.data() + i, "data", 4) == 0) return i + 8;
  }
  return kNotFound;
}

// A WAV file published as LPCM is served from its sample data on.
void placeWavPayload(int fd, mfdMediaInfo *info, const DetectorFindings &findings,
                     int64_t statSize) {
  int64_t offset = findings.dataOffset > 0 ? findings.dataOffset : searchWavDataOffset(fd);
  int64_t size = statSize > offset ? statSize - offset : 0;
  if (findings.dataSize > 0 && findings.dataSize < size) size = findings.dataSize;
  info->dataOffset = offset;
  info->fileSize = size;
  DMS_DETECT_TRACE(OSAL_TRACE_INFO, "WAV File Size: [%lld]\n", static_cast<long long>(size));
  DMS_DETECT_TRACE(OSAL_TRACE_INFO, "WAV File Offset: [%lld]\n", static_cast<long long>(offset));
}

uint32_t clampMilliseconds(int64_t milliseconds) {
  if (milliseconds <= 0) return 0;
  constexpr int64_t kMax = std::numeric_limits<uint32_t>::max();
  return static_cast<uint32_t>(milliseconds < kMax ? milliseconds : kMax);
}

// Playing time in ms.  Images have none.  A WAV file's follows from its data
// size and byte rate (bitrate in bit/s).  Otherwise what the detector found,
// else, for the formats whose bitrate word is kbit/s (MP3, AC3), size / rate.
uint32_t playingTime(const mfdMediaInfo &info, const DetectorFindings &findings, int64_t statSize) {
  if (info.mediaClass == MFD_CLASS_IMAGE) return 0;
  if (info.formatId == MFD_FORMAT_WAV && info.bitrate > 0) {
    int64_t offset = info.dataOffset > 0 ? info.dataOffset : findings.dataOffset;
    int64_t available = statSize > offset ? statSize - offset : 0;
    int64_t bytes = findings.dataSize > 0 && findings.dataSize < available ? findings.dataSize
                                                                           : available;
    return clampMilliseconds(bytes * 8000 / info.bitrate);
  }
  if (info.duration != 0) return info.duration;
  bool kbitPerSecond = info.formatId == MFD_FORMAT_MP3 || info.formatId == MFD_FORMAT_AC3;
  if (kbitPerSecond && info.bitrate > 0) return clampMilliseconds(info.fileSize * 8 / info.bitrate);
  return 0;
}

// Steps after the detectors, for a recognised file: the published strings,
// the WAV payload, the playing time.
void completeRecord(int fd, mfdMediaInfo *info, const DetectorFindings &findings,
                    int64_t statSize) {
  mfd_getMediaProtocolDetails(info, &info->mimeType, &info->profileName, &info->protocolInfo);
  DMS_DETECT_TRACE(OSAL_TRACE_INFO, "Mime Type: [%s]\n", info->mimeType);
  DMS_DETECT_TRACE(OSAL_TRACE_INFO, "Profile Name: [%s]\n", info->profileName);
  DMS_DETECT_TRACE(OSAL_TRACE_INFO, "Protocol Info: [%s]\n", info->protocolInfo);
  if (info->formatId == MFD_FORMAT_WAV && std::strstr(info->profileName, "LPCM") != nullptr) {
    placeWavPayload(fd, info, findings, statSize);
  }
  info->duration = playingTime(*info, findings, statSize);
}

}  // namespace

const char *mfd_formatTag(uint32_t formatId) {
  const mfdFormatRow *row = mfd_formatRow(formatId);
  return row != nullptr ? row->tag : gp_a_ch_mfdMediaStringTags[0];
}

int32_t getFormatIndex(uint32_t formatId) {
  for (int32_t index = 0; index < kRowCount; ++index) {
    if (ga_s_mfdMediaProfileTags[index].formatId == formatId) return index;
  }
  return kUnknownIdRow;
}

int32_t mfd_openInstance(mfdInstance **handle) {
  if (handle == nullptr) return DMS_MFD_ERROR(MFD_ERR_INVALID_PARAM);
  return dmsGuard("mfd_openInstance", MFD_ERR_INVALID_PARAM, [&] {
    auto instance = std::make_unique<mfdInstance>(mfdInstance{0});
    std::unique_lock lock(gs_mfdRegistryLock);
    mfdInstanceSlot &slot = ga_s_mfdInstanceTable[0];
    if (slot.state == nullptr) {
      slot.state = std::make_unique<mfdInstanceState>(mfdInstanceState{0, nullptr, 0});
      slot.index = 0;
    }
    ++slot.state->openCount;
    *handle = instance.release();
    return 0;
  });
}

int32_t mfd_registerFormat(mfdInstance *handle, uint32_t formatId) {
  if (handle == nullptr) return DMS_MFD_ERROR(MFD_ERR_INVALID_PARAM);
  mfdMediaProfileTag *row = formatId < MFD_FORMAT_COUNT ? rowOf(formatId) : nullptr;
  if (row == nullptr) return DMS_MFD_ERROR(MFD_ERR_UNSUPPORTED);
  return dmsGuard("mfd_registerFormat", MFD_ERR_INVALID_PARAM, [&] {
    std::unique_lock lock(gs_mfdRegistryLock);
    mfdInstanceState *state = stateOf(handle);
    if (state == nullptr) return DMS_MFD_ERROR(MFD_ERR_NO_INSTANCE);
    int32_t index = getFormatIndex(formatId);
    row->detect = gpa_f_mfdMediaFormatCallBack[index];
    auto node = std::make_unique<mfdFormatNode>(mfdFormatNode{
        row->formatId, row->extension, row->priority, row->localBufSize, row->detect, nullptr});
    mfdFormatNode *added = node.get();
    linkNode(*state, std::move(node));
    row->next = rowOf(added->next.get());
    ga_s_mfdObjectTable[index] = {formatId, added};
    return 0;
  });
}

int32_t mfd_unregisterFormat(mfdInstance *handle, uint32_t formatId) {
  if (handle == nullptr) return DMS_MFD_ERROR(MFD_ERR_NO_INSTANCE);
  if (formatId >= MFD_FORMAT_COUNT) return DMS_MFD_ERROR(MFD_ERR_UNSUPPORTED);
  return dmsGuard("mfd_unregisterFormat", MFD_ERR_INVALID_PARAM, [&] {
    std::unique_lock lock(gs_mfdRegistryLock);
    mfdInstanceState *state = stateOf(handle);
    if (state == nullptr) return DMS_MFD_ERROR(MFD_ERR_NO_INSTANCE);
    mfdMediaProfileTag *row = rowOf(formatId);
    if (row == nullptr || row->detect == nullptr || !unlinkNode(*state, formatId)) {
      return DMS_MFD_ERROR(MFD_ERR_NOT_REGISTERED);
    }
    // Another node of the id (registered twice, e.g. through a second
    // instance) keeps the format registered.
    mfdFormatNode *remaining = findNode(formatId);
    int32_t index = getFormatIndex(formatId);
    ga_s_mfdObjectTable[index] = {remaining != nullptr ? formatId : 0, remaining};
    if (remaining == nullptr) {
      row->detect = nullptr;
      row->next = nullptr;
    }
    return 0;
  });
}

int32_t mfd_closeInstance(mfdInstance *handle) {
  if (handle == nullptr) return DMS_MFD_ERROR(MFD_ERR_INVALID_PARAM);
  std::unique_ptr<mfdInstance> owned(handle);
  return dmsGuard("mfd_closeInstance", MFD_ERR_INVALID_PARAM, [&] {
    std::unique_lock lock(gs_mfdRegistryLock);
    mfdInstanceState *state = stateOf(handle);
    if (state != nullptr && --state->openCount > 0) return 0;
    clearRegistry();
    return 0;
  });
}

bool mfd_hasExcludedExtension(const char *path) {
  if (path == nullptr) return false;
  const char *dot = std::strrchr(path, '.');
  if (dot == nullptr) return false;
  return strcasecmp(dot + 1, "pcm") == 0 || strcasecmp(dot + 1, "wav") == 0 ||
         strcasecmp(dot + 1, "bmp") == 0;
}

int32_t mfd_detectMediaFormat(mfdInstance *handle, const char *path, mfdMediaInfo *info) {
  DMS_TRACE(OSAL_TRACE_INFO, "DETECTION for FILE %s\n", path != nullptr ? path : "(null)");
  if (info == nullptr) return DMS_MFD_ERROR(MFD_ERR_INVALID_PARAM);
  *info = mfdMediaInfo{};
  if (handle == nullptr || path == nullptr) {
    clearUnrecognised(info);
    return DMS_MFD_ERROR(MFD_ERR_INVALID_PARAM);
  }
  OpenFile file(path);
  struct stat status {};
  int32_t result = MFD_ERR_FILE;
  DetectorFindings findings{};
  if (file.fd() < 0) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s() for opening file %s \n", MFD_ERR_FILE,
              "osal_open", path);
  } else if (::fstat(file.fd(), &status) != 0) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", errno, "osal_fstat");
    status = {};
  } else {
    result = dmsGuardRecover(
        "mfd_detectMediaFormat", MFD_ERR_INVALID_PARAM,
        [&] { return runDetectors(handle, file.fd(), path, info, findings); },
        [&] {
          mfd_getDataDeInit();
          *info = mfdMediaInfo{};
        });
  }
  info->fileSize = status.st_size;
  info->dataOffset = 0;
  info->modificationTime = status.st_mtime;
  if (info->formatId == MFD_FORMAT_NONE) {
    clearUnrecognised(info);
  } else {
    completeRecord(file.fd(), info, findings, status.st_size);
  }
  return result;
}

// File system monitor: one inotify instance per content list, a watch on
// every container, and its own map of watch descriptors back to entries.
//
// The monitor's records are changed under the content list's exclusive lock
// (dmsFsmAddToMointor and dmsFsmRemoveFromMointor are called while a scan is
// attached or an entry is freed).  One thread (fsmMonitorThread) reads the
// events, from start to stop; it holds the list's change mutex while it
// handles one event, and looks the watched folder up under the read lock.
#ifndef DMS_CONTENT_DMS_FSM_API_H
#define DMS_CONTENT_DMS_FSM_API_H

#include <sys/inotify.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <unordered_map>

struct dmsContentListInfo;
struct dmsContentEntry;

// Event kinds handed to the change handler.
inline constexpr uint32_t FSM_EVENT_FILE_WRITTEN = 1;
inline constexpr uint32_t FSM_EVENT_CHILD_DELETED = 2;
inline constexpr uint32_t FSM_EVENT_FOLDER_CREATED = 4;
inline constexpr uint32_t FSM_EVENT_FOLDER_GONE = 5;
inline constexpr uint32_t FSM_EVENT_RESCAN = 6;  // events were lost: bring the list back to the disk

// Events every container is watched for.
inline constexpr uint32_t DMS_FSM_WATCH_MASK = IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO |
                                               IN_CREATE | IN_DELETE | IN_DELETE_SELF |
                                               IN_MOVE_SELF;

// Change handler: (list, watched container, affected entry or NULL, name, kind).
using dmsFsmNotificationHandler = int32_t (*)(dmsContentListInfo *list, dmsContentEntry *container,
                                              dmsContentEntry *entry, const char *name,
                                              uint32_t kind);

struct dmsFsmMonitor {
  int inotifyDescriptor = -1;
  int wakeDescriptor = -1;  // an eventfd: a stop request wakes the thread through it
  std::atomic<bool> stopRequest{false};
  dmsFsmNotificationHandler handler = nullptr;  // set before the thread starts
  std::thread thread;
  dmsContentEntry *root = nullptr;
  dmsContentListInfo *owner = nullptr;  // borrowed: the list outlives its monitor
  // Watched containers by watch descriptor (the list's exclusive lock to
  // change, shared to read).
  std::unordered_map<int32_t, dmsContentEntry *> watched;

  dmsFsmMonitor() = default;
  dmsFsmMonitor(const dmsFsmMonitor &) = delete;
  dmsFsmMonitor &operator=(const dmsFsmMonitor &) = delete;
};

// 0; -100 for a NULL out; -97 no memory; -96 when inotify is not available.
int32_t dmsFsmInit(dmsFsmMonitor **out, dmsContentListInfo *owner);
// Closes the inotify instance (every watch with it) and releases the record.
int32_t dmsFsmDeinit(dmsFsmMonitor *monitor);
// Remembers the root and the handler and starts the monitor thread; -100 for
// a NULL monitor or root, -95 when the thread cannot be started.
int32_t dmsFsmStartMonitor(dmsFsmMonitor *monitor, dmsContentEntry *root,
                           dmsFsmNotificationHandler handler);
// Stops the thread (within half a second) and forgets root and handler;
// -100 for NULL.
int32_t dmsFsmStopMonitor(dmsFsmMonitor *monitor);
// The watched container of `wd`, or NULL (read lock held).
dmsContentEntry *dmsFsmWatchedEntry(const dmsFsmMonitor *monitor, int32_t wd);
// Watches the container's folder and enters it in the watch map; 0 also when the watch cannot be added (traced).
int32_t dmsFsmAddToMointor(dmsFsmMonitor *monitor, dmsContentEntry *container);
// Removes the watch and its map entry; the descriptor becomes -1.
int32_t dmsFsmRemoveFromMointor(dmsFsmMonitor *monitor, dmsContentEntry *container);

#endif  // DMS_CONTENT_DMS_FSM_API_H

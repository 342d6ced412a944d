#include "content/dmsFsmApi.h"

#include <unistd.h>

#include <cerrno>
#include <memory>
#include <new>

#include "content/dmsClmApi.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsFsmApi";

int32_t dmsFsmInit(dmsFsmMonitor **out, dmsContentListInfo *owner) {
  if (out == nullptr) return DMS_ERR_INVALID_PARAM;
  *out = nullptr;
  std::unique_ptr<dmsFsmMonitor> monitor;
  try {
    monitor = std::make_unique<dmsFsmMonitor>();
  } catch (const std::bad_alloc &) {
    return DMS_ERR_NO_MEMORY;
  }
  monitor->inotifyDescriptor = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (monitor->inotifyDescriptor < 0) return -96;
  DMS_TRACE(OSAL_TRACE_INFO, "Monitor FD: [%d]\n", monitor->inotifyDescriptor);
  monitor->owner = owner;
  *out = monitor.release();
  return DMS_SUCCESS;
}

int32_t dmsFsmDeinit(dmsFsmMonitor *monitor) {
  if (monitor == nullptr) return DMS_ERR_INVALID_PARAM;
  std::unique_ptr<dmsFsmMonitor> owned(monitor);
  if (owned->inotifyDescriptor >= 0) ::close(owned->inotifyDescriptor);
  return DMS_SUCCESS;
}

int32_t dmsFsmStartMonitor(dmsFsmMonitor *monitor, dmsContentEntry *root,
                           dmsFsmNotificationHandler handler) {
  if (monitor == nullptr || root == nullptr) return DMS_ERR_INVALID_PARAM;
  monitor->root = root;
  monitor->handler = handler;
  return DMS_SUCCESS;
}

int32_t dmsFsmStopMonitor(dmsFsmMonitor *monitor) {
  if (monitor == nullptr) return DMS_ERR_INVALID_PARAM;
  monitor->handler = nullptr;
  monitor->root = nullptr;
  return DMS_SUCCESS;
}

int32_t dmsFsmAddToMointor(dmsFsmMonitor *monitor, dmsContentEntry *container) {
  if (monitor == nullptr || container == nullptr) return DMS_ERR_INVALID_PARAM;
  int wd = inotify_add_watch(monitor->inotifyDescriptor, container->path.c_str(), DMS_FSM_WATCH_MASK);
  if (wd < 0) {
    // Over the kernel's watch limit the folder is still shared, only not
    // followed; it stays out of the tree so no event can name it.
    DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", errno, "inotify_add_watch");
    return DMS_SUCCESS;
  }
  DMS_TRACE(OSAL_TRACE_INFO, "Added Path [%s] for monitoring :: WatchDesc [%d]\n",
            container->path.c_str(), wd);
  container->watchDescriptor = wd;
  if (monitor->owner != nullptr) {
    // A folder reached twice (through a link) has one watch: it stays with
    // the entry that took it first.
    void *holder = nullptr;
    cel_rbTreeLookup(&monitor->owner->entriesByWd, container, &holder);
    if (holder != nullptr && holder != container) {
      container->watchDescriptor = -1;
      return DMS_SUCCESS;
    }
    int32_t result = cel_rbTreeInsert(&monitor->owner->entriesByWd, container);
    if (result != 0) DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", result, "cel_rbTreeInsert");
  }
  return DMS_SUCCESS;
}

int32_t dmsFsmRemoveFromMointor(dmsFsmMonitor *monitor, dmsContentEntry *container) {
  if (monitor == nullptr || container == nullptr) return DMS_ERR_INVALID_PARAM;
  if (container->watchDescriptor < 0) return DMS_SUCCESS;
  int result = inotify_rm_watch(monitor->inotifyDescriptor, container->watchDescriptor);
  if (result != 0) {
    // The kernel drops the watch by itself when the folder is deleted.
    DMS_TRACE(OSAL_TRACE_INFO, "Error [%d] in %s() for WD [%d], errno: [%d], FSM FD: [%d]\n", result,
              "inotify_rm_watch", container->watchDescriptor, errno, monitor->inotifyDescriptor);
  } else {
    DMS_TRACE(OSAL_TRACE_INFO, "Removed folder [%s] from monitoring :: WatchDesc [%d]\n",
              container->path.c_str(), container->watchDescriptor);
  }
  if (monitor->owner != nullptr) {
    void *removed = nullptr;
    cel_rbTreeDelete(&monitor->owner->entriesByWd, container, &removed);
    if (removed != nullptr && removed != container) {
      DMS_TRACE(OSAL_TRACE_ERR, "Error in Deleting Node from the Tree\n");
    }
  }
  container->watchDescriptor = -1;
  return DMS_SUCCESS;
}

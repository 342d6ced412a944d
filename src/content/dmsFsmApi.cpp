#include "content/dmsFsmApi.h"

#include <limits.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <cstdio>
#include <mutex>
#include <new>
#include <string>
#include <system_error>

#include "content/dmsClmApi.h"
#include "util/dmsGuard.h"
#include "util/dmsThreadName.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsFsmApi";

int32_t dmsFsmInit(dmsFsmMonitor **out, dmsContentListInfo *owner) {
  if (out == nullptr) return DMS_ERR_INVALID_PARAM;
  *out = nullptr;
  return dmsGuard("dmsFsmInit", DMS_ERR_NO_MEMORY, [&]() -> int32_t {
    auto monitor = std::make_unique<dmsFsmMonitor>();
    monitor->inotifyDescriptor = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (monitor->inotifyDescriptor < 0) return -96;
    monitor->wakeDescriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (monitor->wakeDescriptor < 0) {
      ::close(monitor->inotifyDescriptor);
      return -96;
    }
    DMS_TRACE(OSAL_TRACE_INFO, "Monitor FD: [%d]\n", monitor->inotifyDescriptor);
    monitor->owner = owner;
    *out = monitor.release();
    return DMS_SUCCESS;
  });
}

int32_t dmsFsmDeinit(dmsFsmMonitor *monitor) {
  if (monitor == nullptr) return DMS_ERR_INVALID_PARAM;
  std::unique_ptr<dmsFsmMonitor> owned(monitor);
  if (owned->inotifyDescriptor >= 0) ::close(owned->inotifyDescriptor);
  if (owned->wakeDescriptor >= 0) ::close(owned->wakeDescriptor);
  return DMS_SUCCESS;
}

namespace {

// The watched container of `wd`, looked up under the read lock.  The caller
// holds the change mutex, so the entry stays valid after the lock goes.
dmsContentEntry *watchedContainer(dmsFsmMonitor *monitor, int wd) {
  auto reading = dmsClmReadLock(monitor->owner);
  dmsContentEntry *container = nullptr;
  if (dmsClmGetContentEntryByFsmWd(monitor->owner, &container, wd) != 0) return nullptr;
  return container;
}

// A file that is whole the moment its name appears: a hard link to a file
// that had a name already, or a symbolic link.  Anything else is taken in
// when it is closed after writing.
bool isCompleteOnCreation(const dmsContentEntry *container, const char *name) {
  struct stat status {};
  const std::string path = dmsClmEntryPath(container) + "/" + name;
  if (::lstat(path.c_str(), &status) != 0) return false;
  return S_ISLNK(status.st_mode) || (S_ISREG(status.st_mode) && status.st_nlink > 1);
}

// Classifies one event and hands it to the change handler.  Moves are a
// removal at the old place and an addition at the new one; a watched folder
// that is deleted, moved away or unmounted is gone.
void handleEvent(dmsFsmMonitor *monitor, const inotify_event &event) {
  const uint32_t mask = event.mask;
  dmsContentListInfo *list = monitor->owner;
  std::lock_guard changing(list->changeMutex);
  if (mask & IN_Q_OVERFLOW) {
    DMS_TRACE(OSAL_TRACE_WARN, "Events were lost: rescanning the shared folders\n");
    monitor->handler(list, nullptr, nullptr, nullptr, FSM_EVENT_RESCAN);
    return;
  }
  if (mask & IN_IGNORED) return;
  const char *name = event.len > 0 ? event.name : nullptr;
  DMS_TRACE(OSAL_TRACE_INFO, "FSM-EVENT: Path: [%s], WatchDesc [%d], Mask: [0x%08x]\n",
            name != nullptr ? name : "", event.wd, mask);
  dmsContentEntry *container = watchedContainer(monitor, event.wd);
  if (container == nullptr) {
    DMS_TRACE(OSAL_TRACE_WARN, "WD [%d] already removed from monitoring and already its deletion is notified\n",
              event.wd);
    return;
  }
  const bool folder = (mask & IN_ISDIR) != 0;
  if (mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT)) {
    monitor->handler(list, container->parent, container, name, FSM_EVENT_FOLDER_GONE);
  } else if (name == nullptr) {
    return;
  } else if (mask & (IN_CREATE | IN_MOVED_TO) && folder) {
    monitor->handler(list, container, nullptr, name, FSM_EVENT_FOLDER_CREATED);
  } else if (mask & (IN_CLOSE_WRITE | IN_MOVED_TO) && !folder) {
    monitor->handler(list, container, nullptr, name, FSM_EVENT_FILE_WRITTEN);
  } else if (mask & IN_CREATE && !folder && isCompleteOnCreation(container, name)) {
    // A new link to an existing file is never written: it is taken in now.
    monitor->handler(list, container, nullptr, name, FSM_EVENT_FILE_WRITTEN);
  } else if (mask & (IN_DELETE | IN_MOVED_FROM)) {
    monitor->handler(list, container, nullptr, name, folder ? FSM_EVENT_FOLDER_GONE : FSM_EVENT_CHILD_DELETED);
  }
}

// Waits at most half a second at a time, so a stop request is seen soon, and
// reads whole events: the buffer holds many, each with a name of up to
// NAME_MAX bytes.
// Sleeps until the file system has news or a stop is requested: a device
// that shares a quiet folder is not woken for nothing.
void fsmMonitorThread(dmsFsmMonitor *monitor) {
  dmsNameThread("dms-monitor");
  alignas(inotify_event) char buffer[64 * (sizeof(inotify_event) + NAME_MAX + 1)];
  while (!monitor->stopRequest.load()) {
    pollfd readable[] = {{monitor->inotifyDescriptor, POLLIN, 0}, {monitor->wakeDescriptor, POLLIN, 0}};
    if (::poll(readable, 2, -1) <= 0 || (readable[0].revents & POLLIN) == 0) continue;
    const ssize_t got = ::read(monitor->inotifyDescriptor, buffer, sizeof buffer);
    for (ssize_t offset = 0; offset + static_cast<ssize_t>(sizeof(inotify_event)) <= got;) {
      const auto *event = reinterpret_cast<const inotify_event *>(buffer + offset);
      dmsGuardVoid("fsmMonitorThread", [&] { handleEvent(monitor, *event); });
      offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
}

}  // namespace

int32_t dmsFsmStartMonitor(dmsFsmMonitor *monitor, dmsContentEntry *root,
                           dmsFsmNotificationHandler handler) {
  if (monitor == nullptr || root == nullptr) return DMS_ERR_INVALID_PARAM;
  monitor->root = root;
  monitor->handler = handler;
  monitor->stopRequest = false;
  if (handler == nullptr || monitor->owner == nullptr || monitor->thread.joinable()) return DMS_SUCCESS;
  // A thread the system refuses (std::system_error) is DMS_ERR_SYNC.
  return dmsGuard("dmsFsmStartMonitor", DMS_ERR_SYNC, [&] {
    monitor->thread = std::thread(fsmMonitorThread, monitor);
    return DMS_SUCCESS;
  });
}

int32_t dmsFsmStopMonitor(dmsFsmMonitor *monitor) {
  if (monitor == nullptr) return DMS_ERR_INVALID_PARAM;
  monitor->stopRequest = true;
  if (monitor->thread.joinable()) {
    const uint64_t one = 1;
    // Cannot fail short of a counter at its top, which a stop cannot reach.
    [[maybe_unused]] const ssize_t woken = ::write(monitor->wakeDescriptor, &one, sizeof one);
    monitor->thread.join();
    uint64_t drained = 0;  // a later start sleeps again
    [[maybe_unused]] const ssize_t read = ::read(monitor->wakeDescriptor, &drained, sizeof drained);
  }
  monitor->handler = nullptr;
  monitor->root = nullptr;
  return DMS_SUCCESS;
}

int32_t dmsFsmAddToMointor(dmsFsmMonitor *monitor, dmsContentEntry *container) {
  if (monitor == nullptr || container == nullptr || container->container() == nullptr) return DMS_ERR_INVALID_PARAM;
  int32_t &watchDescriptor = container->container()->watchDescriptor;
  const std::string path = dmsClmEntryPath(container);
  int wd = inotify_add_watch(monitor->inotifyDescriptor, path.c_str(), DMS_FSM_WATCH_MASK);
  if (wd < 0) {
    // Over the kernel's watch limit the folder is still shared, only not
    // followed; it stays out of the tree so no event can name it.
    DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", errno, "inotify_add_watch");
    return DMS_SUCCESS;
  }
  DMS_TRACE(OSAL_TRACE_INFO, "Added Path [%s] for monitoring :: WatchDesc [%d]\n",
            path.c_str(), wd);
  // A folder reached twice (through a link) has one watch: it stays with
  // the entry that took it first.
  watchDescriptor = monitor->watched.try_emplace(wd, container).first->second == container ? wd : -1;
  return DMS_SUCCESS;
}

int32_t dmsFsmRemoveFromMointor(dmsFsmMonitor *monitor, dmsContentEntry *container) {
  if (monitor == nullptr || container == nullptr || container->container() == nullptr) return DMS_ERR_INVALID_PARAM;
  int32_t &watchDescriptor = container->container()->watchDescriptor;
  if (watchDescriptor < 0) return DMS_SUCCESS;
  int result = inotify_rm_watch(monitor->inotifyDescriptor, watchDescriptor);
  if (result != 0) {
    // The kernel drops the watch by itself when the folder is deleted.
    DMS_TRACE(OSAL_TRACE_INFO, "Error [%d] in %s() for WD [%d], errno: [%d], FSM FD: [%d]\n", result,
              "inotify_rm_watch", watchDescriptor, errno, monitor->inotifyDescriptor);
  } else {
    DMS_TRACE(OSAL_TRACE_INFO, "Removed folder [%s] from monitoring :: WatchDesc [%d]\n",
              container->path.c_str(), watchDescriptor);
  }
  monitor->watched.erase(watchDescriptor);
  watchDescriptor = -1;
  return DMS_SUCCESS;
}

dmsContentEntry *dmsFsmWatchedEntry(const dmsFsmMonitor *monitor, int32_t wd) {
  if (monitor == nullptr) return nullptr;
  const auto found = monitor->watched.find(wd);
  return found == monitor->watched.end() ? nullptr : found->second;
}

// The state folder: the persistent index that keeps object ids and what
// detection found across runs (src/index).  Named before create, since
// create scans the folders and the scan is what the index makes fast.
#include <memory>
#include <mutex>
#include <string>

#include "api/dlna_dmsApi.h"
#include "facts/dmsFacts.h"
#include "index/dmsIndexKeeper.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dlna_dmsApi";

namespace {

// The folder the next create uses ("" none); the host's threads may set it.
std::mutex g_stateMutex;
std::string g_stateFolder;

}  // namespace

void dmsStateOpen(dmsHandle *handle) {
  std::string folder;
  {
    std::lock_guard naming(g_stateMutex);
    folder = g_stateFolder;
  }
  std::unique_ptr<dmsIndexStore> store = folder.empty() ? nullptr : dmsIndexStore::open(folder);
  // NULL: traced, and the server runs without.
  if (store != nullptr) handle->index = std::make_unique<dmsIndexKeeper>(std::move(store)).release();  // owned
  dmsIndexStore *kept = handle->index != nullptr ? &handle->index->store() : nullptr;
  handle->facts = std::make_unique<dmsFacts>(kept).release();  // owned by the handle
}

dmsClmRecall *dmsStateRecall(dmsHandle *handle) { return handle->index; }

void dmsStateFollow(dmsHandle *handle) {
  dmsIndexKeeper *keeper = handle->index;
  dmsContentListInfo *list = handle->contentList;
  if (keeper == nullptr || list == nullptr) return;
  const int32_t written = dmsGuard("dmsStateFollow", DMS_ERR_NO_MEMORY, [&] {
    std::lock_guard changing(list->changeMutex);
    keeper->writeAll(*list);
    return DMS_SUCCESS;
  });
  if (written != DMS_SUCCESS) DMS_TRACE(OSAL_TRACE_ERR, "The index could not take the list\n");
  handle->indexListener = dmsClmAddListener(list, [keeper, list](const dmsClmChangeSet &change) {
    return dmsGuard("dmsStateFollow listener", DMS_ERR_NO_MEMORY, [&] {
      keeper->follow(*list, change);
      return DMS_SUCCESS;
    });
  });
}

void dmsStateRelease(dmsHandle *handle) {
  std::unique_ptr<dmsFacts> facts(handle->facts);  // they borrow the index's store
  handle->facts = nullptr;
  if (handle->contentList != nullptr && handle->indexListener != 0) {
    dmsClmRemoveListener(handle->contentList, handle->indexListener);
  }
  handle->indexListener = 0;
  if (handle->contentList != nullptr && handle->index != nullptr) {
    std::lock_guard changing(handle->contentList->changeMutex);
    handle->contentList->recall = nullptr;
  }
  std::unique_ptr<dmsIndexKeeper> keeper(handle->index);  // its store writes what is queued
  handle->index = nullptr;
}

extern "C" DMS_EXPORT int32_t dlna_dmsSetStateDir(dmsHandle *handle, const char *path) {
  if (handle != nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "The state folder is named before dlna_dmsCreate, with a NULL handle\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsApiGuard("dlna_dmsSetStateDir", [&] {
    std::lock_guard naming(g_stateMutex);
    g_stateFolder = path != nullptr ? path : "";
    return DMS_SUCCESS;
  });
}

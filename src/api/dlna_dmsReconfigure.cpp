// Changing a running server: restart, a new friendly name, adding and
// removing a shared folder.  Every change ends in a full stop and start of
// the device, so that control points fetch the new description and content.
#include <cstdlib>
#include <cstring>
#include <string>

#include "api/dlna_dmsApi.h"
#include "content/dmsClmApi.h"
#include "content/dmsClmChange.h"
#include "content/dmsFsmApi.h"
#include "util/osal_trace.h"

namespace {

constexpr char kTraceFile[] = "dlna_dmsApi.c";
constexpr size_t kMaxFriendlyName = 256;

int32_t readState(dmsHandle *handle) {
  pthread_mutex_lock(&handle->mutex);
  int32_t state = handle->state;
  pthread_mutex_unlock(&handle->mutex);
  return state;
}

int32_t restartServer(dmsHandle *handle) {
  if (readState(handle) != DMS_STATE_STARTED) {
    DMS_TRACE(OSAL_TRACE_ERR, "DMS Not Started Yet\n");
    return DMS_ERR_NOT_STARTED;
  }
  DMS_TRACE(OSAL_TRACE_INFO, "DMS Stopping... \n");
  int32_t result = dlna_dmsStop(handle);
  if (result != DMS_SUCCESS) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", result, "dlna_dmsStop()");
    return result;
  }
  DMS_TRACE(OSAL_TRACE_INFO, "DMS Stopped. \n");
  DMS_TRACE(OSAL_TRACE_INFO, "DMS Starting... \n");
  result = dlna_dmsStart(handle);
  if (result != DMS_SUCCESS) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", result, "dlna_dmsStart()");
    return result;
  }
  DMS_TRACE(OSAL_TRACE_INFO, "DMS Started \n");
  return DMS_SUCCESS;
}

// Every change ends in a restart; its failure is the change's.
int32_t restartAfterChange(dmsHandle *handle) {
  int32_t result = restartServer(handle);
  if (result != DMS_SUCCESS) DMS_TRACE(OSAL_TRACE_ERR, "Error while Restarting the DMS \n");
  return result;
}

int32_t renameServer(dmsHandle *handle, const char *friendlyName) {
  std::snprintf(handle->config.friendlyName, sizeof handle->config.friendlyName, "%s", friendlyName);
  char *description = nullptr;
  int32_t result = dmsFormatDeviceDescription(handle, &description);
  if (result != DMS_SUCCESS) return result;
  std::free(handle->description);
  handle->description = description;
  return restartAfterChange(handle);
}

int32_t addSharedPath(dmsHandle *handle, char *newSharedPath) {
  int32_t result = dmsClmAddToContentList(handle->contentList, newSharedPath);
  if (result != DMS_SUCCESS) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", result, "dmsClmCreateContentList");
    return result;
  }
  return restartAfterChange(handle);
}

int32_t deleteSharedPath(dmsHandle *handle, const char *sharedPath) {
  dmsClmRemoveFromContentList(handle->contentList, sharedPath);
  return restartAfterChange(handle);
}

// Allows or refuses links out of the shares, and brings the list to the
// disk under the new rule at once (as after lost events): what a link out
// leads to comes or goes, everything else keeps its id.
int32_t setWideLinks(dmsHandle *handle, bool enabled) {
  dmsContentListInfo *list = handle->contentList;
  std::lock_guard changing(list->changeMutex);
  if (list->wideLinks.exchange(enabled) == enabled) return DMS_SUCCESS;
  return clmFsmNotificationCallBack(list, nullptr, nullptr, nullptr, FSM_EVENT_RESCAN);
}

}  // namespace

extern "C" DMS_EXPORT int32_t dlna_dmsSetWideLinks(dmsHandle *handle, int32_t enabled) {
  if (handle == nullptr || handle->contentList == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Parameters\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsApiGuard("dlna_dmsSetWideLinks", [&] { return setWideLinks(handle, enabled != 0); });
}

extern "C" DMS_EXPORT int32_t dlna_dmsRestart(dmsHandle *handle) {
  if (handle == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Parameters\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsApiGuard("dlna_dmsRestart", [&] { return restartServer(handle); });
}

extern "C" DMS_EXPORT int32_t dlna_dmsUpdateFriendlyName(dmsHandle *handle, const char *friendlyName) {
  if (handle == nullptr || friendlyName == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Parameters\n");
    return DMS_ERR_INVALID_PARAM;
  }
  if (std::strlen(friendlyName) > kMaxFriendlyName) {
    DMS_TRACE(OSAL_TRACE_ERR, "Friendly Name should not exceed %d characters\n", static_cast<int>(kMaxFriendlyName));
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsApiGuard("dlna_dmsUpdateFriendlyName", [&] { return renameServer(handle, friendlyName); });
}

extern "C" DMS_EXPORT int32_t dlna_dmsAddSharedPath(dmsHandle *handle, char *newSharedPath) {
  if (handle == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Parameters: p_s_dmsHandle\n");
    return DMS_ERR_INVALID_PARAM;
  }
  if (newSharedPath == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Parameters: p_ch_newSharedPath\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsApiGuard("dlna_dmsAddSharedPath", [&] { return addSharedPath(handle, newSharedPath); });
}

extern "C" DMS_EXPORT int32_t dlna_dmsDeleteSharedPath(dmsHandle *handle, const char *sharedPath) {
  if (handle == nullptr || sharedPath == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Parameters\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsApiGuard("dlna_dmsDeleteSharedPath", [&] { return deleteSharedPath(handle, sharedPath); });
}

// The views beside the folders (views/dmsViews.h): switched by the host,
// following the content list through its one listener, and shown by the
// ContentDirectory.
#include <memory>
#include <mutex>
#include <vector>

#include "api/dlna_dmsApi.h"
#include "facts/dmsFacts.h"
#include "services/dmsCdsMgrApi.h"
#include "util/osal_trace.h"
#include "views/dmsViews.h"

static constexpr char kTraceFile[] = "dlna_dmsApi";

namespace {

// Switches the views under the list's change mutex, so that no change is
// half followed.  Switched on, they are made anew from the list as it is;
// switched off, they stay allocated (a Browse in flight may still read
// them) until destroy.
int32_t setViews(dmsHandle *handle, bool on) {
  std::lock_guard changing(handle->contentList->changeMutex);
  if (on) {
    if (handle->views == nullptr) handle->views = std::make_unique<dmsViews>(handle->contentList).release();
    handle->views->rebuild();
  }
  handle->viewsOn = on ? 1 : 0;
  if (handle->cdsContext != nullptr) {
    handle->cdsContext->views.store(on ? handle->views : nullptr, std::memory_order_release);
  }
  return DMS_SUCCESS;
}

}  // namespace

int32_t dmsFollowContentChange(dmsHandle *handle, const dmsClmChangeSet &change) {
  std::vector<uint32_t> pairs;
  const int32_t followed = dmsGuard("dmsFollowContentChange", DMS_ERR_NO_MEMORY, [&] {
    pairs.assign(change.pairs, change.pairs + 2 * static_cast<size_t>(change.pairCount));
    if (handle->viewsOn && handle->views != nullptr) handle->views->apply(change, pairs);
    if (handle->facts != nullptr && change.freedItems != nullptr) handle->facts->forget(*change.freedItems);
    return DMS_SUCCESS;
  });
  if (followed != DMS_SUCCESS) DMS_TRACE(OSAL_TRACE_ERR, "The views could not follow a change\n");
  if (pairs.empty()) return DMS_SUCCESS;
  dmsCdsContentChangeInfo info;
  info.pairs = pairs.data();
  info.pairCount = static_cast<int32_t>(pairs.size() / 2);
  info.systemUpdateId = static_cast<int32_t>(change.systemUpdateId);
  const int32_t result = dmsCdsMgrNotifyContentChange(handle->cdsContext, &info);
  if (result != 0) DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", result, "dmsCdsMgrNotifyContentChange");
  return result;
}

void dmsViewsRelease(dmsHandle *handle) {
  std::unique_ptr<dmsViews> views(handle->views);
  handle->views = nullptr;
  handle->viewsOn = 0;
}

extern "C" DMS_EXPORT int32_t dlna_dmsSetViews(dmsHandle *handle, int32_t enabled) {
  if (handle == nullptr || handle->contentList == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Parameters\n");
    return DMS_ERR_INVALID_PARAM;
  }
  if (enabled != 0 && !dmsFeatureBuilt("views")) {
    DMS_TRACE(OSAL_TRACE_INFO, "This build has no views\n");  // the result says so
    return DMS_ERR_UNSUPPORTED_ACTION;
  }
  return dmsApiGuard("dlna_dmsSetViews", [&] { return setViews(handle, enabled != 0); });
}

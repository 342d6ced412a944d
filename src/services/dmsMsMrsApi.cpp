// Media receiver registrar service: instance life cycle and state variables.
#include "services/dmsMsMrsApi.h"

#include <atomic>
#include <memory>

#include "dlna_dms.h"
#include "services/dmsMsMrsEventHandler.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsMsMrsApi";

// Instance numbers start at 100 and are never given back.
static std::atomic<int32_t> gs_s32_MsMrsInstanceId{100};

// Nothing is ever authorised or revoked, so the update ids stay "0".
static const dmsStateVarPair gs_a_dmsMsMrsStatVarList[] = {
    // name                             value
    {"AuthorizationGrantedUpdateID",    "0"},
    {"AuthorizationDeniedUpdateID",     "0"},
    {"ValidationSucceededUpdateID",     "0"},
    {"ValidationRevokedUpdateID",       "0"},
    {nullptr,                           nullptr},
};

int32_t dmsMsMrsInit(dmsMsMrsInstance **out, dmsDevEventMgr *mgr) {
  if (out == nullptr || mgr == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Null argument\n");
    return DMS_ERR_INVALID_PARAM;
  }
  *out = nullptr;
  return dmsGuard("dmsMsMrsInit", DMS_ERR_NO_MEMORY, [&]() -> int32_t {
    auto instance = std::make_unique<dmsMsMrsInstance>();
    instance->instanceId = gs_s32_MsMrsInstanceId.fetch_add(1);
    instance->eventMgr = mgr;
    int32_t rc = dmsDevEventMgrRegisterMsMrsEventCallback(
        mgr, instance.get(), dmsMsMrsActionRequestCbf, dmsMsMrsStateVariableRequestCbf);
    if (rc != DMS_SUCCESS) {
      DMS_TRACE(OSAL_TRACE_ERR, "%s%d\n", "MsMrs Event Manager Register failed, ErrorCode::", rc);
      return rc;  // the instance is released here, nothing refers to it
    }
    *out = instance.release();
    return DMS_SUCCESS;
  });
}

int32_t dmsMsMrsDeInit(dmsMsMrsInstance *instance) {
  if (instance == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Null argument\n");
    return DMS_ERR_INVALID_PARAM;
  }
  int32_t rc = dmsDevEventMgrUnRegisterMsMrsEventCallback(instance->eventMgr);
  if (rc != DMS_SUCCESS) {
    DMS_TRACE(OSAL_TRACE_ERR, "%s%d\n", "MsMrs Event Manager Un-Register failed, ErrorCode::",
              rc);
    return rc;
  }
  std::unique_ptr<dmsMsMrsInstance> owner(instance);
  return DMS_SUCCESS;
}

const dmsStateVarPair *dmsMsMrsGetStateVariableListInfo() { return gs_a_dmsMsMrsStatVarList; }

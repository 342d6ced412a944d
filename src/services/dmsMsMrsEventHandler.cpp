// Media receiver registrar action and state-variable callbacks.
#include "services/dmsMsMrsEventHandler.h"

#include <cstring>

#include "services/dmsActionRequest.h"

#include "dlna_dms.h"
#include "services/dmsMsMrsApi.h"
#include "services/dmsMsMrsRequestHandler.h"
#include "services/dmsMsMrsResponseHandler.h"
#include "services/dmsServiceCommon.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsMsMrsEventHandler";

namespace {

// Responses name the service id with ":1" appended as their service type,
// not the type of the device description; the established answers do so.
constexpr char kMsMrsResponseServiceType[] =
    "urn:microsoft.com:serviceId:X_MS_MediaReceiverRegistrar:1";

using dmsMsMrsRequestAnalyzer = int32_t (*)(dmsActionRequest *, dmsMsMrsInstance *);
using dmsMsMrsResponseCreator = int32_t (*)(dmsMsMrsActionResponse *, dmsMsMrsInstance *);

struct dmsMsMrsAction {
  const char *actionName;
  dmsMsMrsRequestAnalyzer analyzer;
  dmsMsMrsResponseCreator creator;
};

}  // namespace

static const dmsMsMrsAction gs_a_dmsMsMrsActionList[] = {
    // action name        request analyser                     response creator
    {"IsAuthorized",      dmsMsMrsAnalyzeReqIsAuthorized,      dmsMsMrsCreateRespIsAuthorized},
    {"RegisterDevice",    dmsMsMrsAnalyzeReqRegisterDevice,    dmsMsMrsCreateRespRegisterDevice},
    {"IsValidated",       dmsMsMrsAnalyzeReqIsValidated,       dmsMsMrsCreateRespIsValidated},
    {nullptr,             nullptr,                             nullptr},
};

static const dmsMsMrsAction *findAction(const char *actionName) {
  for (const dmsMsMrsAction *row = gs_a_dmsMsMrsActionList; row->actionName != nullptr; ++row) {
    if (std::strcmp(row->actionName, actionName) == 0) return row;
  }
  return nullptr;
}

static int32_t runAction(dmsActionRequest *request, dmsMsMrsInstance *registrar) {
  if (std::strcmp(request->serviceId, DMS_MSMRS_SERVICE_ID) != 0) {
    // Same wording as the ConnectionManager's refusal.
    DMS_TRACE(OSAL_TRACE_ERR, "Service ID not Connection Management Service\n");
    return DMS_ERR_WRONG_SERVICE;
  }
  const dmsMsMrsAction *action = findAction(request->actionName);
  if (action == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Unsupported Action Name\n");
    return DMS_ERR_UNSUPPORTED_ACTION;
  }

  int32_t rc = action->analyzer(request, registrar);
  if (rc != DMS_SUCCESS) {
    DMS_TRACE(OSAL_TRACE_ERR, "Request analyzer failed \n");
    return rc;
  }
  dmsMsMrsActionResponse response;
  if (action->creator(&response, registrar) != DMS_SUCCESS) {
    DMS_TRACE(OSAL_TRACE_ERR, "Response Creator failed \n");
    return DMS_ERR_WRONG_SERVICE;
  }
  return dmsServiceAddResponseArguments(registrar->eventMgr, request, kMsMrsResponseServiceType,
                                        response.argNames, response.argValues, response.count,
                                        kTraceFile, __func__);
}

int32_t dmsMsMrsActionRequestCbf(void *sdkRequest, void *serviceContext) {
  if (sdkRequest == nullptr || serviceContext == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Null argument\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsGuard("dmsMsMrsActionRequestCbf", DMS_ERR_NO_MEMORY, [&] {
    return runAction(static_cast<dmsActionRequest *>(sdkRequest),
                     static_cast<dmsMsMrsInstance *>(serviceContext));
  });
}

int32_t dmsMsMrsStateVariableRequestCbf(void *sdkRequest, void *serviceContext) {
  if (sdkRequest == nullptr || serviceContext == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Null argument\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsServiceAnswerStateVarQuery(static_cast<dmsStateVarRequest *>(sdkRequest),
                                       dmsMsMrsGetStateVariableListInfo(), kTraceFile, __func__);
}

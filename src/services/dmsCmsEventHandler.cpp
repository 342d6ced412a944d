// ConnectionManager action and state-variable callbacks.
#include "services/dmsCmsEventHandler.h"

#include <cstring>

#include "services/dmsActionRequest.h"

#include "dlna_dms.h"
#include "services/dmsCmsApi.h"
#include "services/dmsCmsRequestHandler.h"
#include "services/dmsCmsResponseHandler.h"
#include "services/dmsServiceCommon.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsCmsEventHandler";

namespace {

constexpr char kCmsServiceType[] = "urn:schemas-upnp-org:service:ConnectionManager:1";

using dmsCmsRequestAnalyzer = int32_t (*)(dmsActionRequest *, dmsCmsActionArgument *,
                                          dmsCmsInstance *);
using dmsCmsResponseCreator = int32_t (*)(const dmsCmsActionArgument *, dmsCmsActionResponse *,
                                          dmsCmsInstance *);

struct dmsCmsAction {
  const char *actionName;
  dmsCmsRequestAnalyzer analyzer;
  dmsCmsResponseCreator creator;
};

}  // namespace

static const dmsCmsAction gs_a_dmsCmsActionList[] = {
    // action name                 request analyser                    response creator
    {"GetProtocolInfo",            dmsCmsAnalyzeReqGetProtocolInfo,    dmsCmsCreateRespGetProtocolInfo},
    {"GetCurrentConnectionIDs",    dmsCmsAnalyzeReqGetConnectionIDs,   dmsCmsCreateRespGetConnectionIDs},
    {"GetCurrentConnectionInfo",   dmsCmsAnalyzeReqGetConnectionInfo,  dmsCmsCreateRespGetConnectionInfo},
    {nullptr,                      nullptr,                            nullptr},
};

static const dmsCmsAction *findAction(const char *actionName) {
  for (const dmsCmsAction *row = gs_a_dmsCmsActionList; row->actionName != nullptr; ++row) {
    if (std::strcmp(row->actionName, actionName) == 0) return row;
  }
  return nullptr;
}

static int32_t runAction(dmsActionRequest *request, dmsCmsInstance *cms) {
  if (std::strcmp(request->serviceId, DMS_CMS_SERVICE_ID) != 0) {
    DMS_TRACE(OSAL_TRACE_ERR, "Service ID not Connection Management Service\n");
    return DMS_ERR_WRONG_SERVICE;
  }
  const dmsCmsAction *action = findAction(request->actionName);
  if (action == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Unsupported Action Name\n");
    return DMS_ERR_UNSUPPORTED_ACTION;
  }

  dmsCmsActionArgument argument{};
  int32_t rc = action->analyzer(request, &argument, cms);
  if (rc != DMS_SUCCESS) {
    DMS_TRACE(OSAL_TRACE_ERR, "Request analyzer failed \n");
    return rc;
  }
  dmsCmsActionResponse response;
  if (action->creator(&argument, &response, cms) != DMS_SUCCESS) {
    DMS_TRACE(OSAL_TRACE_ERR, "Response Creator failed \n");
    return DMS_ERR_WRONG_SERVICE;
  }
  // `response` owns any built text until the answer holds its copy.
  return dmsServiceAddResponseArguments(cms->eventMgr, request, kCmsServiceType,
                                        response.argNames, response.argValues, response.count,
                                        kTraceFile, __func__);
}

int32_t dmsCmsActionRequestCbf(void *sdkRequest, void *serviceContext) {
  if (sdkRequest == nullptr || serviceContext == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Null argument\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsGuard("dmsCmsActionRequestCbf", DMS_ERR_NO_MEMORY, [&] {
    return runAction(static_cast<dmsActionRequest *>(sdkRequest),
                     static_cast<dmsCmsInstance *>(serviceContext));
  });
}

int32_t dmsCmsStateVariableRequestCbf(void *sdkRequest, void *serviceContext) {
  if (sdkRequest == nullptr || serviceContext == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Null argument\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsServiceAnswerStateVarQuery(static_cast<dmsStateVarRequest *>(sdkRequest),
                                       dmsCmsGetStateVariableListInfo(), kTraceFile, __func__);
}

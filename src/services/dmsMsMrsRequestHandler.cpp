// Media receiver registrar request analysers: nothing to read, every device
// is authorised and validated.
#include "services/dmsMsMrsRequestHandler.h"

#include "dlna_dms.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsMsMrsRequestHandler";

int32_t dmsMsMrsAnalyzeReqIsAuthorized(dmsActionRequest *request, dmsMsMrsInstance *context) {
  if (request == nullptr || context == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Null argument\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return DMS_SUCCESS;
}

int32_t dmsMsMrsAnalyzeReqRegisterDevice(dmsActionRequest *request, dmsMsMrsInstance *context) {
  if (request == nullptr || context == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Null argument\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return DMS_SUCCESS;
}

int32_t dmsMsMrsAnalyzeReqIsValidated(dmsActionRequest *request, dmsMsMrsInstance *context) {
  if (request == nullptr || context == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Null argument\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return DMS_SUCCESS;
}

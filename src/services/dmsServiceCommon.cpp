// Table walk and response loop common to the constant-answer services.
#include "services/dmsServiceCommon.h"

#include <cstring>

#include "dlna_dms.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsServiceCommon";

int32_t dmsServiceAnswerStateVarQuery(dmsStateVarRequest *request, const dmsStateVarPair *table,
                                      const char *traceFile, const char *functionName) {
  const char *traceAs = traceFile != nullptr ? traceFile : kTraceFile;
  const char *wanted = request->stateVarName;
  for (const dmsStateVarPair *row = table; row != nullptr && row->name != nullptr; ++row) {
    if (std::strcmp(row->name, wanted) == 0) {
      request->currentVal = row->value;
      request->hasValue = true;
      request->errCode = 0;
    }
  }
  // Every query ends as unsupported, also one that matched: the value stays
  // in the request, the error code and result say 404 / unsupported.
  osal_tracePrintf(OSAL_TRACE_ERR, functionName, traceAs, __LINE__, 0,
                   "Requested State Variable Name %s\n", wanted);
  request->errCode = 404;
  return DMS_ERR_UNSUPPORTED_STATE_VARIABLE;
}

int32_t dmsServiceAddResponseArguments(dmsDevEventMgr *mgr, dmsActionRequest *request,
                                       const char *serviceType, const char *const *names,
                                       const char *const *values, int32_t count,
                                       const char *traceFile, const char *functionName) {
  const char *traceAs = traceFile != nullptr ? traceFile : kTraceFile;
  for (int32_t i = 0; i < count; ++i) {
    int32_t rc = dmsDevEventMgrAddActionResponse(mgr, request, serviceType, names[i], values[i]);
    if (rc != DMS_SUCCESS) {
      osal_tracePrintf(OSAL_TRACE_ERR, functionName, traceAs, __LINE__, 0,
                       "Adding Action Response Failed \n");
      return rc;
    }
  }
  return DMS_SUCCESS;
}

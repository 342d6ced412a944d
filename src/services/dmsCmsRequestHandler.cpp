// ConnectionManager request analysers.
#include "services/dmsCmsRequestHandler.h"

#include "dlna_dms.h"
#include "util/dlnaUtil_xmlParser.h"
#include "util/dmsErrors.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsCmsRequestHandler";

int32_t dmsCmsAnalyzeReqGetProtocolInfo(dmsActionRequest *request,
                                        dmsCmsActionArgument *argument, dmsCmsInstance *context) {
  if (request == nullptr || argument == nullptr || context == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Null argument\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return DMS_SUCCESS;
}

int32_t dmsCmsAnalyzeReqGetConnectionIDs(dmsActionRequest *request,
                                         dmsCmsActionArgument *argument, dmsCmsInstance *context) {
  if (request == nullptr || argument == nullptr || context == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Null argument\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return DMS_SUCCESS;
}

int32_t dmsCmsAnalyzeReqGetConnectionInfo(dmsActionRequest *request,
                                          dmsCmsActionArgument *argument,
                                          dmsCmsInstance *context) {
  if (request == nullptr || argument == nullptr || context == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Null argument\n");
    return DMS_ERR_INVALID_PARAM;
  }
  // Only connection 0 exists; the number is read but every value gets its
  // answer.
  int32_t rc = dlnaUtil_xmlParserGetInteger(request->arguments,
                                            "ConnectionID", &argument->connectionId);
  if (rc != 0) {
    DMS_TRACE(OSAL_TRACE_ERR, "%s%d\n", "dlnaUtil_xmlParserGetInteger():Return::", rc);
    return dmsUtilErrMapToDmsErr(rc);
  }
  return DMS_SUCCESS;
}

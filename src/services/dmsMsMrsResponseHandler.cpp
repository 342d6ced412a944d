// Media receiver registrar response creators: constant answers.
#include "services/dmsMsMrsResponseHandler.h"

#include "dlna_dms.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsMsMrsResponseHandler";

static void answerOne(dmsMsMrsActionResponse *response, const char *name, const char *value) {
  response->count = 1;
  response->argNames[0] = name;
  response->argValues[0] = value;
}

int32_t dmsMsMrsCreateRespIsAuthorized(dmsMsMrsActionResponse *response,
                                       dmsMsMrsInstance *context) {
  if (response == nullptr || context == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Null argument\n");
    return DMS_ERR_INVALID_PARAM;
  }
  answerOne(response, "Result", "1");
  return DMS_SUCCESS;
}

int32_t dmsMsMrsCreateRespRegisterDevice(dmsMsMrsActionResponse *response,
                                         dmsMsMrsInstance *context) {
  if (response == nullptr || context == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Null argument\n");
    return DMS_ERR_INVALID_PARAM;
  }
  answerOne(response, "RegistrationRespMsg", "respAccepted1");
  return DMS_SUCCESS;
}

int32_t dmsMsMrsCreateRespIsValidated(dmsMsMrsActionResponse *response,
                                      dmsMsMrsInstance *context) {
  if (response == nullptr || context == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Null argument\n");
    return DMS_ERR_INVALID_PARAM;
  }
  answerOne(response, "Result", "1");
  return DMS_SUCCESS;
}

// Media receiver registrar response creators: constant answers.
#include "services/dmsMsMrsResponseHandler.h"

#include "dlna_dms.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsMsMrsResponseHandler";

// Every creator answers one constant argument.
static int32_t answerOne(dmsMsMrsActionResponse *response, dmsMsMrsInstance *context,
                         const char *name, const char *value) {
  if (response == nullptr || context == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Null argument\n");
    return DMS_ERR_INVALID_PARAM;
  }
  response->count = 1;
  response->argNames[0] = name;
  response->argValues[0] = value;
  return DMS_SUCCESS;
}

int32_t dmsMsMrsCreateRespIsAuthorized(dmsMsMrsActionResponse *response,
                                       dmsMsMrsInstance *context) {
  return answerOne(response, context, "Result", "1");
}

int32_t dmsMsMrsCreateRespRegisterDevice(dmsMsMrsActionResponse *response,
                                         dmsMsMrsInstance *context) {
  return answerOne(response, context, "RegistrationRespMsg", "respAccepted1");
}

int32_t dmsMsMrsCreateRespIsValidated(dmsMsMrsActionResponse *response,
                                      dmsMsMrsInstance *context) {
  return answerOne(response, context, "Result", "1");
}

// Media receiver registrar response creators.  Each takes (response record,
// service), answers one constant argument and returns 0, or -100
// ("Null argument") for NULL.
#ifndef DMS_SERVICES_DMSMSMRSRESPONSEHANDLER_H
#define DMS_SERVICES_DMSMSMRSRESPONSEHANDLER_H

#include <cstdint>

#include "services/dmsMsMrsApi.h"

// Every action of this service answers a single argument.
inline constexpr int32_t DMS_MSMRS_MAX_RESPONSE_ARGS = 1;

// Output arguments: argNames[i] = argValues[i], i < count (constants).
struct dmsMsMrsActionResponse {
  int32_t count = 0;
  const char *argNames[DMS_MSMRS_MAX_RESPONSE_ARGS] = {};
  const char *argValues[DMS_MSMRS_MAX_RESPONSE_ARGS] = {};
};

// "Result" = "1".
int32_t dmsMsMrsCreateRespIsAuthorized(dmsMsMrsActionResponse *response,
                                       dmsMsMrsInstance *context);
// "RegistrationRespMsg" = "respAccepted1".
int32_t dmsMsMrsCreateRespRegisterDevice(dmsMsMrsActionResponse *response,
                                         dmsMsMrsInstance *context);
// "Result" = "1".
int32_t dmsMsMrsCreateRespIsValidated(dmsMsMrsActionResponse *response,
                                      dmsMsMrsInstance *context);

#endif  // DMS_SERVICES_DMSMSMRSRESPONSEHANDLER_H

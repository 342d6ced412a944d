// ConnectionManager response creators: fill the response record with an
// action's output arguments.  Each takes (argument record, response record,
// service) and returns 0, or -100 ("Null argument") when a pointer is NULL.
#ifndef DMS_SERVICES_DMSCMSRESPONSEHANDLER_H
#define DMS_SERVICES_DMSCMSRESPONSEHANDLER_H

#include <cstdint>
#include <string>

#include "services/dmsCmsApi.h"
#include "services/dmsCmsRequestHandler.h"

inline constexpr int32_t DMS_CMS_MAX_RESPONSE_ARGS = 7;

// Output arguments of one action: argNames[i] = argValues[i], i < count.
// The texts are constants, except the joined protocolInfo list, which the
// record owns so that it lives exactly as long as the response needs it.
struct dmsCmsActionResponse {
  int32_t count = 0;
  const char *argNames[DMS_CMS_MAX_RESPONSE_ARGS] = {};
  const char *argValues[DMS_CMS_MAX_RESPONSE_ARGS] = {};
  std::string protocolInfoList;
};

// "Source" = the supported protocolInfo strings joined by ",", "Sink" = "".
// -97 ("Memory Allocation Failed") when the list cannot be built.
int32_t dmsCmsCreateRespGetProtocolInfo(const dmsCmsActionArgument *argument,
                                        dmsCmsActionResponse *response, dmsCmsInstance *context);
// "ConnectionIDs" = "0".
int32_t dmsCmsCreateRespGetConnectionIDs(const dmsCmsActionArgument *argument,
                                         dmsCmsActionResponse *response, dmsCmsInstance *context);
// The seven arguments of connection 0: RcsID -1, AVTransportID -1,
// ProtocolInfo "", PeerConnectionManager "", PeerConnectionID -1,
// Direction Output, Status OK.
int32_t dmsCmsCreateRespGetConnectionInfo(const dmsCmsActionArgument *argument,
                                          dmsCmsActionResponse *response,
                                          dmsCmsInstance *context);

#endif  // DMS_SERVICES_DMSCMSRESPONSEHANDLER_H

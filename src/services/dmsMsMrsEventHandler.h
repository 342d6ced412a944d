// Media receiver registrar callbacks registered with the device event
// manager, and the action table that drives them.
#ifndef DMS_SERVICES_DMSMSMRSEVENTHANDLER_H
#define DMS_SERVICES_DMSMSMRSEVENTHANDLER_H

#include <cstdint>

// Action callback (dmsServiceCallback contract): `sdkRequest` is the front door's
// dmsActionRequest, `serviceContext` the registered dmsMsMrsInstance.
// Answers IsAuthorized, RegisterDevice and IsValidated (exact names) with
// their constant argument.  Returns 0; -100 for NULL; -80 when the service id
// is not the registrar's or the response cannot be created; -79 for an
// unknown action; the analyser's code, or the code of adding the argument.
int32_t dmsMsMrsActionRequestCbf(void *sdkRequest, void *serviceContext);

// State-variable callback: `sdkRequest` is the front door's dmsStateVarRequest.  A
// known variable gets its value "0" copied into the request, yet every query
// ends with error code 404 and -78; -100 for NULL.
int32_t dmsMsMrsStateVariableRequestCbf(void *sdkRequest, void *serviceContext);

#endif  // DMS_SERVICES_DMSMSMRSEVENTHANDLER_H

// ConnectionManager callbacks registered with the device event manager, and
// the action table that drives them.
#ifndef DMS_SERVICES_DMSCMSEVENTHANDLER_H
#define DMS_SERVICES_DMSCMSEVENTHANDLER_H

#include <cstdint>

// Action callback (dmsServiceCallback contract): `sdkRequest` is the front door's
// dmsActionRequest, `serviceContext` the registered dmsCmsInstance.
// Finds the action (exact name) in the table, analyses its arguments,
// creates the response and adds its arguments to the request.  Returns 0;
// -100 for NULL; -80 when the service id is not the ConnectionManager's or
// the response cannot be created; -79 for an unknown action; the analyser's
// code, or the code of adding an argument.
int32_t dmsCmsActionRequestCbf(void *sdkRequest, void *serviceContext);

// State-variable callback: `sdkRequest` is the front door's dmsStateVarRequest.  A
// known variable gets its constant value copied into the request, yet every
// query ends with error code 404 and -78; -100 for NULL.
int32_t dmsCmsStateVariableRequestCbf(void *sdkRequest, void *serviceContext);

#endif  // DMS_SERVICES_DMSCMSEVENTHANDLER_H

// Media receiver registrar request analysers.  The caller's DeviceID and
// registration message are not read: every device is accepted.  Each takes
// (request, service) and returns 0, or -100 ("Null argument") for NULL.
#ifndef DMS_SERVICES_DMSMSMRSREQUESTHANDLER_H
#define DMS_SERVICES_DMSMSMRSREQUESTHANDLER_H

#include <cstdint>

#include <upnp.h>

#include "services/dmsMsMrsApi.h"

int32_t dmsMsMrsAnalyzeReqIsAuthorized(UpnpActionRequest *request, dmsMsMrsInstance *context);
int32_t dmsMsMrsAnalyzeReqRegisterDevice(UpnpActionRequest *request, dmsMsMrsInstance *context);
int32_t dmsMsMrsAnalyzeReqIsValidated(UpnpActionRequest *request, dmsMsMrsInstance *context);

#endif  // DMS_SERVICES_DMSMSMRSREQUESTHANDLER_H

// Media receiver registrar request analysers.  The caller's DeviceID and
// registration message are not read: every device is accepted.  Each takes
// (request, service) and returns 0, or -100 ("Null argument") for NULL.
#ifndef DMS_SERVICES_DMSMSMRSREQUESTHANDLER_H
#define DMS_SERVICES_DMSMSMRSREQUESTHANDLER_H

#include <cstdint>

#include "services/dmsActionRequest.h"

#include "services/dmsMsMrsApi.h"

int32_t dmsMsMrsAnalyzeReqIsAuthorized(dmsActionRequest *request, dmsMsMrsInstance *context);
int32_t dmsMsMrsAnalyzeReqRegisterDevice(dmsActionRequest *request, dmsMsMrsInstance *context);
int32_t dmsMsMrsAnalyzeReqIsValidated(dmsActionRequest *request, dmsMsMrsInstance *context);

#endif  // DMS_SERVICES_DMSMSMRSREQUESTHANDLER_H

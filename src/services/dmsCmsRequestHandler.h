// ConnectionManager request analysers: read an action's input arguments into
// the argument record.  Each takes (request, argument record, service) and
// returns 0, or -100 ("Null argument") when a pointer is NULL.
#ifndef DMS_SERVICES_DMSCMSREQUESTHANDLER_H
#define DMS_SERVICES_DMSCMSREQUESTHANDLER_H

#include <cstdint>

#include "services/dmsActionRequest.h"

#include "services/dmsCmsApi.h"

// Input arguments of a ConnectionManager action.
struct dmsCmsActionArgument {
  int32_t connectionId;  // GetCurrentConnectionInfo's ConnectionID
};

// GetProtocolInfo and GetCurrentConnectionIDs have no input arguments.
int32_t dmsCmsAnalyzeReqGetProtocolInfo(dmsActionRequest *request,
                                        dmsCmsActionArgument *argument, dmsCmsInstance *context);
int32_t dmsCmsAnalyzeReqGetConnectionIDs(dmsActionRequest *request,
                                         dmsCmsActionArgument *argument, dmsCmsInstance *context);

// Reads the integer "ConnectionID".  Any value is accepted.  When it cannot
// be read, returns the utility code mapped to a server code (a missing
// argument gives -69).
int32_t dmsCmsAnalyzeReqGetConnectionInfo(dmsActionRequest *request,
                                          dmsCmsActionArgument *argument,
                                          dmsCmsInstance *context);

#endif  // DMS_SERVICES_DMSCMSREQUESTHANDLER_H

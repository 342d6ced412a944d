// Pieces shared by the ConnectionManager and MediaReceiverRegistrar services:
// answering a state-variable query from a constant table, and handing a
// response's output arguments to the device event manager.
#ifndef DMS_SERVICES_DMSSERVICECOMMON_H
#define DMS_SERVICES_DMSSERVICECOMMON_H

#include <cstdint>

#include "services/dmsActionRequest.h"

#include "services/dmsDeviceEventMgr.h"

// Walks the whole NULL-terminated `table`; every row named like the queried
// variable puts a copy of its value into the request's current value with
// error code 0.  At the end the query is always closed with error code 404
// and the result -78 (DMS_ERR_UNSUPPORTED_STATE_VARIABLE), a match included.
// `traceFile` and `functionName` are the caller's, for its trace lines.
int32_t dmsServiceAnswerStateVarQuery(dmsStateVarRequest *request, const dmsStateVarPair *table,
                                      const char *traceFile, const char *functionName);

// Adds names[i] = values[i] for i in [0, count) to the action's response
// through dmsDevEventMgrAddActionResponse.  Stops at the first failure and
// returns its code; returns 0 when all were added or count < 1.
int32_t dmsServiceAddResponseArguments(dmsDevEventMgr *mgr, dmsActionRequest *request,
                                       const char *serviceType, const char *const *names,
                                       const char *const *values, int32_t count,
                                       const char *traceFile, const char *functionName);

#endif  // DMS_SERVICES_DMSSERVICECOMMON_H

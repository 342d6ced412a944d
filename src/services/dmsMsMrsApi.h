// Media receiver registrar service
// ("urn:microsoft.com:service:X_MS_MediaReceiverRegistrar:1", service id
// "urn:microsoft.com:serviceId:X_MS_MediaReceiverRegistrar"): instance life
// cycle and state variables.  Some receivers ask it before they browse; the
// server authorises and validates every device.
#ifndef DMS_SERVICES_DMSMSMRSAPI_H
#define DMS_SERVICES_DMSMSMRSAPI_H

#include <cstdint>

#include "services/dmsDeviceEventMgr.h"

// One registrar per server; it is the context of its callbacks.
struct dmsMsMrsInstance {
  int32_t instanceId;         // 100, 101, ... in the order of dmsMsMrsInit calls
  dmsDevEventMgr *eventMgr;   // the manager the callbacks are registered with
};

// Creates the service and registers its callbacks with `mgr`.  *out is set
// to NULL first and to the instance on success.  Returns 0; -100 for a NULL
// argument; -97 without memory; the manager's code when registration fails.
int32_t dmsMsMrsInit(dmsMsMrsInstance **out, dmsDevEventMgr *mgr);

// Unregisters the callbacks and releases the instance.  Returns 0; -100 for
// NULL; the manager's code when unregistering fails (instance kept).
int32_t dmsMsMrsDeInit(dmsMsMrsInstance *instance);

// The four update-id state variables, all "0" for good; NULL-terminated.
const dmsStateVarPair *dmsMsMrsGetStateVariableListInfo();

#endif  // DMS_SERVICES_DMSMSMRSAPI_H

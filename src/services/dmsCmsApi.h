// ConnectionManager service ("urn:schemas-upnp-org:service:ConnectionManager:1",
// service id "urn:upnp-org:serviceId:ConnectionManager"): instance life cycle,
// state variables and the protocolInfo list of the media the server delivers.
//
// The server offers one implicit connection, number 0; every answer is a
// constant apart from the supported protocolInfo list.
#ifndef DMS_SERVICES_DMSCMSAPI_H
#define DMS_SERVICES_DMSCMSAPI_H

#include <cstdint>

#include "services/dmsDeviceEventMgr.h"

// One ConnectionManager per server; it is the context of its callbacks.
struct dmsCmsInstance {
  int32_t instanceId;         // 100, 101, ... in the order of dmsCmsInit calls
  dmsDevEventMgr *eventMgr;   // the manager the callbacks are registered with
};

// The protocolInfo strings answered by GetProtocolInfo, in answer order,
// ended by a NULL entry (45 entries).
extern const char *const gap_ch_dmsSupportedMediaProfileProtocolInfo[];
// Six of those strings (LPCM 48k/44.1k, JPEG_SM, MPEG_PS_NTSC), NULL-ended.
// Kept for hosts; the server does not read it.
extern const char *const gap_ch_dmsExSupportedMediaProfileProtocolInfo[];

// Creates the service and registers its callbacks with `mgr`.  *out is set
// to NULL first and to the instance on success.  Returns 0; -100 for a NULL
// argument; -97 without memory; the manager's code when registration fails.
int32_t dmsCmsInit(dmsCmsInstance **out, dmsDevEventMgr *mgr);

// Unregisters the callbacks and releases the instance.  Returns 0; -100 for
// NULL; the manager's code when unregistering fails (instance kept).
int32_t dmsCmsDeInit(dmsCmsInstance *instance);

// The state variables with the initial values sent to new subscribers:
// "SourceProtocolInfo" = "http-get:*:*:*", "SinkProtocolInfo" = "",
// "CurrentConnectionIDs" = "0"; NULL-terminated.
const dmsStateVarPair *dmsCmsGetStateVariableListInfo();

#endif  // DMS_SERVICES_DMSCMSAPI_H

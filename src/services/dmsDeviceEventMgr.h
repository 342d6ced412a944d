// Device event manager: the single door between the UPnP SDK and the three
// services of the server (ConnectionManager, ContentDirectory and
// X_MS_MediaReceiverRegistrar).
//
// The SDK delivers every control action, state-variable query and event
// subscription to one device callback, which hands it to
// dmsDevEventMgrEventProcess.  The manager picks the service by its service id
// and calls the callbacks that the service registered.  Services answer
// through dmsDevEventMgrAddActionResponse and send events through
// dmsDevEventMgrNotifyEvent.
//
// Threads: the SDK calls dmsDevEventMgrEventProcess from several worker
// threads at once.  The manager takes no lock; its fields are written only by
// init and (un)registration, which happen while the device is not registered.
#ifndef DMS_SERVICES_DMSDEVICEEVENTMGR_H
#define DMS_SERVICES_DMSDEVICEEVENTMGR_H

#include <atomic>
#include <cstdint>

#include <upnp.h>

// Contract of every service callback, for actions and state-variable queries
// alike.  `sdkRequest` is the SDK's UpnpActionRequest (action) or
// UpnpStateVarRequest (query); `serviceContext` is the context that the
// service registered.  Returns 0 or a DMS_ERR_* code.
using dmsServiceCallback = int32_t (*)(void *sdkRequest, void *serviceContext);

// One row of a service's state-variable table; tables end with a row whose
// name is NULL.  Handed to new subscribers as the initial event.
struct dmsStateVarPair {
  const char *name;
  const char *value;
};

// Exact service ids the manager dispatches on.
inline constexpr char DMS_CMS_SERVICE_ID[] = "urn:upnp-org:serviceId:ConnectionManager";
inline constexpr char DMS_CDS_SERVICE_ID[] = "urn:upnp-org:serviceId:ContentDirectory";
inline constexpr char DMS_MSMRS_SERVICE_ID[] =
    "urn:microsoft.com:serviceId:X_MS_MediaReceiverRegistrar";

// One per server instance; created by dmsDevEventMgrInit, released by
// dmsDevEventMgrDeInit.
struct dmsDevEventMgr {
  int32_t instanceId;                // informational: 0, 1, 2 ... per init
  // The SDK's root-device handle: set by the host thread at start, read by
  // whichever thread sends an event (the ContentDirectory's moderator).
  std::atomic<UpnpDevice_Handle> deviceHandle{-1};
  const char *udn;                   // bare UUID, no "uuid:" prefix; not owned
  void *cmsContext;                  // ConnectionManager service context
  void *cdsContext;                  // ContentDirectory service context
  void *msMrsContext;                // MediaReceiverRegistrar service context
  dmsServiceCallback cmsActionCallback;
  dmsServiceCallback cdsActionCallback;
  dmsServiceCallback msMrsActionCallback;
  dmsServiceCallback cmsStateVarCallback;
  dmsServiceCallback cdsStateVarCallback;
  dmsServiceCallback msMrsStateVarCallback;
};

// The ContentDirectory's state variables with their initial values
// ("ContainerUpdateIDs", "TransferIDs", "SystemUpdateID"), NULL-terminated.
// Provided by the ContentDirectory module.
const dmsStateVarPair *dmsCdsMgrGetStateVarListInfo();

// Allocates a manager for `deviceHandle`.  `udn` is kept, not copied, and must
// outlive the manager.  *out is set to NULL first.  Returns 0, -100 for a NULL
// out or udn, -97 when memory runs out.
int32_t dmsDevEventMgrInit(dmsDevEventMgr **out, UpnpDevice_Handle deviceHandle,
                           const char *udn);

// Registration of a service's context and callbacks.  All arguments must be
// non-NULL (-100 otherwise), except the ContentDirectory's state-variable
// callback, which may be NULL.  Returns 0.
int32_t dmsDevEventMgrRegisterCmsEventCallback(dmsDevEventMgr *mgr, void *cmsContext,
                                               dmsServiceCallback actionCallback,
                                               dmsServiceCallback stateVarCallback);
int32_t dmsDevEventMgrRegisterCdsEventCallback(dmsDevEventMgr *mgr, void *cdsContext,
                                               dmsServiceCallback actionCallback,
                                               dmsServiceCallback stateVarCallback);
int32_t dmsDevEventMgrRegisterMsMrsEventCallback(dmsDevEventMgr *mgr, void *msMrsContext,
                                                 dmsServiceCallback actionCallback,
                                                 dmsServiceCallback stateVarCallback);

// Clear a service's context and both callbacks.  Returns 0, -100 for NULL.
int32_t dmsDevEventMgrUnRegisterCmsEventCallback(dmsDevEventMgr *mgr);
int32_t dmsDevEventMgrUnRegisterCdsEventCallback(dmsDevEventMgr *mgr);
int32_t dmsDevEventMgrUnRegisterMsMrsEventCallback(dmsDevEventMgr *mgr);

// Handles one SDK event: UPNP_CONTROL_ACTION_REQUEST (UpnpActionRequest),
// UPNP_CONTROL_GET_VAR_REQUEST (UpnpStateVarRequest) or
// UPNP_EVENT_SUBSCRIPTION_REQUEST (UpnpSubscriptionRequest).
//  - Action: dispatched by service id to the registered action callback; the
//    callback's result is turned into the request's SOAP error
//    (-76 -> 720 "No Such Container", -79 -> 401 "Invalid Action",
//    -69 -> 402 "Invalid Args", other non-zero -> 501 "Action Failed") and
//    returned.  An unknown service id sets 401 "Unknown Service Action" and a
//    NULL result and returns -98; a known service without a callback gets the
//    same reply but 0.  A request whose error code is already set gives -100.
//  - State-variable query: ConnectionManager and ContentDirectory go to their
//    state-variable callbacks, both with the ConnectionManager's context; the
//    callback's result is returned as is.  Other services: 0, nothing set.
//  - Subscription: accepted with the service's state variables as the
//    initial event; 0, or -70 when the SDK refuses, -97 without memory.
//    Unknown services: 0, not accepted.
// NULL mgr or event, or another event type: -100.
int32_t dmsDevEventMgrEventProcess(dmsDevEventMgr *mgr, Upnp_EventType eventType,
                                   const void *event);

// Adds one output argument to the action's response document (created on
// the first call).  Returns 0 (request error code set to 0); -100 for any NULL
// argument; on an SDK failure: out of memory -> request error -104, returns
// -97; invalid parameter -> request error -101, returns -100; other -> -70.
int32_t dmsDevEventMgrAddActionResponse(dmsDevEventMgr *mgr, UpnpActionRequest *actionRequest,
                                        const char *serviceType, const char *argName,
                                        const char *argValue);

// Events exactly two variables, varNames[0..1] / varValues[0..1], to the
// subscribers of `serviceId` on device "uuid:<udn>".  Returns -100 for a NULL
// argument, otherwise 0 (an SDK failure is only logged).
int32_t dmsDevEventMgrNotifyEvent(dmsDevEventMgr *mgr, const char *serviceId,
                                  const char **varNames, const char **varValues);

// Releases the manager.  Returns 0, -100 for NULL.
int32_t dmsDevEventMgrDeInit(dmsDevEventMgr *mgr);

#endif  // DMS_SERVICES_DMSDEVICEEVENTMGR_H

// Device event manager: the single door between the front door (SOAP
// control and GENA eventing) and the three services of the server
// (ConnectionManager, ContentDirectory and X_MS_MediaReceiverRegistrar).
//
// Every service is one row of the service table (g_dmsServices): its id,
// type, control and event paths and state variables.  A service registers
// its context and callbacks into its row's slot; the front door finds a row
// by path, the manager dispatches by the row's index.  Services answer
// through dmsDevEventMgrAddActionResponse and send events through
// dmsDevEventMgrNotifyEvent, which hands the finished property set to the
// event sink the server gave (the GENA hub): the manager never calls the
// eventing layer by name.
//
// Threads: the front door calls dmsDevEventMgrEventProcess from several
// threads at once.  The manager takes no lock; its slots and sink are
// written only by init, (un)registration and dmsDevEventMgrSetEventSink,
// which the server performs while the front door is closed.
#ifndef DMS_SERVICES_DMSDEVICEEVENTMGR_H
#define DMS_SERVICES_DMSDEVICEEVENTMGR_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "services/dmsActionRequest.h"

// Contract of every service callback, for actions and state-variable queries
// alike.  `request` is a dmsActionRequest (action) or dmsStateVarRequest
// (query); `serviceContext` is the context that the service registered.
// Returns 0 or a DMS_ERR_* code.
using dmsServiceCallback = int32_t (*)(void *request, void *serviceContext);

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

// Everything about one service of the device, one row each.
struct dmsServiceDescriptor {
  const char *serviceId;
  const char *serviceType;
  const char *controlPath;  // POST here for SOAP control
  const char *eventPath;    // SUBSCRIBE / UNSUBSCRIBE here
  const dmsStateVarPair *(*stateVariables)();  // initial event of a subscriber
  bool stateVarOptional;    // may register without a state-variable callback
  bool answersQueries;      // state-variable queries reach its callback
};

inline constexpr size_t DMS_SERVICE_COUNT = 3;
extern const dmsServiceDescriptor g_dmsServices[DMS_SERVICE_COUNT];

// The row whose control path (or event path) is `path`, compared exactly;
// DMS_SERVICE_COUNT when none.
size_t dmsServiceByControlPath(const char *path);
size_t dmsServiceByEventPath(const char *path);

// Event kinds of dmsDevEventMgrEventProcess (numbered as the UPnP SDK
// numbers its own).
enum dmsDeviceEventType : int {
  DMS_EVENT_ACTION_REQUEST = 0,
  DMS_EVENT_GET_VAR_REQUEST = 2,
};

// Receives every finished event: the service's row index and the whole
// NOTIFY body (an escaped property set).
using dmsEventSink = std::function<void(size_t service, const std::string &propertySet)>;

// What a registered service left in its row.
struct dmsServiceSlot {
  void *context = nullptr;
  dmsServiceCallback action = nullptr;
  dmsServiceCallback stateVar = nullptr;
};

// One per server instance; created by dmsDevEventMgrInit, released by
// dmsDevEventMgrDeInit.
struct dmsDevEventMgr {
  int32_t instanceId = 0;   // informational: 0, 1, 2 ... per init
  int32_t deviceHandle = -1;  // informational: the SDK registration, if any
  const char *udn = nullptr;  // bare UUID, no "uuid:" prefix; not owned
  dmsServiceSlot slots[DMS_SERVICE_COUNT];
  dmsEventSink eventSink;   // empty: events are dropped
};

// The ContentDirectory's state variables with their initial values
// ("ContainerUpdateIDs", "TransferIDs", "SystemUpdateID"), NULL-terminated.
// Provided by the ContentDirectory module.
const dmsStateVarPair *dmsCdsMgrGetStateVarListInfo();

// Allocates a manager.  `udn` is kept, not copied, and must outlive the
// manager.  *out is set to NULL first.  Returns 0, -100 for a NULL out or
// udn, -97 when memory runs out.
int32_t dmsDevEventMgrInit(dmsDevEventMgr **out, int32_t deviceHandle, const char *udn);

// Where finished events go (the server's GENA hub).  Set while nothing
// sends events.  Returns 0, -100 for NULL.
int32_t dmsDevEventMgrSetEventSink(dmsDevEventMgr *mgr, dmsEventSink sink);

// Registration of a service's context and callbacks into its row.  All
// arguments must be non-NULL (-100 otherwise), except the ContentDirectory's
// state-variable callback, which may be NULL.  Returns 0.
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

// Handles one request:
//  - DMS_EVENT_ACTION_REQUEST (dmsActionRequest): dispatched by service id
//    to the registered action callback; the callback's result is turned
//    into the request's fault (-76 -> 720 "No Such Container", -79 -> 401
//    "Invalid Action", -69 -> 402 "Invalid Args", -81 -> 708 "Unsupported
//    or invalid search criteria", -82 -> 709 "Unsupported or invalid sort
//    criteria", other non-zero -> 501 "Action Failed")
//    and returned.  An unknown service id sets 401
//    "Unknown Service Action" and returns -98; a known service without a
//    callback gets the same fault but 0.  A request whose error code is
//    already set gives -100.
//  - DMS_EVENT_GET_VAR_REQUEST (dmsStateVarRequest): ConnectionManager and
//    ContentDirectory queries go to their state-variable callbacks (each
//    with its own context); the callback's result is returned as is.
//    Other services: 0, nothing set.
// NULL mgr or event, or another event type: -100.
int32_t dmsDevEventMgrEventProcess(dmsDevEventMgr *mgr, int eventType, void *event);

// Adds one output argument, `<argName>` + escaped argValue + `</argName>`,
// to the action's answer; the first names the answer's service type.
// Returns 0 (request error code set to 0); -100 for any NULL argument;
// -97 when memory runs out.
int32_t dmsDevEventMgrAddActionResponse(dmsDevEventMgr *mgr, dmsActionRequest *actionRequest,
                                        const char *serviceType, const char *argName,
                                        const char *argValue);

// Events exactly two variables, varNames[0..1] / varValues[0..1], to the
// subscribers of `serviceId` through the event sink.  Returns -100 for a
// NULL argument, otherwise 0 (a failure is only logged).
int32_t dmsDevEventMgrNotifyEvent(dmsDevEventMgr *mgr, const char *serviceId,
                                  const char **varNames, const char **varValues);

// The initial event of a new subscriber of service row `service`: every
// state variable of the service with its current value (the
// ContentDirectory's SystemUpdateID live), as a whole property set.
std::string dmsDevEventMgrInitialEvent(dmsDevEventMgr *mgr, size_t service);

// A property set of `count` variables with escaped values.
std::string dmsDevEventMgrPropertySet(const char *const *names, const char *const *values,
                                      size_t count);

// Releases the manager.  Returns 0, -100 for NULL.
int32_t dmsDevEventMgrDeInit(dmsDevEventMgr *mgr);

#endif  // DMS_SERVICES_DMSDEVICEEVENTMGR_H

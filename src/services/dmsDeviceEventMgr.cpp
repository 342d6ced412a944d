// Device event manager: routes control requests to the services and their
// events to the event sink.
#include "services/dmsDeviceEventMgr.h"

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "dlna_dms.h"
#include "services/dmsCdsMgrApi.h"
#include "services/dmsCmsApi.h"
#include "services/dmsMsMrsApi.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsDeviceEventMgr.c";

// Informational instance numbers, one per manager ever created.
static std::atomic<int32_t> gs_s32_instanceId{0};

// The device's services, in the order of the device description.
const dmsServiceDescriptor g_dmsServices[DMS_SERVICE_COUNT] = {
    // service id             service type                                                control path         event path         state variables                    optional  queries
    {DMS_CMS_SERVICE_ID,      "urn:schemas-upnp-org:service:ConnectionManager:1",        "/web/cms_control",  "/web/cms_event",  dmsCmsGetStateVariableListInfo,    false,    true},
    {DMS_CDS_SERVICE_ID,      "urn:schemas-upnp-org:service:ContentDirectory:1",         "/web/cds_control",  "/web/cds_event",  dmsCdsMgrGetStateVarListInfo,      true,     true},
    {DMS_MSMRS_SERVICE_ID,    "urn:microsoft.com:service:X_MS_MediaReceiverRegistrar:1", "/web/mrs_control",  "/web/mrs_event",  dmsMsMrsGetStateVariableListInfo,  false,    false},
};

namespace {

constexpr size_t kCms = 0;
constexpr size_t kCds = 1;
constexpr size_t kMsMrs = 2;

// The row whose `field` equals `text`; DMS_SERVICE_COUNT when none.
size_t findService(const char *dmsServiceDescriptor::*field, const char *text) {
  for (size_t i = 0; i < DMS_SERVICE_COUNT; ++i) {
    if (text != nullptr && std::strcmp(g_dmsServices[i].*field, text) == 0) return i;
  }
  return DMS_SERVICE_COUNT;
}

size_t serviceById(const char *serviceId) { return findService(&dmsServiceDescriptor::serviceId, serviceId); }

// The fault for a service's failure code.
struct ActionError {
  int32_t result;
  int code;
  const char *text;
};

constexpr ActionError kActionErrors[] = {
    // service's code                       fault  description
    {DMS_ERR_NO_SUCH_OBJECT,                720,   "No Such Container"},
    {DMS_ERR_UNSUPPORTED_ACTION,            401,   "Invalid Action"},
    {DMS_ERR_NOT_FOUND,                     402,   "Invalid Args"},
    {DMS_CDS_ERR_INVALID_SEARCH_CRITERIA,   708,   "Unsupported or invalid search criteria"},
    {DMS_CDS_ERR_INVALID_SORT_CRITERIA,     709,   "Unsupported or invalid sort criteria"},
};
constexpr ActionError kActionFailed = {DMS_ERR_FAILURE, 501, "Action Failed"};

const ActionError &mapActionResult(int32_t result) {
  for (const ActionError &error : kActionErrors) {
    if (error.result == result) return error;
  }
  return kActionFailed;
}

void rejectUnknownService(dmsActionRequest *request) {
  request->errCode = 401;
  request->errStr = "Unknown Service Action";
  request->responseArgs.clear();
  request->responseType.clear();
}

int32_t processActionRequest(dmsDevEventMgr *mgr, dmsActionRequest *request) {
  if (request->errCode != 0) return DMS_ERR_INVALID_PARAM;
  const size_t service = serviceById(request->serviceId);
  if (service == DMS_SERVICE_COUNT) {
    DMS_TRACE(OSAL_TRACE_WARN, "Action Request for Service ID [%s] not supported\n", request->serviceId);
    rejectUnknownService(request);
    return DMS_ERR_INVALID_BROWSE_FLAG;
  }
  const dmsServiceSlot &slot = mgr->slots[service];
  if (slot.action == nullptr) {
    rejectUnknownService(request);
    return DMS_SUCCESS;
  }
  if (request->client != nullptr) {
    DMS_TRACE(OSAL_TRACE_INFO, "Action [%s] from [%s] User-Agent [%s] X-AV-Client-Info [%s]\n", request->actionName,
              request->client->address.c_str(), request->client->userAgent.c_str(),
              request->client->avClientInfo.c_str());
  }
  const int32_t result = slot.action(request, slot.context);
  DMS_TRACE(OSAL_TRACE_INFO, "Action Handler Callback Return Value [%d]:Service [%s] \n", result,
            request->serviceId);
  if (result != DMS_SUCCESS) {
    const ActionError &error = mapActionResult(result);
    request->errCode = error.code;
    request->errStr = error.text;
  }
  return result;
}

int32_t processStateVarRequest(dmsDevEventMgr *mgr, dmsStateVarRequest *request) {
  const size_t service = serviceById(request->serviceId);
  if (service == DMS_SERVICE_COUNT || !g_dmsServices[service].answersQueries) {
    DMS_TRACE(OSAL_TRACE_WARN, "Var Request for Service ID [%s] not supported\n", request->serviceId);
    return DMS_SUCCESS;
  }
  const dmsServiceSlot &slot = mgr->slots[service];
  if (slot.stateVar == nullptr) return DMS_SUCCESS;
  // Each service gets its own context: the ContentDirectory answers
  // SystemUpdateID from its live counter.
  return slot.stateVar(request, slot.context);
}

// Fills a service's row; the state-variable callback is required unless
// the service's row says it is optional.
int32_t registerService(dmsDevEventMgr *mgr, size_t service, void *context, dmsServiceCallback actionCallback,
                        dmsServiceCallback stateVarCallback) {
  if (mgr == nullptr || context == nullptr || actionCallback == nullptr ||
      (stateVarCallback == nullptr && !g_dmsServices[service].stateVarOptional)) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Parameters\n");
    return DMS_ERR_INVALID_PARAM;
  }
  mgr->slots[service] = {context, actionCallback, stateVarCallback};
  return DMS_SUCCESS;
}

int32_t unregisterService(dmsDevEventMgr *mgr, size_t service) {
  if (mgr == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  mgr->slots[service] = {};
  return DMS_SUCCESS;
}

// Appends `text` with & < > " ' as entities.  The values are the services'
// own texts (already XML character data where they come from files), so
// only markup needs escaping here; a run without markup is copied whole.
void appendEscaped(std::string &out, const char *text) {
  const char *run = text;
  for (const char *p = text;; ++p) {
    const char c = *p;
    const char *entity = nullptr;
    switch (c) {
      case '\0': out.append(run, static_cast<size_t>(p - run)); return;
      case '&': entity = "&amp;"; break;
      case '<': entity = "&lt;"; break;
      case '>': entity = "&gt;"; break;
      case '"': entity = "&quot;"; break;
      case '\'': entity = "&apos;"; break;
      default: continue;
    }
    out.append(run, static_cast<size_t>(p - run));
    out.append(entity);
    run = p + 1;
  }
}

}  // namespace

size_t dmsServiceByControlPath(const char *path) { return findService(&dmsServiceDescriptor::controlPath, path); }

size_t dmsServiceByEventPath(const char *path) { return findService(&dmsServiceDescriptor::eventPath, path); }

int32_t dmsDevEventMgrInit(dmsDevEventMgr **out, int32_t deviceHandle, const char *udn) {
  if (out == nullptr || udn == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Parameters\n");
    return DMS_ERR_INVALID_PARAM;
  }
  *out = nullptr;
  return dmsGuard("dmsDevEventMgrInit", DMS_ERR_NO_MEMORY, [&] {
    auto mgr = std::make_unique<dmsDevEventMgr>();  // every slot starts empty
    mgr->instanceId = gs_s32_instanceId.fetch_add(1);
    mgr->deviceHandle = deviceHandle;
    mgr->udn = udn;
    *out = mgr.release();
    return DMS_SUCCESS;
  });
}

int32_t dmsDevEventMgrSetEventSink(dmsDevEventMgr *mgr, dmsEventSink sink) {
  if (mgr == nullptr) return DMS_ERR_INVALID_PARAM;
  mgr->eventSink = std::move(sink);
  return DMS_SUCCESS;
}

int32_t dmsDevEventMgrRegisterCmsEventCallback(dmsDevEventMgr *mgr, void *cmsContext,
                                               dmsServiceCallback actionCallback,
                                               dmsServiceCallback stateVarCallback) {
  return registerService(mgr, kCms, cmsContext, actionCallback, stateVarCallback);
}

int32_t dmsDevEventMgrRegisterCdsEventCallback(dmsDevEventMgr *mgr, void *cdsContext,
                                               dmsServiceCallback actionCallback,
                                               dmsServiceCallback stateVarCallback) {
  return registerService(mgr, kCds, cdsContext, actionCallback, stateVarCallback);
}

int32_t dmsDevEventMgrRegisterMsMrsEventCallback(dmsDevEventMgr *mgr, void *msMrsContext,
                                                 dmsServiceCallback actionCallback,
                                                 dmsServiceCallback stateVarCallback) {
  return registerService(mgr, kMsMrs, msMrsContext, actionCallback, stateVarCallback);
}

int32_t dmsDevEventMgrUnRegisterCmsEventCallback(dmsDevEventMgr *mgr) { return unregisterService(mgr, kCms); }
int32_t dmsDevEventMgrUnRegisterCdsEventCallback(dmsDevEventMgr *mgr) { return unregisterService(mgr, kCds); }
int32_t dmsDevEventMgrUnRegisterMsMrsEventCallback(dmsDevEventMgr *mgr) { return unregisterService(mgr, kMsMrs); }

int32_t dmsDevEventMgrEventProcess(dmsDevEventMgr *mgr, int eventType, void *event) {
  if (mgr == nullptr || event == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsGuard("dmsDevEventMgrEventProcess", DMS_ERR_NO_MEMORY, [&] {
    switch (eventType) {
      case DMS_EVENT_ACTION_REQUEST:
        return processActionRequest(mgr, static_cast<dmsActionRequest *>(event));
      case DMS_EVENT_GET_VAR_REQUEST:
        return processStateVarRequest(mgr, static_cast<dmsStateVarRequest *>(event));
      default:
        DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Parameters\n");
        return DMS_ERR_INVALID_PARAM;
    }
  });
}

int32_t dmsDevEventMgrAddActionResponse(dmsDevEventMgr *mgr, dmsActionRequest *actionRequest,
                                        const char *serviceType, const char *argName,
                                        const char *argValue) {
  if (mgr == nullptr || actionRequest == nullptr || serviceType == nullptr || argName == nullptr ||
      argValue == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsGuard("dmsDevEventMgrAddActionResponse", DMS_ERR_NO_MEMORY, [&] {
    std::string &out = actionRequest->responseArgs;
    if (actionRequest->responseType.empty()) actionRequest->responseType = serviceType;
    const size_t nameLength = std::strlen(argName);
    out.reserve(out.size() + 2 * nameLength + 6 + std::strlen(argValue) + 64);
    out += '<';
    out.append(argName, nameLength);
    out += '>';
    appendEscaped(out, argValue);
    out += "</";
    out.append(argName, nameLength);
    out += ">\r\n";
    actionRequest->errCode = 0;
    return DMS_SUCCESS;
  });
}

std::string dmsDevEventMgrPropertySet(const char *const *names, const char *const *values, size_t count) {
  std::string body = "<?xml version=\"1.0\"?>\n<e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\">\n";
  for (size_t i = 0; i < count; ++i) {
    body += "<e:property>\n<";
    body += names[i];
    body += '>';
    appendEscaped(body, values[i] != nullptr ? values[i] : "");
    body += "</";
    body += names[i];
    body += ">\n</e:property>\n";
  }
  body += "</e:propertyset>\n\n";
  return body;
}

int32_t dmsDevEventMgrNotifyEvent(dmsDevEventMgr *mgr, const char *serviceId,
                                  const char **varNames, const char **varValues) {
  if (mgr == nullptr || serviceId == nullptr || varNames == nullptr || varValues == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  // A failed notification is traced and otherwise ignored: the next change
  // sends the current values again.
  dmsGuardVoid("dmsDevEventMgrNotifyEvent", [&] {
    const size_t service = serviceById(serviceId);
    if (service == DMS_SERVICE_COUNT || !mgr->eventSink) {
      DMS_TRACE(OSAL_TRACE_ERR, "Function %s Failed with error = %d\n", "UpnpNotify", DMS_ERR_UPNP_FAILURE);
      return;
    }
    // Every event of this server carries exactly two variables.
    constexpr size_t kEventedVariables = 2;
    mgr->eventSink(service, dmsDevEventMgrPropertySet(varNames, varValues, kEventedVariables));
  });
  return DMS_SUCCESS;
}

std::string dmsDevEventMgrInitialEvent(dmsDevEventMgr *mgr, size_t service) {
  if (mgr == nullptr || service >= DMS_SERVICE_COUNT) return {};
  std::vector<const char *> names;
  std::vector<const char *> values;
  // A new subscriber hears the live SystemUpdateID, as the events carry it.
  const bool contentDirectory = service == kCds && mgr->slots[kCds].context != nullptr;
  const std::string systemUpdateId =
      contentDirectory ? dmsCdsMgrSystemUpdateIdText(static_cast<dmsCdsMgrHandle *>(mgr->slots[kCds].context)) : "";
  for (const dmsStateVarPair *row = g_dmsServices[service].stateVariables(); row->name != nullptr; ++row) {
    names.push_back(row->name);
    const bool live = contentDirectory && std::strcmp(row->name, "SystemUpdateID") == 0;
    values.push_back(live ? systemUpdateId.c_str() : row->value);
  }
  DMS_TRACE(OSAL_TRACE_INFO, "Subscription Request for [%s] Service\n ", g_dmsServices[service].serviceId);
  return dmsDevEventMgrPropertySet(names.data(), values.data(), names.size());
}

int32_t dmsDevEventMgrDeInit(dmsDevEventMgr *mgr) {
  if (mgr == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  std::unique_ptr<dmsDevEventMgr> owner(mgr);
  return DMS_SUCCESS;
}

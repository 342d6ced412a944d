// Device event manager: routes the SDK's device events to the services.
#include "services/dmsDeviceEventMgr.h"

#include "services/dmsCdsMgrApi.h"

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <upnptools.h>

#include "dlna_dms.h"
#include "services/dmsCmsApi.h"
#include "services/dmsMsMrsApi.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsDeviceEventMgr.c";

// Informational instance numbers, one per manager ever created.
static std::atomic<int32_t> gs_s32_instanceId{0};

namespace {

// Empty property set of the eventing protocol; the SDK starts from the same
// text when it creates one itself.
constexpr char kEmptyPropertySet[] =
    "<e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\"></e:propertyset>";

struct IxmlDocumentDeleter {
  void operator()(IXML_Document *document) const { ixmlDocument_free(document); }
};
using PropertySet = std::unique_ptr<IXML_Document, IxmlDocumentDeleter>;

// Builds a property set of `count` variables.  The SDK escapes the values,
// so texts with markup reach the subscribers intact.  Returns 0 or the SDK's
// code (UPNP_E_OUTOF_MEMORY when the empty document cannot be made).
int32_t buildPropertySet(const char *const *names, const char *const *values, size_t count,
                         PropertySet &out) {
  IXML_Document *document = ixmlParseBuffer(kEmptyPropertySet);
  if (document == nullptr) return UPNP_E_OUTOF_MEMORY;
  out.reset(document);
  for (size_t i = 0; i < count; ++i) {
    int32_t rc = UpnpAddToPropertySet(&document, names[i], values[i]);
    if (rc != UPNP_E_SUCCESS) return rc;
  }
  return UPNP_E_SUCCESS;
}

// The SOAP error for a service's failure code.
struct ActionError {
  int code;
  const char *text;
};

ActionError mapActionResult(int32_t result) {
  switch (result) {
    case DMS_ERR_NO_SUCH_OBJECT: return {720, "No Such Container"};
    case DMS_ERR_UNSUPPORTED_ACTION: return {401, "Invalid Action"};
    case DMS_ERR_NOT_FOUND: return {402, "Invalid Args"};
    default: return {501, "Action Failed"};
  }
}

// Answers an action for which no service is there.  The SDK sends the error
// from the request's fields; a result document would turn it into a success.
void rejectUnknownService(UpnpActionRequest *request) {
  UpnpActionRequest_set_ErrCode(request, 401);
  UpnpActionRequest_strcpy_ErrStr(request, "Unknown Service Action");
  if (IXML_Document *stale = UpnpActionRequest_get_ActionResult(request)) {
    ixmlDocument_free(stale);
  }
  UpnpActionRequest_set_ActionResult(request, nullptr);
}

void traceActionDocument(UpnpActionRequest *request) {
  // Rendering a whole document costs; only do it when the line is printed.
  if ((g_u32_osalTraceLevel.load(std::memory_order_relaxed) & OSAL_TRACE_INFO) == 0) return;
  DOMString text = ixmlPrintDocument(UpnpActionRequest_get_ActionRequest(request));
  DMS_TRACE(OSAL_TRACE_INFO, "Req Action Details::%s\n", text != nullptr ? text : "");
  ixmlFreeDOMString(text);
}

int32_t processActionRequest(dmsDevEventMgr *mgr, UpnpActionRequest *request) {
  traceActionDocument(request);
  if (UpnpActionRequest_get_ErrCode(request) != 0) return DMS_ERR_INVALID_PARAM;

  const char *serviceId = UpnpActionRequest_get_ServiceID_cstr(request);
  dmsServiceCallback callback = nullptr;
  void *context = nullptr;
  if (std::strcmp(serviceId, DMS_CMS_SERVICE_ID) == 0) {
    callback = mgr->cmsActionCallback;
    context = mgr->cmsContext;
  } else if (std::strcmp(serviceId, DMS_CDS_SERVICE_ID) == 0) {
    callback = mgr->cdsActionCallback;
    context = mgr->cdsContext;
  } else if (std::strcmp(serviceId, DMS_MSMRS_SERVICE_ID) == 0) {
    callback = mgr->msMrsActionCallback;
    context = mgr->msMrsContext;
  } else {
    DMS_TRACE(OSAL_TRACE_WARN, "Action Request for Service ID [%s] not supported\n", serviceId);
    rejectUnknownService(request);
    return DMS_ERR_INVALID_BROWSE_FLAG;
  }
  if (callback == nullptr) {
    rejectUnknownService(request);
    return DMS_SUCCESS;
  }

  int32_t result = callback(request, context);
  DMS_TRACE(OSAL_TRACE_INFO, "Action Handler Callback Return Value [%d]:Service [%s] \n", result,
            serviceId);
  if (result != DMS_SUCCESS) {
    ActionError error = mapActionResult(result);
    UpnpActionRequest_set_ErrCode(request, error.code);
    UpnpActionRequest_strcpy_ErrStr(request, error.text);
  }

  // Closing call without a service type: the SDK refuses it with an
  // invalid-parameter code, which is the expected outcome; only a success
  // here is reported.
  IXML_Document *resultDocument = UpnpActionRequest_get_ActionResult(request);
  int rc = UpnpAddToActionResponse(&resultDocument, UpnpActionRequest_get_ActionName_cstr(request),
                                   nullptr, nullptr, nullptr);
  if (resultDocument != UpnpActionRequest_get_ActionResult(request)) {
    UpnpActionRequest_set_ActionResult(request, resultDocument);
  }
  if (rc == UPNP_E_SUCCESS) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error Action Send Failed for Service [%s] not supported\n",
              serviceId);
  }
  return result;
}

int32_t processStateVarRequest(dmsDevEventMgr *mgr, UpnpStateVarRequest *request) {
  const char *serviceId = UpnpStateVarRequest_get_ServiceID_cstr(request);
  dmsServiceCallback callback = nullptr;
  if (std::strcmp(serviceId, DMS_CMS_SERVICE_ID) == 0) {
    callback = mgr->cmsStateVarCallback;
  } else if (std::strcmp(serviceId, DMS_CDS_SERVICE_ID) == 0) {
    callback = mgr->cdsStateVarCallback;
  } else {
    DMS_TRACE(OSAL_TRACE_WARN, "Var Request for Service ID [%s] not supported\n", serviceId);
    return DMS_SUCCESS;
  }
  if (callback == nullptr) return DMS_SUCCESS;
  // Each service gets its own context: the ContentDirectory answers
  // SystemUpdateID from its live counter.
  return callback(request, callback == mgr->cdsStateVarCallback ? mgr->cdsContext : mgr->cmsContext);
}

const dmsStateVarPair *stateVariablesOf(const char *serviceId) {
  if (std::strcmp(serviceId, DMS_CMS_SERVICE_ID) == 0) return dmsCmsGetStateVariableListInfo();
  if (std::strcmp(serviceId, DMS_CDS_SERVICE_ID) == 0) return dmsCdsMgrGetStateVarListInfo();
  if (std::strcmp(serviceId, DMS_MSMRS_SERVICE_ID) == 0) {
    return dmsMsMrsGetStateVariableListInfo();
  }
  return nullptr;
}

int32_t processSubscriptionRequest(dmsDevEventMgr *mgr, const UpnpSubscriptionRequest *request) {
  const char *serviceId = UpnpSubscriptionRequest_get_ServiceId_cstr(request);
  const dmsStateVarPair *table = stateVariablesOf(serviceId);
  if (table == nullptr) {
    DMS_TRACE(OSAL_TRACE_WARN, "Subscription for Service ID [%s] Not supported yet\n", serviceId);
    return DMS_SUCCESS;
  }

  std::vector<const char *> names;
  std::vector<const char *> values;
  // A new subscriber hears the live SystemUpdateID, as the events carry it.
  const bool contentDirectory = std::strcmp(serviceId, DMS_CDS_SERVICE_ID) == 0 && mgr->cdsContext != nullptr;
  const std::string systemUpdateId =
      contentDirectory ? dmsCdsMgrSystemUpdateIdText(static_cast<dmsCdsMgrHandle *>(mgr->cdsContext)) : "";
  for (const dmsStateVarPair *row = table; row->name != nullptr; ++row) {
    names.push_back(row->name);
    const bool live = contentDirectory && std::strcmp(row->name, "SystemUpdateID") == 0;
    values.push_back(live ? systemUpdateId.c_str() : row->value);
  }
  // A service without variables is accepted with an empty property set.
  PropertySet propertySet;
  if (buildPropertySet(names.data(), values.data(), names.size(), propertySet) != UPNP_E_SUCCESS) {
    return DMS_ERR_NO_MEMORY;
  }

  DMS_TRACE(OSAL_TRACE_INFO, "Subscription Request for [%s] Service\n ", serviceId);
  // The SDK identifies the device by the UDN exactly as the subscriber
  // addressed it ("uuid:...").
  int rc = UpnpAcceptSubscriptionExt(mgr->deviceHandle, UpnpSubscriptionRequest_get_UDN_cstr(request),
                                     serviceId, propertySet.get(),
                                     UpnpSubscriptionRequest_get_SID_cstr(request));
  if (rc != UPNP_E_SUCCESS) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error :: %s%d\n", "UpnpAcceptSubscription() Returns::", rc);
    return DMS_ERR_UPNP_FAILURE;
  }
  return DMS_SUCCESS;
}

// One service's three slots in the manager.
struct ServiceSlots {
  void *&context;
  dmsServiceCallback &action;
  dmsServiceCallback &stateVar;
};

ServiceSlots cmsSlots(dmsDevEventMgr *mgr) {
  return {mgr->cmsContext, mgr->cmsActionCallback, mgr->cmsStateVarCallback};
}
ServiceSlots cdsSlots(dmsDevEventMgr *mgr) {
  return {mgr->cdsContext, mgr->cdsActionCallback, mgr->cdsStateVarCallback};
}
ServiceSlots msMrsSlots(dmsDevEventMgr *mgr) {
  return {mgr->msMrsContext, mgr->msMrsActionCallback, mgr->msMrsStateVarCallback};
}

// Fills a service's slots; the state-variable callback is required unless
// `stateVarOptional`.
int32_t registerService(dmsDevEventMgr *mgr, ServiceSlots (*slotsOf)(dmsDevEventMgr *), void *context,
                        dmsServiceCallback actionCallback, dmsServiceCallback stateVarCallback,
                        bool stateVarOptional) {
  if (mgr == nullptr || context == nullptr || actionCallback == nullptr ||
      (stateVarCallback == nullptr && !stateVarOptional)) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Parameters\n");
    return DMS_ERR_INVALID_PARAM;
  }
  ServiceSlots slots = slotsOf(mgr);
  slots.context = context;
  slots.action = actionCallback;
  slots.stateVar = stateVarCallback;
  return DMS_SUCCESS;
}

int32_t unregisterService(dmsDevEventMgr *mgr, ServiceSlots (*slotsOf)(dmsDevEventMgr *)) {
  if (mgr == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  ServiceSlots slots = slotsOf(mgr);
  slots.context = nullptr;
  slots.action = nullptr;
  slots.stateVar = nullptr;
  return DMS_SUCCESS;
}

}  // namespace

int32_t dmsDevEventMgrInit(dmsDevEventMgr **out, UpnpDevice_Handle deviceHandle,
                           const char *udn) {
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

int32_t dmsDevEventMgrRegisterCmsEventCallback(dmsDevEventMgr *mgr, void *cmsContext,
                                               dmsServiceCallback actionCallback,
                                               dmsServiceCallback stateVarCallback) {
  return registerService(mgr, cmsSlots, cmsContext, actionCallback, stateVarCallback, false);
}

// The ContentDirectory alone may leave its state-variable callback out.
int32_t dmsDevEventMgrRegisterCdsEventCallback(dmsDevEventMgr *mgr, void *cdsContext,
                                               dmsServiceCallback actionCallback,
                                               dmsServiceCallback stateVarCallback) {
  return registerService(mgr, cdsSlots, cdsContext, actionCallback, stateVarCallback, true);
}

int32_t dmsDevEventMgrRegisterMsMrsEventCallback(dmsDevEventMgr *mgr, void *msMrsContext,
                                                 dmsServiceCallback actionCallback,
                                                 dmsServiceCallback stateVarCallback) {
  return registerService(mgr, msMrsSlots, msMrsContext, actionCallback, stateVarCallback, false);
}

int32_t dmsDevEventMgrUnRegisterCmsEventCallback(dmsDevEventMgr *mgr) {
  return unregisterService(mgr, cmsSlots);
}

int32_t dmsDevEventMgrUnRegisterCdsEventCallback(dmsDevEventMgr *mgr) {
  return unregisterService(mgr, cdsSlots);
}

int32_t dmsDevEventMgrUnRegisterMsMrsEventCallback(dmsDevEventMgr *mgr) {
  return unregisterService(mgr, msMrsSlots);
}

int32_t dmsDevEventMgrEventProcess(dmsDevEventMgr *mgr, Upnp_EventType eventType,
                                   const void *event) {
  if (mgr == nullptr || event == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  // Called on the SDK's threads: nothing may escape into the C library.
  return dmsGuard("dmsDevEventMgrEventProcess", DMS_ERR_NO_MEMORY, [&] {
    // The SDK hands its request records as const, but the answer is written
    // into them (error code, result document, current value).
    void *request = const_cast<void *>(event);
    switch (eventType) {
      case UPNP_CONTROL_ACTION_REQUEST:
        return processActionRequest(mgr, static_cast<UpnpActionRequest *>(request));
      case UPNP_CONTROL_GET_VAR_REQUEST:
        return processStateVarRequest(mgr, static_cast<UpnpStateVarRequest *>(request));
      case UPNP_EVENT_SUBSCRIPTION_REQUEST:
        return processSubscriptionRequest(mgr, static_cast<const UpnpSubscriptionRequest *>(event));
      default:
        DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Parameters\n");
        return DMS_ERR_INVALID_PARAM;
    }
  });
}

int32_t dmsDevEventMgrAddActionResponse(dmsDevEventMgr *mgr, UpnpActionRequest *actionRequest,
                                        const char *serviceType, const char *argName,
                                        const char *argValue) {
  if (mgr == nullptr || actionRequest == nullptr || serviceType == nullptr || argName == nullptr ||
      argValue == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  // The first argument creates the response document; the SDK sends and
  // frees whatever document the request holds after the callback.
  IXML_Document *response = UpnpActionRequest_get_ActionResult(actionRequest);
  int rc = UpnpAddToActionResponse(&response, UpnpActionRequest_get_ActionName_cstr(actionRequest),
                                   serviceType, argName, argValue);
  if (response != UpnpActionRequest_get_ActionResult(actionRequest)) {
    UpnpActionRequest_set_ActionResult(actionRequest, response);
  }
  if (rc == UPNP_E_SUCCESS) {
    UpnpActionRequest_set_ErrCode(actionRequest, 0);
    return DMS_SUCCESS;
  }
  DMS_TRACE(OSAL_TRACE_ERR, "UpnpAddToActionResponse() Failed \n");
  if (rc == UPNP_E_OUTOF_MEMORY) {
    UpnpActionRequest_set_ErrCode(actionRequest, UPNP_E_OUTOF_MEMORY);
    return DMS_ERR_NO_MEMORY;
  }
  if (rc == UPNP_E_INVALID_PARAM) {
    UpnpActionRequest_set_ErrCode(actionRequest, UPNP_E_INVALID_PARAM);
    return DMS_ERR_INVALID_PARAM;
  }
  return DMS_ERR_UPNP_FAILURE;
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
    // Every event of this server carries exactly two variables.
    constexpr size_t kEventedVariables = 2;
    PropertySet propertySet;
    int rc = buildPropertySet(varNames, varValues, kEventedVariables, propertySet);
    if (rc == UPNP_E_SUCCESS) {
      const std::string deviceId = std::string("uuid:") + mgr->udn;
      rc = UpnpNotifyExt(mgr->deviceHandle, deviceId.c_str(), serviceId, propertySet.get());
    }
    if (rc != UPNP_E_SUCCESS) {
      DMS_TRACE(OSAL_TRACE_ERR, "Function %s Failed with error = %d\n", "UpnpNotify", rc);
    }
  });
  return DMS_SUCCESS;
}

int32_t dmsDevEventMgrDeInit(dmsDevEventMgr *mgr) {
  if (mgr == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  std::unique_ptr<dmsDevEventMgr> owner(mgr);
  return DMS_SUCCESS;
}

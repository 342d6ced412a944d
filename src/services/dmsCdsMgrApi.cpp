// ContentDirectory service: instance life cycle, the action and state
// variable tables, the two callbacks the device event manager calls, and the
// eventing of content changes.
//
// An action request runs its table row in order: analyse the arguments,
// create the response, hand every response argument to the event manager.
// Whatever happens after the row is found, the row's own release operation
// frees the analysed arguments, then the response arguments and the text
// buffer are released.
#include "services/dmsCdsMgrApi.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "content/dmsClmApi.h"
#include "dlna_dms.h"
#include "services/dmsCdsResume.h"
#include "util/dlnaUtil_xmlParser.h"
#include "util/dmsErrors.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsCdsMgrApi";

namespace {

using dmsCdsMgrAnalyzeReqFn = int32_t (*)(dmsCdsMgrHandle *handle,
                                          dmsActionRequest *actionRequest, void *requestArgs);
using dmsCdsMgrCreateRespFn = int32_t (*)(dmsCdsMgrHandle *handle, void *requestArgs,
                                          dmsCdsRespArgs *respArgs, dlnaUtilBuffer *buffer);
using dmsCdsMgrReleaseReqFn = int32_t (*)(void *requestArgs);

// Which record an action's arguments are analysed into; Browse and Search
// also write DIDL-Lite into a text buffer of their own.
enum class dmsCdsArgsKind { kBrowse, kSearch, kBookmark };

// One action: its name, its arguments' record, and up to three operations
// (NULL: none).
struct dmsCdsMgrAction {
  const char *actionName;
  dmsCdsArgsKind args;
  bool writesDidl;
  dmsCdsMgrAnalyzeReqFn analyzeRequest;
  dmsCdsMgrCreateRespFn createResponse;
  dmsCdsMgrReleaseReqFn releaseRequest;
};

// The analysers and releasers take their own record type; the table holds
// them behind these untyped adaptors.
template <typename Args>
int32_t callAnalyzer(int32_t (*analyze)(dmsCdsMgrHandle *, dmsActionRequest *, Args *),
                     dmsCdsMgrHandle *handle, dmsActionRequest *actionRequest,
                     void *requestArgs) {
  return analyze(handle, actionRequest, static_cast<Args *>(requestArgs));
}

template <auto Analyze>
int32_t untypedAnalyze(dmsCdsMgrHandle *handle, dmsActionRequest *actionRequest,
                       void *requestArgs) {
  return callAnalyzer(Analyze, handle, actionRequest, requestArgs);
}

template <typename Args>
int32_t callReleaser(int32_t (*release)(Args *), void *requestArgs) {
  return release(static_cast<Args *>(requestArgs));
}

template <auto Release>
int32_t untypedRelease(void *requestArgs) {
  return callReleaser(Release, requestArgs);
}

}  // namespace

static const dmsCdsMgrAction gsa_s_dmsCdsMgrActionList[] = {
    // action name            arguments                  DIDL   analyse                                          create response                        release
    {"GetSearchCapabilities", dmsCdsArgsKind::kBrowse,   false, nullptr,                                         dmsCdsCreateRespGetSearchCaps,         nullptr},
    {"GetSortCapabilities",   dmsCdsArgsKind::kBrowse,   false, nullptr,                                         dmsCdsCreateRespGetSortCaps,           nullptr},
    {"GetFeatureList",        dmsCdsArgsKind::kBrowse,   false, nullptr,                                         dmsCdsCreateRespGetFeatureList,        nullptr},
    {"GetSystemUpdateID",     dmsCdsArgsKind::kBrowse,   false, nullptr,                                         dmsCdsCreateRespGetSystemUpdateId,     nullptr},
    {"GetServiceResetToken",  dmsCdsArgsKind::kBrowse,   false, nullptr,                                         dmsCdsCreateRespGetServiceResetToken,  nullptr},
    {"Browse",                dmsCdsArgsKind::kBrowse,   true,  untypedAnalyze<dmsCdsAnalyzeReqBrowse>,          dmsCdsCreateRespBrowse,                untypedRelease<dmsCdsReleaseReqArgsBrowse>},
    {"Search",                dmsCdsArgsKind::kSearch,   true,  untypedAnalyze<dmsCdsAnalyzeReqSearch>,          dmsCdsCreateRespSearch,                untypedRelease<dmsCdsReleaseReqArgsSearch>},
    {"X_SetBookmark",         dmsCdsArgsKind::kBookmark, false, untypedAnalyze<dmsCdsAnalyzeReqSetBookmark>,     dmsCdsCreateRespBookmark,              untypedRelease<dmsCdsReleaseReqArgsBookmark>},
    {"UpdateObject",          dmsCdsArgsKind::kBookmark, false, untypedAnalyze<dmsCdsAnalyzeReqUpdateObject>,    dmsCdsCreateRespBookmark,              untypedRelease<dmsCdsReleaseReqArgsBookmark>},
    {"X_GetFeatureList",      dmsCdsArgsKind::kBookmark, false, untypedAnalyze<dmsCdsAnalyzeReqFeatureList>,     dmsCdsCreateRespXFeatureList,          untypedRelease<dmsCdsReleaseReqArgsBookmark>},
};

// Initial values for subscribers and answers to state variable queries;
// SystemUpdateID is answered from the live counter instead of its row.  The
// last row ends the table.
static const dmsStateVarPair gsa_s_dmsCdsMgrStateVarList[] = {
    // name                    value
    {"ContainerUpdateIDs",     ""},
    {"TransferIDs",            ""},
    {"SystemUpdateID",         "0"},
    {nullptr,                  nullptr},
};

namespace {

constexpr int32_t kMaxResponseArguments = 4;

// The analysed arguments of one request.  Browse and Search fill their own
// record; the fixed answers are handed the (unused) Browse record.
struct dmsCdsMgrRequestArgs {
  dmsCdsBrowseArgs browse;
  dmsCdsSearchArgs search;
  dmsCdsBookmarkArgs bookmark;
};

bool isAction(const dmsCdsMgrAction &action, const char *name) {
  return std::strcmp(action.actionName, name) == 0;
}

void *requestArgsFor(const dmsCdsMgrAction &action, dmsCdsMgrRequestArgs &requestArgs) {
  switch (action.args) {
    case dmsCdsArgsKind::kSearch: return &requestArgs.search;
    case dmsCdsArgsKind::kBookmark: return &requestArgs.bookmark;
    default: return &requestArgs.browse;
  }
}

const dmsCdsMgrAction *findAction(const char *actionName) {
  for (const dmsCdsMgrAction &action : gsa_s_dmsCdsMgrActionList) {
    if (isAction(action, actionName)) return &action;
  }
  return nullptr;
}

// Runs at the end of every request, also when a step failed or threw: the
// action's own release operation, then the response arguments.  (The buffer
// is released by its owner, declared before this guard.)
class RequestCleanup {
 public:
  RequestCleanup(const dmsCdsMgrAction &action, void *requestArgs, dmsCdsRespArgs &respArgs)
      : action_(action), requestArgs_(requestArgs), respArgs_(respArgs) {}
  ~RequestCleanup() {
    if (action_.releaseRequest != nullptr) action_.releaseRequest(requestArgs_);
    dmsCdsMgrReleaseRespArgs(&respArgs_);
  }
  RequestCleanup(const RequestCleanup &) = delete;
  RequestCleanup &operator=(const RequestCleanup &) = delete;

 private:
  const dmsCdsMgrAction &action_;
  void *requestArgs_;
  dmsCdsRespArgs &respArgs_;
};

int32_t addResponseArguments(dmsCdsMgrHandle *handle, dmsActionRequest *actionRequest,
                             const dmsCdsRespArgs &respArgs) {
  int32_t count = respArgs.count < kMaxResponseArguments ? respArgs.count : kMaxResponseArguments;
  for (int32_t i = 0; i < count; ++i) {
    int32_t result = dmsDevEventMgrAddActionResponse(handle->eventMgr, actionRequest,
                                                     DMS_CDS_SERVICE_TYPE, respArgs.names[i],
                                                     respArgs.values[i]);
    if (result != DMS_SUCCESS) {
      DMS_TRACE(OSAL_TRACE_ERR, "Function %s Failed with error = %d\n",
                "dmsDevEventMgrAddActionResponse", result);
      return result;
    }
  }
  return DMS_SUCCESS;
}

int32_t runAction(dmsCdsMgrHandle *handle, dmsActionRequest *actionRequest,
                  const dmsCdsMgrAction &action) {
  dmsCdsMgrRequestArgs requestArgs;
  void *actionArgs = requestArgsFor(action, requestArgs);
  DlnaBufferPtr buffer;
  dmsCdsRespArgs respArgs;
  RequestCleanup cleanup(action, actionArgs, respArgs);

  if (action.writesDidl) {
    dlnaUtilBuffer *allocated = nullptr;
    int32_t result = dmsUtilErrMapToDmsErr(dlnaUtil_allocateBuffer(&allocated));
    if (result != DMS_SUCCESS) {
      DMS_TRACE(OSAL_TRACE_ERR, "Function %s Failed with error = %d\n",
                "dlnaUtil_allocateBuffer", result);
      return result;
    }
    buffer.reset(allocated);
  }
  if (action.analyzeRequest != nullptr) {
    int32_t result = action.analyzeRequest(handle, actionRequest, actionArgs);
    if (result != DMS_SUCCESS) {
      DMS_TRACE(OSAL_TRACE_ERR, "Function %s Failed with error = %d\n",
                "p_f_cdsMgrActionAnalyzeReq", result);
      return result;
    }
  }
  if (action.createResponse == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Action Response Handling not supported\n");
    return DMS_ERR_UNSUPPORTED_ACTION;
  }
  int32_t result = action.createResponse(handle, actionArgs, &respArgs, buffer.get());
  if (result != DMS_SUCCESS) {
    DMS_TRACE(OSAL_TRACE_ERR, "Function %s Failed with error = %d\n",
              "p_f_cdsMgrActionCreateResp", result);
    return result;
  }
  return addResponseArguments(handle, actionRequest, respArgs);
}

int32_t handleActionRequest(dmsActionRequest *actionRequest, dmsCdsMgrHandle *handle) {
  const char *serviceId = actionRequest->serviceId;
  if (serviceId == nullptr || std::strcmp(serviceId, DMS_CDS_SERVICE_ID) != 0) {
    DMS_TRACE(OSAL_TRACE_ERR, "Action request is not for CDS service. ServiceID given = %s\n",
              serviceId != nullptr ? serviceId : "");
    return DMS_ERR_WRONG_SERVICE;
  }
  const char *actionName = actionRequest->actionName;
  const dmsCdsMgrAction *action = actionName != nullptr ? findAction(actionName) : nullptr;
  if (action == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Requested Action %s is NOT supported\n",
              actionName != nullptr ? actionName : "");
    return DMS_ERR_UNSUPPORTED_ACTION;
  }
  return runAction(handle, actionRequest, *action);
}

int32_t answerStateVarQuery(const dmsCdsMgrHandle *handle, dmsStateVarRequest *stateVarRequest) {
  const char *serviceId = stateVarRequest->serviceId;
  if (serviceId == nullptr || std::strcmp(serviceId, DMS_CDS_SERVICE_ID) != 0) {
    DMS_TRACE(OSAL_TRACE_ERR,
              "State Variable request is not for CDS service. ServiceID given = %s\n",
              serviceId != nullptr ? serviceId : "");
    return DMS_ERR_WRONG_SERVICE;
  }
  const char *name = stateVarRequest->stateVarName;
  for (const dmsStateVarPair *row = gsa_s_dmsCdsMgrStateVarList;
       name != nullptr && row->name != nullptr; ++row) {
    if (std::strcmp(row->name, name) != 0) continue;
    const std::string live = std::strcmp(name, "SystemUpdateID") == 0 ? dmsCdsMgrSystemUpdateIdText(handle) : "";
    const char *value = live.empty() ? row->value : live.c_str();
    if (value != nullptr) {
      stateVarRequest->currentVal = value;
      stateVarRequest->hasValue = true;
    }
    return DMS_SUCCESS;
  }
  DMS_TRACE(OSAL_TRACE_ERR, "Requested State Variable %s is NOT supported\n",
            name != nullptr ? name : "");
  return DMS_ERR_UNSUPPORTED_STATE_VARIABLE;
}

}  // namespace

const dmsStateVarPair *dmsCdsMgrGetStateVarListInfo() { return gsa_s_dmsCdsMgrStateVarList; }

std::string dmsCdsMgrSystemUpdateIdText(const dmsCdsMgrHandle *handle) {
  if (handle == nullptr || handle->contentList == nullptr) return "0";
  return std::to_string(dmsClmGetSystemUpdateId(handle->contentList));
}

int32_t dmsCdsMgrInit(dmsCdsMgrHandle **handleOut, dmsDevEventMgr *eventMgr,
                      dmsContentListInfo *contentList, const char *serverAddress,
                      int32_t serverPort) {
  if (handleOut == nullptr || eventMgr == nullptr || contentList == nullptr ||
      serverAddress == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    if (handleOut != nullptr) *handleOut = nullptr;
    return DMS_ERR_INVALID_PARAM;
  }
  *handleOut = nullptr;
  return dmsGuard("dmsCdsMgrInit", DMS_ERR_NO_MEMORY, [&]() -> int32_t {
    auto handle = std::make_unique<dmsCdsMgrHandle>();
    // Filled before registering, so that no callback can see a half-made record.
    handle->eventMgr = eventMgr;
    handle->contentList = contentList;
    std::strncpy(handle->serverAddress, serverAddress, sizeof(handle->serverAddress) - 1);
    handle->serverPort = serverPort;
    handle->notifyCount = 0;
    dmsCdsMgrHandle *made = handle.get();
    made->moderator = std::make_unique<dmsCdsEventModerator>(
        [made](const std::string &containerUpdateIds, uint32_t systemUpdateId) {
          DMS_TRACE(OSAL_TRACE_INFO, "ContainterUpdateIDs %s\n", containerUpdateIds.c_str());
          const std::string system = std::to_string(systemUpdateId);
          const char *names[2] = {"ContainerUpdateIDs", "SystemUpdateID"};
          const char *values[2] = {containerUpdateIds.c_str(), system.c_str()};
          dmsDevEventMgrNotifyEvent(made->eventMgr, DMS_CDS_SERVICE_ID, names, values);
        });
    // Registered last: nothing after it may fail and leave the manager
    // pointing at a record that is gone.
    int32_t result = dmsDevEventMgrRegisterCdsEventCallback(
        eventMgr, handle.get(), dmsCdsMgrActionRequestCbf, dmsCdsMgrStateVariableRequestCbf);
    if (result != DMS_SUCCESS) {
      DMS_TRACE(OSAL_TRACE_ERR, "Function %s Failed with error = %d\n",
                "dmsDevEventMgrRegisterCdsEventCallback", result);
      return result;
    }
    *handleOut = handle.release();
    return DMS_SUCCESS;
  });
}

int32_t dmsCdsMgrDeInit(dmsCdsMgrHandle *handle) {
  if (handle == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  handle->moderator.reset();  // its last event goes out while the manager is there
  int32_t result = dmsDevEventMgrUnRegisterCdsEventCallback(handle->eventMgr);
  if (result != DMS_SUCCESS) {
    DMS_TRACE(OSAL_TRACE_ERR, "Function %s Failed with error = %d\n",
              "dmsDevEventMgrUnRegisterCdsEventCallback", result);
    return result;
  }
  std::unique_ptr<dmsCdsMgrHandle> owner(handle);
  owner->eventMgr = nullptr;
  owner->contentList = nullptr;
  owner->serverAddress[0] = '\0';
  owner->serverPort = 0;
  owner->notifyCount = 0;
  return DMS_SUCCESS;
}

int32_t dmsCdsMgrActionRequestCbf(void *actionRequest, void *handle) {
  if (actionRequest == nullptr || handle == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  // Called on the front door's threads: nothing may escape into the C library.
  return dmsGuard("dmsCdsMgrActionRequestCbf", DMS_ERR_NO_MEMORY, [&] {
    return handleActionRequest(static_cast<dmsActionRequest *>(actionRequest),
                               static_cast<dmsCdsMgrHandle *>(handle));
  });
}

int32_t dmsCdsMgrStateVariableRequestCbf(void *stateVarRequest, void *handle) {
  // `handle` is this service's record (for the live SystemUpdateID).
  if (stateVarRequest == nullptr || handle == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsGuard("dmsCdsMgrStateVariableRequestCbf", DMS_ERR_FAILURE, [&] {
    return answerStateVarQuery(static_cast<const dmsCdsMgrHandle *>(handle),
                               static_cast<dmsStateVarRequest *>(stateVarRequest));
  });
}

int32_t dmsCdsMgrReleaseRespArgs(dmsCdsRespArgs *respArgs) {
  if (respArgs == nullptr) return DMS_SUCCESS;
  int32_t count = respArgs->count < kMaxResponseArguments ? respArgs->count
                                                           : kMaxResponseArguments;
  for (int32_t i = 0; i < count; ++i) {
    if (respArgs->names[i] == nullptr) continue;
    // "Result" is the request buffer's text, released with the buffer.
    if (std::strcmp(respArgs->names[i], "Result") != 0) std::free(respArgs->values[i]);
    respArgs->values[i] = nullptr;
    respArgs->names[i] = nullptr;
  }
  respArgs->count = 0;
  return DMS_SUCCESS;
}

std::string dmsCdsFormatContainerUpdateIds(const dmsCdsContentChangeInfo &changeInfo) {
  std::string text;
  if (changeInfo.pairs == nullptr) return text;
  for (int32_t pair = 0; pair < changeInfo.pairCount; ++pair) {
    if (pair > 0) text += ',';
    text += std::to_string(static_cast<int32_t>(changeInfo.pairs[2 * pair]));
    text += ',';
    text += std::to_string(static_cast<int32_t>(changeInfo.pairs[2 * pair + 1]));
  }
  return text;
}

int32_t dmsCdsMgrNotifyContentChange(dmsCdsMgrHandle *handle,
                                     const dmsCdsContentChangeInfo *changeInfo) {
  if (handle == nullptr || changeInfo == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Input Parameter Error: Pointer NULL\n");
    return DMS_ERR_INVALID_PARAM;
  }
  ++handle->notifyCount;
  if (handle->moderator == nullptr) return DMS_ERR_INVALID_PARAM;
  handle->moderator->changed(changeInfo->pairs, changeInfo->pairCount,
                             static_cast<uint32_t>(changeInfo->systemUpdateId));
  return DMS_SUCCESS;
}

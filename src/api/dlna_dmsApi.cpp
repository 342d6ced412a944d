// The server's lifecycle: create, start, stop, destroy.
//
// Every exported function checks its arguments, runs the C++ body and turns
// any escaping exception into a status code in one place; no exception leaves
// the library.
#include "api/dlna_dmsApi.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>

#include "api/dlna_dmsSdkFence.h"
#include "art/dmsArtCache.h"
#include "content/dmsClmApi.h"
#include "gena/dmsGena.h"
#include "http/dmsAvtHttpHandler.h"
#include "http/dmsHttpServer.h"
#include "services/dmsCdsMgrApi.h"
#include "services/dmsCmsApi.h"
#include "services/dmsDeviceEventMgr.h"
#include "services/dmsMsMrsApi.h"
#include "util/dlnaUtil_uuid.h"
#include "util/dmsGuard.h"
#include "util/dmsMemory.h"
#include "util/osal_trace.h"

namespace {

constexpr char kTraceFile[] = "dlna_dmsApi.c";
constexpr size_t kDefaultArtCacheBytes = 8 * 1024 * 1024;

struct FreeDeleter {
  void operator()(void *pointer) const { std::free(pointer); }
};
using HandleOwner = std::unique_ptr<dmsHandle, FreeDeleter>;

int32_t traceSdkFailure(int result, const char *callee, int32_t code) {
  DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", result, callee);
  return code;
}

// Stop order and lifetimes.  The front door calls the services and reads
// the content list; its connections copy what they serve under the list's
// read lock, so closing it (which ends every connection at once, whatever
// the client does) is all that must happen before they go.  It is closed
// first, by stop and again here, so that destroy never waits on a player.
// Then the SDK is finished (discovery only), then the services (the
// ContentDirectory's last event may still go to the GENA hub), then the
// hub, then the event manager and the content list.
//
// Releases, in reverse order of creation, whatever part of a server exists.
// Used by destroy and by a create that fails half-way, so that a later create
// in the same process starts from a clean SDK.  Returns the result of freeing
// the content list (0 when there was none).
int32_t tearDownServer(dmsHandle *handle) {
  dmsHttpServerStop(handle->httpServer);
  handle->httpServer = nullptr;
  if (handle->sdkReady) {
    int result = UpnpFinish();
    if (result != UPNP_E_SUCCESS) DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", result, "UpnpFinish");
    handle->sdkReady = 0;
  }
  dmsAvtHttp_deinit();
  if (handle->msMrsContext != nullptr) {
    int32_t result = dmsMsMrsDeInit(handle->msMrsContext);
    if (result != 0) DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", result, "dmsMsMrsDeInit");
    handle->msMrsContext = nullptr;
  }
  if (handle->cmsContext != nullptr) {
    int32_t result = dmsCmsDeInit(handle->cmsContext);
    if (result != 0) DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", result, "dmsCmsMgrDeInit");
    handle->cmsContext = nullptr;
  }
  if (handle->cdsContext != nullptr) {
    if (handle->contentList != nullptr && handle->cdsListener != 0) {
      dmsClmRemoveListener(handle->contentList, handle->cdsListener);
    }
    handle->cdsListener = 0;
    int32_t result = dmsCdsMgrDeInit(handle->cdsContext);
    if (result != 0) DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", result, "dmsCdsMgrDeInit");
    handle->cdsContext = nullptr;
  }
  if (handle->eventMgr != nullptr) dmsDevEventMgrSetEventSink(handle->eventMgr, nullptr);
  std::unique_ptr<dmsGena> gena(handle->gena);  // nothing sends events any more
  handle->gena = nullptr;
  gena.reset();
  if (handle->eventMgr != nullptr) {
    int32_t result = dmsDevEventMgrDeInit(handle->eventMgr);
    if (result != 0) DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", result, "dmsDevEventMgrDeInit");
    handle->eventMgr = nullptr;
  }
  dmsViewsRelease(handle);  // nothing reads them any more
  dmsStateRelease(handle);
  int32_t listResult = DMS_SUCCESS;
  if (handle->contentList != nullptr) {
    listResult = dmsClmFreeContentList(handle->contentList);
    if (listResult != 0) DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", listResult, "dmsClmFreeContentList");
    handle->contentList = nullptr;
  }
  if (handle->mutexReady) {
    pthread_cond_destroy(&handle->wake);
    pthread_mutex_destroy(&handle->mutex);
    pthread_mutex_destroy(&handle->sdkMutex);
    handle->mutexReady = 0;
  }
  std::free(handle->description);
  handle->description = nullptr;
  std::unique_ptr<dmsArtCache> artCache(handle->artCache);  // nothing reads it any more
  handle->artCache = nullptr;
  dmsClientsRelease(handle);
  return listResult;
}

// Undoes a partly created server unless the creation was committed.
class CreationGuard {
 public:
  explicit CreationGuard(dmsHandle *handle) : handle_(handle) {}
  CreationGuard(const CreationGuard &) = delete;
  CreationGuard &operator=(const CreationGuard &) = delete;
  ~CreationGuard() {
    if (!committed_) tearDownServer(handle_);
  }
  void commit() { committed_ = true; }

 private:
  dmsHandle *handle_;
  bool committed_ = false;
};

}  // namespace

// Brings up the SDK for discovery: on the configured address, with a port
// of its own that nothing advertises, and fenced off from the network.
int32_t dmsStartSdk(dmsHandle *handle) {
  const std::string address(handle->config.ipAddress, strnlen(handle->config.ipAddress, sizeof handle->config.ipAddress));
  // The SDK takes exactly the port it is given: one that is free now, tried
  // again should another program take it first.
  int result = UPNP_E_SOCKET_BIND;
  for (int attempt = 0; attempt < 3 && result == UPNP_E_SOCKET_BIND; ++attempt) {
    result = UpnpInit(address.c_str(), dmsFreeSdkPort(address.c_str()));
  }
  if (result != UPNP_E_SUCCESS) return traceSdkFailure(result, "UpnpInit", DMS_ERR_INVALID_PARAM);
  handle->sdkReady = 1;
  result = UpnpEnableWebserver(0);
  if (result != UPNP_E_SUCCESS) return traceSdkFailure(result, "UpnpEnableWebserver", DMS_ERR_INVALID_PARAM);
  dmsFenceSdkListeners(UpnpGetServerPort(), UpnpGetServerPort6());
  DMS_TRACE(OSAL_TRACE_INFO, "IP: [%s], Port: [%d]\n", address.c_str(), static_cast<int>(handle->config.port));
  return DMS_SUCCESS;
}

// Registers the device with the SDK by the URL of the front door's
// description (the SDK fetches it once, then names it as LOCATION in its
// announcements and search answers).  Nothing is announced: start
// advertises.
int32_t dmsRegisterDevice(dmsHandle *handle) {
  const std::string url = std::string("http://") + handle->config.ipAddress + ":" +
                          std::to_string(handle->config.port) + "/description.xml";
  int result = UpnpRegisterRootDevice2(UPNPREG_URL_DESC, url.c_str(), 0, 0, dmsDeviceEventHandlerCbf, handle,
                                       &handle->deviceHandle);
  if (result != UPNP_E_SUCCESS) return traceSdkFailure(result, "UpnpRegisterRootDevice2", DMS_ERR_INVALID_PARAM);
  handle->registered = 1;
  handle->eventMgr->deviceHandle = handle->deviceHandle;
  result = UpnpSetMaxSubscriptionTimeOut(handle->deviceHandle, DMS_ADVERTISEMENT_MAX_AGE);
  if (result != UPNP_E_SUCCESS) return traceSdkFailure(result, "UpnpSetMaxSubscriptionTimeOut", DMS_ERR_INVALID_PARAM);
  return DMS_SUCCESS;
}

// Unregisters the device: the SDK sends ssdp:byebye and stops answering for it.
int32_t dmsUnregisterDevice(dmsHandle *handle) {
  if (!handle->registered) return DMS_SUCCESS;
  handle->registered = 0;
  int result = UpnpUnRegisterRootDevice(handle->deviceHandle);
  if (result != UPNP_E_SUCCESS) return traceSdkFailure(result, "UpnpUnRegisterRootDevice", DMS_ERR_INVALID_PARAM);
  return DMS_SUCCESS;
}

// Opens the front door on the configured port (0: any free one, then kept).
int32_t dmsOpenFrontDoor(dmsHandle *handle) {
  dmsHttpServerConfig config;
  config.address.assign(handle->config.ipAddress, strnlen(handle->config.ipAddress, sizeof handle->config.ipAddress));
  config.port = handle->config.port;
  config.description = handle->description;
  config.contentList = handle->contentList;
  config.artCache = handle->artCache;
  config.eventMgr = handle->eventMgr;
  config.gena = handle->gena;
  config.clients = handle->clients;
  config.facts = handle->facts;
  int32_t result = dmsHttpServerStart(&handle->httpServer, config);
  if (result != DMS_SUCCESS) return traceSdkFailure(result, "dmsHttpServerStart", result);
  handle->config.port = dmsHttpServerPort(handle->httpServer);
  // The DIDL res URLs name this port.
  if (handle->cdsContext != nullptr) handle->cdsContext->serverPort = handle->config.port;
  return DMS_SUCCESS;
}

namespace {

// Subscriptions of the three services, fed by the event manager.  The sink
// is written here, before any thread can send, and cleared by tear-down
// after the services (and the moderator's thread) are gone.
void createEventing(dmsHandle *handle) {
  dmsDevEventMgr *mgr = handle->eventMgr;
  handle->gena = std::make_unique<dmsGena>(DMS_SERVICE_COUNT, dmsGenaLimits{}, [mgr](size_t service) {
                   return dmsDevEventMgrInitialEvent(mgr, service);
                 }).release();  // owned by the handle
  dmsGena *gena = handle->gena;
  dmsDevEventMgrSetEventSink(mgr, [gena](size_t service, const std::string &propertySet) {
    gena->notify(service, propertySet);
  });
}

int32_t createServices(dmsHandle *handle) {
  int32_t result = dmsDevEventMgrInit(&handle->eventMgr, -1, handle->uuid);
  if (result != 0) return traceSdkFailure(result, "dmsDevEventMgrInit", result);
  // Before the ContentDirectory: its moderator sends through the sink from
  // its own thread as soon as it exists.
  createEventing(handle);
  result = dmsCdsMgrInit(&handle->cdsContext, handle->eventMgr, handle->contentList,
                         handle->config.ipAddress, handle->config.port);
  if (result != 0) return traceSdkFailure(result, "dmsCdsMgrInit", result);
  handle->cdsContext->artCache = handle->artCache;
  handle->cdsContext->facts = handle->facts;
  // Content changes reach the views and are evented through the
  // ContentDirectory.
  handle->cdsListener = dmsClmAddListener(handle->contentList, [handle](const dmsClmChangeSet &change) {
    return dmsFollowContentChange(handle, change);
  });
  result = dmsAvtHttp_init(".", handle->contentList);
  if (result != 0) return traceSdkFailure(result, "dmsAvtHttp_init", DMS_ERR_FAILURE);
  result = dmsCmsInit(&handle->cmsContext, handle->eventMgr);
  if (result != 0) return traceSdkFailure(result, "dmsCdsMgrInit", result);
  result = dmsMsMrsInit(&handle->msMrsContext, handle->eventMgr);
  if (result != 0) return traceSdkFailure(result, "dmsCdsMgrInit", result);
  return DMS_SUCCESS;
}

// The handle's mutex and the advertiser's wake-up (on the monotonic clock, so
// that a change of the wall clock cannot stretch the wait).
bool initLocking(dmsHandle *handle) {
  if (pthread_mutex_init(&handle->sdkMutex, nullptr) != 0) return false;
  if (pthread_mutex_init(&handle->mutex, nullptr) != 0) {
    pthread_mutex_destroy(&handle->sdkMutex);
    return false;
  }
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  int result = pthread_cond_init(&handle->wake, &attributes);
  pthread_condattr_destroy(&attributes);
  if (result != 0) {
    pthread_mutex_destroy(&handle->mutex);
    pthread_mutex_destroy(&handle->sdkMutex);
    return false;
  }
  handle->mutexReady = 1;
  return true;
}

int32_t createServer(dmsHandle **out, dmsConfig *config, const dmsDeviceInfo *deviceInfo) {
  HandleOwner owner(static_cast<dmsHandle *>(std::calloc(1, sizeof(dmsHandle))));
  if (!owner) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Memory Allocation");
    return DMS_ERR_NO_MEMORY;
  }
  dmsHandle *handle = owner.get();
  CreationGuard guard(handle);
  handle->config = *config;
  if (config->port < 0 || config->port > 65535) handle->config.port = 0;
  if (dlnaUtil_getUuid(handle->uuid) != 0) return traceSdkFailure(-1, "dlnaUtil_getUuid", DMS_ERR_INVALID_PARAM);
  if (deviceInfo != nullptr) handle->deviceInfo = *deviceInfo;
  int32_t result = dmsFormatDeviceDescription(handle, &handle->description);
  if (result != DMS_SUCCESS) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Memory Allocation");
    return result;
  }
  dmsStateOpen(handle);
  result = dmsClmCreateContentListRecalling(&handle->contentList, config->sharedPaths, config->numSharedPaths,
                                            config->maxContent, dmsStateRecall(handle));
  if (result != DMS_SUCCESS) return traceSdkFailure(result, "dmsClmCreateContentList", result);
  dmsStateFollow(handle);
  handle->artCache = std::make_unique<dmsArtCache>(kDefaultArtCacheBytes).release();  // owned by the handle
  dmsClientsOpen(handle);
  if ((result = createServices(handle)) != DMS_SUCCESS) return result;
  // The front door first: the SDK takes a port of its own (never ours) and
  // fetches our description when the device is registered.
  if ((result = dmsOpenFrontDoor(handle)) != DMS_SUCCESS) return result;
  config->port = handle->config.port;
  if ((result = dmsStartSdk(handle)) != DMS_SUCCESS) return result;
  if ((result = dmsRegisterDevice(handle)) != DMS_SUCCESS) return result;
  dmsFollowRemember(handle);
  if (!initLocking(handle)) {
    return traceSdkFailure(DMS_ERR_MUTEX_FAILURE, "osal_pthread_mutex_init", DMS_ERR_MUTEX_FAILURE);
  }
  handle->advertisementPeriod = DMS_ADVERTISEMENT_PERIOD;
  handle->lastAdvertisement = 0;
  handle->hasAdvertiserThread = 0;
  handle->state = DMS_STATE_CREATED;
  guard.commit();
  *out = owner.release();
  return DMS_SUCCESS;
}

int32_t setState(dmsHandle *handle, int32_t state, bool stampAdvertisement, const char *lockName) {
  if (pthread_mutex_lock(&handle->mutex) != 0) {
    return traceSdkFailure(DMS_ERR_MUTEX_FAILURE, lockName, DMS_ERR_MUTEX_FAILURE);
  }
  handle->state = state;
  pthread_cond_broadcast(&handle->wake);
  if (stampAdvertisement) handle->lastAdvertisement = static_cast<int64_t>(std::time(nullptr));
  pthread_mutex_unlock(&handle->mutex);
  return DMS_SUCCESS;
}

// The SDK and front-door part of start, under sdkMutex (the advertiser of a
// second start may be moving).
int32_t openAndAnnounce(dmsHandle *handle) {
  dmsPthreadLock locked(handle->sdkMutex);
  if (handle->httpServer == nullptr) {
    int32_t opened = dmsOpenFrontDoor(handle);
    if (opened != DMS_SUCCESS) return opened;
  }
  // Registered since create, or again after a stop.
  if (!handle->registered) {
    int32_t registered = dmsRegisterDevice(handle);
    if (registered != DMS_SUCCESS) return registered;
  }
  int result = UPNP_E_SUCCESS;
  for (int round = 0; round < 2; ++round) {
    result = UpnpSendAdvertisement(handle->deviceHandle, DMS_ADVERTISEMENT_MAX_AGE);
    if (result != UPNP_E_SUCCESS) return traceSdkFailure(result, "UpnpSendAdvertisement", DMS_ERR_UPNP_FAILURE);
  }
  return DMS_SUCCESS;
}

int32_t startServer(dmsHandle *handle) {
  // An address that changed while the server was stopped is taken first.
  int32_t result = dmsFollowStart(handle);
  if (result == DMS_SUCCESS) result = openAndAnnounce(handle);
  if (result != DMS_SUCCESS) return result;  // stop or destroy ends the watch
  // The scan and the views' build leave freed memory in the allocator's
  // arenas (the detector threads' above all).
  dmsGiveBackMemory();
  int32_t status = setState(handle, DMS_STATE_STARTED, true, "osal_pthread_mutex_lock");
  if (status != DMS_SUCCESS) return status;
  // A second start without a stop advertises again but keeps the one
  // advertiser that is already running.
  if (handle->hasAdvertiserThread) return DMS_SUCCESS;
  if (pthread_create(&handle->advertiserThread, nullptr, dmsDeviceAdvertiser, handle) != 0) {
    return traceSdkFailure(DMS_ERR_THREAD_FAILURE, "osal_pthread_create", DMS_ERR_THREAD_FAILURE);
  }
  handle->hasAdvertiserThread = 1;
  return DMS_SUCCESS;
}

int32_t stopServer(dmsHandle *handle) {
  dmsFollowStop(handle);
  int32_t status = setState(handle, DMS_STATE_STOPPED, false, "osal_pthread_mutex_init");
  if (status != DMS_SUCCESS) return status;
  if (handle->hasAdvertiserThread) {
    pthread_join(handle->advertiserThread, nullptr);
    handle->hasAdvertiserThread = 0;
  }
  dmsPthreadLock locked(handle->sdkMutex);
  const int32_t unregistered = dmsUnregisterDevice(handle);
  // Connections are closed whatever the players do, so that a host that
  // stops on SIGTERM exits at once.
  dmsHttpServerStop(handle->httpServer);
  handle->httpServer = nullptr;
  return unregistered;
}

// Media go out on the one port of the front door; the call is kept for
// hosts written for a separate media port.
int32_t setMediaPort(dmsHandle *, int32_t port) {
  DMS_TRACE(OSAL_TRACE_INFO, "Media port %d ignored: media are served on the HTTP port\n", static_cast<int>(port));
  return DMS_SUCCESS;
}

int32_t destroyServer(dmsHandle *handle) {
  if (handle->state != DMS_STATE_STOPPED) {
    int32_t result = stopServer(handle);
    if (result != DMS_SUCCESS) DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", result, "dlna_dmsStop");
  }
  return tearDownServer(handle);
}

}  // namespace

extern "C" DMS_EXPORT int32_t dlna_dmsCreate(dmsHandle **out, dmsConfig *config,
                                             const dmsDeviceInfo *deviceInfo) {
  if (out == nullptr || config == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Parameters\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsApiGuard("dlna_dmsCreate", [&] { return createServer(out, config, deviceInfo); });
}

extern "C" DMS_EXPORT int32_t dlna_dmsStart(dmsHandle *handle) {
  if (handle == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Parameters\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsApiGuard("dlna_dmsStart", [&] { return startServer(handle); });
}

extern "C" DMS_EXPORT int32_t dlna_dmsStop(dmsHandle *handle) {
  if (handle == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Parameters\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsApiGuard("dlna_dmsStop", [&] { return stopServer(handle); });
}

extern "C" DMS_EXPORT int32_t dlna_dmsDestroy(dmsHandle *handle) {
  if (handle == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Parameters\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsApiGuard("dlna_dmsDestroy", [&] { return destroyServer(handle); });
}

extern "C" DMS_EXPORT int32_t dlna_dmsSetMediaPort(dmsHandle *handle, int32_t port) {
  if (handle == nullptr || port < 0 || port > 65535) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Parameters\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsApiGuard("dlna_dmsSetMediaPort", [&] { return setMediaPort(handle, port); });
}

extern "C" DMS_EXPORT int32_t dlna_dmsGetMediaPort(const dmsHandle *handle) {
  if (handle == nullptr) return 0;
  return dmsGuard("dlna_dmsGetMediaPort", 0, [&] {
    if (!handle->mutexReady) return 0;
    dmsPthreadLock locked(const_cast<dmsHandle *>(handle)->sdkMutex);
    return handle->httpServer == nullptr ? 0 : handle->config.port;
  });
}

extern "C" DMS_EXPORT int32_t dlna_dmsSetArtCacheSize(dmsHandle *handle, uint64_t bytes) {
  if (handle == nullptr || handle->artCache == nullptr) return DMS_ERR_INVALID_PARAM;
  return dmsApiGuard("dlna_dmsSetArtCacheSize", [&] {
    handle->artCache->setBudget(static_cast<size_t>(std::min<uint64_t>(bytes, SIZE_MAX)));
    return DMS_SUCCESS;
  });
}

extern "C" DMS_EXPORT int32_t dlna_dmsGetArtCacheStats(const dmsHandle *handle, dmsArtCacheStats *out) {
  if (handle == nullptr || handle->artCache == nullptr || out == nullptr) return DMS_ERR_INVALID_PARAM;
  return dmsApiGuard("dlna_dmsGetArtCacheStats", [&] {
    *out = handle->artCache->stats();
    return DMS_SUCCESS;
  });
}

extern "C" DMS_EXPORT int32_t dlna_dmsGetCounts(dmsHandle *handle, int32_t *folders, int32_t *items) {
  if (handle == nullptr || handle->contentList == nullptr || folders == nullptr || items == nullptr) {
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsApiGuard("dlna_dmsGetCounts", [&] { return dmsClmGetCounts(handle->contentList, folders, items); });
}

extern "C" DMS_EXPORT dmsContentListInfo *dlna_dmsGetContentList(dmsHandle *handle) {
  if (handle == nullptr) return nullptr;
  return dmsGuard("dlna_dmsGetContentList", static_cast<dmsContentListInfo *>(nullptr),
                  [&] { return handle->contentList; });
}

int dmsDeviceEventHandlerCbf(Upnp_EventType eventType, const void *event, void *) {
  // The SDK's own port is fenced and advertised nowhere; should a request
  // reach it anyway, it is refused: control and subscriptions are the front
  // door's alone.
  dmsGuardVoid("dmsDeviceEventHandlerCbf", [&] {
    if (eventType == UPNP_CONTROL_ACTION_REQUEST && event != nullptr) {
      auto *request = static_cast<UpnpActionRequest *>(const_cast<void *>(event));
      UpnpActionRequest_set_ErrCode(request, 401);
      UpnpActionRequest_strcpy_ErrStr(request, "Invalid Action");
    } else if (eventType == UPNP_CONTROL_GET_VAR_REQUEST && event != nullptr) {
      UpnpStateVarRequest_set_ErrCode(static_cast<UpnpStateVarRequest *>(const_cast<void *>(event)), 404);
    }
  });
  return 0;
}

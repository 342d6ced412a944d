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
#include <string>

#include "content/dmsClmApi.h"
#include "http/dmsArtCache.h"
#include "http/dmsAvtHttpHandler.h"
#include "http/dmsMediaServer.h"
#include "services/dmsCdsMgrApi.h"
#include "services/dmsCmsApi.h"
#include "services/dmsDeviceEventMgr.h"
#include "services/dmsMsMrsApi.h"
#include "util/dlnaUtil_uuid.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

namespace {

constexpr char kTraceFile[] = "dlna_dmsApi.c";
constexpr size_t kMaxContentLength = 65536;
constexpr char kWebDirectory[] = "/web";
constexpr size_t kDefaultArtCacheBytes = 8 * 1024 * 1024;

struct FreeDeleter {
  void operator()(void *pointer) const { std::free(pointer); }
};
using HandleOwner = std::unique_ptr<dmsHandle, FreeDeleter>;

int32_t traceSdkFailure(int result, const char *callee, int32_t code) {
  DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", result, callee);
  return code;
}

// Stop order and lifetimes.  The media server reads the content list and
// nothing else; its connections copy what they serve under the list's read
// lock, so closing it (which ends every connection at once, whatever the
// client does) is all that must happen before the list is freed.  It is
// closed first, by stop and again here, so that destroy never waits on a
// player.  Then the SDK is finished (it joins its workers, so no SOAP or
// /web callback still runs), then the services, then the content list.
//
// Releases, in reverse order of creation, whatever part of a server exists.
// Used by destroy and by a create that fails half-way, so that a later create
// in the same process starts from a clean SDK.  Returns the result of freeing
// the content list (0 when there was none).
int32_t tearDownServer(dmsHandle *handle) {
  dmsMediaServerStop(handle->mediaServer);
  handle->mediaServer = nullptr;
  // Finish the SDK first: it joins its worker threads, so no callback can
  // still be running when the services and the content list go away.
  if (handle->sdkReady) {
    UpnpEnableWebserver(0);
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
    if (handle->contentList != nullptr) dmsClmSetCdsContext(handle->contentList, nullptr);
    int32_t result = dmsCdsMgrDeInit(handle->cdsContext);
    if (result != 0) DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", result, "dmsCdsMgrDeInit");
    handle->cdsContext = nullptr;
  }
  if (handle->eventMgr != nullptr) {
    int32_t result = dmsDevEventMgrDeInit(handle->eventMgr);
    if (result != 0) DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", result, "dmsDevEventMgrDeInit");
    handle->eventMgr = nullptr;
  }
  int32_t listResult = DMS_SUCCESS;
  if (handle->contentList != nullptr) {
    listResult = dmsClmFreeContentList(handle->contentList);
    if (listResult != 0) DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", listResult, "dmsClmFreeContentList");
    handle->contentList = nullptr;
  }
  if (handle->mutexReady) {
    pthread_cond_destroy(&handle->wake);
    pthread_mutex_destroy(&handle->mutex);
    handle->mutexReady = 0;
  }
  std::free(handle->description);
  handle->description = nullptr;
  std::unique_ptr<dmsArtCache> artCache(handle->artCache);  // nothing reads it any more
  handle->artCache = nullptr;
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

// Brings up the SDK, its web server and the "/web" directory.
int32_t startSdk(dmsHandle *handle, dmsConfig *config) {
  std::string address(config->ipAddress, strnlen(config->ipAddress, sizeof config->ipAddress));
  int result = UpnpInit(address.c_str(), static_cast<unsigned short>(config->port & 0xFFFF));
  if (result != UPNP_E_SUCCESS) return traceSdkFailure(result, "UpnpInit", DMS_ERR_INVALID_PARAM);
  handle->sdkReady = 1;
  result = UpnpSetMaxContentLength(kMaxContentLength);
  if (result != UPNP_E_SUCCESS) return traceSdkFailure(result, "UpnpSetMaxContentLength", DMS_ERR_INVALID_PARAM);
  config->port = UpnpGetServerPort();
  DMS_TRACE(OSAL_TRACE_INFO, "IP: [%s], Port: [%d]\n", address.c_str(), static_cast<int>(config->port));
  result = UpnpEnableWebserver(1);
  if (result != UPNP_E_SUCCESS) return traceSdkFailure(result, "UpnpEnableWebserver", DMS_ERR_INVALID_PARAM);
  // Paths outside "/web" are looked up under a root that cannot hold files,
  // so that "/web/../etc/passwd" and the like answer 404.
  result = UpnpSetWebServerRootDir("/dev/null");
  if (result != UPNP_E_SUCCESS) return traceSdkFailure(result, "UpnpSetWebServerRootDir", DMS_ERR_INVALID_PARAM);
  result = dmsAvtHttp_setCallbacks();
  if (result != UPNP_E_SUCCESS) return traceSdkFailure(result, "UpnpSetVirtualDirCallbacks", DMS_ERR_INVALID_PARAM);
  result = UpnpAddVirtualDir(kWebDirectory, nullptr, nullptr);
  if (result != UPNP_E_SUCCESS) return traceSdkFailure(result, "UpnpAddVirtualDir", DMS_ERR_INVALID_PARAM);
  return DMS_SUCCESS;
}

// Registers the device with the SDK (which then serves its description and
// routes its actions and subscriptions to the event manager) and sets the
// subscription time-out.  Nothing is announced: start advertises.
int32_t registerDevice(dmsHandle *handle) {
  int result = UpnpRegisterRootDevice2(UPNPREG_BUF_DESC, handle->description, 0, 1,
                                       dmsDeviceEventHandlerCbf, handle->eventMgr, &handle->deviceHandle);
  if (result != UPNP_E_SUCCESS) return traceSdkFailure(result, "UpnpRegisterRootDevice2", DMS_ERR_INVALID_PARAM);
  handle->registered = 1;
  // Events and subscriptions go out under the handle of this registration.
  handle->eventMgr->deviceHandle = handle->deviceHandle;
  result = UpnpSetMaxSubscriptionTimeOut(handle->deviceHandle, DMS_ADVERTISEMENT_MAX_AGE);
  if (result != UPNP_E_SUCCESS) return traceSdkFailure(result, "UpnpSetMaxSubscriptionTimeOut", DMS_ERR_INVALID_PARAM);
  return DMS_SUCCESS;
}

// Unregisters the device: the SDK sends ssdp:byebye and stops answering for it.
int32_t unregisterDevice(dmsHandle *handle) {
  if (!handle->registered) return DMS_SUCCESS;
  handle->registered = 0;
  int result = UpnpUnRegisterRootDevice(handle->deviceHandle);
  if (result != UPNP_E_SUCCESS) return traceSdkFailure(result, "UpnpUnRegisterRootDevice", DMS_ERR_INVALID_PARAM);
  return DMS_SUCCESS;
}

// Opens the media server on `port` (0: any free one) and points the DIDL res
// URLs at it.
int32_t listenForMedia(dmsHandle *handle, int32_t port) {
  const std::string address(handle->config.ipAddress,
                            strnlen(handle->config.ipAddress, sizeof handle->config.ipAddress));
  int32_t result = dmsMediaServerStart(&handle->mediaServer, address.c_str(), port,
                                       handle->contentList, handle->artCache, dmsMediaServerLimits{});
  if (result != DMS_SUCCESS) return result;
  handle->mediaPort = dmsMediaServerPort(handle->mediaServer);
  // Browse may be running (the device is registered from create): the
  // port is atomic, and an answer names either the old port or the new.
  if (handle->cdsContext != nullptr) handle->cdsContext->serverPort = handle->mediaPort;
  return DMS_SUCCESS;
}

// The media server on `port`, or on any free port when that one is taken.
int32_t openMediaServer(dmsHandle *handle, int32_t port) {
  if (port < 0 || port > 65535) port = 0;
  int32_t result = listenForMedia(handle, port);
  if (result == DMS_ERR_FAILURE && port != 0) result = listenForMedia(handle, 0);
  if (result != DMS_SUCCESS) return traceSdkFailure(result, "dmsMediaServerStart", result);
  return DMS_SUCCESS;
}

int32_t createServices(dmsHandle *handle) {
  int32_t result = dmsDevEventMgrInit(&handle->eventMgr, -1, handle->uuid);
  if (result != 0) return traceSdkFailure(result, "dmsDevEventMgrInit", result);
  result = dmsCdsMgrInit(&handle->cdsContext, handle->eventMgr, handle->contentList,
                         handle->config.ipAddress, handle->mediaPort);
  if (result != 0) return traceSdkFailure(result, "dmsCdsMgrInit", result);
  handle->cdsContext->artCache = handle->artCache;
  // Content changes are evented through the ContentDirectory.
  dmsClmSetCdsContext(handle->contentList, handle->cdsContext);
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
  if (pthread_mutex_init(&handle->mutex, nullptr) != 0) return false;
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  int result = pthread_cond_init(&handle->wake, &attributes);
  pthread_condattr_destroy(&attributes);
  if (result != 0) {
    pthread_mutex_destroy(&handle->mutex);
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
  int32_t result = startSdk(handle, config);
  if (result != DMS_SUCCESS) return result;
  if (dlnaUtil_getUuid(handle->uuid) != 0) return traceSdkFailure(-1, "dlnaUtil_getUuid", DMS_ERR_INVALID_PARAM);
  handle->config = *config;
  if (deviceInfo != nullptr) handle->deviceInfo = *deviceInfo;
  result = dmsFormatDeviceDescription(handle, &handle->description);
  if (result != DMS_SUCCESS) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Memory Allocation");
    return result;
  }
  result = dmsClmCreateContentList(&handle->contentList, config->sharedPaths,
                                   config->numSharedPaths, config->maxContent);
  if (result != DMS_SUCCESS) return traceSdkFailure(result, "dmsClmCreateContentList", result);
  handle->artCache = std::make_unique<dmsArtCache>(kDefaultArtCacheBytes).release();  // owned by the handle
  if ((result = openMediaServer(handle, config->port + 1)) != DMS_SUCCESS) return result;
  if ((result = createServices(handle)) != DMS_SUCCESS) return result;
  if ((result = registerDevice(handle)) != DMS_SUCCESS) return result;
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

int32_t startServer(dmsHandle *handle) {
  if (handle->mediaServer == nullptr) {
    int32_t opened = openMediaServer(handle, handle->mediaPort);
    if (opened != DMS_SUCCESS) return opened;
  }
  // Registered since create, or again after a stop.
  if (!handle->registered) {
    int32_t registered = registerDevice(handle);
    if (registered != DMS_SUCCESS) return registered;
  }
  int result = UPNP_E_SUCCESS;
  for (int round = 0; round < 2; ++round) {
    result = UpnpSendAdvertisement(handle->deviceHandle, DMS_ADVERTISEMENT_MAX_AGE);
    if (result != UPNP_E_SUCCESS) return traceSdkFailure(result, "UpnpSendAdvertisement", DMS_ERR_UPNP_FAILURE);
  }
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
  int32_t status = setState(handle, DMS_STATE_STOPPED, false, "osal_pthread_mutex_init");
  if (status != DMS_SUCCESS) return status;
  if (handle->hasAdvertiserThread) {
    pthread_join(handle->advertiserThread, nullptr);
    handle->hasAdvertiserThread = 0;
  }
  const int32_t unregistered = unregisterDevice(handle);
  // Media connections are closed whatever the players do, so that a host
  // that stops on SIGTERM exits at once.
  dmsMediaServerStop(handle->mediaServer);
  handle->mediaServer = nullptr;
  return unregistered;
}

int32_t setMediaPort(dmsHandle *handle, int32_t port) {
  if (handle->state == DMS_STATE_STARTED) {
    DMS_TRACE(OSAL_TRACE_ERR, "Media port can only change while the server is stopped\n");
    return DMS_ERR_SYNC;
  }
  const int32_t previous = handle->mediaPort;
  const bool listening = handle->mediaServer != nullptr;
  dmsMediaServerStop(handle->mediaServer);
  handle->mediaServer = nullptr;
  int32_t result = listenForMedia(handle, port);
  if (result != DMS_SUCCESS) {
    // Keep serving where the server did; start opens it otherwise.
    if (listening) openMediaServer(handle, previous);
    else handle->mediaPort = previous;
    return traceSdkFailure(result, "dmsMediaServerStart", result);
  }
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
  return dmsGuard("dlna_dmsGetMediaPort", 0, [&] { return handle->mediaServer == nullptr ? 0 : handle->mediaPort; });
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

int dmsDeviceEventHandlerCbf(Upnp_EventType eventType, const void *event, void *cookie) {
  if (cookie == nullptr) return 0;
  dmsGuardVoid("dmsDeviceEventHandlerCbf", [&] {
    int32_t result = dmsDevEventMgrEventProcess(static_cast<dmsDevEventMgr *>(cookie), eventType, event);
    if (result != 0) DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", result, "dmsDevEventMgrEventProcess");
  });
  return 0;
}

// Following the address of the interface the server serves on.
//
// When a DHCP renewal or a reconnect gives the interface another address,
// the server moves there: the device says byebye where the old address
// still lets it out, the front door is opened again on the new address with
// the same port, the SDK is brought up again there (UpnpInit takes one
// address for good), the device is registered by its new URL and announced.
// The watch (src/netwatch) only reports; the advertiser thread moves, so
// that a move never runs beside an advertisement.
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "api/dlna_dmsApi.h"
#include "http/dmsHttpServer.h"
#include "netwatch/dmsAddressWatch.h"
#include "services/dmsCdsMgrApi.h"
#include "util/osal_trace.h"

namespace {

constexpr char kTraceFile[] = "dlna_dmsFollow.cpp";

// Moves discovery and the front door to `address`.  Each step is skipped
// when done already, so a move that failed half-way (the new address gone
// again, the port taken there) is completed by the next try.  Caller holds
// sdkMutex.
int32_t moveTo(dmsHandle *handle, const std::string &address) {
  dmsUnregisterDevice(handle);  // its byebye may find no way out: that is expected
  // Ends the connections to the old address, and with them every reader of
  // the ContentDirectory's address below.
  dmsHttpServerStop(handle->httpServer);
  handle->httpServer = nullptr;
  if (handle->sdkReady) {
    const int result = UpnpFinish();
    if (result != UPNP_E_SUCCESS) DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", result, "UpnpFinish");
    handle->sdkReady = 0;
  }
  std::snprintf(handle->config.ipAddress, sizeof handle->config.ipAddress, "%s", address.c_str());
  if (handle->cdsContext != nullptr) {
    auto &target = handle->cdsContext->serverAddress;
    std::snprintf(target, sizeof target, "%s", address.c_str());
  }
  int32_t result = dmsOpenFrontDoor(handle);
  if (result == DMS_SUCCESS) result = dmsStartSdk(handle);
  if (result == DMS_SUCCESS) result = dmsRegisterDevice(handle);
  if (result == DMS_SUCCESS) {
    DMS_TRACE(OSAL_TRACE_INFO, "Serving on the new address http://%s:%d/description.xml\n", address.c_str(),
              static_cast<int>(handle->config.port));
  }
  return result;
}

std::string currentAddress(dmsHandle *handle) {
  dmsPthreadLock locked(handle->sdkMutex);
  return std::string(handle->config.ipAddress, strnlen(handle->config.ipAddress, sizeof handle->config.ipAddress));
}

int32_t readState(dmsHandle *handle) {
  dmsPthreadLock locked(handle->mutex);
  return handle->state;
}

// The watch's report: noted for the advertiser, which is woken.
void notePending(dmsHandle *handle, const std::string &address) {
  dmsPthreadLock locked(handle->mutex);
  std::snprintf(handle->pendingAddress, sizeof handle->pendingAddress, "%s", address.c_str());
  pthread_cond_broadcast(&handle->wake);
}

int32_t setFollow(dmsHandle *handle, bool enabled) {
  handle->followDisabled = enabled ? 0 : 1;
  if (readState(handle) != DMS_STATE_STARTED) return DMS_SUCCESS;  // start decides
  if (!enabled) {
    dmsFollowStop(handle);
    return DMS_SUCCESS;
  }
  return dmsFollowStart(handle);
}

}  // namespace

void dmsFollowRemember(dmsHandle *handle) {
  const std::string interface = dmsInterfaceOfAddress(handle->config.ipAddress);
  std::snprintf(handle->followInterface, sizeof handle->followInterface, "%s", interface.c_str());
}

int32_t dmsFollowStart(dmsHandle *handle) {
  if (handle->followDisabled || handle->followInterface[0] == '\0') return DMS_SUCCESS;
  std::string address = currentAddress(handle);
  const std::string moved = dmsAddressToFollow(handle->followInterface, address);
  if (!moved.empty()) {
    dmsPthreadLock locked(handle->sdkMutex);
    const int32_t result = moveTo(handle, moved);
    if (result != DMS_SUCCESS) return result;
    address = moved;
  }
  if (handle->addressWatch != nullptr) return DMS_SUCCESS;
  handle->addressWatch = std::make_unique<dmsAddressWatch>(
                             handle->followInterface, address,
                             [handle](const std::string &fresh) { notePending(handle, fresh); })
                             .release();  // owned by the handle until stop
  return DMS_SUCCESS;
}

void dmsFollowStop(dmsHandle *handle) {
  std::unique_ptr<dmsAddressWatch> watch(handle->addressWatch);  // joins its thread
  handle->addressWatch = nullptr;
  watch.reset();
  // A move not made yet is judged again by the next start.
  dmsPthreadLock locked(handle->mutex);
  handle->pendingAddress[0] = '\0';
}

void dmsFollowPending(dmsHandle *handle) {
  std::string address;
  {
    dmsPthreadLock locked(handle->mutex);
    address.assign(handle->pendingAddress, strnlen(handle->pendingAddress, sizeof handle->pendingAddress));
  }
  if (address.empty()) return;
  int32_t result = DMS_SUCCESS;
  {
    dmsPthreadLock locked(handle->sdkMutex);
    result = moveTo(handle, address);
  }
  if (result != DMS_SUCCESS) return;
  dmsPthreadLock locked(handle->mutex);
  if (address == handle->pendingAddress) handle->pendingAddress[0] = '\0';
  handle->lastAdvertisement = 0;  // announce the new address at once
}

extern "C" DMS_EXPORT int32_t dlna_dmsSetFollowAddress(dmsHandle *handle, int32_t enabled) {
  if (handle == nullptr || !handle->mutexReady) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Parameters\n");
    return DMS_ERR_INVALID_PARAM;
  }
  return dmsApiGuard("dlna_dmsSetFollowAddress", [&] { return setFollow(handle, enabled != 0); });
}

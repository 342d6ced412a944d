// The device description the server registers with the SDK, and the thread
// that keeps re-announcing the device while the server is started.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <string>

#include "api/dlna_dmsApi.h"
#include "util/dmsThreadName.h"
#include "util/dlnaUtil_xmlText.h"
#include "util/dmsGuard.h"
#include "util/osal_trace.h"

namespace {

constexpr char kTraceFile[] = "dlna_dmsApi.c";

// One line, elements separated by runs of blanks.  Arguments in order:
// friendly name, manufacturer, manufacturer URL, model description, model
// name, model number, model URL, serial number, UUID.
constexpr char kDescriptionTemplate[] =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>"
    "       <root xmlns=\"urn:schemas-upnp-org:device-1-0\">"
    "       <specVersion>"
    "       <major>1</major>"
    "       <minor>0</minor>"
    "      </specVersion>"
    "      <device>"
    "      <deviceType>urn:schemas-upnp-org:device:MediaServer:1</deviceType>"
    "      <friendlyName>%s: DMS</friendlyName>"
    "      <manufacturer>%s</manufacturer>"
    "      <manufacturerURL>%s</manufacturerURL>"
    "      <modelDescription>%s</modelDescription>"
    "      <modelName>Windows Media Connect Compatible (%s)</modelName>"
    "      <modelNumber>%s</modelNumber>"
    "      <modelURL>%s</modelURL>"
    "      <serialNumber>%s</serialNumber>"
    "      <UDN>uuid:%s</UDN>"
    "      <dlna:X_DLNADOC xmlns:dlna=\"urn:schemas-dlna-org:device-1-0\">DMS-1.50</dlna:X_DLNADOC>"
    "      <iconList>"
    "      <icon>"
    "      <mimetype>image/jpeg</mimetype>"
    "      <height>48</height>"
    "      <width>48</width>"
    "      <depth>24</depth>"
    "      <url>/web/KV-icon-48x48.jpg</url>"
    "      </icon>"
    "      <icon>"
    "      <mimetype>image/jpeg</mimetype>"
    "      <height>120</height>"
    "      <width>120</width>"
    "      <depth>24</depth>"
    "      <url>/web/KV-icon-120x120.jpg</url>"
    "      </icon>"
    "      <icon>"
    "      <mimetype>image/png</mimetype>"
    "      <height>48</height>"
    "      <width>48</width>"
    "      <depth>24</depth>"
    "      <url>/web/KV-icon-48x48.png</url>"
    "      </icon>"
    "      <icon>"
    "      <mimetype>image/png</mimetype>"
    "      <height>120</height>"
    "      <width>120</width>"
    "      <depth>24</depth>"
    "      <url>/web/KV-icon-120x120.png</url>"
    "      </icon>"
    "      </iconList>"
    "      <serviceList>"
    "      <service>"
    "      <serviceType>urn:schemas-upnp-org:service:ConnectionManager:1</serviceType>"
    "      <serviceId>urn:upnp-org:serviceId:ConnectionManager</serviceId>"
    "      <SCPDURL>/web/cms.xml</SCPDURL>"
    "      <controlURL>/web/cms_control</controlURL>"
    "      <eventSubURL>/web/cms_event</eventSubURL>"
    "      </service>"
    "      <service>"
    "      <serviceType>urn:schemas-upnp-org:service:ContentDirectory:1</serviceType>"
    "      <serviceId>urn:upnp-org:serviceId:ContentDirectory</serviceId>"
    "      <SCPDURL>/web/cds.xml</SCPDURL>"
    "      <controlURL>/web/cds_control</controlURL>"
    "      <eventSubURL>/web/cds_event</eventSubURL>"
    "      </service>"
    "      <service>"
    "      <serviceType>urn:microsoft.com:service:X_MS_MediaReceiverRegistrar:1</serviceType>"
    "\n        <serviceId>urn:microsoft.com:serviceId:X_MS_MediaReceiverRegistrar</serviceId>"
    "\n        <SCPDURL>/web/ms_mrs.xml</SCPDURL>"
    "      <controlURL>/web/mrs_control</controlURL>"
    "      <eventSubURL>/web/mrs_event</eventSubURL>"
    "      </service>"
    "\n    </serviceList>"
    "      <presentationURL>/web/index.html</presentationURL>"
    "      </device>"
    "      </root>";

static_assert(sizeof kDescriptionTemplate - 1 == 2527, "description template changed");

// Host strings go into element text as XML character data, so that a
// friendly name such as "Tom & Jerry", or one in Latin-1, still gives a
// valid description.
std::string escapeXml(const char *text, size_t capacity) {
  return dlnaUtil_xmlEscaped(std::string_view(text, strnlen(text, capacity)));
}

int64_t nowSeconds() { return static_cast<int64_t>(std::time(nullptr)); }

int32_t readState(dmsHandle *handle) {
  pthread_mutex_lock(&handle->mutex);
  int32_t state = handle->state;
  pthread_mutex_unlock(&handle->mutex);
  return state;
}

// Sends the two announcements when the period has passed.  false when the
// SDK refused, which ends the advertiser.
bool advertiseIfDue(dmsHandle *handle) {
  int64_t now = nowSeconds();
  pthread_mutex_lock(&handle->mutex);
  bool due = now - handle->lastAdvertisement >= handle->advertisementPeriod;
  pthread_mutex_unlock(&handle->mutex);
  if (!due) return true;
  {
    dmsPthreadLock locked(handle->sdkMutex);
    // Half-way through a move that failed: the next try announces.
    if (!handle->registered) return true;
    for (int round = 0; round < 2; ++round) {
      int result = UpnpSendAdvertisement(handle->deviceHandle, DMS_ADVERTISEMENT_MAX_AGE);
      if (result != UPNP_E_SUCCESS) {
        DMS_TRACE(OSAL_TRACE_ERR, "Error [%d] in %s()\n", result, "UpnpSendAdvertisement");
        return false;
      }
    }
  }
  time_t seconds = static_cast<time_t>(now);
  tm local{};
  localtime_r(&seconds, &local);
  char timeText[32] = {0};
  std::strftime(timeText, sizeof timeText, "%F %H:%M:%S", &local);
  DMS_TRACE(OSAL_TRACE_INFO, "[%s] ssdp:alive Advertiser Send \n", timeText);
  pthread_mutex_lock(&handle->mutex);
  handle->lastAdvertisement = now;
  pthread_mutex_unlock(&handle->mutex);
  return true;
}

}  // namespace

int32_t dmsFormatDeviceDescription(const dmsHandle *handle, char **out) {
  if (handle == nullptr || out == nullptr) return DMS_ERR_INVALID_PARAM;
  return dmsGuard("dmsFormatDeviceDescription", DMS_ERR_NO_MEMORY, [&] {
    const dmsDeviceInfo &info = handle->deviceInfo;
    const std::string args[9] = {
        escapeXml(handle->config.friendlyName, sizeof handle->config.friendlyName),
        escapeXml(info.manufacturer, sizeof info.manufacturer),
        escapeXml(info.manufacturerUrl, sizeof info.manufacturerUrl),
        escapeXml(info.modelDescription, sizeof info.modelDescription),
        escapeXml(info.modelName, sizeof info.modelName),
        escapeXml(info.modelNumber, sizeof info.modelNumber),
        escapeXml(info.modelUrl, sizeof info.modelUrl),
        escapeXml(info.serialNumber, sizeof info.serialNumber),
        escapeXml(handle->uuid, sizeof handle->uuid)};
    size_t capacity = sizeof kDescriptionTemplate;
    for (const auto &arg : args) capacity += arg.size();
    // C-owned: the handle keeps only plain members and destroy frees it.
    char *text = static_cast<char *>(std::calloc(capacity, 1));
    if (text == nullptr) return DMS_ERR_NO_MEMORY;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::snprintf(text, capacity, kDescriptionTemplate, args[0].c_str(), args[1].c_str(),
                  args[2].c_str(), args[3].c_str(), args[4].c_str(), args[5].c_str(),
                  args[6].c_str(), args[7].c_str(), args[8].c_str());
#pragma GCC diagnostic pop
    *out = text;
    return DMS_SUCCESS;
  });
}

void *dmsDeviceAdvertiser(void *arg) {
  dmsNameThread("dms-advertiser");
  auto *handle = static_cast<dmsHandle *>(arg);
  if (handle == nullptr) {
    DMS_TRACE(OSAL_TRACE_ERR, "Error in Input Parameters\n");
    return nullptr;
  }
  // A thread body is a C edge like any callback.
  dmsGuardVoid("dmsDeviceAdvertiser", [&] {
    while (readState(handle) == DMS_STATE_STARTED) {
      dmsFollowPending(handle);
      if (!advertiseIfDue(handle)) break;
      // Sleep a second, or less when stop changes the state meanwhile.
      timespec until{};
      clock_gettime(CLOCK_MONOTONIC, &until);
      until.tv_sec += 1;
      pthread_mutex_lock(&handle->mutex);
      if (handle->state == DMS_STATE_STARTED) pthread_cond_timedwait(&handle->wake, &handle->mutex, &until);
      pthread_mutex_unlock(&handle->mutex);
    }
  });
  return nullptr;
}

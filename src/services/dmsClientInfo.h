// Who sent a request to the front door: the record the HTTP layer fills
// and the services and the media server read.
#ifndef DMS_SERVICES_DMS_CLIENT_INFO_H
#define DMS_SERVICES_DMS_CLIENT_INFO_H

#include <cstdint>
#include <string>

// Who sent a request, as the front door saw it (texts empty when absent).
// Carried to the services so that answers can be fitted to the player.
struct dmsClientInfo {
  std::string address;       // the peer's IP address
  std::string userAgent;     // User-Agent
  std::string avClientInfo;  // X-AV-Client-Info
  std::string friendlyName;  // FriendlyName.DLNA.ORG
  uint32_t quirks = 0;       // its profile's flags (clients/dmsClients.h)
};

#endif  // DMS_SERVICES_DMS_CLIENT_INFO_H

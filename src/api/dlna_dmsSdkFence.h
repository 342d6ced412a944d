// The UPnP SDK is kept for discovery only (SSDP), but it still opens an
// HTTP listener of its own, whose parser buffers whole request bodies and
// answers SOAP and subscriptions.  Nothing advertises that port; this makes
// it unreachable as well: a socket filter that drops every packet is put on
// the SDK's listening sockets, so connection attempts from the network (and
// from this machine) never complete.  SSDP is UDP and is not touched.
#ifndef DMS_API_DLNA_DMS_SDK_FENCE_H
#define DMS_API_DLNA_DMS_SDK_FENCE_H

#include <cstdint>

// A port from 49152 up (the SDK raises lower ones to 49152) on which
// nothing listens, on `address` nor on IPv6; 0 when none was found.  The SDK
// itself takes exactly the port it is given, or fails.
uint16_t dmsFreeSdkPort(const char *address);

// Fences every listening TCP socket of this process bound to `port` (IPv4)
// or `port6` (IPv6; 0: none).  Returns how many were fenced.
int dmsFenceSdkListeners(uint16_t port, uint16_t port6);

#endif  // DMS_API_DLNA_DMS_SDK_FENCE_H

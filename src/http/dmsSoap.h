// SOAP control of the services: one POST to a service's control path is
// read, handed to the device event manager and answered with the SOAP
// envelope or the UPnP fault, written here.
//
// The body is read by expat first, as a stream, and refused before any DOM
// is built unless it is well-formed XML without a document type (so without
// entity definitions) that nests elements at most DMS_SOAP_MAX_DEPTH deep:
// the DOM parser frees its nodes recursively and loses memory on some
// malformed documents.  It is never larger than the front door let it be.  The action is the first
// element of the envelope's Body; a SOAPACTION header, when present, must
// name the same action.  QueryStateVariable (urn:schemas-upnp-org:control-1-0)
// reaches the service's state-variable callback.
#ifndef DMS_HTTP_DMS_SOAP_H
#define DMS_HTTP_DMS_SOAP_H

#include <cstddef>
#include <string>
#include <string_view>

#include "services/dmsActionRequest.h"

struct dmsDevEventMgr;

inline constexpr int DMS_SOAP_MAX_DEPTH = 16;

struct dmsSoapAnswer {
  unsigned status = 500;  // 200, 500 with a fault, 400 for what is not SOAP
  std::string body;       // empty for a 400
};

// Answers one control request for service row `service` (g_dmsServices).
// `soapAction` is the SOAPACTION header or NULL.  Never throws.
dmsSoapAnswer dmsSoapControl(dmsDevEventMgr *mgr, size_t service, const char *soapAction,
                             const std::string &body, const dmsClientInfo &client);

// True when `xml` is well-formed, has no document type declaration and
// nests elements at most `maxDepth` deep.
bool dmsSoapWellFormed(std::string_view xml, int maxDepth);

#endif  // DMS_HTTP_DMS_SOAP_H

// Helpers for the service tests: SDK request records built in memory, a look
// at the response documents, and capture of the trace output.
#ifndef DMS_TESTS_UNIT_SERVICE_TEST_SUPPORT_H
#define DMS_TESTS_UNIT_SERVICE_TEST_SUPPORT_H

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

#include <ixml.h>
#include <upnp.h>

#include "util/osal_trace.h"
#include "capture_stdout.h"

namespace servicetest {

// An action request as the SDK hands it to the device callback.  Owns the
// request and result documents (the SDK would free them after the reply).
class ActionRequest {
 public:
  ActionRequest(const char *serviceId, const char *actionName, const char *bodyXml = nullptr)
      : request_(UpnpActionRequest_new()) {
    UpnpActionRequest_strcpy_ServiceID(request_, serviceId);
    UpnpActionRequest_strcpy_ActionName(request_, actionName);
    UpnpActionRequest_strcpy_DevUDN(request_, "uuid:test-device");
    if (bodyXml != nullptr) UpnpActionRequest_set_ActionRequest(request_, ixmlParseBuffer(bodyXml));
  }
  ~ActionRequest() {
    ixmlDocument_free(UpnpActionRequest_get_ActionRequest(request_));
    ixmlDocument_free(UpnpActionRequest_get_ActionResult(request_));
    UpnpActionRequest_delete(request_);
  }
  ActionRequest(const ActionRequest &) = delete;
  ActionRequest &operator=(const ActionRequest &) = delete;

  UpnpActionRequest *get() const { return request_; }
  int errCode() const { return UpnpActionRequest_get_ErrCode(request_); }
  std::string errStr() const { return UpnpActionRequest_get_ErrStr_cstr(request_); }
  IXML_Document *result() const { return UpnpActionRequest_get_ActionResult(request_); }

 private:
  UpnpActionRequest *request_;
};

class StateVarRequest {
 public:
  StateVarRequest(const char *serviceId, const char *varName)
      : request_(UpnpStateVarRequest_new()) {
    UpnpStateVarRequest_strcpy_ServiceID(request_, serviceId);
    UpnpStateVarRequest_strcpy_StateVarName(request_, varName);
    UpnpStateVarRequest_strcpy_DevUDN(request_, "uuid:test-device");
  }
  ~StateVarRequest() { UpnpStateVarRequest_delete(request_); }
  StateVarRequest(const StateVarRequest &) = delete;
  StateVarRequest &operator=(const StateVarRequest &) = delete;

  UpnpStateVarRequest *get() const { return request_; }
  int errCode() const { return UpnpStateVarRequest_get_ErrCode(request_); }
  // The current value, or nullptr when none was set.
  const char *value() const { return UpnpStateVarRequest_get_CurrentVal(request_); }

 private:
  UpnpStateVarRequest *request_;
};

// The response element ("u:<Action>Response") of a result document.
inline IXML_Element *responseElement(IXML_Document *result) {
  if (result == nullptr) return nullptr;
  for (IXML_Node *node = ixmlNode_getFirstChild(&result->n); node != nullptr;
       node = ixmlNode_getNextSibling(node)) {
    if (ixmlNode_getNodeType(node) == eELEMENT_NODE) return reinterpret_cast<IXML_Element *>(node);
  }
  return nullptr;
}

// The output arguments of a result document, in document order, as
// (element name, text) pairs; the text is decoded.
inline std::vector<std::pair<std::string, std::string>> responseArguments(IXML_Document *result) {
  std::vector<std::pair<std::string, std::string>> arguments;
  IXML_Element *response = responseElement(result);
  if (response == nullptr) return arguments;
  for (IXML_Node *node = ixmlNode_getFirstChild(&response->n); node != nullptr;
       node = ixmlNode_getNextSibling(node)) {
    if (ixmlNode_getNodeType(node) != eELEMENT_NODE) continue;
    std::string text;
    for (IXML_Node *child = ixmlNode_getFirstChild(node); child != nullptr;
         child = ixmlNode_getNextSibling(child)) {
      if (ixmlNode_getNodeType(child) == eTEXT_NODE && ixmlNode_getNodeValue(child) != nullptr) {
        text += ixmlNode_getNodeValue(child);
      }
    }
    arguments.emplace_back(ixmlNode_getNodeName(node), text);
  }
  return arguments;
}

// Sets the trace level for one test and restores it afterwards.
class TraceLevel {
 public:
  explicit TraceLevel(uint32_t level) : saved_(g_u32_osalTraceLevel.load()) {
    g_u32_osalTraceLevel.store(level);
  }
  ~TraceLevel() { g_u32_osalTraceLevel.store(saved_); }
  TraceLevel(const TraceLevel &) = delete;
  TraceLevel &operator=(const TraceLevel &) = delete;

 private:
  uint32_t saved_;
};

}  // namespace servicetest

#endif  // DMS_TESTS_UNIT_SERVICE_TEST_SUPPORT_H

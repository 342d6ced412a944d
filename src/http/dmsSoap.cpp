// SOAP control: reading the action, and writing the envelope and faults
// byte for byte as control points have always received them.
#include "http/dmsSoap.h"

#include <expat.h>

#include <cstring>
#include <memory>
#include <string>

#include "services/dmsDeviceEventMgr.h"
#include "util/dlnaUtil_xmlText.h"
#include "util/dmsGuard.h"


namespace {

constexpr char kEnvelopeOpen[] =
    "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">";
constexpr char kControlNamespace[] = "urn:schemas-upnp-org:control-1-0";

struct DocumentDeleter {
  void operator()(IXML_Document *document) const { ixmlDocument_free(document); }
};
using Document = std::unique_ptr<IXML_Document, DocumentDeleter>;

// The part of an element name after its prefix.
const char *localName(IXML_Node *node) {
  const char *name = ixmlNode_getNodeName(node);
  if (name == nullptr) return "";
  const char *colon = std::strchr(name, ':');
  return colon != nullptr ? colon + 1 : name;
}

IXML_Node *firstElement(IXML_Node *parent, const char *wanted = nullptr) {
  for (IXML_Node *child = ixmlNode_getFirstChild(parent); child != nullptr; child = ixmlNode_getNextSibling(child)) {
    if (ixmlNode_getNodeType(child) != eELEMENT_NODE) continue;
    if (wanted == nullptr || std::strcmp(localName(child), wanted) == 0) return child;
  }
  return nullptr;
}

// The action element: the first element of the envelope's Body.
IXML_Node *actionElement(IXML_Document *document) {
  IXML_Node *envelope = firstElement(reinterpret_cast<IXML_Node *>(document), "Envelope");
  IXML_Node *body = envelope != nullptr ? firstElement(envelope, "Body") : nullptr;
  return body != nullptr ? firstElement(body) : nullptr;
}

// The action a SOAPACTION header names ("type#Action", quoted or not), and
// the type before it.
void splitSoapAction(const char *header, std::string &type, std::string &action) {
  std::string text = header;
  if (text.size() >= 2 && text.front() == '"' && text.back() == '"') text = text.substr(1, text.size() - 2);
  const size_t hash = text.rfind('#');
  type = hash == std::string::npos ? text : text.substr(0, hash);
  action = hash == std::string::npos ? "" : text.substr(hash + 1);
}

dmsSoapAnswer fault(int code, const std::string &description) {
  dmsSoapAnswer answer;
  answer.status = 500;
  answer.body = std::string(kEnvelopeOpen) +
                "\n<s:Body>\n<s:Fault>\n<faultcode>s:Client</faultcode>\n<faultstring>UPnPError</faultstring>\n"
                "<detail>\n<UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\">\n<errorCode>" +
                std::to_string(code) + "</errorCode>\n<errorDescription>" + dlnaUtil_xmlEscaped(description) +
                "</errorDescription>\n</UPnPError>\n</detail>\n</s:Fault>\n</s:Body>\n</s:Envelope>\n";
  return answer;
}

dmsSoapAnswer answerAction(dmsDevEventMgr *mgr, size_t service, const char *action, IXML_Document *document,
                           const dmsClientInfo &client) {
  dmsActionRequest request;
  request.actionName = action;
  request.serviceId = g_dmsServices[service].serviceId;
  request.arguments = document;
  request.client = &client;
  dmsDevEventMgrEventProcess(mgr, DMS_EVENT_ACTION_REQUEST, &request);
  if (request.errCode != 0) {
    return fault(request.errCode, request.errStr.empty() ? "Action Failed" : request.errStr);
  }
  const std::string &type = request.responseType.empty() ? std::string(g_dmsServices[service].serviceType)
                                                        : request.responseType;
  dmsSoapAnswer answer;
  answer.status = 200;
  std::string &body = answer.body;
  const size_t actionLength = std::strlen(action);
  body.reserve(sizeof kEnvelopeOpen + 2 * actionLength + type.size() + request.responseArgs.size() + 96);
  body += kEnvelopeOpen;
  body += "<s:Body>\n<u:";
  body.append(action, actionLength);
  body += "Response xmlns:u=\"";
  body += type;
  body += "\">\r\n";
  body += request.responseArgs;
  body += "</u:";
  body.append(action, actionLength);
  body += "Response>\r\n</s:Body> </s:Envelope>";
  return answer;
}

dmsSoapAnswer answerQuery(dmsDevEventMgr *mgr, size_t service, IXML_Node *query, const dmsClientInfo &client) {
  IXML_Node *nameElement = firstElement(query, "varName");
  IXML_Node *text = nameElement != nullptr ? ixmlNode_getFirstChild(nameElement) : nullptr;
  const char *name = text != nullptr ? ixmlNode_getNodeValue(text) : nullptr;
  if (name == nullptr) return fault(402, "Invalid Args");
  dmsStateVarRequest request;
  request.serviceId = g_dmsServices[service].serviceId;
  request.stateVarName = name;
  request.client = &client;
  dmsDevEventMgrEventProcess(mgr, DMS_EVENT_GET_VAR_REQUEST, &request);
  if (request.errCode != 0 || !request.hasValue) {
    return fault(request.errCode != 0 ? request.errCode : 404, request.errStr.empty() ? "Invalid Var" : request.errStr);
  }
  dmsSoapAnswer answer;
  answer.status = 200;
  answer.body = std::string(kEnvelopeOpen) + "\n<s:Body>\n<u:QueryStateVariableResponse xmlns:u=\"" +
                kControlNamespace + "\">\n<return>" + dlnaUtil_xmlEscaped(request.currentVal) +
                "</return>\n</u:QueryStateVariableResponse>\n</s:Body>\n</s:Envelope>\n";
  return answer;
}

dmsSoapAnswer control(dmsDevEventMgr *mgr, size_t service, const char *soapAction, const std::string &body,
                      const dmsClientInfo &client) {
  dmsSoapAnswer notSoap;
  notSoap.status = 400;
  if (service >= DMS_SERVICE_COUNT || !dmsSoapWellFormed(body, DMS_SOAP_MAX_DEPTH)) return notSoap;
  Document document(ixmlParseBuffer(body.c_str()));
  IXML_Node *action = document ? actionElement(document.get()) : nullptr;
  if (action == nullptr) return notSoap;
  const std::string name = localName(action);
  std::string headerType;
  std::string headerAction;
  if (soapAction != nullptr) splitSoapAction(soapAction, headerType, headerAction);
  if (soapAction != nullptr && headerAction != name) return fault(401, "Invalid Action");
  if (name == "QueryStateVariable" && (soapAction == nullptr || headerType == kControlNamespace)) {
    return answerQuery(mgr, service, action, client);
  }
  return answerAction(mgr, service, name.c_str(), document.get(), client);
}

}  // namespace

bool dmsSoapWellFormed(std::string_view xml, int maxDepth) {
  struct Reading {
    XML_Parser parser;
    int depth = 0;
    int maxDepth;
    bool refused = false;
  };
  std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> parser(XML_ParserCreate(nullptr), &XML_ParserFree);
  if (!parser) return false;
  Reading reading{parser.get(), 0, maxDepth};
  XML_SetUserData(parser.get(), &reading);
  XML_SetElementHandler(
      parser.get(),
      [](void *data, const XML_Char *, const XML_Char **) {
        auto *state = static_cast<Reading *>(data);
        if (++state->depth > state->maxDepth) {
          state->refused = true;
          XML_StopParser(state->parser, XML_FALSE);
        }
      },
      [](void *data, const XML_Char *) { --static_cast<Reading *>(data)->depth; });
  // SOAP has no document type: none is read, so no entity is ever defined.
  XML_SetStartDoctypeDeclHandler(parser.get(), [](void *data, const XML_Char *, const XML_Char *, const XML_Char *,
                                                  int) {
    auto *state = static_cast<Reading *>(data);
    state->refused = true;
    XML_StopParser(state->parser, XML_FALSE);
  });
  const bool parsed = XML_Parse(parser.get(), xml.data(), static_cast<int>(xml.size()), XML_TRUE) == XML_STATUS_OK;
  return parsed && !reading.refused;
}

dmsSoapAnswer dmsSoapControl(dmsDevEventMgr *mgr, size_t service, const char *soapAction, const std::string &body,
                             const dmsClientInfo &client) {
  // A failure past the guard (out of memory) answers 500 without a body.
  return dmsGuard("dmsSoapControl", dmsSoapAnswer{}, [&] { return control(mgr, service, soapAction, body, client); });
}

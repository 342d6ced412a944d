// The front door's routes: who answers which method and path.
#include "http/dmsHttpRoutes.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/utsname.h>

#include <cstring>
#include <string>

#include "clients/dmsClients.h"
#include "gena/dmsGena.h"
#include "http/dmsAvtHttpHandler.h"
#include "http/dmsMediaServer.h"
#include "http/dmsSoap.h"
#include "services/dmsDeviceEventMgr.h"
#include "util/osal_trace.h"

static constexpr char kTraceFile[] = "dmsHttpRoutes.c";

namespace {

const char *header(MHD_Connection *connection, const char *name) {
  return MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
}

bool isDescription(const char *url) { return std::strcmp(url, "/description.xml") == 0; }
bool isFixedFile(const char *url) { return dmsAvtHttpIsFixedPath(url); }
bool isControl(const char *url) { return dmsServiceByControlPath(url) < DMS_SERVICE_COUNT; }
bool isEvent(const char *url) { return dmsServiceByEventPath(url) < DMS_SERVICE_COUNT; }
bool isMedia(const char *url) { return dmsMediaServerIsMediaUrl(url); }

MHD_Result answerDescription(dmsHttpServer &server, MHD_Connection *connection, dmsHttpRequestState &,
                             const char *) {
  std::string description;
  {
    std::lock_guard guard(server.lock);
    description = server.description;
  }
  return dmsHttpQueueText(connection, MHD_HTTP_OK, "text/xml; charset=\"utf-8\"", std::move(description));
}

MHD_Result answerFixed(dmsHttpServer &, MHD_Connection *connection, dmsHttpRequestState &, const char *url) {
  dmsAvtHttpFixed file;
  if (!dmsAvtHttpFixedFile(url, file)) return dmsHttpQueueEmpty(connection, MHD_HTTP_NOT_FOUND);
  return dmsMediaServerAnswerFixed(connection, file);
}

MHD_Result answerMedia(dmsHttpServer &server, MHD_Connection *connection, dmsHttpRequestState &request,
                       const char *url) {
  const dmsClientInfo client = dmsHttpClientInfo(server, connection);
  DMS_TRACE(OSAL_TRACE_INFO, "Media [%s] for [%s] User-Agent [%s]\n", url, client.address.c_str(),
            client.userAgent.c_str());
  dmsMediaWatch watch;
  const MHD_Result queued = dmsMediaServerAnswer(connection, url, server.config.contentList, server.config.artCache,
                                                 request.head ? nullptr : server.config.facts, client.quirks, &watch);
  if (watch.fd >= 0) dmsHttpWatchFile(server, connection, watch.fd, watch.end);
  return queued;
}

MHD_Result answerControl(dmsHttpServer &server, MHD_Connection *connection, dmsHttpRequestState &request,
                         const char *url) {
  const dmsSoapAnswer answer = dmsSoapControl(server.config.eventMgr, dmsServiceByControlPath(url),
                                              header(connection, "SOAPACTION"), request.body,
                                              dmsHttpClientInfo(server, connection));
  if (answer.body.empty()) return dmsHttpQueueEmpty(connection, answer.status);
  return dmsHttpQueueText(connection, answer.status, "text/xml; charset=\"utf-8\"", answer.body);
}

dmsGenaRequest genaRequest(MHD_Connection *connection, const char *url, const std::string &address) {
  dmsGenaRequest request;
  request.service = dmsServiceByEventPath(url);
  request.subscriberAddress = address.c_str();
  request.callback = header(connection, "CALLBACK");
  request.nt = header(connection, "NT");
  request.sid = header(connection, "SID");
  request.timeout = header(connection, "TIMEOUT");
  return request;
}

MHD_Result answerSubscribe(dmsHttpServer &server, MHD_Connection *connection, dmsHttpRequestState &request,
                           const char *url) {
  const std::string address = dmsHttpClientInfo(server, connection).address;
  const dmsGenaAnswer answer = server.config.gena->subscribe(genaRequest(connection, url, address));
  if (answer.status != MHD_HTTP_OK) return dmsHttpQueueEmpty(connection, static_cast<unsigned>(answer.status));
  MHD_Response *response = MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT);
  if (response == nullptr) return MHD_NO;
  MHD_add_response_header(response, "SID", answer.sid.c_str());
  MHD_add_response_header(response, "TIMEOUT", ("Second-" + std::to_string(answer.timeoutSeconds)).c_str());
  if (answer.isNew) request.newSid = answer.sid;
  return dmsHttpQueue(connection, MHD_HTTP_OK, response);
}

MHD_Result answerUnsubscribe(dmsHttpServer &server, MHD_Connection *connection, dmsHttpRequestState &,
                             const char *url) {
  const std::string address = dmsHttpClientInfo(server, connection).address;
  const int status = server.config.gena->unsubscribe(genaRequest(connection, url, address));
  return dmsHttpQueueEmpty(connection, static_cast<unsigned>(status));
}

// Everything the front door answers, one row a route; the first row whose
// path form and method fit answers.
const dmsHttpRoute kRoutes[] = {
    // method         path form       handler             takes a body
    {"GET",           isDescription,  answerDescription,  false},
    {"GET",           isFixedFile,    answerFixed,        false},
    {"POST",          isControl,      answerControl,      true},
    {"SUBSCRIBE",     isEvent,        answerSubscribe,    false},
    {"UNSUBSCRIBE",   isEvent,        answerUnsubscribe,  false},
    {"GET",           isMedia,        answerMedia,        false},
};

bool methodFits(const dmsHttpRoute &route, const char *method) {
  if (std::strcmp(route.method, method) == 0) return true;
  return std::strcmp(route.method, "GET") == 0 && std::strcmp(method, "HEAD") == 0;
}

// The address in a Host header: "1.2.3.4", "1.2.3.4:80", "[::1]", "[::1]:80".
std::string hostAddress(const char *host) {
  std::string text = host;
  if (!text.empty() && text.front() == '[') {
    const size_t close = text.find(']');
    if (close == std::string::npos) return {};
    const std::string rest = text.substr(close + 1);
    if (!rest.empty() && (rest[0] != ':' || rest.find_first_not_of("0123456789", 1) != std::string::npos)) return {};
    return text.substr(1, close - 1);
  }
  const size_t colon = text.find(':');
  if (colon != std::string::npos) {
    if (text.find_first_not_of("0123456789", colon + 1) != std::string::npos) return {};
    text.resize(colon);
  }
  return text;
}

}  // namespace

const dmsHttpRoute *dmsHttpFindRoute(const char *method, const char *url, unsigned *status) {
  *status = MHD_HTTP_NOT_FOUND;
  for (const dmsHttpRoute &route : kRoutes) {
    if (!route.matches(url)) continue;
    if (methodFits(route, method)) return &route;
    *status = MHD_HTTP_METHOD_NOT_ALLOWED;
  }
  return nullptr;
}

bool dmsHttpHostAllowed(const char *host, const std::string &serverAddress) {
  if (host == nullptr) return true;  // HTTP/1.0 players send none
  const std::string address = hostAddress(host);
  in_addr v4{};
  if (::inet_pton(AF_INET, address.c_str(), &v4) == 1) {
    in_addr own{};
    const bool mine = ::inet_pton(AF_INET, serverAddress.c_str(), &own) == 1 && own.s_addr == v4.s_addr;
    return mine || (ntohl(v4.s_addr) >> 24) == 127;
  }
  in6_addr v6{};
  return ::inet_pton(AF_INET6, address.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

dmsClientInfo dmsHttpClientInfo(dmsHttpServer &server, MHD_Connection *connection) {
  dmsClientInfo client;
  const MHD_ConnectionInfo *info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
  char text[INET6_ADDRSTRLEN] = {0};
  if (info != nullptr && info->client_addr != nullptr) {
    const sockaddr *peer = info->client_addr;
    if (peer->sa_family == AF_INET) {
      ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in *>(peer)->sin_addr, text, sizeof text);
    } else if (peer->sa_family == AF_INET6) {
      ::inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6 *>(peer)->sin6_addr, text, sizeof text);
    }
  }
  client.address = text;
  auto copy = [connection](const char *name) {
    const char *value = header(connection, name);
    // Kept short: these texts only pick a client profile.
    return value != nullptr ? std::string(value).substr(0, 256) : std::string();
  };
  client.userAgent = copy("User-Agent");
  client.avClientInfo = copy("X-AV-Client-Info");
  client.friendlyName = copy("FriendlyName.DLNA.ORG");
  if (server.config.clients != nullptr) client.quirks = server.config.clients->recognise(client);
  return client;
}

const char *dmsHttpServerHeader() {
  static const std::string text = [] {
    utsname name{};
    const bool known = ::uname(&name) == 0;
    return std::string(known ? name.sysname : "Linux") + "/" + (known ? name.release : "1") +
           " UPnP/1.0 DLNADOC/1.50 libdlnadms/0.1";
  }();
  return text.c_str();
}

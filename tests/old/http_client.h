// A small blocking HTTP/1.1 client for the protocol tests: one request per
// connection (the server closes every connection), bounded by a time-out.
#ifndef DMS_TESTS_HTTP_CLIENT_H
#define DMS_TESTS_HTTP_CLIENT_H

#include <map>
#include <string>

namespace dmstest {

struct HttpResponse {
  int status = 0;  // 0: no answer
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;

  std::string header(const std::string &name) const {
    auto found = headers.find(name);
    return found == headers.end() ? std::string() : found->second;
  }
};

// Sends `request` (a complete HTTP message) to host:port and reads the answer
// until the server closes the connection or `timeoutMs` passes.
HttpResponse sendRaw(const std::string &host, int port, const std::string &request,
                     int timeoutMs = 5000);

// GET or HEAD of `path` with optional extra header lines ("Name: value\r\n").
HttpResponse httpGet(const std::string &host, int port, const std::string &path,
                     const std::string &extraHeaders = "", const std::string &method = "GET");

// Posts a SOAP action to `controlPath`; `arguments` is the XML of the
// argument elements inside the action element.
HttpResponse soapAction(const std::string &host, int port, const std::string &controlPath,
                        const std::string &serviceType, const std::string &action,
                        const std::string &arguments);

// The text of the first element named `name` (any prefix) in `xml`, decoded
// from the five XML entities; empty when absent.
std::string elementText(const std::string &xml, const std::string &name);

// Decodes &amp; &lt; &gt; &quot; &apos;.
std::string xmlUnescape(const std::string &text);

}  // namespace dmstest

#endif  // DMS_TESTS_HTTP_CLIENT_H

#include "http_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstring>

namespace dmstest {

namespace {

int connectTo(const std::string &host, int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, host.c_str(), &address.sin_addr);
  if (::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

HttpResponse parseResponse(const std::string &raw) {
  HttpResponse response;
  size_t headerEnd = raw.find("\r\n\r\n");
  if (raw.compare(0, 5, "HTTP/") != 0 || headerEnd == std::string::npos) return response;
  response.status = std::atoi(raw.c_str() + raw.find(' ') + 1);
  size_t lineStart = raw.find("\r\n") + 2;
  while (lineStart < headerEnd) {
    size_t lineEnd = raw.find("\r\n", lineStart);
    std::string line = raw.substr(lineStart, lineEnd - lineStart);
    size_t colon = line.find(':');
    if (colon != std::string::npos) {
      size_t valueStart = line.find_first_not_of(' ', colon + 1);
      response.headers[lower(line.substr(0, colon))] =
          valueStart == std::string::npos ? "" : line.substr(valueStart);
    }
    lineStart = lineEnd + 2;
  }
  response.body = raw.substr(headerEnd + 4);
  return response;
}

}  // namespace

HttpResponse sendRaw(const std::string &host, int port, const std::string &request, int timeoutMs) {
  int fd = connectTo(host, port);
  if (fd < 0) return {};
  size_t sent = 0;
  while (sent < request.size()) {
    ssize_t n = ::send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) break;
    sent += static_cast<size_t>(n);
  }
  std::string raw;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  char buffer[65536];
  while (std::chrono::steady_clock::now() < deadline) {
    pollfd waitFor{fd, POLLIN, 0};
    if (::poll(&waitFor, 1, 100) <= 0) continue;
    ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) break;
    raw.append(buffer, static_cast<size_t>(n));
  }
  ::close(fd);
  return parseResponse(raw);
}

HttpResponse httpGet(const std::string &host, int port, const std::string &path,
                     const std::string &extraHeaders, const std::string &method) {
  std::string request = method + " " + path + " HTTP/1.1\r\nHost: " + host + ":" +
                        std::to_string(port) + "\r\n" + extraHeaders + "Connection: close\r\n\r\n";
  return sendRaw(host, port, request);
}

HttpResponse soapAction(const std::string &host, int port, const std::string &controlPath,
                        const std::string &serviceType, const std::string &action,
                        const std::string &arguments) {
  std::string body =
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n"
      "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
      "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body>"
      "<u:" + action + " xmlns:u=\"" + serviceType + "\">" + arguments + "</u:" + action +
      "></s:Body></s:Envelope>\r\n";
  std::string request = "POST " + controlPath + " HTTP/1.1\r\nHost: " + host + ":" +
                        std::to_string(port) +
                        "\r\nContent-Type: text/xml; charset=\"utf-8\"\r\nSOAPACTION: \"" +
                        serviceType + "#" + action + "\"\r\nContent-Length: " +
                        std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
  return sendRaw(host, port, request);
}

std::string xmlUnescape(const std::string &text) {
  static const std::pair<const char *, char> kEntities[] = {
      {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}, {"&amp;", '&'}};
  std::string out;
  for (size_t i = 0; i < text.size();) {
    bool replaced = false;
    if (text[i] == '&') {
      for (const auto &[entity, character] : kEntities) {
        size_t length = std::strlen(entity);
        if (text.compare(i, length, entity) == 0) {
          out += character;
          i += length;
          replaced = true;
          break;
        }
      }
    }
    if (!replaced) out += text[i++];
  }
  return out;
}

std::string elementText(const std::string &xml, const std::string &name) {
  size_t search = 0;
  while ((search = xml.find(name, search)) != std::string::npos) {
    size_t open = xml.rfind('<', search);
    bool nameStarts = open != std::string::npos &&
                      (open + 1 == search || xml[search - 1] == ':') &&
                      xml.find_first_of(" \t\r\n", open) > search;
    size_t afterName = search + name.size();
    if (!nameStarts || afterName >= xml.size() ||
        (xml[afterName] != '>' && xml[afterName] != ' ' && xml[afterName] != '/')) {
      search = afterName;
      continue;
    }
    size_t tagEnd = xml.find('>', afterName);
    if (tagEnd == std::string::npos) return {};
    if (xml[tagEnd - 1] == '/') return {};
    size_t close = xml.find("</", tagEnd);
    // Skip nested elements: the text ends at the matching closing tag.
    std::string closeTag = xml.substr(open + 1, afterName - open - 1);
    size_t end = xml.find("</" + closeTag + ">", tagEnd);
    if (end == std::string::npos) end = close;
    return xmlUnescape(xml.substr(tagEnd + 1, end - tagEnd - 1));
  }
  return {};
}

}  // namespace dmstest

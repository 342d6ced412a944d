#include "util/dlnaUtil_didl.h"

#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "util/dmsErrors.h"
#include "util/osal_trace.h"

// The writer reports failures through its return codes only; the Browse and
// Search code that calls it traces them with the request's context.
static constexpr char kTraceFile[] = "dlnaUtil_didl.cpp";

namespace {

constexpr char kDidlTag[] = "DIDL-Lite";
constexpr char kDidlNamespaces[] =
    "xmlns=\"urn:schemas-upnp-org:metadata-1-0/DIDL-Lite/\" "
    "xmlns:dc=\"http://purl.org/dc/elements/1.1/\" "
    "xmlns:upnp=\"urn:schemas-upnp-org:metadata-1-0/upnp/\"";
constexpr char kItemTag[] = "item";
constexpr char kContainerTag[] = "container";
constexpr char kResTag[] = "res";
// Virtual directory of the web server under which media files are served.
constexpr char kWebDirectory[] = "/web";

bool lacksBuffer(const dlnaUtilBuffer *buffer) {
  return buffer == nullptr || buffer->data == nullptr;
}

// Returns `text` with the XML special characters replaced by entities, so
// that file and folder names cannot break the document.  A NULL text is
// written as empty.  May throw std::bad_alloc.
std::string xmlEscaped(const char *text) {
  if (text == nullptr) return {};
  std::string escaped;
  escaped.reserve(std::strlen(text));
  for (const char *cursor = text; *cursor != '\0'; ++cursor) {
    switch (*cursor) {
      case '&': escaped += "&amp;"; break;
      case '<': escaped += "&lt;"; break;
      case '>': escaped += "&gt;"; break;
      case '"': escaped += "&quot;"; break;
      case '\'': escaped += "&apos;"; break;
      default: escaped += *cursor; break;
    }
  }
  return escaped;
}

// Text of an inline character field, bounded by the field even if the
// caller forgot the terminating NUL.
template <size_t N>
std::string inlineText(const char (&field)[N]) {
  return std::string(field, strnlen(field, N));
}

// Runs the writes in order and stops at the first one that fails; returns its
// code, or 0 when every write succeeded.
template <typename... Writes>
int32_t writeInOrder(Writes &&...writes) {
  int32_t status = 0;
  static_cast<void>((((status = writes()) == 0) && ...));
  return status;
}

// Writes the playing time as H:MM:SS.mmm; hours are neither padded nor
// limited to two digits.
int32_t addDuration(dlnaUtilBuffer *buffer, int64_t milliseconds) {
  const long long hours = milliseconds / 3600000;
  const int minutes = static_cast<int>(milliseconds % 3600000 / 60000);
  const int seconds = static_cast<int>(milliseconds % 60000 / 1000);
  const int millis = static_cast<int>(milliseconds % 1000);
  char text[48];
  std::snprintf(text, sizeof text, "%lld:%02d:%02d.%03d", hours, minutes, seconds, millis);
  return dlnaUtil_DIDLAddStringAttribute(buffer, "duration", text);
}

int32_t addResourceUrl(dlnaUtilBuffer *buffer, const dlnaUtilDidlItem &item) {
  const std::string address = xmlEscaped(item.serverAddress);
  const std::string resource = xmlEscaped(item.resourceName);
  return dlnaUtil_appendToBufferWithFormat(buffer, "http://%s:%d%s/%s", address.c_str(),
                                           item.serverPort, kWebDirectory, resource.c_str());
}

int32_t addResource(dlnaUtilBuffer *buffer, const dlnaUtilDidlItem &item) {
  const std::string resolution = inlineText(item.resolution);
  return writeInOrder(
      [&] { return dlnaUtil_appendToBufferWithFormat(buffer, "<%s", kResTag); },
      [&] { return dlnaUtil_DIDLAddStringAttribute(buffer, "protocolInfo", item.protocolInfo); },
      [&] {
        return item.size <= 0 ? 0
                              : dlnaUtil_appendToBufferWithFormat(
                                    buffer, " %s=\"%lld\"", "size",
                                    static_cast<long long>(item.size));
      },
      [&] { return item.duration <= 0 ? 0 : addDuration(buffer, item.duration); },
      [&] {
        return resolution.empty()
                   ? 0
                   : dlnaUtil_DIDLAddStringAttribute(buffer, "resolution", resolution.c_str());
      },
      [&] {
        return item.bitrate <= 0
                   ? 0
                   : dlnaUtil_DIDLAddIntegerAttribute(buffer, "bitrate", item.bitrate);
      },
      [&] { return dlnaUtil_appendToBuffer(buffer, ">"); },
      [&] { return addResourceUrl(buffer, item); },
      [&] { return dlnaUtil_appendToBufferWithFormat(buffer, "</%s>", kResTag); });
}

int32_t addItemMetadata(dlnaUtilBuffer *buffer, const dlnaUtilDidlItem &item) {
  const std::string date = inlineText(item.date);
  return writeInOrder(
      [&] { return item.album ? dlnaUtil_DIDLAddElement(buffer, "upnp:album", item.album) : 0; },
      [&] { return dlnaUtil_DIDLAddElement(buffer, "upnp:class", item.upnpClass); },
      [&] { return dlnaUtil_DIDLAddElement(buffer, "dc:title", item.title); },
      [&] { return item.genre ? dlnaUtil_DIDLAddElement(buffer, "upnp:genre", item.genre) : 0; },
      [&] {
        return item.creator ? dlnaUtil_DIDLAddElement(buffer, "dc:creator", item.creator) : 0;
      },
      [&] {
        return date.empty() ? 0 : dlnaUtil_DIDLAddElement(buffer, "dc:date", date.c_str());
      });
}

// Deliberately lenient: an item is refused only when every identifying field
// is bad at once.  The container check below refuses on any single one.
bool itemIsRefused(const dlnaUtilDidlItem &item) {
  return item.id < 0 && item.parentID < -1 && item.restricted >= 2 &&
         item.upnpClass == nullptr && item.title == nullptr;
}

bool containerIsRefused(const dlnaUtilDidlContainer &container) {
  return container.id < 0 || container.parentID < -1 || container.restricted >= 2 ||
         container.title == nullptr || container.upnpClass == nullptr;
}

}  // namespace

int32_t dlnaUtil_DIDLAddStringAttribute(dlnaUtilBuffer *buffer, const char *name,
                                        const char *value) {
  if (lacksBuffer(buffer)) return DLNA_UTIL_ERR_NULL_BUFFER;
  if (name == nullptr) return DLNA_UTIL_ERR_INVALID_PARAM;
  try {
    const std::string escaped = xmlEscaped(value);
    return dlnaUtil_appendToBufferWithFormat(buffer, " %s=\"%s\"", name, escaped.c_str());
  } catch (const std::bad_alloc &) {
    return DLNA_UTIL_ERR_NO_MEMORY;
  }
}

int32_t dlnaUtil_DIDLAddIntegerAttribute(dlnaUtilBuffer *buffer, const char *name,
                                         int32_t value) {
  if (lacksBuffer(buffer)) return DLNA_UTIL_ERR_NULL_BUFFER;
  if (name == nullptr) return DLNA_UTIL_ERR_INVALID_PARAM;
  return dlnaUtil_appendToBufferWithFormat(buffer, " %s=\"%d\"", name, value);
}

int32_t dlnaUtil_DIDLAddElement(dlnaUtilBuffer *buffer, const char *name, const char *text) {
  if (lacksBuffer(buffer)) return DLNA_UTIL_ERR_NULL_BUFFER;
  if (name == nullptr) return DLNA_UTIL_ERR_INVALID_PARAM;
  try {
    const std::string escaped = xmlEscaped(text);
    return dlnaUtil_appendToBufferWithFormat(buffer, "<%s>%s</%s>", name, escaped.c_str(), name);
  } catch (const std::bad_alloc &) {
    return DLNA_UTIL_ERR_NO_MEMORY;
  }
}

int32_t dlnaUtil_DIDLAddHeader(dlnaUtilBuffer *buffer) {
  if (lacksBuffer(buffer)) return DLNA_UTIL_ERR_NULL_BUFFER;
  return dlnaUtil_appendToBufferWithFormat(buffer, "<%s %s>", kDidlTag, kDidlNamespaces);
}

int32_t dlnaUtil_DIDLAddFooter(dlnaUtilBuffer *buffer) {
  if (lacksBuffer(buffer)) return DLNA_UTIL_ERR_NULL_BUFFER;
  return dlnaUtil_appendToBufferWithFormat(buffer, "</%s>", kDidlTag);
}

int32_t dlnaUtil_DIDLAddItem(dlnaUtilBuffer *buffer, const dlnaUtilDidlItem *item) {
  if (lacksBuffer(buffer)) return DLNA_UTIL_ERR_NULL_BUFFER;
  if (item == nullptr || itemIsRefused(*item)) return DLNA_UTIL_ERR_INVALID_PARAM;
  try {
    return writeInOrder(
        [&] { return dlnaUtil_appendToBufferWithFormat(buffer, "<%s", kItemTag); },
        [&] { return dlnaUtil_DIDLAddIntegerAttribute(buffer, "id", item->id); },
        [&] { return dlnaUtil_DIDLAddIntegerAttribute(buffer, "parentID", item->parentID); },
        [&] {
          return dlnaUtil_DIDLAddIntegerAttribute(buffer, "restricted",
                                                  static_cast<int32_t>(item->restricted));
        },
        [&] { return dlnaUtil_appendToBuffer(buffer, ">"); },
        [&] { return addItemMetadata(buffer, *item); },
        [&] { return item->protocolInfo ? addResource(buffer, *item) : 0; },
        [&] { return dlnaUtil_appendToBufferWithFormat(buffer, "</%s>", kItemTag); });
  } catch (const std::bad_alloc &) {
    return DLNA_UTIL_ERR_NO_MEMORY;
  }
}

int32_t dlnaUtil_DIDLAddContainer(dlnaUtilBuffer *buffer,
                                  const dlnaUtilDidlContainer *container) {
  if (lacksBuffer(buffer)) return DLNA_UTIL_ERR_NULL_BUFFER;
  if (container == nullptr || containerIsRefused(*container)) {
    return DLNA_UTIL_ERR_INVALID_PARAM;
  }
  const dlnaUtilDidlContainer &folder = *container;
  return writeInOrder(
      [&] { return dlnaUtil_appendToBufferWithFormat(buffer, "<%s", kContainerTag); },
      [&] { return dlnaUtil_DIDLAddIntegerAttribute(buffer, "id", folder.id); },
      [&] { return dlnaUtil_DIDLAddIntegerAttribute(buffer, "parentID", folder.parentID); },
      [&] {
        return folder.childCount < 0
                   ? 0
                   : dlnaUtil_DIDLAddIntegerAttribute(buffer, "childCount", folder.childCount);
      },
      [&] {
        return dlnaUtil_DIDLAddIntegerAttribute(buffer, "restricted",
                                                static_cast<int32_t>(folder.restricted));
      },
      [&] {
        return folder.searchable >= 2
                   ? 0
                   : dlnaUtil_DIDLAddIntegerAttribute(buffer, "searchable",
                                                      static_cast<int32_t>(folder.searchable));
      },
      [&] { return dlnaUtil_appendToBuffer(buffer, ">"); },
      [&] { return dlnaUtil_DIDLAddElement(buffer, "upnp:class", folder.upnpClass); },
      [&] { return dlnaUtil_DIDLAddElement(buffer, "dc:title", folder.title); },
      [&] { return dlnaUtil_appendToBufferWithFormat(buffer, "</%s>", kContainerTag); });
}

#include "util/dlnaUtil_didl.h"

#include <charconv>
#include <cstring>
#include <string_view>

#include "util/dlnaUtil_xmlText.h"
#include "util/dmsErrors.h"
#include "util/osal_trace.h"

// The writer reports failures through its return codes only; the Browse and
// Search code that calls it traces them with the request's context.
static constexpr char kTraceFile[] = "dlnaUtil_didl.cpp";

namespace {

using namespace std::string_view_literals;

constexpr std::string_view kHeader =
    "<DIDL-Lite xmlns=\"urn:schemas-upnp-org:metadata-1-0/DIDL-Lite/\" "
    "xmlns:dc=\"http://purl.org/dc/elements/1.1/\" "
    "xmlns:upnp=\"urn:schemas-upnp-org:metadata-1-0/upnp/\" "
    "xmlns:dlna=\"urn:schemas-dlna-org:metadata-1-0/\">"sv;
constexpr std::string_view kFooter = "</DIDL-Lite>"sv;
// Virtual directory of the web server under which media files are served.
constexpr std::string_view kWebDirectory = "/web/"sv;

bool lacksBuffer(const dlnaUtilBuffer *buffer) {
  return buffer == nullptr || buffer->data == nullptr;
}

// Writes one answer's pieces straight into the buffer.  A browse page writes
// some two thousand pieces, so there is no formatting and no temporary
// string on this path.  The first failure sticks: later pieces are skipped
// and status() reports it.
class DidlWriter {
 public:
  explicit DidlWriter(dlnaUtilBuffer *buffer) : buffer_(buffer) {}

  DidlWriter &raw(std::string_view text) {
    // Most pieces fit the block as it is: copy them without a call.
    if (status_ == 0 && text.size() < buffer_->size - buffer_->length) {
      std::memcpy(buffer_->data + buffer_->length, text.data(), text.size());
      dlnaUtil_commitToBuffer(buffer_, text.size());
    } else if (status_ == 0) {
      status_ = dlnaUtil_appendBytesToBuffer(buffer_, text.data(), text.size());
    }
    return *this;
  }

  // XML-escaped text; NULL is written as nothing.
  DidlWriter &text(const char *value) {
    return value == nullptr ? *this : text(std::string_view(value));
  }
  DidlWriter &text(std::string_view value) {
    if (status_ != 0) return *this;
    char *tail = dlnaUtil_reserveInBuffer(buffer_, value.size() * kXmlTextMaxGrowth);
    if (tail == nullptr) {
      status_ = DLNA_UTIL_ERR_NO_MEMORY;
      return *this;
    }
    dlnaUtil_commitToBuffer(buffer_, dlnaUtil_xmlEscapeInto(value, tail));
    return *this;
  }

  DidlWriter &number(int64_t value) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    return raw(std::string_view(digits, static_cast<size_t>(end - digits)));
  }

  // Zero-padded to `width` digits; value is known to be non-negative.
  DidlWriter &padded(int64_t value, int width) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    for (int length = static_cast<int>(end - digits); length < width; ++length) raw("0"sv);
    return raw(std::string_view(digits, static_cast<size_t>(end - digits)));
  }

  // ` name="value"` with the value escaped, or a number.
  DidlWriter &attribute(std::string_view name, const char *value) {
    return raw(" "sv).raw(name).raw("=\""sv).text(value).raw("\""sv);
  }
  DidlWriter &attribute(std::string_view name, int64_t value) {
    return raw(" "sv).raw(name).raw("=\""sv).number(value).raw("\""sv);
  }

  // `<name>text</name>` with the text escaped.
  DidlWriter &element(std::string_view name, const char *value) {
    return raw("<"sv).raw(name).raw(">"sv).text(value).raw("</"sv).raw(name).raw(">"sv);
  }

  int32_t status() const { return status_; }

 private:
  dlnaUtilBuffer *buffer_;
  int32_t status_ = 0;
};

// Text of an inline character field, bounded by the field even if the
// caller forgot the terminating NUL.
template <size_t N>
std::string_view inlineText(const char (&field)[N]) {
  return std::string_view(field, strnlen(field, N));
}

// The playing time as H:MM:SS.mmm; hours are neither padded nor limited to
// two digits.
void writeDuration(DidlWriter &out, int64_t milliseconds) {
  out.raw(" duration=\""sv)
      .number(milliseconds / 3600000)
      .raw(":"sv)
      .padded(milliseconds % 3600000 / 60000, 2)
      .raw(":"sv)
      .padded(milliseconds % 60000 / 1000, 2)
      .raw("."sv)
      .padded(milliseconds % 1000, 3)
      .raw("\""sv);
}

void writeResource(DidlWriter &out, const dlnaUtilDidlItem &item) {
  out.raw("<res"sv).attribute("protocolInfo"sv, item.protocolInfo);
  if (item.size > 0) out.attribute("size"sv, item.size);
  if (item.duration > 0) writeDuration(out, item.duration);
  const std::string_view resolution = inlineText(item.resolution);
  if (!resolution.empty()) out.raw(" resolution=\""sv).text(resolution).raw("\""sv);
  if (item.bitrate > 0) out.attribute("bitrate"sv, int64_t{item.bitrate});
  out.raw(">http://"sv)
      .text(item.serverAddress)
      .raw(":"sv)
      .number(item.serverPort)
      .raw(kWebDirectory)
      .text(item.resourceName)
      .raw("</res>"sv);
}

void writeUrlStart(DidlWriter &out, const char *address, int32_t port) {
  out.raw("http://"sv).text(address).raw(":"sv).number(port).raw(kWebDirectory);
}

// A picture made from the item: "<res ...>http://.../web/<id><suffix></res>".
void writePictureResource(DidlWriter &out, const dlnaUtilDidlItem &item, std::string_view features,
                          std::string_view resolution, std::string_view suffix) {
  out.raw("<res protocolInfo=\"http-get:*:image/jpeg:"sv).text(features).raw("\" resolution=\""sv);
  out.text(resolution).raw("\">"sv);
  writeUrlStart(out, item.serverAddress, item.serverPort);
  out.number(item.refID > 0 ? item.refID : item.id).raw(suffix).raw("</res>"sv);
}

void writeAlbumArt(DidlWriter &out, const char *address, int32_t port, int32_t id) {
  out.raw("<upnp:albumArtURI dlna:profileID=\"JPEG_TN\">"sv);
  writeUrlStart(out, address, port);
  out.number(id).raw(".art.jpg</upnp:albumArtURI>"sv);
}

void writeItemMetadata(DidlWriter &out, const dlnaUtilDidlItem &item) {
  if (item.album != nullptr) out.element("upnp:album"sv, item.album);
  out.element("upnp:class"sv, item.upnpClass).element("dc:title"sv, item.title);
  if (item.genre != nullptr) out.element("upnp:genre"sv, item.genre);
  if (item.creator != nullptr) out.element("dc:creator"sv, item.creator);
  if (item.artist != nullptr) out.element("upnp:artist"sv, item.artist);
  const std::string_view date = inlineText(item.date);
  if (!date.empty()) out.raw("<dc:date>"sv).text(date).raw("</dc:date>"sv);
  if (item.originalTrackNumber > 0) {
    out.raw("<upnp:originalTrackNumber>"sv)
        .number(item.originalTrackNumber)
        .raw("</upnp:originalTrackNumber>"sv);
  }
  if (item.albumArtId > 0) writeAlbumArt(out, item.serverAddress, item.serverPort, item.albumArtId);
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
  return DidlWriter(buffer).attribute(name, value).status();
}

int32_t dlnaUtil_DIDLAddIntegerAttribute(dlnaUtilBuffer *buffer, const char *name,
                                         int32_t value) {
  if (lacksBuffer(buffer)) return DLNA_UTIL_ERR_NULL_BUFFER;
  if (name == nullptr) return DLNA_UTIL_ERR_INVALID_PARAM;
  return DidlWriter(buffer).attribute(name, int64_t{value}).status();
}

int32_t dlnaUtil_DIDLAddElement(dlnaUtilBuffer *buffer, const char *name, const char *text) {
  if (lacksBuffer(buffer)) return DLNA_UTIL_ERR_NULL_BUFFER;
  if (name == nullptr) return DLNA_UTIL_ERR_INVALID_PARAM;
  return DidlWriter(buffer).element(name, text).status();
}

int32_t dlnaUtil_DIDLAddHeader(dlnaUtilBuffer *buffer) {
  if (lacksBuffer(buffer)) return DLNA_UTIL_ERR_NULL_BUFFER;
  return DidlWriter(buffer).raw(kHeader).status();
}

int32_t dlnaUtil_DIDLAddFooter(dlnaUtilBuffer *buffer) {
  if (lacksBuffer(buffer)) return DLNA_UTIL_ERR_NULL_BUFFER;
  return DidlWriter(buffer).raw(kFooter).status();
}

int32_t dlnaUtil_DIDLAddItem(dlnaUtilBuffer *buffer, const dlnaUtilDidlItem *item) {
  if (lacksBuffer(buffer)) return DLNA_UTIL_ERR_NULL_BUFFER;
  if (item == nullptr || itemIsRefused(*item)) return DLNA_UTIL_ERR_INVALID_PARAM;
  DidlWriter out(buffer);
  out.raw("<item"sv)
      .attribute("id"sv, int64_t{item->id})
      .attribute("parentID"sv, int64_t{item->parentID});
  if (item->refID > 0) out.attribute("refID"sv, int64_t{item->refID});
  out.attribute("restricted"sv, int64_t{static_cast<int32_t>(item->restricted)})
      .raw(">"sv);
  writeItemMetadata(out, *item);
  if (item->extraMetadata != nullptr) out.raw(item->extraMetadata);
  if (item->protocolInfo != nullptr) {
    writeResource(out, *item);
    const std::string_view thumbnail = inlineText(item->thumbnailResolution);
    const std::string_view small = inlineText(item->smallResolution);
    const bool ci0 = item->picturesCiAsMain != 0;
    if (!thumbnail.empty()) {
      writePictureResource(out, *item, ci0 ? DLNA_UTIL_JPEG_TN_FEATURES_CI0 : DLNA_UTIL_JPEG_TN_FEATURES, thumbnail,
                           ".tn.jpg"sv);
    }
    if (!small.empty()) {
      writePictureResource(out, *item, ci0 ? DLNA_UTIL_JPEG_SM_FEATURES_CI0 : DLNA_UTIL_JPEG_SM_FEATURES, small,
                           ".sm.jpg"sv);
    }
  }
  if (item->extraResources != nullptr) out.raw(item->extraResources);
  return out.raw("</item>"sv).status();
}

int32_t dlnaUtil_DIDLAddContainer(dlnaUtilBuffer *buffer,
                                  const dlnaUtilDidlContainer *container) {
  if (lacksBuffer(buffer)) return DLNA_UTIL_ERR_NULL_BUFFER;
  if (container == nullptr || containerIsRefused(*container)) {
    return DLNA_UTIL_ERR_INVALID_PARAM;
  }
  const dlnaUtilDidlContainer &folder = *container;
  DidlWriter out(buffer);
  out.raw("<container"sv)
      .attribute("id"sv, int64_t{folder.id})
      .attribute("parentID"sv, int64_t{folder.parentID});
  if (folder.childCount >= 0) out.attribute("childCount"sv, int64_t{folder.childCount});
  out.attribute("restricted"sv, int64_t{static_cast<int32_t>(folder.restricted)});
  if (folder.searchable < 2) {
    out.attribute("searchable"sv, int64_t{static_cast<int32_t>(folder.searchable)});
  }
  out.raw(">"sv).element("upnp:class"sv, folder.upnpClass).element("dc:title"sv, folder.title);
  if (folder.albumArtId > 0) writeAlbumArt(out, folder.serverAddress, folder.serverPort, folder.albumArtId);
  return out.raw("</container>"sv).status();
}

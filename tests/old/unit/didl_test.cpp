#include <gtest/gtest.h>

#include <ixml.h>

#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "util/dlnaUtil_buffer.h"
#include "util/dlnaUtil_didl.h"
#include "util/dmsErrors.h"

namespace {

struct DocumentDeleter {
  void operator()(IXML_Document *document) const { ixmlDocument_free(document); }
};
using DocumentPtr = std::unique_ptr<IXML_Document, DocumentDeleter>;

DlnaBufferPtr makeBuffer() {
  dlnaUtilBuffer *raw = nullptr;
  EXPECT_EQ(dlnaUtil_allocateBuffer(&raw), 0);
  return DlnaBufferPtr(raw);
}

dlnaUtilDidlItem musicTrack() {
  dlnaUtilDidlItem item{};
  item.id = 1005;
  item.parentID = 1001;
  item.restricted = 1;
  item.upnpClass = "object.item.audioItem.musicTrack";
  item.title = "Song";
  item.protocolInfo = "http-get:*:audio/mpeg:*";
  item.size = 5000000000LL;
  item.serverAddress = "192.168.1.5";
  item.serverPort = 49152;
  item.resourceName = "1005.mp3";
  item.duration = 3725000;  // milliseconds
  item.bitrate = 16000;
  return item;
}

// Writes a whole answer holding `body`, parses it and returns the first
// object element below DIDL-Lite (the document keeps it alive).
template <typename Body>
IXML_Node *writeAndParse(Body body, DocumentPtr &document, std::string *text = nullptr) {
  DlnaBufferPtr buffer = makeBuffer();
  EXPECT_EQ(dlnaUtil_DIDLAddHeader(buffer.get()), 0);
  EXPECT_EQ(body(buffer.get()), 0);
  EXPECT_EQ(dlnaUtil_DIDLAddFooter(buffer.get()), 0);
  if (text != nullptr) *text = buffer->data;
  document.reset(ixmlParseBuffer(buffer->data));
  if (!document) {
    ADD_FAILURE() << "not well-formed: " << buffer->data;
    return nullptr;
  }
  IXML_Node *root = ixmlNode_getFirstChild(&document->n);
  EXPECT_STREQ(ixmlNode_getNodeName(root), "DIDL-Lite");
  return ixmlNode_getFirstChild(root);
}

IXML_Node *itemNode(const dlnaUtilDidlItem &item, DocumentPtr &document) {
  return writeAndParse([&](dlnaUtilBuffer *b) { return dlnaUtil_DIDLAddItem(b, &item); },
                       document);
}

std::vector<std::string> childNames(IXML_Node *node) {
  std::vector<std::string> names;
  for (IXML_Node *c = ixmlNode_getFirstChild(node); c; c = ixmlNode_getNextSibling(c)) {
    names.emplace_back(ixmlNode_getNodeName(c));
  }
  return names;
}

IXML_Node *child(IXML_Node *node, const std::string &name) {
  for (IXML_Node *c = ixmlNode_getFirstChild(node); c; c = ixmlNode_getNextSibling(c)) {
    if (name == ixmlNode_getNodeName(c)) return c;
  }
  return nullptr;
}

std::string textOf(IXML_Node *node) {
  IXML_Node *text = node ? ixmlNode_getFirstChild(node) : nullptr;
  return text ? ixmlNode_getNodeValue(text) : "";
}

std::string attribute(IXML_Node *node, const char *name) {
  const char *value = ixmlElement_getAttribute(reinterpret_cast<IXML_Element *>(node), name);
  return value ? value : "<absent>";
}

size_t attributeCount(IXML_Node *node) {
  IXML_NamedNodeMap *map = ixmlNode_getAttributes(node);
  size_t count = ixmlNamedNodeMap_getLength(map);
  ixmlNamedNodeMap_free(map);
  return count;
}

}  // namespace

TEST(DidlWriter, HeaderContainerFooterIsOneExactLine) {
  DlnaBufferPtr buffer = makeBuffer();
  const dlnaUtilDidlContainer folder{0, -1, 3, 1, 0, "Root", "object.container"};
  ASSERT_EQ(dlnaUtil_DIDLAddHeader(buffer.get()), 0);
  ASSERT_EQ(dlnaUtil_DIDLAddContainer(buffer.get(), &folder), 0);
  ASSERT_EQ(dlnaUtil_DIDLAddFooter(buffer.get()), 0);
  EXPECT_STREQ(buffer->data,
               "<DIDL-Lite xmlns=\"urn:schemas-upnp-org:metadata-1-0/DIDL-Lite/\" "
               "xmlns:dc=\"http://purl.org/dc/elements/1.1/\" "
               "xmlns:upnp=\"urn:schemas-upnp-org:metadata-1-0/upnp/\">"
               "<container id=\"0\" parentID=\"-1\" childCount=\"3\" restricted=\"1\" "
               "searchable=\"0\"><upnp:class>object.container</upnp:class>"
               "<dc:title>Root</dc:title></container></DIDL-Lite>");
}

TEST(DidlWriter, ContainerOmitsNegativeChildCountAndSearchable) {
  const dlnaUtilDidlContainer folder{1001, 0, -1, 1, static_cast<uint32_t>(-1), "Music",
                                     "object.container.storageFolder"};
  DocumentPtr document;
  IXML_Node *node = writeAndParse(
      [&](dlnaUtilBuffer *b) { return dlnaUtil_DIDLAddContainer(b, &folder); }, document);
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(attributeCount(node), 3u);
  EXPECT_EQ(attribute(node, "id"), "1001");
  EXPECT_EQ(attribute(node, "parentID"), "0");
  EXPECT_EQ(attribute(node, "restricted"), "1");
  EXPECT_EQ(childNames(node), (std::vector<std::string>{"upnp:class", "dc:title"}));
}

TEST(DidlWriter, FullItemKeepsElementAndResourceOrder) {
  dlnaUtilDidlItem item = musicTrack();
  item.album = "Album";
  item.genre = "Jazz";
  item.creator = "Band";
  std::strcpy(item.date, "2011-03-04");
  std::strcpy(item.resolution, "640x480");
  std::string text;
  DocumentPtr document;
  IXML_Node *node = writeAndParse(
      [&](dlnaUtilBuffer *b) { return dlnaUtil_DIDLAddItem(b, &item); }, document, &text);
  ASSERT_NE(node, nullptr);
  EXPECT_NE(text.find("<item id=\"1005\" parentID=\"1001\" restricted=\"1\">"),
            std::string::npos);
  EXPECT_NE(text.find("<res protocolInfo=\"http-get:*:audio/mpeg:*\" size=\"5000000000\" "
                      "duration=\"1:02:05.000\" resolution=\"640x480\" bitrate=\"16000\">"),
            std::string::npos);
  EXPECT_EQ(childNames(node), (std::vector<std::string>{"upnp:album", "upnp:class", "dc:title",
                                                        "upnp:genre", "dc:creator", "dc:date",
                                                        "res"}));
  EXPECT_EQ(textOf(child(node, "dc:date")), "2011-03-04");
  EXPECT_EQ(textOf(child(node, "res")), "http://192.168.1.5:49152/web/1005.mp3");
}

TEST(DidlWriter, ItemWithoutProtocolInfoHasNoResource) {
  dlnaUtilDidlItem item = musicTrack();
  item.protocolInfo = nullptr;
  std::string text;
  DocumentPtr document;
  IXML_Node *node = writeAndParse(
      [&](dlnaUtilBuffer *b) { return dlnaUtil_DIDLAddItem(b, &item); }, document, &text);
  EXPECT_EQ(childNames(node), (std::vector<std::string>{"upnp:class", "dc:title"}));
  EXPECT_EQ(text.find("49152"), std::string::npos);
}

TEST(DidlWriter, ZeroSizeAndDurationWriteProtocolInfoOnly) {
  dlnaUtilDidlItem item = musicTrack();
  item.size = 0;
  item.duration = 0;
  item.bitrate = 0;
  DocumentPtr document;
  IXML_Node *res = child(itemNode(item, document), "res");
  ASSERT_NE(res, nullptr);
  EXPECT_EQ(attributeCount(res), 1u);
  EXPECT_EQ(attribute(res, "protocolInfo"), "http-get:*:audio/mpeg:*");
}

TEST(DidlWriter, DurationIsMillisecondsWithUnpaddedHours) {
  const std::pair<int64_t, const char *> cases[] = {
      {1, "0:00:00.001"},           {999, "0:00:00.999"},
      {59000, "0:00:59.000"},       {61234, "0:01:01.234"},
      {3725000, "1:02:05.000"},     {360000000, "100:00:00.000"},
      {4294967295LL, "1193:02:47.295"}};
  for (const auto &[milliseconds, expected] : cases) {
    dlnaUtilDidlItem item = musicTrack();
    item.duration = milliseconds;
    DocumentPtr document;
    EXPECT_EQ(attribute(child(itemNode(item, document), "res"), "duration"), expected)
        << milliseconds;
  }
}

TEST(DidlWriter, NegativeDurationAndBitrateAreLeftOut) {
  dlnaUtilDidlItem item = musicTrack();
  item.duration = -1;
  item.bitrate = -1;
  DocumentPtr document;
  IXML_Node *res = child(itemNode(item, document), "res");
  ASSERT_NE(res, nullptr);
  EXPECT_EQ(attribute(res, "duration"), "<absent>");
  EXPECT_EQ(attribute(res, "bitrate"), "<absent>");
  EXPECT_EQ(attribute(res, "size"), "5000000000");
}

TEST(DidlWriter, SpecialCharactersRoundTripThroughTheParser) {
  dlnaUtilDidlItem item = musicTrack();
  item.title = "Tom & Jerry <live> \"1\" 'a'";
  item.album = "R&B";
  item.protocolInfo = "http-get:*:audio/mpeg:DLNA.ORG_PN=MP3;x='&'";
  item.resourceName = "Tom & Jerry.mp3";
  DocumentPtr document;
  IXML_Node *node = itemNode(item, document);
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(textOf(child(node, "dc:title")), item.title);
  EXPECT_EQ(textOf(child(node, "upnp:album")), "R&B");
  EXPECT_EQ(attribute(child(node, "res"), "protocolInfo"), item.protocolInfo);
  EXPECT_EQ(textOf(child(node, "res")), "http://192.168.1.5:49152/web/Tom & Jerry.mp3");
}

TEST(DidlValidation, ItemIsRefusedOnlyWhenEveryFieldIsBad) {
  dlnaUtilDidlItem allBad{};
  allBad.id = -1;
  allBad.parentID = -2;
  allBad.restricted = 2;
  DlnaBufferPtr buffer = makeBuffer();
  EXPECT_EQ(dlnaUtil_DIDLAddItem(buffer.get(), &allBad), DLNA_UTIL_ERR_INVALID_PARAM);
  EXPECT_EQ(dlnaUtil_DIDLAddItem(buffer.get(), nullptr), DLNA_UTIL_ERR_INVALID_PARAM);
  EXPECT_EQ(buffer->length, 0u);
  dlnaUtilDidlItem oneGood[5] = {allBad, allBad, allBad, allBad, allBad};
  oneGood[0].id = 0;
  oneGood[1].parentID = -1;
  oneGood[2].restricted = 0;
  oneGood[3].upnpClass = "object.item";
  oneGood[4].title = "t";
  for (const dlnaUtilDidlItem &item : oneGood) {
    EXPECT_EQ(dlnaUtil_DIDLAddItem(buffer.get(), &item), 0);
  }
  // A missing text is written the way the formatter prints a NULL string.
  EXPECT_NE(std::string(buffer->data).find("<dc:title></dc:title>"), std::string::npos);
}

TEST(DidlValidation, ContainerIsRefusedOnAnyBadField) {
  const dlnaUtilDidlContainer good{5, 0, 0, 1, 0, "t", "object.container"};
  dlnaUtilDidlContainer oneBad[5] = {good, good, good, good, good};
  oneBad[0].id = -1;
  oneBad[1].parentID = -2;
  oneBad[2].restricted = 2;
  oneBad[3].title = nullptr;
  oneBad[4].upnpClass = nullptr;
  DlnaBufferPtr buffer = makeBuffer();
  for (const dlnaUtilDidlContainer &folder : oneBad) {
    EXPECT_EQ(dlnaUtil_DIDLAddContainer(buffer.get(), &folder), DLNA_UTIL_ERR_INVALID_PARAM);
  }
  EXPECT_EQ(dlnaUtil_DIDLAddContainer(buffer.get(), nullptr), DLNA_UTIL_ERR_INVALID_PARAM);
  EXPECT_EQ(buffer->length, 0u);
}

TEST(DidlValidation, MissingBufferOrBlockComesFirst) {
  dlnaUtilBuffer blockless{nullptr, 0, 0};
  for (dlnaUtilBuffer *buffer : {static_cast<dlnaUtilBuffer *>(nullptr), &blockless}) {
    EXPECT_EQ(dlnaUtil_DIDLAddStringAttribute(buffer, nullptr, "v"), DLNA_UTIL_ERR_NULL_BUFFER);
    EXPECT_EQ(dlnaUtil_DIDLAddIntegerAttribute(buffer, nullptr, 1), DLNA_UTIL_ERR_NULL_BUFFER);
    EXPECT_EQ(dlnaUtil_DIDLAddElement(buffer, nullptr, "t"), DLNA_UTIL_ERR_NULL_BUFFER);
    EXPECT_EQ(dlnaUtil_DIDLAddHeader(buffer), DLNA_UTIL_ERR_NULL_BUFFER);
    EXPECT_EQ(dlnaUtil_DIDLAddFooter(buffer), DLNA_UTIL_ERR_NULL_BUFFER);
    EXPECT_EQ(dlnaUtil_DIDLAddItem(buffer, nullptr), DLNA_UTIL_ERR_NULL_BUFFER);
    EXPECT_EQ(dlnaUtil_DIDLAddContainer(buffer, nullptr), DLNA_UTIL_ERR_NULL_BUFFER);
  }
  DlnaBufferPtr buffer = makeBuffer();
  EXPECT_EQ(dlnaUtil_DIDLAddStringAttribute(buffer.get(), nullptr, "v"),
            DLNA_UTIL_ERR_INVALID_PARAM);
  EXPECT_EQ(dlnaUtil_DIDLAddIntegerAttribute(buffer.get(), nullptr, 1),
            DLNA_UTIL_ERR_INVALID_PARAM);
  EXPECT_EQ(dlnaUtil_DIDLAddElement(buffer.get(), nullptr, "t"), DLNA_UTIL_ERR_INVALID_PARAM);
}

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <unistd.h>

#include <ixml.h>

#include "util/dlnaUtil_xmlParser.h"
#include "util/dmsErrors.h"
#include "capture_stdout.h"

namespace {

struct DocumentDeleter {
  void operator()(IXML_Document *document) const { ixmlDocument_free(document); }
};
using DocumentPtr = std::unique_ptr<IXML_Document, DocumentDeleter>;

struct FreeDeleter {
  void operator()(char *text) const { std::free(text); }
};
using CString = std::unique_ptr<char, FreeDeleter>;

// Wraps the arguments of a ContentDirectory action in the SOAP envelope a
// control point posts, and parses it the way the SDK does.
DocumentPtr parseAction(const std::string &action, const std::string &arguments) {
  std::string text =
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
      "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
      "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">\n"
      "  <s:Body>\n"
      "    <u:" + action + " xmlns:u=\"urn:schemas-upnp-org:service:ContentDirectory:1\">\n" +
      arguments +
      "    </u:" + action + ">\n"
      "  </s:Body>\n"
      "</s:Envelope>\n";
  return DocumentPtr(ixmlParseBuffer(text.c_str()));
}

const char kBrowseArguments[] =
    "      <ObjectID>64</ObjectID>\n"
    "      <BrowseFlag>BrowseDirectChildren</BrowseFlag>\n"
    "      <Filter>dc:title,res,res@size</Filter>\n"
    "      <StartingIndex>20</StartingIndex>\n"
    "      <RequestedCount>10</RequestedCount>\n"
    "      <SortCriteria/>\n";

// Returns the string read for `key`, or "<status N>" when the read fails.
std::string readString(IXML_Document *document, const char *key) {
  char *raw = nullptr;
  int32_t status = dlnaUtil_xmlParserGetString(document, key, &raw);
  CString value(raw);
  if (status != 0) {
    EXPECT_EQ(raw, nullptr) << "a failed read must not hand back a string";
    return "<status " + std::to_string(status) + ">";
  }
  EXPECT_NE(raw, nullptr);
  return raw != nullptr ? std::string(raw) : std::string("<null>");
}

}  // namespace

TEST(XmlParserGetString, ReadsEveryBrowseArgument) {
  DocumentPtr document = parseAction("Browse", kBrowseArguments);
  ASSERT_NE(document, nullptr);
  EXPECT_EQ(readString(document.get(), "ObjectID"), "64");
  EXPECT_EQ(readString(document.get(), "BrowseFlag"), "BrowseDirectChildren");
  EXPECT_EQ(readString(document.get(), "Filter"), "dc:title,res,res@size");
  EXPECT_EQ(readString(document.get(), "RequestedCount"), "10");
  EXPECT_EQ(readString(document.get(), "SortCriteria"), "");
}

TEST(XmlParserGetString, NamesMatchExactlyIncludingPrefix) {
  DocumentPtr document = parseAction("Browse", kBrowseArguments);
  ASSERT_NE(document, nullptr);
  EXPECT_EQ(readString(document.get(), "Browse"), "<status -253>");
  EXPECT_EQ(readString(document.get(), "Body"), "<status -253>");
  EXPECT_EQ(readString(document.get(), "objectid"), "<status -253>");
  EXPECT_EQ(readString(document.get(), "ObjectI"), "<status -253>");
  // The action element holds elements, not text: its value is empty.
  EXPECT_EQ(readString(document.get(), "u:Browse"), "");
  EXPECT_EQ(readString(document.get(), "s:Body"), "");
}

TEST(XmlParserGetString, EntitiesComeBackDecoded) {
  DocumentPtr document = parseAction(
      "Search",
      "      <ContainerID>0</ContainerID>\n"
      "      <SearchCriteria>(upnp:class derivedfrom &quot;object.item.audioItem&quot;) and "
      "(dc:title contains &quot;Salt &amp; Pepper&quot;)</SearchCriteria>\n"
      "      <Filter>*</Filter>\n"
      "      <SortCriteria>+dc:title</SortCriteria>\n"
      "      <Note>&lt;a&gt; &apos;b&apos; &#65;</Note>\n");
  ASSERT_NE(document, nullptr);
  EXPECT_EQ(readString(document.get(), "SearchCriteria"),
            "(upnp:class derivedfrom \"object.item.audioItem\") and "
            "(dc:title contains \"Salt & Pepper\")");
  EXPECT_EQ(readString(document.get(), "Note"), "<a> 'b' A");
  EXPECT_EQ(readString(document.get(), "SortCriteria"), "+dc:title");
}

TEST(XmlParserGetString, LaterSiblingReplacesNestedMatch) {
  // A vendor extension carrying its own ObjectID ahead of the real argument.
  DocumentPtr document = parseAction(
      "Browse",
      "      <X_Ext><Inner><ObjectID>nested</ObjectID></Inner></X_Ext>\n"
      "      <ObjectID>real</ObjectID>\n"
      "      <BrowseFlag>BrowseMetadata</BrowseFlag>\n");
  ASSERT_NE(document, nullptr);
  EXPECT_EQ(readString(document.get(), "ObjectID"), "real");
}

TEST(XmlParserGetString, LaterSubtreeReplacesEarlierSubtree) {
  DocumentPtr document = parseAction(
      "Browse",
      "      <First><ObjectID>one</ObjectID></First>\n"
      "      <Second><Deeper><ObjectID>two</ObjectID></Deeper></Second>\n"
      "      <Third><Other>x</Other></Third>\n");
  ASSERT_NE(document, nullptr);
  EXPECT_EQ(readString(document.get(), "ObjectID"), "two");
}

TEST(XmlParserGetString, FirstDirectMatchAtOneLevelWins) {
  DocumentPtr document = parseAction(
      "Browse",
      "      <ObjectID>first</ObjectID>\n"
      "      <ObjectID>second</ObjectID>\n"
      "      <X_Ext><ObjectID>nested</ObjectID></X_Ext>\n");
  ASSERT_NE(document, nullptr);
  EXPECT_EQ(readString(document.get(), "ObjectID"), "first");
}

TEST(XmlParserGetString, MissingKeyIsReportedAndTraced) {
  DocumentPtr document = parseAction("Browse", kBrowseArguments);
  ASSERT_NE(document, nullptr);
  char *value = nullptr;
  int32_t status = 0;
  std::string out = captureStdout(
      [&] { status = dlnaUtil_xmlParserGetString(document.get(), "ContainerID", &value); });
  EXPECT_EQ(status, DLNA_UTIL_ERR_KEY_NOT_FOUND);
  EXPECT_EQ(value, nullptr);
  EXPECT_NE(out.find("[dlnaUtil_xmlParser]"), std::string::npos) << out;
  EXPECT_NE(out.find("KeyName (ContainerID) is not found in the given XML document\n"),
            std::string::npos)
      << out;
}

TEST(XmlParserGetString, RefusesBadArguments) {
  DocumentPtr document = parseAction("Browse", kBrowseArguments);
  ASSERT_NE(document, nullptr);
  char oldText[] = "caller's string";
  char *value = oldText;
  EXPECT_EQ(dlnaUtil_xmlParserGetString(document.get(), "ObjectID", &value),
            DLNA_UTIL_ERR_INVALID_PARAM);
  EXPECT_EQ(value, oldText);
  EXPECT_STREQ(oldText, "caller's string");

  value = nullptr;
  EXPECT_EQ(dlnaUtil_xmlParserGetString(nullptr, "ObjectID", &value), DLNA_UTIL_ERR_INVALID_PARAM);
  EXPECT_EQ(dlnaUtil_xmlParserGetString(document.get(), nullptr, &value),
            DLNA_UTIL_ERR_INVALID_PARAM);
  EXPECT_EQ(dlnaUtil_xmlParserGetString(document.get(), "ObjectID", nullptr),
            DLNA_UTIL_ERR_INVALID_PARAM);
  EXPECT_EQ(value, nullptr);
}

TEST(XmlParserGetInteger, FollowsAtoiRules) {
  DocumentPtr document = parseAction(
      "Browse",
      "      <ObjectID>0</ObjectID>\n"
      "      <StartingIndex>  12abc</StartingIndex>\n"
      "      <RequestedCount>-7</RequestedCount>\n"
      "      <Filter>*</Filter>\n"
      "      <SortCriteria/>\n");
  ASSERT_NE(document, nullptr);
  int32_t value = 99;
  EXPECT_EQ(dlnaUtil_xmlParserGetInteger(document.get(), "StartingIndex", &value), 0);
  EXPECT_EQ(value, 12);
  EXPECT_EQ(dlnaUtil_xmlParserGetInteger(document.get(), "RequestedCount", &value), 0);
  EXPECT_EQ(value, -7);
  EXPECT_EQ(dlnaUtil_xmlParserGetInteger(document.get(), "Filter", &value), 0);
  EXPECT_EQ(value, 0);
  EXPECT_EQ(dlnaUtil_xmlParserGetInteger(document.get(), "SortCriteria", &value), 0);
  EXPECT_EQ(value, 0);
}

TEST(XmlParserGetInteger, EmptyElementReadsZero) {
  DocumentPtr document = parseAction("Browse",
                                     "      <ObjectID>0</ObjectID>\n"
                                     "      <StartingIndex/>\n");
  ASSERT_NE(document, nullptr);
  int32_t value = 99;
  EXPECT_EQ(dlnaUtil_xmlParserGetInteger(document.get(), "StartingIndex", &value), 0);
  EXPECT_EQ(value, 0);
}

TEST(XmlParserGetInteger, FailuresLeaveMinusOne) {
  DocumentPtr document = parseAction("Browse",
                                     "      <ObjectID>0</ObjectID>\n"
                                     "      <BrowseFlag>BrowseMetadata</BrowseFlag>\n");
  ASSERT_NE(document, nullptr);
  int32_t value = 99;
  EXPECT_EQ(dlnaUtil_xmlParserGetInteger(document.get(), "StartingIndex", &value),
            DLNA_UTIL_ERR_KEY_NOT_FOUND);
  EXPECT_EQ(value, -1);

  EXPECT_EQ(dlnaUtil_xmlParserGetInteger(nullptr, "ObjectID", &value),
            DLNA_UTIL_ERR_INVALID_PARAM);
  EXPECT_EQ(dlnaUtil_xmlParserGetInteger(document.get(), nullptr, &value),
            DLNA_UTIL_ERR_INVALID_PARAM);
  EXPECT_EQ(dlnaUtil_xmlParserGetInteger(document.get(), "ObjectID", nullptr),
            DLNA_UTIL_ERR_INVALID_PARAM);
}

TEST(XmlParserPrintXmlDocument, RendersWithoutPrinting) {
  DocumentPtr document = parseAction("Browse", kBrowseArguments);
  ASSERT_NE(document, nullptr);
  int32_t status = -1;
  std::string out =
      captureStdout([&] { status = dlnaUtil_xmlParserPrintXmlDocument(document.get()); });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(out, "");
  EXPECT_EQ(dlnaUtil_xmlParserPrintXmlDocument(nullptr), DLNA_UTIL_ERR_INVALID_PARAM);
}

// The DIDL-Lite writer's escaping and the Search criteria parser: the two
// pieces of text handling with real logic behind the SOAP answers.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "detection.h"
#include "dms_test.h"
#include "services/dmsCdsMgrSearch.h"
#include "util/dlnaUtil_buffer.h"
#include "util/dlnaUtil_didl.h"
#include "util/dlnaUtil_xmlText.h"

using namespace dmstest;

namespace {

// Writes one item and one container into a DIDL-Lite document.
std::string writeDocument(const char *title, const char *creator, const char *folderTitle) {
  dlnaUtilBuffer *buffer = nullptr;
  EXPECT_EQ(dlnaUtil_allocateBuffer(&buffer), 0);
  dlnaUtilDidlItem item{};
  item.id = 1005;
  item.parentID = 1001;
  item.restricted = 1;
  item.upnpClass = "object.item.audioItem.musicTrack";
  item.title = title;
  item.creator = creator;
  item.protocolInfo = "http-get:*:audio/mpeg:DLNA.ORG_PN=MP3;DLNA.ORG_OP=01;DLNA.ORG_CI=0";
  item.size = 5000000000LL;
  item.serverAddress = "127.0.0.1";
  item.serverPort = 49152;
  item.resourceName = "1005.mp3";
  item.duration = 3723004;
  item.bitrate = 16000;
  dlnaUtilDidlContainer folder{1001, 0, 3, 1, 1, folderTitle, "object.container.storageFolder", 0, nullptr, 0};
  EXPECT_EQ(dlnaUtil_DIDLAddHeader(buffer), 0);
  EXPECT_EQ(dlnaUtil_DIDLAddContainer(buffer, &folder), 0);
  EXPECT_EQ(dlnaUtil_DIDLAddItem(buffer, &item), 0);
  EXPECT_EQ(dlnaUtil_DIDLAddFooter(buffer), 0);
  std::string text(buffer->data, buffer->length);
  dlnaUtil_releaseBuffer(buffer);
  return text;
}

TEST(DidlWriter, EveryTextRoundTripsThroughAnXmlParser) {
  const char *texts[] = {"Tom & Jerry", "<b>bold</b>", "say \"hi\"", "it's", "a&amp;b",
                         "]]> end", "Ünïcödé ✓", ""};
  for (const char *text : texts) {
    SCOPED_TRACE(text);
    bool ok = false;
    std::vector<DidlObject> objects = parseDidl(writeDocument(text, text, text), &ok);
    ASSERT_TRUE(ok);
    ASSERT_EQ(objects.size(), 2u);
    EXPECT_EQ(objects[0].title(), text);
    EXPECT_EQ(objects[1].title(), text);
    EXPECT_EQ(objects[1].prop("dc:creator"), text);
    ASSERT_EQ(objects[1].res.size(), 1u);
    EXPECT_EQ(objects[1].res[0]["size"], "5000000000");
    EXPECT_EQ(objects[1].res[0]["duration"], "1:02:03.004");
    EXPECT_EQ(objects[1].res[0]["url"], "http://127.0.0.1:49152/web/1005.mp3");
  }
}

// Bytes that are not well-formed UTF-8 are read as Latin-1 (C1 controls
// become U+FFFD), characters XML forbids are dropped, and well-formed UTF-8
// passes unchanged.
TEST(XmlText, AnyBytesBecomeCharacterData) {
  const struct {
    std::string in, out;
  } rows[] = {
      {"plain & <tag> \"q\" 'a'", "plain &amp; &lt;tag&gt; &quot;q&quot; &apos;a&apos;"},
      {"caf\xE9", "caf\xC3\xA9"},                                  // Latin-1
      {"\x85x\x9F", "\xEF\xBF\xBDx\xEF\xBF\xBD"},                   // C1 controls
      {"a\x01\x1B\x7F" "b\tc\nd\re", "ab\tc\nd\re"},                // C0 controls, DEL
      {"\xF0\x9F\x8E\xB5 \xE2\x9C\x93", "\xF0\x9F\x8E\xB5 \xE2\x9C\x93"},  // 4- and 3-byte
      {"\xC0\xAF", "\xC3\x80\xC2\xAF"},                             // overlong '/'
      {"\xED\xA0\x80", "\xC3\xAD\xC2\xA0\xEF\xBF\xBD"},            // a surrogate
      {"\xF4\x90\x80\x80", "\xC3\xB4\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},  // past U+10FFFF
      {"x\xEF\xBF\xBEy\xEF\xBF\xBF", "xy"},                          // U+FFFE, U+FFFF
      {"end\xE2\x82", "end\xC3\xA2\xEF\xBF\xBD"},                    // cut short
      {std::string("nul\0in", 6), "nulin"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.in);
    EXPECT_EQ(dlnaUtil_xmlEscaped(row.in), row.out);
    bool ok = false;
    parseDidl(writeDocument(row.in.c_str(), row.in.c_str(), row.in.c_str()), &ok);
    EXPECT_TRUE(ok);
  }
}

// An item as Search sees it.
dlnaUtilDidlItem itemOf(const char *title, const char *upnpClass) {
  dlnaUtilDidlItem item{};
  item.title = title;
  item.upnpClass = upnpClass;
  return item;
}

// Does `criteria` select the item?  Terms joined by "and" must all match,
// groups joined by "or" any.
bool selects(const char *criteria, const dlnaUtilDidlItem &item) {
  dmsCdsSearchState state;
  EXPECT_EQ(parseSearchCapabilities(criteria, &state), 0);
  bool any = false, group = true;
  for (size_t i = 0; i < state.terms.size(); ++i) {
    if (i > 0 && state.terms[i].entryType != DMS_CDS_SEARCH_ENTRY_AND) {
      any = any || group;
      group = true;
    }
    group = group && dmsCdsCheckForContentMatch(&item, criteria, &state.terms[i].term) == 1;
  }
  return state.terms.empty() || any || group;
}

TEST(SearchCriteria, TermsOperatorsAndConnectives) {
  const auto song = itemOf("Brightside", "object.item.audioItem.musicTrack");
  const auto photo = itemOf("Beach", "object.item.imageItem.photo");
  struct Row {
    const char *criteria;
    bool song, photo;
  } rows[] = {
      {"upnp:class derivedfrom \"object.item.audioItem\"", true, false},
      {"upnp:class = \"object.item.imageItem.photo\"", false, true},
      {"dc:title contains \"Bright\"", true, false},
      {"dc:title contains \"Brightsidex\"", false, false},
      {"dc:title contains \"Be\"", false, true},
      {"dc:title = \"Brightside\"", true, false},
      {"dc:title exists true", true, true},
      {"upnp:class derivedfrom \"object.item.imageItem\" and dc:title contains \"Beach\"", false, true},
      {"upnp:class derivedfrom \"object.item.audioItem\" and dc:title contains \"Beach\"", false, false},
      {"dc:title contains \"Brig\" or dc:title contains \"Bea\"", true, true},
      {"(dc:title contains \"Brig\")", true, false},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.criteria);
    EXPECT_EQ(selects(row.criteria, song), row.song);
    EXPECT_EQ(selects(row.criteria, photo), row.photo);
  }
}

}  // namespace

// The DIDL-Lite writer and its escaping: any bytes a file name or tag holds
// become text that an XML parser reads back.  (Search criteria are the
// search test's, over SOAP.)
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "dms_test.h"
#include "util/dlnaUtil_buffer.h"
#include "util/dlnaUtil_didl.h"
#include "util/dlnaUtil_xmlText.h"

using namespace dmstest;

namespace {

// Writes one item and one container, both titled `title`, into a DIDL-Lite
// document.
std::string writeDocument(const char *title) {
  dlnaUtilBuffer *buffer = nullptr;
  EXPECT_EQ(dlnaUtil_allocateBuffer(&buffer), 0);
  dlnaUtilDidlItem item{};
  item.id = 1005;
  item.parentID = 1001;
  item.restricted = 1;
  item.upnpClass = "object.item.audioItem.musicTrack";
  item.title = item.creator = title;
  item.protocolInfo = "http-get:*:audio/mpeg:DLNA.ORG_PN=MP3;DLNA.ORG_OP=01;DLNA.ORG_CI=0";
  item.size = 5000000000LL;
  item.serverAddress = "127.0.0.1";
  item.serverPort = 49152;
  item.resourceName = "1005.mp3";
  item.duration = 3723004;
  item.bitrate = 16000;
  dlnaUtilDidlContainer folder{1001, 0, 3, 1, 1, title, "object.container.storageFolder", 0, nullptr, 0};
  EXPECT_EQ(dlnaUtil_DIDLAddHeader(buffer), 0);
  EXPECT_EQ(dlnaUtil_DIDLAddContainer(buffer, &folder), 0);
  EXPECT_EQ(dlnaUtil_DIDLAddItem(buffer, &item), 0);
  EXPECT_EQ(dlnaUtil_DIDLAddFooter(buffer), 0);
  std::string text(buffer->data, buffer->length);
  dlnaUtil_releaseBuffer(buffer);
  return text;
}

// Bytes that are not well-formed UTF-8 are read as Latin-1 (C1 controls
// become U+FFFD), characters XML forbids are dropped, and well-formed UTF-8
// passes unchanged; a parser reads in every text of a written document what
// the escaped text says.
TEST(DidlWriter, AnyBytesBecomeCharacterDataThatAParserReadsBack) {
  const struct {
    std::string in, out;
  } rows[] = {
      {"plain & <tag> \"q\" 'a'", "plain &amp; &lt;tag&gt; &quot;q&quot; &apos;a&apos;"},
      {"a&amp;b ]]> end", "a&amp;amp;b ]]&gt; end"},
      {"", ""},
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
    const std::vector<DidlObject> objects = parseDidl(writeDocument(row.in.c_str()), &ok);
    ASSERT_TRUE(ok);
    ASSERT_EQ(objects.size(), 2u);
    const std::string text = elementText("<t>" + dlnaUtil_xmlEscaped(row.in.c_str()) + "</t>", "t");
    for (const std::string &read : {objects[0].title(), objects[1].title(), objects[1].prop("dc:creator")}) {
      EXPECT_EQ(read, text);
    }
  }
  // An item's res: a size past 4 GiB, a duration of hours.
  const std::vector<std::map<std::string, std::string>> res = parseDidl(writeDocument("x")).at(1).res;
  ASSERT_EQ(res.size(), 1u);
  EXPECT_EQ(res[0].at("size"), "5000000000");
  EXPECT_EQ(res[0].at("duration"), "1:02:03.004");
  EXPECT_EQ(res[0].at("url"), "http://127.0.0.1:49152/web/1005.mp3");
}

}  // namespace

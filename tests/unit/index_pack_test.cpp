// The index's bytes of a file's detection and tags read back as they were
// written: for every fixture the detectors accept, the record (protocol
// strings included, derived again) and the tags; and bytes this version did
// not write are refused, never half read.
#include <gtest/gtest.h>

#include <cstring>

#include "content/dmsClmRecord.h"
#include "detection.h"
#include "dms_test.h"
#include "index/dmsIndexPack.h"
#include "mfd/mfd_protocol.h"
#include "tags/dmsClmTags.h"

using namespace dmstest;

namespace {

TEST(IndexPack, EveryDetectedFixtureReadsBackAsItWasKept) {
  Detection detection;
  QuietTrace quiet;
  int checked = 0;
  for (const char *table : {"expected.tsv", "tagged.tsv"}) {
    for (const auto &fields : fixtureTable(table)) {
      const std::string path = fixture(fields.at(0));
      mfdMediaInfo info{};
      if (detection.detect(path, &info) != 0 || info.formatId == MFD_FORMAT_NONE) continue;
      const dmsMediaRecord kept = dmsClmKeepMedia(info);
      dmsMediaRecord read;
      ASSERT_TRUE(dmsIndexUnpackMedia(dmsIndexPackMedia(kept), read)) << fields[0];
      ASSERT_NE(read.strings(), nullptr) << fields[0];
      EXPECT_STREQ(read.strings()->protocolInfo, kept.strings()->protocolInfo) << fields[0];
      EXPECT_STREQ(read.strings()->mimeType, kept.strings()->mimeType) << fields[0];
      read.stringsNumber = kept.stringsNumber;  // equal texts; a copy of a row may stand elsewhere
      EXPECT_EQ(std::memcmp(&read, &kept, sizeof read), 0) << fields[0];
      dmsTagPool written, again;
      dmsTagText text;
      dmsClmReadTags(path, info, text);
      const dmsMediaTags tags = dmsClmPoolTags(written, text);
      dmsMediaTags back;
      ASSERT_TRUE(dmsIndexUnpackTags(dmsIndexPackTags(tags, written), again, back)) << fields[0];
      for (auto field : {&dmsMediaTags::title, &dmsMediaTags::artist, &dmsMediaTags::album, &dmsMediaTags::genre,
                         &dmsMediaTags::date}) {
        const char *before = written.text(tags.*field), *after = again.text(back.*field);
        EXPECT_EQ(before == nullptr ? "" : before, std::string(after == nullptr ? "" : after)) << fields[0];
      }
      EXPECT_EQ(back.track, tags.track);
      EXPECT_EQ(back.disc, tags.disc);
      EXPECT_EQ(back.flags, tags.flags);
      ++checked;
    }
  }
  EXPECT_GT(checked, 100);
}

TEST(IndexPack, BytesThisVersionDidNotWriteAreRefused) {
  dmsMediaRecord media;
  media.formatId = MFD_FORMAT_MP3;
  media.fileSize = 5000;
  media.dataOffset = 10;
  media.modificationTime = -5;  // before 1970: a signed number
  media.stringsNumber = mfd_protocolStringsNumber(mfd_protocolStringsFor(dmsClmExpandMedia(media)));
  const std::string good = dmsIndexPackMedia(media);
  dmsMediaRecord back;
  ASSERT_TRUE(dmsIndexUnpackMedia(good, back));
  EXPECT_EQ(back.modificationTime, -5);
  dmsMediaRecord badFormat = media, badOffset = media, noStrings = media;
  badFormat.formatId = MFD_FORMAT_COUNT;
  badOffset.dataOffset = 6000;  // past the file's size
  noStrings.stringsNumber = 0;
  std::string newer = good;
  newer[0] = 1;  // the fixed layout of the first version
  dmsMediaRecord untouched;
  for (const std::string &bad : {std::string(), good.substr(0, good.size() - 5), good + "x",
                                 dmsIndexPackMedia(badFormat), dmsIndexPackMedia(badOffset),
                                 dmsIndexPackMedia(noStrings), newer, std::string("\x02") + std::string(20, '\xff')}) {
    EXPECT_FALSE(dmsIndexUnpackMedia(bad, untouched));
  }
  EXPECT_EQ(untouched.fileSize, 0);
  dmsTagPool pool;
  dmsMediaTags tags;
  tags.title = pool.intern("Title");
  const std::string goodTags = dmsIndexPackTags(tags, pool);
  const std::string longText = std::string("\x02\x00\x00\x00\x7f", 5) + "Title";  // a length past the end
  dmsMediaTags none;
  for (const std::string &bad : {std::string(), goodTags.substr(0, 6), goodTags + "x", longText}) {
    EXPECT_FALSE(dmsIndexUnpackTags(bad, pool, none));
  }
  EXPECT_EQ(none.title, 0u);
}

}  // namespace

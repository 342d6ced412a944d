// Search answers over a real content list of media fixtures: criteria,
// paging over all matches, containers on request, and trees far bigger than
// a fixture folder.  Every Result is parsed with ixml.
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "cds_test_support.h"
#include "dlna_dms.h"
#include "services/dmsCdsMgrApi.h"
#include "services/dmsCdsMgrSearch.h"

namespace {

using namespace cdstest;

constexpr int32_t kMax = std::numeric_limits<int32_t>::max();
constexpr char kAudio[] = "upnp:class derivedfrom \"object.item.audioItem\"";
constexpr char kImages[] = "upnp:class derivedfrom \"object.item.imageItem\"";
constexpr char kFolders[] = "upnp:class derivedfrom \"object.container\"";

using CdsSearchTest = CdsListTest;

std::vector<std::string> classesOf(const Answer &answer) {
  std::vector<std::string> classes;
  for (IXML_Node *object : answer.objects) classes.push_back(textOf(child(object, "upnp:class")));
  return classes;
}

TEST_F(CdsSearchTest, ByClassTheNamedClassDecides) {
  Answer audio = search(0, kAudio);
  ASSERT_EQ(0, audio.status);
  EXPECT_EQ((std::vector<std::string>{"Tom & Jerry <live>", "b.song", "tone", "x-b-lpcm-2",
                                      "track1", "track2", "track3"}),
            audio.titles());
  EXPECT_EQ("7", audio.numberReturned);
  EXPECT_EQ("7", audio.totalMatches);
  for (const std::string &upnpClass : classesOf(audio)) {
    EXPECT_EQ("object.item.audioItem.musicTrack", upnpClass);
  }
  // The operator is not examined: "=" names the class just as well.
  EXPECT_EQ("7", search(0, "upnp:class = \"object.item.audioItem.musicTrack\"").totalMatches);

  Answer images = search(idOf("share"), kImages);
  ASSERT_EQ(0, images.status);
  EXPECT_EQ((std::vector<std::string>{"icon", "pic"}), images.titles());
  EXPECT_EQ("0", search(0, "upnp:class derivedfrom \"object.item.videoItem\"").totalMatches);
  EXPECT_EQ("9", search(0, "upnp:class exists true").totalMatches);
}

TEST_F(CdsSearchTest, ContainersOnlyWhenTheCriteriaNamesThem) {
  Answer folders = search(0, kFolders, "@childCount");
  ASSERT_EQ(0, folders.status);
  EXPECT_EQ((std::vector<std::string>{"share", "Empty", "Music", "Photos", "Three"}),
            folders.titles());
  EXPECT_EQ("5", folders.totalMatches);
  for (IXML_Node *object : folders.objects) {
    EXPECT_STREQ("container", ixmlNode_getNodeName(object));
    EXPECT_EQ("object.container.storageFolder", textOf(child(object, "upnp:class")));
    EXPECT_NE("<absent>", attribute(object, "childCount"));
  }
  for (IXML_Node *object : search(0, kAudio).objects) {
    EXPECT_STREQ("item", ixmlNode_getNodeName(object));
  }
}

TEST_F(CdsSearchTest, TitlePrefixIsCaseSensitive) {
  EXPECT_EQ((std::vector<std::string>{"track1", "track2", "track3"}),
            search(0, "dc:title contains \"track\"").titles());
  EXPECT_EQ((std::vector<std::string>{"track2"}), search(0, "dc:title = \"track2\"").titles());
  EXPECT_EQ("0", search(0, "dc:title contains \"Track\"").totalMatches);
  EXPECT_EQ("0", search(0, "dc:title contains \"rack\"").totalMatches);  // prefix, not substring
  EXPECT_EQ((std::vector<std::string>{"Tom & Jerry <live>"}),
            search(0, "dc:title contains 'Tom'").titles());
}

TEST_F(CdsSearchTest, PagingCountsAllMatches) {
  struct Case {
    int32_t start, count;
    std::vector<std::string> titles;
  };
  const Case cases[] = {
      {0, 0, {"track1", "track2", "track3"}},  // 0 means all
      {0, 2, {"track1", "track2"}},
      {1, 1, {"track2"}},
      {2, 2, {"track3"}},
      {0, kMax, {"track1", "track2", "track3"}},
      {3, 1, {}},                              // just past the last match
      {kMax, kMax, {}},
  };
  for (const Case &c : cases) {
    Answer answer = search(0, "dc:title contains \"track\"", "dc:title", c.start, c.count);
    ASSERT_EQ(0, answer.status) << c.start << "/" << c.count;
    EXPECT_EQ(c.titles, answer.titles()) << c.start << "/" << c.count;
    EXPECT_EQ(std::to_string(c.titles.size()), answer.numberReturned);
    EXPECT_EQ("3", answer.totalMatches);
  }
}

TEST_F(CdsSearchTest, EmptyContainerAnswersEmptyResult) {
  for (int32_t start : {0, 1, kMax}) {
    Answer answer = search(idOf("share/Empty"), "*", "*", start, 10);
    ASSERT_EQ(0, answer.status);
    EXPECT_TRUE(answer.objects.empty());
    EXPECT_EQ("0", answer.numberReturned);
    EXPECT_EQ("0", answer.totalMatches);
  }
}

TEST_F(CdsSearchTest, AndNarrowsEveryTermKeepsItsOwnOperand) {
  EXPECT_EQ("3", search(0, std::string(kAudio) + " and dc:title contains \"track\"").totalMatches);
  EXPECT_EQ("3", search(0, std::string(kAudio) + " and and dc:title contains \"track\"")
                     .totalMatches);  // a doubled "and" counts once
  EXPECT_EQ("0", search(0, std::string(kImages) + " and dc:title contains \"track\"").totalMatches);
  // Two title terms compare two different operands.
  EXPECT_EQ("0", search(0, "dc:title contains \"track\" and dc:title contains \"b.s\"")
                     .totalMatches);
  // Terms without "and" widen (an "or" is simply not understood).
  EXPECT_EQ((std::vector<std::string>{"b.song", "tone"}),
            search(0, "dc:title = \"tone\" or dc:title = \"b.song\"").titles());
}

TEST_F(CdsSearchTest, CreatorIsUnknownForEveryItem) {
  EXPECT_EQ("9", search(0, "dc:creator = \"Unknown\"", "dc:title").totalMatches);
  EXPECT_EQ("0", search(0, "dc:creator contains \"Someone\"").totalMatches);
  EXPECT_EQ("9", search(0, "dc:creator exists true").totalMatches);
}

TEST_F(CdsSearchTest, WildcardFindsEveryItem) {
  Answer answer = search(0, "*", "dc:title");
  ASSERT_EQ(0, answer.status);
  EXPECT_EQ("9", answer.totalMatches);
  EXPECT_EQ(9u, answer.objects.size());
  EXPECT_EQ("9", search(0, "", "dc:title").totalMatches);
}

TEST_F(CdsSearchTest, ItemsAsInBrowseButPcmKeepsItsName) {
  dmsContentEntry *pcm = entryAt("share/Music/x-b-lpcm-2.pcm");
  dmsContentEntry *song = entryAt("share/Music/b.song.mp3");
  ASSERT_TRUE(pcm && song);
  Answer answer = search(idOf("share/Music"), kAudio);
  ASSERT_EQ(4u, answer.objects.size());
  IXML_Node *pcmNode = answer.objects[3];
  EXPECT_EQ("http://192.168.1.5:49152/web/" + std::to_string(pcm->id) + ".pcm",
            textOf(child(pcmNode, "res")));
  EXPECT_EQ("176400", attribute(child(pcmNode, "res"), "bitrate"));
  IXML_Node *songNode = answer.objects[1];
  EXPECT_EQ(std::to_string(song->id), attribute(songNode, "id"));
  EXPECT_EQ(idText("share/Music"), attribute(songNode, "parentID"));
  IXML_Node *res = child(songNode, "res");
  EXPECT_EQ(durationText(song->mediaInfo->duration), attribute(res, "duration"));
  EXPECT_EQ("16000", attribute(res, "bitrate"));
  EXPECT_EQ(localDate(song->mediaInfo->modificationTime), textOf(child(songNode, "dc:date")));
  EXPECT_EQ("Tom & Jerry <live>", textOf(child(answer.objects[0], "dc:title")));

  Answer titles = search(idOf("share/Music"), kAudio, "dc:title");
  EXPECT_EQ((std::vector<std::string>{"upnp:class", "dc:title"}),
            childNames(titles.objects.at(0)));
}

TEST_F(CdsSearchTest, UpdateIdAndFailures) {
  handle_.notifyCount = 3;
  EXPECT_EQ("3", search(0, kAudio).updateId);
  EXPECT_EQ(DMS_ERR_NO_SUCH_OBJECT, search(999999, kAudio).status);
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, search(idOf("share/Photos/pic.jpg"), kAudio).status);
  dmsCdsSearchArgs args;
  dmsCdsRespArgs respArgs;
  dlnaUtilBuffer *buffer = nullptr;
  ASSERT_EQ(0, dlnaUtil_allocateBuffer(&buffer));
  DlnaBufferPtr owned(buffer);
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsCdsCreateRespSearch(nullptr, &args, &respArgs, buffer));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsCdsCreateRespSearch(&handle_, nullptr, &respArgs, buffer));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsCdsCreateRespSearch(&handle_, &args, nullptr, buffer));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsCdsCreateRespSearch(&handle_, &args, &respArgs, nullptr));
  dmsCdsMgrReleaseRespArgs(&respArgs);
}

TEST(CdsSearchCriteria, TermsAndMatching) {
  dmsCdsSearchArgs args;
  std::string criteria = "and dc:title contains \"Blue Moon\" and  and upnp:class exists true";
  args.searchCriteria = criteria.data();
  dmsCdsSearchState state;
  state.searchArgs = &args;
  ASSERT_EQ(0, parseSearchCapabilities(criteria.c_str(), &state));
  ASSERT_EQ(2u, state.terms.size());
  EXPECT_EQ(DMS_CDS_SEARCH_PROPERTY_TITLE, state.terms[0].term.property);
  EXPECT_EQ(DMS_CDS_SEARCH_ENTRY_TERM, state.terms[0].entryType);
  EXPECT_EQ(1u, state.terms[0].term.searchOperator.containsSet);
  EXPECT_EQ("\"Blue", state.terms[0].term.searchOperator.containsOperand);
  EXPECT_EQ(DMS_CDS_SEARCH_PROPERTY_CLASS, state.terms[1].term.property);
  EXPECT_EQ(DMS_CDS_SEARCH_ENTRY_AND, state.terms[1].entryType);
  EXPECT_EQ(1, state.terms[1].term.searchOperator.existsTrue);
  EXPECT_FALSE(state.containersWanted);

  dlnaUtilDidlItem item{};
  item.title = "Blues";
  item.upnpClass = "object.item.audioItem.musicTrack";
  EXPECT_EQ(1, dmsCdsCheckForContentMatch(&item, criteria.c_str(), &state.terms[0].term));
  item.title = "blues";
  EXPECT_EQ(0, dmsCdsCheckForContentMatch(&item, criteria.c_str(), &state.terms[0].term));
  EXPECT_EQ(1, dmsCdsCheckForContentMatch(&item, criteria.c_str(), &state.terms[1].term));
  dmsCdsSearchTerm unknown;
  unknown.property = 9;
  EXPECT_EQ(0, dmsCdsCheckForContentMatch(&item, criteria.c_str(), &unknown));
}

// A chain of 10,000 nested folders with one item at the bottom, and a folder
// of 100,000 items: the walk keeps its own stack and the page bounds the
// output, whatever the indexes.
TEST_F(CdsSearchTest, DeepAndWideTreesWithHugeIndexes) {
  dmsContentEntry *empty = entryAt("share/Empty");
  dmsContentEntry *song = entryAt("share/Music/b.song.mp3");
  ASSERT_TRUE(empty && song);
  SyntheticEntries synthetic(owner_.get(), empty, *song->mediaInfo);
  {
    auto writing = synthetic.attach();
    dmsContentEntry *deep = nullptr;
    for (int level = 0; level < 10000; ++level) {
      deep = synthetic.add(deep, DMS_CLM_TYPE_CONTAINER, "/deep/d" + std::to_string(level));
    }
    synthetic.add(deep, DMS_CLM_TYPE_ITEM, "/deep/bottom.mp3");
    dmsContentEntry *wide = synthetic.add(nullptr, DMS_CLM_TYPE_CONTAINER, "/wide");
    for (int i = 0; i < 100000; ++i) {
      synthetic.add(wide, DMS_CLM_TYPE_ITEM, "/wide/w" + std::to_string(i) + ".mp3");
    }
  }
  const int32_t top = static_cast<int32_t>(empty->id);
  Answer bottom = search(top, "dc:title contains \"bottom\"", "*", 0, 0);
  ASSERT_EQ(0, bottom.status);
  EXPECT_EQ((std::vector<std::string>{"bottom"}), bottom.titles());

  Answer folders = search(top, kFolders, "dc:title", 9999, kMax);
  ASSERT_EQ(0, folders.status);
  EXPECT_EQ("10001", folders.totalMatches);  // the chain and the wide folder
  EXPECT_EQ((std::vector<std::string>{"d9999", "wide"}), folders.titles());

  Answer past = search(top, "*", "dc:title", kMax, kMax);
  ASSERT_EQ(0, past.status);
  EXPECT_EQ("0", past.numberReturned);
  EXPECT_EQ("100001", past.totalMatches);

  Answer page = search(top, "dc:title contains \"w9999\"", "dc:title", 5, 3);
  ASSERT_EQ(0, page.status);
  EXPECT_EQ("11", page.totalMatches);  // w9999 and w99990..w99999
  EXPECT_EQ((std::vector<std::string>{"w99994", "w99995", "w99996"}), page.titles());
}

}  // namespace

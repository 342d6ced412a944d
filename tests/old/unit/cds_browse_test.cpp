// Browse answers and the fixed ContentDirectory answers, over a real content
// list of media fixtures; every Result is parsed with ixml.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "cds_test_support.h"
#include "dlna_dms.h"
#include "services/dmsCdsMgrApi.h"
#include "services/dmsCdsMgrResponseHandler.h"

namespace {

using namespace cdstest;

constexpr int32_t kMax = std::numeric_limits<int32_t>::max();
constexpr uint32_t kMetadata = DMS_CDS_BROWSE_METADATA;
constexpr uint32_t kChildren = DMS_CDS_BROWSE_DIRECT_CHILDREN;

using CdsBrowseTest = CdsListTest;

TEST(CdsFixedAnswers, EachSetsOneHeapValue) {
  using Create = int32_t (*)(dmsCdsMgrHandle *, void *, dmsCdsRespArgs *, dlnaUtilBuffer *);
  struct Row {
    Create create;
    const char *name;
    const char *value;
  };
  const Row rows[] = {
      {dmsCdsCreateRespGetSearchCaps, "SearchCaps",
       "dc:title,upnp:class,dc:creator,res@protocolInfo"},
      {dmsCdsCreateRespGetSortCaps, "SortCaps", ""},
      {dmsCdsCreateRespGetFeatureList, "FeatureList", ""},
      {dmsCdsCreateRespGetSystemUpdateId, "Id", "0"},
      {dmsCdsCreateRespGetServiceResetToken, "ResetToken", "0"},
  };
  dmsCdsMgrHandle handle;
  handle.notifyCount = 12;  // content changes do not show in GetSystemUpdateID
  dmsCdsBrowseArgs requestArgs;
  for (const Row &row : rows) {
    dmsCdsRespArgs respArgs;
    ASSERT_EQ(0, row.create(&handle, &requestArgs, &respArgs, nullptr)) << row.name;
    EXPECT_EQ(1, respArgs.count);
    EXPECT_STREQ(row.name, respArgs.names[0]);
    EXPECT_STREQ(row.value, respArgs.values[0]);
    dmsCdsMgrReleaseRespArgs(&respArgs);  // frees the value: a heap copy
    EXPECT_EQ(DMS_ERR_INVALID_PARAM, row.create(nullptr, &requestArgs, &respArgs, nullptr));
    EXPECT_EQ(DMS_ERR_INVALID_PARAM, row.create(&handle, nullptr, &respArgs, nullptr));
    EXPECT_EQ(DMS_ERR_INVALID_PARAM, row.create(&handle, &requestArgs, nullptr, nullptr));
  }
}

TEST(CdsItemClass, MappingTable) {
  struct Case {
    uint32_t mediaClass, formatId, audioCodec, videoCodec;
    const char *expected;
  };
  const Case cases[] = {
      {MFD_CLASS_IMAGE, MFD_FORMAT_JPEG, 0, 0, "object.item.imageItem.photo"},
      {MFD_CLASS_AUDIO, MFD_FORMAT_MP3, 6, 0, "object.item.audioItem.musicTrack"},
      {MFD_CLASS_VIDEO, MFD_FORMAT_MPEG2_VIDEO, 0, 14, "object.item.videoItem"},
      {MFD_CLASS_AV, MFD_FORMAT_MPEG_PS, 3, 14, "object.item.videoItem"},
      {MFD_CLASS_AV, MFD_FORMAT_MPEG_PS, 3, 0, "object.item.audioItem.musicTrack"},
      {MFD_CLASS_AV, MFD_FORMAT_MPEG_TS, 0, 0, "object.item.videoItem"},
      {MFD_CLASS_AV, MFD_FORMAT_MP4, 0, 27, "object.item.audioItem.musicTrack"},
      {MFD_CLASS_AV, MFD_FORMAT_MPEG_PS, 27, 0, "object.item.videoItem.movie"},
  };
  for (const Case &c : cases) {
    mfdMediaInfo info{};
    info.mediaClass = c.mediaClass;
    info.formatId = c.formatId;
    info.audioCodec = c.audioCodec;
    info.videoCodec = c.videoCodec;
    const char *upnpClass = nullptr;
    ASSERT_EQ(0, dmsCdsGetItemClass(&info, &upnpClass));
    EXPECT_STREQ(c.expected, upnpClass);
  }
  mfdMediaInfo none{};
  const char *upnpClass = nullptr;
  EXPECT_EQ(DMS_ERR_UNSUPPORTED_CLASS, dmsCdsGetItemClass(&none, &upnpClass));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsCdsGetItemClass(nullptr, &upnpClass));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsCdsGetItemClass(&none, nullptr));
}

TEST_F(CdsBrowseTest, MetadataOfRootFolderAndItem) {
  Answer root = browse(0, kMetadata);
  ASSERT_EQ(0, root.status);
  EXPECT_EQ("1", root.numberReturned);
  EXPECT_EQ("1", root.totalMatches);
  ASSERT_EQ(1u, root.objects.size());
  IXML_Node *container = root.objects[0];
  EXPECT_STREQ("container", ixmlNode_getNodeName(container));
  EXPECT_EQ("0", attribute(container, "id"));
  EXPECT_EQ("-1", attribute(container, "parentID"));
  EXPECT_EQ("1", attribute(container, "childCount"));
  EXPECT_EQ("1", attribute(container, "restricted"));
  EXPECT_EQ("1", attribute(container, "searchable"));
  EXPECT_EQ("root", textOf(child(container, "dc:title")));
  EXPECT_EQ("object.container.storageFolder", textOf(child(container, "upnp:class")));

  Answer folder = browse(idOf("share/Music"), kMetadata);
  ASSERT_EQ(0, folder.status);
  ASSERT_EQ(1u, folder.objects.size());
  EXPECT_EQ(idText("share/Music"), attribute(folder.objects[0], "id"));
  EXPECT_EQ(idText("share"), attribute(folder.objects[0], "parentID"));
  EXPECT_EQ("4", attribute(folder.objects[0], "childCount"));
  EXPECT_EQ("Music", textOf(child(folder.objects[0], "dc:title")));

  Answer share = browse(idOf("share"), kMetadata);
  ASSERT_EQ(0, share.status);
  EXPECT_EQ("0", attribute(share.objects.at(0), "parentID"));
  EXPECT_EQ("share", textOf(child(share.objects.at(0), "dc:title")));

  dmsContentEntry *song = entryAt("share/Music/b.song.mp3");
  ASSERT_NE(nullptr, song);
  const mfdMediaInfo &info = *song->mediaInfo;
  Answer item = browse(static_cast<int32_t>(song->id), kMetadata);
  ASSERT_EQ(0, item.status);
  ASSERT_EQ(1u, item.objects.size());
  IXML_Node *node = item.objects[0];
  EXPECT_STREQ("item", ixmlNode_getNodeName(node));
  EXPECT_EQ(std::to_string(song->id), attribute(node, "id"));
  EXPECT_EQ(idText("share/Music"), attribute(node, "parentID"));
  EXPECT_EQ("0", attribute(node, "restricted"));
  EXPECT_EQ((std::vector<std::string>{"upnp:album", "upnp:class", "dc:title", "upnp:genre",
                                      "dc:creator", "dc:date", "res"}),
            childNames(node));
  EXPECT_EQ("b.song", textOf(child(node, "dc:title")));
  EXPECT_EQ("object.item.audioItem.musicTrack", textOf(child(node, "upnp:class")));
  EXPECT_EQ("Unknown", textOf(child(node, "upnp:album")));
  EXPECT_EQ("Unknown", textOf(child(node, "upnp:genre")));
  EXPECT_EQ("Unknown", textOf(child(node, "dc:creator")));
  EXPECT_EQ(localDate(info.modificationTime), textOf(child(node, "dc:date")));
  IXML_Node *res = child(node, "res");
  EXPECT_EQ(info.protocolInfo, attribute(res, "protocolInfo"));
  EXPECT_EQ(std::to_string(info.fileSize), attribute(res, "size"));
  EXPECT_EQ("http://192.168.1.5:49152/web/" + std::to_string(song->id) + ".mp3", textOf(res));
}

TEST_F(CdsBrowseTest, MissingObjectsAndWrongKinds) {
  EXPECT_EQ(DMS_ERR_NO_SUCH_OBJECT, browse(999999, kMetadata).status);
  EXPECT_EQ(DMS_ERR_NO_SUCH_OBJECT, browse(999999, kChildren).status);
  EXPECT_EQ(DMS_ERR_NO_SUCH_OBJECT, browse(-1, kChildren).status);
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, browse(idOf("share/Photos/pic.jpg"), kChildren).status);
  EXPECT_EQ(DMS_ERR_INVALID_BROWSE_FLAG, browse(0, 0).status);
  EXPECT_EQ(DMS_ERR_INVALID_BROWSE_FLAG, browse(0, 4).status);
  dmsCdsBrowseArgs args;
  dmsCdsRespArgs respArgs;
  dlnaUtilBuffer *buffer = nullptr;
  ASSERT_EQ(0, dlnaUtil_allocateBuffer(&buffer));
  DlnaBufferPtr owned(buffer);
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsCdsCreateRespBrowse(&handle_, &args, &respArgs, nullptr));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsCdsCreateRespBrowse(nullptr, &args, &respArgs, buffer));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsCdsCreateRespBrowse(&handle_, nullptr, &respArgs, buffer));
  EXPECT_EQ(DMS_ERR_INVALID_PARAM, dmsCdsCreateRespBrowse(&handle_, &args, nullptr, buffer));
  dmsCdsMgrReleaseRespArgs(&respArgs);
}

TEST_F(CdsBrowseTest, DirectChildrenPaging) {
  const int32_t three = idOf("share/Three");
  const std::vector<std::string> all = {"track1", "track2", "track3"};
  struct Case {
    int32_t start, count;
    std::vector<std::string> titles;
  };
  const Case cases[] = {
      {0, 10, all},                     // restricted to the child count
      {0, 0, all},                      // 0 and 0: everything
      {0, kMax, all},
      {2, 5, {"track3"}},
      {1, 1, {"track2"}},
      {1, 0, {}},                       // a count of 0 from a later index: nothing
      {0, 2, {"track1", "track2"}},
  };
  for (const Case &c : cases) {
    Answer answer = browse(three, kChildren, "dc:title", c.start, c.count);
    ASSERT_EQ(0, answer.status) << c.start << "/" << c.count;
    EXPECT_EQ(c.titles, answer.titles()) << c.start << "/" << c.count;
    EXPECT_EQ(std::to_string(c.titles.size()), answer.numberReturned);
    EXPECT_EQ("3", answer.totalMatches);
  }
  for (int32_t start : {3, 4, kMax}) {
    EXPECT_EQ(DMS_ERR_INVALID_PARAM, browse(three, kChildren, "*", start, 1).status) << start;
  }
}

TEST_F(CdsBrowseTest, EmptyFolderAnswersEmptyResult) {
  for (int32_t start : {0, 7, kMax}) {
    Answer answer = browse(idOf("share/Empty"), kChildren, "*", start, kMax);
    ASSERT_EQ(0, answer.status);
    EXPECT_TRUE(answer.objects.empty());
    EXPECT_EQ("0", answer.numberReturned);
    EXPECT_EQ("0", answer.totalMatches);
  }
}

TEST_F(CdsBrowseTest, ChildrenInStoredOrderWithTheirKinds) {
  Answer share = browse(idOf("share"), kChildren);
  ASSERT_EQ(0, share.status);
  EXPECT_EQ((std::vector<std::string>{"Empty", "Music", "Photos", "Three"}), share.titles());
  EXPECT_EQ((std::vector<std::string>{"0", "4", "2", "3"}),
            [&] {
              std::vector<std::string> counts;
              for (IXML_Node *object : share.objects)
                counts.push_back(attribute(object, "childCount"));
              return counts;
            }());
  Answer music = browse(idOf("share/Music"), kChildren);
  ASSERT_EQ(0, music.status);
  EXPECT_EQ((std::vector<std::string>{"Tom & Jerry <live>", "b.song", "tone", "x-b-lpcm-2"}),
            music.titles());
  for (IXML_Node *object : music.objects) EXPECT_STREQ("item", ixmlNode_getNodeName(object));
}

TEST_F(CdsBrowseTest, FilterChoosesProperties) {
  const int32_t song = idOf("share/Music/b.song.mp3");
  const int32_t music = idOf("share/Music");

  Answer everything = browse(song, kMetadata, "*");
  IXML_Node *res = child(everything.objects.at(0), "res");
  for (const char *name : {"protocolInfo", "size", "duration", "bitrate"}) {
    EXPECT_NE("<absent>", attribute(res, name)) << name;
  }

  Answer titleOnly = browse(song, kMetadata, "dc:title");
  EXPECT_EQ((std::vector<std::string>{"upnp:class", "dc:title"}),
            childNames(titleOnly.objects.at(0)));
  Answer folderTitleOnly = browse(music, kMetadata, "dc:title");
  EXPECT_EQ("<absent>", attribute(folderTitleOnly.objects.at(0), "childCount"));
  EXPECT_EQ("<absent>", attribute(folderTitleOnly.objects.at(0), "searchable"));

  Answer withDuration = browse(song, kMetadata, "dc:title,res@duration");
  EXPECT_EQ((std::vector<std::string>{"upnp:class", "dc:title", "res"}),
            childNames(withDuration.objects.at(0)));
  res = child(withDuration.objects.at(0), "res");
  EXPECT_NE("<absent>", attribute(res, "protocolInfo"));
  EXPECT_NE("<absent>", attribute(res, "duration"));
  EXPECT_EQ("<absent>", attribute(res, "size"));
  EXPECT_EQ("<absent>", attribute(res, "bitrate"));

  Answer counted = browse(music, kMetadata, "dc:title,@childCount");
  EXPECT_EQ("4", attribute(counted.objects.at(0), "childCount"));
  EXPECT_EQ("<absent>", attribute(counted.objects.at(0), "searchable"));
  Answer searchState = browse(music, kMetadata, "@searchable,@searchState");
  EXPECT_EQ("<absent>", attribute(searchState.objects.at(0), "childCount"));
  EXPECT_EQ("1", attribute(searchState.objects.at(0), "searchable"));
}

TEST_F(CdsBrowseTest, SpecialCharactersInTitlesRoundTrip) {
  Answer answer = browse(idOf("share/Music/Tom & Jerry <live>.mp3"), kMetadata);
  ASSERT_EQ(0, answer.status);
  EXPECT_EQ("Tom & Jerry <live>", textOf(child(answer.objects.at(0), "dc:title")));
  EXPECT_NE(std::string::npos, answer.result.find("Tom &amp; Jerry &lt;live&gt;"));
}

TEST_F(CdsBrowseTest, DurationAndBitrateInPlayerUnits) {
  struct Case {
    const char *path;
    const char *extension;
    const char *bitrate;
  };
  const Case cases[] = {
      {"share/Music/b.song.mp3", ".mp3", "16000"},        // 128 kbit/s
      {"share/Music/tone.wav", ".wav", "176400"},         // 44100 Hz, 2 channels, 16 bit
      {"share/Music/x-b-lpcm-2.pcm", ".wav", "176400"},   // served under a .wav name
  };
  for (const Case &c : cases) {
    dmsContentEntry *entry = entryAt(c.path);
    ASSERT_NE(nullptr, entry);
    ASSERT_GT(entry->mediaInfo->duration, 0u) << c.path;
    Answer answer = browse(static_cast<int32_t>(entry->id), kMetadata);
    ASSERT_EQ(0, answer.status);
    IXML_Node *res = child(answer.objects.at(0), "res");
    EXPECT_EQ(durationText(entry->mediaInfo->duration), attribute(res, "duration")) << c.path;
    EXPECT_EQ(c.bitrate, attribute(res, "bitrate")) << c.path;
    EXPECT_EQ("http://192.168.1.5:49152/web/" + std::to_string(entry->id) + c.extension,
              textOf(res));
  }
  // The MP3 fixture plays for a little over a second, not for hours.
  const std::string mp3 =
      attribute(child(browse(idOf("share/Music/b.song.mp3"), kMetadata).objects.at(0), "res"),
                "duration");
  EXPECT_EQ(0u, mp3.find("0:00:0")) << mp3;
}

TEST_F(CdsBrowseTest, ImagesHaveResolutionButNoPlayingTime) {
  Answer photos = browse(idOf("share/Photos"), kChildren);
  ASSERT_EQ(0, photos.status);
  ASSERT_EQ(2u, photos.objects.size());
  const char *resolutions[] = {"48x48", "640x480"};  // icon.png, pic.jpg
  for (size_t i = 0; i < 2; ++i) {
    IXML_Node *node = photos.objects[i];
    EXPECT_EQ("object.item.imageItem.photo", textOf(child(node, "upnp:class")));
    EXPECT_EQ(nullptr, child(node, "upnp:album"));
    IXML_Node *res = child(node, "res");
    EXPECT_EQ(resolutions[i], attribute(res, "resolution"));
    EXPECT_EQ("<absent>", attribute(res, "duration"));
    EXPECT_EQ("<absent>", attribute(res, "bitrate"));
  }
}

// Records no fixture gives: rates derived from size and playing time, video
// picture sizes, oversized images.
TEST_F(CdsBrowseTest, DerivedRatesAndPictureSizes) {
  dmsContentEntry *empty = entryAt("share/Empty");
  ASSERT_NE(nullptr, empty);
  mfdMediaInfo base{};
  base.protocolInfo = "http-get:*:application/octet-stream:*";
  base.modificationTime = 1000000000;
  SyntheticEntries synthetic(owner_.get(), empty, base);
  struct Case {
    const char *path;
    uint32_t mediaClass, formatId, videoCodec;
    int32_t word2, word3;  // bitrate or width, sample rate or height
    int32_t videoWidth, videoHeight;
    int64_t fileSize;
    uint32_t duration;
    const char *bitrate, *durationText, *resolution;
  };
  const Case cases[] = {
      // AAC's word is not a rate: size over playing time, 64000 bytes in 4 s.
      {"/s/a.aac", MFD_CLASS_AUDIO, MFD_FORMAT_AAC, 0, 44100 * 2 * 6, 44100, 0, 0, 64000, 4000,
       "16000", "0:00:04.000", "<absent>"},
      {"/s/b.aac", MFD_CLASS_AUDIO, MFD_FORMAT_AAC, 0, 1, 44100, 0, 0, 64000, 0,
       "<absent>", "<absent>", "<absent>"},
      {"/s/c.mp3", MFD_CLASS_AUDIO, MFD_FORMAT_MP3, 0, 0, 44100, 0, 0, 32000, 2000,
       "16000", "0:00:02.000", "<absent>"},
      {"/s/d.ac3", MFD_CLASS_AUDIO, MFD_FORMAT_AC3, 0, 448, 48000, 0, 0, 56000, 1000,
       "56000", "0:00:01.000", "<absent>"},
      {"/s/e.mpg", MFD_CLASS_VIDEO, MFD_FORMAT_MPEG2_VIDEO, 14, 5000, 0, 720, 576, 1000000,
       8000, "125000", "0:00:08.000", "720x576"},
      {"/s/f.mpg", MFD_CLASS_AV, MFD_FORMAT_MPEG_PS, 14, 10080, 0, 352, 288, 3600000, 3723004,
       "966", "1:02:03.004", "352x288"},
      {"/s/g.jpg", MFD_CLASS_IMAGE, MFD_FORMAT_JPEG, 0, 9000, 100, 0, 0, 5000, 0,
       "<absent>", "<absent>", "<absent>"},
      {"/s/h.jpg", MFD_CLASS_IMAGE, MFD_FORMAT_JPEG, 0, 8095, 1, 0, 0, 5000, 0,
       "<absent>", "<absent>", "8095x1"},
  };
  {
    auto writing = synthetic.attach();
    for (const Case &c : cases) {
      mfdMediaInfo &info = *synthetic.add(nullptr, DMS_CLM_TYPE_ITEM, c.path)->mediaInfo;
      info.mediaClass = c.mediaClass;
      info.formatId = c.formatId;
      info.videoCodec = c.videoCodec;
      info.bitrate = c.word2;
      info.sampleRate = c.word3;
      info.videoWidth = c.videoWidth;
      info.videoHeight = c.videoHeight;
      info.fileSize = c.fileSize;
      info.duration = c.duration;
    }
  }
  Answer answer = browse(static_cast<int32_t>(empty->id), kChildren);
  ASSERT_EQ(0, answer.status);
  ASSERT_EQ(std::size(cases), answer.objects.size());
  for (size_t i = 0; i < std::size(cases); ++i) {
    IXML_Node *res = child(answer.objects[i], "res");
    EXPECT_EQ(cases[i].bitrate, attribute(res, "bitrate")) << cases[i].path;
    EXPECT_EQ(cases[i].durationText, attribute(res, "duration")) << cases[i].path;
    EXPECT_EQ(cases[i].resolution, attribute(res, "resolution")) << cases[i].path;
    EXPECT_EQ(localDate(1000000000), textOf(child(answer.objects[i], "dc:date")));
  }
}

TEST_F(CdsBrowseTest, UpdateIdIsTheNotifyCount) {
  EXPECT_EQ("0", browse(0, kMetadata).updateId);
  handle_.notifyCount = 7;
  EXPECT_EQ("7", browse(0, kChildren).updateId);
}

TEST_F(CdsBrowseTest, RecursiveBrowseListsEveryItemBelow) {
  Answer answer = browse(idOf("share"), DMS_CDS_BROWSE_RECURSIVE, "dc:title", 0, 0);
  ASSERT_EQ(0, answer.status);
  EXPECT_EQ("9", answer.totalMatches);
  EXPECT_EQ("9", answer.numberReturned);
  for (IXML_Node *object : answer.objects) EXPECT_STREQ("item", ixmlNode_getNodeName(object));
}

TEST_F(CdsBrowseTest, WideFolderWithHugeIndexes) {
  dmsContentEntry *empty = entryAt("share/Empty");
  dmsContentEntry *song = entryAt("share/Music/b.song.mp3");
  ASSERT_TRUE(empty && song);
  SyntheticEntries synthetic(owner_.get(), empty, *song->mediaInfo);
  {
    auto writing = synthetic.attach();
    for (int i = 0; i < 100000; ++i) {
      synthetic.add(nullptr, DMS_CLM_TYPE_ITEM, "/wide/song" + std::to_string(i) + ".mp3");
    }
  }
  Answer tail = browse(static_cast<int32_t>(empty->id), kChildren, "dc:title", 99998, kMax);
  ASSERT_EQ(0, tail.status);
  EXPECT_EQ((std::vector<std::string>{"song99998", "song99999"}), tail.titles());
  EXPECT_EQ("2", tail.numberReturned);
  EXPECT_EQ("100000", tail.totalMatches);
  EXPECT_EQ(DMS_ERR_INVALID_PARAM,
            browse(static_cast<int32_t>(empty->id), kChildren, "*", kMax, kMax).status);
}

// Browse and Search run while shared folders come and go; the answers read
// the list under its shared lock, so none sees a half-changed tree (the
// address sanitizer would report an entry used after it was freed).
TEST_F(CdsBrowseTest, AnswersStayWholeWhileTheListChanges) {
  TempTree extra;
  extra.media("more/a.mp3", kMp3);
  extra.media("more/sub/b.jpg", kJpeg);
  extra.media("more/sub/c.wav", kWav);
  const std::string morePath = extra.path("more");
  std::atomic<bool> stop{false};
  std::thread changer([&] {
    while (!stop.load()) {
      dmsClmAddToContentList(owner_.get(), morePath.c_str());
      dmsClmRemoveFromContentList(owner_.get(), morePath.c_str());
    }
  });
  for (int round = 0; round < 150; ++round) {
    Answer children = browse(0, kChildren, "*", 0, 0);
    ASSERT_EQ(0, children.status);
    EXPECT_GE(children.objects.size(), 1u);
    Answer all = search(0, "*", "*", 0, 0);
    ASSERT_EQ(0, all.status);
    EXPECT_EQ(all.numberReturned, all.totalMatches);
    const int total = std::atoi(all.totalMatches.c_str());
    EXPECT_TRUE(total == 9 || total == 12) << total;
  }
  stop = true;
  changer.join();
}

}  // namespace

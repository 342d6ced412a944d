#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "mfd/mfd_api.h"
#include "mfd/mfd_reader.h"
#include "mfd_fake_detectors.h"
#include "mfd_temp_file.h"

namespace {

using mfdtest::Behaviour;
using mfdtest::gs_behaviour;
using mfdtest::gs_calls;
using mfdtest::MfdFramework;
using mfdtest::patternBytes;
using mfdtest::recognise;
using mfdtest::TempFile;

using mfdtest::kServerTryOrder;

std::vector<uint32_t> byPriority(std::vector<uint32_t> formatIds, bool descending) {
  auto priority = [](uint32_t id) { return ga_s_mfdMediaProfileTags[getFormatIndex(id)].priority; };
  std::stable_sort(formatIds.begin(), formatIds.end(), [&](uint32_t a, uint32_t b) {
    return descending ? priority(a) > priority(b) : priority(a) < priority(b);
  });
  return formatIds;
}

std::vector<uint32_t> allRegistryIds() {
  std::vector<uint32_t> ids;
  for (const mfdMediaProfileTag &row : ga_s_mfdMediaProfileTags) {
    if (row.formatId != MFD_FORMAT_END) ids.push_back(row.formatId);
  }
  return ids;
}

// ---- Registry and try order ---------------------------------------------------

TEST_F(MfdFramework, TheServerSequenceGivesItsTryOrder) {
  registerAll(std::vector<uint32_t>(std::begin(ga_u32_mfdServerFormatIds),
                                    std::end(ga_u32_mfdServerFormatIds)));
  EXPECT_EQ(kServerTryOrder, triedOrder(anyFile.name()));
}

TEST_F(MfdFramework, RegisteringByPriorityGivesASortedList) {
  std::vector<uint32_t> sorted = byPriority(allRegistryIds(), false);
  registerAll(sorted);
  EXPECT_EQ(sorted, triedOrder(anyFile.name()));
}

TEST_F(MfdFramework, RegisteringByFallingPriorityGivesASortedListToo) {
  registerAll(byPriority(allRegistryIds(), true));
  EXPECT_EQ(byPriority(allRegistryIds(), false), triedOrder(anyFile.name()));
}

TEST_F(MfdFramework, AFormatAfterTheLastRegisteredTailIsAppendedUncompared) {
  registerAll({MFD_FORMAT_JPEG, MFD_FORMAT_MP3, MFD_FORMAT_AC3});  // priorities 2, 13, 9
  EXPECT_EQ((std::vector<uint32_t>{18, 6, 3}), triedOrder(anyFile.name()));
}

TEST_F(MfdFramework, UnregisteringInAnyOrderKeepsTheRestInOrder) {
  for (uint32_t seed = 1; seed <= 12; ++seed) {
    std::vector<uint32_t> ids(std::begin(ga_u32_mfdServerFormatIds),
                              std::end(ga_u32_mfdServerFormatIds));
    registerAll(ids);
    std::shuffle(ids.begin(), ids.end(), std::mt19937(seed));
    std::vector<uint32_t> expected = kServerTryOrder;
    for (uint32_t formatId : ids) {
      ASSERT_EQ(0, mfd_unregisterFormat(handle, formatId)) << formatId;
      expected.erase(std::find(expected.begin(), expected.end(), formatId));
      ASSERT_EQ(expected, triedOrder(anyFile.name())) << "seed " << seed << " id " << formatId;
    }
    for (uint32_t formatId : ids) EXPECT_EQ(11, mfd_unregisterFormat(handle, formatId));
  }
}

TEST_F(MfdFramework, RegisteringAfterTheLastRegisteredWentAwayStillSorts) {
  registerAll(std::vector<uint32_t>(std::begin(ga_u32_mfdServerFormatIds),
                                    std::end(ga_u32_mfdServerFormatIds)));
  ASSERT_EQ(0, mfd_unregisterFormat(handle, MFD_FORMAT_MP4));
  ASSERT_EQ(0, mfd_registerFormat(handle, MFD_FORMAT_AAC2));  // priority 11
  EXPECT_EQ((std::vector<uint32_t>{25, 18, 12, 1, 20, 21, 22, 3, 9, 24, 6, 11, 10, 8, 15, 17}),
            triedOrder(anyFile.name()));
}

TEST_F(MfdFramework, AFormatRegisteredTwiceIsTriedOnceAndLeavesOnTheSecondUnregister) {
  registerAll({MFD_FORMAT_JPEG, MFD_FORMAT_PNG, MFD_FORMAT_JPEG});
  EXPECT_EQ((std::vector<uint32_t>{18, 20}), triedOrder(anyFile.name()));
  ASSERT_EQ(0, mfd_unregisterFormat(handle, MFD_FORMAT_JPEG));
  EXPECT_EQ((std::vector<uint32_t>{18, 20}), triedOrder(anyFile.name()));
  ASSERT_EQ(0, mfd_unregisterFormat(handle, MFD_FORMAT_JPEG));
  EXPECT_EQ((std::vector<uint32_t>{20}), triedOrder(anyFile.name()));
  EXPECT_EQ(11, mfd_unregisterFormat(handle, MFD_FORMAT_JPEG));
}

TEST_F(MfdFramework, RegistryCallsCheckTheirArguments) {
  mfdInstance *none = nullptr;
  EXPECT_EQ(1, mfd_openInstance(nullptr));
  EXPECT_EQ(1, mfd_closeInstance(nullptr));
  EXPECT_EQ(1, mfd_registerFormat(none, MFD_FORMAT_MP3));
  EXPECT_EQ(8, mfd_registerFormat(handle, MFD_FORMAT_END));
  EXPECT_EQ(8, mfd_registerFormat(handle, 16));  // an id without a registry row
  EXPECT_EQ(6, mfd_unregisterFormat(none, MFD_FORMAT_MP3));
  EXPECT_EQ(8, mfd_unregisterFormat(handle, 99));
  EXPECT_EQ(11, mfd_unregisterFormat(handle, MFD_FORMAT_MP3));
  EXPECT_TRUE(triedOrder(anyFile.name()).empty());
}

TEST(MfdRegistry, RowsAreFoundByIdAndUnknownIdsGetTheFixedRow) {
  EXPECT_EQ(0, getFormatIndex(MFD_FORMAT_ATRAC3));
  EXPECT_EQ(2, getFormatIndex(MFD_FORMAT_JPEG));
  EXPECT_EQ(13, getFormatIndex(MFD_FORMAT_WAV));
  EXPECT_EQ(19, getFormatIndex(MFD_FORMAT_MPEG_TS));
  EXPECT_EQ(8, getFormatIndex(16));
  EXPECT_EQ(8, getFormatIndex(1000));
  EXPECT_STREQ("MPEG2/4_AAC", gp_a_ch_mfdMediaStringTags[MFD_FORMAT_AAC2]);
  EXPECT_STREQ("0", gp_a_ch_mfdMediaStringTags[25]);
}

TEST(MfdRegistry, EveryFormatIdHasItsTag) {
  const std::pair<uint32_t, const char *> tags[] = {
      {0, "INVALID"},      {1, "ATRAC3"},       {2, "ATRAC3_PLUS"},  {3, "AC3"},
      {4, "MP1"},          {5, "MP2"},          {6, "MP3"},          {7, "MP4_AUDIO"},
      {8, "MPEG2/4_AAC"},  {9, "MPEG2/4_AAC"},  {10, "WMA"},         {11, "LPCM"},
      {12, "WAV"},         {13, "MPEG1_PART2"}, {14, "MPEG2_PART2"}, {15, "MPEG4_PART2"},
      {16, "INVALID"},     {17, "WMV"},         {18, "JPEG"},        {19, "JPEG"},
      {20, "PNG"},         {21, "GIF"},         {22, "TIFF"},        {23, "ASF"},
      {24, "MPEG_PS"},     {25, "MPEG_TS"},     {26, "MP4"},         {27, "INVALID"},
  };
  for (const auto &[formatId, tag] : tags) EXPECT_STREQ(tag, mfd_formatTag(formatId)) << formatId;
}

TEST(MfdRegistry, OnlyPcmWavAndBmpNamesAreExcluded) {
  EXPECT_TRUE(mfd_hasExcludedExtension("/music/a.WAV"));
  EXPECT_TRUE(mfd_hasExcludedExtension("x.tar.Pcm"));
  EXPECT_TRUE(mfd_hasExcludedExtension("picture.bmp"));
  EXPECT_FALSE(mfd_hasExcludedExtension("/dir.wav/file"));
  EXPECT_FALSE(mfd_hasExcludedExtension("a.wave"));
  EXPECT_FALSE(mfd_hasExcludedExtension("wav"));
  EXPECT_FALSE(mfd_hasExcludedExtension(nullptr));
}

TEST_F(MfdFramework, ASecondInstanceSharesTheRegistryUntilTheLastCloses) {
  mfdInstance *second = nullptr;
  ASSERT_EQ(0, mfd_openInstance(&second));
  ASSERT_EQ(0, mfd_registerFormat(second, MFD_FORMAT_GIF));
  ASSERT_EQ(0, mfd_registerFormat(handle, MFD_FORMAT_PNG));
  EXPECT_EQ((std::vector<uint32_t>{20, 21}), triedOrder(anyFile.name()));
  EXPECT_EQ((std::vector<uint32_t>{20, 21}), triedOrder(anyFile.name(), second));
  ASSERT_EQ(0, mfd_closeInstance(handle));
  handle = nullptr;
  EXPECT_EQ((std::vector<uint32_t>{20, 21}), triedOrder(anyFile.name(), second));
  ASSERT_EQ(0, mfd_closeInstance(second));
  ASSERT_EQ(0, mfd_openInstance(&handle));
  EXPECT_TRUE(triedOrder(anyFile.name()).empty());
}

// ---- The driver ---------------------------------------------------------------

TEST_F(MfdFramework, AnUnrecognisedFileGives8WithItsSizeAndTime) {
  registerAll({MFD_FORMAT_JPEG, MFD_FORMAT_PNG});
  gs_behaviour[MFD_FORMAT_JPEG] = [](mfdMediaInfo *info, int) {
    info->bitrate = 77;  // scribbles, but does not recognise
    return 0;
  };
  struct stat status {};
  ASSERT_EQ(0, ::stat(anyFile.name(), &status));
  mfdMediaInfo info{};
  EXPECT_EQ(8, mfd_detectMediaFormat(handle, anyFile.name(), &info));
  EXPECT_EQ(0u, info.formatId);
  EXPECT_EQ(0u, info.mediaClass);
  EXPECT_EQ(0, info.bitrate);
  EXPECT_EQ(3000, info.fileSize);
  EXPECT_EQ(0, info.dataOffset);
  EXPECT_EQ(status.st_mtime, info.modificationTime);
  EXPECT_STREQ("", info.mimeType);
  EXPECT_STREQ("", info.profileName);
  EXPECT_STREQ("", info.protocolInfo);
}

TEST_F(MfdFramework, AMissingFileOrArgumentFails) {
  registerAll({MFD_FORMAT_JPEG});
  mfdMediaInfo info{};
  info.fileSize = 99;
  EXPECT_EQ(2, mfd_detectMediaFormat(handle, "/nonexistent-dir/file.jpg", &info));
  EXPECT_EQ(0, info.fileSize);
  EXPECT_EQ(0u, info.formatId);
  EXPECT_EQ(1, mfd_detectMediaFormat(nullptr, anyFile.name(), &info));
  EXPECT_EQ(1, mfd_detectMediaFormat(handle, nullptr, &info));
  EXPECT_EQ(1, mfd_detectMediaFormat(handle, anyFile.name(), nullptr));
  EXPECT_TRUE(gs_calls.empty());
}

bool isZero(const mfdMediaInfo &info) {
  return info.mediaClass == 0 && info.formatId == 0 && info.bitrate == 0 &&
         info.sampleRate == 0 && info.channels == 0 && info.formatWord == 0 &&
         info.formatWord2 == 0 && info.bitsPerSample == 0 && info.sampleFormat == 0 &&
         info.audioCodec == 0 && info.videoCodec == 0 && info.profileCode == 0 &&
         info.mimeType == nullptr && info.profileName == nullptr && info.protocolInfo == nullptr &&
         info.fileSize == 0 && info.dataOffset == 0 && info.modificationTime == 0 &&
         info.duration == 0;
}

TEST_F(MfdFramework, EachDetectorStartsAtTheFileStartWithAZeroRecord) {
  std::vector<uint8_t> bytes = patternBytes(3000);
  registerAll({MFD_FORMAT_JPEG, MFD_FORMAT_PNG});
  int checks = 0;
  gs_behaviour[MFD_FORMAT_JPEG] = [](mfdMediaInfo *info, int) {
    uint32_t skipped = 0;
    mfd_getDataBits(&skipped, 32);
    std::memset(static_cast<void *>(info), 0x5A, sizeof *info);
    info->mediaClass = 0;
    return 0;
  };
  gs_behaviour[MFD_FORMAT_PNG] = [&](mfdMediaInfo *info, int) {
    uint32_t first = 0;
    mfd_getDataBits(&first, 16);
    if (isZero(*info)) ++checks;
    if (first == (uint32_t{bytes[0]} << 8 | bytes[1])) ++checks;
    return 0;
  };
  mfdMediaInfo info{};
  EXPECT_EQ(8, mfd_detectMediaFormat(handle, anyFile.name(), &info));
  EXPECT_EQ(2, checks);
}

TEST_F(MfdFramework, TheDetectorsShareOneReadOfTheFirstBlock) {
  registerAll(std::vector<uint32_t>(std::begin(ga_u32_mfdServerFormatIds),
                                    std::end(ga_u32_mfdServerFormatIds)));
  for (const mfdMediaProfileTag &row : ga_s_mfdMediaProfileTags) {
    gs_behaviour[row.formatId % MFD_FORMAT_END] = [](mfdMediaInfo *, int) {
      uint32_t value = 0;
      return mfd_getDataBits(&value, 32) == 0 ? 0 : 1;
    };
  }
  mfd_resetBytesRead();
  mfdMediaInfo info{};
  EXPECT_EQ(8, mfd_detectMediaFormat(handle, anyFile.name(), &info));
  EXPECT_EQ(16u, gs_calls.size());
  EXPECT_EQ(3000u, mfd_bytesRead());
}

TEST_F(MfdFramework, ADetectorErrorWhileRecognisingEndsTheSearch) {
  registerAll({MFD_FORMAT_JPEG, MFD_FORMAT_PNG});
  gs_behaviour[MFD_FORMAT_JPEG] = [](mfdMediaInfo *, int) { return 4; };
  mfdMediaInfo info{};
  EXPECT_EQ(1, mfd_detectMediaFormat(handle, anyFile.name(), &info));
  ASSERT_EQ(1u, gs_calls.size());
  EXPECT_EQ(18u, gs_calls[0].formatId);
  EXPECT_EQ(3000, info.fileSize);
  EXPECT_EQ(0u, info.formatId);
}

TEST_F(MfdFramework, ADetectorErrorWhileParsingStillCompletesTheRecord) {
  registerAll({MFD_FORMAT_JPEG});
  Behaviour jpeg = recognise(MFD_CLASS_IMAGE, MFD_FORMAT_JPEG, [](mfdMediaInfo *info) {
    info->width = 640;
    info->height = 480;
  });
  gs_behaviour[MFD_FORMAT_JPEG] = [jpeg](mfdMediaInfo *info, int mode) {
    jpeg(info, mode);
    return mode == MFD_MODE_PARSE ? 9 : 0;
  };
  mfdMediaInfo info{};
  EXPECT_EQ(1, mfd_detectMediaFormat(handle, anyFile.name(), &info));
  EXPECT_EQ(18u, info.formatId);
  EXPECT_STREQ("image/jpeg", info.mimeType);
  EXPECT_STREQ("http-get:*:image/jpeg:DLNA.ORG_PN=JPEG_SM;DLNA.ORG_OP=01;DLNA.ORG_CI=0",
               info.protocolInfo);
  EXPECT_EQ(3000, info.fileSize);
}

}  // namespace

// Video and container detection on damaged and hostile files: every
// truncation of one file per detector, ISO boxes with sizes of every wrong
// kind (0, 1 with a 64-bit size, below 8, beyond the file), a movie box past
// 4 GiB, and random bytes behind each container's signature.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <string>

#include "mfd/mfd_api.h"
#include "mfd_audio_test_support.h"
#include "mfd_video_test_support.h"

namespace {

using mfdtest::Bytes;
using mfdtest::Detection;
using mfdtest::readFile;
using mfdtest::runDetector;
using mfdtest::ScratchDir;
using namespace mfdvideotest;

bool allowedResult(int32_t result) {
  return result == 0 || result == MFD_ERR_INVALID_PARAM || result == MFD_ERR_UNSUPPORTED;
}

// Every prefix of the file up to `longest` bytes (and a few beyond, at a
// wider step) goes through the whole detection cleanly.  The file is cut
// shorter and shorter: growing it again each time would make the file
// system free and allocate blocks thousands of times.
void checkTruncations(const Detection &detection, const ScratchDir &scratch, const char *file,
                      const char *name, size_t longest) {
  SCOPED_TRACE(file);
  const Bytes whole = readFile(videoFixture(file));
  ASSERT_FALSE(whole.empty());
  const std::string path = scratch.write(name, whole);
  const int fd = ::open(path.c_str(), O_WRONLY);
  ASSERT_GT(fd, 0);
  for (size_t length = whole.size();; length -= length > longest ? std::min<size_t>(997, length - longest) : 1) {
    ASSERT_EQ(0, ::ftruncate(fd, static_cast<off_t>(length)));
    mfdMediaInfo info{};
    const int32_t result = detection.detect(path, info);
    ASSERT_TRUE(allowedResult(result)) << "length " << length << " result " << result;
    if (length == 0) break;
  }
  ::close(fd);
}

TEST(MfdVideoTruncationTest, EveryPrefixIsDetectedCleanly) {
  Detection detection;
  ScratchDir scratch;
  checkTruncations(detection, scratch, "ps-mpeg2-pal-720x576-mp2.mpg", "cut.mpg", 2100);
  checkTruncations(detection, scratch, "es-mpeg2-352x288.m2v", "cut.m2v", 600);
  checkTruncations(detection, scratch, "ts-h264-aac-320x240.ts", "cut.ts", 1300);
  checkTruncations(detection, scratch, "ts-h264-ac3-320x240.m2ts", "cut.m2ts", 1300);
  checkTruncations(detection, scratch, "m4a-aac-moov-first.m4a", "cut.m4a", 1000);
  checkTruncations(detection, scratch, "mp4-h264bl-aac-320x240.mp4", "cut.mp4", 300);
  checkTruncations(detection, scratch, "es-mpeg4-320x240.m4v", "cut.m4v", 300);
  checkTruncations(detection, scratch, "asf-wmv2-wmav2-320x240.wmv", "cut.wmv", 1500);
}

// Cut inside the movie box, with the box sizes left as they were: the walk
// stops at the end of the data (a movie box must be whole to count).
TEST(MfdVideoTruncationTest, MovieBoxCutAtTheEndIsNotTaken) {
  Detection detection;
  ScratchDir scratch;
  const Bytes whole = readFile(videoFixture("m4a-aac-moov-last.m4a"));
  for (size_t cut : {size_t{1}, size_t{8}, size_t{100}, size_t{500}}) {
    const Bytes part(whole.begin(), whole.end() - static_cast<std::ptrdiff_t>(cut));
    mfdMediaInfo info{};
    const int32_t result = detection.detect(scratch.write("cut.m4a", part), info);
    EXPECT_TRUE(allowedResult(result));
    EXPECT_NE(static_cast<uint32_t>(MFD_FORMAT_MP4), info.formatId) << cut;
  }
}

// ---------------------------------------------------------------- ISO boxes

Bytes ftyp(const std::string &brand = "isom") {
  Bytes payload;
  appendText(payload, brand);
  appendBe32(payload, 0x200);
  appendText(payload, "isommp41");
  return box("ftyp", payload);
}

Bytes mvhd(uint32_t timescale, uint32_t duration) {
  Bytes payload(8, 0);
  appendBe32(payload, timescale);
  appendBe32(payload, duration);
  payload.resize(96, 0);
  return fullBox("mvhd", 0, payload);
}

mfdMediaInfo detectBytes(const Bytes &bytes, int32_t &result, const char *name = "box.mp4") {
  ScratchDir scratch;
  Detection detection;
  mfdMediaInfo info{};
  result = detection.detect(scratch.write(name, bytes), info);
  return info;
}

TEST(MfdVideoBoxTest, AMovieBoxAfterOrdinaryBoxesIsFound) {
  int32_t result = -1;
  const mfdMediaInfo info =
      detectBytes(concat({ftyp(), box("free", Bytes(20)), box("moov", mvhd(1000, 2500))}), result);
  EXPECT_EQ(0, result);
  EXPECT_EQ(static_cast<uint32_t>(MFD_FORMAT_MP4), info.formatId);
  EXPECT_EQ(2500u, info.duration);
}

TEST(MfdVideoBoxTest, SizeZeroRunsToTheEndOfTheFile) {
  int32_t result = -1;
  Bytes moov = box("moov", mvhd(600, 1200));
  moov[0] = moov[1] = moov[2] = moov[3] = 0;
  mfdMediaInfo info = detectBytes(concat({ftyp(), moov}), result);
  EXPECT_EQ(static_cast<uint32_t>(MFD_FORMAT_MP4), info.formatId);
  EXPECT_EQ(2000u, info.duration);
  // A first box of size 0 leaves no room for a movie box.
  Bytes first = ftyp();
  first[3] = 0;
  info = detectBytes(concat({first, box("moov", mvhd(1000, 1000))}), result);
  EXPECT_NE(static_cast<uint32_t>(MFD_FORMAT_MP4), info.formatId);
}

TEST(MfdVideoBoxTest, SizeOneTakesTheSixtyFourBitSize) {
  Bytes large;
  appendBe32(large, 1);
  appendText(large, "free");
  appendBe64(large, 16 + 40);
  large.resize(large.size() + 40, 0);
  int32_t result = -1;
  mfdMediaInfo info = detectBytes(concat({ftyp(), large, box("moov", mvhd(1000, 700))}), result);
  EXPECT_EQ(static_cast<uint32_t>(MFD_FORMAT_MP4), info.formatId);
  EXPECT_EQ(700u, info.duration);
  // 64-bit sizes below the header, and ones that overflow a file offset.
  for (uint64_t size : {uint64_t{0}, uint64_t{8}, uint64_t{15}, ~uint64_t{0}, uint64_t{1} << 63}) {
    Bytes broken;
    appendBe32(broken, 1);
    appendText(broken, "mdat");
    appendBe64(broken, size);
    info = detectBytes(concat({ftyp(), broken, box("moov", mvhd(1000, 700))}), result);
    EXPECT_TRUE(allowedResult(result));
    EXPECT_NE(static_cast<uint32_t>(MFD_FORMAT_MP4), info.formatId) << size;
  }
}

TEST(MfdVideoBoxTest, SizesBelowEightAndBeyondTheFileStopTheWalk) {
  for (uint32_t size : {2u, 7u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    Bytes broken;
    appendBe32(broken, size);
    appendText(broken, "mdat");
    broken.resize(64, 0);
    int32_t result = -1;
    const mfdMediaInfo info = detectBytes(concat({ftyp(), broken, box("moov", mvhd(1000, 700))}), result);
    EXPECT_TRUE(allowedResult(result));
    EXPECT_NE(static_cast<uint32_t>(MFD_FORMAT_MP4), info.formatId) << size;
  }
}

TEST(MfdVideoBoxTest, BrokenChildrenOfTheMovieBoxAreSkippedWithinBounds) {
  // A track whose size reaches past the movie box, children of size 0 and 3,
  // and thousands of empty boxes.
  Bytes oversized = box("trak", Bytes(16));
  oversized[2] = 0x10;
  Bytes tiny;
  appendBe32(tiny, 3);
  appendText(tiny, "trak");
  Bytes many;
  for (int index = 0; index < 5000; ++index) appendBytes(many, box("free", {}));
  for (const Bytes &children : {concat({mvhd(1000, 900), oversized}), concat({mvhd(1000, 900), tiny}),
                                concat({many, mvhd(1000, 900)}), concat({mvhd(1000, 900), many})}) {
    int32_t result = -1;
    const auto started = std::chrono::steady_clock::now();
    const mfdMediaInfo info = detectBytes(concat({ftyp(), box("moov", children)}), result);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
    EXPECT_EQ(0, result);
    EXPECT_EQ(static_cast<uint32_t>(MFD_FORMAT_MP4), info.formatId);
    EXPECT_EQ(0u, info.videoCodec);
  }
}

// ftyp, a 5 GiB media data box with a 64-bit size, and the movie box past it,
// in a sparse file.
TEST(MfdVideoBoxTest, MovieBoxBeyondFourGibibytesIsReached) {
  ScratchDir scratch;
  const std::string path = scratch.write("large.mp4", ftyp());
  const int64_t mdatSize = int64_t{5} << 30;
  Bytes mdat;
  appendBe32(mdat, 1);
  appendText(mdat, "mdat");
  appendBe64(mdat, static_cast<uint64_t>(mdatSize));
  const Bytes moov = box("moov", mvhd(1000, 3600000));
  const int fd = ::open(path.c_str(), O_WRONLY);
  ASSERT_GT(fd, 0);
  const off_t mdatStart = static_cast<off_t>(ftyp().size());
  ASSERT_EQ(static_cast<ssize_t>(mdat.size()), ::pwrite(fd, mdat.data(), mdat.size(), mdatStart));
  if (::pwrite(fd, moov.data(), moov.size(), mdatStart + mdatSize) != static_cast<ssize_t>(moov.size())) {
    ::close(fd);
    GTEST_SKIP() << "no room for a sparse 5 GiB file";
  }
  ::close(fd);
  Detection detection;
  mfdMediaInfo info{};
  ASSERT_EQ(0, detection.detect(path, info));
  EXPECT_EQ(static_cast<uint32_t>(MFD_FORMAT_MP4), info.formatId);
  EXPECT_EQ(3600000u, info.duration);
  EXPECT_EQ(mdatStart + mdatSize + static_cast<int64_t>(moov.size()), info.fileSize);
}

// ---------------------------------------------------------------- random bytes

// Random bytes after a valid start, many times over, for each detector's
// signature: no crash, no hang, only the allowed results.
TEST(MfdVideoHostileTest, RandomBytesBehindContainerSignatures) {
  const struct {
    const char *fixture;
    const char *name;
    size_t keep;  // bytes of the real file kept before the random ones
  } starts[] = {
      {"ps-mpeg2-pal-720x576-mp2.mpg", "r.mpg", 14},   {"ps-mpeg2-pal-720x576-mp2.mpg", "r2.mpg", 400},
      {"es-mpeg2-352x288.m2v", "r.m2v", 12},           {"ts-h264-aac-320x240.ts", "r.ts", 1000},
      {"ts-h264-aac-320x240.ts", "r2.ts", 190},        {"m4a-aac-moov-first.m4a", "r.m4a", 300},
      {"mp4-mpeg4-aac-320x240.mp4", "r.mp4", 700},     {"es-mpeg4-320x240.m4v", "r.m4v", 40},
      {"asf-wmv2-wmav2-320x240.wmv", "r.wmv", 800},    {"asf-wmav2-64k.wma", "r.wma", 30},
  };
  std::mt19937 random(20240521);
  Detection detection;
  ScratchDir scratch;
  for (const auto &start : starts) {
    SCOPED_TRACE(start.fixture);
    const Bytes whole = readFile(videoFixture(start.fixture));
    for (int round = 0; round < 60; ++round) {
      Bytes bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(start.keep));
      const size_t extra = random() % 6000;
      for (size_t index = 0; index < extra; ++index) bytes.push_back(static_cast<uint8_t>(random()));
      // Keep transport packets lined up now and then, so the packet walk runs.
      if (std::string(start.name).find(".ts") != std::string::npos && round % 2 == 0) {
        for (size_t sync = 0; sync < bytes.size(); sync += 188) bytes[sync] = 0x47;
      }
      mfdMediaInfo info{};
      // A new file each round (rewriting one costs the file system more).
      const std::string name = std::to_string(round) + start.name;
      const int32_t result = detection.detect(scratch.write(name, bytes), info);
      ASSERT_TRUE(allowedResult(result)) << "round " << round << " result " << result;
    }
  }
}

// Bytes that look like transport packets but carry the reserved adaptation
// field control value, as a text of capital G's would.
TEST(MfdVideoHostileTest, SyncBytesAloneDoNotMakeATransportStream) {
  int32_t result = -1;
  const mfdMediaInfo info = detectBytes(Bytes(188 * 8, 'G'), result, "g.ts");
  EXPECT_NE(static_cast<uint32_t>(MFD_FORMAT_MPEG_TS), info.formatId);
}

}  // namespace
